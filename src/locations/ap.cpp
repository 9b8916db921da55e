// Location tables of the AP matrices in slot 2 of an RK420 (kind 11) and an
// RK420B (kind 12). Their points are numbered by a single index 0..111, which
// the lookup takes from its row argument.
#include "locations/location_source.hpp"

using namespace qbvisa::locations;

namespace {

// RK420: each block of 28 indices fills bytes 0..13 of a pair of groups,
// consecutive indices alternating between the two (the odd group first).
constexpr auto kApRelays = generateLine<112>([](int i) {
  const int block = i / 28, j = i % 28;
  return Relay{j % 2 == 0 ? 2 * block + 1 : 2 * block, j / 2};
});

// RK420B: indices 0..99 as wired, {group, byte}; 100..111 are not wired.
constexpr Relay kAp420BWired[] = {
    /*  0..9  */ {0,10},  {0,0}, {0,11},  {0,1}, {0,12},  {0,2}, {0,13},  {0,3}, {0,14},  {0,4},
    /* 10..19 */ {0,15},  {0,5},  {1,0},  {0,6},  {1,1},  {0,7},  {1,2},  {0,8},  {1,3},  {0,9},
    /* 20..29 */ {1,14},  {1,4}, {1,15},  {1,5},  {2,0},  {1,6},  {2,1},  {1,7},  {2,2},  {1,8},
    /* 30..39 */  {2,3},  {1,9},  {2,4}, {1,10},  {2,5}, {1,11},  {2,6}, {1,12},  {2,7}, {1,13},
    /* 40..49 */  {3,2},  {2,8},  {3,3},  {2,9},  {3,4}, {2,10},  {3,5}, {2,11},  {3,6}, {2,12},
    /* 50..59 */  {3,7}, {2,13},  {3,8}, {2,14},  {3,9}, {2,15}, {3,10},  {3,0}, {3,11},  {3,1},
    /* 60..69 */  {4,6}, {3,12},  {4,7}, {3,13},  {4,8}, {3,14},  {4,9}, {3,15}, {4,10},  {4,0},
    /* 70..79 */ {4,11},  {4,1}, {4,12},  {4,2}, {4,13},  {4,3}, {4,14},  {4,4}, {4,15},  {4,5},
    /* 80..89 */ {5,10},  {5,0}, {5,11},  {5,1}, {5,12},  {5,2}, {5,13},  {5,3}, {5,14},  {5,4},
    /* 90..99 */ {5,15},  {5,5},  {6,0},  {5,6},  {6,1},  {5,7},  {6,2},  {5,8},  {6,3},  {5,9},
};

constexpr auto kAp420BRelays = generateLine<112>([](int i) {
  return i < 100 ? kAp420BWired[i] : Relay{};
});

// The RK420 AP table answers lookups from the moment the library is loaded
// (see the RK420 tables for why this is a copy at load). The RK420B table
// starts all zero instead of with a load-time image of its own: lookups must
// see the wiring above, which only its filler writes, and until then the table
// reads like every other table that has not been filled yet.
[[gnu::constructor]] void loadApTable() { copyInto(matrixAPLocation, kApRelays); }

}  // namespace

extern "C" {

QBVISA_EXPORT PointLocation matrixAPLocation[112];
QBVISA_EXPORT PointLocation matrixAP_420BLocation[112];

QBVISA_EXPORT void setMatrixAPLocation(void) {
  copyInto(matrixAPLocation, kApRelays);
}
QBVISA_EXPORT void setMatrixAP_420BLocation(void) {
  copyInto(matrixAP_420BLocation, kAp420BRelays);
}

}  // extern "C"
