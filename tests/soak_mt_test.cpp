// Soak: five chassis, four threads on each, switching and querying at once
// for QBVISA_SOAK_SECONDS seconds (5 when unset; 60 for the long run). Each
// chassis must hold exactly the relays of the last pattern switched on it
// after every switch, and every query must come back with that chassis's
// own answer: no frame lost, none delivered to another chassis.
//
// The library leaves a chassis record unlocked, so the threads of one
// chassis take turns for QBVISA_OpMatrix (a caller's lock); their queries go
// through the guarded exchange with their own buffers and need no turn.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench.hpp"
#include "qbvisa_ext.h"

namespace {

using qbsim::Model;
constexpr Model kModels[] = {Model::RK420, Model::RK420B, Model::RK421, Model::RK422, Model::RK423};
constexpr int kThreadsPerChassis = 4, kPatterns = 16;
constexpr uint16_t kIdentityQuery = 8;

struct Chassis {
  qbtest::Connection c;
  std::vector<std::vector<uint32_t>> patterns;
  std::vector<std::vector<qbsim::Relay>> relays;  // closed by each pattern
  std::mutex turn;                                // for QBVISA_OpMatrix
  int last = -1;                                  // pattern now switched
};

// The serial number in an identity answer, one byte per 16-bit word.
uint32_t serialIn(const uint8_t *reply) {
  return uint32_t(reply[0]) << 24 | uint32_t(reply[2]) << 16 | uint32_t(reply[4]) << 8 | reply[6];
}

TEST(SoakThreadsTest, FiveChassisFourThreadsEachKeepTheirFramesApart) {
  const char *seconds = std::getenv("QBVISA_SOAK_SECONDS");
  const int soakSeconds = seconds != nullptr && std::atoi(seconds) > 0 ? std::atoi(seconds) : 5;
  std::vector<qbsim::Resource> bench;
  for (uint32_t c = 0; c < std::size(kModels); ++c) {
    bench.push_back(qbtest::Chassis("GPIB0::" + std::to_string(c + 1) + "::INSTR", kModels[c]));
    bench.back().chassis.serial = 20000001 + c;
  }
  const std::vector<qbtest::Connection> connections = qbtest::connectResources(bench);
  ASSERT_EQ(connections.size(), bench.size());
  std::vector<Chassis> chassis(bench.size());
  // Each pattern (points p, p + step, ...) switched alone first: the relays
  // it must leave closed.
  for (uint32_t c = 0; c < chassis.size(); ++c) {
    Chassis &ch = chassis[c];
    ch.c = connections[c];
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(ch.c.session, 0, nullptr), 0);
    ASSERT_EQ(QBVISA_Init(ch.c.session, 0), 0);
    QBVISA_SlotInfo info{};
    ASSERT_EQ(QBVISA_GetSlotInfo(ch.c.session, 0, &info), 0);
    for (uint32_t k = 0; k < kPatterns; ++k) {
      std::vector<uint32_t> &words = ch.patterns.emplace_back(info.arrayWords, 0);
      for (uint32_t p = (k * 5 + c) % 23; p < info.pointCount && p / 32 < words.size(); p += info.pointCount / 12 + k)
        words[p / 32] |= 1u << (p % 32);
      ASSERT_EQ(QBVISA_OpMatrix(ch.c.session, 0, words.data(), info.arrayWords), 0);
      ch.relays.push_back(qbsim::closedRelays(ch.c.resource));
      ASSERT_FALSE(ch.relays[k].empty());
    }
  }

  std::atomic<bool> stop{false};
  std::atomic<long> switches{0}, queries{0}, wrongRelays{0}, wrongArrays{0}, failedCalls{0}, misrouted{0};
  std::vector<std::thread> threads;
  for (size_t c = 0; c < chassis.size(); ++c) {
    for (int t = 0; t < kThreadsPerChassis; ++t) {
      threads.emplace_back([&, c, t] {
        Chassis &ch = chassis[c];
        std::minstd_rand random(static_cast<unsigned>(c * kThreadsPerChassis + t + 1));
        while (!stop.load(std::memory_order_relaxed)) {
          if (random() % 2 == 0) {
            const int k = static_cast<int>(random() % kPatterns);
            std::vector<uint32_t> &words = ch.patterns[k];
            std::lock_guard turn(ch.turn);
            if (QBVISA_OpMatrix(ch.c.session, 0, words.data(), static_cast<uint32_t>(words.size())) != 0) {
              ++failedCalls;
              continue;
            }
            ch.last = k;
            ++switches;
            wrongRelays += qbsim::closedRelays(ch.c.resource) != ch.relays[k];
            ChassisRecord *record = nullptr;
            wrongArrays += FindChassis(int32_t(ch.c.session), &record) < 0 ||
                           std::memcmp(record->slots[0].lastArray, words.data(), words.size() * 4) != 0;
          } else {
            uint16_t request[2] = {kIdentityQuery, 0};
            uint8_t reply[QBVISA_REPLY_SIZE] = {};
            if (SendRecvMsgLock(ch.c.session, request, 4, reply) <= 0) {
              ++failedCalls;
              continue;
            }
            ++queries;
            misrouted += serialIn(reply) != bench[c].chassis.serial;
          }
        }
      });
    }
  }
  std::this_thread::sleep_for(std::chrono::seconds(soakSeconds));
  stop = true;
  for (std::thread &thread : threads) thread.join();

  EXPECT_EQ(failedCalls, 0);
  EXPECT_EQ(wrongRelays, 0);
  EXPECT_EQ(wrongArrays, 0);
  EXPECT_EQ(misrouted, 0);
  EXPECT_GT(switches, 0);
  EXPECT_GT(queries, 0);
  for (const Chassis &ch : chassis)
    EXPECT_TRUE(ch.last < 0 || qbsim::closedRelays(ch.c.resource) == ch.relays[ch.last]) << ch.c.resource;
  std::printf("%d s: %ld switches, %ld queries over %zu chassis\n", soakSeconds, switches.load(), queries.load(),
              chassis.size());
}

}  // namespace
