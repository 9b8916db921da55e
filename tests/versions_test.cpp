// Firmware and hardware version lists and the device summary texts on the
// simulated bench.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/admin_bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using admin_bench::Commands;
using admin_bench::ConnectOne;
using admin_bench::kUnknownSession;
using qbsim::Model;
using Version = std::pair<uint8_t, uint8_t>;

const std::string kName = "USB0::0x1234::0x0420::QB0001::INSTR";

// A list of 10-byte text slots, prefilled so that untouched slots show.
struct SlotList {
  std::vector<char> bytes = std::vector<char>(400, '#');
  char *data() { return bytes.data(); }
  std::string at(size_t slot) const { return std::string(&bytes[slot * 10], strnlen(&bytes[slot * 10], 10)); }
  bool untouched(size_t slot) const { return bytes[slot * 10] == '#'; }
};

qbsim::Resource Chassis(Model model, std::vector<Version> firmware = {{3, 6}}) {
  qbsim::Resource resource = admin_bench::Chassis(kName, model);
  resource.chassis.firmware = std::move(firmware);
  return resource;
}

TEST(GetSWVersion, ByModel) {
  struct Case {
    Model model;
    std::vector<Version> firmware;
    std::vector<std::string> expected;
    std::vector<uint16_t> sent;
  };
  const Case cases[] = {
      {Model::RK420, {{3, 6}}, {"3.06"}, {11}},
      {Model::RK420B, {{16, 0}}, {"10.00"}, {11}},
      // Main controller (11) and second controller (49): exactly two slots.
      {Model::RK421, {{3, 6}, {4, 4}}, {"3.06", "1.02"}, {11, 49}},
      // One slot per pair; the first pair with a zero byte ends the list.
      {Model::RK422, {{3, 6}, {2, 1}, {0x1F, 0x20}, {4, 0}, {5, 5}}, {"3.06", "2.01", "1f.20"}, {11}},
      {Model::RK423, {{0, 6}}, {}, {11}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(qbsim::modelName(c.model));
    const uint32_t session = ConnectOne(Chassis(c.model, c.firmware));
    SlotList list;
    ASSERT_EQ(QBVISA_GetSWVersion(session, list.data(), 0), 0);
    for (size_t i = 0; i < c.expected.size(); ++i) EXPECT_EQ(list.at(i), c.expected[i]);
    EXPECT_TRUE(list.untouched(c.expected.size()));
    EXPECT_EQ(Commands(kName), c.sent);
  }
}

TEST(GetSWVersion, NewerRk420ReportsInBytesFourAndFive) {
  qbsim::Resource resource = Chassis(Model::RK420B, {{3, 10}});
  resource.chassis.versionInBytes45 = true;
  const uint32_t session = ConnectOne(resource);
  SlotList list;
  ASSERT_EQ(QBVISA_GetSWVersion(session, list.data(), 0), 0);
  EXPECT_EQ(list.at(0), "3.0a");

  qbsim::injectFault(kName, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_GetSWVersion(session, list.data(), 0), QBVISA_ERR_RECEIVE);
  EXPECT_EQ(QBVISA_GetSWVersion(kUnknownSession, list.data(), 0), QBVISA_ERR_HANDLE);
}

TEST(GetHWVersion, ChassisThenEveryCardPosition) {
  qbsim::Resource resource = Chassis(Model::RK422);
  resource.chassis.hwVersion = 31;
  resource.chassis.cards.resize(21);
  resource.chassis.cards[0].hwVersion = 5;
  resource.chassis.cards[1].hwVersion = 123;  // hexadecimal major from 100 up
  resource.chassis.cards[20].hwVersion = 255;
  const uint32_t session = ConnectOne(resource);
  SlotList list;
  ASSERT_EQ(QBVISA_GetHWVersion(session, list.data(), 1), 0);
  EXPECT_EQ(list.at(0), "3.1");
  EXPECT_EQ(list.at(1), "0.5");
  EXPECT_EQ(list.at(2), "c.3");
  EXPECT_EQ(list.at(3), "1.0");
  EXPECT_EQ(list.at(21), "19.5");
  EXPECT_TRUE(list.untouched(22));  // 22 slots, 220 bytes
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11, 8}));

  for (const auto &[model, slots] : {std::pair{Model::RK420, 7}, std::pair{Model::RK421, 5},
                                     std::pair{Model::RK423B, 2}}) {
    const uint32_t other = ConnectOne(Chassis(model));
    SlotList shorter;
    ASSERT_EQ(QBVISA_GetHWVersion(other, shorter.data(), 0), 0);
    EXPECT_FALSE(shorter.untouched(slots - 1)) << qbsim::modelName(model);
    EXPECT_TRUE(shorter.untouched(slots)) << qbsim::modelName(model);
  }
}

TEST(GetHWVersion, ReadsTheReplyWhateverTheIdentityQueryReports) {
  wire_tap::Scope tap;
  const uint32_t session = ConnectOne(Chassis(Model::RK423));
  wire_tap::onWrite = [](std::vector<uint8_t> &frame) {
    if (frame[0] == 8) qbsim::injectFault(kName, qbsim::Fault::ReadFails);
  };
  SlotList list;
  EXPECT_EQ(QBVISA_GetHWVersion(session, list.data(), 0), 0);
  EXPECT_EQ(list.at(0), "0.0");
  EXPECT_EQ(list.at(1), "0.0");
}

TEST(GetHWVersion, Refusals) {
  const uint32_t session = ConnectOne(Chassis(Model::RK420B, {{3, 5}}));
  SlotList list;
  EXPECT_EQ(QBVISA_GetHWVersion(session, list.data(), 0), QBVISA_ERR_NOT_SUPPORTED);
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11}));
  qbsim::injectFault(kName, qbsim::Fault::WriteFails);
  EXPECT_EQ(QBVISA_GetHWVersion(session, list.data(), 0), QBVISA_ERR_SEND);
  EXPECT_EQ(QBVISA_GetHWVersion(kUnknownSession, list.data(), 0), QBVISA_ERR_HANDLE);
  EXPECT_TRUE(list.untouched(0));
}

struct InfoTexts {
  char type[16] = {}, chars[16] = {}, sn[16] = {}, version[16] = {};
  explicit InfoTexts(const char *existing = "") {
    for (char *buffer : {type, chars, sn, version}) std::strcpy(buffer, existing);
  }
  int32_t get(uint32_t session, uint64_t maxlen) {
    return QBVISA_GetDeviceInfo(session, type, chars, sn, version, maxlen);
  }
};

TEST(GetDeviceInfo, BothIdentityLayouts) {
  const std::tuple<Model, Version, uint32_t, const char *, const char *, const char *> cases[] = {
      {Model::RK422, {3, 6}, 12345678, "043A", "12345678", "3.06"},
      {Model::RK420, {3, 6}, 99999999, "041A", "99999999", "3.06"},
      // Older RK420 firmware: seven digits, right-aligned to eight places.
      {Model::RK420, {3, 5}, 1234567, "041A", " 1234567", "3.05"},
      {Model::RK420B, {1, 0x16}, 1000000, "041B", " 1000000", "1.16"},
  };
  for (const auto &[model, firmware, serial, type, sn, version] : cases) {
    SCOPED_TRACE(sn);
    qbsim::Resource resource = Chassis(model, {firmware});
    resource.chassis.serial = serial;
    resource.chassis.idChars = {'Q', '7'};
    const uint32_t session = ConnectOne(resource);
    InfoTexts texts;
    ASSERT_EQ(texts.get(session, 8), 0);
    EXPECT_STREQ(texts.type, type);
    EXPECT_STREQ(texts.chars, "Q7");
    EXPECT_STREQ(texts.sn, sn);
    EXPECT_STREQ(texts.version, version);
    EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11, 8}));
  }
}

// The limit is applied only when the caller's buffer already holds a text at
// least maxlen long.
TEST(GetDeviceInfo, MaxlenIsTestedAgainstTheCallersExistingText) {
  const uint32_t session = ConnectOne(Chassis(Model::RK421));
  const std::tuple<const char *, uint64_t, const char *, const char *> cases[] = {
      {"", 3, "042A", "12345678"},
      {"XX", 3, "042A", "12345678"},
      {"XXX", 3, "042", "123"},
      {"XXXXXXXXXX", 3, "042", "123"},
      {"XXXXXXXXXX", 0, "", ""},
  };
  for (const auto &[existing, maxlen, type, sn] : cases) {
    SCOPED_TRACE(std::string(existing) + "/" + std::to_string(maxlen));
    InfoTexts texts(existing);
    ASSERT_EQ(texts.get(session, maxlen), 0);
    EXPECT_STREQ(texts.type, type);
    EXPECT_STREQ(texts.sn, sn);
  }
}

TEST(GetDeviceInfo, Refusals) {
  const std::tuple<Model, Version, uint32_t> cases[] = {
      {Model::RK423, {3, 6}, 0xFFFFFFFF},
      {Model::RK421, {3, 6}, 9999999},
      {Model::RK420, {3, 5}, 12345678},  // too long for the older layout
      {Model::RK420, {2, 0}, 999999},
  };
  for (const auto &[model, firmware, serial] : cases) {
    SCOPED_TRACE(serial);
    qbsim::Resource resource = Chassis(model, {firmware});
    resource.chassis.serial = serial;
    const uint32_t session = ConnectOne(resource);
    InfoTexts texts("keep");
    EXPECT_EQ(texts.get(session, 8), QBVISA_ERR_SN_UNSET);
    EXPECT_STREQ(texts.sn, "keep");
  }
  const uint32_t session = ConnectOne(Chassis(Model::RK421));
  InfoTexts texts;
  qbsim::injectFault(kName, qbsim::Fault::FailureReply);
  EXPECT_EQ(texts.get(session, 8), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_EQ(texts.get(kUnknownSession, 8), QBVISA_ERR_HANDLE);
}

}  // namespace
