// Point-location tables and GetPoint: load-time state, the fillers, the
// selector matrix, wiring properties that catch miswired tables, and a few
// telling values.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "qbvisa_lowlevel.h"

bool operator==(const PointLocation &a, const PointLocation &b) {
  return a.group == b.group && a.position == b.position && a.auxiliary == b.auxiliary;
}
void PrintTo(const PointLocation &e, std::ostream *os) {
  *os << "(" << e.group << ", " << e.position << ", " << e.auxiliary << ")";
}

// Every filled table with its filler.
#define FILLED(X) \
  X(matrixLocation, setMatrixLocation) X(isoLocationY, setISOLocationRow) \
  X(isoLocationX, setISOLocationColumn) X(GX3_matrixLocationAB, setGX3_matrixLocationAB) \
  X(GX3_isoLocationY_AB, setISORFLocationRowAB) X(GX3_isoLocationX_AB, setISORFLocationColumnAB) \
  X(GX3_matrixLocationC, setGX3_matrixLocationC) X(GX3_isoLocationY_C, setISORFLocationRowC) \
  X(GX3_isoLocationX_C, setISORFLocationColumnC) X(GX3_matrixLocationD, setGX3_matrixLocationD) \
  X(GX3_isoLocationY_D, setISORFLocationRowD) X(GX3_isoLocationX_D, setISORFLocationColumnD) \
  X(GX3_cascadeLocation_AB, setCascadeLocaionAB) X(GX3_cascadeLocation_CD, setCascadeLocaionCD) \
  X(matrixAPLocation, setMatrixAPLocation) X(matrixAP_420BLocation, setMatrixAP_420BLocation) \
  X(GX4_cascadeLocation_AB, GX4_setCascadeLocaionAB) \
  X(GX4_cascadeLocation_CD, GX4_setCascadeLocaionCD) \
  X(GX4_matrixLocationAB, GX4_setmatrixLocationAB) \
  X(GX4_isoLocationX_AB, GX4_setISOLocationColumnAB) \
  X(GX4_isoLocationY_AB, GX4_setISOLocationRowAB) \
  X(GX4_matrixLocationCD, GX4_setmatrixLocationCD) \
  X(GX4_isoLocationX_CD, GX4_setISOLocationColumnCD) \
  X(GX4_isoLocationY_C, GX4_setISOLocationRowC) X(GX4_isoLocationY_D, GX4_setISOLocationRowD) \
  X(GX4CNew_IN_AB, GX4CNew_setInAB) X(GX4CNew_IN_CD, GX4CNew_setInCD) \
  X(GX4CNew_matrixLocationAB, GX4CNew_setmatrixLocationAB) \
  X(GX4CNew_isoLocationX_AB, GX4CNew_setISOLocationColumnAB) \
  X(GX4CNew_isoLocationY_AB, GX4CNew_setISOLocationRowAB) \
  X(GX4CNew_matrixLocationCD, GX4CNew_setmatrixLocationCD) \
  X(GX4CNew_isoLocationX_CD, GX4CNew_setISOLocationColumnCD) \
  X(GX4CNew_isoLocationY_CD, GX4CNew_setISOLocationRowCD) X(GX4C_IN_A, GX4C_setInA) \
  X(GX4C_IN_B, GX4C_setInB) X(GX4C_IN_C, GX4C_setInC) X(GX4C_IN_D, GX4C_setInD) \
  X(GX4C_matrixLocationAB, GX4C_setmatrixLocationAB) \
  X(GX4C_isoLocationX_AB, GX4C_setISOLocationColumnAB) \
  X(GX4C_isoLocationY_AB, GX4C_setISOLocationRowAB) \
  X(GX4C_matrixLocationCD, GX4C_setmatrixLocationCD) \
  X(GX4C_isoLocationX_CD, GX4C_setISOLocationColumnCD) \
  X(GX4C_isoLocationY_CD, GX4C_setISOLocationRowCD) \
  X(RK421_matrixLocation, RK421_setMatrixLocation) X(RK421_isoLocationX, RK421_setisoLocationX) \
  X(RK421_isoLocationY, RK421_setisoLocationY) X(RK421_isoLocationCV, RK421_setCV) \
  X(RK422_matrixLocation, RK422_setMatrixLocation) X(RK422_isoLocationY, RK422_setisoLocationY) \
  X(RK423_matrixLocation, RK423_setMatrixLocation) X(RK423_isoLocationX, RK423_setisoLocationX) \
  X(RK423_isoLocationY, RK423_setisoLocationY) X(RK423_isoLocationCV, RK423_setisoLocationCV) \
  X(RK423_isoLocationLT, RK423_setisoLocationLT)

namespace {

// One exported table: entries, shape (columns 0 for row-only tables) and
// filler (none for the tables nothing fills).
struct Table {
  const char *name;
  PointLocation *entries;
  std::size_t rows, columns;
  void (*filler)();

  std::size_t width() const { return columns ? columns : 1; }
  std::size_t size() const { return rows * width(); }
  PointLocation &at(std::size_t r, std::size_t c = 0) const {
    return entries[r * width() + (columns ? c : 0)];
  }
  std::vector<PointLocation> copy() const { return {entries, entries + size()}; }
  // The tables whose wiring is there from load, before any filler runs.
  bool preset() const {
    const std::string n = name;
    return n.rfind("GX3_", 0) == 0 || n.rfind("GX4_cascade", 0) == 0 || n == "matrixLocation" ||
           n == "isoLocationX" || n == "isoLocationY" || n == "matrixAPLocation";
  }
};

template <std::size_t R, std::size_t C>
Table tableOf(const char *name, PointLocation (&t)[R][C], void (*filler)()) {
  return {name, &t[0][0], R, C, filler};
}
template <std::size_t R>
Table tableOf(const char *name, PointLocation (&t)[R], void (*filler)()) {
  return {name, t, R, 0, filler};
}
// Every table: the filled ones, then those nothing fills.
#define TABLE_OF(table, filler) tableOf(#table, table, filler),
const Table kTables[] = {FILLED(TABLE_OF) TABLE_OF(GX4C_cascadeLocation_AB, nullptr)
    TABLE_OF(GX4C_cascadeLocation_CD, nullptr) TABLE_OF(GX4CNew_cascadeLocation_AB, nullptr)
    TABLE_OF(GX4CNew_cascadeLocation_CD, nullptr) TABLE_OF(GX4C_IN_AB, nullptr)
    TABLE_OF(GX4C_IN_CD, nullptr)};

const Table *tableNamed(const std::string &name) {
  for (const Table &t : kTables)
    if (name == t.name) return &t;
  return nullptr;
}
const Table &table(const std::string &name) {
  const Table *t = tableNamed(name);
  EXPECT_NE(t, nullptr) << name;
  return t ? *t : kTables[0];
}
bool rowsEqual(const Table &t, std::size_t a, std::size_t b) {
  return std::equal(&t.at(a), &t.at(a) + t.width(), &t.at(b));
}

using Image = std::vector<std::vector<PointLocation>>;
Image snapshot() {
  Image image;
  for (const Table &t : kTables) image.push_back(t.copy());
  return image;
}
// Taken while the test program starts, before anything can initialise.
const Image kAtLoad = snapshot();

// A byte pattern no filler writes, so that an entry left alone stands out.
constexpr unsigned char kPoison = 0xA5;
void poisonAll() {
  for (const Table &t : kTables) std::memset(t.entries, kPoison, t.size() * sizeof(PointLocation));
}
bool poisoned(const Table &t) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(t.entries);
  return std::all_of(bytes, bytes + t.size() * sizeof(PointLocation),
                     [](unsigned char b) { return b == kPoison; });
}

TEST(LocationTables, PresetTablesHoldTheirWiringFromLoadAndTheRestAreZero) {
  InitPointInfo();
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    const Table &t = kTables[i];
    // The load-time image is the filled wiring, but for isoLocationY column 5.
    const bool column5 = t.entries == &isoLocationY[0][0];
    for (std::size_t k = 0; k < t.size(); ++k)
      if (!column5 || k % 10 != 5) {
        EXPECT_EQ(kAtLoad[i][k], t.preset() ? t.entries[k] : PointLocation{}) << t.name << k;
      }
  }
  // Until initialisation column 5 goes with columns 0..4.
  const std::size_t y = static_cast<std::size_t>(&table("isoLocationY") - kTables);
  EXPECT_EQ(kAtLoad[y][0 * 10 + 5], (PointLocation{2, 7, 0}));
  EXPECT_EQ(kAtLoad[y][11 * 10 + 5], (PointLocation{8, 12, 0}));
  EXPECT_EQ(isoLocationY[0][5], (PointLocation{3, 0, 0}));
}

// Each filler writes all of its own table and nothing else; initialising
// again over garbage gives the same tables and leaves alone those nothing fills.
TEST(LocationTables, FillersRewriteExactlyTheirOwnTableEveryTime) {
  InitPointInfo();
  const Image filled = snapshot();
  for (const Table &t : kTables) {
    if (t.filler == nullptr) continue;
    SCOPED_TRACE(t.name);
    poisonAll();
    t.filler();
    for (std::size_t i = 0; i < std::size(kTables); ++i) {
      if (&kTables[i] == &t) EXPECT_EQ(t.copy(), filled[i]);
      else EXPECT_TRUE(poisoned(kTables[i])) << kTables[i].name << " written";
    }
  }
  poisonAll();
  InitPointInfo();
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    const Table &t = kTables[i];
    if (t.filler) EXPECT_EQ(t.copy(), filled[i]) << t.name;
    else EXPECT_TRUE(poisoned(t)) << t.name;
    if (!t.filler) std::memset(t.entries, 0, t.size() * sizeof(PointLocation));
  }
}

class GetPointTest : public ::testing::Test {
 protected:
  void SetUp() override { InitPointInfo(); }
};

struct Lookup {
  uint32_t kind;
  int32_t selector;
  uint32_t row, column;
  int32_t group = -77, position = -88;  // the default: the result left alone
};

void expectLookups(const std::vector<Lookup> &lookups) {
  for (const Lookup &c : lookups) {
    RelayPosition out{-77, -88};
    EXPECT_EQ(GetPoint(c.kind, c.selector, c.row, c.column, &out), 0);
    EXPECT_TRUE(out.group == c.group && out.position == c.position)
        << "kind " << c.kind << " selector " << c.selector << " at " << c.row << "," << c.column
        << " gave " << out.group << "," << out.position;
  }
}

// Values no property below implies: a permuted wiring rule still gives
// distinct bytes in range. RK420: two halves of six rows, column 5 apart.
// RK422: four bands wired differently. The end-to-end switching tests pin
// the RK421 and RK423 rules and the first RK422 band.
TEST_F(GetPointTest, TellingWiringValues) {
  expectLookups({{0, MATRIX, 5, 5, 3, 11}, {0, MATRIX, 6, 9, 11, 8}, {0, ISO_Y, 0, 5, 3, 0},
                 {0, ISO_Y, 11, 9, 9, 5}, {2, MATRIX, 0, 25, 12, 2}, {2, MATRIX, 0, 49, 24, 1},
                 {2, MATRIX, 0, 73, 36, 5}, {2, ISO_Y, 2, 50, 48, 7}, {4, MATRIX_A, 7, 12, 7, 14},
                 {4, ISO_Y_D, 7, 11, 5, 7}, {4, CASCADE_D, 7, 0, 5, 11}, {5, ISO_Y_C, 3, 6, 7, 7},
                 {6, MATRIX_C, 7, 11, 19, 14}, {7, IN_B, 0, 12, 10, 15}, {7, ISO_X_A, 9, 3, 0, 11},
                 {9, IN_D, 9, 11, 10, 3}, {11, MATRIX, 111, 0, 6, 13}, {12, MATRIX, 99, 0, 5, 9}});
}

// The table GetPoint must read for (kind, selector), none where the pair
// names no relay: a sub-matrix reads a table of its own where the card has
// one, else the one it shares with its pair. The GX4Mix card (kind 10) is a
// GX4 on rows 0..7 and a GX4CNew eight rows up from row 8 on.
const Table *routeOf(uint32_t kind, int32_t s, uint32_t &row) {
  if (kind == 10) kind = row < 8 ? 5 : (row -= 8, 8);
  if (kind == 11 || kind == 12) {
    const char *name = kind == 11 ? "matrixAPLocation" : "matrixAP_420BLocation";
    return s == MATRIX ? tableNamed(name) : nullptr;
  }
  if (kind > 12) return nullptr;
  const char *family[] = {"",     "RK421_", "RK422_", "RK423_",   "GX3_",
                          "GX4_", "GX4_",   "GX4C_",  "GX4CNew_", "GX4CNew_"};
  if (kind <= 3) {
    const std::map<int32_t, std::string> names = {
        {MATRIX, "matrixLocation"}, {ISO_X, "isoLocationX"},   {ISO_Y, "isoLocationY"},
        {ISO_CV, "isoLocationCV"},  {ISO_LT, "isoLocationLT"}};
    return names.count(s) ? tableNamed(family[kind] + names.at(s)) : nullptr;
  }
  const char *what[] = {"matrixLocation", "isoLocationX_", "isoLocationY_", "IN_",
                        "cascadeLocation_"};
  int w, letter;
  if (s >= MATRIX_A && s <= MATRIX_D) w = 0, letter = s - MATRIX_A;
  else if (s >= ISO_X_A && s <= ISO_Y_D) w = 1 + (s - ISO_X_A) % 2, letter = (s - ISO_X_A) / 2;
  else if (s >= IN_A && s <= CASCADE_D) w = 3 + (s - IN_A) / 4, letter = (s - IN_A) % 4;
  else return nullptr;
  const std::string name = family[kind] + std::string(what[w]);
  const Table *own = tableNamed(name + char('A' + letter));
  return own ? own : tableNamed(name + (letter < 2 ? "AB" : "CD"));
}

// Marks the one entry that must be read and checks that GetPoint returns it,
// and that the first row and column past the table leave the result alone.
TEST_F(GetPointTest, SelectorMatrixReadsTheRightEntryOrLeavesTheResultAlone) {
  std::vector<int32_t> selectors = {INT32_MIN, -1, INT32_MAX};
  for (int32_t s = 0; s <= 26; ++s) selectors.push_back(s);
  for (uint32_t kind : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 0x80000000u})
    for (int32_t selector : selectors)
      for (uint32_t row : {1u, 9u, UINT32_MAX}) {
        SCOPED_TRACE(testing::Message() << "kind " << kind << " selector " << selector);
        uint32_t tableRow = row;
        const Table *route = routeOf(kind, selector, tableRow);
        if (route == nullptr || tableRow >= route->rows) {
          expectLookups({{kind, selector, row, 2}});
          continue;
        }
        const Table &t = *route;
        PointLocation &entry = t.at(tableRow, 2);
        const PointLocation saved = entry;
        const int32_t k = static_cast<int32_t>(kind);
        entry = {1000 + k, 2000 + selector, 3000};
        // The GX4C IN tables keep the frame location one field on. A row-only
        // table must ignore the column: ask it with one far outside.
        const bool shifted = std::string(t.name).rfind("GX4C_IN_", 0) == 0;
        expectLookups({{kind, selector, row, t.columns ? 2u : 5000u,
                        shifted ? 2000 + selector : 1000 + k, shifted ? 3000 : 2000 + selector}});
        entry = saved;
        const auto pastRows = static_cast<uint32_t>(t.rows) + (row - tableRow);
        if (kind != 10 || row >= 8) expectLookups({{kind, selector, pastRows, 0}});
        if (t.columns) expectLookups({{kind, selector, row, static_cast<uint32_t>(t.columns)}});
      }
  EXPECT_EQ(GetPoint(0, MATRIX, 0, 0, nullptr), 0);
  EXPECT_EQ(GetPoint(7, IN_A, 0, 0, nullptr), 0);
}

// Relays of one kind that a matrix switches: every step-th row from first to
// last of a table (step 2 where two rows are wired to one relay).
struct RelayUse {
  const char *table;
  std::size_t first, last, step = 1;
};

// Each crosspoint and cascade relay has a byte of its own, and no byte serves
// two relay kinds: a slip in a wiring rule or list shows up as a shared byte.
TEST_F(GetPointTest, NoTwoRelaysOfAMatrixShareAByte) {
  const struct {
    const char *name;
    std::vector<RelayUse> ownByte;  // crosspoints and cascade relays
    std::vector<RelayUse> shared;   // isolation, CV, LT and IN relays
  } matrices[] = {
      {"RK420", {{"matrixLocation", 0, 11}}, {{"isoLocationX", 0, 11}, {"isoLocationY", 0, 11}}},
      {"RK421", {{"RK421_matrixLocation", 0, 9}},
       {{"RK421_isoLocationX", 0, 9}, {"RK421_isoLocationY", 0, 9}, {"RK421_isoLocationCV", 4, 5}}},
      {"RK422", {{"RK422_matrixLocation", 0, 3}}, {{"RK422_isoLocationY", 0, 3}}},
      {"RK423", {{"RK423_matrixLocation", 0, 7}},
       {{"RK423_isoLocationX", 2, 7}, {"RK423_isoLocationY", 0, 7}, {"RK423_isoLocationCV", 6, 7},
        {"RK423_isoLocationLT", 0, 1}}},
      // C's Y isolation relays are D's left ones again; D is the full set.
      {"GX4",
       {{"GX4_matrixLocationAB", 0, 7}, {"GX4_matrixLocationCD", 0, 7},
        {"GX4_cascadeLocation_AB", 0, 7}, {"GX4_cascadeLocation_CD", 0, 7}},
       {{"GX4_isoLocationX_AB", 0, 7}, {"GX4_isoLocationX_CD", 0, 7},
        {"GX4_isoLocationY_AB", 0, 7}, {"GX4_isoLocationY_D", 0, 7}}},
      {"GX4C", {{"GX4C_matrixLocationAB", 0, 6, 2}, {"GX4C_matrixLocationCD", 0, 6, 2}},
       {{"GX4C_isoLocationX_AB", 0, 0}, {"GX4C_isoLocationX_CD", 0, 0},
        {"GX4C_isoLocationY_AB", 0, 6, 2}, {"GX4C_isoLocationY_CD", 0, 6, 2}}},
      {"GX4CNew", {{"GX4CNew_matrixLocationAB", 0, 6, 2}, {"GX4CNew_matrixLocationCD", 0, 6, 2}},
       {{"GX4CNew_isoLocationX_AB", 0, 7}, {"GX4CNew_isoLocationX_CD", 0, 7},
        {"GX4CNew_isoLocationY_AB", 0, 6, 2}, {"GX4CNew_isoLocationY_CD", 0, 6, 2},
        {"GX4CNew_IN_AB", 0, 7}, {"GX4CNew_IN_CD", 0, 7}}},
      {"AP 420B", {{"matrixAP_420BLocation", 0, 99}}, {}},
  };
  for (const auto &m : matrices) {
    std::set<int> claimed;
    for (const auto *uses : {&m.ownByte, &m.shared})
      for (const RelayUse &use : *uses) {
        const Table &t = table(use.table);
        std::multiset<int> bytes;
        for (std::size_t r = use.first; r <= use.last; r += use.step)
          for (std::size_t c = 0; c < t.width(); ++c)
            bytes.insert(t.at(r, c).group * 16 + t.at(r, c).position);
        const std::set<int> distinct(bytes.begin(), bytes.end());
        EXPECT_TRUE(uses == &m.shared || distinct.size() == bytes.size()) << use.table;
        for (int b : distinct)
          EXPECT_TRUE(claimed.insert(b).second)
              << m.name << ": " << use.table << " reuses " << b / 16 << "," << b % 16;
      }
  }
}

// Positions are bytes 0..15 of a group (1..8 in the wired RK422 rows); the
// third field is 0 but in the GX4C IN tables, which hold (half, group, byte).
TEST_F(GetPointTest, EveryEntryNamesAByteOfAGroup) {
  for (const Table &t : kTables) {
    const std::string name = t.name;
    const bool inputs = name.size() == 9 && name.rfind("GX4C_IN_", 0) == 0;
    for (std::size_t k = 0; k < t.size(); ++k) {
      const PointLocation &e = t.entries[k];
      const int32_t byte = inputs ? e.auxiliary : e.position;
      const bool rk422 = name.rfind("RK422_", 0) == 0 && k / t.width() < 4;
      EXPECT_TRUE(rk422 ? byte >= 1 && byte <= 8 : byte >= 0 && byte <= 15) << name << k;
      EXPECT_TRUE(inputs ? e.group == 0 || e.group == 1 : e.auxiliary == 0) << name << k;
      EXPECT_GE(e.group, 0) << name << k;
    }
  }
}

TEST_F(GetPointTest, RowsRepeatOrPairWhereTheCardWiresThemSo) {
  for (const Table &t : kTables) {
    const std::string name = t.name;
    if (name.rfind("GX4_", 0) != 0 && name.rfind("GX4CNew_", 0) != 0) continue;
    for (std::size_t r = 0; r < 8; ++r) EXPECT_TRUE(rowsEqual(t, r, r + 8)) << name << r;
  }
  for (const char *name : {"GX4C_matrixLocationAB", "GX4C_isoLocationY_AB", "GX4C_matrixLocationCD",
                           "GX4C_isoLocationY_CD"})
    for (std::size_t r = 0; r < 8; r += 2) {
      EXPECT_TRUE(rowsEqual(table(name), r, r + 1)) << name << r;
      EXPECT_FALSE(rowsEqual(table(name), r, (r + 2) % 8)) << name << r;
    }
  for (const char *name : {"GX4C_isoLocationX_AB", "GX4C_isoLocationX_CD"})
    for (std::size_t r = 1; r < 16; ++r) EXPECT_TRUE(rowsEqual(table(name), 0, r)) << name << r;
}

// GX4C IN relays: one per row and sub-matrix in group 10, the same in every
// wired column; rows 0..3 use each of the sixteen bytes once, rows 4..7 again.
TEST_F(GetPointTest, GX4CInputRelaysUseEveryByteOfGroup10OncePerHalf) {
  std::multiset<int> halves[2], everyByte;
  for (int b = 0; b < 16; ++b) everyByte.insert(b);
  for (const char *name : {"GX4C_IN_A", "GX4C_IN_B", "GX4C_IN_C", "GX4C_IN_D"})
    for (std::size_t r = 0; r < 8; ++r) {
      const Table &t = table(name);
      for (std::size_t c = 1; c < 12; ++c) EXPECT_EQ(t.at(r, c), t.at(r, 0)) << name;
      EXPECT_EQ(t.at(r, 0).position, 10) << name;
      halves[r / 4].insert(t.at(r, 0).auxiliary);
    }
  EXPECT_EQ(halves[0], everyByte);
  EXPECT_EQ(halves[1], everyByte);
}

// Rows a card does not wire read as zero (tables nothing fills are pinned by
// the load-time and filler tests).
TEST_F(GetPointTest, UnwiredRowsStayZero) {
  const RelayUse zero[] = {
      {"RK421_isoLocationCV", 0, 3}, {"RK421_isoLocationCV", 6, 9}, {"RK422_matrixLocation", 4, 15},
      {"RK422_isoLocationY", 4, 15}, {"RK423_isoLocationX", 0, 1}, {"RK423_isoLocationCV", 0, 5},
      {"RK423_isoLocationLT", 2, 7}, {"matrixAP_420BLocation", 100, 111},
      {"GX4C_matrixLocationAB", 8, 15}, {"GX4C_isoLocationY_AB", 8, 15},
      {"GX4C_matrixLocationCD", 8, 15}, {"GX4C_isoLocationY_CD", 8, 15}, {"GX4C_IN_A", 8, 15},
      {"GX4C_IN_B", 8, 15}, {"GX4C_IN_C", 8, 15}, {"GX4C_IN_D", 8, 15}};
  for (const RelayUse &z : zero)
    for (std::size_t r = z.first; r <= z.last; ++r)
      for (std::size_t c = 0; c < table(z.table).width(); ++c)
        EXPECT_EQ(table(z.table).at(r, c), PointLocation{}) << z.table << " row " << r;
  for (std::size_t r = 0; r < 16; ++r)  // B's table is wider than its wiring
    for (std::size_t c = 13; c < 50; ++c) EXPECT_EQ(GX4C_IN_B[r][c], PointLocation{}) << r << c;
}

}  // namespace
