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

#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_ext.h"
#include "qbvisa_lowlevel.h"

namespace {

using qbsim::Model;
constexpr Model kModels[] = {Model::RK420, Model::RK420B, Model::RK421, Model::RK422, Model::RK423};
constexpr int kThreadsPerChassis = 4;
constexpr int kPatterns = 16;
constexpr uint16_t kIdentityQuery = 8;

struct Chassis {
  std::string name;
  uint32_t serial = 0;
  uint32_t session = 0;
  std::vector<std::vector<uint32_t>> patterns;
  std::vector<std::vector<qbsim::Relay>> relays;  // closed by each pattern
  std::mutex turn;                                // for QBVISA_OpMatrix
  int last = -1;                                  // pattern now switched
};

// Points p, p + step, ... as the word array QBVISA_OpMatrix takes.
std::vector<uint32_t> pattern(const QBVISA_SlotInfo &info, uint32_t first, uint32_t step) {
  std::vector<uint32_t> words(info.arrayWords, 0);
  for (uint32_t p = first; p < info.pointCount && p / 32 < words.size(); p += step) words[p / 32] |= 1u << (p % 32);
  return words;
}

int soakSeconds() {
  const char *text = std::getenv("QBVISA_SOAK_SECONDS");
  return text != nullptr && std::atoi(text) > 0 ? std::atoi(text) : 5;
}

// The serial number in an identity answer, one byte per 16-bit word.
uint32_t serialIn(const uint8_t *reply) {
  return uint32_t(reply[0]) << 24 | uint32_t(reply[2]) << 16 | uint32_t(reply[4]) << 8 | reply[6];
}

TEST(SoakThreadsTest, FiveChassisFourThreadsEachKeepTheirFramesApart) {
  std::vector<Chassis> chassis(std::size(kModels));
  qbsim::Bench bench;
  for (size_t c = 0; c < chassis.size(); ++c) {
    qbsim::Resource r;
    r.name = chassis[c].name = "GPIB0::" + std::to_string(c + 1) + "::INSTR";
    r.chassis.model = kModels[c];
    r.chassis.serial = chassis[c].serial = 20000001 + static_cast<uint32_t>(c);
    bench.resources.push_back(r);
  }
  qbsim::setBench(bench);
  QBVISA_ResourceEntry list[5] = {};
  uint32_t found = 0;
  ASSERT_EQ(QBVISA_FindRsrc(list, &found), 0);
  ASSERT_EQ(found, chassis.size());
  // Each pattern switched alone first: the relays it must leave closed.
  for (size_t c = 0; c < chassis.size(); ++c) {
    Chassis &ch = chassis[c];
    ASSERT_EQ(QBVISA_Connect(ch.name.c_str(), &ch.session), 0);
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(ch.session, 0, nullptr), 0);
    ASSERT_EQ(QBVISA_Init(ch.session, 0), 0);
    QBVISA_SlotInfo info{};
    ASSERT_EQ(QBVISA_GetSlotInfo(ch.session, 0, &info), 0);
    for (uint32_t k = 0; k < kPatterns; ++k) {
      ch.patterns.push_back(pattern(info, (k * 5 + uint32_t(c)) % 23, info.pointCount / 12 + k));
      ASSERT_EQ(QBVISA_OpMatrix(ch.session, 0, ch.patterns[k].data(), info.arrayWords), 0);
      ch.relays.push_back(qbsim::closedRelays(ch.name));
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
            if (QBVISA_OpMatrix(ch.session, 0, words.data(), static_cast<uint32_t>(words.size())) != 0) {
              ++failedCalls;
              continue;
            }
            ch.last = k;
            ++switches;
            if (qbsim::closedRelays(ch.name) != ch.relays[k]) ++wrongRelays;
            ChassisRecord *record = nullptr;
            if (FindChassis(int32_t(ch.session), &record) < 0 ||
                std::memcmp(record->slots[0].lastArray, words.data(), words.size() * 4) != 0)
              ++wrongArrays;
          } else {
            uint16_t request[2] = {kIdentityQuery, 0};
            uint8_t reply[QBVISA_REPLY_SIZE] = {};
            if (SendRecvMsgLock(ch.session, request, 4, reply) <= 0) {
              ++failedCalls;
              continue;
            }
            ++queries;
            if (serialIn(reply) != ch.serial) ++misrouted;
          }
        }
      });
    }
  }
  std::this_thread::sleep_for(std::chrono::seconds(soakSeconds()));
  stop = true;
  for (std::thread &thread : threads) thread.join();

  EXPECT_EQ(failedCalls, 0);
  EXPECT_EQ(wrongRelays, 0);
  EXPECT_EQ(wrongArrays, 0);
  EXPECT_EQ(misrouted, 0);
  EXPECT_GT(switches, 0);
  EXPECT_GT(queries, 0);
  for (const Chassis &ch : chassis) {
    if (ch.last >= 0) {
      EXPECT_EQ(qbsim::closedRelays(ch.name), ch.relays[ch.last]) << ch.name;
    }
  }
  std::printf("%d s: %ld switches, %ld queries over %zu chassis\n", soakSeconds(), switches.load(), queries.load(),
              chassis.size());
}

}  // namespace
