// The relay-state frame from a caller's words through a table prepared once
// per slot: per closed point only the frame bits it closes are set, so a call
// costs about one table read per relay instead of a walk over every point and
// every relay of the board image.
#include "switching/prepared_frame.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <atomic>
#include <thread>

#include "core/chassis_model.h"
#include "locations/crosspoint_tables.h"
#include "switching/relay_frame.h"
#include "wiring/crosspoint_wiring.h"

namespace qbvisa {
namespace {

constexpr int kSlotsPerRecord = 3;
constexpr uint32_t kMaxPoints = static_cast<uint32_t>(kPointListBytes);
constexpr uint32_t kMaxWords = kMaxPoints / 32;
// Frame bits are kept as 16-bit numbers; one spare word past the payload
// takes the relays that never reach the frame.
constexpr uint32_t kMaxPayloadWords = 0xFFFF / kRelaysPerBitGroup - 1;
constexpr uint32_t kTableEntries = 1u << 16;
constexpr int kMaxRelaysPerPoint = 4;
constexpr size_t kLocationBytes = kLargestCrosspointTableBytes;

constexpr int kShortBoardWords = 13;
constexpr int kShortBoardGroup = 12;
constexpr int kShortBoardFirstDeadBit = 12;

// The record and model fields the table depends on.
struct SlotInputs {
  uint16_t modelTypeCode;
  uint32_t kind;
  int8_t subMatrixGroup[sizeof(SlotArea::subMatrixGroup)];
  uint16_t subMatrixCount, groupCount, wordsPerGroup, rowCount, columnCount,
      pointCount;
  bool operator==(const SlotInputs &) const = default;
};

SlotInputs inputsOf(const ChassisRecord &record) {
  const SlotArea &slot = record.slots[0];
  SlotInputs in{record.modelTypeCode, slot.matrixKind, {},
                slot.subMatrixCount, slot.groupCount, slot.wordsPerGroup,
                slot.rowCount, slot.columnCount, slot.pointCount};
  std::memcpy(in.subMatrixGroup, slot.subMatrixGroup, sizeof in.subMatrixGroup);
  return in;
}

struct PreparedSlot {
  std::atomic<bool> busy;  // held while a call builds or reads the entry
  bool built;   // inputs and locations hold what the entry was built from
  bool usable;  // the table covers these inputs
  SlotInputs inputs;
  // Rules of the model and kind the inputs name.
  bool ltRelays, deadBits;
  int32_t closureLimit;
  uint8_t locations[kLocationBytes];
  int stride;              // table entries per point
  uint32_t points;         // points the builder reads
  uint32_t payloadWords;   // frame words after the header
  // Fitted points outside the geometry: closing one ends the placing.
  uint32_t stops[kMaxWords];
  // Per point, `stride` frame bit numbers (payloadWords * 16: not sent).
  uint16_t where[kTableEntries];
};

// Calls switching one chassis from several threads take turns on its entry;
// calls on different chassis never meet here.
class EntryLock {
 public:
  explicit EntryLock(std::atomic<bool> &busy) : busy_(busy) {
    while (busy_.exchange(true, std::memory_order_acquire)) std::this_thread::yield();
  }
  ~EntryLock() { busy_.store(false, std::memory_order_release); }
  EntryLock(const EntryLock &) = delete;
  EntryLock &operator=(const EntryLock &) = delete;

 private:
  std::atomic<bool> &busy_;
};

// Beside the registry: one entry per usable record and slot.
PreparedSlot preparedSlots[QBVISA_USABLE_RECORDS][kSlotsPerRecord];

PreparedSlot *entryOf(const ChassisRecord &record) {
  const auto at = reinterpret_cast<uintptr_t>(&record);
  const auto base = reinterpret_cast<uintptr_t>(globalChassisInfo);
  if (at < base || at >= base + QBVISA_USABLE_RECORDS * sizeof(ChassisRecord) ||
      (at - base) % sizeof(ChassisRecord) != 0)
    return nullptr;
  return &preparedSlots[(at - base) / sizeof(ChassisRecord)][0];
}

bool locationsUnchanged(const PreparedSlot &entry) {
  size_t offset = 0;
  for (const LocationTableRef &table : crosspointLocationTables(entry.inputs.kind)) {
    if (std::memcmp(entry.locations + offset, table.at, table.bytes) != 0) return false;
    offset += table.bytes;
  }
  return true;
}

// Frame bit of the relay at (board, group, position) of the image, or
// `unsent` when the builder would drop it or the packing never reads it.
uint16_t frameBit(int board, int32_t group, int32_t position, int boards,
                  int words, bool deadBits, uint16_t unsent) {
  if (group < 0 || group >= words || position < 0 ||
      position >= kRelaysPerBitGroup || board >= boards)
    return unsent;
  if (deadBits && group == kShortBoardGroup &&
      position >= kShortBoardFirstDeadBit)
    return unsent;
  // The chassis takes a board's bit groups last first.
  return static_cast<uint16_t>((board * words + (words - 1 - group)) *
                                   kRelaysPerBitGroup +
                               position);
}

bool deadBitsOf(const SlotInputs &in) {
  const ChassisModel *kindModel = modelByKind(in.kind);
  return kindModel != nullptr && kindModel->shortBoardDeadBits &&
         in.wordsPerGroup == kShortBoardWords;
}

// Fills the table the way SetRelayStateDataType0 places points.
void build(PreparedSlot &entry, const SlotInputs &in) {
  entry.built = true;
  entry.usable = false;
  entry.inputs = in;
  const std::span<const LocationTableRef> tables = crosspointLocationTables(in.kind);
  size_t offset = 0;
  for (const LocationTableRef &table : tables) {
    std::memcpy(entry.locations + offset, table.at, table.bytes);
    offset += table.bytes;
  }
  const ChassisModel *kindModel = modelByKind(in.kind);
  if (tables.empty() || kindModel == nullptr) return;
  const ChassisModel *model = modelByType(in.modelTypeCode);
  entry.ltRelays = model != nullptr && model->hasLtRelays;
  entry.deadBits = deadBitsOf(in);
  entry.closureLimit =
      model != nullptr && model->closureLimit != 0 && kindModel->closureLimit != 0
          ? kindModel->closureLimit
          : INT32_MAX;
  const int boards = in.groupCount;
  const int words = in.wordsPerGroup;
  const uint32_t payload = static_cast<uint32_t>(boards * words);
  if (payload > kMaxPayloadWords) return;
  const auto anyRow = [](RowRange rows) { return rows != kNoRows; };
  const int stride = kindModel->rowBlocks
                         ? 2
                         : 2 + int{anyRow(kindModel->isoXRows)} +
                               int{anyRow(kindModel->isoCvRows)};
  const uint32_t points = std::min<uint32_t>(in.pointCount, kMaxPoints);
  if (points * static_cast<uint32_t>(stride) > kTableEntries) return;
  const uint16_t unsent = static_cast<uint16_t>(payload * kRelaysPerBitGroup);
  const bool deadBits = entry.deadBits;
  std::fill_n(entry.where, points * static_cast<uint32_t>(stride), unsent);
  std::fill_n(entry.stops, (points + 31) / 32, 0u);
  const uint32_t columns = in.columnCount;
  const uint32_t pointsPerRow = uint32_t{in.subMatrixCount} * columns;
  for (uint32_t p = 0; pointsPerRow != 0 && p < points; ++p) {
    const uint32_t row = p / pointsPerRow;
    const uint32_t inRow = p % pointsPerRow;
    const uint32_t sub = inRow / columns;
    if (sub >= sizeof in.subMatrixGroup) continue;
    const int board = in.subMatrixGroup[sub];
    if (board < 0 || board >= kImageBoards) continue;  // not fitted
    const uint32_t column = wiredColumn(model, inRow % columns);
    if (CheckPointParam(static_cast<int32_t>(row), static_cast<int32_t>(column),
                        0, in.rowCount, in.columnCount) != 0) {
      entry.stops[p / 32] |= 1u << (p % 32);
      continue;
    }
    const PointRelays relays =
        pointRelays(model, in.kind, in.wordsPerGroup, row, inRow % columns);
    if (relays.count > stride) return;
    for (int r = 0; r < relays.count; ++r)
      entry.where[p * static_cast<uint32_t>(stride) + r] =
          frameBit(board, relays.at[r].group, relays.at[r].position, boards,
                   words, deadBits, unsent);
  }
  entry.stride = stride;
  entry.points = points;
  entry.payloadWords = payload;
  entry.usable = true;
}

void refresh(PreparedSlot &entry, const ChassisRecord &record) {
  const SlotInputs in = inputsOf(record);
  if (!entry.built || !(entry.inputs == in) || !locationsUnchanged(entry))
    build(entry, in);
}

// Sets the frame bits of every closed point of `bits` (points first*32 on);
// *placed counts the points.
template <int Stride>
inline void place(const uint16_t *where, uint32_t first, uint32_t bits,
                  uint16_t *payload, uint32_t *placed) {
  uint32_t count = 0;
  while (bits != 0) {
    ++count;
    const uint32_t p = first + static_cast<uint32_t>(std::countr_zero(bits));
    bits &= bits - 1;
    const uint16_t *at = where + p * Stride;
    for (int r = 0; r < Stride; ++r)
      payload[at[r] >> 4] |= static_cast<uint16_t>(1u << (at[r] & 15u));
  }
  *placed += count;
}

// Places the closed points below `end`; true when a closed point outside
// the geometry ended the placing. *placed counts the points placed.
template <int Stride>
bool placeAll(const PreparedSlot &entry, const uint32_t *array, uint32_t end,
              uint16_t *payload, uint32_t *placed) {
  const uint32_t full = end / 32;
  const uint32_t rest = end % 32;
  for (uint32_t i = 0; i < full + (rest != 0 ? 1 : 0); ++i) {
    uint32_t bits = array[i];
    if (i == full) bits &= (1u << rest) - 1u;
    const uint32_t stop = bits & entry.stops[i];
    if (stop != 0) {
      // The points before the first closed one outside the geometry go out.
      const uint32_t before = (1u << std::countr_zero(stop)) - 1u;
      place<Stride>(entry.where, i * 32, bits & before, payload, placed);
      return true;
    }
    place<Stride>(entry.where, i * 32, bits, payload, placed);
  }
  return false;
}

uint32_t countClosed(const uint16_t *payload, uint32_t words) {
  uint32_t closed = 0;
  uint32_t w = 0;
  for (; w + 4 <= words; w += 4) {
    uint64_t four;
    std::memcpy(&four, payload + w, sizeof four);
    closed += static_cast<uint32_t>(std::popcount(four));
  }
  for (; w < words; ++w) closed += static_cast<uint32_t>(std::popcount(payload[w]));
  return closed;
}

}  // namespace

int32_t buildPreparedFrame(ChassisRecord &record, const uint32_t *array,
                           uint32_t words, uint16_t *frame,
                           int32_t *frameBytes) {
  PreparedSlot *entry = entryOf(record);
  if (entry == nullptr) return kNotPrepared;
  const SlotArea &slot = record.slots[0];
  // As the point-by-point path: a geometry larger than the image cannot be
  // sent.
  if (slot.groupCount > kImageBoards || slot.wordsPerGroup > kBitGroupsPerBoard)
    return QBVISA_ERR_PARAMETER;
  const EntryLock guard(entry->busy);
  refresh(*entry, record);
  if (!entry->usable) return kNotPrepared;

  const uint32_t payloadWords = entry->payloadWords;
  uint16_t *payload = frame + kFrameHeaderWords;
  std::memset(payload, 0, (payloadWords + 1) * sizeof *payload);
  // The caller's words up to the slot's limit; none leaves every point open.
  const uint32_t count =
      words == 0 ? 0
                 : std::min({uint32_t{slot.arrayWordLimit}, words,
                             uint32_t{INT32_MAX}, kMaxWords});
  const uint32_t end = std::min(entry->points, count * 32);
  bool stopped = false;
  uint32_t placed = 0;
  switch (entry->stride) {
    case 2: stopped = placeAll<2>(*entry, array, end, payload, &placed); break;
    case 3: stopped = placeAll<3>(*entry, array, end, payload, &placed); break;
    default: stopped = placeAll<4>(*entry, array, end, payload, &placed); break;
  }
  uint32_t mostClosed = placed * static_cast<uint32_t>(entry->stride);
  if (!stopped && entry->ltRelays) {
    // The LT relays sit on the first board, after the points.
    const bool deadBits = entry->deadBits;
    const uint16_t unsent = static_cast<uint16_t>(payloadWords * kRelaysPerBitGroup);
    const uint16_t ltCount =
        std::min<uint16_t>(slot.ltIsolationCount, sizeof slot.ltIsolationState);
    for (uint16_t j = 0; j < ltCount; ++j) {
      if (slot.ltIsolationState[j] != 1) continue;
      RelayPosition where{-1, -1};
      GetPoint(slot.matrixKind, ISO_LT, j, 0, &where);
      const uint16_t bit =
          frameBit(0, where.group, where.position, slot.groupCount,
                   slot.wordsPerGroup, deadBits, unsent);
      payload[bit >> 4] |= static_cast<uint16_t>(1u << (bit & 15u));
      ++mostClosed;
    }
  }
  // Relays are counted only when the points placed could pass the limit.
  const auto limit = static_cast<uint32_t>(entry->closureLimit);
  if (mostClosed > limit && countClosed(payload, payloadWords) > limit)
    return QBVISA_ERR_CLOSURE_LIMIT;
  frame[0] = kRelayStateCommand;
  frame[1] = static_cast<uint16_t>(payloadWords * 2);
  *frameBytes = static_cast<int32_t>((payloadWords + kFrameHeaderWords) * 2);
  return 0;
}

void prepareSlotFrame(ChassisRecord &record) {
  PreparedSlot *entry = entryOf(record);
  if (entry == nullptr) return;
  const EntryLock guard(entry->busy);
  refresh(*entry, record);
}

int32_t sendRelayFrame(ChassisRecord &record, uint16_t *frame,
                       int32_t frameBytes, uint32_t locked) {
  // A short reply must not be judged on what an earlier exchange left.
  std::memset(record.replyBuffer, 0, sizeof record.replyBuffer);
  const int32_t status =
      locked != 0
          ? SendRecvMsgLock(record.session, frame, frameBytes,
                            record.replyBuffer)
          : SendRecvMsg(record.session, reinterpret_cast<uint8_t *>(frame),
                        frameBytes, record.replyBuffer);
  if (status < 0) return status;
  // Under front-panel control a model with a front panel refuses relay
  // frames this way.
  const ChassisModel *model = modelByType(record.modelTypeCode);
  if (model != nullptr && model->hasPortsAndControlMode &&
      record.replyBuffer[0] == 0xFF)
    return QBVISA_ERR_CONTROL_MODE_CONFLICT;
  return 0;
}

}  // namespace qbvisa
