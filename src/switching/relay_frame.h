// Sizes of the work areas of one switching call. Callers of OpMatrix's
// pieces (SendRelayStateType0, UserArrayToMatrixPoints) size their buffers
// with these.
#ifndef QBVISA_SWITCHING_RELAY_FRAME_H
#define QBVISA_SWITCHING_RELAY_FRAME_H

#include <cstddef>
#include <cstdint>

#include "qbvisa_lowlevel.h"

namespace qbvisa {

// Most relays slot 0's frame may close at once (the chassis's power budget),
// counted on what is sent; INT32_MAX where the model sets no limit.
int32_t slotClosureLimit(const ChassisRecord &record);

// Relay image: 25 boards of 200 bit groups of 16 relays, one byte a relay.
inline constexpr int kImageBoards = 25;
inline constexpr int kBitGroupsPerBoard = 200;
inline constexpr int kRelaysPerBitGroup = 16;
inline constexpr int kBoardBytes = kBitGroupsPerBoard * kRelaysPerBitGroup;
inline constexpr std::size_t kRelayImageBytes =
    static_cast<std::size_t>(kImageBoards) * kBoardBytes;

// Point list: one byte per matrix point; the largest matrix has
// 32256 points.
inline constexpr std::size_t kPointListBytes = 40000;

// Relay-state frame: command word, length word, then one word per bit
// group of every board. Sized for the whole image, because the largest frame
// (21 boards x 49 words) is already larger than the record's request buffer.
inline constexpr uint16_t kRelayStateCommand = 19;
inline constexpr std::size_t kFrameHeaderWords = 2;
inline constexpr std::size_t kRelayFrameWords =
    kFrameHeaderWords +
    static_cast<std::size_t>(kImageBoards) * kBitGroupsPerBoard;

}  // namespace qbvisa

#endif  // QBVISA_SWITCHING_RELAY_FRAME_H
