// settings.cpp - how a chassis is reached: network address, GPIB address,
// serial baud rate and LAN addressing mode. All but the network address exist
// only on the models that carry these ports (see the model table).
#include <pthread.h>

#include <cstdio>

#include "core/chassis_request.h"
#include "core/visa_api.h"
#include "qbvisa_lowlevel.h"

namespace {

using namespace qbvisa;

// Sends a bare query (4 bytes) to a chassis with ports and leaves the answer in the
// record's reply buffer.
int32_t queryPortedChassis(uint32_t session, uint16_t command, ChassisRecord **record) {
  const int32_t found = lookUpPortedChassis(session, record);
  if (found != 0) {
    return found;
  }
  beginRequest(**record, command);
  const int32_t status = exchange(**record, kBareRequestBytes);
  return failureOrZero(status);
}

// Sends one 16-bit setting word (6 bytes) to a chassis with ports.
int32_t setPortedWord(uint32_t session, uint16_t command, uint16_t value) {
  ChassisRecord *record = nullptr;
  const int32_t found = lookUpPortedChassis(session, &record);
  if (found != 0) {
    return found;
  }
  beginRequest(*record, command);
  putWord(record->requestBuffer, 4, value);
  const int32_t status = exchange(*record, 6);
  return failureOrZero(status);
}

bool isSupportedBaudRate(uint32_t rate) {
  switch (rate) {
    case 9600:
    case 19200:
    case 38400:
    case 57600:
    case 115200:
      return true;
    default:
      return false;
  }
}

// Holds the settings mutex for one scope, so that every return releases it.
class SettingsLock {
 public:
  SettingsLock() { pthread_mutex_lock(&mutex); }
  ~SettingsLock() { pthread_mutex_unlock(&mutex); }
  SettingsLock(const SettingsLock &) = delete;
  SettingsLock &operator=(const SettingsLock &) = delete;
};

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_SetIPAddress(uint32_t session, const char *ip) {
  if (ip == nullptr || !validIPAddress(ip)) {
    return QBVISA_ERR_BAD_IP;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  beginRequest(*record, kSetNetworkAddress);
  const uint32_t address = toInt(ip);
  const uint16_t a = address >> 24;
  const uint16_t b = (address >> 16) & 0xFF;
  const uint16_t c = (address >> 8) & 0xFF;
  const uint16_t d = address & 0xFF;
  // The gateway is always the .1 host of the address's own network; the
  // chassis offers no separate gateway setting.
  const uint16_t words[] = {a, b, c, d, a, b, c, 1};
  for (size_t i = 0; i < 8; ++i) {
    putWord(record->requestBuffer, 4 + 2 * i, words[i]);
  }
  const int32_t status = exchange(*record, 20);
  if (status < 0) {
    return status;
  }
  // A chassis with ports takes the address at once.
  if (hasPortsAndControlMode(*record)) {
    return 0;
  }
  // The other models hold a new address until told to apply it. Their answer
  // to the apply command carries nothing the caller could act on.
  beginRequest(*record, kApplySettings);
  (void)exchange(*record, kCommandWordOnlyBytes);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetCOMMIPAddr(uint32_t session, char *text) {
  if (text == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status = queryPortedChassis(session, kGetNetworkAddress, &record);
  if (status != 0) {
    return status;
  }
  const uint8_t *reply = record->replyBuffer;
  // "255.255.255.255" and its NUL fill the 16 bytes the caller provides.
  std::snprintf(text, 16, "%d.%d.%d.%d", reply[2], reply[4], reply[6],
                reply[8]);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SetGPIBAddress(uint32_t session,
                                            uint32_t address) {
  if (address == 0 || address > 30) {
    return QBVISA_ERR_GPIB_ADDRESS;
  }
  return setPortedWord(session, kSetGpibAddress, address & 0xFF);
}

QBVISA_EXPORT int32_t QBVISA_GetGPIBAddress(uint32_t session,
                                            uint32_t *address) {
  if (address == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status = queryPortedChassis(session, kGetGpibAddress, &record);
  if (status != 0) {
    return status;
  }
  *address = record->replyBuffer[2];
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SetBaudRate(uint32_t session, uint32_t rate) {
  // Held across the exchange and the host-side change so that no other user
  // of the settings mutex talks to the chassis while the line speed changes.
  // Every return releases it, a refused rate or session included: a caller
  // that passed a bad rate must not block every later caller for good.
  SettingsLock lock;
  if (!isSupportedBaudRate(rate)) {
    return QBVISA_ERR_BAUDRATE;
  }
  ChassisRecord *record = nullptr;
  const int32_t found = lookUpPortedChassis(session, &record);
  if (found != 0) {
    return found;
  }
  beginRequest(*record, kSetBaudRate);
  putWord(record->requestBuffer, 4, rate & 0xFFFF);
  putWord(record->requestBuffer, 6, rate >> 16);
  const int32_t status = exchange(*record, 8);
  if (status < 0) {
    return status;
  }
  // The chassis now answers at the new rate; the host side has to follow.
  // A transport without a baud rate (LAN, USB) refuses the attribute, which
  // is fine.
  (void)viSetAttribute(record->session, VI_ATTR_ASRL_BAUD, rate);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetBaudRate(uint32_t session, uint32_t *rate) {
  if (rate == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status = queryPortedChassis(session, kGetBaudRate, &record);
  if (status != 0) {
    return status;
  }
  const uint8_t *reply = record->replyBuffer;
  *rate = static_cast<uint32_t>(reply[2]) |
          static_cast<uint32_t>(reply[3]) << 8 |
          static_cast<uint32_t>(reply[4]) << 16 |
          static_cast<uint32_t>(reply[5]) << 24;
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SetLANMode(uint32_t session, uint32_t mode) {
  if (mode > 1) {
    return QBVISA_ERR_LAN_MODE;
  }
  const int32_t status = setPortedWord(session, kSetLanMode, mode);
  if (status != 0) {
    return status;
  }
  // The chassis restarts its network port; it takes no request meanwhile.
  SLEEP(6000);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_GetLANMode(uint32_t session, uint32_t *mode) {
  if (mode == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = nullptr;
  const int32_t status = queryPortedChassis(session, kGetLanMode, &record);
  if (status != 0) {
    return status;
  }
  *mode = record->replyBuffer[2];
  return 0;
}

}  // extern "C"
