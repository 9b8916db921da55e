// Switching end to end on the simulated bench: a caller's bit array in, the
// relays the chassis reports closed out, and the exact frames in between.
#include <gtest/gtest.h>

#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"
#include "switching/relay_frame.h"
#include "switching_bench.hpp"

// Allocation watch: every malloc and operator new of this process is seen
// here; those called from the library's own code are counted. Sanitizer
// builds bring their own allocator and go without it.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define QBVISA_WATCH_ALLOCATIONS 1
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *block, size_t size);

namespace allocation_watch {
std::atomic<uintptr_t> codeBegin{0}, codeEnd{0};
std::atomic<int> fromLibrary{0};

void note(const void *caller) {
  const auto at = reinterpret_cast<uintptr_t>(caller);
  if (at >= codeBegin.load() && at < codeEnd.load()) ++fromLibrary;
}

// The executable segment of the object that holds QBVISA_OpMatrix.
void findLibraryCode() {
  dl_iterate_phdr(
      [](dl_phdr_info *info, size_t, void *) -> int {
        const auto target = reinterpret_cast<uintptr_t>(&QBVISA_OpMatrix);
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr) &h = info->dlpi_phdr[i];
          const uintptr_t begin = info->dlpi_addr + h.p_vaddr;
          if (h.p_type == PT_LOAD && (h.p_flags & PF_X) && target >= begin &&
              target < begin + h.p_memsz) {
            codeBegin = begin;
            codeEnd = begin + h.p_memsz;
            return 1;
          }
        }
        return 0;
      },
      nullptr);
}
}  // namespace allocation_watch

extern "C" void *malloc(size_t size) noexcept {
  allocation_watch::note(__builtin_return_address(0));
  return __libc_malloc(size);
}
extern "C" void *calloc(size_t count, size_t size) noexcept {
  allocation_watch::note(__builtin_return_address(0));
  return __libc_calloc(count, size);
}
extern "C" void *realloc(void *block, size_t size) noexcept {
  allocation_watch::note(__builtin_return_address(0));
  return __libc_realloc(block, size);
}
void *operator new(size_t size) {
  allocation_watch::note(__builtin_return_address(0));
  if (void *block = __libc_malloc(size != 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
void *operator new[](size_t size) {
  allocation_watch::note(__builtin_return_address(0));
  if (void *block = __libc_malloc(size != 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
#endif

namespace {

using qbsim::Model;
using qbsim::Relay;
using qbtest::Connection;

struct Point {
  uint32_t row, sub, column;
};

std::vector<uint32_t> wordsOf(const Connection &c,
                              const std::vector<Point> &points) {
  const SlotArea &slot = c.record->slots[0];
  std::vector<uint32_t> indices;
  for (const Point &p : points)
    indices.push_back(qbtest::pointIndex(slot, p.row, p.sub, p.column));
  return qbtest::wordsFor(indices, slot.arrayWordLimit);
}

std::vector<uint32_t> patternWords(const Connection &c, uint32_t modulus,
                                   uint32_t residue) {
  const SlotArea &slot = c.record->slots[0];
  std::vector<uint32_t> indices;
  for (uint32_t p = 0; p < slot.pointCount; ++p)
    if (p % modulus == residue) indices.push_back(p);
  return qbtest::wordsFor(indices, slot.arrayWordLimit);
}

int32_t opMatrix(const Connection &c, std::vector<uint32_t> words) {
  return QBVISA_OpMatrix(c.session, 0, words.data(),
                         static_cast<uint32_t>(words.size()));
}

bool lastArrayHolds(const Connection &c, const std::vector<uint32_t> &words) {
  return std::memcmp(c.record->slots[0].lastArray, words.data(),
                     words.size() * 4) == 0;
}

qbsim::ChassisConfig withFirmware(Model model, uint8_t major, uint8_t minor) {
  qbsim::ChassisConfig config = qbtest::chassisConfig(model);
  config.firmware = {{major, minor}};
  return config;
}

class SwitchingTest : public ::testing::Test {
 protected:
  // Some cases bend a location entry to reach relays no point uses.
  void TearDown() override { InitPointInfo(); }
};

// Relays worked out by hand from the wiring of each model: crosspoint, then
// the isolation relays its kind needs, on the board of its sub-matrix.
TEST_F(SwitchingTest, SinglePointClosesItsCrosspointAndIsolationRelays) {
  struct Case {
    Model model;
    Point point;
    std::vector<Relay> relays;
  } cases[] = {
      {Model::RK420, {0, 0, 0}, {{0, 0, 0}, {0, 0, 6}, {0, 2, 7}}},
      {Model::RK420, {11, 2, 5}, {{2, 9, 5}, {2, 9, 6}, {2, 9, 12}}},
      {Model::RK420B, {6, 4, 1}, {{4, 6, 7}, {4, 6, 8}, {4, 8, 7}}},
      // Column 0 of the RK421 is wired as column 5; row 4 adds a CV relay.
      {Model::RK421, {4, 1, 0}, {{1, 5, 5}, {1, 6, 5}, {1, 6, 6}, {1, 6, 15}}},
      {Model::RK421, {9, 3, 11}, {{3, 8, 11}, {3, 12, 7}, {3, 12, 13}}},
      {Model::RK422, {0, 3, 95}, {{3, 47, 4}, {3, 48, 4}}},
      {Model::RK422, {3, 20, 24}, {{20, 12, 6}, {20, 48, 7}}},
      // Rows 4 and up of the RK422 land beyond the 49 words a board sends.
      {Model::RK422, {5, 0, 0}, {}},
      {Model::RK423, {0, 0, 0}, {{0, 0, 0}, {0, 0, 6}}},
      {Model::RK423, {7, 0, 11}, {{0, 2, 11}, {0, 7, 11}, {0, 9, 7}, {0, 9, 13}}},
      {Model::RK423B, {6, 0, 3}, {{0, 2, 3}, {0, 7, 3}, {0, 8, 3}, {0, 8, 6}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(qbsim::modelName(c.model));
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    ASSERT_EQ(opMatrix(chassis, wordsOf(chassis, {c.point})), 0);
    std::vector<Relay> expected = c.relays;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(qbsim::closedRelays(chassis.resource), expected)
        << c.point.row << "," << c.point.sub << "," << c.point.column;
  }
}

// A dense pattern, then another: the chassis holds exactly the second one.
TEST_F(SwitchingTest, PatternsMatchTheLocationLookupOnEveryModel) {
  for (Model model : {Model::RK420, Model::RK420B, Model::RK421, Model::RK422,
                      Model::RK423, Model::RK423B}) {
    SCOPED_TRACE(qbsim::modelName(model));
    const Connection c = qbtest::readyChassis(qbtest::chassisConfig(model));
    for (uint32_t residue : {5u, 2u}) {
      const std::vector<uint32_t> words = patternWords(c, 13, residue);
      const std::vector<Relay> expected = qbtest::expectedRelays(*c.record, words);
      ASSERT_FALSE(expected.empty());
      currentOpSwitch = 9;
      ASSERT_EQ(opMatrix(c, words), 0);
      EXPECT_EQ(qbsim::closedRelays(c.resource), expected);
      EXPECT_TRUE(lastArrayHolds(c, words));
      EXPECT_EQ(currentOpSwitch, 0);
    }
  }
}

TEST_F(SwitchingTest, FramesAreByteExact) {
  struct Case {
    const char *what;
    Model model;
    std::vector<Point> points;
    uint8_t lt0, lt1;
    uint16_t payloadBytes;
    std::map<size_t, uint16_t> words;  // frame word index -> value
  } cases[] = {
      // Bit group g of board b travels as word 2 + b*W + (W-1-g).
      {"RK420 board 0", Model::RK420, {{0, 0, 0}}, 0, 0, 120,
       {{13, 0x0041}, {11, 0x0080}}},
      {"RK420 board 4", Model::RK420, {{0, 4, 0}}, 0, 0, 120,
       {{61, 0x0041}, {59, 0x0080}}},
      {"RK421 column 0 as 5", Model::RK421, {{0, 0, 0}}, 0, 0, 104,
       {{14, 0x0060}, {10, 0x0020}}},
      {"RK421 column 6 as is", Model::RK421, {{0, 0, 6}}, 0, 0, 104,
       {{14, 0x0180}, {10, 0x0040}}},
      {"RK422 bits from 1", Model::RK422, {{0, 0, 0}}, 0, 0, 2058,
       {{50, 0x0080}, {2, 0x0010}}},
      {"RK423 row 7", Model::RK423, {{7, 0, 11}}, 0, 0, 20,
       {{9, 0x0800}, {4, 0x0800}, {2, 0x2080}}},
      {"RK423 LT relays alone", Model::RK423, {}, 1, 1, 20,
       {{11, 0x4000}, {9, 0x2000}}},
      {"RK423 second LT relay", Model::RK423, {}, 0, 1, 20, {{9, 0x2000}}},
      {"RK423B has no LT relays", Model::RK423B, {}, 1, 1, 20, {}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    chassis.record->slots[0].ltIsolationState[0] = c.lt0;
    chassis.record->slots[0].ltIsolationState[1] = c.lt1;
    ASSERT_EQ(opMatrix(chassis, wordsOf(chassis, c.points)), 0);
    std::vector<uint16_t> expected(2 + c.payloadBytes / 2, 0);
    expected[0] = 19;
    expected[1] = c.payloadBytes;
    for (const auto &[index, value] : c.words) expected[index] = value;
    const auto writes = qbsim::writes(chassis.resource);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0], qbtest::bytesOf(expected));
  }
}

// A 13-word RK420 board (firmware 1.x) never sends bits 12..15 of its bit
// group 12, which travels as the board's first word. No table reaches that
// group, so a location entry is bent to point there.
TEST_F(SwitchingTest, ThirteenWordBoardsDropTheTopBitsOfGroup12) {
  struct Case {
    Model model;
    int bit;
    uint32_t sub;
    size_t wordIndex;
    bool sent;
  } cases[] = {
      {Model::RK420, 11, 0, 2, true},   {Model::RK420, 12, 0, 2, false},
      {Model::RK420, 15, 0, 2, false},  {Model::RK420, 13, 1, 15, false},
      {Model::RK420B, 14, 3, 41, false},
      // The RK421 also sends 13 words a board, all of them.
      {Model::RK421, 13, 0, 2, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << qbsim::modelName(c.model) << " bit " << c.bit);
    const Connection chassis =
        qbtest::readyChassis(withFirmware(c.model, 1, 2));
    ASSERT_EQ(chassis.record->slots[0].wordsPerGroup, 13);
    if (c.model == Model::RK421)
      RK421_matrixLocation[0][5] = PointLocation{12, c.bit, 0};
    else
      matrixLocation[0][0] = PointLocation{12, c.bit, 0};
    ASSERT_EQ(opMatrix(chassis, wordsOf(chassis, {{0, c.sub, 0}})), 0);
    const auto words = qbtest::wordsOf(qbsim::writes(chassis.resource).at(0));
    EXPECT_EQ(words.at(c.wordIndex), c.sent ? 1u << c.bit : 0u);
    EXPECT_EQ(qbsim::closedRelays(chassis.resource),
              qbtest::expectedRelays(*chassis.record, wordsOf(chassis, {{0, c.sub, 0}})));
    InitPointInfo();
  }
}

// Points chosen so that exactly `relays` relays close, crosspoints and
// isolation relays together.
std::vector<uint32_t> wordsClosing(const Connection &c, size_t relays) {
  const SlotArea &slot = c.record->slots[0];
  std::vector<uint32_t> words(slot.arrayWordLimit, 0);
  for (uint32_t p = 0; p < slot.pointCount; ++p) {
    words[p / 32] |= 1u << (p % 32);
    const size_t closing = qbtest::expectedRelays(*c.record, words).size();
    if (closing == relays) break;
    if (closing > relays) words[p / 32] &= ~(1u << (p % 32));
  }
  EXPECT_EQ(qbtest::expectedRelays(*c.record, words).size(), relays);
  return words;
}

TEST_F(SwitchingTest, ClosureLimitIsCheckedBeforeAnythingIsSent) {
  struct Case {
    Model model;
    size_t relays;
    int32_t status;
  } cases[] = {
      {Model::RK420, 400, 0},   {Model::RK420, 401, QBVISA_ERR_CLOSURE_LIMIT},
      {Model::RK420B, 401, QBVISA_ERR_CLOSURE_LIMIT},
      {Model::RK421, 270, 0},   {Model::RK421, 271, QBVISA_ERR_CLOSURE_LIMIT},
      {Model::RK422, 1500, 0},  // no limit on the other models
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << qbsim::modelName(c.model) << " " << c.relays);
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    const std::vector<uint32_t> before = wordsOf(chassis, {{1, 0, 1}});
    ASSERT_EQ(opMatrix(chassis, before), 0);
    qbsim::clearTraffic(chassis.resource);
    currentOpSwitch = 3;
    EXPECT_EQ(opMatrix(chassis, wordsClosing(chassis, c.relays)), c.status);
    if (c.status == 0) {
      EXPECT_EQ(qbsim::closedRelays(chassis.resource).size(), c.relays);
    } else {
      EXPECT_TRUE(qbsim::writes(chassis.resource).empty());
      EXPECT_TRUE(lastArrayHolds(chassis, before));
      EXPECT_EQ(currentOpSwitch, 3);
    }
  }
}

// A refused frame keeps the previous array as the slot's last array.
TEST_F(SwitchingTest, FailedExchangesLeaveTheLastArrayAlone) {
  struct Case {
    const char *what;
    Model model;
    void (*arm)(const std::string &resource);
    int32_t status;
  } cases[] = {
      {"read fails", Model::RK420,
       [](const std::string &r) { qbsim::injectFault(r, qbsim::Fault::ReadFails); },
       QBVISA_ERR_RECEIVE},
      {"read times out", Model::RK422,
       [](const std::string &r) { qbsim::injectFault(r, qbsim::Fault::Timeout); },
       QBVISA_ERR_RECEIVE},
      {"failure reply", Model::RK423,
       [](const std::string &r) { qbsim::injectFault(r, qbsim::Fault::FailureReply); },
       QBVISA_ERR_DEVICE_FAILURE},
      {"RK421 under local control", Model::RK421,
       [](const std::string &r) { qbsim::setControlMode(r, 0); },
       QBVISA_ERR_CONTROL_MODE_CONFLICT},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    const std::vector<uint32_t> kept = patternWords(chassis, 7, 1);
    ASSERT_EQ(opMatrix(chassis, kept), 0);
    currentOpSwitch = 4;
    c.arm(chassis.resource);
    EXPECT_EQ(opMatrix(chassis, patternWords(chassis, 7, 3)), c.status);
    EXPECT_TRUE(lastArrayHolds(chassis, kept));
    EXPECT_EQ(currentOpSwitch, 4);
    // The exchange lock was given back: the next frame goes through.
    if (c.model != Model::RK421) {
      EXPECT_EQ(opMatrix(chassis, kept), 0);
    }
  }
}

// After a failed write the exchange lock stays taken, so this runs in a
// child process of its own.
TEST_F(SwitchingTest, FailedWriteReportsSendErrorAndKeepsLastArray) {
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK420));
  const std::vector<uint32_t> kept = patternWords(c, 7, 1);
  ASSERT_EQ(opMatrix(c, kept), 0);
  qbsim::injectFault(c.resource, qbsim::Fault::WriteFails);
  EXPECT_EXIT(
      {
        const bool ok = opMatrix(c, patternWords(c, 7, 3)) == QBVISA_ERR_SEND &&
                        lastArrayHolds(c, kept);
        _exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// Without the lock a failed write leaves later locked frames free to go.
TEST_F(SwitchingTest, UnlockedExchangeServesInternalCallers) {
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK421));
  std::vector<uint32_t> words = patternWords(c, 11, 4);
  ASSERT_EQ(OpMatrix(c.record, 0, words.data(), words.size(), 0), 0);
  EXPECT_EQ(qbsim::closedRelays(c.resource), qbtest::expectedRelays(*c.record, words));
  qbsim::injectFault(c.resource, qbsim::Fault::WriteFails);
  EXPECT_EQ(OpMatrix(c.record, 0, words.data(), words.size(), 0), QBVISA_ERR_SEND);
  EXPECT_EQ(opMatrix(c, words), 0);
}

TEST_F(SwitchingTest, SlotAndArgumentRules) {
  uint32_t word = 1;
  struct Case {
    const char *what;
    Model model;
    bool open;
    uint32_t session;  // 0: the chassis's own
    uint64_t slot;
    uint32_t *array;
    uint32_t words;
    int32_t status;
  } cases[] = {
      {"unknown session", Model::RK420, true, qbtest::kUnknownSession, 0, &word, 1,
       QBVISA_ERR_HANDLE},
      {"null array", Model::RK420, true, 0, 0, nullptr, 3, QBVISA_ERR_PARAMETER},
      {"slot 0 not opened", Model::RK420, false, 0, 0, &word, 1,
       QBVISA_ERR_NO_TYPE0_CARD},
      {"slot 1 empty", Model::RK420, true, 0, 1, &word, 1, QBVISA_ERR_NO_TYPE1_CARD},
      {"slot 2 empty", Model::RK420, true, 0, 2, &word, 1, QBVISA_ERR_NO_TYPE2_CARD},
      {"slot 3", Model::RK420, true, 0, 3, &word, 1, QBVISA_ERR_PARAMETER},
      {"RK423B keeps slot 1", Model::RK423B, true, 0, 1, &word, 1,
       QBVISA_ERR_NO_TYPE1_CARD},
      {"RK421 any slot is 0", Model::RK421, true, 0, 7, &word, 1, 0},
      {"RK422 any slot is 0", Model::RK422, true, 0, 2, &word, 1, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const qbsim::ChassisConfig config = qbtest::chassisConfig(c.model);
    const Connection chassis =
        c.open ? qbtest::readyChassis(config) : qbtest::connectChassis(config);
    const uint32_t session = c.session != 0 ? c.session : chassis.session;
    EXPECT_EQ(QBVISA_OpMatrix(session, c.slot, c.array, c.words), c.status);
    EXPECT_EQ(qbsim::writes(chassis.resource).size(), c.status == 0 ? 1u : 0u);
  }
}

TEST_F(SwitchingTest, OnlySlot0Switches) {
  qbsim::ChassisConfig config = qbtest::chassisConfig(Model::RK420);
  config.presenceMask = 0x3F;  // five sub-matrices and a card in slot 1
  config.presenceMaskSet = true;
  const Connection c = qbtest::readyChassis(config);
  uint64_t kind = 0;
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(c.session, 1, &kind), 0);
  qbsim::clearTraffic(c.resource);
  uint32_t words[2] = {1, 0};
  EXPECT_EQ(QBVISA_OpMatrix(c.session, 1, words, 2), QBVISA_ERR_UNKNOWN_CARD_TYPE);
  EXPECT_TRUE(qbsim::writes(c.resource).empty());
}

TEST_F(SwitchingTest, WordCountEdges) {
  // No words: every relay opens, and the last array stays as it was.
  {
    const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK420));
    const std::vector<uint32_t> kept = patternWords(c, 5, 0);
    ASSERT_EQ(opMatrix(c, kept), 0);
    uint32_t none = 0;
    EXPECT_EQ(QBVISA_OpMatrix(c.session, 0, &none, 0), 0);
    EXPECT_TRUE(qbsim::closedRelays(c.resource).empty());
    EXPECT_TRUE(lastArrayHolds(c, kept));
  }
  // Words beyond the limit are not switched but are kept.
  {
    const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK423));
    ASSERT_EQ(c.record->slots[0].arrayWordLimit, 3);
    const std::vector<uint32_t> words = {1, 0, 0, 0xFFFFFFFFu, 0x12345678u};
    ASSERT_EQ(opMatrix(c, words), 0);
    EXPECT_EQ(qbsim::closedRelays(c.resource), (std::vector<Relay>{{0, 0, 0}, {0, 0, 6}}));
    EXPECT_TRUE(lastArrayHolds(c, words));
  }
  // More than the last array holds: the first 6000 bytes are kept and the
  // fields after it are untouched.
  {
    const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
    std::vector<uint32_t> words(2000);
    for (size_t i = 0; i < words.size(); ++i) words[i] = static_cast<uint32_t>(i * 2654435761u);
    ASSERT_EQ(opMatrix(c, words), 0);
    EXPECT_EQ(std::memcmp(c.record->slots[0].lastArray, words.data(), 6000), 0);
    EXPECT_EQ(c.record->slots[0].arrayWordLimit, 1008);
    EXPECT_EQ(qbsim::closedRelays(c.resource), qbtest::expectedRelays(*c.record, words));
  }
}

// Boards follow the fitted sub-matrices: with sub-matrices 0, 2 and 4
// fitted, sub-matrix 1 drives board 2 and sub-matrices 3 and 4 nothing.
TEST_F(SwitchingTest, BoardsFollowTheFittedSubMatrices) {
  qbsim::ChassisConfig config = qbtest::chassisConfig(Model::RK420);
  config.presenceMask = 0x15;
  config.presenceMaskSet = true;
  const Connection c = qbtest::readyChassis(config);
  ASSERT_EQ(opMatrix(c, wordsOf(c, {{0, 1, 0}, {0, 3, 0}, {0, 4, 0}})), 0);
  EXPECT_EQ(qbsim::closedRelays(c.resource),
            (std::vector<Relay>{{2, 0, 0}, {2, 0, 6}, {2, 2, 7}}));
}

// Placing stops at the first point outside the matrix; the points before it
// are still sent.
TEST_F(SwitchingTest, PointOutsideTheMatrixEndsPlacing) {
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK423));
  c.record->slots[0].rowCount = 4;
  ASSERT_EQ(opMatrix(c, wordsOf(c, {{1, 0, 0}, {5, 0, 0}, {6, 0, 2}})), 0);
  EXPECT_EQ(qbsim::closedRelays(c.resource), (std::vector<Relay>{{0, 1, 0}, {0, 1, 6}}));
}

// A geometry larger than the relay image is refused before anything is
// built or sent; a board number outside the image is skipped.
TEST_F(SwitchingTest, GeometryOutsideTheImageIsRefused) {
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
  SlotArea &slot = c.record->slots[0];
  std::vector<uint32_t> words = patternWords(c, 3, 0);
  std::vector<uint16_t> frame(qbvisa::kRelayFrameWords);
  slot.groupCount = 26;
  EXPECT_EQ(opMatrix(c, words), QBVISA_ERR_PARAMETER);
  slot.groupCount = 21;
  slot.wordsPerGroup = 201;
  EXPECT_EQ(SendRelayStateType0(c.record, std::vector<uint8_t>(qbvisa::kPointListBytes).data(),
                                frame.data(), 1),
            QBVISA_ERR_PARAMETER);
  EXPECT_TRUE(qbsim::writes(c.resource).empty());
  slot.wordsPerGroup = 49;
  slot.subMatrixGroup[0] = 30;
  ASSERT_EQ(opMatrix(c, words), 0);
  std::vector<Relay> expected;
  for (const Relay &r : qbtest::expectedRelays(*c.record, words))
    if (r.board != 30) expected.push_back(r);
  EXPECT_EQ(qbsim::closedRelays(c.resource), expected);
}

TEST(SwitchingHelpersTest, CheckPointParamChecksRowThenColumnThenState) {
  struct Case {
    int32_t row, column, state, status;
  } cases[] = {
      {0, 0, 0, 0},        {11, 9, 1, 0},
      {12, 0, 0, QBVISA_ERR_ROW_RANGE},   {-1, 99, 5, QBVISA_ERR_ROW_RANGE},
      {0, 10, 5, QBVISA_ERR_COLUMN_RANGE}, {0, -1, 0, QBVISA_ERR_COLUMN_RANGE},
      {0, 0, 2, QBVISA_ERR_STATE_RANGE},  {0, 0, -1, QBVISA_ERR_STATE_RANGE},
  };
  for (const Case &c : cases)
    EXPECT_EQ(CheckPointParam(c.row, c.column, c.state, 12, 10), c.status)
        << c.row << "," << c.column << "," << c.state;
}

TEST(SwitchingHelpersTest, WordsBecomePointsLeastSignificantBitFirst) {
  const uint32_t words[3] = {0x80000001u, 0x2u, 0xFFFFFFFFu};
  struct Case {
    int32_t limit, words, status;
    std::vector<size_t> set;
  } cases[] = {
      {3, 2, 0, {0, 31, 33}},
      {1, 3, 0, {0, 31}},
      {0, 3, 0, {}},
      {3, 0, -1, {}},
      {3, -4, -1, {}},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> points(qbvisa::kPointListBytes, 0);
    EXPECT_EQ(UserArrayToMatrixPoints(words, c.limit, c.words, points.data()), c.status);
    std::vector<size_t> set;
    for (size_t i = 0; i < points.size(); ++i)
      if (points[i] != 0) set.push_back(i);
    EXPECT_EQ(set, c.set) << c.limit << "/" << c.words;
  }
  EXPECT_EQ(UserArrayToMatrixPoints(words, 3, 3, nullptr), -1);
  // A word limit beyond the point list is held to the list.
  std::vector<uint32_t> many(2000, 1);
  std::vector<uint8_t> points(qbvisa::kPointListBytes + 64, 0);
  EXPECT_EQ(UserArrayToMatrixPoints(many.data(), 2000, 2000, points.data()), 0);
  EXPECT_EQ(points[qbvisa::kPointListBytes - 32], 1);
  EXPECT_EQ(points[qbvisa::kPointListBytes], 0);
}

TEST(SwitchingHelpersTest, CascadeKinds) {
  for (int32_t kind = -1; kind <= 13; ++kind) {
    const bool always = kind == 4 || kind == 5 || kind == 6;
    EXPECT_EQ(IsOpenCascade(kind, 0), always || kind == 10) << kind;
    EXPECT_EQ(IsOpenCascade(kind, 7), always || kind == 10) << kind;
    EXPECT_EQ(IsOpenCascade(kind, 8), always) << kind;
  }
}

#ifdef QBVISA_WATCH_ALLOCATIONS
// Switching works in stack areas only; the watch itself is proven on the
// library's array allocator.
TEST(SwitchingAllocationTest, SwitchingCallsAllocateNothing) {
  allocation_watch::findLibraryCode();
  ASSERT_NE(allocation_watch::codeEnd.load(), 0u);
  allocation_watch::fromLibrary = 0;
  int32_t **array = alloc2int(0, 2, 3);
  ASSERT_NE(array, nullptr);
  EXPECT_GE(allocation_watch::fromLibrary.load(), 1);
  std::free(array[0]);
  free2int(array);

  for (Model model : {Model::RK420, Model::RK421, Model::RK422, Model::RK423}) {
    const Connection c = qbtest::readyChassis(qbtest::chassisConfig(model));
    std::vector<uint32_t> words = patternWords(c, 13, 1);
    allocation_watch::fromLibrary = 0;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(opMatrix(c, words), 0);
    EXPECT_EQ(allocation_watch::fromLibrary.load(), 0) << qbsim::modelName(model);
  }
}
#endif

}  // namespace
