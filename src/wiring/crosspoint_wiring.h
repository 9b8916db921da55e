// crosspoint_wiring.h - which relays a matrix point closes and where they
// sit on its board. Shared by the library's relay frame and the tool's
// picture, so neither derives the wiring on its own. Internal.
#pragma once

#include <cstdint>

#include "core/chassis_model.h"

namespace qbvisa {

// Relays of one point on its board, the crosspoint relay first. A position
// the location tables do not know is left as {-1, -1} (or shifted from
// there), which lies outside every board.
struct PointRelays {
  RelayPosition at[4];
  int count;
};

// `model` is the chassis's row or nullptr (column reversal); the isolation
// rules and row blocks follow the model whose slot 0 is of `kind` (a kind no
// model has closes the crosspoint and Y isolation relays only); `column`
// counts within one sub-matrix, as numbered before any reversal.
PointRelays pointRelays(const ChassisModel *model, uint32_t kind,
                        uint32_t wordsPerGroup, uint32_t row, uint32_t column);

// The column a point's relays are looked up under.
uint32_t wiredColumn(const ChassisModel *model, uint32_t column);

}  // namespace qbvisa
