// Randomized differential test of the relay-state frame: a plain
// point-by-point model of the frame, built from the location tables and the
// model rules, against what the library writes to the simulated chassis, over
// every model, both RK420 firmware generations, random fitted sub-matrices,
// densities from empty to full, random word counts, bent geometry and
// location entries, and LT flags. QBVISA_SWITCHING_SEED replays a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <vector>

#include "core/chassis_model.h"
#include "bench.hpp"

namespace {

using qbsim::Model;
using qbvisa::ChassisModel;

struct Expected {
  int32_t status;              // 0: the frame goes out
  std::vector<uint8_t> frame;  // bytes on the wire
};

// The frame as the chassis needs it: each closed point in order closes its
// relays in a board image (one that leaves the image is dropped), the first
// fitted point outside the geometry ends the placing (and the LT relays stay
// open), then every board is sent last bit group first.
Expected reference(const ChassisRecord &record, const uint32_t *array, uint32_t words) {
  const SlotArea &s = record.slots[0];
  if (s.groupCount > 25 || s.wordsPerGroup > 200) return {QBVISA_ERR_PARAMETER, {}};
  const ChassisModel *model = qbvisa::modelByType(record.modelTypeCode);
  const ChassisModel *kindModel = qbvisa::modelByKind(s.matrixKind);
  std::vector<uint8_t> image(25 * 200 * 16, 0);
  auto close = [&](int board, RelayPosition at) {
    if (at.group >= 0 && at.group < 200 && at.position >= 0 && at.position < 16)
      image[(board * 200 + at.group) * 16 + at.position] = 1;
  };
  auto look = [&](int32_t selector, uint32_t row, uint32_t column) {
    RelayPosition at{-1, -1};
    GetPoint(s.matrixKind, selector, row, column, &at);
    return at;
  };
  const uint32_t count = words == 0 ? 0 : std::min<uint32_t>({s.arrayWordLimit, words, 1250});
  const uint32_t perRow = uint32_t{s.subMatrixCount} * s.columnCount;
  bool stopped = false;
  for (uint32_t p = 0; perRow != 0 && p < std::min<uint32_t>(s.pointCount, 40000u) && !stopped; ++p) {
    if (p >= count * 32 || !(array[p / 32] >> (p % 32) & 1u)) continue;
    const uint32_t row = p / perRow, sub = p % perRow / s.columnCount;
    uint32_t column = p % perRow % s.columnCount;
    if (model != nullptr && column < model->reversedColumns) column = model->reversedColumns - 1 - column;
    if (sub >= 21 || s.subMatrixGroup[sub] < 0 || s.subMatrixGroup[sub] >= 25) continue;
    const int board = s.subMatrixGroup[sub];
    if (row >= s.rowCount || column >= s.columnCount) {
      stopped = true;
    } else if (kindModel != nullptr && kindModel->rowBlocks) {
      for (int32_t selector : {MATRIX, ISO_Y}) {
        const RelayPosition at = look(selector, row % 4, column);
        close(board, {at.group + int32_t(s.wordsPerGroup * (row / 4)), at.position - 1});
      }
    } else {
      close(board, look(MATRIX, row, column));
      close(board, look(ISO_Y, row, column));
      if (kindModel != nullptr && kindModel->isoXRows.holds(row)) close(board, look(ISO_X, row, column));
      if (kindModel != nullptr && kindModel->isoCvRows.holds(row)) close(board, look(ISO_CV, row, column));
    }
  }
  for (int j = 0; !stopped && model != nullptr && model->hasLtRelays && j < std::min(2, int{s.ltIsolationCount}); ++j)
    if (s.ltIsolationState[j] == 1) close(0, look(ISO_LT, j, 0));
  const bool deadBits = kindModel != nullptr && kindModel->shortBoardDeadBits && s.wordsPerGroup == 13;
  Expected out{0, {19, 0, uint8_t(s.groupCount * s.wordsPerGroup * 2), uint8_t(s.groupCount * s.wordsPerGroup * 2 >> 8)}};
  int32_t closed = 0;
  for (int b = 0; b < s.groupCount; ++b)
    for (int w = 0; w < s.wordsPerGroup; ++w) {
      const int group = s.wordsPerGroup - 1 - w;
      uint16_t word = 0;
      for (int k = 0; k < 16; ++k)
        if (image[(b * 200 + group) * 16 + k] && !(deadBits && group == 12 && k >= 12)) word |= uint16_t(1u << k), ++closed;
      out.frame.push_back(uint8_t(word));
      out.frame.push_back(uint8_t(word >> 8));
    }
  if (model != nullptr && model->closureLimit != 0 && kindModel != nullptr &&
      kindModel->closureLimit != 0 && closed > kindModel->closureLimit)
    return {QBVISA_ERR_CLOSURE_LIMIT, {}};
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

TEST(SwitchingDifferentialTest, FramesMatchThePointByPointModel) {
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
        const Expected want = reference(record, array.data(), uint32_t(array.size()));
        // Some calls go through a copy of the record outside the registry.
        static ChassisRecord copy;
        const bool viaCopy = chance(25);
        if (viaCopy) copy = record;
        qbsim::clearTraffic(c.resource);
        const int32_t status = viaCopy ? OpMatrix(&copy, 0, array.data(), uint32_t(array.size()), 1)
                                       : QBVISA_OpMatrix(c.session, 0, array.data(), uint32_t(array.size()));
        const auto writes = qbsim::writes(c.resource);
        for (auto it = bent.rbegin(); it != bent.rend(); ++it) *it->first = it->second;
        if (want.status != 0) {
          EXPECT_EQ(status, want.status);
          EXPECT_TRUE(writes.empty());
          continue;
        }
        ++sent;
        ASSERT_EQ(writes.size(), 1u);
        EXPECT_EQ(writes[0], want.frame);
        if (!viaCopy && status >= 0 && !array.empty()) {
          EXPECT_EQ(std::memcmp(s.lastArray, array.data(), std::min<size_t>(array.size() * 4, 6000)), 0);
        }
      }
      record = saved;
    }
  std::cout << cases << " cases, " << sent << " frames sent\n";
}

}  // namespace
