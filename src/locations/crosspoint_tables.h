// crosspoint_tables.h - which exported location tables a crosspoint of each
// chassis kind is looked up in, for code that must notice when a caller
// rewrites them (the prepared switching tables). Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qbvisa_lowlevel.h"

namespace qbvisa {

struct LocationTableRef {
  const void *at;
  size_t bytes;
};

inline constexpr int kMaxCrosspointTables = 4;
// Largest set of tables one kind reads (the RK422's two 16 x 96).
inline constexpr size_t kLargestCrosspointTableBytes = 2 * sizeof RK422_matrixLocation;

// Fills `tables` with the crosspoint and isolation tables of `kind` (the
// RK423's LT relays are looked up on every call instead) and returns how
// many; 0 for kinds that are not a chassis's own matrix.
int crosspointLocationTables(uint32_t kind, LocationTableRef (&tables)[kMaxCrosspointTables]);

}  // namespace qbvisa
