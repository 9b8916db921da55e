// Location tables of the GX4CNew card (kinds 8 and 9, and rows 8 and up of
// the GX4Mix card, kind 10). Sub-matrices A and B share the 13-column tables,
// C and D the 12-column ones, all within one relay-state block of 12 groups
// (0..11). The wiring follows no arithmetic rule, so rows 0..7 are listed in
// full as {group, byte}; rows 8..15 address the same relays as rows 0..7.
//
// The cascade tables have no filler and read as zero; a cascade lookup on
// this card therefore yields group 0, byte 0.
#include "locations/location_source.hpp"

using namespace qbvisa::locations;

namespace {

constexpr Relay kCrosspointsAB[][13] = {
    //               0      1      2      3      4      5      6      7      8      9     10     11     12
    /* row 0 */ { {0,0},  {0,3},  {0,6},  {0,9}, {0,12},  {1,0},  {1,3}, {1,10}, {1,13},  {2,4}, {2,14}, {2,11},  {2,8}},
    /* row 1 */ { {0,0},  {0,3},  {0,6},  {0,9}, {0,12},  {1,0},  {1,3}, {1,10}, {1,13},  {2,4}, {2,14}, {2,11},  {2,8}},
    /* row 2 */ { {0,1},  {0,4},  {0,7}, {0,10}, {0,13},  {1,1},  {1,4}, {1,11}, {1,14},  {2,3},  {2,7}, {2,12},  {2,9}},
    /* row 3 */ { {0,1},  {0,4},  {0,7}, {0,10}, {0,13},  {1,1},  {1,4}, {1,11}, {1,14},  {2,3},  {2,7}, {2,12},  {2,9}},
    /* row 4 */ { {6,2},  {6,4},  {6,1}, {6,10}, {6,13},  {7,1},  {7,4}, {7,11}, {7,14},  {8,0},  {8,2},  {8,4},  {8,6}},
    /* row 5 */ { {6,2},  {6,4},  {6,1}, {6,10}, {6,13},  {7,1},  {7,4}, {7,11}, {7,14},  {8,0},  {8,2},  {8,4},  {8,6}},
    /* row 6 */ { {6,0},  {6,5},  {6,8}, {6,11}, {6,14},  {7,2},  {7,6}, {7,12}, {7,15},  {8,1},  {8,3},  {8,5},  {8,7}},
    /* row 7 */ { {6,0},  {6,5},  {6,8}, {6,11}, {6,14},  {7,2},  {7,6}, {7,12}, {7,15},  {8,1},  {8,3},  {8,5},  {8,7}},
};

constexpr Relay kIsolationXAB[][13] = {
    //               0      1      2      3      4      5      6      7      8      9     10     11     12
    /* row 0 */ { {0,2},  {0,5},  {0,8}, {0,11}, {0,14},  {1,2},  {1,5}, {1,12}, {1,15},  {2,1},  {2,6}, {2,10},  {5,6}},
    /* row 1 */ { {0,2},  {0,5},  {0,8}, {0,11}, {0,14},  {1,2},  {1,5}, {1,12}, {1,15},  {2,1},  {2,6}, {2,10},  {5,6}},
    /* row 2 */ { {0,2},  {0,5},  {0,8}, {0,11}, {0,14},  {1,2},  {1,5}, {1,12}, {1,15},  {2,1},  {2,6}, {2,10},  {5,6}},
    /* row 3 */ { {0,2},  {0,5},  {0,8}, {0,11}, {0,14},  {1,2},  {1,5}, {1,12}, {1,15},  {2,1},  {2,6}, {2,10},  {5,6}},
    /* row 4 */ { {6,6},  {6,7},  {6,3},  {6,9}, {6,12},  {7,0},  {7,3}, {7,10}, {7,13},  {2,2},  {2,5}, {2,13},  {5,7}},
    /* row 5 */ { {6,6},  {6,7},  {6,3},  {6,9}, {6,12},  {7,0},  {7,3}, {7,10}, {7,13},  {2,2},  {2,5}, {2,13},  {5,7}},
    /* row 6 */ { {6,6},  {6,7},  {6,3},  {6,9}, {6,12},  {7,0},  {7,3}, {7,10}, {7,13},  {2,2},  {2,5}, {2,13},  {5,7}},
    /* row 7 */ { {6,6},  {6,7},  {6,3},  {6,9}, {6,12},  {7,0},  {7,3}, {7,10}, {7,13},  {2,2},  {2,5}, {2,13},  {5,7}},
};

constexpr Relay kIsolationYAB[][13] = {
    //              0     1     2     3     4     5     6     7     8     9    10    11    12
    /* row 0 */ {{1,6}, {1,6}, {1,6}, {1,6}, {1,6}, {1,6}, {1,6}, {1,8}, {1,8}, {1,8}, {1,8}, {1,8}, {1,8}},
    /* row 1 */ {{1,6}, {1,6}, {1,6}, {1,6}, {1,6}, {1,6}, {1,6}, {1,8}, {1,8}, {1,8}, {1,8}, {1,8}, {1,8}},
    /* row 2 */ {{1,7}, {1,7}, {1,7}, {1,7}, {1,7}, {1,7}, {1,7}, {1,9}, {1,9}, {1,9}, {1,9}, {1,9}, {1,9}},
    /* row 3 */ {{1,7}, {1,7}, {1,7}, {1,7}, {1,7}, {1,7}, {1,7}, {1,9}, {1,9}, {1,9}, {1,9}, {1,9}, {1,9}},
    /* row 4 */ {{7,5}, {7,5}, {7,5}, {7,5}, {7,5}, {7,5}, {7,5}, {7,8}, {7,8}, {7,8}, {7,8}, {7,8}, {7,8}},
    /* row 5 */ {{7,5}, {7,5}, {7,5}, {7,5}, {7,5}, {7,5}, {7,5}, {7,8}, {7,8}, {7,8}, {7,8}, {7,8}, {7,8}},
    /* row 6 */ {{7,7}, {7,7}, {7,7}, {7,7}, {7,7}, {7,7}, {7,7}, {7,9}, {7,9}, {7,9}, {7,9}, {7,9}, {7,9}},
    /* row 7 */ {{7,7}, {7,7}, {7,7}, {7,7}, {7,7}, {7,7}, {7,7}, {7,9}, {7,9}, {7,9}, {7,9}, {7,9}, {7,9}},
};

constexpr Relay kCrosspointsCD[][12] = {
    //                0       1       2       3       4       5       6       7       8       9      10      11
    /* row 0 */ {  {5,1},  {5,14},   {5,9},   {3,5},   {3,2},  {3,13},   {3,8},   {4,5},   {4,2},  {4,15},  {4,11},   {4,8}},
    /* row 1 */ {  {5,1},  {5,14},   {5,9},   {3,5},   {3,2},  {3,13},   {3,8},   {4,5},   {4,2},  {4,15},  {4,11},   {4,8}},
    /* row 2 */ {  {5,2},  {5,13},  {5,10},   {3,6},   {3,3},   {3,1},   {3,9},   {4,6},   {4,1},  {4,13},  {4,12},   {4,9}},
    /* row 3 */ {  {5,2},  {5,13},  {5,10},   {3,6},   {3,3},   {3,1},   {3,9},   {4,6},   {4,1},  {4,13},  {4,12},   {4,9}},
    /* row 4 */ {  {8,8},  {8,10},  {8,12},  {11,1},  {11,4},  {11,7}, {11,11},   {9,7},   {9,4},  {9,10},  {9,11},  {9,14}},
    /* row 5 */ {  {8,8},  {8,10},  {8,12},  {11,1},  {11,4},  {11,7}, {11,11},   {9,7},   {9,4},  {9,10},  {9,11},  {9,14}},
    /* row 6 */ {  {8,9},  {8,11},  {8,13},  {11,2},  {11,5}, {11,15}, {11,10},   {9,5},   {9,8},  {9,12},   {9,1},  {9,15}},
    /* row 7 */ {  {8,9},  {8,11},  {8,13},  {11,2},  {11,5}, {11,15}, {11,10},   {9,5},   {9,8},  {9,12},   {9,1},  {9,15}},
};

constexpr Relay kIsolationXCD[][12] = {
    //               0      1      2      3      4      5      6      7      8      9     10     11
    /* row 0 */ { {5,4}, {5,12},  {5,8},  {3,7},  {3,4},  {3,0}, {3,10},  {4,7},  {4,3},  {4,4}, {4,14}, {4,10}},
    /* row 1 */ { {5,4}, {5,12},  {5,8},  {3,7},  {3,4},  {3,0}, {3,10},  {4,7},  {4,3},  {4,4}, {4,14}, {4,10}},
    /* row 2 */ { {5,4}, {5,12},  {5,8},  {3,7},  {3,4},  {3,0}, {3,10},  {4,7},  {4,3},  {4,4}, {4,14}, {4,10}},
    /* row 3 */ { {5,4}, {5,12},  {5,8},  {3,7},  {3,4},  {3,0}, {3,10},  {4,7},  {4,3},  {4,4}, {4,14}, {4,10}},
    /* row 4 */ { {5,5},  {5,3}, {5,11}, {11,0}, {11,3}, {11,6}, {11,8},  {9,2},  {9,6},  {9,9},  {9,3}, {9,13}},
    /* row 5 */ { {5,5},  {5,3}, {5,11}, {11,0}, {11,3}, {11,6}, {11,8},  {9,2},  {9,6},  {9,9},  {9,3}, {9,13}},
    /* row 6 */ { {5,5},  {5,3}, {5,11}, {11,0}, {11,3}, {11,6}, {11,8},  {9,2},  {9,6},  {9,9},  {9,3}, {9,13}},
    /* row 7 */ { {5,5},  {5,3}, {5,11}, {11,0}, {11,3}, {11,6}, {11,8},  {9,2},  {9,6},  {9,9},  {9,3}, {9,13}},
};

constexpr Relay kIsolationYCD[][12] = {
    //                0       1       2       3       4       5       6       7       8       9      10      11
    /* row 0 */ { {3,15},  {3,15},  {3,15},  {3,15},  {3,15},  {3,15},  {3,11},  {3,11},  {3,11},  {3,11},  {3,11},  {3,11}},
    /* row 1 */ { {3,15},  {3,15},  {3,15},  {3,15},  {3,15},  {3,15},  {3,11},  {3,11},  {3,11},  {3,11},  {3,11},  {3,11}},
    /* row 2 */ { {3,14},  {3,14},  {3,14},  {3,14},  {3,14},  {3,14},  {3,12},  {3,12},  {3,12},  {3,12},  {3,12},  {3,12}},
    /* row 3 */ { {3,14},  {3,14},  {3,14},  {3,14},  {3,14},  {3,14},  {3,12},  {3,12},  {3,12},  {3,12},  {3,12},  {3,12}},
    /* row 4 */ {{11,14}, {11,14}, {11,14}, {11,14}, {11,14}, {11,14},  {11,9},  {11,9},  {11,9},  {11,9},  {11,9},  {11,9}},
    /* row 5 */ {{11,14}, {11,14}, {11,14}, {11,14}, {11,14}, {11,14},  {11,9},  {11,9},  {11,9},  {11,9},  {11,9},  {11,9}},
    /* row 6 */ {{11,12}, {11,12}, {11,12}, {11,12}, {11,12}, {11,12}, {11,13}, {11,13}, {11,13}, {11,13}, {11,13}, {11,13}},
    /* row 7 */ {{11,12}, {11,12}, {11,12}, {11,12}, {11,12}, {11,12}, {11,13}, {11,13}, {11,13}, {11,13}, {11,13}, {11,13}},
};

// Rows 8..15 repeat the eight wired rows.
template <std::size_t Columns>
constexpr Grid<16, Columns> repeatedRows(const Relay (&rows)[8][Columns]) {
  return generateGrid<16, Columns>(
      [&rows](int r, int c) { return rows[r % 8][c]; });
}

// IN relays, all in group 10, one per row and the same in every column:
// A and B on the even bytes, C and D on the odd ones.
constexpr auto kInputGridAB = generateGrid<16, 13>([](int r, int) {
  return Relay{10, 2 * (r % 8)};
});
constexpr auto kInputGridCD = generateGrid<16, 12>([](int r, int) {
  return Relay{10, 2 * (r % 8) + 1};
});

constexpr auto kCrosspointGridAB = repeatedRows(kCrosspointsAB);
constexpr auto kIsolationXGridAB = repeatedRows(kIsolationXAB);
constexpr auto kIsolationYGridAB = repeatedRows(kIsolationYAB);
constexpr auto kCrosspointGridCD = repeatedRows(kCrosspointsCD);
constexpr auto kIsolationXGridCD = repeatedRows(kIsolationXCD);
constexpr auto kIsolationYGridCD = repeatedRows(kIsolationYCD);

}  // namespace

extern "C" {

QBVISA_EXPORT PointLocation GX4CNew_matrixLocationAB[16][13];
QBVISA_EXPORT PointLocation GX4CNew_isoLocationX_AB[16][13];
QBVISA_EXPORT PointLocation GX4CNew_isoLocationY_AB[16][13];
QBVISA_EXPORT PointLocation GX4CNew_matrixLocationCD[16][12];
QBVISA_EXPORT PointLocation GX4CNew_isoLocationX_CD[16][12];
QBVISA_EXPORT PointLocation GX4CNew_isoLocationY_CD[16][12];
QBVISA_EXPORT PointLocation GX4CNew_cascadeLocation_AB[16];
QBVISA_EXPORT PointLocation GX4CNew_cascadeLocation_CD[16];
QBVISA_EXPORT PointLocation GX4CNew_IN_AB[16][13];
QBVISA_EXPORT PointLocation GX4CNew_IN_CD[16][12];

QBVISA_EXPORT void GX4CNew_setInAB(void) { copyInto(GX4CNew_IN_AB, kInputGridAB); }
QBVISA_EXPORT void GX4CNew_setInCD(void) { copyInto(GX4CNew_IN_CD, kInputGridCD); }
QBVISA_EXPORT void GX4CNew_setmatrixLocationAB(void) {
  copyInto(GX4CNew_matrixLocationAB, kCrosspointGridAB);
}
QBVISA_EXPORT void GX4CNew_setISOLocationColumnAB(void) {
  copyInto(GX4CNew_isoLocationX_AB, kIsolationXGridAB);
}
QBVISA_EXPORT void GX4CNew_setISOLocationRowAB(void) {
  copyInto(GX4CNew_isoLocationY_AB, kIsolationYGridAB);
}
QBVISA_EXPORT void GX4CNew_setmatrixLocationCD(void) {
  copyInto(GX4CNew_matrixLocationCD, kCrosspointGridCD);
}
QBVISA_EXPORT void GX4CNew_setISOLocationColumnCD(void) {
  copyInto(GX4CNew_isoLocationX_CD, kIsolationXGridCD);
}
QBVISA_EXPORT void GX4CNew_setISOLocationRowCD(void) {
  copyInto(GX4CNew_isoLocationY_CD, kIsolationYGridCD);
}

}  // extern "C"
