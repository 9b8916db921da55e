// bench.hpp - chassis on the simulated bench, discovered and connected, and
// read-back of the frames the library wrote to them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

namespace qbtest {

constexpr uint32_t kUnknownSession = 0x7FFF0001u;  // no chassis record holds it

// Every sub-matrix fitted, remote control, this controller firmware.
qbsim::ChassisConfig chassisConfig(qbsim::Model model, uint8_t major = 3, uint8_t minor = 6);

struct Connection {
  std::string resource;
  uint32_t session = 0;
  ChassisRecord *record = nullptr;
};

// Installs exactly these resources as the bench, runs discovery and connects
// each; traffic is cleared afterwards. Any failure fails the running test.
std::vector<Connection> connectResources(const std::vector<qbsim::Resource> &resources);
// The same for chassis named TCPIP0::192.168.1.20::inst0::INSTR on.
std::vector<Connection> connectBench(const std::vector<qbsim::ChassisConfig> &chassis);
Connection connectChassis(const qbsim::ChassisConfig &config);
// Also slot 0 opened and initialised (all relays open), traffic cleared.
Connection readyChassis(const qbsim::ChassisConfig &config);

// The word array of slot 0 in which exactly `points` are set.
std::vector<uint32_t> wordsFor(const SlotArea &slot, const std::vector<uint32_t> &points);

inline qbsim::Resource Chassis(const std::string &name, qbsim::Model model) {
  qbsim::Resource resource;
  resource.name = name;
  resource.chassis.model = model;
  return resource;
}

// Sessions of connectResources, in bench order.
inline std::vector<uint32_t> Connect(const std::vector<qbsim::Resource> &resources) {
  std::vector<uint32_t> sessions;
  for (const Connection &c : connectResources(resources)) sessions.push_back(c.session);
  return sessions;
}
inline uint32_t ConnectOne(const qbsim::Resource &resource) { return Connect({resource}).front(); }

inline ChassisRecord *Record(uint32_t session) {
  ChassisRecord *record = nullptr;
  EXPECT_GE(FindChassis(static_cast<int32_t>(session), &record), 0);
  return record;
}

// The little-endian 16-bit words of a frame.
inline std::vector<uint16_t> Words(const std::vector<uint8_t> &frame) {
  std::vector<uint16_t> words;
  for (size_t i = 0; i + 1 < frame.size(); i += 2) words.push_back(frame[i] | frame[i + 1] << 8);
  return words;
}

// Command codes of the frames written to `resource`, in order.
inline std::vector<uint16_t> Commands(const std::string &resource) {
  std::vector<uint16_t> commands;
  for (const auto &frame : qbsim::writes(resource)) commands.push_back(Words(frame).at(0));
  return commands;
}

}  // namespace qbtest
