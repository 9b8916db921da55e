// control.cpp - the bench's control API for tests and tools, and the two C
// hooks that tools find with dlsym.
#include <algorithm>
#include <stdexcept>

#include "runtime.hpp"

namespace qbsim {
namespace {

using detail::ChassisFirmware;
using detail::Instrument;
using detail::Runtime;

// Runs `body(firmware)` under the instrument's lock; only chassis have one.
template <typename Body>
auto withChassis(const std::string &resource, Body body) {
  const auto instrument = Runtime::instance().instrument(resource);
  std::lock_guard lock(instrument->mutex());
  ChassisFirmware *firmware = instrument->firmware();
  if (firmware == nullptr) throw std::out_of_range("qbsim: " + resource + " is not a chassis");
  return body(*firmware);
}

template <typename Body>
auto withInstrument(const std::string &resource, Body body) {
  const auto instrument = Runtime::instance().instrument(resource);
  std::lock_guard lock(instrument->mutex());
  return body(*instrument);
}

}  // namespace

void setBench(const Bench &bench) { Runtime::instance().replace(bench); }

const Bench &currentBench() { return Runtime::instance().bench(); }

ChassisConfig chassisState(const std::string &resource) {
  return withChassis(resource, [](ChassisFirmware &f) { return f.state(); });
}

std::vector<Relay> closedRelays(const std::string &resource) {
  return withChassis(resource, [](ChassisFirmware &f) { return f.closedRelays(); });
}

int groupsPerBoard(const std::string &resource) {
  return withChassis(resource, [](ChassisFirmware &f) { return f.groupsPerBoard(); });
}

std::vector<uint8_t> firmwareImage(const std::string &resource) {
  return withChassis(resource, [](ChassisFirmware &f) { return f.acceptedImage(); });
}

void setControlMode(const std::string &resource, uint8_t mode) {
  withChassis(resource, [mode](ChassisFirmware &f) { f.state().controlMode = mode; });
}

std::vector<TrafficEntry> traffic(const std::string &resource) {
  return withInstrument(resource, [](Instrument &i) { return i.traffic(); });
}

std::vector<std::vector<uint8_t>> writes(const std::string &resource) {
  std::vector<std::vector<uint8_t>> out;
  for (auto &entry : traffic(resource))
    if (entry.write) out.push_back(std::move(entry.bytes));
  return out;
}

void clearTraffic(const std::string &resource) {
  withInstrument(resource, [](Instrument &i) { i.clearTraffic(); });
}

void injectFault(const std::string &resource, Fault fault) {
  withInstrument(resource, [fault](Instrument &i) { i.inject(fault); });
}

}  // namespace qbsim

extern "C" {

__attribute__((visibility("default"))) int qbsim_closed_relays(const char *resource,
                                                               int32_t *triples,
                                                               int max_triples) {
  if (resource == nullptr) return -1;
  try {
    const auto relays = qbsim::closedRelays(resource);
    const size_t room = triples == nullptr || max_triples < 0 ? 0 : static_cast<size_t>(max_triples);
    for (size_t i = 0; i < std::min(room, relays.size()); ++i) {
      triples[3 * i] = relays[i].board;
      triples[3 * i + 1] = relays[i].group;
      triples[3 * i + 2] = relays[i].bit;
    }
    return static_cast<int>(relays.size());
  } catch (...) {
    return -1;
  }
}

__attribute__((visibility("default"))) int qbsim_relay_geometry(const char *resource,
                                                                int *boards,
                                                                int *groups_per_board) {
  if (resource == nullptr) return -1;
  try {
    const auto state = qbsim::chassisState(resource);
    const int groups = qbsim::groupsPerBoard(resource);
    if (boards != nullptr) *boards = qbsim::detail::boardCount(state.model);
    if (groups_per_board != nullptr) *groups_per_board = groups;
    return 0;
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
