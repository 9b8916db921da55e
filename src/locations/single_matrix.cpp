// Location tables of the chassis' own matrix: RK420/RK420B (kind 0), RK421
// (kind 1), RK422 (kind 2) and RK423/RK423B (kind 3). Every table follows one
// wiring rule over row r and column c; entries the rule does not name are 0.
#include "locations/location_source.hpp"

using namespace qbvisa::locations;

namespace {

// ---------------------------------------------------------------------------
// RK420 / RK420B, 12 x 10. The matrix is two halves of six rows (h = r / 6);
// the lower half lies six groups after the upper one. Within a group the six
// rows of one column take six consecutive bytes.
// ---------------------------------------------------------------------------
constexpr int32_t kRk420ColumnGroup[] = {0, 0, 1, 1, 2, 3, 4, 4, 5, 5};

constexpr auto kRk420Crosspoints = generateGrid<12, 10>([](int r, int c) {
  const int h = r / 6, rr = r % 6;
  const int32_t group = kRk420ColumnGroup[c] + 6 * h;
  if (c == 5) return Relay{group, rr + 6 + h};
  if (c % 2 == 0) return Relay{group, rr + h};
  return Relay{group, rr + 7 + h};
});

// One X isolation relay per column and half, beside the column's crosspoints.
constexpr auto kRk420IsolationX = generateGrid<12, 10>([](int r, int c) {
  const int h = r / 6;
  const int32_t group = kRk420ColumnGroup[c] + 6 * h;
  if (c == 5) return Relay{group, 12 - 6 * h};
  if (c % 2 == 0) return Relay{group, 6 - 6 * h};
  return Relay{group, 13 - 6 * h};
});

// Two Y isolation relays per row: columns 0..4 switch through one, 5..9
// through the other.
constexpr auto kRk420IsolationY = generateGrid<12, 10>([](int r, int c) {
  const int h = r / 6, rr = r % 6;
  return c < 5 ? Relay{2 + 6 * h, rr + 7} : Relay{3 + 6 * h, rr};
});

// The image the library is loaded with still puts column 5 on the left-hand
// relay; setISOLocationRow replaces it with the wiring above, which is the one
// every lookup after initialisation must see.
constexpr auto kRk420IsolationYAtLoad = generateGrid<12, 10>([](int r, int c) {
  const int h = r / 6, rr = r % 6;
  return c < 6 ? Relay{2 + 6 * h, rr + 7} : Relay{3 + 6 * h, rr};
});

// ---------------------------------------------------------------------------
// RK421, 10 x 12. Each row owns one group: crosspoints in bytes 0..5 and
// 8..13, its two Y isolation relays (one per half of six columns) in 6 and 7.
// ---------------------------------------------------------------------------
constexpr int32_t kRk421RowGroup[] = {0, 1, 2, 3, 6, 7, 9, 10, 11, 12};

constexpr auto kRk421Crosspoints = generateGrid<10, 12>([](int r, int c) {
  return Relay{kRk421RowGroup[r], c < 6 ? c : c + 2};
});

// One X isolation relay per column, in group 4, 5 or 8 by row band.
constexpr auto kRk421IsolationX = generateGrid<10, 12>([](int r, int c) {
  const int32_t group = r < 4 ? 4 : r < 6 ? 5 : 8;
  return Relay{group, c};
});

constexpr auto kRk421IsolationY = generateGrid<10, 12>([](int r, int c) {
  return Relay{kRk421RowGroup[r], c < 6 ? 6 : 7};
});

// Rows 4 and 5 switch through the two CV relays, bytes 15 and 14 of group 6.
constexpr auto kRk421Cv = generateGrid<10, 12>([](int r, int) {
  if (r == 4) return Relay{6, 15};
  if (r == 5) return Relay{6, 14};
  return Relay{};
});

// ---------------------------------------------------------------------------
// RK422, 16 x 96, rows 0..3 used. Positions count from 1 (1..8): the
// relay-state builder subtracts one. Two neighbouring columns share a group;
// the four bands of 24 columns are four different wirings of the same eight
// relays and must stay as they are.
// ---------------------------------------------------------------------------
constexpr auto kRk422Crosspoints = generateGrid<16, 96>([](int r, int c) {
  if (r >= 4) return Relay{};
  const bool even = c % 2 == 0;
  int32_t position{};
  switch (c / 24) {
    case 0: position = even ? 8 - r : 1 + r; break;
    case 1: position = even ? 1 + 2 * r : 2 + 2 * r; break;
    case 2: position = even ? 2 + 2 * r : 1 + 2 * r; break;
    default: position = even ? 4 - r : 5 + r; break;
  }
  return Relay{c / 2, position};
});

// All Y isolation relays sit in group 48, one per row (bytes 5..8, 1-based).
constexpr auto kRk422IsolationY = generateGrid<16, 96>([](int r, int) {
  return r < 4 ? Relay{48, 5 + r} : Relay{};
});

// ---------------------------------------------------------------------------
// RK423 / RK423B, 8 x 12. Same row layout as the RK421: crosspoints in bytes
// 0..5 and 8..13 of the row's group, Y isolation in 6 and 7. Rows the
// relay-state builder never asks for stay zero.
// ---------------------------------------------------------------------------
constexpr int32_t kRk423RowGroup[] = {0, 1, 3, 4, 5, 6, 8, 9};

constexpr auto kRk423Crosspoints = generateGrid<8, 12>([](int r, int c) {
  return Relay{kRk423RowGroup[r], c < 6 ? c : c + 2};
});

// X isolation is switched for rows 2..7 only, one relay per column.
constexpr auto kRk423IsolationX = generateGrid<8, 12>([](int r, int c) {
  return r >= 2 ? Relay{2, c} : Relay{};
});

constexpr auto kRk423IsolationY = generateGrid<8, 12>([](int r, int c) {
  return Relay{kRk423RowGroup[r], c < 6 ? 6 : 7};
});

// Rows 6 and 7 switch through the CV relays, one per column in group 7.
constexpr auto kRk423Cv = generateGrid<8, 12>([](int r, int c) {
  return r >= 6 ? Relay{7, c} : Relay{};
});

// The two LT relays, looked up with the LT index as row.
constexpr auto kRk423Lt = generateGrid<8, 12>([](int r, int) {
  if (r == 0) return Relay{0, 14};
  if (r == 1) return Relay{2, 13};
  return Relay{};
});

// The RK420 tables answer lookups from the moment the library is loaded. A C
// array cannot be constant-initialised from a compile-time image without
// spelling out every entry, so the image is copied in before any caller can
// reach the library.
[[gnu::constructor]] void loadRk420Tables() {
  copyInto(matrixLocation, kRk420Crosspoints);
  copyInto(isoLocationX, kRk420IsolationX);
  copyInto(isoLocationY, kRk420IsolationYAtLoad);
}

}  // namespace

extern "C" {

QBVISA_EXPORT PointLocation matrixLocation[12][10];
QBVISA_EXPORT PointLocation isoLocationX[12][10];
QBVISA_EXPORT PointLocation isoLocationY[12][10];
QBVISA_EXPORT PointLocation RK421_matrixLocation[10][12];
QBVISA_EXPORT PointLocation RK421_isoLocationX[10][12];
QBVISA_EXPORT PointLocation RK421_isoLocationY[10][12];
QBVISA_EXPORT PointLocation RK421_isoLocationCV[10][12];
QBVISA_EXPORT PointLocation RK422_matrixLocation[16][96];
QBVISA_EXPORT PointLocation RK422_isoLocationY[16][96];
QBVISA_EXPORT PointLocation RK423_matrixLocation[8][12];
QBVISA_EXPORT PointLocation RK423_isoLocationX[8][12];
QBVISA_EXPORT PointLocation RK423_isoLocationY[8][12];
QBVISA_EXPORT PointLocation RK423_isoLocationCV[8][12];
QBVISA_EXPORT PointLocation RK423_isoLocationLT[8][12];

QBVISA_EXPORT void setMatrixLocation(void) {
  copyInto(matrixLocation, kRk420Crosspoints);
}
QBVISA_EXPORT void setISOLocationRow(void) {
  copyInto(isoLocationY, kRk420IsolationY);
}
QBVISA_EXPORT void setISOLocationColumn(void) {
  copyInto(isoLocationX, kRk420IsolationX);
}

QBVISA_EXPORT void RK421_setMatrixLocation(void) {
  copyInto(RK421_matrixLocation, kRk421Crosspoints);
}
QBVISA_EXPORT void RK421_setisoLocationX(void) {
  copyInto(RK421_isoLocationX, kRk421IsolationX);
}
QBVISA_EXPORT void RK421_setisoLocationY(void) {
  copyInto(RK421_isoLocationY, kRk421IsolationY);
}
QBVISA_EXPORT void RK421_setCV(void) { copyInto(RK421_isoLocationCV, kRk421Cv); }

QBVISA_EXPORT void RK422_setMatrixLocation(void) {
  copyInto(RK422_matrixLocation, kRk422Crosspoints);
}
QBVISA_EXPORT void RK422_setisoLocationY(void) {
  copyInto(RK422_isoLocationY, kRk422IsolationY);
}

QBVISA_EXPORT void RK423_setMatrixLocation(void) {
  copyInto(RK423_matrixLocation, kRk423Crosspoints);
}
QBVISA_EXPORT void RK423_setisoLocationX(void) {
  copyInto(RK423_isoLocationX, kRk423IsolationX);
}
QBVISA_EXPORT void RK423_setisoLocationY(void) {
  copyInto(RK423_isoLocationY, kRk423IsolationY);
}
QBVISA_EXPORT void RK423_setisoLocationCV(void) {
  copyInto(RK423_isoLocationCV, kRk423Cv);
}
QBVISA_EXPORT void RK423_setisoLocationLT(void) {
  copyInto(RK423_isoLocationLT, kRk423Lt);
}

}  // extern "C"
