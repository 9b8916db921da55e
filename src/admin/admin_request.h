// admin_request.h - request building and the firmware version refresh shared
// by the administration and diagnostic calls. Internal to the library (hidden
// visibility): nothing here is part of the C interface.
#pragma once

#include <cstdint>
#include <cstring>

#include "qbvisa_lowlevel.h"

namespace qbvisa::admin {

// Administration commands (u16 at offset 0 of the request).
enum Command : uint16_t {
  kSetChassisSerial = 2,
  kIdentityQuery = 8,
  kVersionQuery = 11,
  kSetNetworkAddress = 13,
  kApplySettings = 14,
  kSetGpibAddress = 20,
  kSetBaudRate = 21,
  kGetGpibAddress = 22,
  kGetBaudRate = 23,
  kGetNetworkAddress = 24,
  kGetLanMode = 25,
  kSetCardSerialBase = 31,  // + slot 1..6
  kSetLanMode = 48,
  kSecondVersionQuery = 49,
  kSelfTest = 80,
  kBoardInPlace = 81,
  kSpiLoopTest = 82,
  kUpdateBegin = 96,
  kUpdateData = 97,
  kUpdateEnd = 98,
};

// Bytes sent for a request that is only the command word and the length field.
inline constexpr int32_t kBareRequest = 4;
// Bytes sent for command 14, which the chassis takes as the command word alone.
inline constexpr int32_t kCommandWordOnly = 2;

inline void PutWord(uint8_t *buffer, size_t offset, uint16_t value) {
  buffer[offset] = static_cast<uint8_t>(value & 0xFF);
  buffer[offset + 1] = static_cast<uint8_t>(value >> 8);
}

// Clears the record's request buffer and writes the command word; the length
// field stays 0 as every administration request wants.
inline void BeginRequest(ChassisRecord *record, uint16_t command) {
  std::memset(record->requestBuffer, 0, sizeof record->requestBuffer);
  PutWord(record->requestBuffer, 0, command);
}

inline void ClearReply(ChassisRecord *record) {
  std::memset(record->replyBuffer, 0, sizeof record->replyBuffer);
}

// One exchange of the record's request (`bytes` long) into its reply buffer.
// Returns the count read or the exchange's negative status.
inline int32_t Exchange(ChassisRecord *record, int32_t bytes) {
  return SendRecvMsg(record->session, record->requestBuffer, bytes,
                     record->replyBuffer);
}

inline bool IsRk420Family(const ChassisRecord *record) {
  return record->modelTypeCode == QBVISA_TYPE_RK420 ||
         record->modelTypeCode == QBVISA_TYPE_RK420B;
}

// An RK420/RK420B older than 3.06 lacks the identity and serial-number
// commands in their current form.
inline bool FirmwareTooOld(const ChassisRecord *record) {
  return IsRk420Family(record) && !IsNewVer_3_06(record);
}

// Asks the chassis for its firmware version (command 11) and stores it in the
// record. `clearReply` also clears the reply buffer first. Returns 0 or the
// exchange's negative status.
int32_t RefreshFirmwareVersion(ChassisRecord *record, bool clearReply);

}  // namespace qbvisa::admin
