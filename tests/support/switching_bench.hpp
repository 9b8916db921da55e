// switching_bench.hpp - chassis on the simulated bench made ready for
// switching, and the word arrays that switch given points.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace qbtest {

// A session number that no chassis record holds.
constexpr uint32_t kUnknownSession = 0x7FFF0001u;

// Every sub-matrix fitted, remote control, this controller firmware.
qbsim::ChassisConfig chassisConfig(qbsim::Model model, uint8_t major = 3,
                                   uint8_t minor = 6);

struct Connection {
  std::string resource;
  uint32_t session = 0;
  ChassisRecord *record = nullptr;
};

// Installs a bench of exactly these chassis, runs discovery and connects
// each; traffic is cleared afterwards. Any failure fails the running test.
std::vector<Connection> connectBench(
    const std::vector<qbsim::ChassisConfig> &chassis);
Connection connectChassis(const qbsim::ChassisConfig &config);
// Also slot 0 opened and initialised (all relays open), traffic cleared.
Connection readyChassis(const qbsim::ChassisConfig &config);

// The word array of slot 0 in which exactly `points` are set.
std::vector<uint32_t> wordsFor(const SlotArea &slot,
                               const std::vector<uint32_t> &points);

}  // namespace qbtest
