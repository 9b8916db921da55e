// The crosspoint-to-relay mapping, read from the model table and the
// location tables.
#include "wiring/crosspoint_wiring.h"

#include "qbvisa_lowlevel.h"

namespace qbvisa {
namespace {

RelayPosition lookUp(uint32_t kind, LocationSelector selector, uint32_t row,
                     uint32_t column) {
  RelayPosition where{-1, -1};
  GetPoint(kind, selector, row, column, &where);
  return where;
}

}  // namespace

uint32_t wiredColumn(const ChassisModel *model, uint32_t column) {
  if (model != nullptr && column < model->reversedColumns)
    return model->reversedColumns - 1u - column;
  return column;
}

PointRelays pointRelays(const ChassisModel *model, uint32_t kind,
                        uint32_t wordsPerGroup, uint32_t row, uint32_t column) {
  PointRelays relays{};
  const ChassisModel *kindModel = modelByKind(kind);
  column = wiredColumn(model, column);
  if (kindModel != nullptr && kindModel->rowBlocks) {
    // The tables describe one block of four rows with 1-based bit numbers;
    // the block of a row lies wordsPerGroup bit groups further on.
    const uint32_t block = row / 4;
    for (LocationSelector selector : {MATRIX, ISO_Y}) {
      const RelayPosition where = lookUp(kind, selector, row % 4, column);
      relays.at[relays.count++] = {
          where.group + static_cast<int32_t>(wordsPerGroup * block),
          where.position - 1};
    }
    return relays;
  }
  // A crosspoint closes with its Y isolation relay and, by row, the X and
  // CV isolation relays that connect it to the front panel.
  relays.at[relays.count++] = lookUp(kind, MATRIX, row, column);
  relays.at[relays.count++] = lookUp(kind, ISO_Y, row, column);
  if (kindModel == nullptr) return relays;
  if (kindModel->isoXRows.holds(row))
    relays.at[relays.count++] = lookUp(kind, ISO_X, row, column);
  if (kindModel->isoCvRows.holds(row))
    relays.at[relays.count++] = lookUp(kind, ISO_CV, row, column);
  return relays;
}

}  // namespace qbvisa
