// The model and card tables are what every per-model decision reads, so a
// row that contradicts itself or another row is a wiring fault on the wire.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "core/chassis_model.h"
#include "golden.hpp"
#include "qbvisa_lowlevel.h"
#include "wiring/crosspoint_wiring.h"

namespace {

using namespace qbvisa;

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
  std::ifstream file(QBVISA_TEST_DATA "/chassis_models.txt");
  EXPECT_EQ(out.str(), std::string(std::istreambuf_iterator<char>(file), {}));
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

}  // namespace
