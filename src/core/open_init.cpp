// Opening a slot (presence and geometry) and initialising a chassis.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>

#include "core/chassis_model.h"
#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"
#include "switching/prepared_frame.h"

namespace {

using namespace qbvisa;

constexpr int kSlotPositions = sizeof SlotArea::cardPresent;
constexpr uint8_t kAbsent = 0xFF;
// Slot 1 takes cards only when the identity entry of card position 6 shows
// hardware 1.0 or later.
constexpr int32_t kSlot1Position = 6;
constexpr uint8_t kSlot1MinimumHardware = 10;

void resetPresence(SlotArea &slot) {
  std::memset(slot.cardPresent, kAbsent, sizeof slot.cardPresent);
  std::memset(slot.subMatrixGroup, kAbsent, sizeof slot.subMatrixGroup);
}

// The main matrix: bit s of the 24-bit mask says sub-matrix s is fitted.
// Entry n of subMatrixGroup names the n-th fitted sub-matrix, so the boards
// of the relay frame are the fitted sub-matrices in order.
int32_t readMainMatrixPresence(ChassisRecord &record) {
  const int32_t status = sendBareRequest(record, kPresenceQuery);
  if (status < 0) return status;
  const uint8_t *reply = record.replyBuffer;
  const uint32_t mask = reply[2] | uint32_t{reply[3]} << 8 |
                        uint32_t{reply[4]} << 16;
  SlotArea &slot = record.slots[0];
  const int subs = std::min<int>(slot.subMatrixCount, kSlotPositions);
  int fitted = 0;
  for (int s = 0; s < subs; ++s) {
    if ((mask >> s & 1u) == 0) continue;
    slot.subMatrixGroup[fitted++] = static_cast<int8_t>(s);
    slot.cardPresent[s] = 1;
  }
  return 0;
}

// Slot 1 of a card-taking chassis: the bits of reply byte 2 above the main matrix's
// sub-matrices, up to the chassis's slot count.
int32_t readSlot1Presence(ChassisRecord &record) {
  const int32_t status = sendBareRequest(record, kPresenceQuery);
  if (status < 0) return status;
  const uint8_t flags = record.replyBuffer[2];
  const int first = record.slots[0].subMatrixCount;
  // Reply byte 2 has eight bits, so every position fits the presence table.
  constexpr int kFlagBits = std::numeric_limits<uint8_t>::digits;
  static_assert(kFlagBits <= kSlotPositions);
  const int end = std::min<int>(record.slotCount, kFlagBits);
  SlotArea &slot = record.slots[1];
  int fitted = 0;
  for (int b = first; b < end; ++b) {
    if ((flags >> b & 1u) == 0) continue;
    const int position = b - first;
    slot.subMatrixGroup[fitted++] = static_cast<int8_t>(position);
    slot.cardPresent[position] = 1;
  }
  return 0;
}

int32_t readSlot2Presence(ChassisRecord &record) {
  const int32_t status = sendBareRequest(record, kSlot2PresenceQuery);
  if (status < 0) return status;
  if ((record.replyBuffer[2] & 1u) == 0) return 0;
  SlotArea &slot = record.slots[2];
  slot.subMatrixGroup[0] = 1;
  std::memset(slot.cardPresent, 1, sizeof slot.cardPresent);
  return 0;
}

// The chassis's own matrix, by matrix kind, for the firmware generation the
// controller reports (before firmware 2 some drive more words per board).
int32_t setMainGeometry(ChassisRecord &record) {
  SlotArea &slot = record.slots[0];
  // Discovery gives slot 0 one of the chassis kinds; anything else has no
  // geometry to switch with.
  const ChassisModel *model = modelByKind(slot.matrixKind);
  if (model == nullptr) return QBVISA_ERR_UNKNOWN_CARD_TYPE;
  const MainGeometry &g = record.firmwareMajor <= 1 ? model->firstGeneration
                                                    : model->current;
  if (model->geometryWords[0] != 0 || model->geometryWords[1] != 0) {
    slot.geometryWords[0] = model->geometryWords[0];
    slot.geometryWords[1] = model->geometryWords[1];
  }
  if (model->ltIsolationCount != 0)
    slot.ltIsolationCount = model->ltIsolationCount;
  slot.arrayWordLimit = g.arrayWordLimit;
  slot.rowCount = g.rowCount;
  slot.columnCount = g.columnCount;
  slot.subMatrixCount = g.subMatrixCount;
  slot.groupCount = g.groupCount;
  slot.wordsPerGroup = g.wordsPerGroup;
  slot.pointCount = g.pointCount;
  return 0;
}

int32_t openSlot1(ChassisRecord &record) {
  if (takesCards(record) &&
      GetSlotHW(&record, kSlot1Position) < kSlot1MinimumHardware)
    return QBVISA_ERR_NOT_SUPPORTED;
  const int32_t status = sendBareRequest(record, kCardTypeQuery);
  if (status < 0) return status;
  const uint8_t cardType = record.replyBuffer[2];
  const CardType *card = cardByTypeByte(cardType);
  if (card == nullptr) return QBVISA_ERR_RF_DEVICE_TYPE;
  SlotArea &slot = record.slots[1];
  slot.matrixKind = card->matrixKind;
  slot.arrayWordLimit = card->arrayWordLimit;
  slot.rowCount = card->rowCount;
  slot.groupCount = card->groupCount;
  slot.wordsPerGroup = card->wordsPerGroup;
  slot.pointCount = card->pointCount;
  slot.cardExtra = card->cardExtra;
  slot.columnCount = 50;
  slot.geometryWords[0] = 4;
  slot.geometryWords[1] = 7;
  slot.cardWords[0] = 13;
  slot.cardWords[1] = 13;
  slot.cardWordsFollowing[0] = 12;
  slot.cardWordsFollowing[1] = 12;
  return 0;
}

// Slot 2 holds the AP matrix matching the chassis it was built for; the
// identity reply names that chassis type (bytes 10-11 from firmware 3.06 on,
// bytes 6-7 before), most significant byte first.
int32_t openSlot2(ChassisRecord &record) {
  // A chassis that takes no cards reads as the first card-taking model.
  uint16_t subType = chassisModels().front().typeCode;
  if (takesCards(record)) {
    const int32_t status = sendBareRequest(record, kIdentityQuery);
    if (status < 0) return status;
    const int at = IsNewVer_3_06(&record) ? 10 : 6;
    subType = static_cast<uint16_t>(record.replyBuffer[at] << 8 |
                                    record.replyBuffer[at + 1]);
  }
  SlotArea &slot = record.slots[2];
  const ChassisModel *builtFor = cardSlotModel(subType);
  if (builtFor == nullptr) return QBVISA_ERR_UNKNOWN_CARD_TYPE;
  slot.matrixKind = builtFor->slot2Kind;
  slot.pointCount = builtFor->slot2PointCount;
  slot.arrayWordLimit = 4;
  slot.subMatrixCount = 1;
  slot.wordsPerGroup = 8;
  return 0;
}

int32_t checkPresence(ChassisRecord *record, uint64_t slot) {
  const int32_t status = BoardInPlaceHDW(record, slot);
  if (status < 0) return status;
  const int32_t exists = IsBoardExists(record, slot);
  return failureOrZero(exists);
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t BoardInPlaceHDW(ChassisRecord *record, uint64_t slot) {
  if (record == nullptr || slot > 2) return QBVISA_ERR_PARAMETER;
  resetPresence(record->slots[slot]);
  std::memset(record->requestBuffer, 0, sizeof record->requestBuffer);
  if (slot == 0) return readMainMatrixPresence(*record);
  if (!takesCards(*record)) return QBVISA_ERR_UNKNOWN_CARD_TYPE;
  return slot == 1 ? readSlot1Presence(*record) : readSlot2Presence(*record);
}

QBVISA_EXPORT int32_t IsBoardExists(ChassisRecord *record, uint64_t slot) {
  if (record == nullptr || slot > 2) return QBVISA_ERR_PARAMETER;
  const SlotArea &area = record->slots[slot];
  const bool anyPresent =
      std::any_of(std::begin(area.cardPresent), std::end(area.cardPresent),
                  [](uint8_t p) { return p < kAbsent; });
  if (anyPresent) return 1;
  static constexpr int32_t kMissing[] = {QBVISA_ERR_NO_TYPE0_CARD,
                                         QBVISA_ERR_NO_TYPE1_CARD,
                                         QBVISA_ERR_NO_TYPE2_CARD};
  return kMissing[slot];
}

QBVISA_EXPORT int32_t GetSlotHW(ChassisRecord *record, int32_t n) {
  // Entry n sits at byte (n - 1) * 10 + 24 of the 200-byte slot list, so
  // n runs from -1 (byte 4) to 18 (byte 194).
  if (record == nullptr || n < -1 || n > 18) return QBVISA_ERR_PARAMETER;
  const int32_t at = (n - 1) * 10 + 24;
  // Only the entry is wanted: a failed exchange reads as 0 from the cleared
  // reply buffer.
  sendBareRequest(*record, kIdentityQuery);
  return record->replyBuffer[at];
}

QBVISA_EXPORT bool IsNewVer_3_06(const ChassisRecord *record) {
  if (record == nullptr || record->firmwareMajor < 3) return false;
  if (record->firmwareMajor == 3) return record->firmwareMinor > 5;
  return true;
}

QBVISA_EXPORT int32_t QBVISA_OpenSpecifiedCard(uint32_t session, uint64_t slot,
                                               uint64_t *kind) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  slot = effectiveSlot(*record, slot);
  if (takesCards(*record)) {
    const int32_t status = refreshFirmwareVersion(*record);
    if (status < 0) return status;
    // Controllers 2.0 to 2.6 cannot address slot 2.
    if (slot == 2 && record->firmwareMajor == 2 && record->firmwareMinor < 7)
      return QBVISA_ERR_NOT_SUPPORTED;
  }
  const int32_t present = checkPresence(record, slot);
  if (present < 0) return present;  // also refuses slots above 2
  if (kind != nullptr) *kind = slot;
  if (slot == 0) return setMainGeometry(*record);
  if (slot == 1) return openSlot1(*record);
  return openSlot2(*record);
}

QBVISA_EXPORT int32_t QBVISA_Init(uint32_t session, uint64_t slot) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  slot = effectiveSlot(*record, slot);
  InitPointInfo();
  // The switching table of the chassis's own matrix is built now rather
  // than on the first switching call.
  prepareSlotFrame(*record);
  if (takesCards(*record)) {
    const int32_t status = refreshFirmwareVersion(*record);
    if (status < 0) return status;
  }
  // A chassis with a front panel refuses relay frames under its control.
  if (hasPortsAndControlMode(*record)) {
    uint32_t mode = 0;
    int32_t status = QBVISA_GetControlMode(session, &mode);
    if (status < 0) return status;
    if (mode == 0) {
      status = QBVISA_SetControlMode(session, 1);
      if (status < 0) return status;
    }
  }
  const int32_t cleared = QBVISA_Clear(session, slot);
  return failureOrZero(cleared);
}

QBVISA_EXPORT int32_t QBVISABoardInPlaceHDW(uint32_t session, uint64_t slot) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  return checkPresence(record, slot);
}

}  // extern "C"
