// crosspoint_tables.h - which exported location tables a crosspoint of each
// chassis kind is looked up in, for code that must notice when a caller
// rewrites them (the prepared switching tables). Internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "qbvisa_lowlevel.h"

namespace qbvisa {

struct LocationTableRef {
  const void *at;
  size_t bytes;
};

// Largest set of tables one kind reads (the RK422's two 16 x 96).
inline constexpr size_t kLargestCrosspointTableBytes = 2 * sizeof RK422_matrixLocation;

// The crosspoint and isolation tables of `kind` (the RK423's LT relays are
// looked up on every call instead); none for kinds that are not a chassis's
// own matrix.
std::span<const LocationTableRef> crosspointLocationTables(uint32_t kind);

}  // namespace qbvisa
