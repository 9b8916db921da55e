// Opening slots and initialising chassis on the simulated bench: presence,
// geometry, firmware gates and the requests on the wire.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <tuple>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"
#include "switching_bench.hpp"

namespace {

using qbsim::Model;
using qbtest::Connection;
using Bytes = std::vector<uint8_t>;

const Bytes kIdentityQuery = {0x08, 0, 0, 0};
const Bytes kPresenceQuery = {0x0A, 0, 0, 0};
const Bytes kVersionQuery = {0x0B, 0, 0, 0};
const Bytes kCardTypeQuery = {0x11, 0, 0, 0};
const Bytes kSlot2Query = {0x0C, 0x04, 0, 0};

qbsim::ChassisConfig config(Model model, uint8_t major = 3, uint8_t minor = 6) {
  qbsim::ChassisConfig c = qbtest::chassisConfig(model);
  c.firmware = {{major, minor}};
  return c;
}

// An RK420 with a card in slot 1 (presence bit 5) and one in slot 2.
qbsim::ChassisConfig withCards(qbsim::ChassisConfig c, uint8_t cardType) {
  c.presenceMask = 0x3F;
  c.presenceMaskSet = true;
  c.slot1CardType = cardType;
  c.slot2Present = true;
  return c;
}

TEST(OpenSlot0Test, GeometryPerModelAndFirmware) {
  struct Case {
    const char *what;
    qbsim::ChassisConfig chassis;
    uint16_t limit, rows, columns, subs, groups, words, points, lt;
  } cases[] = {
      {"RK420 3.6", config(Model::RK420), 32, 12, 10, 5, 5, 12, 600, 0},
      {"RK420 2.0", config(Model::RK420, 2, 0), 32, 12, 10, 5, 5, 12, 600, 0},
      {"RK420 1.9", config(Model::RK420, 1, 9), 19, 12, 10, 5, 5, 13, 600, 0},
      {"RK420B 1.2", config(Model::RK420B, 1, 2), 19, 12, 10, 5, 5, 13, 600, 0},
      {"RK421", config(Model::RK421, 1, 0), 15, 10, 12, 4, 4, 13, 480, 0},
      {"RK422", config(Model::RK422), 1008, 16, 96, 21, 21, 49, 32256, 0},
      {"RK423", config(Model::RK423), 3, 8, 12, 1, 1, 10, 96, 2},
      {"RK423B", config(Model::RK423B), 3, 8, 12, 1, 1, 10, 96, 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Connection chassis = qbtest::connectChassis(c.chassis);
    uint64_t kind = 7;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(chassis.session, 0, &kind), 0);
    EXPECT_EQ(kind, 0u);
    const SlotArea &s = chassis.record->slots[0];
    EXPECT_EQ(s.arrayWordLimit, c.limit);
    EXPECT_EQ(s.rowCount, c.rows);
    EXPECT_EQ(s.columnCount, c.columns);
    EXPECT_EQ(s.subMatrixCount, c.subs);
    EXPECT_EQ(s.groupCount, c.groups);
    EXPECT_EQ(s.wordsPerGroup, c.words);
    EXPECT_EQ(s.pointCount, c.points);
    EXPECT_EQ(s.ltIsolationCount, c.lt);
  }
}

TEST(OpenSlot0Test, FirmwareVersionComesFromBytes2Or4) {
  qbsim::ChassisConfig newer = config(Model::RK420, 3, 7);
  newer.versionInBytes45 = true;
  for (const auto &[chassis, major, minor] :
       {std::tuple{config(Model::RK420, 2, 5), 2, 5}, std::tuple{newer, 3, 7}}) {
    const Connection c = qbtest::connectChassis(chassis);
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), 0);
    EXPECT_EQ(c.record->firmwareMajor, major);
    EXPECT_EQ(c.record->firmwareMinor, minor);
  }
}

// Entry n of subMatrixGroup names the n-th fitted sub-matrix.
TEST(OpenSlot0Test, PresenceMaskFillsGroupsInOrderOfFitting) {
  struct Case {
    Model model;
    uint32_t mask;
    std::vector<int> groups;   // leading entries; the rest are -1
    std::vector<int> present;  // positions marked present
  } cases[] = {
      {Model::RK420, 0x15, {0, 2, 4}, {0, 2, 4}},
      {Model::RK420, 0x3E, {1, 2, 3, 4}, {1, 2, 3, 4}},  // bit 5 is slot 1's
      {Model::RK421, 0x0A, {1, 3}, {1, 3}},
      {Model::RK422, 0x100001, {0, 20}, {0, 20}},
      {Model::RK423, 0x1, {0}, {0}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << qbsim::modelName(c.model) << " " << c.mask);
    qbsim::ChassisConfig chassis = config(c.model);
    chassis.presenceMask = c.mask;
    chassis.presenceMaskSet = true;
    const Connection conn = qbtest::connectChassis(chassis);
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(conn.session, 0, &kind), 0);
    const SlotArea &s = conn.record->slots[0];
    for (size_t i = 0; i < 21; ++i) {
      EXPECT_EQ(s.subMatrixGroup[i], i < c.groups.size() ? c.groups[i] : -1) << i;
      const bool present =
          std::find(c.present.begin(), c.present.end(), int(i)) != c.present.end();
      EXPECT_EQ(s.cardPresent[i], present ? 1 : 255) << i;
    }
  }
}

TEST(OpenSlot0Test, NothingFittedOrNoSuchChassis) {
  qbsim::ChassisConfig empty = config(Model::RK420);
  empty.presenceMaskSet = true;  // mask 0
  const Connection c = qbtest::connectChassis(empty);
  uint64_t kind = 0;
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(QBVISABoardInPlaceHDW(c.session, 0), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(qbtest::kUnknownSession, 0, &kind), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISABoardInPlaceHDW(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 3, &kind), QBVISA_ERR_PARAMETER);
  qbsim::injectFault(c.resource, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), QBVISA_ERR_RECEIVE);
}

// Exactly the requests each opening needs, in order.
TEST(OpenSlotTest, RequestsOnTheWire) {
  struct Case {
    const char *what;
    qbsim::ChassisConfig chassis;
    uint64_t slot;
    std::vector<Bytes> writes;
  } cases[] = {
      {"RK420 slot 0", config(Model::RK420), 0, {kVersionQuery, kPresenceQuery}},
      {"RK420 slot 1", withCards(config(Model::RK420), 0), 1,
       {kVersionQuery, kPresenceQuery, kIdentityQuery, kCardTypeQuery}},
      {"RK420 slot 2", withCards(config(Model::RK420), 0), 2,
       {kVersionQuery, kSlot2Query, kIdentityQuery}},
      {"RK421 any slot is 0", config(Model::RK421), 2, {kPresenceQuery}},
      {"RK423 any slot is 0", config(Model::RK423), 1, {kPresenceQuery}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Connection conn = qbtest::connectChassis(c.chassis);
    uint64_t kind = 9;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(conn.session, c.slot, &kind), 0);
    EXPECT_EQ(kind, conn.record->modelTypeCode == QBVISA_TYPE_RK420 ? c.slot : 0u);
    EXPECT_EQ(qbsim::writes(conn.resource), c.writes);
  }
}

TEST(OpenSlot1Test, CardTypesGiveTheirGeometry) {
  struct Case {
    uint8_t cardType;
    uint32_t kind;
    uint16_t limit, rows, groups, words, points, extra;
  } cases[] = {
      {0, 6, 25, 16, 8, 20, 800, 0},  {1, 10, 25, 16, 4, 20, 800, 12},
      {3, 5, 25, 8, 4, 20, 400, 0},   {9, 9, 25, 16, 4, 12, 800, 0},
      {11, 8, 25, 8, 2, 12, 400, 0},  {12, 4, 13, 8, 4, 10, 400, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "card type " << int(c.cardType));
    const Connection conn = qbtest::connectChassis(withCards(config(Model::RK420B), c.cardType));
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(conn.session, 1, &kind), 0);
    EXPECT_EQ(kind, 1u);
    const SlotArea &s = conn.record->slots[1];
    EXPECT_EQ(s.matrixKind, c.kind);
    EXPECT_EQ(s.arrayWordLimit, c.limit);
    EXPECT_EQ(s.rowCount, c.rows);
    EXPECT_EQ(s.groupCount, c.groups);
    EXPECT_EQ(s.wordsPerGroup, c.words);
    EXPECT_EQ(s.pointCount, c.points);
    EXPECT_EQ(s.cardExtra, c.extra);
    EXPECT_EQ(s.columnCount, 50);
    EXPECT_EQ(s.geometryWords[0], 4);
    EXPECT_EQ(s.geometryWords[1], 7);
    EXPECT_EQ(s.cardWords[0], 13);
    EXPECT_EQ(s.cardWords[1], 13);
    EXPECT_EQ(s.cardWordsFollowing[0], 12);
    EXPECT_EQ(s.cardWordsFollowing[1], 12);
    EXPECT_EQ(s.subMatrixGroup[0], 0);
    EXPECT_EQ(s.cardPresent[0], 1);
  }
}

TEST(OpenSlot1Test, Refusals) {
  struct Case {
    const char *what;
    qbsim::ChassisConfig chassis;
    int32_t status;
  } cases[] = {
      {"card type 2", withCards(config(Model::RK420), 2), QBVISA_ERR_RF_DEVICE_TYPE},
      {"card type 13", withCards(config(Model::RK420), 13), QBVISA_ERR_RF_DEVICE_TYPE},
      {"no card", config(Model::RK420), QBVISA_ERR_NO_TYPE1_CARD},
      {"card hardware 0.9", withCards(config(Model::RK420), 0), QBVISA_ERR_NOT_SUPPORTED},
      {"RK423B has no slot 1", config(Model::RK423B), QBVISA_ERR_UNKNOWN_CARD_TYPE},
  };
  cases[3].chassis.cards.resize(6);
  cases[3].chassis.cards[5].hwVersion = 9;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Connection conn = qbtest::connectChassis(c.chassis);
    uint64_t kind = 0;
    EXPECT_EQ(QBVISA_OpenSpecifiedCard(conn.session, 1, &kind), c.status);
  }
}

// Slot 2's matrix follows the chassis type in the identity reply, read
// where the controller's firmware puts it.
TEST(OpenSlot2Test, FirmwareGateAndSubType) {
  struct Case {
    const char *what;
    Model model;
    uint8_t major, minor;
    uint16_t typeCode;  // 0: the model's own
    bool present;
    int32_t status;
    uint32_t kind;
    uint16_t points;
  } cases[] = {
      {"2.6 cannot", Model::RK420, 2, 6, 0, true, QBVISA_ERR_NOT_SUPPORTED, 0, 0},
      {"2.7 RK420", Model::RK420, 2, 7, 0, true, 0, 11, 112},
      {"1.5 RK420B", Model::RK420B, 1, 5, 0, true, 0, 12, 100},
      {"3.05 RK420B", Model::RK420B, 3, 5, 0, true, 0, 12, 100},
      {"3.06 RK420B", Model::RK420B, 3, 6, 0, true, 0, 12, 100},
      {"4.0 RK420 with RK420B card", Model::RK420, 4, 0, 1051, true, 0, 12, 100},
      {"3.06 unknown sub-type", Model::RK420, 3, 6, 1066, true,
       QBVISA_ERR_UNKNOWN_CARD_TYPE, 0, 0},
      {"3.05 unknown sub-type", Model::RK420B, 3, 5, 1099, true,
       QBVISA_ERR_UNKNOWN_CARD_TYPE, 0, 0},
      {"nothing fitted", Model::RK420, 3, 6, 0, false, QBVISA_ERR_NO_TYPE2_CARD, 0, 0},
      {"RK421 opens slot 0", Model::RK421, 3, 6, 0, true, 0, 1, 480},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qbsim::ChassisConfig chassis = config(c.model, c.major, c.minor);
    chassis.slot2Present = c.present;
    chassis.typeCode = c.typeCode;
    const Connection conn = qbtest::connectChassis(chassis);
    uint64_t kind = 5;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(conn.session, 2, &kind), c.status);
    if (c.status != 0) continue;
    const bool card = c.model != Model::RK421;
    EXPECT_EQ(kind, card ? 2u : 0u);
    const SlotArea &s = conn.record->slots[card ? 2 : 0];
    EXPECT_EQ(s.matrixKind, c.kind);
    EXPECT_EQ(s.pointCount, c.points);
    if (card) {
      EXPECT_EQ(s.arrayWordLimit, 4);
      EXPECT_EQ(s.subMatrixCount, 1);
      EXPECT_EQ(s.wordsPerGroup, 8);
      EXPECT_EQ(s.subMatrixGroup[0], 1);
      EXPECT_EQ(s.cardPresent[20], 1);
    }
  }
}

TEST(SlotHelpersTest, LowLevelChecks) {
  const Connection c = qbtest::connectChassis(config(Model::RK420));
  EXPECT_EQ(IsBoardExists(nullptr, 0), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(IsBoardExists(c.record, 3), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(IsBoardExists(c.record, 0), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(IsBoardExists(c.record, 1), QBVISA_ERR_NO_TYPE1_CARD);
  EXPECT_EQ(IsBoardExists(c.record, 2), QBVISA_ERR_NO_TYPE2_CARD);
  c.record->slots[2].cardPresent[20] = 254;
  EXPECT_EQ(IsBoardExists(c.record, 2), 1);
  EXPECT_EQ(BoardInPlaceHDW(nullptr, 0), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(BoardInPlaceHDW(c.record, 3), QBVISA_ERR_PARAMETER);

  // The identity entry of card position n sits at byte (n-1)*10 + 24.
  const Connection other = qbtest::connectChassis([] {
    qbsim::ChassisConfig chassis = config(Model::RK422);
    chassis.cards.resize(19);
    chassis.cards[5].hwVersion = 42;
    chassis.cards[17].hwVersion = 77;
    return chassis;
  }());
  EXPECT_EQ(GetSlotHW(other.record, 6), 42);
  EXPECT_EQ(GetSlotHW(other.record, 18), 77);
  EXPECT_EQ(GetSlotHW(other.record, 19), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(GetSlotHW(other.record, -2), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(GetSlotHW(other.record, INT32_MIN), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(GetSlotHW(nullptr, 6), QBVISA_ERR_PARAMETER);
  // Slot 1 and 2 exist on the RK420 family only.
  EXPECT_EQ(BoardInPlaceHDW(other.record, 1), QBVISA_ERR_UNKNOWN_CARD_TYPE);

  ChassisRecord record{};
  EXPECT_FALSE(IsNewVer_3_06(nullptr));
  const struct {
    uint16_t major, minor;
    bool newer;
  } versions[] = {{2, 9, false}, {3, 5, false}, {3, 6, true}, {4, 0, true}};
  for (const auto &v : versions) {
    record.firmwareMajor = v.major;
    record.firmwareMinor = v.minor;
    EXPECT_EQ(IsNewVer_3_06(&record), v.newer) << v.major << "." << v.minor;
  }
}

TEST(InitTest, RequestsPerModel) {
  const Bytes getMode = {0x05, 0, 0, 0};
  const Bytes setRemote = {0x06, 0, 0, 0, 0x01, 0};
  auto clear = [](uint16_t command, uint16_t length) {
    Bytes frame(4 + length, 0);
    frame[0] = static_cast<uint8_t>(command);
    frame[2] = static_cast<uint8_t>(length);
    frame[3] = static_cast<uint8_t>(length >> 8);
    return frame;
  };
  struct Case {
    const char *what;
    Model model;
    uint8_t mode;
    uint64_t slot;  // single-board chassis take any slot as 0
    std::vector<Bytes> writes;
  } cases[] = {
      {"RK420", Model::RK420, 1, 0, {kVersionQuery, clear(19, 120)}},
      // Setting the mode asks for it once more before it changes it.
      {"RK421 local", Model::RK421, 0, 4,
       {getMode, getMode, setRemote, clear(19, 104)}},
      {"RK421 remote", Model::RK421, 1, 2, {getMode, clear(19, 104)}},
      {"RK422", Model::RK422, 1, 9, {clear(67, 2058)}},
      {"RK423B", Model::RK423B, 1, 0, {clear(19, 20)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    qbsim::ChassisConfig chassis = config(c.model);
    chassis.controlMode = c.mode;
    const Connection conn = qbtest::connectChassis(chassis);
    uint64_t kind = 0;
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(conn.session, 0, &kind), 0);
    qbsim::clearTraffic(conn.resource);
    EXPECT_EQ(QBVISA_Init(conn.session, c.slot), 0);
    EXPECT_EQ(qbsim::writes(conn.resource), c.writes);
    EXPECT_EQ(qbsim::chassisState(conn.resource).controlMode, 1);
  }
}

TEST(InitTest, Failures) {
  const Connection rk421 = qbtest::connectChassis(config(Model::RK421));
  uint64_t kind = 0;
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(rk421.session, 0, &kind), 0);
  qbsim::injectFault(rk421.resource, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_Init(rk421.session, 0), QBVISA_ERR_RECEIVE);
  EXPECT_EQ(QBVISA_Init(qbtest::kUnknownSession, 0), QBVISA_ERR_HANDLE);
  // An RK420 slot that was never opened cannot be cleared.
  const Connection rk420 = qbtest::connectChassis(config(Model::RK420));
  EXPECT_EQ(QBVISA_Init(rk420.session, 0), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(QBVISA_Init(rk420.session, 1), QBVISA_ERR_NO_TYPE1_CARD);
}

}  // namespace
