// The chassis registry and the library's other process-wide state.
#include "qbvisa_lowlevel.h"

extern "C" {

QBVISA_EXPORT ChassisRecord globalChassisInfo[QBVISA_RECORD_COUNT];

QBVISA_EXPORT uint32_t defaultRM = 0;
QBVISA_EXPORT uint8_t first_findrsc = 1;
QBVISA_EXPORT QBVISA_ResourceEntry tmp[5];
QBVISA_EXPORT uint8_t currentOpSwitch = 0;
// Initialised again by every QBVISA_Connect; usable before the first one.
QBVISA_EXPORT pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

// Kept so that programs built against older releases still link.
QBVISA_EXPORT int32_t LXICHASSIS = 0;
QBVISA_EXPORT int32_t chassisThreads = 0;
QBVISA_EXPORT int32_t fdtmp = -1;
QBVISA_EXPORT int32_t devicecount420 = 0;
QBVISA_EXPORT int32_t devicecount421 = 0;
QBVISA_EXPORT int32_t devicecount422 = 0;
QBVISA_EXPORT int32_t devicecount423 = 0;
QBVISA_EXPORT int32_t MATRIXARRAYSIZE = 0;

QBVISA_EXPORT int32_t FindChassis(int32_t session, ChassisRecord **record) {
  // Session 0 marks an idle record, so it never names a chassis.
  if (session == 0) return QBVISA_ERR_HANDLE;
  for (int32_t i = 0; i < QBVISA_USABLE_RECORDS; ++i) {
    if (globalChassisInfo[i].session == static_cast<uint32_t>(session)) {
      if (record != nullptr) *record = &globalChassisInfo[i];
      return i;
    }
  }
  return QBVISA_ERR_HANDLE;
}

QBVISA_EXPORT int32_t FindIdleChassis(void) {
  for (int32_t i = 0; i < QBVISA_USABLE_RECORDS; ++i) {
    if (globalChassisInfo[i].session == 0) return i;
  }
  return QBVISA_ERR_HANDLE;
}

}  // extern "C"
