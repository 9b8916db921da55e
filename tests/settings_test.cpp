// Communication settings on the simulated bench: request bytes, order of the
// checks and the settings mutex.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>

#include "bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using namespace std::string_literals;
using qbsim::Model;
using Bytes = std::vector<uint8_t>;

const std::string kLan = "TCPIP0::192.168.1.21::INSTR";

TEST(SetIPAddress, SendsAddressAndDerivedGatewayThenAppliesExceptOnRk421) {
  uint32_t session = 0;
  for (const Model model : {Model::RK421, Model::RK420, Model::RK423B}) {
    SCOPED_TRACE(qbsim::modelName(model));
    session = ConnectOne(Chassis(kLan, model));
    ASSERT_EQ(QBVISA_SetIPAddress(session, "192.168.1.55"), 0);
    std::vector<Bytes> expected = {{13, 0, 0, 0, 192, 0, 168, 0, 1, 0, 55, 0, 192, 0, 168, 0, 1, 0, 1, 0}};
    if (model != Model::RK421) expected.push_back({14, 0});  // the command word alone
    EXPECT_EQ(qbsim::writes(kLan), expected);
  }
  // The answer to the apply command is ignored; a refused address is not.
  qbtest::Scope tap;
  qbtest::onWrite = [](Bytes &frame) {
    if (frame.size() == 2) qbsim::injectFault(kLan, qbsim::Fault::ReadFails);
  };
  EXPECT_EQ(QBVISA_SetIPAddress(session, "192.168.1.77"), 0);
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  EXPECT_EQ(QBVISA_SetIPAddress(session, "192.168.1.78"), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_EQ(Commands(kLan).back(), 13);  // no apply after it
}

// Arguments are refused before the session is looked up; only the RK421 has
// the other settings (two queries and two settings stand for them).
// No refusal sends anything or keeps the settings mutex.
TEST(Settings, RefusalsSendNothingAndReleaseTheMutex) {
  static uint32_t mode;
  static char text[16];
  const struct {
    int32_t (*call)(uint32_t);
    int32_t onRk420, onUnknown;
  } cases[] = {
      {[](uint32_t s) { return QBVISA_SetIPAddress(s, "192.168.10.55"); }, QBVISA_ERR_BAD_IP, QBVISA_ERR_BAD_IP},
      {[](uint32_t s) { return QBVISA_SetIPAddress(s, nullptr); }, QBVISA_ERR_BAD_IP, QBVISA_ERR_BAD_IP},
      {[](uint32_t s) { return QBVISA_SetIPAddress(s, "192.168.1.55"); }, 0, QBVISA_ERR_HANDLE},  // 0: valid there
      {[](uint32_t s) { return QBVISA_SetGPIBAddress(s, 0); }, QBVISA_ERR_GPIB_ADDRESS, QBVISA_ERR_GPIB_ADDRESS},
      {[](uint32_t s) { return QBVISA_SetGPIBAddress(s, 31); }, QBVISA_ERR_GPIB_ADDRESS, QBVISA_ERR_GPIB_ADDRESS},
      {[](uint32_t s) { return QBVISA_SetGPIBAddress(s, 0x10005); }, QBVISA_ERR_GPIB_ADDRESS, QBVISA_ERR_GPIB_ADDRESS},
      {[](uint32_t s) { return QBVISA_SetBaudRate(s, 9601); }, QBVISA_ERR_BAUDRATE, QBVISA_ERR_BAUDRATE},
      {[](uint32_t s) { return QBVISA_SetLANMode(s, 2); }, QBVISA_ERR_LAN_MODE, QBVISA_ERR_LAN_MODE},
      {[](uint32_t s) { return QBVISA_GetCOMMIPAddr(s, text); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
      {[](uint32_t s) { return QBVISA_SetGPIBAddress(s, 7); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
      {[](uint32_t s) { return QBVISA_SetBaudRate(s, 9600); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
      {[](uint32_t s) { return QBVISA_SetBaudRate(s, 19200); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
      {[](uint32_t s) { return QBVISA_SetBaudRate(s, 38400); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
      {[](uint32_t s) { return QBVISA_SetBaudRate(s, 57600); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
      {[](uint32_t s) { return QBVISA_GetLANMode(s, &mode); }, QBVISA_ERR_NOT_SUPPORTED, QBVISA_ERR_HANDLE},
  };
  const auto run = [](int32_t (*call)(uint32_t), uint32_t session) {
    const int32_t status = call(session);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "settings mutex left locked";
    pthread_mutex_unlock(&mutex);  // this thread holds it either way
    return status;
  };
  const uint32_t session = ConnectOne(Chassis(kLan, Model::RK420));
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << &c - cases);
    EXPECT_EQ(run(c.call, kUnknownSession), c.onUnknown);
    if (c.onRk420 != 0) {
      EXPECT_EQ(run(c.call, session), c.onRk420);
    }
  }
  EXPECT_TRUE(qbsim::writes(kLan).empty());
}

// Over a serial line the host follows a new rate: the next request goes out
// at 9600 baud and must still be understood.
TEST(Rk421Settings, RequestsAndReadBack) {
  const std::string serial = "ASRL1::INSTR";
  qbsim::Resource resource = Chassis(serial, Model::RK421);
  resource.chassis.ip = {255, 255, 255, 255};
  const uint32_t session = ConnectOne(resource);
  char text[20] = "###################";
  ASSERT_EQ(QBVISA_GetCOMMIPAddr(session, text), 0);
  EXPECT_EQ(std::string(text, 17), "255.255.255.255\0#"s);  // fills the 16-byte buffer exactly
  uint32_t gpib = 0, rate = 0, mode = 7;
  ASSERT_EQ(QBVISA_SetGPIBAddress(session, 30), 0);
  ASSERT_EQ(QBVISA_GetGPIBAddress(session, &gpib), 0);
  {  // an empty answer to the new rate still means the host must follow
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *, uint32_t &count) { count = 0; };
    ASSERT_EQ(QBVISA_SetBaudRate(session, 9600), 0);
  }
  ASSERT_EQ(QBVISA_SetBaudRate(session, 115200), 0);  // 0x0001C200: low half first
  ASSERT_EQ(QBVISA_GetBaudRate(session, &rate), 0);
  ASSERT_EQ(QBVISA_GetLANMode(session, &mode), 0);
  EXPECT_EQ(std::vector<uint32_t>({gpib, rate, mode}), (std::vector<uint32_t>{30, 115200, 0}));
  EXPECT_EQ(qbsim::writes(serial),
            (std::vector<Bytes>{{24, 0, 0, 0}, {20, 0, 0, 0, 30, 0}, {22, 0, 0, 0}, {21, 0, 0, 0, 0x80, 0x25, 0, 0},
                                {21, 0, 0, 0, 0x00, 0xC2, 0x01, 0x00}, {23, 0, 0, 0}, {25, 0, 0, 0}}));
  {  // the rate's top byte is read too
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *reply, uint32_t count) { if (count >= 6) reply[5] = 0x40; };
    ASSERT_EQ(QBVISA_GetBaudRate(session, &rate), 0);
    EXPECT_EQ(rate, 0x4001C200u);
  }
  char kept[16] = "untouched";
  qbsim::injectFault(serial, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_GetCOMMIPAddr(session, kept), QBVISA_ERR_RECEIVE);
  EXPECT_STREQ(kept, "untouched");
}

TEST(SetLANMode, WaitsForTheNetworkPortOnlyAfterSuccess) {
  using Clock = std::chrono::steady_clock;
  const uint32_t session = ConnectOne(Chassis(kLan, Model::RK421));
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  auto start = Clock::now();
  EXPECT_EQ(QBVISA_SetLANMode(session, 1), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  start = Clock::now();
  ASSERT_EQ(QBVISA_SetLANMode(session, 1), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(6));
  EXPECT_EQ(qbsim::writes(kLan).back(), (Bytes{48, 0, 0, 0, 1, 0}));
}

}  // namespace
