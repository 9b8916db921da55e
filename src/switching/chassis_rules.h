// Model facts that opening, clearing and switching all decide on.
#ifndef QBVISA_SWITCHING_CHASSIS_RULES_H
#define QBVISA_SWITCHING_CHASSIS_RULES_H

#include <cstdint>

#include "qbvisa_lowlevel.h"

namespace qbvisa {

// The RK420 and RK420B take plug-in cards in slots 1 and 2.
inline bool isRk420Family(const ChassisRecord &record) {
  return record.modelTypeCode == QBVISA_TYPE_RK420 ||
         record.modelTypeCode == QBVISA_TYPE_RK420B;
}

// These chassis carry one matrix board only, so any slot a caller names
// means slot 0. The RK423B keeps the slot it is given, as it always has.
inline uint64_t effectiveSlot(const ChassisRecord &record, uint64_t slot) {
  switch (record.modelTypeCode) {
    case QBVISA_TYPE_RK421:
    case QBVISA_TYPE_RK422:
    case QBVISA_TYPE_RK423:
      return 0;
    default:
      return slot;
  }
}

// Bare request: command word, zero length field, no payload.
inline constexpr int32_t kBareRequestBytes = 4;

}  // namespace qbvisa

#endif  // QBVISA_SWITCHING_CHASSIS_RULES_H
