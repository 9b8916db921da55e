// Serial numbers, card types and card sizes on the simulated bench.
#include <gtest/gtest.h>

#include "bench.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
using Version = std::pair<uint8_t, uint8_t>;

const std::string kName = "GPIB0::7::INSTR";

uint32_t Connect(Model model, Version firmware = {3, 6}, uint32_t serial = 12345678,
                 std::vector<qbsim::CardIdentity> cards = {}) {
  qbsim::Resource resource = Chassis(kName, model);
  resource.chassis.firmware = {firmware};
  resource.chassis.serial = serial;
  resource.chassis.cards = std::move(cards);
  return ConnectOne(resource);
}

TEST(SetSN, SpreadsTheSerialOverWordsThenApplies) {
  const uint32_t session = Connect(Model::RK420);
  ASSERT_EQ(QBVISA_SetSN(session, "12345678", "260"), 0);  // 0x00BC614E; low byte of 260
  const auto writes = qbsim::writes(kName);
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0].size(), 24u);
  EXPECT_EQ(Words(writes[0]), (std::vector<uint16_t>{2, 0, 0, 188, 97, 78, 4, 0, 0, 0, 0, 0}));
  EXPECT_EQ(writes[1], (std::vector<uint8_t>{14, 0}));
  qbsim::clearTraffic(kName);  // nine digits still convert: 123456789 = 0x075BCD15
  ASSERT_EQ(QBVISA_SetSN(session, "12345678", "123456789"), 0);
  EXPECT_EQ(Words(qbsim::writes(kName).at(0)).at(6), 0x15);
  // Serials are written blind: a chassis that does not answer is no error,
  // but it gets no apply either.
  for (const auto fault : {qbsim::Fault::WriteFails, qbsim::Fault::ReadFails, qbsim::Fault::FailureReply}) {
    qbsim::clearTraffic(kName);
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(QBVISA_SetSN(session, "23456789", "1"), 0);
    EXPECT_LE(qbsim::writes(kName).size(), 1u);
  }
}

TEST(SetCardSN, OneCommandPerSlotTwentyBytesNoApply) {
  const uint32_t session = Connect(Model::RK420);
  for (uint16_t slot = 1; slot <= 6; ++slot) {
    qbsim::clearTraffic(kName);  // 2000000s = 0x01312D00 + s
    ASSERT_EQ(QBVISA_SetCardSN(session, std::to_string(20000000 + slot).c_str(), "12", slot), 0);
    const auto writes = qbsim::writes(kName);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0], (std::vector<uint8_t>{11, 0, 0, 0}));
    EXPECT_EQ(writes[1].size(), 20u);
    EXPECT_EQ(Words(writes[1]),
              (std::vector<uint16_t>{uint16_t(31 + slot), 0, 0x01, 0x31, 0x2D, slot, 12, 0, 0, 0}));
  }
}

// The session is looked up first, then the serial text, the hardware number
// and the slot; a card serial's range only after the version query.
TEST(SetSerialNumbers, Refusals) {
  constexpr int32_t kChassis = -1;  // the chassis's own serial, not a card's
  const struct {
    int32_t slot;
    const char *sn, *hw;
    int32_t expected;
    std::vector<uint16_t> sent;
    Version firmware = {3, 6};
    Model model = Model::RK420;
  } cases[] = {
      {kChassis, "1234567", "3", QBVISA_ERR_SN_INPUT, {}},
      {kChassis, "100000000", "3", QBVISA_ERR_SN_INPUT, {}},
      {kChassis, "1234a678", "3x", QBVISA_ERR_SN_INPUT, {}},
      {kChassis, nullptr, "3", QBVISA_ERR_SN_INPUT, {}},
      {kChassis, "00000000000012345678", "3", QBVISA_ERR_SN_INPUT, {}},  // too long to convert
      {kChassis, "4307312974", "3", QBVISA_ERR_SN_INPUT, {}},  // 2^32 + 12345678 must not wrap
      {kChassis, "12345678", nullptr, QBVISA_ERR_BAD_HW_NUMBER, {}},
      {kChassis, "12345678", "4294967299", QBVISA_ERR_BAD_HW_NUMBER, {}},
      {kChassis, "12345678", "1234567890", QBVISA_ERR_BAD_HW_NUMBER, {}},
      {kChassis, "12345678", "0000000000000001", QBVISA_ERR_BAD_HW_NUMBER, {}},  // 16 characters
      {kChassis, "12345678", "0123456789", 0, {2, 14}},  // nine digits still fit
      {0, "12345678", "1", QBVISA_ERR_BAD_SLOT, {}},
      {7, "12345678", "1", QBVISA_ERR_BAD_SLOT, {}},
      {7, "12345678", "x", QBVISA_ERR_BAD_HW_NUMBER, {}},
      {1, "1234567", "1", QBVISA_ERR_SN_INPUT, {11}, {3, 6}, Model::RK422},
      {1, "12345678", "1", QBVISA_ERR_NOT_SUPPORTED, {11}, {3, 5}},
      {1, "12345678", "1", QBVISA_ERR_NOT_SUPPORTED, {11}, {2, 9}, Model::RK420B},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << &c - cases);
    const auto set = [&c](uint32_t session) {
      return c.slot == kChassis ? QBVISA_SetSN(session, c.sn, c.hw)
                                : QBVISA_SetCardSN(session, c.sn, c.hw, c.slot);
    };
    EXPECT_EQ(set(Connect(c.model, c.firmware)), c.expected);
    EXPECT_EQ(Commands(kName), c.sent);
    EXPECT_EQ(set(kUnknownSession), QBVISA_ERR_HANDLE);
  }
}

TEST(GetSN, ChassisAndCardSerials) {
  const uint32_t session = Connect(Model::RK420, {3, 6}, 87654321, {{10000000, 1}, {0, 1}, {99999999, 1}});
  std::vector<uint32_t> list(32, 0xDEADBEEF);
  ASSERT_EQ(QBVISA_GetSN(session, list.data(), 8), 0);
  EXPECT_EQ(std::vector<uint32_t>(list.begin(), list.begin() + 9),
            (std::vector<uint32_t>{87654321, 10000000, 0, 99999999, 0, 0, 0, 0, 0xDEADBEEF}));
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11, 8}));
  ASSERT_EQ(QBVISA_GetSN(session, list.data(), 1000), 0);  // never past its 30 entries
  EXPECT_EQ(list[30], 0xDEADBEEF);
  EXPECT_EQ(QBVISA_GetSN(kUnknownSession, list.data(), 1), QBVISA_ERR_HANDLE);
  // Unset serials and old firmware leave the list alone.
  const struct { Model model; Version firmware; uint32_t serial, card; int32_t expected; } cases[] = {
      {Model::RK422, {3, 6}, 0xFFFFFFFF, 0, QBVISA_ERR_SN_UNSET},
      {Model::RK421, {3, 6}, 9999999, 0, QBVISA_ERR_SN_UNSET},
      {Model::RK421, {3, 6}, 12345678, 1234567, QBVISA_ERR_SN_UNSET},
      {Model::RK420, {3, 5}, 12345678, 0, QBVISA_ERR_NOT_SUPPORTED},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.serial) + " card " + std::to_string(c.card));
    list.assign(30, 77);
    EXPECT_EQ(QBVISA_GetSN(Connect(c.model, c.firmware, c.serial, {{c.card, 1}}), list.data(), 30), c.expected);
    EXPECT_EQ(list, std::vector<uint32_t>(30, 77));
  }
}

TEST(GetCardType, RefusesEmptySlotsAndNamesEveryCode) {
  const uint32_t session = Connect(Model::RK420);
  char name[10] = "same";  // connecting marks every slot empty until opened
  EXPECT_EQ(QBVISA_GetCardType(session, 0, name), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(QBVISA_GetCardType(session, 1, name), QBVISA_ERR_NO_TYPE1_CARD);
  EXPECT_EQ(QBVISA_GetCardType(session, 2, name), QBVISA_ERR_NO_TYPE2_CARD);
  EXPECT_EQ(QBVISA_GetCardType(session, 3, name), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetCardType(kUnknownSession, 0, name), QBVISA_ERR_HANDLE);
  EXPECT_STREQ(name, "same");
  // Codes 7 and 8 share a name; anything past the known codes is unknown.
  const std::pair<uint32_t, const char *> names[] = {
      {0, "N7360"}, {6, "N7361-HH"}, {7, "N7361-H"}, {8, "N7361-H"},
      {12, "K63"},  {13, "Unknown"},  {0xFFFFFFFF, "Unknown"}};
  for (uint32_t slot = 0; const auto &[code, expected] : names) {  // each slot in turn
    SlotArea &area = Record(session)->slots[slot % 3];
    area.cardPresent[0] = 1;
    area.matrixKind = code;
    ASSERT_EQ(QBVISA_GetCardType(session, slot++ % 3, name), 0);
    EXPECT_STREQ(name, expected) << code;
  }
}

TEST(GetCardSize, ExactNamesOnly) {
  const std::pair<const char *, const char *> cases[] = {
      {"N7360", "12*10"},  {"N7361-FF", "16*50"}, {"N7361-H", "8*50"}, {"N7363", "16*96"},
      {"n7360", "Unknown"}, {"N7360 ", "Unknown"}, {nullptr, "Unknown"}};
  for (const auto &[name, size] : cases) {
    char text[10];
    EXPECT_EQ(QBVISA_GetCardSize(name, text), 0);
    EXPECT_STREQ(text, size) << (name == nullptr ? "(null)" : name);
  }
}

}  // namespace
