// control.cpp - the bench's control API for tests and tools, and the C
// entry points that tools and the Python package reach (by dlsym or ctypes).
// The C++ API always works on this process's own bench; the C entry points
// act on the rack server's bench when $QBSIM_SERVER names one, so every
// process looks at the same rack.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "remote.hpp"
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

namespace detail {

std::optional<Fault> faultNamed(const std::string &name) {
  static constexpr std::pair<const char *, Fault> kFaults[] = {
      {"WriteFails", Fault::WriteFails},     {"ReadFails", Fault::ReadFails},
      {"FailureReply", Fault::FailureReply}, {"ShortReply", Fault::ShortReply},
      {"Timeout", Fault::Timeout},           {"Vanish", Fault::Vanish},
      {"TermCharCompletion", Fault::TermCharCompletion},
      {"MaxCountCompletion", Fault::MaxCountCompletion},
  };
  for (const auto &[text, fault] : kFaults)
    if (name == text) return fault;
  return std::nullopt;
}

}  // namespace detail
}  // namespace qbsim

namespace {

using qbsim::detail::Op;
using qbsim::detail::RemoteRack;

RemoteRack *remoteRack() { return RemoteRack::fromEnvironment(); }

// Sends a control request to the rack server; the reply's status (-1 when
// the server cannot be reached) and a reader positioned after it.
struct RemoteReply {
  int status = -1;
  qbsim::wire::Bytes body;
  qbsim::wire::Reader reader() const {
    qbsim::wire::Reader in(body.data(), body.size());
    in.i32();
    return in;
  }
};

RemoteReply askRack(RemoteRack &rack, const qbsim::wire::Writer &request) {
  RemoteReply reply;
  auto body = rack.call(request.data(), qbsim::detail::kDefaultWaitMs, true);
  if (!body || body->size() < 4) return reply;
  reply.body = std::move(*body);
  reply.status = qbsim::wire::Reader(reply.body.data(), reply.body.size()).i32();
  return reply;
}

qbsim::wire::Writer request(Op op) {
  qbsim::wire::Writer w;
  w.u8(static_cast<uint8_t>(op));
  return w;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int qbsim_closed_relays(const char *resource,
                                                               int32_t *triples,
                                                               int max_triples) {
  if (resource == nullptr) return -1;
  if (RemoteRack *rack = remoteRack()) {
    const RemoteReply reply = askRack(*rack, request(Op::Relays).text(resource));
    if (reply.status < 0) return -1;
    auto in = reply.reader();
    const uint32_t n = in.u32();
    const size_t room = triples == nullptr || max_triples < 0 ? 0 : static_cast<size_t>(max_triples);
    for (size_t i = 0; i < n && in.ok(); ++i) {
      const int32_t board = in.i32(), group = in.i32(), bit = in.i32();
      if (i >= room) continue;
      triples[3 * i] = board;
      triples[3 * i + 1] = group;
      triples[3 * i + 2] = bit;
    }
    return in.ok() ? static_cast<int>(n) : -1;
  }
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
  if (RemoteRack *rack = remoteRack()) {
    const RemoteReply reply = askRack(*rack, request(Op::Geometry).text(resource));
    if (reply.status < 0) return -1;
    auto in = reply.reader();
    const int32_t b = in.i32(), g = in.i32();
    if (!in.ok()) return -1;
    if (boards != nullptr) *boards = b;
    if (groups_per_board != nullptr) *groups_per_board = g;
    return 0;
  }
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

const char *const kNoServer = "the rack server does not answer";

// Loads a bench-file text on the rack server.
int loadRemoteBench(RemoteRack &rack, const std::string &json, char *error, int errorSize) {
  const RemoteReply reply = askRack(rack, request(Op::LoadBench).text(json));
  if (reply.body.empty()) {
    copyOut(kNoServer, error, errorSize);
    return -1;
  }
  copyOut(reply.reader().text(), error, errorSize);
  return reply.status < 0 ? -1 : 0;
}

std::string readFile(const std::string &path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("bench file " + path + ": cannot be opened");
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// A status-only control request.
int simpleRemote(RemoteRack &rack, const qbsim::wire::Writer &w) {
  return askRack(rack, w).status < 0 ? -1 : 0;
}

// The text a control request answers, cut into a caller's buffer.
int remoteText(RemoteRack &rack, Op op, char *buffer, int size) {
  const RemoteReply reply = askRack(rack, request(op));
  if (reply.status < 0) return -1;
  auto in = reply.reader();
  const std::string text = in.text();
  if (!in.ok()) return -1;
  copyOut(text, buffer, size);
  return static_cast<int>(text.size());
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
  if (RemoteRack *rack = remoteRack()) return loadRemoteBench(*rack, json, error, error_size);
  return loadBench([&] { return qbsim::parseBench(json); }, error, error_size);
}

__attribute__((visibility("default"))) int qbsim_load_bench_file(const char *path, char *error,
                                                                 int error_size) {
  if (path == nullptr) return -1;
  if (RemoteRack *rack = remoteRack()) {
    // The file is read here: the server may not see this process's files.
    std::string text;
    try {
      text = readFile(path);
    } catch (const std::exception &e) {
      copyOut(e.what(), error, error_size);
      return -1;
    }
    const int status = loadRemoteBench(*rack, text, error, error_size);
    if (status < 0 && error != nullptr && error_size > 0 && *error != '\0')
      copyOut(std::string(path) + ": " + error, error, error_size);
    return status;
  }
  return loadBench([&] { return qbsim::loadBenchFile(path); }, error, error_size);
}

__attribute__((visibility("default"))) int qbsim_use_default_bench(void) {
  if (RemoteRack *rack = remoteRack()) return simpleRemote(*rack, request(Op::DefaultBench));
  return loadBench([] { return qbsim::defaultBench(); }, nullptr, 0);
}

__attribute__((visibility("default"))) int qbsim_reset(void) {
  if (RemoteRack *rack = remoteRack()) return simpleRemote(*rack, request(Op::Reset));
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
  if (resource == nullptr || kind == nullptr) return -1;
  if (RemoteRack *rack = remoteRack())
    return simpleRemote(*rack, request(Op::Fault).text(resource).text(kind));
  const auto fault = qbsim::detail::faultNamed(kind);
  if (!fault) return -1;
  try {
    qbsim::injectFault(resource, *fault);
    return 0;
  } catch (...) {
    return -1;
  }
}

__attribute__((visibility("default"))) int qbsim_reset_resource(const char *resource) {
  if (resource == nullptr) return -1;
  if (RemoteRack *rack = remoteRack())
    return simpleRemote(*rack, request(Op::ResetResource).text(resource));
  try {
    qbsim::detail::Runtime::instance().resetInstrument(resource);
    return 0;
  } catch (...) {
    return -1;
  }
}

__attribute__((visibility("default"))) int qbsim_state_json(char *buffer, int size) {
  if (RemoteRack *rack = remoteRack()) return remoteText(*rack, Op::StateJson, buffer, size);
  try {
    const std::string json = qbsim::benchToJson(qbsim::detail::Runtime::instance().liveBench());
    copyOut(json, buffer, size);
    return static_cast<int>(json.size());
  } catch (...) {
    return -1;
  }
}

__attribute__((visibility("default"))) int qbsim_bench_json(char *buffer, int size) {
  if (RemoteRack *rack = remoteRack()) return remoteText(*rack, Op::BenchJson, buffer, size);
  try {
    const std::string json = qbsim::benchToJson(qbsim::currentBench());
    copyOut(json, buffer, size);
    return static_cast<int>(json.size());
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
