// Several threads switch different chassis at once; each chassis must end
// every call holding exactly its own thread's pattern, as the location
// lookup places it.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "switching_bench.hpp"

namespace {

using qbsim::Model;

TEST(SwitchingThreadsTest, ChassisSwitchedConcurrentlyKeepTheirOwnState) {
  std::vector<qbsim::ChassisConfig> configs;
  for (Model m : {Model::RK420, Model::RK420B, Model::RK421, Model::RK422, Model::RK423})
    configs.push_back(qbtest::chassisConfig(m));
  const std::vector<qbtest::Connection> chassis = qbtest::connectBench(configs);
  for (const qbtest::Connection &c : chassis) {
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), 0);
    ASSERT_EQ(QBVISA_Init(c.session, 0), 0);
  }
  std::vector<int> mismatches(chassis.size(), 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < chassis.size(); ++t) {
    threads.emplace_back([&, t] {
      const qbtest::Connection &c = chassis[t];
      const SlotArea &slot = c.record->slots[0];
      for (uint32_t call = 0; call < 60; ++call) {
        std::vector<uint32_t> points;
        for (uint32_t p = (call * 7 + t) % 29; p < slot.pointCount; p += 29) points.push_back(p);
        std::vector<uint32_t> words = qbtest::wordsFor(slot, points);
        const bool ok =
            QBVISA_OpMatrix(c.session, 0, words.data(), words.size()) == 0 &&
            qbsim::closedRelays(c.resource) == qbtest::expectedRelays(*c.record, words) &&
            std::memcmp(slot.lastArray, words.data(), words.size() * 4) == 0;
        mismatches[t] += ok ? 0 : 1;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (size_t t = 0; t < chassis.size(); ++t)
    EXPECT_EQ(mismatches[t], 0) << qbsim::modelName(configs[t].model);
}

}  // namespace
