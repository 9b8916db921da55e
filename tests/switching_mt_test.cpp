// Several threads switch different chassis at once; each chassis must end
// every call holding exactly its own thread's pattern.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"
#include "switching_bench.hpp"

namespace {

using qbsim::Model;

std::vector<uint32_t> pattern(const SlotArea &slot, uint32_t seed) {
  std::vector<uint32_t> indices;
  for (uint32_t p = 0; p < slot.pointCount; ++p)
    if ((p * 2654435761u + seed * 40503u) % 29 == 0) indices.push_back(p);
  return qbtest::wordsFor(indices, slot.arrayWordLimit);
}

TEST(SwitchingThreadsTest, ChassisSwitchedConcurrentlyKeepTheirOwnState) {
  const std::vector<Model> models = {Model::RK420, Model::RK420B, Model::RK421,
                                     Model::RK422, Model::RK423};
  std::vector<qbsim::ChassisConfig> configs;
  for (Model m : models) configs.push_back(qbtest::chassisConfig(m));
  const std::vector<qbtest::Connection> chassis = qbtest::connectBench(configs);
  for (const qbtest::Connection &c : chassis) {
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), 0);
    ASSERT_EQ(QBVISA_Init(c.session, 0), 0);
  }

  constexpr int kCalls = 60;
  std::vector<int> mismatches(chassis.size(), 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < chassis.size(); ++t) {
    threads.emplace_back([&, t] {
      const qbtest::Connection &c = chassis[t];
      for (int call = 0; call < kCalls; ++call) {
        std::vector<uint32_t> words =
            pattern(c.record->slots[0], static_cast<uint32_t>(call * 7 + t));
        const bool ok =
            QBVISA_OpMatrix(c.session, 0, words.data(), words.size()) == 0 &&
            qbsim::closedRelays(c.resource) == qbtest::expectedRelays(*c.record, words) &&
            std::memcmp(c.record->slots[0].lastArray, words.data(), words.size() * 4) == 0;
        if (!ok) ++mismatches[t];
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (size_t t = 0; t < chassis.size(); ++t)
    EXPECT_EQ(mismatches[t], 0) << qbsim::modelName(models[t]);
}

}  // namespace
