// prepared_frame.h - the relay-state frame built straight from a caller's
// words, through a point-to-frame-bit table prepared once per slot.
//
// Each usable chassis record (0..4) and slot has one entry in a fixed table
// beside the registry. An entry remembers every input it was built from (the
// model, the slot's geometry and fitted sub-matrices, the location tables of
// the slot's kind) and is rebuilt as soon as any of them differs, so a frame
// built from it is always the one the point-by-point builder
// (SetRelayStateDataType0 and the packing in SendRelayStateType0) gives.
#pragma once

#include <cstdint>

#include "qbvisa_lowlevel.h"

namespace qbvisa {

// buildPreparedFrame's answer when the slot has no usable table (a record
// outside the registry's usable part, a kind or geometry the table does not
// cover): the caller takes the point-by-point path.
inline constexpr int32_t kNotPrepared = 1;

// Builds slot 0's frame for `array` (`words` words) into `frame`
// (kRelayFrameWords words) and sets *frameBytes. Returns 0, kNotPrepared, or
// the code the point-by-point path gives before anything is sent
// (-10038 for a geometry larger than the frame, -10030 over the closure
// limit). Nothing is allocated; the entry is locked while it is used.
int32_t buildPreparedFrame(ChassisRecord &record, const uint32_t *array,
                           uint32_t words, uint16_t *frame,
                           int32_t *frameBytes);

// Builds slot 0's table ahead of the first switching call (slot bring-up),
// so that call pays nothing extra. Never needed for correctness.
void prepareSlotFrame(ChassisRecord &record);

// Sends a built frame and judges the reply, as SendRelayStateType0 does.
int32_t sendRelayFrame(ChassisRecord &record, uint16_t *frame,
                       int32_t frameBytes, uint32_t locked);

}  // namespace qbvisa
