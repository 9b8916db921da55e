// Read-only chassis facts for bindings: slot geometry, fitted sub-matrices,
// closure limit and model name of each model, and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <tuple>

#include "qbvisa_ext.h"
#include "bench.hpp"

namespace {

using qbsim::Model;

TEST(ExtensionInfoTest, SlotZeroOfEveryModel) {
  struct Case {
    Model model;
    const char *name;
    uint32_t rows, columns, subMatrices, closureLimit, kind;
  } cases[] = {
      {Model::RK420, "RK420", 12, 10, 5, 400, MATRIX_KIND_RK420},
      {Model::RK420B, "RK420B", 12, 10, 5, 400, MATRIX_KIND_RK420},
      {Model::RK421, "RK421", 10, 12, 4, 270, MATRIX_KIND_RK421},
      {Model::RK422, "RK422", 16, 96, 21, 0, MATRIX_KIND_RK422},
      {Model::RK423, "RK423", 8, 12, 1, 0, MATRIX_KIND_RK423},
      {Model::RK423B, "RK423B", 8, 12, 1, 0, MATRIX_KIND_RK423},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    qbsim::ChassisConfig config = qbtest::chassisConfig(c.model);
    config.presenceMask = 0x5;  // sub-matrices 0 and 2 fitted
    config.presenceMaskSet = true;
    const qbtest::Connection chassis = qbtest::readyChassis(config);
    QBVISA_SlotInfo info;
    std::memset(&info, 0xAB, sizeof info);
    ASSERT_EQ(QBVISA_GetSlotInfo(chassis.session, 0, &info), 0);
    EXPECT_EQ(info.rows, c.rows);
    EXPECT_EQ(info.columnsPerSubMatrix, c.columns);
    EXPECT_EQ(info.subMatrices, c.subMatrices);
    EXPECT_EQ(info.pointCount, c.rows * c.columns * c.subMatrices);
    EXPECT_EQ(info.arrayWords, chassis.record->slots[0].arrayWordLimit);
    EXPECT_EQ(info.closureLimit, c.closureLimit);
    EXPECT_EQ(info.matrixKind, c.kind);
    EXPECT_EQ(info.fittedMask, c.subMatrices == 1 ? 0x1u : 0x5u);
    char name[16];
    ASSERT_EQ(QBVISA_GetModelName(chassis.session, name, sizeof name), 0);
    EXPECT_STREQ(name, c.name);
  }
}

TEST(ExtensionInfoTest, RefusalsAndCutName) {
  const qbtest::Connection chassis =
      qbtest::readyChassis(qbtest::chassisConfig(Model::RK420B));
  QBVISA_SlotInfo info;
  char name[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(QBVISA_GetSlotInfo(qbtest::kUnknownSession, 0, &info), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_GetSlotInfo(chassis.session, 0, nullptr), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetSlotInfo(chassis.session, 3, &info), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetModelName(qbtest::kUnknownSession, name, sizeof name),
            QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_GetModelName(chassis.session, name, 0), QBVISA_ERR_PARAMETER);
  ASSERT_EQ(QBVISA_GetModelName(chassis.session, name, sizeof name), 0);
  EXPECT_STREQ(name, "RK4");  // cut to the buffer, always terminated
}

// The relays the library names for a crosspoint are exactly those a frame
// closing only that crosspoint leaves closed on the chassis, on benches with
// a gap in the fitted sub-matrices (blocks address fitted ones only).
TEST(ExtensionInfoTest, PointRelaysMatchWhatTheChassisCloses) {
  using Triple = std::tuple<int, int, int>;
  for (Model model : {Model::RK420, Model::RK420B, Model::RK421, Model::RK422,
                      Model::RK423, Model::RK423B}) {
    SCOPED_TRACE(qbsim::modelName(model));
    qbsim::ChassisConfig config = qbtest::chassisConfig(model);
    config.presenceMask = 0x5;
    config.presenceMaskSet = true;
    const qbtest::Connection chassis = qbtest::readyChassis(config);
    const SlotArea &slot = chassis.record->slots[0];
    const uint32_t c = slot.columnCount, subs = slot.subMatrixCount;
    const uint32_t lastSub = subs == 1 ? 0 : 2;  // sub-matrix 1 is a gap
    for (auto [row, column] : {std::pair<uint32_t, uint32_t>{1, 1}, {2, 6},
                               {4, lastSub * c + c}, {slot.rowCount, lastSub * c + 1}}) {
      SCOPED_TRACE(std::to_string(row) + "!" + std::to_string(column));
      QBVISA_Relay relays[4];
      const int32_t count = QBVISA_GetPointRelays(chassis.session, 0, row, column, relays);
      ASSERT_GE(count, 2);
      std::set<Triple> named;
      for (int32_t i = 0; i < count; ++i)
        if (relays[i].group < slot.wordsPerGroup)  // beyond: never on the wire
          named.insert({relays[i].board, relays[i].group, relays[i].bit});
      const uint32_t block = (column - 1) / c == 0 ? 0 : 1;
      const uint32_t point = ((row - 1) * subs + block) * c + (column - 1) % c;
      std::vector<uint32_t> words = qbtest::wordsFor(slot, {point});
      ASSERT_EQ(QBVISA_OpMatrix(chassis.session, 0, words.data(),
                                static_cast<uint32_t>(words.size())), 0);
      std::set<Triple> closed;
      for (const qbsim::Relay &r : qbsim::closedRelays(chassis.resource))
        closed.insert({r.board, r.group, r.bit});
      EXPECT_EQ(named, closed);
    }
    QBVISA_Relay relays[4];
    EXPECT_EQ(QBVISA_GetPointRelays(chassis.session, 0, 0, 1, relays), QBVISA_ERR_ROW_RANGE);
    EXPECT_EQ(QBVISA_GetPointRelays(chassis.session, 0, slot.rowCount + 1, 1, relays),
              QBVISA_ERR_ROW_RANGE);
    EXPECT_EQ(QBVISA_GetPointRelays(chassis.session, 0, 1, subs * c + 1, relays),
              QBVISA_ERR_COLUMN_RANGE);
    if (subs > 1) {
      EXPECT_EQ(QBVISA_GetPointRelays(chassis.session, 0, 1, c + 1, relays),
                QBVISA_ERR_CARD_IN_PLACE);
    }
    EXPECT_EQ(QBVISA_GetPointRelays(chassis.session, 1, 1, 1, relays),
              QBVISA_ERR_UNKNOWN_CARD_TYPE);
    EXPECT_EQ(QBVISA_GetPointRelays(chassis.session, 0, 1, 1, nullptr), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_GetPointRelays(qbtest::kUnknownSession, 0, 1, 1, relays),
              QBVISA_ERR_HANDLE);
  }
}

// Every model, in order, with the facts bindings take from it; the end of
// the list is a refusal, not a stale row.
TEST(ExtensionInfoTest, ModelList) {
  struct Row {
    const char *name;
    uint16_t typeCode, slotCount, cardSlots, hasControlMode;
    uint32_t closureLimit;
  } expected[] = {
      {"RK420", 1050, 6, 2, 0, 400}, {"RK420B", 1051, 6, 2, 0, 400},
      {"RK421", 1066, 4, 0, 1, 270}, {"RK422", 1082, 21, 0, 0, 0},
      {"RK423", 1098, 1, 0, 0, 0},   {"RK423B", 1099, 1, 0, 0, 0},
  };
  for (uint32_t i = 0; i < std::size(expected); ++i) {
    QBVISA_ModelInfo info;
    std::memset(&info, 0xAB, sizeof info);
    ASSERT_EQ(QBVISA_GetModelInfo(i, &info), 0);
    EXPECT_STREQ(info.name, expected[i].name);
    EXPECT_EQ(std::make_tuple(info.typeCode, info.slotCount, info.cardSlots,
                              info.hasControlMode, info.closureLimit),
              std::make_tuple(expected[i].typeCode, expected[i].slotCount,
                              expected[i].cardSlots, expected[i].hasControlMode,
                              expected[i].closureLimit))
        << expected[i].name;
  }
  QBVISA_ModelInfo info;
  EXPECT_EQ(QBVISA_GetModelInfo(std::size(expected), &info), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetModelInfo(0, nullptr), QBVISA_ERR_PARAMETER);
}

}  // namespace
