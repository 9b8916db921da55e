// Point-location tables and GetPoint: load-time state, the fillers, the
// selector matrix, and every entry against the reviewed wiring.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "golden.hpp"
#include "qbvisa_lowlevel.h"

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
  X(GX4_cascadeLocation_AB, GX4_setCascadeLocaionAB) X(GX4_cascadeLocation_CD, GX4_setCascadeLocaionCD) \
  X(GX4_matrixLocationAB, GX4_setmatrixLocationAB) X(GX4_isoLocationX_AB, GX4_setISOLocationColumnAB) \
  X(GX4_isoLocationY_AB, GX4_setISOLocationRowAB) X(GX4_matrixLocationCD, GX4_setmatrixLocationCD) \
  X(GX4_isoLocationX_CD, GX4_setISOLocationColumnCD) X(GX4_isoLocationY_C, GX4_setISOLocationRowC) \
  X(GX4_isoLocationY_D, GX4_setISOLocationRowD) X(GX4CNew_IN_AB, GX4CNew_setInAB) \
  X(GX4CNew_IN_CD, GX4CNew_setInCD) X(GX4CNew_matrixLocationAB, GX4CNew_setmatrixLocationAB) \
  X(GX4CNew_isoLocationX_AB, GX4CNew_setISOLocationColumnAB) \
  X(GX4CNew_isoLocationY_AB, GX4CNew_setISOLocationRowAB) \
  X(GX4CNew_matrixLocationCD, GX4CNew_setmatrixLocationCD) \
  X(GX4CNew_isoLocationX_CD, GX4CNew_setISOLocationColumnCD) \
  X(GX4CNew_isoLocationY_CD, GX4CNew_setISOLocationRowCD) X(GX4C_IN_A, GX4C_setInA) \
  X(GX4C_IN_B, GX4C_setInB) X(GX4C_IN_C, GX4C_setInC) X(GX4C_IN_D, GX4C_setInD) \
  X(GX4C_matrixLocationAB, GX4C_setmatrixLocationAB) X(GX4C_isoLocationX_AB, GX4C_setISOLocationColumnAB) \
  X(GX4C_isoLocationY_AB, GX4C_setISOLocationRowAB) X(GX4C_matrixLocationCD, GX4C_setmatrixLocationCD) \
  X(GX4C_isoLocationX_CD, GX4C_setISOLocationColumnCD) X(GX4C_isoLocationY_CD, GX4C_setISOLocationRowCD) \
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

using Image = std::vector<std::vector<PointLocation>>;
Image snapshot() {
  Image image;
  for (const Table &t : kTables) image.push_back(t.copy());
  return image;
}
// Taken while the test program starts, before anything can initialise.
const Image kAtLoad = snapshot();

std::string dump(const Image &image) {
  std::ostringstream out;
  for (std::size_t i = 0; i < std::size(kTables); ++i)
    for (std::size_t r = 0; r < kTables[i].rows; ++r) {
      out << kTables[i].name << '[' << r << ']';
      for (std::size_t c = 0; c < kTables[i].width(); ++c) {
        const PointLocation &e = image[i][r * kTables[i].width() + c];
        out << ' ' << e.group << '/' << e.position;
        if (e.auxiliary != 0) out << '/' << e.auxiliary;
      }
      out << '\n';
    }
  return out.str();
}

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

// Every entry of every table after initialisation, and as loaded before
// anything initialised (wired from load, bar isoLocationY column 5, which until
// then goes with columns 0..4; the rest zero): one swapped relay anywhere shows.
TEST(LocationTables, EveryTableAtLoadAndInitialisedMatchesTheReviewedWiring) {
  qbgolden::expectGolden("location_tables_at_load.txt", dump(kAtLoad));
  InitPointInfo();
  qbgolden::expectGolden("location_tables.txt", dump(snapshot()));
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
      if (&kTables[i] == &t) EXPECT_EQ(std::memcmp(t.entries, filled[i].data(), t.size() * sizeof(PointLocation)), 0);
      else EXPECT_TRUE(poisoned(kTables[i])) << kTables[i].name << " written";
    }
  }
  poisonAll();
  InitPointInfo();
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    const Table &t = kTables[i];
    if (t.filler) EXPECT_EQ(std::memcmp(t.entries, filled[i].data(), t.size() * sizeof(PointLocation)), 0) << t.name;
    else EXPECT_TRUE(poisoned(t)) << t.name;
    if (!t.filler) std::memset(t.entries, 0, t.size() * sizeof(PointLocation));
  }
}

// The counters older programs expect to find at their starting values (the
// sizes they read: utilities_transcript.txt).
TEST(ExportedValues, HoldWhatOlderProgramsRead) {
  EXPECT_EQ(std::vector<int32_t>({LXICHASSIS, chassisThreads, fdtmp, devicecount420, devicecount421,
                                  devicecount422, devicecount423, MATRIXARRAYSIZE,
                                  first_findrsc, currentOpSwitch}),
            std::vector<int32_t>({0, 0, -1, 0, 0, 0, 0, 0, 1, 0}));
}

// What GetPoint left in its result, every entry being marked with its table
// and place: "-" left alone, ">" the frame location read one field on.
std::string describe(const RelayPosition &at) {
  if (at.group == -77 && at.position == -88) return "-";
  const bool shifted = at.group >= 1000000;
  const int32_t table = (shifted ? at.position : at.group) - 1000;
  const int32_t k = (shifted ? at.group : at.position) - 1000000;
  if (table < 0 || table >= int32_t(std::size(kTables)) || k < 0)
    return std::to_string(at.group) + "/" + std::to_string(at.position);
  const Table &t = kTables[table];
  return (shifted ? ">" : "") + std::string(t.name) + "[" + std::to_string(k / t.width()) + "][" +
         std::to_string(k % t.width()) + "]";
}

// The entry GetPoint reads for each kind and selector at a few places, and the
// first row and columns (at rows 1 and 9) that leave the result alone, against
// the reviewed routing (tests/data/location_routes.txt). A sub-matrix reads a
// table of its own where the card has one, else the one it shares with its
// pair; the GX4Mix card (kind 10) is a GX4 on rows 0..7 and a GX4CNew eight
// rows up from row 8 on; a row-only table ignores the column.
TEST(GetPointTest, EveryKindAndSelectorReadsTheReviewedEntry) {
  InitPointInfo();
  const Image filled = snapshot();
  for (std::size_t i = 0; i < std::size(kTables); ++i)
    for (std::size_t k = 0; k < kTables[i].size(); ++k)
      kTables[i].entries[k] = {int32_t(1000 + i), int32_t(1000000 + k), int32_t(1000 + i)};
  const auto read = [](uint32_t kind, int32_t selector, uint32_t row, uint32_t column) {
    RelayPosition at{-77, -88};
    EXPECT_EQ(GetPoint(kind, selector, row, column, &at), 0);
    return describe(at);
  };
  std::vector<int32_t> selectors = {INT32_MIN, -1, INT32_MAX};
  for (int32_t s = 0; s <= 26; ++s) selectors.push_back(s);
  std::ostringstream out;
  for (uint32_t kind : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 0x80000000u})
    for (int32_t selector : selectors) {
      out << "kind " << kind << " selector " << selector << ":";
      for (uint32_t row : {1u, 7u, 8u, 9u, UINT32_MAX}) out << ' ' << read(kind, selector, row, 2);
      uint32_t rows = 0;
      while (rows < 64 && read(kind, selector, rows, 0) != "-") ++rows;
      out << " rows " << rows << " columns";
      for (uint32_t row : {1u, 9u}) {
        uint32_t columns = 0;
        while (columns < 5000 && read(kind, selector, row, columns) != "-") ++columns;
        out << ' ' << columns;
      }
      out << '\n';
    }
  for (std::size_t i = 0; i < std::size(kTables); ++i) std::copy(filled[i].begin(), filled[i].end(), kTables[i].entries);
  qbgolden::expectGolden("location_routes.txt", out.str());
  EXPECT_EQ(GetPoint(0, MATRIX, 0, 0, nullptr), 0);
  EXPECT_EQ(GetPoint(7, IN_A, 0, 0, nullptr), 0);
}

}  // namespace
