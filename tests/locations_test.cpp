// Point-location tables and GetPoint: telling wiring values, properties that
// catch miswired tables, the selector matrix, the fillers and InitPointInfo.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "qbvisa_lowlevel.h"

bool operator==(const PointLocation &a, const PointLocation &b) {
  return a.group == b.group && a.position == b.position &&
         a.auxiliary == b.auxiliary;
}
void PrintTo(const PointLocation &e, std::ostream *os) {
  *os << "(" << e.group << ", " << e.position << ", " << e.auxiliary << ")";
}

// Every filler, in the order InitPointInfo must call them.
#define FILLERS(X)                                                         \
  X(setMatrixLocation) X(setISOLocationRow) X(setISOLocationColumn)        \
  X(setGX3_matrixLocationAB) X(setISORFLocationRowAB)                      \
  X(setISORFLocationColumnAB) X(setGX3_matrixLocationC)                    \
  X(setISORFLocationRowC) X(setISORFLocationColumnC)                       \
  X(setGX3_matrixLocationD) X(setISORFLocationRowD)                        \
  X(setISORFLocationColumnD) X(setCascadeLocaionAB) X(setCascadeLocaionCD) \
  X(setMatrixAPLocation) X(setMatrixAP_420BLocation)                       \
  X(GX4_setCascadeLocaionAB) X(GX4_setCascadeLocaionCD)                    \
  X(GX4_setmatrixLocationAB) X(GX4_setISOLocationColumnAB)                 \
  X(GX4_setISOLocationRowAB) X(GX4_setmatrixLocationCD)                    \
  X(GX4_setISOLocationColumnCD) X(GX4_setISOLocationRowC)                  \
  X(GX4_setISOLocationRowD) X(GX4CNew_setInAB) X(GX4CNew_setInCD)          \
  X(GX4CNew_setmatrixLocationAB) X(GX4CNew_setISOLocationColumnAB)         \
  X(GX4CNew_setISOLocationRowAB) X(GX4CNew_setmatrixLocationCD)            \
  X(GX4CNew_setISOLocationColumnCD) X(GX4CNew_setISOLocationRowCD)         \
  X(GX4C_setInA) X(GX4C_setInB) X(GX4C_setInC) X(GX4C_setInD)              \
  X(GX4C_setmatrixLocationAB) X(GX4C_setISOLocationColumnAB)               \
  X(GX4C_setISOLocationRowAB) X(GX4C_setmatrixLocationCD)                  \
  X(GX4C_setISOLocationColumnCD) X(GX4C_setISOLocationRowCD)               \
  X(RK421_setMatrixLocation) X(RK421_setisoLocationX)                      \
  X(RK421_setisoLocationY) X(RK421_setCV) X(RK422_setMatrixLocation)       \
  X(RK422_setisoLocationY) X(RK423_setMatrixLocation)                      \
  X(RK423_setisoLocationX) X(RK423_setisoLocationY)                        \
  X(RK423_setisoLocationCV) X(RK423_setisoLocationLT)

namespace {

// Every filler call, in order.
std::vector<std::string> &fillCalls() {
  static std::vector<std::string> calls;
  return calls;
}

}  // namespace

// The library reaches its fillers through their exported names, so these
// definitions put a recorder in front of the library's own.
#define RECORDED_FILLER(name)                                          \
  extern "C" void name(void) {                                         \
    fillCalls().push_back(#name);                                      \
    static auto *const real =                                          \
        reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, #name));         \
    real();                                                            \
  }
FILLERS(RECORDED_FILLER)

namespace {

// One exported table: entries, shape (columns 0 for row-only tables), filler
// (none for the tables nothing fills), and whether it holds data from load.
struct Table {
  const char *name;
  PointLocation *entries;
  std::size_t rows;
  std::size_t columns;
  void (*filler)();
  bool preset;

  std::size_t width() const { return columns ? columns : 1; }
  std::size_t size() const { return rows * width(); }
  PointLocation &at(std::size_t r, std::size_t c = 0) const {
    return entries[r * width() + (columns ? c : 0)];
  }
  std::vector<PointLocation> copy() const { return {entries, entries + size()}; }
};

#define GRID(t, f, p) Table{#t, &t[0][0], std::size(t), std::size(t[0]), f, p}
#define LINE(t, f, p) Table{#t, t, std::size(t), 0, f, p}

const Table kTables[] = {
    GRID(matrixLocation, setMatrixLocation, true), GRID(isoLocationX, setISOLocationColumn, true),
    GRID(isoLocationY, setISOLocationRow, true),
    GRID(RK421_matrixLocation, RK421_setMatrixLocation, false),
    GRID(RK421_isoLocationX, RK421_setisoLocationX, false),
    GRID(RK421_isoLocationY, RK421_setisoLocationY, false),
    GRID(RK421_isoLocationCV, RK421_setCV, false),
    GRID(RK422_matrixLocation, RK422_setMatrixLocation, false),
    GRID(RK422_isoLocationY, RK422_setisoLocationY, false),
    GRID(RK423_matrixLocation, RK423_setMatrixLocation, false),
    GRID(RK423_isoLocationX, RK423_setisoLocationX, false),
    GRID(RK423_isoLocationY, RK423_setisoLocationY, false),
    GRID(RK423_isoLocationCV, RK423_setisoLocationCV, false),
    GRID(RK423_isoLocationLT, RK423_setisoLocationLT, false),
    GRID(GX3_matrixLocationAB, setGX3_matrixLocationAB, true),
    GRID(GX3_isoLocationX_AB, setISORFLocationColumnAB, true),
    GRID(GX3_isoLocationY_AB, setISORFLocationRowAB, true),
    GRID(GX3_matrixLocationC, setGX3_matrixLocationC, true),
    GRID(GX3_isoLocationX_C, setISORFLocationColumnC, true),
    GRID(GX3_isoLocationY_C, setISORFLocationRowC, true),
    GRID(GX3_matrixLocationD, setGX3_matrixLocationD, true),
    GRID(GX3_isoLocationX_D, setISORFLocationColumnD, true),
    GRID(GX3_isoLocationY_D, setISORFLocationRowD, true),
    LINE(GX3_cascadeLocation_AB, setCascadeLocaionAB, true),
    LINE(GX3_cascadeLocation_CD, setCascadeLocaionCD, true),
    GRID(GX4_matrixLocationAB, GX4_setmatrixLocationAB, false),
    GRID(GX4_isoLocationX_AB, GX4_setISOLocationColumnAB, false),
    GRID(GX4_isoLocationY_AB, GX4_setISOLocationRowAB, false),
    GRID(GX4_matrixLocationCD, GX4_setmatrixLocationCD, false),
    GRID(GX4_isoLocationX_CD, GX4_setISOLocationColumnCD, false),
    GRID(GX4_isoLocationY_C, GX4_setISOLocationRowC, false),
    GRID(GX4_isoLocationY_D, GX4_setISOLocationRowD, false),
    LINE(GX4_cascadeLocation_AB, GX4_setCascadeLocaionAB, true),
    LINE(GX4_cascadeLocation_CD, GX4_setCascadeLocaionCD, true),
    GRID(GX4C_matrixLocationAB, GX4C_setmatrixLocationAB, false),
    GRID(GX4C_isoLocationX_AB, GX4C_setISOLocationColumnAB, false),
    GRID(GX4C_isoLocationY_AB, GX4C_setISOLocationRowAB, false),
    GRID(GX4C_matrixLocationCD, GX4C_setmatrixLocationCD, false),
    GRID(GX4C_isoLocationX_CD, GX4C_setISOLocationColumnCD, false),
    GRID(GX4C_isoLocationY_CD, GX4C_setISOLocationRowCD, false),
    LINE(GX4C_cascadeLocation_AB, nullptr, false), LINE(GX4C_cascadeLocation_CD, nullptr, false),
    GRID(GX4C_IN_A, GX4C_setInA, false), GRID(GX4C_IN_B, GX4C_setInB, false),
    GRID(GX4C_IN_C, GX4C_setInC, false), GRID(GX4C_IN_D, GX4C_setInD, false),
    GRID(GX4C_IN_AB, nullptr, false), GRID(GX4C_IN_CD, nullptr, false),
    GRID(GX4CNew_matrixLocationAB, GX4CNew_setmatrixLocationAB, false),
    GRID(GX4CNew_isoLocationX_AB, GX4CNew_setISOLocationColumnAB, false),
    GRID(GX4CNew_isoLocationY_AB, GX4CNew_setISOLocationRowAB, false),
    GRID(GX4CNew_matrixLocationCD, GX4CNew_setmatrixLocationCD, false),
    GRID(GX4CNew_isoLocationX_CD, GX4CNew_setISOLocationColumnCD, false),
    GRID(GX4CNew_isoLocationY_CD, GX4CNew_setISOLocationRowCD, false),
    LINE(GX4CNew_cascadeLocation_AB, nullptr, false),
    LINE(GX4CNew_cascadeLocation_CD, nullptr, false), GRID(GX4CNew_IN_AB, GX4CNew_setInAB, false),
    GRID(GX4CNew_IN_CD, GX4CNew_setInCD, false), LINE(matrixAPLocation, setMatrixAPLocation, true),
    LINE(matrixAP_420BLocation, setMatrixAP_420BLocation, true),
};

const Table &table(const std::string &name) {
  for (const Table &t : kTables)
    if (name == t.name) return t;
  ADD_FAILURE() << "no table " << name;
  return kTables[0];
}
bool rowsEqual(const Table &t, std::size_t a, std::size_t b) {
  for (std::size_t c = 0; c < t.width(); ++c)
    if (!(t.at(a, c) == t.at(b, c))) return false;
  return true;
}
bool rowZero(const Table &t, std::size_t r, std::size_t fromColumn = 0) {
  for (std::size_t c = fromColumn; c < t.width(); ++c)
    if (!(t.at(r, c) == PointLocation{})) return false;
  return true;
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
  for (const Table &t : kTables)
    std::memset(t.entries, kPoison, t.size() * sizeof(PointLocation));
}
bool poisoned(const Table &t) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(t.entries);
  return std::all_of(bytes, bytes + t.size() * sizeof(PointLocation),
                     [](unsigned char b) { return b == kPoison; });
}
// Back to the state after initialisation: tables nothing fills are zero.
void restoreAll() {
  for (const Table &t : kTables)
    if (t.filler == nullptr)
      std::memset(t.entries, 0, t.size() * sizeof(PointLocation));
  InitPointInfo();
}

// ---------------------------------------------------------------------------
// Load-time state, InitPointInfo and the fillers
// ---------------------------------------------------------------------------

TEST(LocationTables, PresetTablesHoldTheirWiringFromLoadAndTheRestAreZero) {
  InitPointInfo();
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    const Table &t = kTables[i];
    const std::string name = t.name;
    for (std::size_t k = 0; k < t.size(); ++k) {
      // The load-time image is the filled wiring, but for isoLocationY column
      // 5; the RK420B AP table starts empty like the tables without an image.
      if (!t.preset || name == "matrixAP_420BLocation")
        EXPECT_EQ(kAtLoad[i][k], PointLocation{}) << name << " " << k;
      else
        EXPECT_EQ(kAtLoad[i][k] == t.entries[k], !(name == "isoLocationY" && k % 10 == 5))
            << name << " " << k;
    }
  }
  // Until initialisation column 5 goes with columns 0..4.
  EXPECT_EQ(kAtLoad[2][0 * 10 + 5], (PointLocation{2, 7, 0}));
  EXPECT_EQ(kAtLoad[2][11 * 10 + 5], (PointLocation{8, 12, 0}));
  EXPECT_EQ(isoLocationY[0][5], (PointLocation{3, 0, 0}));
}

TEST(LocationTables, InitPointInfoCallsEveryFillerOnceInOrder) {
#define NAME_OF(name) #name,
  const std::vector<std::string> order = {FILLERS(NAME_OF)};
  fillCalls().clear();
  InitPointInfo();
  if (fillCalls().empty()) GTEST_SKIP() << "the library binds its filler calls internally";
  EXPECT_EQ(fillCalls(), order);
}

// A second run gives the same tables even over garbage, and leaves alone the
// tables nothing fills.
TEST(LocationTables, InitPointInfoRewritesTheSameTablesEveryTime) {
  InitPointInfo();
  const Image first = snapshot();
  poisonAll();
  InitPointInfo();
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    if (kTables[i].filler)
      EXPECT_EQ(kTables[i].copy(), first[i]) << kTables[i].name;
    else
      EXPECT_TRUE(poisoned(kTables[i])) << kTables[i].name;
  }
  restoreAll();
  EXPECT_EQ(snapshot(), first);
}

TEST(LocationTables, EachFillerWritesAllOfItsOwnTableAndNothingElse) {
  InitPointInfo();
  const Image filled = snapshot();
  for (const Table &t : kTables) {
    if (t.filler == nullptr) continue;
    SCOPED_TRACE(t.name);
    poisonAll();
    t.filler();
    for (std::size_t i = 0; i < std::size(kTables); ++i) {
      if (&kTables[i] == &t)
        EXPECT_EQ(t.copy(), filled[i]);
      else
        EXPECT_TRUE(poisoned(kTables[i])) << kTables[i].name << " written";
    }
  }
  restoreAll();
}

// ---------------------------------------------------------------------------
// GetPoint
// ---------------------------------------------------------------------------

class GetPointTest : public ::testing::Test {
 protected:
  void SetUp() override { InitPointInfo(); }
};

constexpr RelayPosition kUntouched{-77, -88};

struct Lookup {
  uint32_t kind;
  int32_t selector;
  uint32_t row, column;
  int32_t group = 0, position = 0;
};

void expectLookups(const std::vector<Lookup> &lookups, bool untouched) {
  for (const Lookup &c : lookups) {
    RelayPosition out = kUntouched;
    EXPECT_EQ(GetPoint(c.kind, c.selector, c.row, c.column, &out), 0);
    const RelayPosition want = untouched ? kUntouched : RelayPosition{c.group, c.position};
    EXPECT_TRUE(out.group == want.group && out.position == want.position)
        << "kind " << c.kind << " selector " << c.selector << " at " << c.row << ","
        << c.column << " gave " << out.group << "," << out.position;
  }
}

TEST_F(GetPointTest, TellingWiringValues) {
  expectLookups(
      {// RK420: two halves of six rows; column 5 apart.
       {0, MATRIX, 0, 0, 0, 0}, {0, MATRIX, 0, 1, 0, 7}, {0, MATRIX, 5, 5, 3, 11},
       {0, MATRIX, 11, 5, 9, 12}, {0, MATRIX, 6, 9, 11, 8}, {0, ISO_X, 11, 9, 11, 7},
       {0, ISO_X, 6, 5, 9, 6}, {0, ISO_Y, 0, 5, 3, 0}, {0, ISO_Y, 11, 4, 8, 12},
       {0, ISO_Y, 11, 9, 9, 5},
       // RK421
       {1, MATRIX, 4, 6, 6, 8}, {1, ISO_X, 5, 3, 5, 3}, {1, ISO_Y, 9, 11, 12, 7},
       {1, ISO_CV, 4, 0, 6, 15}, {1, ISO_CV, 5, 11, 6, 14}, {1, ISO_CV, 0, 0, 0, 0},
       // RK422: four bands wired differently, 1-based; rows 4 and up empty.
       {2, MATRIX, 0, 0, 0, 8}, {2, MATRIX, 0, 1, 0, 1}, {2, MATRIX, 0, 24, 12, 1},
       {2, MATRIX, 0, 25, 12, 2}, {2, MATRIX, 0, 48, 24, 2}, {2, MATRIX, 0, 49, 24, 1},
       {2, MATRIX, 0, 72, 36, 4}, {2, MATRIX, 0, 73, 36, 5}, {2, MATRIX, 3, 95, 47, 8},
       {2, MATRIX, 3, 72, 36, 1}, {2, MATRIX, 4, 1, 0, 0}, {2, ISO_Y, 2, 50, 48, 7},
       // RK423
       {3, MATRIX, 7, 11, 9, 13}, {3, ISO_X, 2, 3, 2, 3}, {3, ISO_X, 1, 3, 0, 0},
       {3, ISO_CV, 6, 4, 7, 4}, {3, ISO_LT, 0, 0, 0, 14}, {3, ISO_LT, 1, 0, 2, 13},
       // GX3
       {4, MATRIX_A, 0, 6, 2, 0}, {4, MATRIX_B, 4, 6, 5, 1}, {4, MATRIX_A, 7, 12, 7, 14},
       {4, ISO_X_A, 0, 7, 3, 5}, {4, ISO_X_B, 4, 7, 6, 1}, {4, ISO_Y_D, 3, 11, 2, 15},
       {4, ISO_Y_D, 7, 11, 5, 7}, {4, ISO_Y_C, 3, 11, 2, 7}, {4, CASCADE_A, 3, 0, 3, 0},
       {4, CASCADE_D, 7, 0, 5, 11},
       // GX4, and its half of the GX4Mix card (row 8 there is GX4CNew row 0).
       {5, MATRIX_A, 12, 7, 13, 2}, {6, MATRIX_B, 4, 7, 13, 2}, {5, MATRIX_A, 0, 10, 4, 0},
       {6, MATRIX_C, 7, 11, 19, 14}, {5, ISO_X_D, 4, 6, 18, 0}, {5, ISO_Y_D, 3, 6, 7, 15},
       {5, ISO_Y_C, 3, 6, 7, 7}, {6, CASCADE_C, 12, 0, 17, 8}, {10, MATRIX_A, 7, 1, 10, 9},
       {10, MATRIX_A, 8, 1, 0, 3}, {10, MATRIX_A, 23, 0, 6, 0},
       // GX4C: IN relays read one field on; unwired rows and cascades zero.
       {7, IN_A, 5, 9, 10, 2}, {7, IN_B, 0, 12, 10, 15}, {7, IN_B, 0, 40, 0, 0},
       {7, IN_D, 7, 11, 10, 8}, {7, MATRIX_A, 9, 3, 0, 0}, {7, ISO_X_A, 9, 3, 0, 11},
       {7, CASCADE_A, 2, 0, 0, 0},
       // GX4CNew
       {8, CASCADE_A, 5, 0, 0, 0}, {9, CASCADE_D, 15, 0, 0, 0}, {10, CASCADE_B, 9, 0, 0, 0},
       {8, MATRIX_C, 12, 6, 11, 11}, {9, MATRIX_A, 4, 2, 6, 1}, {8, IN_A, 3, 0, 10, 6},
       {9, IN_D, 9, 11, 10, 3},
       // AP matrices, numbered by the row argument alone.
       {11, MATRIX, 0, 0, 1, 0}, {11, MATRIX, 1, 0, 0, 0}, {11, MATRIX, 27, 0, 0, 13},
       {11, MATRIX, 28, 500, 3, 0}, {11, MATRIX, 111, 0, 6, 13}, {12, MATRIX, 0, 0, 0, 10},
       {12, MATRIX, 40, 9, 3, 2}, {12, MATRIX, 99, 0, 5, 9}, {12, MATRIX, 100, 0, 0, 0}},
      false);
}

// An index outside the table names no relay; nor does a missing result record.
TEST_F(GetPointTest, IndexOutsideTheTableLeavesTheResultAlone) {
  expectLookups({{0, MATRIX, 12, 0}, {0, MATRIX, 0, 10}, {2, MATRIX, 16, 0},
                 {4, MATRIX_A, 8, 0}, {7, IN_B, 0, 50}, {10, MATRIX_A, 24, 0},
                 {10, MATRIX_A, UINT32_MAX, 0}, {11, MATRIX, 112, 0},
                 {5, CASCADE_A, 16, 0}, {12, MATRIX, UINT32_MAX, 0}},
                true);
  EXPECT_EQ(GetPoint(0, MATRIX, 0, 0, nullptr), 0);
  EXPECT_EQ(GetPoint(7, IN_A, 0, 0, nullptr), 0);
}

// Which table each (kind, selector) reads; any pair not listed must leave
// the result alone. The GX4Mix card (kind 10) reads GX4 on rows 0..7 and
// GX4CNew, eight rows up, from row 8 on.
using Routes = std::vector<std::pair<std::vector<int32_t>, std::string>>;
Routes subMatrixRoutes(const std::string &family, const std::string &c, const std::string &d) {
  return {{{MATRIX_A, MATRIX_B}, family + "_matrixLocationAB"},
          {{ISO_X_A, ISO_X_B}, family + "_isoLocationX_AB"},
          {{ISO_Y_A, ISO_Y_B}, family + "_isoLocationY_AB"},
          {{MATRIX_C}, family + "_matrixLocation" + c}, {{MATRIX_D}, family + "_matrixLocation" + d},
          {{ISO_X_C}, family + "_isoLocationX_" + c},   {{ISO_X_D}, family + "_isoLocationX_" + d},
          {{ISO_Y_C}, family + "_isoLocationY_" + c},   {{ISO_Y_D}, family + "_isoLocationY_" + d},
          {{CASCADE_A, CASCADE_B}, family + "_cascadeLocation_AB"},
          {{CASCADE_C, CASCADE_D}, family + "_cascadeLocation_CD"}};
}
// The first route that names a selector wins.
Routes join(Routes routes, const Routes &more) {
  routes.insert(routes.end(), more.begin(), more.end());
  return routes;
}

const Table *expectedTable(uint32_t kind, int32_t selector, uint32_t *row) {
  // GX3 has C and D tables of every kind; GX4 separates only Y isolation.
  static const Routes gx3 = subMatrixRoutes("GX3", "C", "D");
  static const Routes gx4 = join(
      {{{ISO_Y_C}, "GX4_isoLocationY_C"}, {{ISO_Y_D}, "GX4_isoLocationY_D"}},
      subMatrixRoutes("GX4", "CD", "CD"));
  static const Routes gx4c =
      join(subMatrixRoutes("GX4C", "CD", "CD"),
           {{{IN_A}, "GX4C_IN_A"}, {{IN_B}, "GX4C_IN_B"}, {{IN_C}, "GX4C_IN_C"},
            {{IN_D}, "GX4C_IN_D"}});
  static const Routes gx4cNew =
      join(subMatrixRoutes("GX4CNew", "CD", "CD"),
           {{{IN_A, IN_B}, "GX4CNew_IN_AB"}, {{IN_C, IN_D}, "GX4CNew_IN_CD"}});
  static const Routes byKind[] = {
      {{{MATRIX}, "matrixLocation"}, {{ISO_X}, "isoLocationX"}, {{ISO_Y}, "isoLocationY"}},
      {{{MATRIX}, "RK421_matrixLocation"}, {{ISO_X}, "RK421_isoLocationX"},
       {{ISO_Y}, "RK421_isoLocationY"}, {{ISO_CV}, "RK421_isoLocationCV"}},
      {{{MATRIX}, "RK422_matrixLocation"}, {{ISO_Y}, "RK422_isoLocationY"}},
      {{{MATRIX}, "RK423_matrixLocation"}, {{ISO_X}, "RK423_isoLocationX"},
       {{ISO_Y}, "RK423_isoLocationY"}, {{ISO_CV}, "RK423_isoLocationCV"},
       {{ISO_LT}, "RK423_isoLocationLT"}},
      gx3, gx4, gx4, gx4c, gx4cNew, gx4cNew, {}, {{{MATRIX}, "matrixAPLocation"}},
      {{{MATRIX}, "matrixAP_420BLocation"}}};
  if (kind >= std::size(byKind)) return nullptr;
  const Routes &routes = kind != 10 ? byKind[kind] : *row < 8 ? gx4 : gx4cNew;
  if (kind == 10 && *row >= 8) *row -= 8;
  for (const auto &[selectors, name] : routes)
    if (std::count(selectors.begin(), selectors.end(), selector))
      return *row < table(name).rows ? &table(name) : nullptr;
  return nullptr;
}

TEST_F(GetPointTest, SelectorMatrixReadsTheRightTableOrLeavesTheResultAlone) {
  std::vector<int32_t> selectors = {INT32_MIN, -1, INT32_MAX};
  for (int32_t s = 0; s <= 26; ++s) selectors.push_back(s);
  for (uint32_t kind : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 14u,
                        0x80000000u, UINT32_MAX})
    for (int32_t selector : selectors)
      for (uint32_t row : {1u, 9u}) {
        SCOPED_TRACE(testing::Message() << "kind " << kind << " selector " << selector
                                        << " row " << row);
        uint32_t tableRow = row;
        const Table *t = expectedTable(kind, selector, &tableRow);
        if (t == nullptr) {
          expectLookups({{kind, selector, row, 2}}, true);
          continue;
        }
        // Mark the one entry that must be read. A row-only table must ignore
        // the column, so it is asked with a column far outside any table.
        PointLocation &entry = t->at(tableRow, 2);
        const PointLocation saved = entry;
        const int32_t k = static_cast<int32_t>(kind);
        entry = {1000 + k, 2000 + selector, 3000};
        // The GX4C IN tables keep the frame location one field further on.
        if (std::string(t->name).rfind("GX4C_IN_", 0) == 0)
          expectLookups({{kind, selector, row, 2, 2000 + selector, 3000}}, false);
        else
          expectLookups({{kind, selector, row, t->columns ? 2u : 5000u, 1000 + k, 2000 + selector}},
                        false);
        entry = saved;
      }
}

// ---------------------------------------------------------------------------
// Wiring properties
// ---------------------------------------------------------------------------

// Relays of one kind that a matrix switches: every step-th row from first to
// last of a table (step 2 where two rows are wired to one relay).
struct RelayUse {
  const char *table;
  std::size_t first, last, step = 1;
};

std::multiset<int> bytesOf(const RelayUse &use) {
  const Table &t = table(use.table);
  std::multiset<int> bytes;
  for (std::size_t r = use.first; r <= use.last; r += use.step)
    for (std::size_t c = 0; c < t.width(); ++c)
      bytes.insert(t.at(r, c).group * 16 + t.at(r, c).position);
  return bytes;
}

// Each crosspoint and cascade relay has a byte of its own, and no byte serves
// two relay kinds: a slip in a wiring rule or list shows up as a shared byte.
TEST_F(GetPointTest, NoTwoRelaysOfAMatrixShareAByte) {
  struct MatrixWiring {
    const char *name;
    std::vector<RelayUse> ownByte;  // crosspoints and cascade relays
    std::vector<RelayUse> shared;   // isolation, CV, LT and IN relays
  };
  const MatrixWiring matrices[] = {
      {"RK420", {{"matrixLocation", 0, 11}}, {{"isoLocationX", 0, 11}, {"isoLocationY", 0, 11}}},
      {"RK421", {{"RK421_matrixLocation", 0, 9}},
       {{"RK421_isoLocationX", 0, 9}, {"RK421_isoLocationY", 0, 9}, {"RK421_isoLocationCV", 4, 5}}},
      {"RK422", {{"RK422_matrixLocation", 0, 3}}, {{"RK422_isoLocationY", 0, 3}}},
      {"RK423", {{"RK423_matrixLocation", 0, 7}},
       {{"RK423_isoLocationX", 2, 7}, {"RK423_isoLocationY", 0, 7},
        {"RK423_isoLocationCV", 6, 7}, {"RK423_isoLocationLT", 0, 1}}},
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
  for (const MatrixWiring &m : matrices) {
    std::set<int> claimed;
    for (const auto *uses : {&m.ownByte, &m.shared})
      for (const RelayUse &use : *uses) {
        const std::multiset<int> bytes = bytesOf(use);
        const std::set<int> distinct(bytes.begin(), bytes.end());
        if (uses == &m.ownByte) {
          EXPECT_EQ(distinct.size(), bytes.size()) << use.table;
        }
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
  for (const char *name : {"GX4C_matrixLocationAB", "GX4C_isoLocationY_AB",
                           "GX4C_matrixLocationCD", "GX4C_isoLocationY_CD"})
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
  std::multiset<int> upper, lower, everyByte;
  for (int b = 0; b < 16; ++b) everyByte.insert(b);
  for (const char *name : {"GX4C_IN_A", "GX4C_IN_B", "GX4C_IN_C", "GX4C_IN_D"})
    for (std::size_t r = 0; r < 8; ++r) {
      const Table &t = table(name);
      for (std::size_t c = 1; c < 12; ++c) EXPECT_EQ(t.at(r, c), t.at(r, 0)) << name;
      EXPECT_EQ(t.at(r, 0).position, 10) << name;
      (r < 4 ? upper : lower).insert(t.at(r, 0).auxiliary);
    }
  EXPECT_EQ(upper, everyByte);
  EXPECT_EQ(lower, everyByte);
}

TEST_F(GetPointTest, UnwiredRowsAndUnfilledTablesStayZero) {
  const RelayUse zero[] = {
      {"RK421_isoLocationCV", 0, 3},      {"RK421_isoLocationCV", 6, 9},
      {"RK422_matrixLocation", 4, 15},    {"RK422_isoLocationY", 4, 15},
      {"RK423_isoLocationX", 0, 1},       {"RK423_isoLocationCV", 0, 5},
      {"RK423_isoLocationLT", 2, 7},      {"matrixAP_420BLocation", 100, 111},
      {"GX4C_matrixLocationAB", 8, 15},   {"GX4C_isoLocationY_AB", 8, 15},
      {"GX4C_matrixLocationCD", 8, 15},   {"GX4C_isoLocationY_CD", 8, 15},
      {"GX4C_IN_A", 8, 15}, {"GX4C_IN_B", 8, 15}, {"GX4C_IN_C", 8, 15}, {"GX4C_IN_D", 8, 15},
      {"GX4C_IN_AB", 0, 15}, {"GX4C_IN_CD", 0, 15},
      {"GX4C_cascadeLocation_AB", 0, 15}, {"GX4C_cascadeLocation_CD", 0, 15},
      {"GX4CNew_cascadeLocation_AB", 0, 15}, {"GX4CNew_cascadeLocation_CD", 0, 15}};
  for (const RelayUse &z : zero)
    for (std::size_t r = z.first; r <= z.last; ++r)
      EXPECT_TRUE(rowZero(table(z.table), r)) << z.table << " row " << r;
  for (std::size_t r = 0; r < 16; ++r)  // B's table is wider than its wiring
    EXPECT_TRUE(rowZero(table("GX4C_IN_B"), r, 13)) << "GX4C_IN_B row " << r;
}

}  // namespace
