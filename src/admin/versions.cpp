// versions.cpp - firmware and hardware versions of a chassis and its cards,
// and the device summary (type, identification characters, serial number,
// firmware version) as texts.
#include <cstdio>
#include <cstring>

#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"

namespace {

using namespace qbvisa;

constexpr size_t kTextSlot = kVersionTextSize;

void formatFirmware(char *slot, unsigned major, unsigned minor) {
  std::snprintf(slot, kTextSlot, "%x.%02x", major, minor);
}

// Hardware versions are one decimal byte: tens the major, units the minor.
// A byte of 100 or more gives a hexadecimal major (123 reads "c.3").
void formatHardware(char *slot, uint8_t version) {
  std::snprintf(slot, kTextSlot, "%x.%x", version / 10U, version % 10U);
}

// Copies a device-information text into the caller's buffer. The limit is
// applied only when the buffer already holds a text of at least `maxlen`
// characters: callers that want it pass buffers prefilled to that length,
// while an empty buffer receives the whole text. At most `maxlen` bytes of the
// old contents are examined.
void copyInfoText(char *destination, char *text, uint64_t maxlen) {
  if (strnlen(destination, maxlen) == maxlen) {
    mystrncpy(text, maxlen);
  }
  std::memcpy(destination, text, std::strlen(text) + 1);
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_GetHWVersion(uint32_t session, char *list,
                                          uint64_t count) {
  (void)count;  // the list's size follows from the chassis model
  if (list == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  const int32_t refreshed = refreshFirmwareVersionAndGate(*record);
  if (refreshed != 0) {
    return refreshed;
  }
  beginRequest(*record, kIdentityQuery);
  // The reply is read whatever the exchange reports: a chassis that drops
  // the identity answer still yields a list, read from what the version
  // query left in the reply buffer.
  (void)exchange(*record, kBareRequestBytes);
  const uint8_t *reply = record->replyBuffer;
  formatHardware(list, reply[8]);
  const size_t cards = record->slotCount < kMaxCardPositions
                           ? record->slotCount
                           : kMaxCardPositions;
  for (size_t k = 1; k <= cards; ++k) {
    formatHardware(list + k * kTextSlot, reply[(k - 1) * 10 + 24]);
  }
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetSWVersion(uint32_t session, char *list,
                                          uint64_t count) {
  (void)count;  // the list's size follows from the chassis model
  if (list == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  if (takesCards(*record)) {
    const int32_t refreshed = refreshFirmwareVersion(*record);
    if (refreshed != 0) {
      return refreshed;
    }
    formatFirmware(list, record->firmwareMajor, record->firmwareMinor);
    return 0;
  }
  const uint8_t *reply = record->replyBuffer;
  if (hasPortsAndControlMode(*record)) {
    // A chassis with ports has two controllers: the main one answers command 11, the
    // second one command 49. Neither is the record's firmware version.
    int32_t status = sendBareRequest(*record, kVersionQuery);
    if (status < 0) {
      return status;
    }
    formatFirmware(list, reply[2], reply[3]);
    status = sendBareRequest(*record, kSecondVersionQuery);
    if (status < 0) {
      return status;
    }
    formatFirmware(list + kTextSlot, reply[2], reply[3]);
    return 0;
  }
  const int32_t status = sendBareRequest(*record, kVersionQuery);
  if (status < 0) {
    return status;
  }
  // One version pair per controller from byte 2 on; the first pair with a
  // zero byte ends the list.
  size_t slot = 0;
  for (size_t p = 2; p + 1 < QBVISA_REPLY_SIZE && slot < kMaxVersionSlots;
       p += 2) {
    if (reply[p] == 0 || reply[p + 1] == 0) {
      break;
    }
    formatFirmware(list + slot * kTextSlot, reply[p], reply[p + 1]);
    ++slot;
  }
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetDeviceInfo(uint32_t session, char *typeText,
                                           char *charText, char *snText,
                                           char *versionText, uint64_t maxlen) {
  if (typeText == nullptr || charText == nullptr || snText == nullptr ||
      versionText == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  const int32_t refreshed = refreshFirmwareVersion(*record);
  if (refreshed != 0) {
    return refreshed;
  }
  char version[kTextSlot];
  formatFirmware(version, record->firmwareMajor, record->firmwareMinor);

  beginRequest(*record, kIdentityQuery);
  const int32_t status = exchange(*record, kBareRequestBytes);
  if (status < 0) {
    return status;
  }
  const uint8_t *reply = record->replyBuffer;
  uint32_t serial = 0;
  unsigned typeCode = 0;
  char first = 0;
  char second = 0;
  if (firmwareTooOld(*record)) {
    // Older controllers of card-taking chassis answer a seven-digit serial in three
    // bytes and pack the type code right behind it.
    serial = static_cast<uint32_t>(reply[0]) << 16 |
             static_cast<uint32_t>(reply[2]) << 8 | reply[4];
    if (serial < 1000000 || serial > 9999999) {
      return QBVISA_ERR_SN_UNSET;
    }
    typeCode = static_cast<unsigned>(reply[6]) << 8 | reply[7];
    first = static_cast<char>(reply[8]);
    second = static_cast<char>(reply[10]);
  } else {
    serial = static_cast<uint32_t>(reply[0]) << 24 |
             static_cast<uint32_t>(reply[2]) << 16 |
             static_cast<uint32_t>(reply[4]) << 8 | reply[6];
    if (serial < 10000000 || serial > 99999999) {
      return QBVISA_ERR_SN_UNSET;
    }
    typeCode = static_cast<unsigned>(reply[10]) << 8 | reply[11];
    first = static_cast<char>(reply[12]);
    second = static_cast<char>(reply[14]);
  }

  char type[kTextSlot];
  char chars[kTextSlot];
  char sn[kTextSlot];
  std::snprintf(type, sizeof type, "%04X", typeCode);
  std::snprintf(chars, sizeof chars, "%c%c", first, second);
  std::snprintf(sn, sizeof sn, "%8u", serial);
  copyInfoText(typeText, type, maxlen);
  copyInfoText(charText, chars, maxlen);
  copyInfoText(snText, sn, maxlen);
  copyInfoText(versionText, version, maxlen);
  return 0;
}

}  // extern "C"
