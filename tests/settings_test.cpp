// Communication settings on the simulated bench: request bytes, order of the
// checks, chassis state afterwards, and the settings mutex.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "support/admin_bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using admin_bench::Commands;
using admin_bench::ConnectOne;
using admin_bench::kUnknownSession;
using admin_bench::Words;
using qbsim::Model;
using Bytes = std::vector<uint8_t>;

const std::string kLan = "TCPIP0::192.168.1.21::INSTR";
const std::string kSerial = "ASRL1::INSTR";

TEST(SetIPAddress, SendsAddressAndDerivedGatewayThenApplies) {
  // The RK421 takes the address at once; the other models need command 14.
  for (const Model model : {Model::RK421, Model::RK420, Model::RK422, Model::RK423B}) {
    SCOPED_TRACE(qbsim::modelName(model));
    const uint32_t session = ConnectOne(admin_bench::Chassis(kLan, model));
    ASSERT_EQ(QBVISA_SetIPAddress(session, "192.168.1.55"), 0);
    const auto writes = qbsim::writes(kLan);
    ASSERT_EQ(writes.size(), model == Model::RK421 ? 1u : 2u);
    EXPECT_EQ(writes[0].size(), 20u);
    EXPECT_EQ(Words(writes[0]), (std::vector<uint16_t>{13, 0, 192, 168, 1, 55, 192, 168, 1, 1}));
    if (writes.size() == 2) {
      EXPECT_EQ(writes[1], (Bytes{14, 0}));  // command word alone
    }
    const auto state = qbsim::chassisState(kLan);
    EXPECT_EQ(state.ip, (std::array<uint8_t, 4>{192, 168, 1, 55}));
    EXPECT_EQ(state.gateway, (std::array<uint8_t, 4>{192, 168, 1, 1}));
  }
}

TEST(SetIPAddress, AcceptsOnlyTheChassisNetworkAndChecksBeforeLookup) {
  const uint32_t session = ConnectOne(admin_bench::Chassis(kLan, Model::RK420));
  for (const char *ip : {"192.168.10.55", "192.168.1.200", "192.168.1.255", "192.168.1.01",
                         "192.168.2.5", "192.168.1", "", static_cast<const char *>(nullptr)}) {
    SCOPED_TRACE(ip == nullptr ? "(null)" : ip);
    EXPECT_EQ(QBVISA_SetIPAddress(session, ip), QBVISA_ERR_BAD_IP);
    EXPECT_EQ(QBVISA_SetIPAddress(kUnknownSession, ip), QBVISA_ERR_BAD_IP);
  }
  EXPECT_TRUE(qbsim::writes(kLan).empty());
  EXPECT_EQ(QBVISA_SetIPAddress(kUnknownSession, "192.168.1.0"), QBVISA_ERR_HANDLE);
}

TEST(SetIPAddress, ApplyAnswerIsIgnoredAddressFailureIsNot) {
  wire_tap::Scope tap;
  const uint32_t session = ConnectOne(admin_bench::Chassis(kLan, Model::RK420));
  wire_tap::onWrite = [](Bytes &frame) {
    if (frame.size() == 2) qbsim::injectFault(kLan, qbsim::Fault::ReadFails);
  };
  EXPECT_EQ(QBVISA_SetIPAddress(session, "192.168.1.77"), 0);
  EXPECT_EQ(Commands(kLan), (std::vector<uint16_t>{13, 14}));

  qbsim::clearTraffic(kLan);
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  EXPECT_EQ(QBVISA_SetIPAddress(session, "192.168.1.78"), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_EQ(Commands(kLan), (std::vector<uint16_t>{13}));
}

TEST(Rk421Settings, RefuseUnknownSessionAndOtherModelsSilently) {
  static uint32_t value;
  static char text[16];
  int32_t (*const calls[])(uint32_t) = {
      [](uint32_t s) { return QBVISA_GetCOMMIPAddr(s, text); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 7); },
      [](uint32_t s) { return QBVISA_GetGPIBAddress(s, &value); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 9600); },
      [](uint32_t s) { return QBVISA_GetBaudRate(s, &value); },
      [](uint32_t s) { return QBVISA_SetLANMode(s, 1); },
      [](uint32_t s) { return QBVISA_GetLANMode(s, &value); },
  };
  for (const Model model : {Model::RK420, Model::RK420B, Model::RK422, Model::RK423}) {
    const uint32_t session = ConnectOne(admin_bench::Chassis(kLan, model));
    for (size_t i = 0; i < std::size(calls); ++i) {
      SCOPED_TRACE(std::to_string(i) + " on " + qbsim::modelName(model));
      EXPECT_EQ(calls[i](session), QBVISA_ERR_NOT_SUPPORTED);
      EXPECT_EQ(calls[i](kUnknownSession), QBVISA_ERR_HANDLE);
    }
    EXPECT_TRUE(qbsim::writes(kLan).empty());
  }
}

TEST(Rk421Settings, RequestsAndReadBack) {
  qbsim::Resource resource = admin_bench::Chassis(kLan, Model::RK421);
  resource.chassis.ip = {255, 255, 255, 255};
  const uint32_t session = ConnectOne(resource);
  char text[20];
  std::fill(std::begin(text), std::end(text), '#');
  ASSERT_EQ(QBVISA_GetCOMMIPAddr(session, text), 0);
  EXPECT_STREQ(text, "255.255.255.255");  // fills the 16-byte buffer exactly
  EXPECT_EQ(text[16], '#');
  uint32_t gpib = 0, rate = 0, mode = 7;
  ASSERT_EQ(QBVISA_SetGPIBAddress(session, 30), 0);
  ASSERT_EQ(QBVISA_GetGPIBAddress(session, &gpib), 0);
  ASSERT_EQ(QBVISA_SetBaudRate(session, 115200), 0);
  ASSERT_EQ(QBVISA_GetBaudRate(session, &rate), 0);
  ASSERT_EQ(QBVISA_GetLANMode(session, &mode), 0);
  EXPECT_EQ(gpib, 30u);
  EXPECT_EQ(rate, 115200u);
  EXPECT_EQ(mode, 0u);
  // 115200 = 0x0001C200 goes low half first.
  EXPECT_EQ(qbsim::writes(kLan),
            (std::vector<Bytes>{{24, 0, 0, 0}, {20, 0, 0, 0, 30, 0}, {22, 0, 0, 0},
                                {21, 0, 0, 0, 0x00, 0xC2, 0x01, 0x00}, {23, 0, 0, 0}, {25, 0, 0, 0}}));

  char kept[16] = "untouched";
  qbsim::injectFault(kLan, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_GetCOMMIPAddr(session, kept), QBVISA_ERR_RECEIVE);
  EXPECT_STREQ(kept, "untouched");
}

TEST(Rk421Settings, ArgumentChecksComeBeforeTheLookup) {
  const uint32_t session = ConnectOne(admin_bench::Chassis(kLan, Model::RK421));
  for (const uint32_t s : {session, kUnknownSession}) {
    for (const uint32_t address : {0u, 31u, 0x10005u})
      EXPECT_EQ(QBVISA_SetGPIBAddress(s, address), QBVISA_ERR_GPIB_ADDRESS) << address;
    for (const uint32_t rate : {0u, 4800u, 9601u, 230400u})
      EXPECT_EQ(QBVISA_SetBaudRate(s, rate), QBVISA_ERR_BAUDRATE) << rate;
    EXPECT_EQ(QBVISA_SetLANMode(s, 2), QBVISA_ERR_LAN_MODE);
  }
  EXPECT_TRUE(qbsim::writes(kLan).empty());
}

TEST(SetBaudRate, EveryRefusalReleasesTheSettingsMutex) {
  const auto sessions = admin_bench::Connect(
      {admin_bench::Chassis(kLan, Model::RK421), admin_bench::Chassis(kSerial, Model::RK420)});
  const std::tuple<uint32_t, uint32_t, int32_t> cases[] = {
      {sessions[0], 4800, QBVISA_ERR_BAUDRATE},
      {kUnknownSession, 9600, QBVISA_ERR_HANDLE},
      {sessions[1], 9600, QBVISA_ERR_NOT_SUPPORTED},
  };
  for (const auto &[session, rate, expected] : cases) {
    EXPECT_EQ(QBVISA_SetBaudRate(session, rate), expected);
    ASSERT_EQ(pthread_mutex_trylock(&mutex), 0) << "settings mutex left locked after " << rate;
    pthread_mutex_unlock(&mutex);
  }
  // A good call after a bad rate returns instead of blocking.
  EXPECT_EQ(QBVISA_SetBaudRate(sessions[0], 57600), 0);
  EXPECT_EQ(qbsim::chassisState(kLan).baudRate, 57600u);
}

TEST(SetBaudRate, HostSideFollowsTheSerialChassis) {
  const uint32_t session = ConnectOne(admin_bench::Chassis(kSerial, Model::RK421));
  for (const uint32_t rate : {9600u, 19200u, 38400u, 57600u, 115200u}) {
    ASSERT_EQ(QBVISA_SetBaudRate(session, rate), 0);
    uint32_t read = 0;  // the chassis now understands only its new rate
    ASSERT_EQ(QBVISA_GetBaudRate(session, &read), 0) << rate;
    EXPECT_EQ(read, rate);
  }
}

TEST(SetLANMode, WaitsForTheNetworkPortOnlyAfterSuccess) {
  const uint32_t session = ConnectOne(admin_bench::Chassis(kLan, Model::RK421));
  using Clock = std::chrono::steady_clock;
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  auto start = Clock::now();
  EXPECT_EQ(QBVISA_SetLANMode(session, 1), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));

  start = Clock::now();
  ASSERT_EQ(QBVISA_SetLANMode(session, 1), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(6));
  EXPECT_EQ(qbsim::writes(kLan).back(), (Bytes{48, 0, 0, 0, 1, 0}));
  EXPECT_EQ(qbsim::chassisState(kLan).lanMode, 1);
}

}  // namespace
