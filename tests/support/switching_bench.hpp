// switching_bench.hpp - chassis on the simulated bench made ready for
// switching, and the relays a switched point set should close, worked out
// from the location lookup (GetPoint) rather than from the library's frame.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace qbtest {

// A session number that no chassis record holds.
constexpr uint32_t kUnknownSession = 0x7FFF0001u;

// Resource name of the n-th chassis of a test bench.
std::string resourceName(int n);

// A chassis with the bench defaults: every sub-matrix fitted, firmware 3.6,
// remote control.
qbsim::ChassisConfig chassisConfig(qbsim::Model model);

struct Connection {
  std::string resource;
  uint32_t session = 0;
  ChassisRecord *record = nullptr;
};

// Installs a bench of exactly these chassis (entry n on resourceName(n)),
// runs discovery and connects each; traffic is cleared afterwards. Any
// failure fails the running test.
std::vector<Connection> connectBench(
    const std::vector<qbsim::ChassisConfig> &chassis);
Connection connectChassis(const qbsim::ChassisConfig &config);
// Connected, slot 0 opened and initialised (all relays open), traffic
// cleared: how a program starts switching.
Connection readyChassis(const qbsim::ChassisConfig &config);

// Point number of (row, sub-matrix, column) in the caller's bit array.
uint32_t pointIndex(const SlotArea &slot, uint32_t row, uint32_t sub,
                    uint32_t column);
// The word array in which exactly `points` are set.
std::vector<uint32_t> wordsFor(const std::vector<uint32_t> &points,
                               size_t wordCount);

// Relays closed after switching `words` on slot 0 of `record`: each set point
// closes its crosspoint and the isolation relays its kind needs; only the
// bit groups a board sends are counted. Sorted, without duplicates.
std::vector<qbsim::Relay> expectedRelays(const ChassisRecord &record,
                                         const std::vector<uint32_t> &words);

// Frame bytes from little-endian 16-bit words and back.
std::vector<uint8_t> bytesOf(const std::vector<uint16_t> &words);
std::vector<uint16_t> wordsOf(const std::vector<uint8_t> &bytes);

}  // namespace qbtest
