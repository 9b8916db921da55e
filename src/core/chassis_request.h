// chassis_request.h - what every call that talks to one chassis is built
// from: finding its record, the model rules, requests sent from the record's
// own buffers, and the firmware version query. Internal to the library
// (hidden visibility): nothing here is part of the C interface.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "qbvisa_lowlevel.h"

namespace qbvisa {

// Version and device-summary texts are handed out in 10-byte slots.
inline constexpr size_t kVersionTextSize = 10;
// The largest chassis has 21 card positions: with the controller's own entry
// no version list is longer than 22 slots, which bounds what the library
// writes into a caller's list.
inline constexpr size_t kMaxCardPositions = 21;
inline constexpr size_t kMaxVersionSlots = kMaxCardPositions + 1;

// Command codes (u16 at offset 0 of a request).
inline constexpr uint16_t kSetChassisSerial = 2;
inline constexpr uint16_t kGetControlMode = 5;
inline constexpr uint16_t kSetControlMode = 6;
inline constexpr uint16_t kIdentityQuery = 8;
inline constexpr uint16_t kPresenceQuery = 10;
inline constexpr uint16_t kVersionQuery = 11;
inline constexpr uint16_t kSetNetworkAddress = 13;
inline constexpr uint16_t kApplySettings = 14;
inline constexpr uint16_t kCardTypeQuery = 17;
inline constexpr uint16_t kSetGpibAddress = 20;
inline constexpr uint16_t kSetBaudRate = 21;
inline constexpr uint16_t kGetGpibAddress = 22;
inline constexpr uint16_t kGetBaudRate = 23;
inline constexpr uint16_t kGetNetworkAddress = 24;
inline constexpr uint16_t kGetLanMode = 25;
inline constexpr uint16_t kSetCardSerialBase = 31;  // + slot 1..6
inline constexpr uint16_t kSetLanMode = 48;
inline constexpr uint16_t kSecondVersionQuery = 49;
inline constexpr uint16_t kSelfTest = 80;
inline constexpr uint16_t kBoardInPlace = 81;
inline constexpr uint16_t kSpiLoopTest = 82;
inline constexpr uint16_t kUpdateBegin = 96;
inline constexpr uint16_t kUpdateData = 97;
inline constexpr uint16_t kUpdateEnd = 98;
// Slot 2 has a presence query of its own (bytes 0C 04 00 00 on the wire).
inline constexpr uint16_t kSlot2PresenceQuery = 0x040C;

// Bytes sent for a request that is only the command word and the length field.
inline constexpr int32_t kBareRequestBytes = 4;
// Bytes sent for command 14, which the chassis takes as the command word alone.
inline constexpr int32_t kCommandWordOnlyBytes = 2;

// The record of an open session, or nullptr when no record holds it.
ChassisRecord *lookUpChassis(uint32_t session);

// As lookUpChassis, for the calls that only a model with a front panel and
// its own ports takes. Returns 0 with `*record` set, or QBVISA_ERR_HANDLE /
// QBVISA_ERR_NOT_SUPPORTED.
int32_t lookUpPortedChassis(uint32_t session, ChassisRecord **record);

// The record's model has a front panel, its own ports and a control mode.
bool hasPortsAndControlMode(const ChassisRecord &record);

// The record's model takes plug-in cards in slots 1 and 2.
bool takesCards(const ChassisRecord &record);

// A card-taking chassis older than 3.06 lacks the identity and
// serial-number commands in their current form.
bool firmwareTooOld(const ChassisRecord &record);

// Single-board models carry one matrix board only, so any slot a caller
// names means slot 0.
uint64_t effectiveSlot(const ChassisRecord &record, uint64_t slot);

// Little-endian 16-bit word at `offset`.
void putWord(uint8_t *buffer, size_t offset, uint16_t value);

// Clears the record's request buffer and writes the command word; the length
// field stays 0, as every request sent from this buffer wants. The reply
// buffer is left as it is: some calls read on from what it holds.
void beginRequest(ChassisRecord &record, uint16_t command);

void clearReply(ChassisRecord &record);

// One exchange of the record's request (`bytes` long) into its reply buffer.
// Returns the count read or the exchange's negative status.
int32_t exchange(ChassisRecord &record, int32_t bytes);

// The exported calls answer 0 for any reply count, or the failure code.
inline int32_t failureOrZero(int32_t status) { return std::min(status, 0); }

// A request without payload, with both buffers cleared first so that a
// short reply cannot be read together with what an earlier exchange left.
// Returns the count read or the exchange's negative status.
int32_t sendBareRequest(ChassisRecord &record, uint16_t command);

// Asks the chassis for its firmware version (command 11, both buffers
// cleared) and stores it in the record. Returns 0 or the exchange's negative
// status, leaving the record's version as it was on failure.
int32_t refreshFirmwareVersion(ChassisRecord &record);

// The refresh followed at once by the firmware gate: 0, the exchange's
// status, or -10020 for a card-taking chassis older than 3.06.
int32_t refreshFirmwareVersionAndGate(ChassisRecord &record);

}  // namespace qbvisa
