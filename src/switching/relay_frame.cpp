// From a list of points to close to the relay-state frame on the wire.
#include "switching/relay_frame.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "core/chassis_model.h"
#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"
#include "switching/prepared_frame.h"
#include "wiring/crosspoint_wiring.h"

namespace {

using namespace qbvisa;

// A 13-word board of a model with shortBoardDeadBits has no relays behind
// the top four bits of its bit group 12.
constexpr int kShortBoardWords = 13;
constexpr int kShortBoardGroup = 12;
constexpr int kShortBoardFirstDeadBit = 12;

// Closes the relay at (group, position) of one board; a location that lies
// outside the board (an unknown kind leaves the lookup result unset) is
// ignored rather than written outside the image.
void closeRelay(uint8_t *board, int32_t group, int32_t position) {
  if (group < 0 || group >= kBitGroupsPerBoard || position < 0 ||
      position >= kRelaysPerBitGroup)
    return;
  board[group * kRelaysPerBitGroup + position] = 1;
}

}  // namespace

namespace qbvisa {

int32_t slotClosureLimit(const ChassisRecord &record) {
  // A limited model's limit, as its matrix kind sets it.
  const ChassisModel *model = modelByType(record.modelTypeCode);
  const ChassisModel *kindModel = modelByKind(record.slots[0].matrixKind);
  if (model == nullptr || model->closureLimit == 0 || kindModel == nullptr ||
      kindModel->closureLimit == 0)
    return INT32_MAX;
  return kindModel->closureLimit;
}

}  // namespace qbvisa

extern "C" {

QBVISA_EXPORT int32_t SetRelayStateDataType0(ChassisRecord *record,
                                             const uint8_t *points,
                                             uint8_t *image) {
  if (record == nullptr || points == nullptr || image == nullptr)
    return QBVISA_ERR_PARAMETER;
  const SlotArea &slot = record->slots[0];
  const uint32_t kind = slot.matrixKind;
  const uint32_t columns = slot.columnCount;
  const uint32_t pointsPerRow = uint32_t{slot.subMatrixCount} * columns;
  // Never read past the caller's point list, whatever the record says.
  const ChassisModel *model = modelByType(record->modelTypeCode);
  const uint32_t pointCount = std::min<uint32_t>(
      slot.pointCount, static_cast<uint32_t>(kPointListBytes));
  for (uint32_t p = 0; pointsPerRow != 0 && p < pointCount; ++p) {
    if (points[p] != 1) continue;
    const uint32_t row = p / pointsPerRow;
    const uint32_t inRow = p % pointsPerRow;
    const uint32_t sub = inRow / columns;
    const uint32_t column = wiredColumn(model, inRow % columns);
    if (sub >= sizeof slot.subMatrixGroup) continue;
    const int board = slot.subMatrixGroup[sub];
    if (board < 0 || board >= kImageBoards) continue;  // not fitted
    // An out-of-range point ends the placing: the points before it stay,
    // and the caller sends what was placed.
    if (CheckPointParam(static_cast<int32_t>(row), static_cast<int32_t>(column),
                        0, slot.rowCount, slot.columnCount) != 0)
      return 1;
    uint8_t *boardBase = image + board * kBoardBytes;
    const PointRelays relays = pointRelays(model, kind, slot.wordsPerGroup,
                                           row, inRow % columns);
    for (int r = 0; r < relays.count; ++r)
      closeRelay(boardBase, relays.at[r].group, relays.at[r].position);
  }
  // Only models with LT relays switch them; others share the tables but not
  // this wiring, and report their type code.
  if (model == nullptr || !model->hasLtRelays) return record->modelTypeCode;
  const uint16_t ltCount =
      std::min<uint16_t>(slot.ltIsolationCount, sizeof slot.ltIsolationState);
  for (uint16_t j = 0; j < ltCount; ++j) {
    if (slot.ltIsolationState[j] != 1) continue;
    RelayPosition where{-1, -1};
    GetPoint(kind, ISO_LT, j, 0, &where);
    closeRelay(image, where.group, where.position);
  }
  return 0;
}

QBVISA_EXPORT int32_t SendRelayStateType0(ChassisRecord *record,
                                          const uint8_t *points,
                                          uint16_t *frame, uint32_t locked) {
  if (record == nullptr || points == nullptr || frame == nullptr)
    return QBVISA_ERR_PARAMETER;
  const SlotArea &slot = record->slots[0];
  const int boards = slot.groupCount;
  const int words = slot.wordsPerGroup;
  // The frame is packed from the image, so a geometry larger than the image
  // cannot be sent (and would overrun the frame, which is sized for it).
  if (boards > kImageBoards || words > kBitGroupsPerBoard)
    return QBVISA_ERR_PARAMETER;

  // Only the bit groups that go on the wire must start open: the builder
  // merely sets bytes elsewhere (unfitted boards, a row-block model's upper row
  // blocks) and nothing reads them, so clearing the whole image per call
  // would cost more than packing it.
  uint8_t image[kRelayImageBytes];
  for (int board = 0; board < boards; ++board)
    std::memset(image + board * kBoardBytes, 0,
                static_cast<size_t>(words) * kRelaysPerBitGroup);
  SetRelayStateDataType0(record, points, image);

  const int32_t payloadBytes = boards * words * 2;
  frame[0] = kRelayStateCommand;
  frame[1] = static_cast<uint16_t>(payloadBytes);
  frame[2] = 0;
  frame[3] = 0;

  const int32_t closureLimit = qbvisa::slotClosureLimit(*record);
  const ChassisModel *kindModel = modelByKind(slot.matrixKind);
  const bool deadBits = kindModel != nullptr && kindModel->shortBoardDeadBits &&
                        words == kShortBoardWords;

  int32_t closed = 0;
  for (int board = 0; board < boards; ++board) {
    uint8_t *boardBase = image + board * kBoardBytes;
    uint16_t *boardWords = frame + kFrameHeaderWords + board * words;
    // The chassis takes a board's bit groups last first.
    for (int w = words - 1; w >= 0; --w) {
      if (deadBits && w == kShortBoardGroup)
        std::memset(boardBase + kShortBoardGroup * kRelaysPerBitGroup +
                        kShortBoardFirstDeadBit,
                    0, kRelaysPerBitGroup - kShortBoardFirstDeadBit);
      int32_t ones = 0;
      boardWords[w] = ArrayToU16(
          boardBase + (words - 1 - w) * kRelaysPerBitGroup, &ones);
      closed += ones;
      if (closed > closureLimit) return QBVISA_ERR_CLOSURE_LIMIT;
    }
  }

  const int32_t frameBytes =
      payloadBytes + static_cast<int32_t>(kFrameHeaderWords * 2);
  return sendRelayFrame(*record, frame, frameBytes, locked);
}

}  // extern "C"
