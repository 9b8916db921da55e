// Several threads switch different chassis at once; each chassis must end
// every call holding exactly what the same pattern closes when switched alone.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "bench.hpp"

namespace {

using qbsim::Model;

TEST(SwitchingThreadsTest, ChassisSwitchedConcurrentlyKeepTheirOwnState) {
  std::vector<qbsim::ChassisConfig> configs;
  for (Model m : {Model::RK420, Model::RK420B, Model::RK421, Model::RK422, Model::RK423})
    configs.push_back(qbtest::chassisConfig(m));
  const std::vector<qbtest::Connection> chassis = qbtest::connectBench(configs);
  constexpr uint32_t kCalls = 60;
  // Pattern of each call on chassis t, and the relays it closes, switched
  // before any thread starts.
  auto pattern = [&](size_t t, uint32_t call) {
    const SlotArea &slot = chassis[t].record->slots[0];
    std::vector<uint32_t> points;
    for (uint32_t p = (call * 7 + t) % 29; p < slot.pointCount; p += 29) points.push_back(p);
    return qbtest::wordsFor(slot, points);
  };
  std::vector<std::vector<std::vector<qbsim::Relay>>> closed(chassis.size());
  for (size_t t = 0; t < chassis.size(); ++t) {
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(chassis[t].session, 0, &kind), 0);
    for (uint32_t call = 0; call < kCalls; ++call) {
      std::vector<uint32_t> words = pattern(t, call);
      ASSERT_EQ(QBVISA_OpMatrix(chassis[t].session, 0, words.data(), words.size()), 0);
      closed[t].push_back(qbsim::closedRelays(chassis[t].resource));
    }
  }
  std::vector<int> mismatches(chassis.size(), 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < chassis.size(); ++t) {
    threads.emplace_back([&, t] {
      const qbtest::Connection &c = chassis[t];
      for (uint32_t call = 0; call < kCalls; ++call) {
        std::vector<uint32_t> words = pattern(t, call);
        const bool ok =
            QBVISA_OpMatrix(c.session, 0, words.data(), words.size()) == 0 &&
            qbsim::closedRelays(c.resource) == closed[t][call] &&
            std::memcmp(c.record->slots[0].lastArray, words.data(), words.size() * 4) == 0;
        mismatches[t] += ok ? 0 : 1;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (size_t t = 0; t < chassis.size(); ++t)
    EXPECT_EQ(mismatches[t], 0) << qbsim::modelName(configs[t].model);
}

}  // namespace
