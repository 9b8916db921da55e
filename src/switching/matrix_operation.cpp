// Setting a chassis's whole relay state from a caller's bit array.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"
#include "switching/prepared_frame.h"
#include "switching/relay_frame.h"

namespace {

constexpr int32_t kBitsPerWord = 32;
constexpr int32_t kPointListWords =
    static_cast<int32_t>(qbvisa::kPointListBytes) / kBitsPerWord;

}  // namespace

extern "C" {

// `points` must hold kPointListBytes bytes: the word count is bounded by
// that, since a slot's word limit alone could reach past it.
QBVISA_EXPORT int32_t UserArrayToMatrixPoints(const uint32_t *array,
                                              int32_t limit, int32_t words,
                                              uint8_t *points) {
  if (words < 1 || points == nullptr || array == nullptr) return -1;
  const int32_t count = std::min({limit, words, kPointListWords});
  for (int32_t i = 0; i < count; ++i) {
    for (int32_t k = 0; k < kBitsPerWord; ++k)
      points[i * kBitsPerWord + k] = static_cast<uint8_t>((array[i] >> k) & 1u);
  }
  return 0;
}

QBVISA_EXPORT int32_t CheckPointParam(int32_t row, int32_t column,
                                      int32_t state, int32_t rows,
                                      int32_t columns) {
  if (row < 0 || row >= rows) return QBVISA_ERR_ROW_RANGE;
  if (column < 0 || column >= columns) return QBVISA_ERR_COLUMN_RANGE;
  if (state < 0 || state > 1) return QBVISA_ERR_STATE_RANGE;
  return 0;
}

// Card kinds whose rows pass a cascade relay between sub-matrices: the GX3
// and GX4 cards, and the GX4 half (rows 0..7) of the mixed card.
QBVISA_EXPORT bool IsOpenCascade(int32_t kind, int32_t row) {
  if (kind == MATRIX_KIND_GX3 || kind == MATRIX_KIND_GX4_TYPE3 ||
      kind == MATRIX_KIND_GX4_TYPE0)
    return true;
  return kind == MATRIX_KIND_GX4MIX && row < 8;
}

QBVISA_EXPORT int32_t OpMatrix(ChassisRecord *record, uint64_t slot,
                               uint32_t *array, uint32_t words,
                               uint32_t locked) {
  if (record == nullptr || (array == nullptr && words != 0))
    return QBVISA_ERR_PARAMETER;
  const int32_t present = IsBoardExists(record, slot);
  if (present < 0) return present;
  // Only the chassis's own matrix is switched by relay-state frames.
  if (slot != 0) return QBVISA_ERR_UNKNOWN_CARD_TYPE;

  // A registry record's slot keeps a table that takes the caller's words
  // straight to the frame; any other record goes point by point.
  uint16_t frame[qbvisa::kRelayFrameWords];
  int32_t frameBytes{};
  int32_t status =
      qbvisa::buildPreparedFrame(*record, array, words, frame, &frameBytes);
  if (status == 0) status = qbvisa::sendRelayFrame(*record, frame, frameBytes, locked);
  if (status != qbvisa::kNotPrepared) return qbvisa::failureOrZero(status);

  // The frame builder reads the slot's points only; those the caller's
  // words do not reach start open.
  uint8_t points[qbvisa::kPointListBytes];
  std::memset(points, 0,
              std::min<size_t>(record->slots[0].pointCount, sizeof points));
  // No words at all leaves every point open: an all-open frame goes out.
  UserArrayToMatrixPoints(
      array, record->slots[0].arrayWordLimit,
      static_cast<int32_t>(std::min<uint32_t>(words, INT32_MAX)), points);
  status = SendRelayStateType0(record, points, frame, locked);
  return qbvisa::failureOrZero(status);
}

QBVISA_EXPORT int32_t QBVISA_OpMatrix(uint32_t session, uint64_t slot,
                                      uint32_t *array, uint32_t words) {
  if (array == nullptr && words != 0) return QBVISA_ERR_PARAMETER;
  ChassisRecord *record = qbvisa::lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  slot = qbvisa::effectiveSlot(*record, slot);
  const int32_t status = OpMatrix(record, slot, array, words, 1);
  if (status < 0) return status;
  // The whole caller array is kept, also words beyond the slot's limit, but
  // never more than the record holds: words * 4 may exceed 6000 bytes.
  const uint64_t bytes = std::min<uint64_t>(
      uint64_t{words} * sizeof(uint32_t), QBVISA_LAST_ARRAY_SIZE);
  if (bytes != 0)
    std::memcpy(record->slots[slot].lastArray, array, bytes);
  // Threads switching different chassis all write this flag.
  __atomic_store_n(&currentOpSwitch, uint8_t{0}, __ATOMIC_RELAXED);
  return 0;
}

}  // extern "C"
