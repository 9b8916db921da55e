// Opening slots and initialising chassis on the simulated bench: presence,
// geometry, firmware gates and the requests on the wire.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <vector>

#include "bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using qbsim::Model;
using qbtest::chassisConfig;
using qbtest::Connection;
using Bytes = std::vector<uint8_t>;

const Bytes kIdentityQuery = {0x08, 0, 0, 0};
const Bytes kPresenceQuery = {0x0A, 0, 0, 0};
const Bytes kVersionQuery = {0x0B, 0, 0, 0};

qbsim::ChassisConfig fitted(qbsim::ChassisConfig c, uint32_t mask) {
  c.presenceMask = mask;
  c.presenceMaskSet = true;
  return c;
}

// A card of this type in slot 1 (presence bit 5), and the identity entry of
// card position 6 at this hardware version.
qbsim::ChassisConfig slot1(Model model, uint8_t cardType, uint8_t hardware = 10) {
  qbsim::ChassisConfig c = fitted(chassisConfig(model), 0x3F);
  c.slot1CardType = cardType;
  c.cards.resize(6);
  c.cards[5].hwVersion = hardware;
  return c;
}

// A slot-2 card made for chassis type `typeCode` (0: the chassis's own).
qbsim::ChassisConfig slot2(Model model, uint8_t major, uint8_t minor, uint16_t typeCode = 0,
                           bool present = true) {
  qbsim::ChassisConfig c = chassisConfig(model, major, minor);
  c.typeCode = typeCode;
  c.slot2Present = present;
  return c;
}

// What opening a slot leaves: matrix kind, word limit, rows, columns,
// sub-matrices, boards, words a board, points, first board, positions
// present. -1: not checked.
TEST(OpenTest, SlotsPerModelCardAndFirmware) {
  qbsim::ChassisConfig newForm = chassisConfig(Model::RK420, 3, 7);
  newForm.versionInBytes45 = true;  // bytes 2 and 3 of the reply stay 0
  struct Case {
    const char *what;
    qbsim::ChassisConfig chassis;
    uint64_t slot;
    int32_t status;
    std::vector<int> geometry;
    std::vector<Bytes> writes = {};  // empty: not checked
  } cases[] = {
      {"RK420", chassisConfig(Model::RK420), 0, 0, {0, 32, 12, 10, 5, 5, 12, 600, 0, 5},
       {kVersionQuery, kPresenceQuery}},
      {"RK420 3.7 new form", newForm, 0, 0, {0, 32, 12, 10, 5, 5, 12, 600, 0, 5}},
      {"RK420 2.0", chassisConfig(Model::RK420, 2, 0), 0, 0, {0, 32, 12, 10, 5, 5, 12, 600, 0, 5}},
      {"RK420 1.9", chassisConfig(Model::RK420, 1, 9), 0, 0, {0, 19, 12, 10, 5, 5, 13, 600, 0, 5}},
      {"RK420 bit 5 is slot 1's", fitted(chassisConfig(Model::RK420), 0x3E), 0, 0,
       {0, 32, 12, 10, 5, 5, 12, 600, 1, 4}},
      {"RK420 nothing fitted", fitted(chassisConfig(Model::RK420), 0), 0, QBVISA_ERR_NO_TYPE0_CARD, {}},
      {"RK420 slot 3", chassisConfig(Model::RK420), 3, QBVISA_ERR_PARAMETER, {}},
      {"RK421 any slot is 0", chassisConfig(Model::RK421, 1, 0), 2, 0,
       {1, 15, 10, 12, 4, 4, 13, 480, 0, 4}, {kPresenceQuery}},
      {"RK421 3.6", chassisConfig(Model::RK421), 0, 0, {1, 15, 10, 12, 4, 4, 13, 480, 0, 4}},
      {"RK423B 1.0", chassisConfig(Model::RK423B, 1, 0), 0, 0, {3, 3, 8, 12, 1, 1, 10, 96, 0, 1}},
      {"RK422 1.0", chassisConfig(Model::RK422, 1, 0), 0, 0, {2, 1008, 16, 96, 21, 21, 49, 32256, 0, -1}},
      {"RK422 mask byte 4", fitted(chassisConfig(Model::RK422), 0x100001), 0, 0,
       {2, 1008, 16, 96, 21, 21, 49, 32256, 0, 2}},
      {"RK423 any slot is 0", chassisConfig(Model::RK423), 1, 0, {3, 3, 8, 12, 1, 1, 10, 96, 0, 1},
       {kPresenceQuery}},
      {"RK423B has no slot 1", chassisConfig(Model::RK423B), 1, QBVISA_ERR_UNKNOWN_CARD_TYPE, {}},
      // Slot 1: the card type picks the geometry.
      {"RK420 card type 0", slot1(Model::RK420, 0), 1, 0, {6, 25, 16, 50, -1, 8, 20, 800, 0, 1},
       {kVersionQuery, kPresenceQuery, kIdentityQuery, {0x11, 0, 0, 0}}},
      {"card type 1", slot1(Model::RK420B, 1), 1, 0, {10, 25, 16, 50, -1, 4, 20, 800, 0, 1}},
      {"card type 11", slot1(Model::RK420B, 11), 1, 0, {8, 25, 8, 50, -1, 2, 12, 400, 0, 1}},
      {"card type 12", slot1(Model::RK420B, 12), 1, 0, {4, 13, 8, 50, -1, 4, 10, 400, 0, 1}},
      {"card type 2", slot1(Model::RK420, 2), 1, QBVISA_ERR_RF_DEVICE_TYPE, {}},
      {"card type 13", slot1(Model::RK420, 13), 1, QBVISA_ERR_RF_DEVICE_TYPE, {}},
      {"no card", chassisConfig(Model::RK420), 1, QBVISA_ERR_NO_TYPE1_CARD, {}},
      {"card hardware 0.9", slot1(Model::RK420, 0, 9), 1, QBVISA_ERR_NOT_SUPPORTED, {}},
      // Slot 2 follows the chassis type in the identity reply, read where
      // the controller's firmware puts it (the layout changed at 3.06).
      {"slot 2 on 2.6", slot2(Model::RK420, 2, 6), 2, QBVISA_ERR_NOT_SUPPORTED, {}},
      {"slot 2 on 2.7", slot2(Model::RK420, 2, 7), 2, 0, {11, 4, -1, -1, 1, -1, 8, 112, 1, 21},
       {kVersionQuery, {0x0C, 0x04, 0, 0}, kIdentityQuery}},
      {"RK420B slot 2 on 3.05", slot2(Model::RK420B, 3, 5), 2, 0, {12, 4, -1, -1, 1, -1, 8, 100, 1, 21}},
      {"RK420B card on 4.0", slot2(Model::RK420, 4, 0, 1051), 2, 0, {12, 4, -1, -1, 1, -1, 8, 100, 1, 21}},
      {"unknown card on 3.06", slot2(Model::RK420, 3, 6, 1066), 2, QBVISA_ERR_UNKNOWN_CARD_TYPE, {}},
      {"unknown card on 3.05", slot2(Model::RK420B, 3, 5, 1099), 2, QBVISA_ERR_UNKNOWN_CARD_TYPE, {}},
      {"slot 2 empty", slot2(Model::RK420, 3, 6, 0, false), 2, QBVISA_ERR_NO_TYPE2_CARD, {}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Connection conn = qbtest::connectChassis(c.chassis);
    uint64_t kind = 77;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(conn.session, c.slot, &kind), c.status);
    if (!c.writes.empty()) {
      EXPECT_EQ(qbsim::writes(conn.resource), c.writes);
    }
    if (c.status != 0) continue;
    const Model m = c.chassis.model;
    EXPECT_EQ(kind, m == Model::RK421 || m == Model::RK422 || m == Model::RK423 ? 0u : c.slot);
    const SlotArea &s = conn.record->slots[kind];
    std::vector<int> got = {int(s.matrixKind), s.arrayWordLimit, s.rowCount, s.columnCount,
                            s.subMatrixCount, s.groupCount, s.wordsPerGroup, s.pointCount,
                            s.subMatrixGroup[0], int(std::count(s.cardPresent, s.cardPresent + 21, 1))};
    for (size_t i = 0; i < got.size(); ++i) got[i] = c.geometry.at(i) < 0 ? -1 : got[i];
    EXPECT_EQ(got, c.geometry);
  }
}

TEST(OpenTest, BadSessionsRecordsAndPositions) {
  uint64_t kind = 0;
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(qbtest::kUnknownSession, 0, &kind), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISABoardInPlaceHDW(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
  const Connection c = qbtest::connectChassis(fitted(chassisConfig(Model::RK420), 0));
  EXPECT_EQ(QBVISABoardInPlaceHDW(c.session, 0), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(IsBoardExists(nullptr, 0), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(IsBoardExists(c.record, 3), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(BoardInPlaceHDW(nullptr, 0), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(BoardInPlaceHDW(c.record, 3), QBVISA_ERR_PARAMETER);
  qbsim::injectFault(c.resource, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), QBVISA_ERR_RECEIVE);
  // Identity entries of card positions 1..18 lie in the 200-byte reply.
  EXPECT_GE(GetSlotHW(c.record, 18), 0);
  for (int32_t n : {19, -2, INT32_MIN}) EXPECT_EQ(GetSlotHW(c.record, n), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(GetSlotHW(nullptr, 6), QBVISA_ERR_PARAMETER);
}

// Record words older programs read: the frame layout words of slots 0 and
// 1, the card words, and the LT isolation count.
TEST(OpenTest, RecordWordsOlderProgramsRead) {
  const auto bench = qbtest::connectBench({slot1(Model::RK420, 1), chassisConfig(Model::RK423)});
  const Connection &rk420 = bench[0], &rk423 = bench[1];
  uint64_t kind = 0;
  for (uint64_t slot : {0u, 1u}) ASSERT_EQ(QBVISA_OpenSpecifiedCard(rk420.session, slot, &kind), 0);
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(rk423.session, 0, &kind), 0);
  const SlotArea &s0 = rk420.record->slots[0], &s1 = rk420.record->slots[1];
  EXPECT_EQ(std::vector<int>({s0.geometryWords[0], s0.geometryWords[1], s1.geometryWords[0],
                              s1.geometryWords[1], s1.cardWords[0], s1.cardWords[1],
                              s1.cardWordsFollowing[0], s1.cardWordsFollowing[1], s1.cardExtra,
                              rk423.record->slots[0].ltIsolationCount}),
            std::vector<int>({6, 5, 4, 7, 13, 13, 12, 12, 12, 2}));
}

// An identity query read back with no bytes at all names no card type.
TEST(OpenTest, EmptyIdentityReplyIsNoCardType) {
  const Connection c = qbtest::connectChassis(slot2(Model::RK420, 3, 6));
  qbtest::Scope tap;
  static bool identity = false;
  qbtest::onWrite = [](Bytes &frame) { identity = frame[0] == 8; };
  qbtest::onRead = [](uint8_t *reply, uint32_t &count) {
    if (identity) std::fill(reply, reply + count, 0), count = 0;
  };
  uint64_t kind = 0;
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 2, &kind), QBVISA_ERR_UNKNOWN_CARD_TYPE);
}

// Controllers from 3.06 on use the newer reply layouts.
TEST(OpenTest, NewLayoutFromFirmware306) {
  const struct { uint8_t major, minor; bool newer; } cases[] = {
      {2, 99, false}, {3, 0, false}, {3, 5, false}, {3, 6, true}, {3, 7, true}, {4, 0, true}, {255, 0, true}};
  ChassisRecord record{};
  for (const auto &c : cases) {
    record.firmwareMajor = c.major, record.firmwareMinor = c.minor;
    EXPECT_EQ(IsNewVer_3_06(&record), c.newer) << int{c.major} << "." << int{c.minor};
  }
  EXPECT_FALSE(IsNewVer_3_06(nullptr));
}

TEST(InitTest, Failures) {
  const Connection rk421 = qbtest::connectChassis(chassisConfig(Model::RK421));
  uint64_t kind = 0;
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(rk421.session, 0, &kind), 0);
  qbsim::injectFault(rk421.resource, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_Init(rk421.session, 0), QBVISA_ERR_RECEIVE);
  EXPECT_EQ(QBVISA_Init(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
  // An RK420 slot that was never opened cannot be cleared.
  const Connection rk420 = qbtest::connectChassis(chassisConfig(Model::RK420));
  EXPECT_EQ(QBVISA_Init(rk420.session, 0), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(QBVISA_Init(rk420.session, 1), QBVISA_ERR_NO_TYPE1_CARD);
}

}  // namespace
