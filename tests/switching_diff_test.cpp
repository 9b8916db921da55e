// Randomized differential test of the relay-state frame: the frame a registry
// record's prepared table builds against the one the point-by-point builder
// gives for a copy of the record outside the registry, over every model, both
// RK420 firmware generations, random fitted sub-matrices, densities from empty
// to full, random word counts, bent geometry and location entries, and LT
// flags. The point-by-point frames themselves are pinned by the switching
// transcript. QBVISA_SWITCHING_SEED replays a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <vector>

#include "core/chassis_model.h"
#include "switching/relay_frame.h"
#include "bench.hpp"

namespace {

using qbsim::Model;

struct Sent {
  int32_t status;
  std::vector<std::vector<uint8_t>> writes;
  bool operator==(const Sent &) const = default;
};

// The same words through the registry record and through a copy of it.
std::pair<Sent, Sent> bothPaths(const qbtest::Connection &c, std::vector<uint32_t> &array) {
  static ChassisRecord copy;
  copy = *c.record;
  std::pair<Sent, Sent> out;
  qbsim::clearTraffic(c.resource);
  out.first.status = QBVISA_OpMatrix(c.session, 0, array.data(), uint32_t(array.size()));
  out.first.writes = qbsim::writes(c.resource);
  qbsim::clearTraffic(c.resource);
  out.second.status = OpMatrix(&copy, 0, array.data(), uint32_t(array.size()), 1);
  out.second.writes = qbsim::writes(c.resource);
  return out;
}

uint64_t seedOfRun() {
  const char *given = std::getenv("QBVISA_SWITCHING_SEED");
  const uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::cout << "QBVISA_SWITCHING_SEED=" << seed << "\n";
  return seed;
}

// A location entry of the slot's kind, to bend and restore.
PointLocation *locationEntry(uint32_t kind, std::mt19937_64 &rng) {
  const uint64_t row = rng(), column = rng();
  switch (kind) {
    case MATRIX_KIND_RK420: return row % 2 ? &isoLocationX[row / 2 % 12][column % 10] : &matrixLocation[row / 2 % 12][column % 10];
    case MATRIX_KIND_RK421: return &RK421_isoLocationCV[4 + row % 2][column % 12];
    case MATRIX_KIND_RK422: return &RK422_matrixLocation[row % 16][column % 96];
    default: return &RK423_isoLocationLT[row % 2][0];
  }
}

TEST(SwitchingDifferentialTest, PreparedFramesMatchThePointByPointBuilder) {
  std::mt19937_64 rng(seedOfRun());
  const std::pair<Model, uint8_t> configs[] = {
      {Model::RK420, 3}, {Model::RK420, 1}, {Model::RK420B, 3}, {Model::RK420B, 1},
      {Model::RK421, 3}, {Model::RK422, 3}, {Model::RK423, 3}, {Model::RK423B, 3}};
  int cases = 0, sent = 0;
  for (const auto &[model, major] : configs)
    for (int fitting = 0; fitting < 2; ++fitting) {
      qbsim::ChassisConfig config = qbtest::chassisConfig(model, major, 6);
      const int subs = qbvisa::modelByType(uint16_t(model))->subMatrixCount;
      config.presenceMaskSet = true;
      config.presenceMask = (1u << subs) - 1u;
      if (fitting == 1) config.presenceMask &= uint32_t(rng()) | 1u << (rng() % subs);
      const qbtest::Connection c = qbtest::readyChassis(config);
      ChassisRecord &record = *c.record;
      const ChassisRecord saved = record;
      for (int n = 0; n < 250; ++n, ++cases) {
        SCOPED_TRACE(testing::Message() << qbsim::modelName(model) << " firmware " << int{major}
                                        << " mask " << config.presenceMask << " case " << n);
        record.modelTypeCode = saved.modelTypeCode;
        std::memcpy(&record.slots[0], &saved.slots[0], offsetof(SlotArea, lastArray));
        std::memcpy(&record.slots[0].arrayWordLimit, &saved.slots[0].arrayWordLimit,
                    sizeof(SlotArea) - offsetof(SlotArea, arrayWordLimit));
        SlotArea &s = record.slots[0];
        auto chance = [&](int percent) { return int(rng() % 100) < percent; };
        auto nudge = [&](uint16_t &field, int span) { field = uint16_t(std::max(0, field + int(rng() % (2 * span + 1)) - span)); };
        if (chance(10)) nudge(s.rowCount, 3);
        if (chance(10)) nudge(s.columnCount, 3);
        if (chance(8)) nudge(s.subMatrixCount, 2);
        if (chance(8)) nudge(s.groupCount, 2);
        if (chance(8)) nudge(s.wordsPerGroup, 2);
        if (chance(8)) nudge(s.pointCount, 40);
        if (chance(8)) nudge(s.arrayWordLimit, 3);
        if (chance(10)) s.subMatrixGroup[rng() % 21] = int8_t(int(rng() % 28) - 2);
        if (chance(5)) s.matrixKind = uint32_t(rng() % 5);  // another model's wiring, or a card's
        if (chance(5)) record.modelTypeCode = uint16_t(qbvisa::chassisModels()[rng() % 6].typeCode);
        s.ltIsolationState[0] = uint8_t(rng() % 3);
        s.ltIsolationState[1] = uint8_t(rng() % 3);
        if (chance(10)) s.ltIsolationCount = uint16_t(rng() % 4);
        // Bent entries reach relays no point uses (often a short board's dead bits).
        std::vector<std::pair<PointLocation *, PointLocation>> bent;
        for (int k = chance(15) ? 8 : 0; k > 0; --k) {
          PointLocation *entry = locationEntry(s.matrixKind, rng);
          bent.push_back({entry, *entry});
          *entry = {chance(50) ? 12 : int32_t(rng() % 60) - 4, int32_t(rng() % 18) - 1, 0};
        }
        const uint32_t densities[] = {0, 1, 8, 32, 64};  // closed in 64
        const uint32_t density = densities[rng() % 5];
        std::vector<uint32_t> array(rng() % (s.arrayWordLimit + 4u));
        for (uint32_t &word : array)
          for (int k = 0; k < 32; ++k) word |= uint32_t(rng() % 64 < density) << k;
        const auto [prepared, pointByPoint] = bothPaths(c, array);
        for (auto it = bent.rbegin(); it != bent.rend(); ++it) *it->first = it->second;
        EXPECT_EQ(prepared, pointByPoint);
        // Refused before sending (too large, over the closure limit): nothing goes out.
        const bool refused = prepared.status == QBVISA_ERR_PARAMETER || prepared.status == QBVISA_ERR_CLOSURE_LIMIT;
        EXPECT_EQ(prepared.writes.size(), refused ? 0u : 1u) << prepared.status;
        sent += !refused;
        if (prepared.status == 0 && !array.empty()) {
          EXPECT_EQ(std::memcmp(s.lastArray, array.data(), std::min<size_t>(array.size() * 4, 6000)), 0);
        }
      }
      record = saved;
    }
  std::cout << cases << " cases, " << sent << " frames sent\n";
}

// Boards of 200 words on every RK422 sub-matrix: frame bit numbers pass 16
// bits, which the prepared table cannot hold, yet the frame must be the same.
TEST(SwitchingDifferentialTest, FramesPastSixteenBitBitNumbers) {
  const qbtest::Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
  c.record->slots[0].wordsPerGroup = qbvisa::kBitGroupsPerBoard;
  std::vector<uint32_t> array(c.record->slots[0].arrayWordLimit, 0x01000201u);
  const auto [prepared, pointByPoint] = bothPaths(c, array);
  EXPECT_EQ(prepared, pointByPoint);
  EXPECT_EQ(pointByPoint.writes.at(0).size(), 4 + 21 * 200 * 2u);
  c.record->slots[0].wordsPerGroup = 49;
}

}  // namespace
