// diagnostics.cpp - the chassis's own checks: self-test, which boards answer,
// and the SPI loop-back of each chain of a slot.
#include <cstdio>
#include <cstring>
#include <optional>

#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"

namespace {

using namespace qbvisa;

constexpr uint64_t kMaxSlot = 2;           // slots 0..2
constexpr uint64_t kMaxBoardPosition = 3;  // board positions 0..3
constexpr uint32_t kFlagCount = 4;         // flags in reply bytes 2..5

constexpr uint8_t kBoardMissing = 0x01;
constexpr uint8_t kSpiLoopBroken = 0x02;

// Sends `command` (with a slot word when one is given) and checks that the
// reply is long enough to carry the `replyBytes` the caller reads: a shorter
// one would leave those bytes at the cleared buffer's zeros, which read as a
// clean result, so it counts as a failed read.
int32_t runDiagnostic(uint32_t session, uint16_t command, std::optional<uint64_t> slot,
                      int32_t replyBytes, ChassisRecord **record) {
  *record = lookUpChassis(session);
  if (*record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  ChassisRecord &chassis = **record;
  beginRequest(chassis, command);
  clearReply(chassis);
  int32_t bytes = kBareRequestBytes;
  if (slot) {
    putWord(chassis.requestBuffer, 4, static_cast<uint16_t>(*slot));
    bytes += 2;
  }
  const int32_t status = exchange(chassis, bytes);
  if (status < 0) {
    return status;
  }
  return status < replyBytes ? QBVISA_ERR_RECEIVE : 0;
}

void copyFlags(const ChassisRecord *record, int32_t *values, uint32_t *count) {
  for (uint32_t i = 0; i < kFlagCount; ++i) {
    values[i] = record->replyBuffer[2 + i];
  }
  *count = kFlagCount;
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_SelfTest(uint32_t session, uint64_t slot,
                                      char *text, uint64_t length) {
  if (slot > kMaxSlot || text == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status =
      runDiagnostic(session, kSelfTest, slot, 4, &record);
  if (status != 0) {
    return status;
  }
  const uint8_t flags = record->replyBuffer[2];
  const bool missing = (flags & kBoardMissing) != 0;
  const bool spiBroken = (flags & kSpiLoopBroken) != 0;
  char verdict[64];
  if (!missing && !spiBroken) {
    std::snprintf(verdict, sizeof verdict, "Self Test Pass");
  } else {
    std::snprintf(verdict, sizeof verdict, "Self Test Fail:%s%s",
                  missing ? " board missing" : "",
                  spiBroken ? " SPI loop broken" : "");
  }
  if (length != 0) {
    std::snprintf(text, length, "%s", verdict);
  }
  // A missing board explains a broken loop too, so it is the code reported.
  if (missing) {
    return QBVISA_ERR_CARD_IN_PLACE;
  }
  return spiBroken ? QBVISA_ERR_SPI_LOOP : 0;
}

QBVISA_EXPORT int32_t QBVISA_BoardInPlace(uint32_t session, uint64_t slot) {
  if (slot > kMaxBoardPosition) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status =
      runDiagnostic(session, kBoardInPlace, std::nullopt, 2 + kFlagCount, &record);
  if (status != 0) {
    return status;
  }
  return record->replyBuffer[2 + slot] != 0 ? 0 : QBVISA_ERR_CARD_IN_PLACE;
}

QBVISA_EXPORT int32_t QBVISA_BoardInPlaceInfo(uint32_t session,
                                              int32_t *values,
                                              uint32_t *count) {
  if (values == nullptr || count == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status =
      runDiagnostic(session, kBoardInPlace, std::nullopt, 2 + kFlagCount, &record);
  if (status != 0) {
    return status;
  }
  copyFlags(record, values, count);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SPILoopTestInfo(uint32_t session, uint64_t slot,
                                             int32_t *values,
                                             uint32_t *count) {
  if (slot > kMaxSlot || values == nullptr || count == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status =
      runDiagnostic(session, kSpiLoopTest, slot, 2 + kFlagCount, &record);
  if (status != 0) {
    return status;
  }
  copyFlags(record, values, count);
  return 0;
}

}  // extern "C"
