// Location tables of the GX4C card (kind 7). Sub-matrices A and B share the
// 13-column tables, C and D the 12-column ones, all within one relay-state
// block of 12 groups (0..11). Rows are wired in pairs: rows 2k and 2k+1 close
// the same crosspoint and Y isolation relay, so the wiring lists below give
// one line per pair. Only rows 0..7 exist on the card; rows 8..15 of the
// crosspoint, Y isolation and IN tables stay zero, while the X isolation
// tables carry their single row in all 16 rows.
//
// The cascade tables and GX4C_IN_AB / GX4C_IN_CD have no filler and read as
// zero; a cascade lookup on this card therefore yields group 0, byte 0.
#include "locations/location_source.hpp"

using namespace qbvisa::locations;

namespace {

// Entries are {group, byte}, column by column.
constexpr Relay kCrosspointsAB[4][13] = {
    //                  0      1      2      3      4      5      6      7      8      9     10     11     12
    /* rows 0,1 */ { {0,0},  {0,3},  {0,6},  {0,9}, {0,12},  {1,0},  {1,3}, {1,10}, {1,13},  {2,0},  {2,3},  {2,6},  {2,9}},
    /* rows 2,3 */ { {0,1},  {0,4},  {0,7}, {0,10}, {0,13},  {1,1},  {1,4}, {1,11}, {1,14},  {2,1},  {2,4},  {2,7}, {2,10}},
    /* rows 4,5 */ { {6,0},  {6,2},  {6,4},  {6,6},  {6,8}, {6,10}, {6,12},  {7,2},  {7,4},  {7,6},  {7,8}, {7,10}, {7,12}},
    /* rows 6,7 */ { {6,1},  {6,3},  {6,5},  {6,7},  {6,9}, {6,11}, {6,13},  {7,3},  {7,5},  {7,7},  {7,9}, {7,11}, {7,13}},
};

constexpr Relay kIsolationYAB[4][13] = {
    //                  0      1      2      3      4      5      6      7      8      9     10     11     12
    /* rows 0,1 */ { {1,6},  {1,6},  {1,6},  {1,6},  {1,6},  {1,6},  {1,6},  {1,8},  {1,8},  {1,8},  {1,8},  {1,8},  {1,8}},
    /* rows 2,3 */ { {1,7},  {1,7},  {1,7},  {1,7},  {1,7},  {1,7},  {1,7},  {1,9},  {1,9},  {1,9},  {1,9},  {1,9},  {1,9}},
    /* rows 4,5 */ {{6,14}, {6,14}, {6,14}, {6,14}, {6,14}, {6,14}, {6,14},  {7,0},  {7,0},  {7,0},  {7,0},  {7,0},  {7,0}},
    /* rows 6,7 */ {{6,15}, {6,15}, {6,15}, {6,15}, {6,15}, {6,15}, {6,15},  {7,1},  {7,1},  {7,1},  {7,1},  {7,1},  {7,1}},
};

// X isolation: one relay per column, the same for every row.
constexpr Relay kIsolationXAB[] = {
    //                  0      1      2      3      4      5      6      7      8      9     10     11     12
    /* every row */   {0,2},  {0,5},  {0,8}, {0,11}, {0,14},  {1,2},  {1,5}, {1,12}, {1,15},  {2,2},  {2,5},  {2,8}, {2,11},
};

constexpr Relay kCrosspointsCD[4][12] = {
    //                  0      1      2      3      4      5      6      7      8      9     10     11
    /* rows 0,1 */ { {3,0},  {3,3},  {3,6},  {3,9}, {3,12},  {4,0},  {4,7}, {4,10}, {4,13},  {5,0},  {5,3},  {5,6}},
    /* rows 2,3 */ { {3,1},  {3,4},  {3,7}, {3,10}, {3,13},  {4,1},  {4,8}, {4,11}, {4,14},  {5,1},  {5,4},  {5,7}},
    /* rows 4,5 */ { {8,0},  {8,2},  {8,4},  {8,6},  {8,8}, {8,10},  {9,2},  {9,4},  {9,6},  {9,8}, {9,10}, {9,12}},
    /* rows 6,7 */ { {8,1},  {8,3},  {8,5},  {8,7},  {8,9}, {8,11},  {9,3},  {9,5},  {9,7},  {9,9}, {9,11}, {9,13}},
};

constexpr Relay kIsolationYCD[4][12] = {
    //                  0      1      2      3      4      5      6      7      8      9     10     11
    /* rows 0,1 */ { {4,3},  {4,3},  {4,3},  {4,3},  {4,3},  {4,3},  {4,5},  {4,5},  {4,5},  {4,5},  {4,5},  {4,5}},
    /* rows 2,3 */ { {4,4},  {4,4},  {4,4},  {4,4},  {4,4},  {4,4},  {4,6},  {4,6},  {4,6},  {4,6},  {4,6},  {4,6}},
    /* rows 4,5 */ {{8,12}, {8,12}, {8,12}, {8,12}, {8,12}, {8,12},  {9,0},  {9,0},  {9,0},  {9,0},  {9,0},  {9,0}},
    /* rows 6,7 */ {{8,13}, {8,13}, {8,13}, {8,13}, {8,13}, {8,13},  {9,1},  {9,1},  {9,1},  {9,1},  {9,1},  {9,1}},
};

constexpr Relay kIsolationXCD[] = {
    //                  0      1      2      3      4      5      6      7      8      9     10     11
    /* every row */   {3,2},  {3,5},  {3,8}, {3,11}, {3,14},  {4,2},  {4,9}, {4,12}, {4,15},  {5,2},  {5,5},  {5,8},
};

// IN relays, all in group 10: A on the even bytes 0..6, C on the odd bytes
// 1..7, D on the even bytes 14 down to 8, B on the odd bytes 15 down to 9, the
// same sequence again for rows 4..7. Every column of a row closes the same
// relay. The wiring list gives them as (half, group, byte), the half 0 for
// rows 0..3 and 1 for rows 4..7, and the tables keep that field order: the
// lookup reads the frame location from the second and third fields.
constexpr PointLocation kInputs[][4] = {
    //             A            B            C            D
    /* row 0 */ {{0, 10, 0}, {0, 10, 15}, {0, 10, 1}, {0, 10, 14}},
    /* row 1 */ {{0, 10, 2}, {0, 10, 13}, {0, 10, 3}, {0, 10, 12}},
    /* row 2 */ {{0, 10, 4}, {0, 10, 11}, {0, 10, 5}, {0, 10, 10}},
    /* row 3 */ {{0, 10, 6}, {0, 10, 9},  {0, 10, 7}, {0, 10, 8}},
    /* row 4 */ {{1, 10, 0}, {1, 10, 15}, {1, 10, 1}, {1, 10, 14}},
    /* row 5 */ {{1, 10, 2}, {1, 10, 13}, {1, 10, 3}, {1, 10, 12}},
    /* row 6 */ {{1, 10, 4}, {1, 10, 11}, {1, 10, 5}, {1, 10, 10}},
    /* row 7 */ {{1, 10, 6}, {1, 10, 9},  {1, 10, 7}, {1, 10, 8}},
};
enum InputColumn { kInputA, kInputB, kInputC, kInputD };

// Rows 2k and 2k+1 take line k of a paired list; rows 8..15 stay zero.
template <std::size_t Columns>
constexpr Grid<16, Columns> pairedRows(const Relay (&pairs)[4][Columns]) {
  return generateGrid<16, Columns>([&pairs](int r, int c) {
    return r < 8 ? pairs[r / 2][c] : Relay{};
  });
}

template <std::size_t Columns>
constexpr Grid<16, Columns> everyRow(const Relay (&row)[Columns]) {
  return generateGrid<16, Columns>([&row](int, int c) { return row[c]; });
}

// The IN relay of row r in the first `wired` columns of a table.
template <std::size_t Columns>
constexpr Grid<16, Columns> inputs(InputColumn which, int wired) {
  return generateGrid<16, Columns>([which, wired](int r, int c) {
    return r < 8 && c < wired ? kInputs[r][which] : PointLocation{};
  });
}

constexpr auto kCrosspointGridAB = pairedRows(kCrosspointsAB);
constexpr auto kIsolationXGridAB = everyRow(kIsolationXAB);
constexpr auto kIsolationYGridAB = pairedRows(kIsolationYAB);
constexpr auto kCrosspointGridCD = pairedRows(kCrosspointsCD);
constexpr auto kIsolationXGridCD = everyRow(kIsolationXCD);
constexpr auto kIsolationYGridCD = pairedRows(kIsolationYCD);
constexpr auto kInputGridA = inputs<13>(kInputA, 13);
// B's table is 50 columns wide, but only its first 13 are wired.
constexpr auto kInputGridB = inputs<50>(kInputB, 13);
constexpr auto kInputGridC = inputs<12>(kInputC, 12);
constexpr auto kInputGridD = inputs<12>(kInputD, 12);

}  // namespace

extern "C" {

QBVISA_EXPORT PointLocation GX4C_matrixLocationAB[16][13];
QBVISA_EXPORT PointLocation GX4C_isoLocationX_AB[16][13];
QBVISA_EXPORT PointLocation GX4C_isoLocationY_AB[16][13];
QBVISA_EXPORT PointLocation GX4C_matrixLocationCD[16][12];
QBVISA_EXPORT PointLocation GX4C_isoLocationX_CD[16][12];
QBVISA_EXPORT PointLocation GX4C_isoLocationY_CD[16][12];
QBVISA_EXPORT PointLocation GX4C_cascadeLocation_AB[16];
QBVISA_EXPORT PointLocation GX4C_cascadeLocation_CD[16];
QBVISA_EXPORT PointLocation GX4C_IN_A[16][13];
QBVISA_EXPORT PointLocation GX4C_IN_B[16][50];
QBVISA_EXPORT PointLocation GX4C_IN_C[16][12];
QBVISA_EXPORT PointLocation GX4C_IN_D[16][12];
QBVISA_EXPORT PointLocation GX4C_IN_AB[16][13];
QBVISA_EXPORT PointLocation GX4C_IN_CD[16][12];

QBVISA_EXPORT void GX4C_setInA(void) { copyInto(GX4C_IN_A, kInputGridA); }
QBVISA_EXPORT void GX4C_setInB(void) { copyInto(GX4C_IN_B, kInputGridB); }
QBVISA_EXPORT void GX4C_setInC(void) { copyInto(GX4C_IN_C, kInputGridC); }
QBVISA_EXPORT void GX4C_setInD(void) { copyInto(GX4C_IN_D, kInputGridD); }
QBVISA_EXPORT void GX4C_setmatrixLocationAB(void) {
  copyInto(GX4C_matrixLocationAB, kCrosspointGridAB);
}
QBVISA_EXPORT void GX4C_setISOLocationColumnAB(void) {
  copyInto(GX4C_isoLocationX_AB, kIsolationXGridAB);
}
QBVISA_EXPORT void GX4C_setISOLocationRowAB(void) {
  copyInto(GX4C_isoLocationY_AB, kIsolationYGridAB);
}
QBVISA_EXPORT void GX4C_setmatrixLocationCD(void) {
  copyInto(GX4C_matrixLocationCD, kCrosspointGridCD);
}
QBVISA_EXPORT void GX4C_setISOLocationColumnCD(void) {
  copyInto(GX4C_isoLocationX_CD, kIsolationXGridCD);
}
QBVISA_EXPORT void GX4C_setISOLocationRowCD(void) {
  copyInto(GX4C_isoLocationY_CD, kIsolationYGridCD);
}

}  // extern "C"
