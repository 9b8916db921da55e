// Control mode of the RK421 and clearing every relay, on the simulated bench.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "bench.hpp"

namespace {

using qbsim::Model;
using qbtest::Connection;
using Bytes = std::vector<uint8_t>;

const Bytes kGetMode = {0x05, 0, 0, 0};

// A get (wanted -1) or a set of the control mode: its status, the requests
// it sends and the mode a get leaves.
TEST(ControlModeTest, GetAndSet) {
  const Bytes toLocal = {6, 0, 0, 0, 0, 0}, toRemote = {6, 0, 0, 0, 1, 0};
  const struct {
    const char *what;
    Model model;
    uint8_t current;
    int64_t wanted;
    std::optional<qbsim::Fault> fault;
    int32_t status;
    std::vector<Bytes> writes;
    uint32_t mode = 9;  // 9: left alone
  } cases[] = {
      {"get remote", Model::RK421, 1, -1, {}, 0, {kGetMode}, 1},
      {"set to local", Model::RK421, 1, 0, {}, 0, {kGetMode, toLocal}},
      {"set, already remote", Model::RK421, 1, 1, {}, QBVISA_ERR_SAME_CONTROL_MODE, {kGetMode}},
      // An unanswered query is no reason to skip the request.
      {"set, query fails", Model::RK421, 1, 1, qbsim::Fault::ReadFails, 0, {kGetMode, toRemote}},
      // Any value goes to the chassis; the word carries its low 16 bits.
      {"set odd value", Model::RK421, 1, 0x10007, {}, 0, {kGetMode, {6, 0, 0, 0, 7, 0}}},
      // Only the RK421 has a front panel that can take control.
      {"RK420 get", Model::RK420, 1, -1, {}, QBVISA_ERR_NOT_SUPPORTED, {}},
      {"RK423B set", Model::RK423B, 1, 1, {}, QBVISA_ERR_NOT_SUPPORTED, {}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    qbsim::ChassisConfig chassis = qbtest::chassisConfig(c.model);
    chassis.controlMode = c.current;
    const Connection conn = qbtest::connectChassis(chassis);
    if (c.fault) qbsim::injectFault(conn.resource, *c.fault);
    uint32_t mode = 9;
    EXPECT_EQ(c.wanted < 0 ? QBVISA_GetControlMode(conn.session, &mode)
                           : QBVISA_SetControlMode(conn.session, static_cast<uint32_t>(c.wanted)),
              c.status);
    EXPECT_EQ(qbsim::writes(conn.resource), c.writes);
    EXPECT_EQ(mode, c.mode);
  }
  uint32_t mode = 0;
  EXPECT_EQ(QBVISA_GetControlMode(qbtest::kUnknownSession, nullptr), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetControlMode(qbtest::kUnknownSession, &mode), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_SetControlMode(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
}

Bytes clearFrame(uint16_t command, uint16_t length) {
  Bytes frame(4 + size_t{length}, 0);
  std::memcpy(frame.data(), &command, 2);
  std::memcpy(frame.data() + 2, &length, 2);
  return frame;
}

// Every relay opens, on the chassis and in the library's copy of the array.
// Initialising also asks an RK420 for its firmware version and takes an
// RK421 out of front-panel control.
TEST(ClearTest, InitAndClearOpenEveryRelay) {
  const Bytes version = {0x0B, 0, 0, 0};
  const struct {
    Model model;
    uint8_t major;
    bool init, local;
    uint64_t card;  // single-board chassis take any card as 0
    std::vector<Bytes> writes;
  } cases[] = {
      {Model::RK420, 3, true, false, 0, {version, clearFrame(19, 120)}},
      {Model::RK420B, 1, false, false, 0, {clearFrame(19, 130)}},
      // Setting the mode asks for it once more before it changes it.
      {Model::RK421, 3, true, true, 4, {kGetMode, kGetMode, {6, 0, 0, 0, 1, 0}, clearFrame(19, 104)}},
      {Model::RK421, 3, true, false, 2, {kGetMode, clearFrame(19, 104)}},
      // Larger than the request buffer, and a command of its own.
      {Model::RK422, 3, false, false, 2, {clearFrame(67, 2058)}},
      {Model::RK423, 3, false, false, 1, {clearFrame(19, 20)}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << qbsim::modelName(c.model) << (c.init ? " init " : " clear ")
                                    << c.card);
    const Connection conn = qbtest::readyChassis(qbtest::chassisConfig(c.model, c.major));
    std::vector<uint32_t> words(conn.record->slots[0].arrayWordLimit, 0x01010101u);
    ASSERT_EQ(QBVISA_OpMatrix(conn.session, 0, words.data(), words.size()), 0);
    ASSERT_FALSE(qbsim::closedRelays(conn.resource).empty());
    if (c.local) qbsim::setControlMode(conn.resource, 0);
    qbsim::clearTraffic(conn.resource);
    if (c.init) {
      EXPECT_EQ(QBVISA_Init(conn.session, c.card), 0);
    } else {
      EXPECT_GT(QBVISA_Clear(conn.session, c.card), 0);  // the bytes read
    }
    EXPECT_EQ(qbsim::writes(conn.resource), c.writes);
    EXPECT_TRUE(qbsim::closedRelays(conn.resource).empty());
    EXPECT_EQ(qbsim::chassisState(conn.resource).controlMode, 1);
    const uint8_t *last = conn.record->slots[0].lastArray;
    EXPECT_TRUE(std::all_of(last, last + QBVISA_LAST_ARRAY_SIZE, [](uint8_t b) { return b == 0; }));
  }
}

TEST(ClearTest, RefusalsAndWrappedLength) {
  qbsim::ChassisConfig chassis = qbtest::chassisConfig(Model::RK420);
  chassis.presenceMask = 0x3F;  // a card in slot 1
  chassis.presenceMaskSet = true;
  const Connection c = qbtest::readyChassis(chassis);
  SlotArea *slots = c.record->slots;
  for (int s = 0; s < 3; ++s) std::memset(slots[s].lastArray, 0x5A, QBVISA_LAST_ARRAY_SIZE);

  EXPECT_EQ(QBVISA_Clear(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_Clear(c.session, 3), QBVISA_ERR_PARAMETER);
  // Slot 2 holds nothing: its copy is left as it was.
  EXPECT_EQ(QBVISA_Clear(c.session, 2), QBVISA_ERR_NO_TYPE2_CARD);
  EXPECT_EQ(slots[2].lastArray[0], 0x5A);
  // Slot 1 holds a card: its copy reads all open, but only card 0 is
  // cleared on the chassis.
  uint64_t kind = 0;
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(c.session, 1, &kind), 0);
  qbsim::clearTraffic(c.resource);
  EXPECT_EQ(QBVISA_Clear(c.session, 1), QBVISA_ERR_UNKNOWN_CARD_TYPE);
  EXPECT_EQ(slots[1].lastArray[0], 0);
  EXPECT_EQ(slots[1].lastArray[QBVISA_LAST_ARRAY_SIZE - 1], 0);
  EXPECT_TRUE(qbsim::writes(c.resource).empty());
  // A slot without a known card type is refused before anything changes.
  slots[0].matrixKind = 0xFFFFFFFFu;
  EXPECT_EQ(QBVISA_Clear(c.session, 0), QBVISA_ERR_BAD_MODEL);
  EXPECT_EQ(slots[0].lastArray[0], 0x5A);
  slots[0].matrixKind = MATRIX_KIND_RK420;
  // The copy reads all open even when the chassis cannot be reached.
  qbsim::injectFault(c.resource, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_Clear(c.session, 0), QBVISA_ERR_RECEIVE);
  EXPECT_EQ(slots[0].lastArray[0], 0);
  // The length field is 16 bits wide: the relay-word count wraps, and so
  // does the doubled byte count; the payload stays all zero.
  const struct {
    uint16_t groups, words, length;
  } wraps[] = {{200, 200, 14464}, {128, 256, 0}};
  for (const auto &w : wraps) {
    SCOPED_TRACE(testing::Message() << w.groups << "x" << w.words);
    slots[0].groupCount = w.groups;
    slots[0].wordsPerGroup = w.words;
    qbsim::clearTraffic(c.resource);
    QBVISA_Clear(c.session, 0);  // the chassis may refuse the odd length
    EXPECT_EQ(qbsim::writes(c.resource), std::vector<Bytes>{clearFrame(19, w.length)});
  }
}

}  // namespace
