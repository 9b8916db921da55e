// Front-panel or remote control of an RK421, and opening every relay.
#include <cstdint>
#include <cstring>

#include "qbvisa_lowlevel.h"
#include "switching/chassis_rules.h"
#include "switching/relay_frame.h"

namespace {

constexpr uint16_t kGetControlMode = 5;
constexpr uint16_t kSetControlMode = 6;
// The RK422 clears with a command of its own instead of an all-open frame.
constexpr uint16_t kClearRk422 = 67;
constexpr uint32_t kUnknownCardType = 0xFFFFFFFFu;
constexpr int32_t kSetModeRequestBytes = 6;
// The clear payload length is a 16-bit field, so it never exceeds this.
constexpr std::size_t kLargestClearRequest = 4 + 0xFFFF;

ChassisRecord *lookUp(uint32_t session) {
  ChassisRecord *record = nullptr;
  if (FindChassis(static_cast<int32_t>(session), &record) < 0) return nullptr;
  return record;
}

void startRequest(ChassisRecord &record, uint16_t command) {
  std::memset(record.requestBuffer, 0, sizeof record.requestBuffer);
  std::memset(record.replyBuffer, 0, sizeof record.replyBuffer);
  std::memcpy(record.requestBuffer, &command, sizeof command);
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_GetControlMode(uint32_t session, uint32_t *mode) {
  if (mode == nullptr) return QBVISA_ERR_PARAMETER;
  ChassisRecord *record = lookUp(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  // Only the RK421 has a front panel that can take control.
  if (record->modelTypeCode != QBVISA_TYPE_RK421)
    return QBVISA_ERR_NOT_SUPPORTED;
  startRequest(*record, kGetControlMode);
  const int32_t status =
      SendRecvMsg(record->session, record->requestBuffer,
                  qbvisa::kBareRequestBytes, record->replyBuffer);
  if (status < 0) return status;
  *mode = record->replyBuffer[2];
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SetControlMode(uint32_t session, uint32_t mode) {
  ChassisRecord *record = lookUp(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  if (record->modelTypeCode != QBVISA_TYPE_RK421)
    return QBVISA_ERR_NOT_SUPPORTED;
  // When the chassis cannot say which mode it is in, the request is sent
  // anyway: asking for a mode is never wrong, skipping it may be.
  uint32_t current = 0;
  const bool known = QBVISA_GetControlMode(session, &current) >= 0;
  if (known && current == mode) return QBVISA_ERR_SAME_CONTROL_MODE;
  // The controller reads the mode word without looking at the length field.
  startRequest(*record, kSetControlMode);
  const uint16_t modeWord = static_cast<uint16_t>(mode);
  std::memcpy(record->requestBuffer + 4, &modeWord, sizeof modeWord);
  const int32_t status =
      SendRecvMsg(record->session, record->requestBuffer,
                  kSetModeRequestBytes, record->replyBuffer);
  return status < 0 ? status : 0;
}

QBVISA_EXPORT int32_t QBVISA_Clear(uint32_t session, uint64_t card) {
  ChassisRecord *record = lookUp(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  card = qbvisa::effectiveSlot(*record, card);
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

  // The payload can be far longer than the request buffer (an RK422 frame
  // alone is 2058 bytes), so it is sent from a zeroed area of its own.
  alignas(uint16_t) uint8_t request[kLargestClearRequest];
  const std::size_t requestBytes = std::size_t{payloadBytes} + 4;
  std::memset(request, 0, requestBytes);
  const uint16_t header[2] = {
      record->modelTypeCode == QBVISA_TYPE_RK422 ? kClearRk422
                                                 : qbvisa::kRelayStateCommand,
      payloadBytes};
  std::memcpy(request, header, sizeof header);
  std::memset(record->replyBuffer, 0, sizeof record->replyBuffer);
  return SendRecvMsg(record->session, request,
                     static_cast<int32_t>(requestBytes), record->replyBuffer);
}

}  // extern "C"
