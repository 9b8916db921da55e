// Firmware and hardware version lists and the device summary texts on the
// simulated bench.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
using Texts = std::vector<std::string>;
using Version = std::pair<uint8_t, uint8_t>;

const std::string kName = "USB0::0x1234::0x0420::QB0001::INSTR";

uint32_t Connect(Model model, std::vector<Version> firmware = {{3, 6}}, uint32_t serial = 12345678,
                 bool versionInBytes45 = false) {
  qbsim::Resource resource = Chassis(kName, model);
  resource.chassis.firmware = std::move(firmware);
  resource.chassis.serial = serial;
  resource.chassis.idChars = {'Q', '7'};
  resource.chassis.versionInBytes45 = versionInBytes45;
  return ConnectOne(resource);
}

// The texts of a list of 10-byte slots up to the first slot left unwritten.
Texts Written(const char (&list)[400]) {
  Texts texts;
  for (const char *slot = list; slot < list + 400 && *slot != '#'; slot += 10) {
    texts.emplace_back(slot, strnlen(slot, 10));
  }
  return texts;
}

TEST(GetSWVersion, ByModel) {
  const struct {
    Model model;
    std::vector<Version> firmware;
    Texts expected;
    std::vector<uint16_t> sent = {11};
    bool versionInBytes45 = false;
  } cases[] = {
      {Model::RK420B, {{16, 0}}, {"10.00"}},
      {Model::RK420B, {{3, 10}}, {"3.0a"}, {11}, true},  // newer controllers: bytes 4 and 5
      {Model::RK420, {{4, 0}}, {"4.00"}, {11}, true},  // either byte alone marks that form
      {Model::RK420B, {{0, 0x12}}, {"0.12"}, {11}, true},
      {Model::RK421, {{3, 6}, {4, 4}}, {"3.06", "1.02"}, {11, 49}},  // main and second controller
      // One slot per pair; the first pair with a zero byte ends the list.
      {Model::RK422, {{3, 6}, {2, 1}, {0x1F, 0x20}, {4, 0}, {5, 5}}, {"3.06", "2.01", "1f.20"}},
      {Model::RK423, {{0, 6}}, {}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << &c - cases);
    char list[400];
    std::memset(list, '#', sizeof list);
    ASSERT_EQ(QBVISA_GetSWVersion(Connect(c.model, c.firmware, 12345678, c.versionInBytes45), list, 0), 0);
    EXPECT_EQ(Written(list), c.expected);
    EXPECT_EQ(Commands(kName), c.sent);
  }
}

TEST(GetHWVersion, ChassisThenEveryCardPosition) {
  qbsim::Resource resource = Chassis(kName, Model::RK422);
  resource.chassis.hwVersion = 31;
  resource.chassis.cards.resize(21);  // 10 unless set: "1.0"
  resource.chassis.cards[0].hwVersion = 5;
  resource.chassis.cards[1].hwVersion = 123;  // hexadecimal major from 100 up
  resource.chassis.cards[20].hwVersion = 195;
  char list[400];
  std::memset(list, '#', sizeof list);
  ASSERT_EQ(QBVISA_GetHWVersion(ConnectOne(resource), list, 1), 0);
  Texts expected(22, "1.0");
  expected[0] = "3.1", expected[1] = "0.5", expected[2] = "c.3", expected[21] = "13.5";
  EXPECT_EQ(Written(list), expected);
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11, 8}));
  std::memset(list, '#', sizeof list);  // the chassis and its card positions
  ASSERT_EQ(QBVISA_GetHWVersion(Connect(Model::RK420), list, 0), 0);
  EXPECT_EQ(Written(list).size(), 7u);
  // The identity reply is read whatever the exchange reports: a dropped
  // answer yields the cleared buffer's zeros.
  qbtest::Scope tap;
  const uint32_t session = Connect(Model::RK423);
  std::memset(list, '#', sizeof list);
  qbtest::onWrite = [](std::vector<uint8_t> &frame) {
    if (frame[0] == 8) qbsim::injectFault(kName, qbsim::Fault::ReadFails);
  };
  EXPECT_EQ(QBVISA_GetHWVersion(session, list, 0), 0);
  EXPECT_EQ(Written(list), (Texts{"0.0", "0.0"}));
}

// Type, identification characters, serial number and firmware version, into
// texts that first hold `existing`.
Texts DeviceInfo(uint32_t session, uint64_t maxlen, const char *existing = "") {
  char texts[4][16];
  for (auto &text : texts) std::strcpy(text, existing);
  EXPECT_EQ(QBVISA_GetDeviceInfo(session, texts[0], texts[1], texts[2], texts[3], maxlen), 0);
  return Texts(std::begin(texts), std::end(texts));
}

TEST(GetDeviceInfo, BothIdentityLayouts) {
  const struct { Model model; Version firmware; uint32_t serial; Texts expected; } cases[] = {
      {Model::RK422, {3, 6}, 12345678, {"043A", "Q7", "12345678", "3.06"}},
      // Older RK420 firmware: seven digits, right-aligned to eight places.
      {Model::RK420, {3, 5}, 1234567, {"041A", "Q7", " 1234567", "3.05"}},
      {Model::RK420B, {1, 0x16}, 1000000, {"041B", "Q7", " 1000000", "1.16"}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(DeviceInfo(Connect(c.model, {c.firmware}, c.serial), 8), c.expected);
    EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11, 8}));
  }
  // The limit is applied only when the caller's buffer already holds a text
  // at least maxlen long.
  const uint32_t session = Connect(Model::RK421);
  EXPECT_EQ(DeviceInfo(session, 3, "XX"), (Texts{"042A", "Q7", "12345678", "3.06"}));
  EXPECT_EQ(DeviceInfo(session, 3, "XXX"), (Texts{"042", "Q7", "123", "3.0"}));
  EXPECT_EQ(DeviceInfo(session, 0, "XXXXXXXXXX"), (Texts{"", "", "", ""}));
}

// Refusals leave the caller's texts as they were.
TEST(Versions, Refusals) {
  static char out[400];
  using Call = int32_t (*)(uint32_t);
  const Call hw = [](uint32_t s) { return QBVISA_GetHWVersion(s, out, 0); };
  const Call sw = [](uint32_t s) { return QBVISA_GetSWVersion(s, out, 0); };
  const Call info = [](uint32_t s) { return QBVISA_GetDeviceInfo(s, out, out + 20, out + 40, out + 60, 8); };
  const struct {
    Call call;
    int32_t expected;
    Model model = Model::RK421;
    Version firmware = {3, 6};
    uint32_t serial = 12345678;
    std::optional<qbsim::Fault> fault = std::nullopt;
  } cases[] = {
      {.call = hw, .expected = QBVISA_ERR_SEND, .fault = qbsim::Fault::WriteFails},
      {.call = sw, .expected = QBVISA_ERR_RECEIVE, .model = Model::RK420, .fault = qbsim::Fault::ReadFails},
      {.call = info, .expected = QBVISA_ERR_DEVICE_FAILURE, .fault = qbsim::Fault::FailureReply},
      {.call = info, .expected = QBVISA_ERR_SN_UNSET, .serial = 9999999},
      // Eight digits are too many for the older layout, six too few.
      {.call = info, .expected = QBVISA_ERR_SN_UNSET, .model = Model::RK420, .firmware = {3, 5}},
      {.call = info, .expected = QBVISA_ERR_SN_UNSET, .model = Model::RK420, .firmware = {2, 0}, .serial = 999999},
      {.call = hw, .expected = QBVISA_ERR_NOT_SUPPORTED, .model = Model::RK420B, .firmware = {3, 5}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << &c - cases);
    const uint32_t session = Connect(c.model, {c.firmware}, c.serial);
    if (c.fault) qbsim::injectFault(kName, *c.fault);
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(c.call(session), c.expected);
    EXPECT_EQ(c.call(kUnknownSession), QBVISA_ERR_HANDLE);
    EXPECT_EQ(std::string(out, sizeof out), std::string(sizeof out, '#'));
  }
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{11}));  // old firmware: no identity query
}

}  // namespace
