// Finding the chassis reachable through VISA and handing out their sessions.
#include <cstring>

#include "core/chassis_model.h"
#include "core/visa_api.h"
#include "qbvisa_lowlevel.h"

namespace {

constexpr char kSearchExpression[] = "(GPIB|USB|ASRL|TCPIP)?*INSTR";
constexpr char kIdentityQuery[] = "*IDN?\n";
constexpr ViUInt32 kIdentityQueryLength = sizeof kIdentityQuery - 1;
constexpr size_t kNameSize = 64;

// Serial chassis leave the factory at 115200; the others are tried after.
constexpr ViAttrState kSerialRates[] = {115200, 9600, 19200, 38400, 57600};

// The identity reply ("maker ,model ,serial,firmware") and its two fields.
struct Identity {
  char reply[QBVISA_REPLY_SIZE + 1];
  char maker[QBVISA_REPLY_SIZE + 1];
  char model[QBVISA_REPLY_SIZE + 1];
};

// Copies [begin, end) and drops its last character: the chassis put a blank
// before each comma, and only a field written that way names a model.
void copyCutField(const char *begin, const char *end, char *field) {
  const size_t length = static_cast<size_t>(end - begin);
  std::memcpy(field, begin, length);
  field[length > 0 ? length - 1 : 0] = '\0';
}

// Splits the reply read into identity->reply; false when it has no comma,
// so no maker field that could be accepted. With a single comma the model
// runs to the reply's end.
bool splitIdentity(Identity *identity, ViUInt32 count) {
  identity->reply[count] = '\0';
  const char *firstComma = std::strchr(identity->reply, ',');
  if (firstComma == nullptr) return false;
  copyCutField(identity->reply, firstComma, identity->maker);
  const char *modelBegin = firstComma + 1;
  const char *secondComma = std::strchr(modelBegin, ',');
  const char *modelEnd = secondComma != nullptr
                             ? secondComma
                             : modelBegin + std::strlen(modelBegin);
  copyCutField(modelBegin, modelEnd, identity->model);
  return true;
}

bool acceptedMaker(const char *maker) {
  return std::strcmp(maker, "QB") == 0 || std::strcmp(maker, "Quelbrink") == 0;
}


// Sends "*IDN?" and reads the answer; false when either transfer fails or
// the answer names no maker.
bool queryIdentity(ViSession session, Identity *identity, bool *writeFailed) {
  ViUInt32 count = 0;
  *writeFailed = viWrite(session, reinterpret_cast<const ViByte *>(kIdentityQuery),
                         kIdentityQueryLength, &count) < VI_SUCCESS;
  if (*writeFailed) return false;
  count = 0;
  if (viRead(session, reinterpret_cast<ViByte *>(identity->reply),
             QBVISA_REPLY_SIZE, &count) < VI_SUCCESS)
    return false;
  return splitIdentity(identity, count > QBVISA_REPLY_SIZE ? QBVISA_REPLY_SIZE : count);
}

// Serial chassis answer at one rate only. Returns the rate at which a maker
// we serve answered, or 0 when none did.
ViAttrState findSerialRate(ViSession session, Identity *identity) {
  viSetAttribute(session, VI_ATTR_ASRL_END_IN, VI_ASRL_END_NONE);
  for (ViAttrState rate : kSerialRates) {
    if (viSetAttribute(session, VI_ATTR_ASRL_BAUD, rate) < VI_SUCCESS) continue;
    viFlush(session, VI_READ_BUF_DISCARD);
    bool writeFailed = false;
    if (!queryIdentity(session, identity, &writeFailed)) {
      if (writeFailed) return 0;
      continue;
    }
    if (acceptedMaker(identity->maker)) return rate;
  }
  return 0;
}

// Copies at most 64 bytes and zero-fills the rest; a name of 64 characters
// is kept without a terminator, as the resource list has always carried it.
void copyName(char *destination, const char *source) {
  const size_t length = strnlen(source, kNameSize);
  std::memcpy(destination, source, length);
  std::memset(destination + length, 0, kNameSize - length);
}

bool sameName(const char *stored, const char *wanted) {
  const size_t storedLength = strnlen(stored, kNameSize);
  return std::strlen(wanted) == storedLength &&
         std::memcmp(stored, wanted, storedLength) == 0;
}

void fillModel(ChassisRecord *record, const qbvisa::ChassisModel &row) {
  record->reportedTypeCode = row.typeCode;
  record->modelTypeCode = row.typeCode;
  record->slotCount = row.slotCount;
  record->slots[0].subMatrixCount = row.subMatrixCount;
  record->slots[0].matrixKind = row.slot0Kind;
  if (row.slot2Kind != 0) {
    record->slots[1].subMatrixCount = 1;
    record->slots[2].subMatrixCount = 1;
    record->slots[2].matrixKind = row.slot2Kind;
  }
}

void resetSlots(ChassisRecord *record) {
  for (SlotArea &slot : record->slots) {
    std::memset(slot.cardPresent, 0xFF, sizeof slot.cardPresent);
    std::memset(slot.subMatrixGroup, 0xFF, sizeof slot.subMatrixGroup);
    std::memset(slot.ltIsolationState, 0xFF, sizeof slot.ltIsolationState);
  }
  std::memset(record->scpiReply, 0, sizeof record->scpiReply);
  record->connectedFlag = 1;
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_FindRsrc(QBVISA_ResourceEntry *list,
                                      uint32_t *count) {
  // Refused before any VISA call, so a bad call leaves the registry as it was.
  if (list == nullptr || count == nullptr) return QBVISA_ERR_PARAMETER;
  *count = 0;
  if (defaultRM != 0) {
    viClose(defaultRM);
    defaultRM = 0;
  }
  ViSession manager = 0;
  const ViStatus openStatus = viOpenDefaultRM(&manager);
  if (openStatus < VI_SUCCESS) {
    if (manager != 0) viClose(manager);
    return openStatus;
  }
  defaultRM = manager;

  ViFindList found = 0;
  ViUInt32 resourceCount = 0;
  ViChar resource[VI_FIND_BUFLEN] = {};
  if (viFindRsrc(defaultRM, kSearchExpression, &found, &resourceCount,
                 resource) < VI_SUCCESS)
    return QBVISA_SUCCESS;

  Identity identity;
  for (ViUInt32 i = 0; i < resourceCount; ++i) {
    // Lookups reach records 0..4 only and QBVISA_Connect's own list holds
    // five entries, so a sixth chassis is left unopened: no record past
    // the usable ones and no list entry past the fifth is ever written.
    if (*count >= QBVISA_USABLE_RECORDS) break;
    if (i > 0 && viFindNext(found, resource) < VI_SUCCESS) break;

    ViSession session = 0;
    if (viOpen(defaultRM, resource, VI_NULL, VI_NULL, &session) < VI_SUCCESS)
      continue;

    ViAttrState serialRate = 0;
    if (std::strncmp(resource, "ASRL", 4) == 0) {
      serialRate = findSerialRate(session, &identity);
      // Silent, another maker's, or a failed write: whatever answered (or
      // not) at the rates tried, close it and go on with the next resource.
      if (serialRate == 0) {
        viClose(session);
        continue;
      }
    } else {
      bool writeFailed = false;
      if (!queryIdentity(session, &identity, &writeFailed) ||
          !acceptedMaker(identity.maker)) {
        viClose(session);
        continue;
      }
    }

    ChassisRecord *record = &globalChassisInfo[*count];
    record->session = session;
    copyName(record->resourceName, resource);
    copyName(record->modelName, identity.model);
    record->connectedFlag = 0;
    const qbvisa::ChassisModel *row = qbvisa::modelByName(identity.model);
    // Discovery ends here; the chassis counted so far stay registered and
    // this one's session stays open in its record.
    if (row == nullptr) {
      viClose(found);
      return QBVISA_ERR_NOT_SUPPORTED;
    }
    fillModel(record, *row);
    if (serialRate != 0) record->baudRate = static_cast<uint32_t>(serialRate);
    ++*count;
  }
  viClose(found);

  for (uint32_t i = 0; i < *count; ++i) {
    copyName(list[i].resourceName, globalChassisInfo[i].resourceName);
    list[i].typeCode = globalChassisInfo[i].reportedTypeCode;
  }
  first_findrsc = 0;
  return QBVISA_SUCCESS;
}

QBVISA_EXPORT int32_t QBVISA_Connect(const char *resourceName,
                                     uint32_t *session) {
  if (resourceName == nullptr || session == nullptr)
    return QBVISA_ERR_PARAMETER;
  pthread_mutex_init(&mutex, nullptr);
  if (first_findrsc != 0) {
    uint32_t found = 0;
    const int32_t status = QBVISA_FindRsrc(tmp, &found);
    if (status < 0) return status;
  }
  for (ChassisRecord *record = globalChassisInfo;
       record < globalChassisInfo + QBVISA_USABLE_RECORDS; ++record) {
    // A record never filled has no name; an empty name must not select it.
    if (record->session == 0 || !sameName(record->resourceName, resourceName))
      continue;
    *session = record->session;
    if (record->connectedFlag != 1) resetSlots(record);
    return QBVISA_SUCCESS;
  }
  return QBVISA_ERR_RESOURCE_NOT_PRESENT;
}

}  // extern "C"
