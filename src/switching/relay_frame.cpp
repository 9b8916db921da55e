// From a list of points to close to the relay-state frame on the wire.
#include "switching/relay_frame.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"

namespace {

using namespace qbvisa;

constexpr int32_t kClosureLimitRk420 = 400;
constexpr int32_t kClosureLimitRk421 = 270;
// A 13-word board of the RK420 family has no relays behind the top four
// bits of its bit group 12.
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

RelayPosition lookUp(uint32_t kind, LocationSelector selector, uint32_t row,
                     uint32_t column) {
  RelayPosition where{-1, -1};
  GetPoint(kind, selector, row, column, &where);
  return where;
}

// The RK422 tables describe one block of four rows with 1-based bit
// numbers; the block of a row lies wordsPerGroup bit groups further on.
void placeRk422Point(uint8_t *board, const SlotArea &slot, uint32_t row,
                     uint32_t column) {
  const uint32_t block = row / 4;
  for (LocationSelector selector : {MATRIX, ISO_Y}) {
    const RelayPosition where =
        lookUp(MATRIX_KIND_RK422, selector, row % 4, column);
    closeRelay(board,
               where.group + static_cast<int32_t>(slot.wordsPerGroup * block),
               where.position - 1);
  }
}

// A crosspoint closes with its Y isolation relay and, by kind, the X, CV
// isolation relays that connect its row and column to the front panel.
void placePoint(uint8_t *board, uint32_t kind, uint32_t row,
                uint32_t column) {
  auto close = [&](LocationSelector selector) {
    const RelayPosition where = lookUp(kind, selector, row, column);
    closeRelay(board, where.group, where.position);
  };
  close(MATRIX);
  close(ISO_Y);
  switch (kind) {
    case MATRIX_KIND_RK420:
      close(ISO_X);
      break;
    case MATRIX_KIND_RK421:
      close(ISO_X);
      if (row == 4 || row == 5) close(ISO_CV);
      break;
    case MATRIX_KIND_RK423:
      if (row >= 2 && row <= 7) close(ISO_X);
      if (row == 6 || row == 7) close(ISO_CV);
      break;
    default:
      break;
  }
}

}  // namespace

namespace qbvisa {

int32_t slotClosureLimit(const ChassisRecord &record) {
  const SlotArea &slot = record.slots[0];
  const bool limited =
      isRk420Family(record) || record.modelTypeCode == QBVISA_TYPE_RK421;
  if (limited && slot.matrixKind == MATRIX_KIND_RK420) return kClosureLimitRk420;
  if (limited && slot.matrixKind == MATRIX_KIND_RK421) return kClosureLimitRk421;
  return INT32_MAX;
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
  const uint32_t pointCount = std::min<uint32_t>(
      slot.pointCount, static_cast<uint32_t>(kPointListBytes));
  for (uint32_t p = 0; pointsPerRow != 0 && p < pointCount; ++p) {
    if (points[p] != 1) continue;
    const uint32_t row = p / pointsPerRow;
    const uint32_t inRow = p % pointsPerRow;
    const uint32_t sub = inRow / columns;
    uint32_t column = inRow % columns;
    // The first six columns of the RK421 are wired in reverse order.
    if (record->modelTypeCode == QBVISA_TYPE_RK421 && column <= 5)
      column = 5 - column;
    if (sub >= sizeof slot.subMatrixGroup) continue;
    const int board = slot.subMatrixGroup[sub];
    if (board < 0 || board >= kImageBoards) continue;  // not fitted
    // An out-of-range point ends the placing: the points before it stay,
    // and the caller sends what was placed.
    if (CheckPointParam(static_cast<int32_t>(row), static_cast<int32_t>(column),
                        0, slot.rowCount, slot.columnCount) != 0)
      return 1;
    uint8_t *boardBase = image + board * kBoardBytes;
    if (kind == MATRIX_KIND_RK422)
      placeRk422Point(boardBase, slot, row, column);
    else
      placePoint(boardBase, kind, row, column);
  }
  // Only the RK423 has the LT relays; the RK423B shares its tables but not
  // this wiring.
  if (record->modelTypeCode != QBVISA_TYPE_RK423) return record->modelTypeCode;
  const uint16_t ltCount =
      std::min<uint16_t>(slot.ltIsolationCount, sizeof slot.ltIsolationState);
  for (uint16_t j = 0; j < ltCount; ++j) {
    if (slot.ltIsolationState[j] != 1) continue;
    const RelayPosition where = lookUp(kind, ISO_LT, j, 0);
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
  // merely sets bytes elsewhere (unfitted boards, the RK422's upper row
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

  int32_t closed = 0;
  for (int board = 0; board < boards; ++board) {
    uint8_t *boardBase = image + board * kBoardBytes;
    uint16_t *boardWords = frame + kFrameHeaderWords + board * words;
    // The chassis takes a board's bit groups last first.
    for (int w = words - 1; w >= 0; --w) {
      if (slot.matrixKind == MATRIX_KIND_RK420 && words == kShortBoardWords &&
          w == kShortBoardGroup)
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

  // A short reply must not be judged on what an earlier exchange left.
  std::memset(record->replyBuffer, 0, sizeof record->replyBuffer);
  const int32_t frameBytes =
      payloadBytes + static_cast<int32_t>(kFrameHeaderWords * 2);
  const int32_t status =
      locked != 0
          ? SendRecvMsgLock(record->session, frame, frameBytes,
                            record->replyBuffer)
          : SendRecvMsg(record->session, reinterpret_cast<uint8_t *>(frame),
                        frameBytes, record->replyBuffer);
  if (status < 0) return status;
  // Under front-panel control the RK421 refuses relay frames this way.
  if (record->modelTypeCode == QBVISA_TYPE_RK421 &&
      record->replyBuffer[0] == 0xFF)
    return QBVISA_ERR_CONTROL_MODE_CONFLICT;
  return 0;
}

}  // extern "C"
