// Record lookup, model rules and request exchange shared by the calls that
// talk to one chassis.
#include "core/chassis_request.h"

#include <cstring>

#include "core/chassis_model.h"

namespace qbvisa {

ChassisRecord *lookUpChassis(uint32_t session) {
  ChassisRecord *record = nullptr;
  if (FindChassis(static_cast<int32_t>(session), &record) < 0) return nullptr;
  return record;
}

int32_t lookUpPortedChassis(uint32_t session, ChassisRecord **record) {
  *record = lookUpChassis(session);
  if (*record == nullptr) return QBVISA_ERR_HANDLE;
  if (!hasPortsAndControlMode(**record)) return QBVISA_ERR_NOT_SUPPORTED;
  return 0;
}

bool hasPortsAndControlMode(const ChassisRecord &record) {
  const ChassisModel *model = modelByType(record.modelTypeCode);
  return model != nullptr && model->hasPortsAndControlMode;
}

bool takesCards(const ChassisRecord &record) {
  return cardSlotModel(record.modelTypeCode) != nullptr;
}

bool firmwareTooOld(const ChassisRecord &record) {
  return takesCards(record) && !IsNewVer_3_06(&record);
}

uint64_t effectiveSlot(const ChassisRecord &record, uint64_t slot) {
  const ChassisModel *model = modelByType(record.modelTypeCode);
  return model != nullptr && model->singleBoard ? 0 : slot;
}

void putWord(uint8_t *buffer, size_t offset, uint16_t value) {
  buffer[offset] = static_cast<uint8_t>(value & 0xFF);
  buffer[offset + 1] = static_cast<uint8_t>(value >> 8);
}

void beginRequest(ChassisRecord &record, uint16_t command) {
  std::memset(record.requestBuffer, 0, sizeof record.requestBuffer);
  putWord(record.requestBuffer, 0, command);
}

void clearReply(ChassisRecord &record) {
  std::memset(record.replyBuffer, 0, sizeof record.replyBuffer);
}

int32_t exchange(ChassisRecord &record, int32_t bytes) {
  return SendRecvMsg(record.session, record.requestBuffer, bytes,
                     record.replyBuffer);
}

int32_t sendBareRequest(ChassisRecord &record, uint16_t command) {
  beginRequest(record, command);
  clearReply(record);
  return exchange(record, kBareRequestBytes);
}

int32_t refreshFirmwareVersion(ChassisRecord &record) {
  const int32_t status = sendBareRequest(record, kVersionQuery);
  if (status < 0) return status;
  const uint8_t *reply = record.replyBuffer;
  // Newer controllers of card-taking chassis report their version in bytes
  // 4/5 and leave the older 2/3 pair for the boot loader.
  const bool newForm =
      takesCards(record) && (reply[4] != 0 || reply[5] != 0);
  record.firmwareMajor = newForm ? reply[4] : reply[2];
  record.firmwareMinor = newForm ? reply[5] : reply[3];
  return 0;
}

int32_t refreshFirmwareVersionAndGate(ChassisRecord &record) {
  const int32_t refreshed = refreshFirmwareVersion(record);
  if (refreshed != 0) return refreshed;
  return firmwareTooOld(record) ? QBVISA_ERR_NOT_SUPPORTED : 0;
}

}  // namespace qbvisa
