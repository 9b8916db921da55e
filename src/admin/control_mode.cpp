// Front-panel or remote control of a chassis with a front panel, and
// opening every relay.
#include <cstdint>
#include <cstring>

#include "core/chassis_model.h"
#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"
#include "switching/relay_frame.h"

namespace {

using namespace qbvisa;

constexpr uint32_t kUnknownCardType = 0xFFFFFFFFu;
constexpr int32_t kSetModeRequestBytes = 6;
// The clear payload length is a 16-bit field, so it never exceeds this.
constexpr std::size_t kLargestClearRequest = 4 + 0xFFFF;

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_GetControlMode(uint32_t session, uint32_t *mode) {
  if (mode == nullptr) return QBVISA_ERR_PARAMETER;
  // Only a model with a front panel can hand control to it.
  ChassisRecord *record = nullptr;
  const int32_t found = lookUpPortedChassis(session, &record);
  if (found != 0) return found;
  const int32_t status = sendBareRequest(*record, kGetControlMode);
  if (status < 0) return status;
  *mode = record->replyBuffer[2];
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SetControlMode(uint32_t session, uint32_t mode) {
  ChassisRecord *record = nullptr;
  const int32_t found = lookUpPortedChassis(session, &record);
  if (found != 0) return found;
  // When the chassis cannot say which mode it is in, the request is sent
  // anyway: asking for a mode is never wrong, skipping it may be.
  uint32_t current = 0;
  const bool known = QBVISA_GetControlMode(session, &current) >= 0;
  if (known && current == mode) return QBVISA_ERR_SAME_CONTROL_MODE;
  // The controller reads the mode word without looking at the length field.
  beginRequest(*record, kSetControlMode);
  clearReply(*record);
  putWord(record->requestBuffer, 4, static_cast<uint16_t>(mode));
  const int32_t status = exchange(*record, kSetModeRequestBytes);
  return failureOrZero(status);
}

QBVISA_EXPORT int32_t QBVISA_Clear(uint32_t session, uint64_t card) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  card = effectiveSlot(*record, card);
  const int32_t present = IsBoardExists(record, card);
  if (present < 0) return present;  // also refuses cards above 2
  SlotArea &slot = record->slots[card];
  if (slot.matrixKind == kUnknownCardType) return QBVISA_ERR_BAD_MODEL;
  // One zero word per relay word of the card's frame; the length field is
  // 16 bits wide and wraps for geometries beyond it.
  const uint16_t relayWords =
      static_cast<uint16_t>(slot.groupCount * slot.wordsPerGroup);
  const uint16_t payloadBytes = static_cast<uint16_t>(relayWords * 2);
  std::memset(record->requestBuffer, 0, sizeof record->requestBuffer);
  // The library's copy reads all open from here on, even if the chassis
  // is not reached below.
  std::memset(slot.lastArray, 0, sizeof slot.lastArray);
  // Only card 0 is cleared on the device by this request.
  if (card != 0) return QBVISA_ERR_UNKNOWN_CARD_TYPE;

  // The payload can be far longer than the request buffer (the largest
  // frame alone is 2058 bytes), so it is sent from a zeroed area of its own.
  alignas(uint16_t) uint8_t request[kLargestClearRequest];
  const std::size_t requestBytes = std::size_t{payloadBytes} + 4;
  std::memset(request, 0, requestBytes);
  // Some models clear with a command of their own instead of an all-open
  // relay frame.
  const ChassisModel *model = modelByType(record->modelTypeCode);
  const uint16_t header[] = {
      model != nullptr && model->clearCommand != 0 ? model->clearCommand
                                                   : kRelayStateCommand,
      payloadBytes};
  std::memcpy(request, header, sizeof header);
  clearReply(*record);
  return SendRecvMsg(record->session, request,
                     static_cast<int32_t>(requestBytes), record->replyBuffer);
}

}  // extern "C"
