// identity.cpp - serial numbers of a chassis and its cards, card model names
// and matrix sizes.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "core/chassis_model.h"
#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"

namespace {

using namespace qbvisa;

constexpr uint32_t kSerialMin = 10000000;
constexpr uint32_t kSerialMax = 99999999;
// Entries of the serial-number list: the chassis and up to 29 cards.
constexpr size_t kSerialListEntries = 30;
// Names and sizes travel in 10-byte texts: at most 9 characters and a NUL.
constexpr size_t kShortText = 10;
// toInt() works on a 16-byte copy of its input; longer texts are refused
// before they reach it (no eight-digit number needs more).
constexpr size_t kMaxNumberText = 15;

// Nine digits always fit the int that toInt() folds into; more could wrap
// around into the range of a valid serial number.
constexpr size_t kMaxSignificantDigits = 9;

bool isNumberText(const char *text) {
  return text != nullptr && std::strlen(text) <= kMaxNumberText &&
         isdigitstr(text);
}

size_t significantDigits(const char *text) {
  while (*text == '0') {
    ++text;
  }
  return std::strlen(text);
}

// Value of an all-digit text; UINT32_MAX (out of every range here) when it
// has too many digits to convert exactly.
uint32_t decimalValue(const char *text) {
  return significantDigits(text) > kMaxSignificantDigits ? UINT32_MAX
                                                         : toInt(text);
}

bool isEightDigitSerial(uint32_t value) {
  return value >= kSerialMin && value <= kSerialMax;
}

// Checks the two texts of a serial-number write: -10028 / -10032 or 0.
int32_t checkSerialTexts(const char *sn, const char *hw) {
  if (!isNumberText(sn)) {
    return QBVISA_ERR_SN_INPUT;
  }
  if (!isNumberText(hw) || significantDigits(hw) > kMaxSignificantDigits) {
    return QBVISA_ERR_BAD_HW_NUMBER;
  }
  return 0;
}

// Serial number one byte per word, most significant first, then the low byte
// of the hardware number.
void putSerial(ChassisRecord *record, uint32_t serial, uint32_t hw) {
  putWord(record->requestBuffer, 4, serial >> 24);
  putWord(record->requestBuffer, 6, (serial >> 16) & 0xFF);
  putWord(record->requestBuffer, 8, (serial >> 8) & 0xFF);
  putWord(record->requestBuffer, 10, serial & 0xFF);
  putWord(record->requestBuffer, 12, hw & 0xFF);
}

// Four serial-number bytes from every other reply byte, most significant at
// `first`.
uint32_t readSerial(const uint8_t *reply, size_t first) {
  return static_cast<uint32_t>(reply[first]) << 24 |
         static_cast<uint32_t>(reply[first + 2]) << 16 |
         static_cast<uint32_t>(reply[first + 4]) << 8 |
         static_cast<uint32_t>(reply[first + 6]);
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_SetSN(uint32_t session, const char *sn,
                                   const char *hw) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  const int32_t bad = checkSerialTexts(sn, hw);
  if (bad != 0) {
    return bad;
  }
  beginRequest(*record, kSetChassisSerial);
  const uint32_t serial = decimalValue(sn);
  if (!isEightDigitSerial(serial)) {
    return QBVISA_ERR_SN_INPUT;
  }
  putSerial(record, serial, decimalValue(hw));
  // Only the arguments are reported: the production tools write serial
  // numbers blind, so a chassis that does not answer is not an error here.
  if (exchange(*record, 24) < 0) {
    return 0;
  }
  beginRequest(*record, kApplySettings);
  (void)exchange(*record, kCommandWordOnlyBytes);
  SLEEP(1);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetSN(uint32_t session, uint32_t *list,
                                   uint64_t count) {
  if (list == nullptr && count != 0) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  uint32_t serials[kSerialListEntries] = {};
  const int32_t refreshed = refreshFirmwareVersion(*record);
  if (refreshed != 0) {
    return refreshed;
  }
  beginRequest(*record, kIdentityQuery);
  const int32_t status = exchange(*record, kBareRequestBytes);
  if (status < 0) {
    return status;
  }
  if (firmwareTooOld(*record)) {
    return QBVISA_ERR_NOT_SUPPORTED;
  }
  const uint8_t *reply = record->replyBuffer;
  // A chassis whose serial was never written answers all ones.
  serials[0] = readSerial(reply, 0);
  if (!isEightDigitSerial(serials[0])) {
    return QBVISA_ERR_SN_UNSET;
  }
  // The local list bounds the cards read whatever the record claims.
  const size_t cards = record->slotCount < kSerialListEntries
                           ? record->slotCount
                           : kSerialListEntries - 1;
  for (size_t k = 1; k <= cards; ++k) {
    const uint32_t serial = readSerial(reply, (k - 1) * 10 + 16);
    if (serial == 0) {
      continue;  // card without a serial number
    }
    if (!isEightDigitSerial(serial)) {
      return QBVISA_ERR_SN_UNSET;
    }
    serials[k] = serial;
  }
  // Never more than the local list holds, whatever count the caller passes.
  const size_t copied = count < kSerialListEntries ? count : kSerialListEntries;
  if (copied != 0) {
    std::memcpy(list, serials, copied * sizeof serials[0]);
  }
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SetCardSN(uint32_t session, const char *sn,
                                       const char *hw, int32_t slot) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  const int32_t bad = checkSerialTexts(sn, hw);
  if (bad != 0) {
    return bad;
  }
  if (slot < 1 || slot > 6) {
    return QBVISA_ERR_BAD_SLOT;
  }
  const int32_t refreshed = refreshFirmwareVersionAndGate(*record);
  if (refreshed != 0) {
    return refreshed;
  }
  beginRequest(*record, static_cast<uint16_t>(kSetCardSerialBase + slot));
  const uint32_t serial = decimalValue(sn);
  if (!isEightDigitSerial(serial)) {
    return QBVISA_ERR_SN_INPUT;
  }
  putSerial(record, serial, decimalValue(hw));
  // Card serial frames are 20 bytes: the chassis reads no further. They
  // take effect without the apply command.
  const int32_t status = exchange(*record, 20);
  return failureOrZero(status);
}

QBVISA_EXPORT int32_t QBVISA_GetCardType(uint32_t session, uint32_t card,
                                         char *name) {
  if (name == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  // Also refuses slots beyond the record's three, so the index below holds.
  const int32_t present = IsBoardExists(record, card);
  if (present < 0) {
    return present;
  }
  char text[kShortText];
  std::snprintf(text, sizeof text, "%s",
                cardNameOfKind(record->slots[card].matrixKind) != nullptr
                    ? cardNameOfKind(record->slots[card].matrixKind)
                    : "Unknown");
  std::memcpy(name, text, std::strlen(text) + 1);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetCardSize(const char *name, char *size) {
  if (size == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  const char *found = "Unknown";
  if (name != nullptr) {
    if (const char *known = cardSizeOf(name)) {
      found = known;
    }
  }
  char text[kShortText];
  std::snprintf(text, sizeof text, "%s", found);
  std::memcpy(size, text, std::strlen(text) + 1);
  return 0;
}

}  // extern "C"
