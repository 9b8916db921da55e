// Communication settings on the simulated bench: request bytes, order of the
// checks and the settings mutex.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <iomanip>
#include <sstream>

#include "bench.hpp"
#include "golden.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
using Bytes = std::vector<uint8_t>;

const std::string kLan = "TCPIP0::192.168.1.21::INSTR";

// The frames written since the last look, in hex, then forgotten.
std::string sent(const std::string &name) {
  std::ostringstream text;
  for (const Bytes &frame : qbsim::writes(name)) {
    text << ' ';
    for (uint8_t b : frame) text << std::hex << std::setw(2) << std::setfill('0') << int{b};
  }
  qbsim::clearTraffic(name);
  return text.str();
}

// Each call as written here, then what it answered.
#define STEP(call) out << #call << ": " << (call)

// What the settings calls answered and sent, compared whole with
// tests/data/settings_transcript.txt.
TEST(Settings, Transcript) {
  std::ostringstream out;
  // The address and its derived gateway, then the apply command alone except
  // on an RK421. The answer to the apply command is ignored; a refused
  // address is not, and gets no apply.
  uint32_t session = 0;
  for (const Model model : {Model::RK421, Model::RK420, Model::RK423B}) {
    session = ConnectOne(Chassis(kLan, model));
    STEP(QBVISA_SetIPAddress(session, "192.168.1.55")) << sent(kLan) << '\n';
  }
  {
    qbtest::Scope tap;
    qbtest::onWrite = [](Bytes &frame) {
      if (frame.size() == 2) qbsim::injectFault(kLan, qbsim::Fault::ReadFails);
    };
    STEP(QBVISA_SetIPAddress(session, "192.168.1.77")) << sent(kLan) << '\n';
  }
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  STEP(QBVISA_SetIPAddress(session, "192.168.1.78")) << sent(kLan) << '\n';

  // Over a serial line the host follows a new rate: the next request goes
  // out at 9600 baud and must still be understood.
  const std::string serial = "ASRL1::INSTR";
  qbsim::Resource resource = Chassis(serial, Model::RK421);
  resource.chassis.ip = {255, 255, 255, 255};
  session = ConnectOne(resource);
  char text[20] = "###################";  // the address fills the 16-byte buffer exactly
  STEP(QBVISA_GetCOMMIPAddr(session, text)) << ' ' << std::string(text, 17).c_str() << '|' << text[16]
                                            << sent(serial) << '\n';
  uint32_t value = 7;
  STEP(QBVISA_SetGPIBAddress(session, 30)) << sent(serial) << '\n';
  STEP(QBVISA_GetGPIBAddress(session, &value)) << ' ' << value << sent(serial) << '\n';
  {  // an empty answer to the new rate still means the host must follow
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *, uint32_t &count) { count = 0; };
    STEP(QBVISA_SetBaudRate(session, 9600)) << sent(serial) << '\n';
  }
  STEP(QBVISA_SetBaudRate(session, 115200)) << sent(serial) << '\n';
  STEP(QBVISA_GetBaudRate(session, &value)) << ' ' << value << sent(serial) << '\n';
  STEP(QBVISA_GetLANMode(session, &value)) << ' ' << value << sent(serial) << '\n';
  {  // the rate's top byte is read too
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *reply, uint32_t count) { if (count >= 6) reply[5] = 0x40; };
    STEP(QBVISA_GetBaudRate(session, &value)) << " 0x" << std::hex << value << std::dec << sent(serial) << '\n';
  }
  char kept[16] = "untouched";
  qbsim::injectFault(serial, qbsim::Fault::ReadFails);
  STEP(QBVISA_GetCOMMIPAddr(session, kept)) << ' ' << kept << sent(serial) << '\n';

  // Arguments are refused before the session is looked up; only the RK421
  // has the other settings (two queries and two settings stand for them).
  // No refusal sends anything or keeps the settings mutex.
  const auto run = [](int32_t (*call)(uint32_t), uint32_t s) {
    const int32_t status = call(s);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "settings mutex left locked";
    pthread_mutex_unlock(&mutex);  // this thread holds it either way
    return status;
  };
  using Call = int32_t (*)(uint32_t);
  out << "valid address, unknown session: "
      << run([](uint32_t s) { return QBVISA_SetIPAddress(s, "192.168.1.55"); }, kUnknownSession) << '\n';
  const Call refusals[] = {
      [](uint32_t s) { return QBVISA_SetIPAddress(s, "192.168.10.55"); },
      [](uint32_t s) { return QBVISA_SetIPAddress(s, nullptr); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 0); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 31); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 0x10005); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 9601); },
      [](uint32_t s) { return QBVISA_SetLANMode(s, 2); },
      [](uint32_t s) { static char t[16]; return QBVISA_GetCOMMIPAddr(s, t); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 7); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 9600); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 19200); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 38400); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 57600); },
      [](uint32_t s) { static uint32_t mode; return QBVISA_GetLANMode(s, &mode); },
  };
  session = ConnectOne(Chassis(kLan, Model::RK420));
  for (const Call &call : refusals)
    out << "refusal " << &call - refusals << ": unknown session " << run(call, kUnknownSession) << ", RK420 "
        << run(call, session) << sent(kLan) << '\n';
  qbgolden::expectGolden("settings_transcript.txt", out.str());
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
