// Read-only facts about a connected chassis for bindings and front panels.
#include <algorithm>
#include <climits>
#include <cstring>

#include "core/chassis_model.h"
#include "core/chassis_request.h"
#include "qbvisa_ext.h"
#include "switching/relay_frame.h"
#include "wiring/crosspoint_wiring.h"

extern "C" {

QBVISA_EXPORT int32_t QBVISA_GetSlotInfo(uint32_t session, uint64_t slot,
                                         QBVISA_SlotInfo *info) {
  if (info == nullptr) return QBVISA_ERR_PARAMETER;
  const ChassisRecord *record = qbvisa::lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  if (slot >= sizeof record->slots / sizeof record->slots[0])
    return QBVISA_ERR_PARAMETER;
  const SlotArea &area = record->slots[slot];
  QBVISA_SlotInfo out{};
  out.rows = area.rowCount;
  out.columnsPerSubMatrix = area.columnCount;
  out.subMatrices = area.subMatrixCount;
  const uint32_t subs = std::min<uint32_t>(area.subMatrixCount, sizeof area.cardPresent);
  for (uint32_t s = 0; s < subs; ++s)
    if (area.cardPresent[s] == 1) out.fittedMask |= 1u << s;
  out.pointCount = area.pointCount;
  out.arrayWords = area.arrayWordLimit;
  const int32_t limit = slot == 0 ? qbvisa::slotClosureLimit(*record) : INT32_MAX;
  out.closureLimit = limit == INT32_MAX ? 0 : static_cast<uint32_t>(limit);
  out.matrixKind = area.matrixKind;
  *info = out;
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetModelName(uint32_t session, char *name,
                                          uint32_t size) {
  if (name == nullptr || size == 0) return QBVISA_ERR_PARAMETER;
  const ChassisRecord *record = qbvisa::lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  // An unknown type code gives the empty name.
  const qbvisa::ChassisModel *row = qbvisa::modelByType(record->modelTypeCode);
  const char *model = row != nullptr ? row->name : "";
  const size_t length = std::min<size_t>(std::strlen(model), size - 1);
  std::memcpy(name, model, length);
  name[length] = '\0';
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetPointRelays(uint32_t session, uint64_t slot,
                                            uint32_t row, uint32_t column,
                                            QBVISA_Relay relays[4]) {
  if (relays == nullptr) return QBVISA_ERR_PARAMETER;
  const ChassisRecord *record = qbvisa::lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  if (slot != 0) return QBVISA_ERR_UNKNOWN_CARD_TYPE;
  const SlotArea &area = record->slots[0];
  const uint32_t columns = area.columnCount;
  const uint32_t subs = std::min<uint32_t>(area.subMatrixCount, sizeof area.cardPresent);
  if (row < 1 || row > area.rowCount) return QBVISA_ERR_ROW_RANGE;
  if (column < 1 || columns == 0 || column > subs * columns)
    return QBVISA_ERR_COLUMN_RANGE;
  // The caller's column blocks address fitted sub-matrices only, in order.
  const uint32_t sub = (column - 1) / columns;
  if (area.cardPresent[sub] != 1) return QBVISA_ERR_CARD_IN_PLACE;
  const auto fittedBefore = std::count(area.cardPresent, area.cardPresent + sub, 1);
  const int board = area.subMatrixGroup[fittedBefore];
  const qbvisa::PointRelays found = qbvisa::pointRelays(
      qbvisa::modelByType(record->modelTypeCode), area.matrixKind,
      area.wordsPerGroup, row - 1, (column - 1) % columns);
  for (int i = 0; i < found.count; ++i)
    relays[i] = {board, found.at[i].group, found.at[i].position};
  return found.count;
}

QBVISA_EXPORT int32_t QBVISA_GetModelInfo(uint32_t index,
                                          QBVISA_ModelInfo *info) {
  const auto models = qbvisa::chassisModels();
  if (info == nullptr || index >= models.size()) return QBVISA_ERR_PARAMETER;
  const qbvisa::ChassisModel &model = models[index];
  QBVISA_ModelInfo out{};
  std::strncpy(out.name, model.name, sizeof out.name - 1);
  out.typeCode = model.typeCode;
  out.slotCount = model.slotCount;
  // Models with a slot-2 card kind take plug-in cards in slots 1 and 2.
  out.cardSlots = model.slot2Kind != 0 ? 2 : 0;
  out.hasControlMode = model.hasPortsAndControlMode ? 1 : 0;
  out.closureLimit = model.closureLimit > 0 ? static_cast<uint32_t>(model.closureLimit) : 0;
  *info = out;
  return 0;
}

}  // extern "C"
