// control.cpp - the bench's control API for tests and tools, and the C
// entry points that tools and the Python package reach (by dlsym or ctypes).
#include <algorithm>
#include <cstring>
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

namespace {

// Copies `text` into a caller's buffer, cut to fit and always terminated.
void copyOut(const std::string &text, char *buffer, int size) {
  if (buffer == nullptr || size <= 0) return;
  const size_t length = std::min(text.size(), static_cast<size_t>(size) - 1);
  std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
}

template <typename Load>
int loadBench(Load load, char *error, int errorSize) {
  try {
    qbsim::setBench(load());
    copyOut("", error, errorSize);
    return 0;
  } catch (const std::exception &e) {
    copyOut(e.what(), error, errorSize);
    return -1;
  }
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int qbsim_load_bench_json(const char *json, char *error,
                                                                 int error_size) {
  if (json == nullptr) return -1;
  return loadBench([&] { return qbsim::parseBench(json); }, error, error_size);
}

__attribute__((visibility("default"))) int qbsim_load_bench_file(const char *path, char *error,
                                                                 int error_size) {
  if (path == nullptr) return -1;
  return loadBench([&] { return qbsim::loadBenchFile(path); }, error, error_size);
}

__attribute__((visibility("default"))) int qbsim_use_default_bench(void) {
  return loadBench([] { return qbsim::defaultBench(); }, nullptr, 0);
}

__attribute__((visibility("default"))) int qbsim_reset(void) {
  try {
    const qbsim::Bench initial = qbsim::currentBench();
    qbsim::setBench(initial);
    return 0;
  } catch (...) {
    return -1;
  }
}

__attribute__((visibility("default"))) int qbsim_inject_fault(const char *resource,
                                                              const char *kind) {
  static constexpr std::pair<const char *, qbsim::Fault> kFaults[] = {
      {"WriteFails", qbsim::Fault::WriteFails},     {"ReadFails", qbsim::Fault::ReadFails},
      {"FailureReply", qbsim::Fault::FailureReply}, {"ShortReply", qbsim::Fault::ShortReply},
      {"Timeout", qbsim::Fault::Timeout},           {"Vanish", qbsim::Fault::Vanish},
      {"TermCharCompletion", qbsim::Fault::TermCharCompletion},
      {"MaxCountCompletion", qbsim::Fault::MaxCountCompletion},
  };
  if (resource == nullptr || kind == nullptr) return -1;
  for (const auto &[name, fault] : kFaults) {
    if (std::strcmp(name, kind) != 0) continue;
    try {
      qbsim::injectFault(resource, fault);
      return 0;
    } catch (...) {
      return -1;
    }
  }
  return -1;
}

__attribute__((visibility("default"))) int qbsim_bench_json(char *buffer, int size) {
  try {
    const std::string json = qbsim::benchToJson(qbsim::currentBench());
    copyOut(json, buffer, size);
    return static_cast<int>(json.size());
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
