// Location tables of the GX3 card (kind 4): sub-matrices A and B share the
// 13-column tables, C and D have 12-column tables of their own (they lie in
// two separate relay-state blocks), and two cascade tables give the relays
// that join A with B and C with D.
#include "locations/location_source.hpp"

using namespace qbvisa::locations;

namespace {

// Each column owns a run of five bytes starting at its base: in rows 0..3
// the four crosspoints take base..base+3 and the X isolation relay base+4;
// rows 4..7 use a partner group where the isolation relay comes first.
constexpr Relay kAbColumnBase[] = {{0, 0},  {0, 5}, {0, 10}, {1, 0}, {1, 5},
                                     {1, 10}, {2, 0}, {3, 1},  {3, 6}, {3, 11},
                                     {9, 0},  {9, 5}, {9, 10}};
constexpr Relay kCdColumnBase[] = {{0, 0}, {0, 5},  {0, 10}, {1, 0},
                                     {1, 5}, {1, 10}, {3, 0},  {3, 5},
                                     {3, 10}, {9, 0}, {9, 5},  {9, 10}};

// Group holding rows 4..7 of a column whose rows 0..3 are in group g.
constexpr int32_t lowerHalfGroup(int32_t g) {
  switch (g) {
    case 0: return 8;
    case 1: return 4;
    case 2: return 5;
    case 3: return 6;
    case 9: return 7;
    default: return -1;  // no column is based there
  }
}

template <std::size_t Columns>
constexpr Grid<8, Columns> crosspoints(const Relay (&base)[Columns]) {
  return generateGrid<8, Columns>([&base](int r, int c) {
    const Relay b = base[c];
    return r < 4 ? Relay{b.group, b.position + r}
                 : Relay{lowerHalfGroup(b.group), b.position + r - 3};
  });
}

template <std::size_t Columns>
constexpr Grid<8, Columns> isolationX(const Relay (&base)[Columns]) {
  return generateGrid<8, Columns>([&base](int r, int c) {
    const Relay b = base[c];
    return r < 4 ? Relay{b.group, b.position + 4}
                 : Relay{lowerHalfGroup(b.group), b.position};
  });
}

// Y isolation: group 2 for rows 0..3 and 5 for rows 4..7, one relay per row
// and half of the columns.
constexpr int32_t isolationYGroup(int r) { return r < 4 ? 2 : 5; }

constexpr auto kIsolationYAB = generateGrid<8, 13>([](int r, int c) {
  return Relay{isolationYGroup(r), (c < 7 ? 5 : 9) + r % 4};
});
constexpr auto kIsolationYC = generateGrid<8, 12>([](int r, int c) {
  return Relay{isolationYGroup(r), (c < 6 ? 0 : 4) + r % 4};
});
// D differs from C in its upper right quarter only (bytes 12..15, not 4..7).
constexpr auto kIsolationYD = generateGrid<8, 12>([](int r, int c) {
  const int32_t right = r < 4 ? 12 : 4;
  return Relay{isolationYGroup(r), (c < 6 ? 0 : right) + r % 4};
});

constexpr Relay kCascadeAB[] = {{2, 13}, {2, 14}, {2, 15}, {3, 0},
                                 {5, 13}, {5, 14}, {5, 15}, {6, 0}};
constexpr Relay kCascadeCD[] = {{2, 8}, {2, 9}, {2, 10}, {2, 11},
                                 {5, 8}, {5, 9}, {5, 10}, {5, 11}};

constexpr auto kCrosspointsAB = crosspoints(kAbColumnBase);
constexpr auto kIsolationXAB = isolationX(kAbColumnBase);
// C and D are wired alike; their relays are told apart by the block.
constexpr auto kCrosspointsCD = crosspoints(kCdColumnBase);
constexpr auto kIsolationXCD = isolationX(kCdColumnBase);
constexpr auto kCascadeLineAB = generateLine<8>([](int r) { return kCascadeAB[r]; });
constexpr auto kCascadeLineCD = generateLine<8>([](int r) { return kCascadeCD[r]; });

// The GX3 tables answer lookups from the moment the library is loaded (see
// the RK420 tables for why this is a copy at load rather than static data).
[[gnu::constructor]] void loadGx3Tables() {
  copyInto(GX3_matrixLocationAB, kCrosspointsAB);
  copyInto(GX3_isoLocationX_AB, kIsolationXAB);
  copyInto(GX3_isoLocationY_AB, kIsolationYAB);
  copyInto(GX3_matrixLocationC, kCrosspointsCD);
  copyInto(GX3_isoLocationX_C, kIsolationXCD);
  copyInto(GX3_isoLocationY_C, kIsolationYC);
  copyInto(GX3_matrixLocationD, kCrosspointsCD);
  copyInto(GX3_isoLocationX_D, kIsolationXCD);
  copyInto(GX3_isoLocationY_D, kIsolationYD);
  copyInto(GX3_cascadeLocation_AB, kCascadeLineAB);
  copyInto(GX3_cascadeLocation_CD, kCascadeLineCD);
}

}  // namespace

extern "C" {

QBVISA_EXPORT PointLocation GX3_matrixLocationAB[8][13];
QBVISA_EXPORT PointLocation GX3_isoLocationX_AB[8][13];
QBVISA_EXPORT PointLocation GX3_isoLocationY_AB[8][13];
QBVISA_EXPORT PointLocation GX3_matrixLocationC[8][12];
QBVISA_EXPORT PointLocation GX3_isoLocationX_C[8][12];
QBVISA_EXPORT PointLocation GX3_isoLocationY_C[8][12];
QBVISA_EXPORT PointLocation GX3_matrixLocationD[8][12];
QBVISA_EXPORT PointLocation GX3_isoLocationX_D[8][12];
QBVISA_EXPORT PointLocation GX3_isoLocationY_D[8][12];
QBVISA_EXPORT PointLocation GX3_cascadeLocation_AB[8];
QBVISA_EXPORT PointLocation GX3_cascadeLocation_CD[8];

QBVISA_EXPORT void setGX3_matrixLocationAB(void) {
  copyInto(GX3_matrixLocationAB, kCrosspointsAB);
}
QBVISA_EXPORT void setISORFLocationColumnAB(void) {
  copyInto(GX3_isoLocationX_AB, kIsolationXAB);
}
QBVISA_EXPORT void setISORFLocationRowAB(void) {
  copyInto(GX3_isoLocationY_AB, kIsolationYAB);
}
QBVISA_EXPORT void setGX3_matrixLocationC(void) {
  copyInto(GX3_matrixLocationC, kCrosspointsCD);
}
QBVISA_EXPORT void setISORFLocationColumnC(void) {
  copyInto(GX3_isoLocationX_C, kIsolationXCD);
}
QBVISA_EXPORT void setISORFLocationRowC(void) {
  copyInto(GX3_isoLocationY_C, kIsolationYC);
}
QBVISA_EXPORT void setGX3_matrixLocationD(void) {
  copyInto(GX3_matrixLocationD, kCrosspointsCD);
}
QBVISA_EXPORT void setISORFLocationColumnD(void) {
  copyInto(GX3_isoLocationX_D, kIsolationXCD);
}
QBVISA_EXPORT void setISORFLocationRowD(void) {
  copyInto(GX3_isoLocationY_D, kIsolationYD);
}
QBVISA_EXPORT void setCascadeLocaionAB(void) {
  copyInto(GX3_cascadeLocation_AB, kCascadeLineAB);
}
QBVISA_EXPORT void setCascadeLocaionCD(void) {
  copyInto(GX3_cascadeLocation_CD, kCascadeLineCD);
}

}  // extern "C"
