// Location tables of the GX4 card (kinds 5 and 6, and rows 0..7 of the GX4Mix
// card, kind 10). The whole card lies in one relay-state block of 20 groups:
// the upper four rows of a sub-matrix in groups 0..9, the lower four rows in
// the same groups plus 10. A and B share the 13-column tables, C and D the
// 12-column ones. All tables have 16 rows; rows 8..15 address the same relays
// as rows 0..7.
#include "locations/location_source.hpp"

using namespace qbvisa::locations;

namespace {

constexpr int kLowerHalfOffset = 10;

// Each column owns a run of five bytes from its base: in rows 0..3 the four
// crosspoints take base..base+3 and the X isolation relay base+4; in rows
// 4..7 (ten groups on) the isolation relay comes first.
constexpr Relay kAbColumnBase[] = {{0, 0},  {0, 5}, {0, 10}, {1, 0}, {1, 5},
                                     {1, 10}, {2, 0}, {3, 1},  {3, 6}, {3, 11},
                                     {4, 0},  {4, 5}, {4, 10}};
constexpr Relay kCdColumnBase[] = {{5, 0}, {5, 5},  {5, 10}, {6, 0},
                                     {6, 5}, {6, 10}, {8, 0},  {8, 5},
                                     {8, 10}, {9, 0}, {9, 5},  {9, 10}};

template <std::size_t Columns>
constexpr Grid<16, Columns> crosspoints(const Relay (&base)[Columns]) {
  return generateGrid<16, Columns>([&base](int row, int c) {
    const int r = row % 8;
    const Relay b = base[c];
    return r < 4 ? Relay{b.group, b.position + r}
                 : Relay{b.group + kLowerHalfOffset, b.position + r - 3};
  });
}

template <std::size_t Columns>
constexpr Grid<16, Columns> isolationX(const Relay (&base)[Columns]) {
  return generateGrid<16, Columns>([&base](int row, int c) {
    const Relay b = base[c];
    return row % 8 < 4 ? Relay{b.group, b.position + 4}
                       : Relay{b.group + kLowerHalfOffset, b.position};
  });
}

// Y isolation: one relay per row and half of the columns, in group g0 for
// rows 0..3 and g0 + 10 for rows 4..7.
constexpr Relay isolationY(int row, int32_t upperGroup, int32_t position) {
  const int r = row % 8;
  return Relay{r < 4 ? upperGroup : upperGroup + kLowerHalfOffset,
               position + r % 4};
}

constexpr auto kIsolationYAB = generateGrid<16, 13>([](int row, int c) {
  return isolationY(row, 2, c < 7 ? 5 : 9);
});
constexpr auto kIsolationYC = generateGrid<16, 12>([](int row, int c) {
  return isolationY(row, 7, c < 6 ? 0 : 4);
});
// D differs from C in its upper right quarter only (bytes 12..15, not 4..7).
constexpr auto kIsolationYD = generateGrid<16, 12>([](int row, int c) {
  const int32_t right = row % 8 < 4 ? 12 : 4;
  return isolationY(row, 7, c < 6 ? 0 : right);
});

constexpr Relay kCascadeAB[] = {{2, 13},  {2, 14},  {2, 15},  {3, 0},
                                 {12, 13}, {12, 14}, {12, 15}, {13, 0}};
constexpr Relay kCascadeCD[] = {{7, 8},  {7, 9},  {7, 10},  {7, 11},
                                 {17, 8}, {17, 9}, {17, 10}, {17, 11}};

constexpr auto kCrosspointsAB = crosspoints(kAbColumnBase);
constexpr auto kIsolationXAB = isolationX(kAbColumnBase);
constexpr auto kCrosspointsCD = crosspoints(kCdColumnBase);
constexpr auto kIsolationXCD = isolationX(kCdColumnBase);
constexpr auto kCascadeLineAB =
    generateLine<16>([](int row) { return kCascadeAB[row % 8]; });
constexpr auto kCascadeLineCD =
    generateLine<16>([](int row) { return kCascadeCD[row % 8]; });

// The cascade tables answer lookups from the moment the library is loaded
// (see the RK420 tables for why this is a copy at load).
[[gnu::constructor]] void loadGx4CascadeTables() {
  copyInto(GX4_cascadeLocation_AB, kCascadeLineAB);
  copyInto(GX4_cascadeLocation_CD, kCascadeLineCD);
}

}  // namespace

extern "C" {

QBVISA_EXPORT PointLocation GX4_matrixLocationAB[16][13];
QBVISA_EXPORT PointLocation GX4_isoLocationX_AB[16][13];
QBVISA_EXPORT PointLocation GX4_isoLocationY_AB[16][13];
QBVISA_EXPORT PointLocation GX4_matrixLocationCD[16][12];
QBVISA_EXPORT PointLocation GX4_isoLocationX_CD[16][12];
QBVISA_EXPORT PointLocation GX4_isoLocationY_C[16][12];
QBVISA_EXPORT PointLocation GX4_isoLocationY_D[16][12];
QBVISA_EXPORT PointLocation GX4_cascadeLocation_AB[16];
QBVISA_EXPORT PointLocation GX4_cascadeLocation_CD[16];

QBVISA_EXPORT void GX4_setCascadeLocaionAB(void) {
  copyInto(GX4_cascadeLocation_AB, kCascadeLineAB);
}
QBVISA_EXPORT void GX4_setCascadeLocaionCD(void) {
  copyInto(GX4_cascadeLocation_CD, kCascadeLineCD);
}
QBVISA_EXPORT void GX4_setmatrixLocationAB(void) {
  copyInto(GX4_matrixLocationAB, kCrosspointsAB);
}
QBVISA_EXPORT void GX4_setISOLocationColumnAB(void) {
  copyInto(GX4_isoLocationX_AB, kIsolationXAB);
}
QBVISA_EXPORT void GX4_setISOLocationRowAB(void) {
  copyInto(GX4_isoLocationY_AB, kIsolationYAB);
}
QBVISA_EXPORT void GX4_setmatrixLocationCD(void) {
  copyInto(GX4_matrixLocationCD, kCrosspointsCD);
}
QBVISA_EXPORT void GX4_setISOLocationColumnCD(void) {
  copyInto(GX4_isoLocationX_CD, kIsolationXCD);
}
QBVISA_EXPORT void GX4_setISOLocationRowC(void) {
  copyInto(GX4_isoLocationY_C, kIsolationYC);
}
QBVISA_EXPORT void GX4_setISOLocationRowD(void) {
  copyInto(GX4_isoLocationY_D, kIsolationYD);
}

}  // extern "C"
