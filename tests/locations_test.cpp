// Point-location tables and GetPoint: load-time state, the fillers, the
// selector matrix, and every entry against the reviewed wiring.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <sstream>
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

// The sizes older programs read from the library, and the counters they
// expect to find at their starting values.
TEST(ExportedValues, HoldWhatOlderProgramsRead) {
  EXPECT_EQ(std::vector<int32_t>({MATRIXPOINTCOUNT, GX3_SUBMATRIXCOL, GX4_SUBMATRIXCOL,
                                  GX4_MATRIXPOINTCOUNT, GX4C_SUBMATRIXCOL, GX4C_MATRIXPOINTCOUNT,
                                  GX4Mix_SUBMATRIXCOL, GX4Mix_MATRIXPOINTCOUNT}),
            std::vector<int32_t>({600, 7, 7, 800, 7, 800, 7, 800}));
  EXPECT_EQ(std::vector<int32_t>({LXICHASSIS, chassisThreads, fdtmp, devicecount420, devicecount421,
                                  devicecount422, devicecount423, MATRIXARRAYSIZE,
                                  first_findrsc, currentOpSwitch}),
            std::vector<int32_t>({0, 0, -1, 0, 0, 0, 0, 0, 1, 0}));
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
      for (uint32_t row : {1u, 7u, 8u, 9u, UINT32_MAX}) {
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

// Every entry of every table after initialisation against the reviewed
// list (tests/data/location_tables.txt, one line a row: group/byte, with the
// third field where it is not 0): one swapped relay anywhere shows. On a
// difference the whole dump goes to location_tables.actual.txt beside the
// test program.
std::string dumpTables() {
  std::ostringstream out;
  for (const Table &t : kTables)
    for (std::size_t r = 0; r < t.rows; ++r) {
      out << t.name << '[' << r << ']';
      for (std::size_t c = 0; c < t.width(); ++c) {
        const PointLocation &e = t.at(r, c);
        out << ' ' << e.group << '/' << e.position;
        if (e.auxiliary != 0) out << '/' << e.auxiliary;
      }
      out << '\n';
    }
  return out.str();
}

TEST_F(GetPointTest, EveryTableMatchesTheReviewedWiring) {
  std::ifstream file(QBVISA_TEST_DATA "/location_tables.txt");
  const std::string golden{std::istreambuf_iterator<char>(file), {}};
  const std::string actual = dumpTables();
  if (actual == golden) return;
  std::ofstream("location_tables.actual.txt") << actual;
  std::istringstream a(actual), g(golden);
  std::string lineA, lineG;
  while (std::getline(a, lineA) && std::getline(g, lineG) && lineA == lineG) {
  }
  ADD_FAILURE() << "first difference:\n  library: " << lineA << "\n  reviewed: " << lineG;
}

}  // namespace
