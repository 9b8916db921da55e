// Read-only chassis facts for bindings: slot geometry, fitted sub-matrices,
// closure limit and model name of each model, and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <tuple>

#include "qbvisa_ext.h"
#include "bench.hpp"
#include "golden.hpp"

namespace {

using qbsim::Model;

// Every model in the library's order with the facts bindings take from it,
// slot 0 of a chassis of it with sub-matrices 0 and 2 fitted, and the end of
// the list (a refusal, not a stale row), against the reviewed transcript
// (tests/data/extension_info.txt).
TEST(ExtensionInfoTest, ModelsAndSlotZeroMatchTheReviewedTranscript) {
  std::ostringstream out;
  for (uint32_t i = 0;; ++i) {
    QBVISA_ModelInfo m;
    std::memset(&m, 0xAB, sizeof m);
    out << "model " << i << ": " << QBVISA_GetModelInfo(i, &m);
    if (i == 6) break;
    out << ' ' << m.name << " type " << m.typeCode << " slots " << m.slotCount << " cards " << m.cardSlots
        << " mode " << m.hasControlMode << " limit " << m.closureLimit;
    qbsim::ChassisConfig config = qbtest::chassisConfig(Model(m.typeCode));
    config.presenceMask = 0x5;  // sub-matrices 0 and 2 fitted
    config.presenceMaskSet = true;
    const qbtest::Connection chassis = qbtest::readyChassis(config);
    QBVISA_SlotInfo s;
    std::memset(&s, 0xAB, sizeof s);
    char name[16] = "?";
    out << "; slot 0: " << QBVISA_GetSlotInfo(chassis.session, 0, &s) << ' ' << s.rows << " rows " << s.subMatrices
        << "x" << s.columnsPerSubMatrix << " columns, " << s.pointCount << " points, " << s.arrayWords
        << " words, limit " << s.closureLimit << " kind " << s.matrixKind << " fitted " << s.fittedMask
        << "; name " << QBVISA_GetModelName(chassis.session, name, sizeof name) << ' ' << name << '\n';
  }
  out << '\n';
  qbgolden::expectGolden("extension_info.txt", out.str());
  EXPECT_EQ(QBVISA_GetModelInfo(0, nullptr), QBVISA_ERR_PARAMETER);
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

}  // namespace
