// admin_bench.hpp - simulated chassis, discovered and connected, for the
// administration tests, and read-back of the frames the library wrote.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

namespace qbtest {

constexpr uint32_t kUnknownSession = 0x7FFF0000u;  // no chassis record holds it

inline qbsim::Resource Chassis(const std::string &name, qbsim::Model model) {
  qbsim::Resource resource;
  resource.name = name;
  resource.chassis.model = model;
  return resource;
}

// Installs `resources` as the bench and connects to every chassis; returns
// their sessions in bench order with the traffic cleared.
inline std::vector<uint32_t> Connect(const std::vector<qbsim::Resource> &resources) {
  qbsim::setBench(qbsim::Bench{resources});
  QBVISA_ResourceEntry list[8] = {};
  uint32_t found = 0;
  EXPECT_EQ(QBVISA_FindRsrc(list, &found), 0);
  std::vector<uint32_t> sessions;
  for (const auto &resource : resources) {
    uint32_t session = 0;
    EXPECT_EQ(QBVISA_Connect(resource.name.c_str(), &session), 0) << resource.name;
    sessions.push_back(session);
    qbsim::clearTraffic(resource.name);
  }
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
