// The model and card tables are what every per-model decision reads, so a
// row that contradicts itself or another row is a wiring fault on the wire;
// and the read-only chassis facts bindings take from them (slot geometry,
// fitted sub-matrices, closure limit, model name, point relays), with refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "core/chassis_model.h"
#include "bench.hpp"
#include "golden.hpp"
#include "qbvisa_ext.h"
#include "wiring/crosspoint_wiring.h"

namespace {

using namespace qbvisa;
using qbsim::Model;

// Every field of every model and card row, so one wrong number shows; each
// row is also looked up by code, name and code text ("found 1": that row, so
// no two rows share one), and whether it takes an AP card in slot 2.
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
        << int{m.reversedColumns} << " found " << (modelByType(m.typeCode) == &m)
        << (modelByName(m.name) == &m) << (modelByName(m.codeText) == &m) << " card slot "
        << (cardSlotModel(m.typeCode) == &m) << "\n";
  }
  for (const CardType &c : cardTypes())
    out << "card " << int{c.typeByte} << " kind " << c.matrixKind << " " << c.arrayWordLimit << "/"
        << c.rowCount << "/" << c.groupCount << "/" << c.wordsPerGroup << "/" << c.pointCount << "/"
        << c.cardExtra << " found " << (cardByTypeByte(c.typeByte) == &c) << "\n";
  for (uint32_t kind = 0; kind <= 13; ++kind) {
    const char *name = cardNameOfKind(kind);
    out << "kind " << kind << " " << (name ? name : "-") << " " << (name ? cardSizeOf(name) : "-")
        << "\n";
  }
  out << "none found " << (modelByType(0) || modelByName("") || cardByTypeByte(2) ||
                           cardNameOfKind(kNoMatrixKind)) << "\n";
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

// Every model with the facts bindings take from it, slot 0 with sub-matrices
// 0 and 2 fitted, the refusals of those calls, the end of the list (a refusal,
// not a stale row) and unknown sessions. The relays named for a crosspoint are
// exactly those a frame closing only that crosspoint leaves closed on the
// chassis (blocks address fitted sub-matrices).
TEST(ExtensionInfoTest, ModelsSlotZeroAndPointRelays) {
  using Triple = std::tuple<int, int, int>;
  std::ostringstream out;
  QBVISA_SlotInfo s;
  QBVISA_Relay relays[4];
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
    std::memset(&s, 0xAB, sizeof s);
    char name[16] = "?", cut[4] = {'x', 'x', 'x', 'x'};
    out << "; slot 0: " << QBVISA_GetSlotInfo(chassis.session, 0, &s) << ' ' << s.rows << " rows " << s.subMatrices
        << "x" << s.columnsPerSubMatrix << " columns, " << s.pointCount << " points, " << s.arrayWords
        << " words, limit " << s.closureLimit << " kind " << s.matrixKind << " fitted " << s.fittedMask
        << "; name " << QBVISA_GetModelName(chassis.session, name, sizeof name) << ' ' << name << "; refused "
        << QBVISA_GetSlotInfo(chassis.session, 0, nullptr) << ' ' << QBVISA_GetSlotInfo(chassis.session, 3, &s)
        << ' ' << QBVISA_GetModelName(chassis.session, cut, 0) << "; cut "
        << QBVISA_GetModelName(chassis.session, cut, sizeof cut) << ' ' << cut;
    const SlotArea &slot = chassis.record->slots[0];
    const uint32_t c = slot.columnCount, subs = slot.subMatrixCount;
    out << "; relays refused " << QBVISA_GetPointRelays(chassis.session, 0, 0, 1, relays) << ' '
        << QBVISA_GetPointRelays(chassis.session, 0, slot.rowCount + 1, 1, relays) << ' '
        << QBVISA_GetPointRelays(chassis.session, 0, 1, subs * c + 1, relays) << ' '
        << QBVISA_GetPointRelays(chassis.session, 0, 1, c + 1, relays) << ' '
        << QBVISA_GetPointRelays(chassis.session, 1, 1, 1, relays) << ' '
        << QBVISA_GetPointRelays(chassis.session, 0, 1, 1, nullptr) << '\n';
    const uint32_t lastSub = subs == 1 ? 0 : 2;  // sub-matrix 1 is a gap
    for (auto [row, column] : {std::pair<uint32_t, uint32_t>{1, 1}, {2, 6},
                               {4, lastSub * c + c}, {slot.rowCount, lastSub * c + 1}}) {
      SCOPED_TRACE(std::string(m.name) + " " + std::to_string(row) + "!" + std::to_string(column));
      const int32_t count = QBVISA_GetPointRelays(chassis.session, 0, row, column, relays);
      ASSERT_GE(count, 2);
      std::set<Triple> named, closed;
      for (int32_t i = 0; i < count; ++i)
        if (relays[i].group < slot.wordsPerGroup)  // beyond: never on the wire
          named.insert({relays[i].board, relays[i].group, relays[i].bit});
      const uint32_t block = (column - 1) / c == 0 ? 0 : 1;
      std::vector<uint32_t> words = qbtest::wordsFor(slot, {((row - 1) * subs + block) * c + (column - 1) % c});
      ASSERT_EQ(QBVISA_OpMatrix(chassis.session, 0, words.data(), uint32_t(words.size())), 0);
      for (const qbsim::Relay &r : qbsim::closedRelays(chassis.resource)) closed.insert({r.board, r.group, r.bit});
      EXPECT_EQ(named, closed);
    }
  }
  const uint32_t unknown = qbtest::kUnknownSession;
  char name[4];
  out << "\nno result " << QBVISA_GetModelInfo(0, nullptr) << "; unknown session "
      << QBVISA_GetSlotInfo(unknown, 0, &s) << ' ' << QBVISA_GetModelName(unknown, name, sizeof name) << ' '
      << QBVISA_GetPointRelays(unknown, 0, 1, 1, relays) << '\n';
  qbgolden::expectGolden("extension_info.txt", out.str());
}

}  // namespace
