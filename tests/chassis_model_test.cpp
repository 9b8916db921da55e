// The model and card tables are what every per-model decision reads, so a
// row that contradicts itself or another row is a wiring fault on the wire;
// and the read-only chassis facts bindings take from them (slot geometry,
// fitted sub-matrices, closure limit, model name, point relays), with refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "core/chassis_model.h"
#include "bench.hpp"
#include "golden.hpp"
#include "qbvisa_ext.h"
#include "qbvisa_lowlevel.h"
#include "wiring/crosspoint_wiring.h"

namespace {

using namespace qbvisa;
using qbsim::Model;

TEST(ChassisModelTest, RowsAreUniqueAndSelfConsistent) {
  std::set<uint16_t> codes;
  std::set<std::string> names;
  for (const ChassisModel &model : chassisModels()) {
    SCOPED_TRACE(model.name);
    EXPECT_TRUE(codes.insert(model.typeCode).second);
    EXPECT_TRUE(names.insert(model.name).second);
    EXPECT_TRUE(names.insert(model.codeText).second);
    EXPECT_EQ(modelByType(model.typeCode), &model);
    EXPECT_EQ(modelByName(model.name), &model);
    EXPECT_EQ(modelByName(model.codeText), &model);
    for (const MainGeometry &g : {model.firstGeneration, model.current}) {
      EXPECT_EQ(g.pointCount, g.rowCount * g.columnCount * g.subMatrixCount);
      EXPECT_EQ(g.subMatrixCount, model.subMatrixCount);
    }
    // A card-taking model names the AP card its slot 2 holds.
    EXPECT_EQ(model.slot2Kind != 0, cardSlotModel(model.typeCode) == &model);
    EXPECT_NE(cardNameOfKind(model.slot0Kind), nullptr);
  }
  EXPECT_EQ(modelByType(0), nullptr);
  EXPECT_EQ(modelByName(""), nullptr);
}

// Every field of every model and card row against the reviewed rows
// (tests/data/chassis_models.txt): one wrong number in a geometry shows.
TEST(ChassisModelTest, RowsMatchTheReviewedTable) {
  std::ostringstream out;
  const auto geometry = [&out](const MainGeometry &g) {
    out << " " << g.arrayWordLimit << "/" << g.rowCount << "/" << g.columnCount << "/"
        << g.subMatrixCount << "/" << g.groupCount << "/" << g.wordsPerGroup << "/" << g.pointCount;
  };
  for (const ChassisModel &m : chassisModels()) {
    out << m.name << " " << m.codeText << " " << m.typeCode << " slots " << m.slotCount << " sub "
        << m.subMatrixCount << " kinds " << m.slot0Kind << "/" << m.slot2Kind << " ap "
        << m.slot2PointCount << " geometry";
    geometry(m.firstGeneration);
    geometry(m.current);
    out << " words " << m.geometryWords[0] << "/" << m.geometryWords[1] << " lt "
        << m.ltIsolationCount << " limit " << m.closureLimit << " flags " << m.singleBoard
        << m.hasPortsAndControlMode << m.rowBlocks << m.hasLtRelays << m.shortBoardDeadBits
        << " clear " << m.clearCommand << " isoX " << m.isoXRows.first << ".." << m.isoXRows.last
        << " isoCV " << m.isoCvRows.first << ".." << m.isoCvRows.last << " reversed "
        << int{m.reversedColumns} << "\n";
  }
  for (const CardType &c : cardTypes())
    out << "card " << int{c.typeByte} << " kind " << c.matrixKind << " " << c.arrayWordLimit << "/"
        << c.rowCount << "/" << c.groupCount << "/" << c.wordsPerGroup << "/" << c.pointCount << "/"
        << c.cardExtra << "\n";
  for (uint32_t kind = 0; kind <= 13; ++kind) {
    const char *name = cardNameOfKind(kind);
    out << "kind " << kind << " " << (name ? name : "-") << " " << (name ? cardSizeOf(name) : "-")
        << "\n";
  }
  qbgolden::expectGolden("chassis_models.txt", out.str());
}

// Every relay each crosspoint of every model closes, and of each card kind's
// row 0 (no chassis row: crosspoint and Y isolation only), against the reviewed
// wiring (tests/data/crosspoint_relays.txt, one line a row: group/bit each).
TEST(ChassisModelTest, EveryCrosspointClosesTheReviewedRelays) {
  InitPointInfo();
  std::ostringstream out;
  const auto row = [&out](const ChassisModel *model, uint32_t kind, const MainGeometry &g, uint32_t r) {
    out << (model ? model->name : "kind") << ' ' << kind << " row " << r << ':';
    for (uint32_t column = 0; column < g.columnCount; ++column) {
      const PointRelays relays = pointRelays(model, kind, g.wordsPerGroup, r, column);
      out << ' ';
      for (int i = 0; i < relays.count; ++i) out << (i ? "," : "") << relays.at[i].group << '/' << relays.at[i].position;
    }
    out << '\n';
  };
  for (const ChassisModel &model : chassisModels())
    for (uint32_t r = 0; r < model.current.rowCount; ++r) row(&model, model.slot0Kind, model.current, r);
  for (const CardType &card : cardTypes())
    row(nullptr, card.matrixKind, {0, 0, 8, 0, 0, card.wordsPerGroup, 0}, 0);
  qbgolden::expectGolden("crosspoint_relays.txt", out.str());
}

TEST(ChassisModelTest, CardsHaveNamesAndSizes) {
  for (const CardType &card : cardTypes()) {
    EXPECT_EQ(cardByTypeByte(card.typeByte), &card);
    const char *name = cardNameOfKind(card.matrixKind);
    ASSERT_NE(name, nullptr);
    EXPECT_NE(cardSizeOf(name), nullptr) << name;
  }
  EXPECT_EQ(cardNameOfKind(kNoMatrixKind), nullptr);
  EXPECT_EQ(cardByTypeByte(2), nullptr);
}

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
