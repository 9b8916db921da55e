// Control mode of the RK421 and clearing every relay, on the simulated bench.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"
#include "switching_bench.hpp"

namespace {

using qbsim::Model;
using qbtest::Connection;
using Bytes = std::vector<uint8_t>;

const Bytes kGetMode = {0x05, 0, 0, 0};

TEST(ControlModeTest, OnlyTheRk421HasOne) {
  for (Model model : {Model::RK420, Model::RK420B, Model::RK422, Model::RK423,
                      Model::RK423B}) {
    const Connection c = qbtest::connectChassis(qbtest::chassisConfig(model));
    uint32_t mode = 7;
    EXPECT_EQ(QBVISA_GetControlMode(c.session, &mode), QBVISA_ERR_NOT_SUPPORTED);
    EXPECT_EQ(QBVISA_SetControlMode(c.session, 1), QBVISA_ERR_NOT_SUPPORTED);
    EXPECT_EQ(mode, 7u);
    EXPECT_TRUE(qbsim::writes(c.resource).empty());
  }
  uint32_t mode = 0;
  EXPECT_EQ(QBVISA_GetControlMode(qbtest::kUnknownSession, &mode), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_SetControlMode(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
}

TEST(ControlModeTest, GetReadsReplyByte2) {
  const Connection c = qbtest::connectChassis(qbtest::chassisConfig(Model::RK421));
  for (uint8_t front : {0, 1}) {
    qbsim::setControlMode(c.resource, front);
    uint32_t mode = 9;
    EXPECT_EQ(QBVISA_GetControlMode(c.session, &mode), 0);
    EXPECT_EQ(mode, front);
  }
  EXPECT_EQ(qbsim::writes(c.resource), (std::vector<Bytes>{kGetMode, kGetMode}));
  uint32_t mode = 9;
  qbsim::injectFault(c.resource, qbsim::Fault::FailureReply);
  EXPECT_EQ(QBVISA_GetControlMode(c.session, &mode), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_EQ(mode, 9u);
  EXPECT_EQ(QBVISA_GetControlMode(c.session, nullptr), QBVISA_ERR_PARAMETER);
}

TEST(ControlModeTest, SetSendsOnlyWhenTheModeDiffers) {
  struct Case {
    const char *what;
    uint8_t current;
    uint32_t wanted;
    bool queryFails;
    int32_t status;
    std::vector<Bytes> writes;
  } cases[] = {
      {"to remote", 0, 1, false, 0, {kGetMode, {6, 0, 0, 0, 1, 0}}},
      {"to local", 1, 0, false, 0, {kGetMode, {6, 0, 0, 0, 0, 0}}},
      {"already remote", 1, 1, false, QBVISA_ERR_SAME_CONTROL_MODE, {kGetMode}},
      {"already local", 0, 0, false, QBVISA_ERR_SAME_CONTROL_MODE, {kGetMode}},
      // An unanswered query is no reason to skip the request.
      {"query fails, to remote", 1, 1, true, 0, {kGetMode, {6, 0, 0, 0, 1, 0}}},
      {"query fails, to local", 0, 0, true, 0, {kGetMode, {6, 0, 0, 0, 0, 0}}},
      // Any value goes to the chassis; the word carries its low 16 bits.
      {"odd value", 1, 0x10007, false, 0, {kGetMode, {6, 0, 0, 0, 7, 0}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qbsim::ChassisConfig chassis = qbtest::chassisConfig(Model::RK421);
    chassis.controlMode = c.current;
    const Connection conn = qbtest::connectChassis(chassis);
    if (c.queryFails) qbsim::injectFault(conn.resource, qbsim::Fault::ReadFails);
    EXPECT_EQ(QBVISA_SetControlMode(conn.session, c.wanted), c.status);
    EXPECT_EQ(qbsim::writes(conn.resource), c.writes);
  }
}

Bytes clearFrame(uint16_t command, uint16_t length) {
  Bytes frame(4 + size_t{length}, 0);
  std::memcpy(frame.data(), &command, 2);
  std::memcpy(frame.data() + 2, &length, 2);
  return frame;
}

// Every relay opens, on the chassis and in the library's copy of the array.
TEST(ClearTest, OpensEveryRelayOfCard0) {
  struct Case {
    Model model;
    uint8_t major;
    uint64_t card;
    Bytes frame;
  } cases[] = {
      {Model::RK420, 3, 0, clearFrame(19, 120)},
      {Model::RK420B, 1, 0, clearFrame(19, 130)},
      {Model::RK421, 3, 5, clearFrame(19, 104)},
      // Larger than the request buffer, and a command of its own.
      {Model::RK422, 3, 2, clearFrame(67, 2058)},
      {Model::RK423, 3, 1, clearFrame(19, 20)},
      {Model::RK423B, 3, 0, clearFrame(19, 20)},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(qbsim::modelName(c.model));
    qbsim::ChassisConfig chassis = qbtest::chassisConfig(c.model);
    chassis.firmware = {{c.major, 0}};
    const Connection conn = qbtest::readyChassis(chassis);
    std::vector<uint32_t> words(conn.record->slots[0].arrayWordLimit, 0x01010101u);
    ASSERT_EQ(QBVISA_OpMatrix(conn.session, 0, words.data(), words.size()), 0);
    ASSERT_FALSE(qbsim::closedRelays(conn.resource).empty());
    qbsim::clearTraffic(conn.resource);
    EXPECT_GT(QBVISA_Clear(conn.session, c.card), 0);  // the bytes read
    EXPECT_EQ(qbsim::writes(conn.resource), std::vector<Bytes>{c.frame});
    EXPECT_TRUE(qbsim::closedRelays(conn.resource).empty());
    const uint8_t *last = conn.record->slots[0].lastArray;
    EXPECT_TRUE(std::all_of(last, last + QBVISA_LAST_ARRAY_SIZE, [](uint8_t b) { return b == 0; }));
  }
}

// The length field is 16 bits wide: the relay-word count wraps, and so does
// the doubled byte count; the payload stays all zero.
TEST(ClearTest, PayloadLengthWrapsAt16Bits) {
  struct Case {
    uint16_t groups, words, length;
  } cases[] = {
      {200, 200, 14464},  // 80000 bytes
      {128, 256, 0},      // 65536 bytes
      {300, 300, 48928},  // 180000 bytes
      {1, 0, 0},
  };
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK420));
  for (const Case &k : cases) {
    SCOPED_TRACE(testing::Message() << k.groups << "x" << k.words);
    c.record->slots[0].groupCount = k.groups;
    c.record->slots[0].wordsPerGroup = k.words;
    qbsim::clearTraffic(c.resource);
    QBVISA_Clear(c.session, 0);  // the chassis may refuse the odd length
    EXPECT_EQ(qbsim::writes(c.resource), std::vector<Bytes>{clearFrame(19, k.length)});
  }
}

TEST(ClearTest, Refusals) {
  qbsim::ChassisConfig chassis = qbtest::chassisConfig(Model::RK420);
  chassis.presenceMask = 0x3F;
  chassis.presenceMaskSet = true;
  const Connection c = qbtest::readyChassis(chassis);
  SlotArea *slots = c.record->slots;
  std::memset(slots[0].lastArray, 0x5A, QBVISA_LAST_ARRAY_SIZE);
  std::memset(slots[1].lastArray, 0x5A, QBVISA_LAST_ARRAY_SIZE);
  std::memset(slots[2].lastArray, 0x5A, QBVISA_LAST_ARRAY_SIZE);

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
}

}  // namespace
