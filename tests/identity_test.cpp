// Serial numbers, card types and card sizes on the simulated bench.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "support/admin_bench.hpp"

namespace {

using admin_bench::Commands;
using admin_bench::ConnectOne;
using admin_bench::kUnknownSession;
using admin_bench::Words;
using qbsim::Model;
using Version = std::pair<uint8_t, uint8_t>;

const std::string kName = "GPIB0::7::INSTR";

qbsim::Resource Chassis(Model model, Version firmware = {3, 6}) {
  qbsim::Resource resource = admin_bench::Chassis(kName, model);
  resource.chassis.firmware = {firmware};
  return resource;
}

TEST(SetSN, SpreadsTheSerialOverWordsThenApplies) {
  const uint32_t session = ConnectOne(Chassis(Model::RK420));
  ASSERT_EQ(QBVISA_SetSN(session, "12345678", "3"), 0);
  const auto writes = qbsim::writes(kName);
  ASSERT_EQ(writes.size(), 2u);
  ASSERT_EQ(writes[0].size(), 24u);  // 12345678 = 0x00BC614E
  EXPECT_EQ(Words(writes[0]), (std::vector<uint16_t>{2, 0, 0, 188, 97, 78, 3, 0, 0, 0, 0, 0}));
  EXPECT_EQ(writes[1], (std::vector<uint8_t>{14, 0}));

  ASSERT_EQ(QBVISA_SetSN(session, "87654321", "260"), 0);
  EXPECT_EQ(qbsim::chassisState(kName).serial, 87654321u);
  EXPECT_EQ(qbsim::chassisState(kName).hwVersion, 4);  // low byte of 260
}

TEST(SetSN, LookupFirstThenTextsAndNoTraffic) {
  const uint32_t session = ConnectOne(Chassis(Model::RK422));
  const std::tuple<const char *, const char *, int32_t> cases[] = {
      {"1234567", "3", QBVISA_ERR_SN_INPUT},
      {"100000000", "3", QBVISA_ERR_SN_INPUT},
      {"1234a678", "3x", QBVISA_ERR_SN_INPUT},  // the serial is checked first
      {"", "3", QBVISA_ERR_SN_INPUT},
      {nullptr, "3", QBVISA_ERR_SN_INPUT},
      {"00000000000012345678", "3", QBVISA_ERR_SN_INPUT},  // too long to convert
      {"4307312974", "3", QBVISA_ERR_SN_INPUT},  // 2^32 + 12345678 must not wrap
      {"12345678", "3x", QBVISA_ERR_BAD_HW_NUMBER},
      {"12345678", nullptr, QBVISA_ERR_BAD_HW_NUMBER},
      {"12345678", "4294967299", QBVISA_ERR_BAD_HW_NUMBER},
  };
  for (const auto &[sn, hw, expected] : cases) {
    SCOPED_TRACE(sn == nullptr ? "(null)" : sn);
    EXPECT_EQ(QBVISA_SetSN(session, sn, hw), expected);
    EXPECT_EQ(QBVISA_SetSN(kUnknownSession, sn, hw), QBVISA_ERR_HANDLE);
  }
  EXPECT_TRUE(qbsim::writes(kName).empty());
}

TEST(SetSN, ASilentChassisIsNoErrorButGetsNoApply) {
  const uint32_t session = ConnectOne(Chassis(Model::RK421));
  for (const auto fault : {qbsim::Fault::WriteFails, qbsim::Fault::ReadFails,
                           qbsim::Fault::FailureReply}) {
    qbsim::clearTraffic(kName);
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(QBVISA_SetSN(session, "23456789", "1"), 0);
    const auto commands = Commands(kName);
    EXPECT_EQ(std::count(commands.begin(), commands.end(), 14), 0);
  }
}

TEST(SetCardSN, OneCommandPerSlotTwentyBytesNoApply) {
  const uint32_t session = ConnectOne(Chassis(Model::RK420));
  for (int32_t slot = 1; slot <= 6; ++slot) {
    qbsim::clearTraffic(kName);
    const uint32_t sn = 20000000 + slot;
    ASSERT_EQ(QBVISA_SetCardSN(session, std::to_string(sn).c_str(), "12", slot), 0);
    const auto writes = qbsim::writes(kName);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0], (std::vector<uint8_t>{11, 0, 0, 0}));
    ASSERT_EQ(writes[1].size(), 20u);
    EXPECT_EQ(Words(writes[1]),
              (std::vector<uint16_t>{static_cast<uint16_t>(31 + slot), 0, 0x01,
                                     static_cast<uint16_t>(sn >> 16 & 0xFF),
                                     static_cast<uint16_t>(sn >> 8 & 0xFF),
                                     static_cast<uint16_t>(sn & 0xFF), 12, 0, 0, 0}));
    EXPECT_EQ(qbsim::chassisState(kName).cards.at(slot - 1).serial, sn);
  }
}

TEST(SetCardSN, Refusals) {
  struct Case {
    Model model;
    Version firmware;
    const char *sn;
    const char *hw;
    int32_t slot;
    int32_t expected;
    std::vector<uint16_t> sent;
  };
  const Case cases[] = {
      {Model::RK420, {3, 6}, "12345678", "1", 0, QBVISA_ERR_BAD_SLOT, {}},
      {Model::RK420, {3, 6}, "12345678", "1", 7, QBVISA_ERR_BAD_SLOT, {}},
      {Model::RK420, {3, 6}, "1234567x", "1", 1, QBVISA_ERR_SN_INPUT, {}},
      {Model::RK420, {3, 6}, "12345678", "x", 1, QBVISA_ERR_BAD_HW_NUMBER, {}},
      // The range is checked only after the version query.
      {Model::RK422, {3, 6}, "1234567", "1", 1, QBVISA_ERR_SN_INPUT, {11}},
      {Model::RK420, {3, 5}, "12345678", "1", 1, QBVISA_ERR_NOT_SUPPORTED, {11}},
      {Model::RK420B, {2, 9}, "12345678", "1", 1, QBVISA_ERR_NOT_SUPPORTED, {11}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.sn) + " slot " + std::to_string(c.slot));
    const uint32_t session = ConnectOne(Chassis(c.model, c.firmware));
    EXPECT_EQ(QBVISA_SetCardSN(session, c.sn, c.hw, c.slot), c.expected);
    EXPECT_EQ(Commands(kName), c.sent);
    EXPECT_EQ(QBVISA_SetCardSN(kUnknownSession, c.sn, c.hw, c.slot), QBVISA_ERR_HANDLE);
  }
}

TEST(GetSN, ChassisAndCardSerialsUnsetCardsReadZero) {
  qbsim::Resource resource = Chassis(Model::RK420);
  resource.chassis.serial = 87654321;
  resource.chassis.cards = {{10000000, 1}, {0, 1}, {99999999, 1}};
  const uint32_t session = ConnectOne(resource);
  std::vector<uint32_t> list(32, 0xDEADBEEF);
  ASSERT_EQ(QBVISA_GetSN(session, list.data(), 8), 0);
  EXPECT_EQ(std::vector<uint32_t>(list.begin(), list.begin() + 9),
            (std::vector<uint32_t>{87654321, 10000000, 0, 99999999, 0, 0, 0, 0, 0xDEADBEEF}));
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11, 8}));
  // Never more than the 30 entries of the list, whatever count says.
  ASSERT_EQ(QBVISA_GetSN(session, list.data(), 1000), 0);
  EXPECT_EQ(list[30], 0xDEADBEEF);
}

TEST(GetSN, UnsetSerialsAndOldFirmwareLeaveTheListAlone) {
  const std::tuple<Model, Version, uint32_t, uint32_t, int32_t> cases[] = {
      {Model::RK422, {3, 6}, 0xFFFFFFFF, 0, QBVISA_ERR_SN_UNSET},
      {Model::RK421, {3, 6}, 9999999, 0, QBVISA_ERR_SN_UNSET},
      {Model::RK421, {3, 6}, 12345678, 1234567, QBVISA_ERR_SN_UNSET},  // card
      {Model::RK423, {3, 6}, 12345678, 0xFFFFFFFF, QBVISA_ERR_SN_UNSET},
      {Model::RK420, {3, 5}, 12345678, 0, QBVISA_ERR_NOT_SUPPORTED},
  };
  for (const auto &[model, firmware, serial, card, expected] : cases) {
    SCOPED_TRACE(serial);
    qbsim::Resource resource = Chassis(model, firmware);
    resource.chassis.serial = serial;
    resource.chassis.cards = {{card, 1}};
    const uint32_t session = ConnectOne(resource);
    std::vector<uint32_t> list(30, 77);
    EXPECT_EQ(QBVISA_GetSN(session, list.data(), 30), expected);
    EXPECT_EQ(list, std::vector<uint32_t>(30, 77));
  }
  EXPECT_EQ(QBVISA_GetSN(kUnknownSession, nullptr, 0), QBVISA_ERR_HANDLE);
}

TEST(GetCardType, NamesEveryCodeOfEverySlot) {
  const uint32_t session = ConnectOne(Chassis(Model::RK420));
  ChassisRecord *record = admin_bench::Record(session);
  const char *names[] = {"N7360", "N7362", "N7363", "N7364", "GX3", "N7361-F", "N7361-HH",
                         "N7361-H", "N7361-H", "N7361-HH", "N7361-FH", "K57", "K63",
                         "Unknown"};
  for (uint32_t slot = 0; slot < 3; ++slot) {
    record->slots[slot].cardPresent[0] = 1;
    for (uint32_t code = 0; code <= 14; ++code) {
      record->slots[slot].matrixKind = code == 14 ? 0xFFFFFFFF : code;
      char text[12];
      std::fill(std::begin(text), std::end(text), '#');
      ASSERT_EQ(QBVISA_GetCardType(session, slot, text), 0);
      EXPECT_STREQ(text, names[std::min(code, 13u)]) << code;
      EXPECT_EQ(text[10], '#');
    }
  }
}

TEST(GetCardType, Refusals) {
  const uint32_t session = ConnectOne(Chassis(Model::RK420));
  char name[10] = "same";  // connecting marks every slot empty until opened
  EXPECT_EQ(QBVISA_GetCardType(session, 0, name), QBVISA_ERR_NO_TYPE0_CARD);
  EXPECT_EQ(QBVISA_GetCardType(session, 1, name), QBVISA_ERR_NO_TYPE1_CARD);
  EXPECT_EQ(QBVISA_GetCardType(session, 2, name), QBVISA_ERR_NO_TYPE2_CARD);
  EXPECT_EQ(QBVISA_GetCardType(session, 3, name), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetCardType(kUnknownSession, 0, name), QBVISA_ERR_HANDLE);
  EXPECT_STREQ(name, "same");
}

TEST(GetCardSize, ExactNamesOnly) {
  const std::pair<const char *, const char *> cases[] = {
      {"N7360", "12*10"},    {"GX3", "8*50"},       {"N7361-F", "8*50"},
      {"N7361-FF", "16*50"}, {"N7361-FH", "16*50"}, {"N7361-HH", "16*50"},
      {"N7361-H", "8*50"},   {"K57", "14*8"},       {"K63", "10*10"},
      {"N7362", "10*12"},    {"N7363", "16*96"},    {"N7364", "8*12"},
      {"n7360", "Unknown"},  {"N7360 ", "Unknown"}, {nullptr, "Unknown"},
  };
  for (const auto &[name, size] : cases) {
    char text[12];
    std::fill(std::begin(text), std::end(text), '#');
    EXPECT_EQ(QBVISA_GetCardSize(name, text), 0);
    EXPECT_STREQ(text, size) << (name == nullptr ? "(null)" : name);
    EXPECT_EQ(text[10], '#');
  }
}

}  // namespace
