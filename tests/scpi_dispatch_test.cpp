// Text commands end to end on the simulated bench: the reply of every
// outcome, the bits a crosspoint list sets in the relay image, and the bytes
// that reach the chassis.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "admin_bench.hpp"
#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

namespace {

using admin_bench::Commands;

constexpr const char *kRemote421 = "GPIB0::5::INSTR";
constexpr const char *kLocal421 = "GPIB0::6::INSTR";
constexpr const char *kRK420 = "GPIB0::7::INSTR";
constexpr const char *kOperated = "Relays Operate Success";
constexpr const char *kBadRelays = "Invalid Relays Opearation Parameter";
constexpr const char *kUnknownScpi =
    "Unknown SCPI Command, Please Refer to the User Manual And Try Again";

std::string messageOf(int32_t code) {
  char text[256] = {};
  QBVISA_ErrorCodeToMessage(code, text, sizeof text - 1);
  return text;
}

class ScpiBench : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Resource remote = admin_bench::Chassis(kRemote421, qbsim::Model::RK421);
    qbsim::Resource local = admin_bench::Chassis(kLocal421, qbsim::Model::RK421);
    local.chassis.controlMode = 0;
    local.chassis.lanMode = 1;
    local.chassis.boardInPlace = {1, 0, 1, 1};
    local.chassis.spiLoop = {0, 1, 1, 1};
    const auto sessions = admin_bench::Connect(
        {remote, local, admin_bench::Chassis(kRK420, qbsim::Model::RK420)});
    ASSERT_EQ(sessions.size(), 3u);
    remote421 = sessions[0];
    local421 = sessions[1];
    rk420 = sessions[2];
    uint64_t kind = 0;
    for (uint32_t session : {remote421, rk420}) {
      ASSERT_EQ(QBVISA_OpenSpecifiedCard(session, 0, &kind), 0);
      ASSERT_EQ(QBVISA_Init(session, 0), 0);
    }
    for (const char *name : {kRemote421, kLocal421, kRK420}) qbsim::clearTraffic(name);
  }

  // Runs a query into a 400-byte reply inside a guarded area and checks
  // that the reply stays terminated and inside its 400 bytes.
  static std::string query(uint32_t session, const std::string &line) {
    char area[400 + 16];
    std::memset(area, 0x5A, sizeof area);
    QBVISA_SCPIQuery(session, line.c_str(), area);
    EXPECT_NE(std::memchr(area, '\0', 400), nullptr) << line;
    for (size_t i = 400; i < sizeof area; ++i) EXPECT_EQ(area[i], 0x5A) << line;
    return std::string(area, strnlen(area, 400));
  }

  static uint32_t imageWord(uint32_t session, int word) {
    uint32_t value = 0;
    std::memcpy(&value, admin_bench::Record(session)->slots[0].lastArray + 4 * word,
                sizeof value);
    return value;
  }

  uint32_t remote421 = 0;
  uint32_t local421 = 0;
  uint32_t rk420 = 0;
};

struct ReplyCase {
  const char *resource;
  const char *line;
  std::string reply;
};

TEST_F(ScpiBench, RepliesOfQueriesAndRefusedSettings) {
  const std::string unsupported = messageOf(QBVISA_ERR_NOT_SUPPORTED);
  const ReplyCase cases[] = {
      {kRemote421, ":SYST:VERS?", "Fw Version: CTR 3.06, COM 1.02"},
      {kRK420, ":SYSTem:VERSion?", "Fw Version: CTR 3.06, COM "},
      {kRemote421, ":SYST:MANF?", "A1"},
      {kRemote421, ":SYSTem:MODule?", "042A"},
      {kRemote421, ":SYST:COMM:LAN:IP:ADDR?", "192.168.1.10"},
      {kRemote421, ":SYST:COMM:LAN:MODE?", "LAN Mode: Manual"},
      {kLocal421, ":SYSemT:COMMunication:LAN:MODE?", "LAN Mode: AutoIP"},
      {kRemote421, ":SYST:COMM:GPIB:RDEV:ADDR?", "GPIB Address:5"},
      {kRemote421, ":SYST:COMM:RS232:BAUD?", "RS232 Baudrate:115200"},
      {kRemote421, ":SYST:CTRL:MODE?", "Control Mode : Remote"},
      {kLocal421, ":SYSTem:ConTRoL:MODE?", "Control Mode : Local"},
      {kRemote421, ":DIAG:TEST:CARD:BIP?", "1111"},
      {kLocal421, ":DIAG:TEST:CARD:BIP?", "1101"},
      {kLocal421, ":DIAG:TEST:CARD:SPILOOP?", "1110"},
      {kRemote421, ":DIAG:TEST:CARD:STAT?", "Self Test Pass"},
      {kLocal421, ":DIAG:TEST:CARD:STAT?", messageOf(QBVISA_ERR_SPI_LOOP)},
      // Settings refused before anything is sent.
      {kLocal421, ":SYST:CTRL:SET: LOCAL", "Local/Remote Control Mode Conflict"},
      {kLocal421, ":SYST:CTRL:SET: FOO", "Local/Remote Control Mode Conflict"},
      {kRemote421, ":SYST:COM:LAN:SET:MODE FAST", "Invalid LAN Mode Opearation Parameter"},
      {kRemote421, ":SYST:COMM:GPIB:RDEV:ADDR 1A", "Invalid GPIB Address Parameter"},
      {kRemote421, ":SYST:COMM:GPIB:RDEV:ADDR ", messageOf(QBVISA_ERR_GPIB_ADDRESS)},
      {kRemote421, ":SYST:COMM:GPIB:RDEV:ADDR 4294967303",
       messageOf(QBVISA_ERR_GPIB_ADDRESS)},
      {kRemote421, ":SYST:COMM:LAN:IP:ADDR 300.1.1.1", messageOf(QBVISA_ERR_BAD_IP)},
      {kRemote421, ":SYST:COMM:RS232:BAUD 9600", kUnknownScpi},
      {kRemote421, ":SYSTEM:VERSION?", kUnknownScpi},
      {kRemote421, "", kUnknownScpi},
      // Commands of the RK421 alone, on an RK420.
      {kRK420, ":SYST:CTRL:SET: REMOTE", unsupported},
      {kRK420, ":SYST:COM:LAN:SET:MODE AUTO", unsupported},
      {kRK420, ":SYST:COMM:GPIB:RDEV:ADDR 7", unsupported},
      {kRK420, ":SYST:COMM:RS232:BAUD?", unsupported},
  };
  for (const ReplyCase &c : cases) {
    uint32_t session = c.resource == kRemote421 ? remote421
                       : c.resource == kLocal421 ? local421
                                                 : rk420;
    EXPECT_EQ(query(session, c.line), c.reply) << c.resource << " " << c.line;
  }
  // Nothing above sent a setting.
  for (uint16_t command : Commands(kLocal421)) EXPECT_NE(command, 6);
  for (uint16_t command : Commands(kRemote421)) EXPECT_TRUE(command != 20 && command != 48);
}

TEST_F(ScpiBench, SettingsReachTheChassis) {
  EXPECT_EQ(query(remote421, ":SYST:COMM:GPIB:RDEV:ADDR 12"),
            "Set GPIB Address Success! Please Restart The Application");
  EXPECT_EQ(qbsim::chassisState(kRemote421).gpibAddress, 12);
  EXPECT_EQ(query(remote421, ":SYSemT:COMMunication:LAN:IP:ADDRess 192.168.1.33"),
            "Set IP Address Success! Please Restart The Application if Using "
            "Manual IP Mode!");
  const auto ip = qbsim::chassisState(kRemote421).ip;
  EXPECT_EQ(ip[3], 33);
  EXPECT_EQ(query(remote421, ":SYST:COM:LAN:SET:MODE AUTO"),
            "Set LAN Mode Success! Please Restart The Application");
  EXPECT_EQ(qbsim::chassisState(kRemote421).lanMode, 1);
}

TEST_F(ScpiBench, ControlModeChangeGoesThroughRemoteAndClear) {
  EXPECT_EQ(query(remote421, ":SYST:CTRL:SET: LOCAL"), "Set Control Mode Success");
  EXPECT_EQ(qbsim::chassisState(kRemote421).controlMode, 0);
  // Mode read, set-remote (already remote: nothing sent), clear, set-local.
  EXPECT_EQ(Commands(kRemote421), (std::vector<uint16_t>{5, 5, 19, 5, 6}));
  qbsim::clearTraffic(kRemote421);
  EXPECT_EQ(query(remote421, ":SYSTem:ConTRoL:SET: REMOTE"), "Set Control Mode Success");
  EXPECT_EQ(qbsim::chassisState(kRemote421).controlMode, 1);
  EXPECT_EQ(Commands(kRemote421), (std::vector<uint16_t>{5, 5, 6, 19, 5}));
}

TEST_F(ScpiBench, CrosspointsFollowTheFortyEightColumnLayout) {
  EXPECT_EQ(query(remote421, ":CLOSe (@1(1!1))"), kOperated);
  EXPECT_EQ(imageWord(remote421, 0), 1u);
  EXPECT_FALSE(qbsim::closedRelays(kRemote421).empty());
  EXPECT_EQ(query(remote421, ":CLOS (@1(2!1))"), kOperated);  // index 49
  EXPECT_EQ(imageWord(remote421, 1), 1u << 16);
  EXPECT_EQ(imageWord(remote421, 0), 1u);  // a close adds to what is closed
  EXPECT_EQ(query(remote421, ":CLOSe (@1(1!49,250!48))"), kOperated);
  EXPECT_EQ(imageWord(remote421, 1), 1u << 16);  // column 49 is row 2's first
  EXPECT_EQ(imageWord(remote421, 374), 1u << 31);
  EXPECT_EQ(query(remote421, "[:ROUTe]:OPEN (@1(1!1,2!1,250!48))"), kOperated);
  for (int word : {0, 1, 374}) EXPECT_EQ(imageWord(remote421, word), 0u) << word;
  EXPECT_TRUE(qbsim::closedRelays(kRemote421).empty());
  // Every switch was one relay-state frame.
  EXPECT_EQ(Commands(kRemote421), (std::vector<uint16_t>{19, 19, 19, 19}));
}

TEST_F(ScpiBench, RefusedListsSwitchNothing) {
  ASSERT_EQ(query(remote421, ":CLOSe (@1(3!3))"), kOperated);
  qbsim::clearTraffic(kRemote421);
  const std::vector<uint8_t> before(
      admin_bench::Record(remote421)->slots[0].lastArray,
      admin_bench::Record(remote421)->slots[0].lastArray + QBVISA_LAST_ARRAY_SIZE);
  const std::pair<std::string, std::string> cases[] = {
      {":CLOSe (@1(1!1, 1!2))", kBadRelays},
      {":CLOSe (@1(1!1);", kBadRelays},
      {":CLOSe (@1(251!1))", kBadRelays},
      {":CLOSe (@1(1!1,2147483647!1))", kBadRelays},
      {":OPEN (@1(3!3,1!1:300!1))", kBadRelays},
      {":CLOSe (@1(1!1,0!1))", "Error: Invalid crosspoint format"},
      {":CLOSe (@1(1!1:2))", "Error: Invalid range format."},
      {":CLOSe (@x(1!1))", kBadRelays},
      {":CLOSe (@(1!1))", "Error: Invalid subunit format\n"},
      {":CLOSe (@1(1!1)", "Error: Unmatched parentheses in input."},
      {":CLOSe (@1())", "Error: Empty content in parentheses.\n"},
      {":CLOSe (@1(" + std::string(300, '1'), "Error: Unmatched parentheses in input."},
  };
  for (const auto &[line, reply] : cases) {
    EXPECT_EQ(query(remote421, line), reply) << line;
  }
  const uint8_t *after = admin_bench::Record(remote421)->slots[0].lastArray;
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after));
  EXPECT_TRUE(qbsim::writes(kRemote421).empty());
}

TEST_F(ScpiBench, AllRelaysAtOnceUseSubunitZero) {
  // Closing every point of the image is more than any chassis may close.
  EXPECT_EQ(query(remote421, ":CLOSe:ALL"), messageOf(QBVISA_ERR_CLOSURE_LIMIT));
  for (int word : {0, 200, 374}) EXPECT_EQ(imageWord(remote421, word), ~0u);
  EXPECT_EQ(imageWord(remote421, 375), 0u);
  EXPECT_EQ(query(remote421, ":OPEN:ALL"), kOperated);
  for (int word : {0, 200, 374}) EXPECT_EQ(imageWord(remote421, word), 0u);
  // The bracketed upper-case ":ALL" is an empty list: it switches the image
  // as it stands.
  ASSERT_EQ(query(remote421, ":CLOS (@1(1!2))"), kOperated);
  EXPECT_EQ(query(remote421, "[:ROUT]:OPEN:ALL"), kOperated);
  EXPECT_EQ(imageWord(remote421, 0), 2u);
}

TEST_F(ScpiBench, SubunitSelectsTheSlot) {
  // An RK420 without a card in slot 1 refuses a list for subunit 1 as the
  // switching call does, and takes the same list for subunit 0.
  uint32_t words[QBVISA_LAST_ARRAY_SIZE / 4] = {1};
  const std::string refused =
      messageOf(QBVISA_OpMatrix(rk420, 1, words, QBVISA_LAST_ARRAY_SIZE / 4));
  ASSERT_NE(refused, messageOf(0));
  EXPECT_EQ(query(rk420, ":CLOSe (@1(1!1))"), refused);
  EXPECT_EQ(query(rk420, ":CLOSe (@0(1!1))"), kOperated);
  EXPECT_FALSE(qbsim::closedRelays(kRK420).empty());
}

TEST_F(ScpiBench, IdentificationAndResetUseRawBytes) {
  // The reply is the instrument's own answer, byte for byte.
  const std::string answer = query(remote421, "*IDN?");
  const auto traffic = qbsim::traffic(kRemote421);
  ASSERT_EQ(traffic.size(), 2u);
  EXPECT_EQ(answer, std::string(traffic[1].bytes.begin(), traffic[1].bytes.end()));
  EXPECT_NE(answer.find("RK421"), std::string::npos);
  EXPECT_EQ(query(remote421, "*RST>"), "Reset Success!Please Restart The Application!");
  const auto writes = qbsim::writes(kRemote421);
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0], (std::vector<uint8_t>{'*', 'I', 'D', 'N', '?', '\n'}));
  EXPECT_EQ(writes[1], (std::vector<uint8_t>{0x0E, 0x00}));

  ASSERT_EQ(QBVISA_SCPIWrite(remote421, "*IDN?"), 0);
  EXPECT_EQ(std::string(admin_bench::Record(remote421)->scpiReply), answer);
  ASSERT_EQ(QBVISA_SCPIWrite(remote421, "*RST>"), 0);
  EXPECT_STREQ(admin_bench::Record(remote421)->scpiReply, "Reset Success!");
}

TEST_F(ScpiBench, TransportFailuresAreReportedAsText) {
  const std::pair<const char *, qbsim::Fault> faults[] = {
      {"*IDN?", qbsim::Fault::WriteFails}, {"*IDN?", qbsim::Fault::ReadFails},
      {"*RST>", qbsim::Fault::WriteFails}, {"*RST>", qbsim::Fault::ReadFails},
      {":SYST:CTRL:MODE?", qbsim::Fault::FailureReply}};
  const std::string replies[] = {"Send data failed!", "Receive data failed!",
                                 "send data failed!", "recv data failed!",
                                 messageOf(QBVISA_ERR_DEVICE_FAILURE)};
  for (size_t i = 0; i < std::size(faults); ++i) {
    const auto &[line, fault] = faults[i];
    qbsim::injectFault(kRemote421, fault);
    EXPECT_EQ(query(remote421, line), replies[i]) << line;
    qbsim::injectFault(kRemote421, fault);
    EXPECT_EQ(QBVISA_SCPIWrite(remote421, line), 0);
    EXPECT_EQ(admin_bench::Record(remote421)->scpiReply, replies[i]) << line;
  }
}

TEST_F(ScpiBench, MissingSessionIsReportedAndNothingIsSent) {
  const std::string missing = messageOf(QBVISA_ERR_HANDLE);
  const uint32_t unknown = admin_bench::kUnknownSession;
  for (const char *line : {"*IDN?", "*RST>", ":CLOSe (@1(1!1))", ":OPEN (@1(1!1))",
                           ":OPEN:ALL", ":CLOS:ALL", ":SYST:VERS?", ":SYST:CTRL:MODE?"}) {
    EXPECT_EQ(query(unknown, line), missing) << line;
    EXPECT_EQ(QBVISA_SCPIWrite(unknown, line), QBVISA_ERR_HANDLE) << line;
  }
  // Parser errors come before the lookup.
  EXPECT_EQ(query(unknown, ":CLOSe (@1(0!1))"), "Error: Invalid crosspoint format");
  EXPECT_EQ(query(unknown, ":SYST:COMM:RS232:BAUD 9600"), kUnknownScpi);
  char text[8] = "x";
  EXPECT_EQ(QBVISA_SCPIRead(unknown, text), QBVISA_ERR_HANDLE);
  EXPECT_STREQ(text, "x");
  for (const char *name : {kRemote421, kLocal421, kRK420}) {
    EXPECT_TRUE(qbsim::writes(name).empty()) << name;
  }
}

TEST_F(ScpiBench, WriteKeepsTheReplyAndReadDeliversNothing) {
  ASSERT_EQ(QBVISA_SCPIWrite(remote421, ":SYST:VERS?"), 0);
  ASSERT_EQ(QBVISA_SCPIWrite(remote421, ":CLOSe (@1(1!1))"), 0);
  EXPECT_STREQ(admin_bench::Record(remote421)->scpiReply, kOperated);  // no tail left
  char text[QBVISA_SCPI_REPLY_SIZE];
  std::memset(text, 'x', sizeof text);
  EXPECT_EQ(QBVISA_SCPIRead(remote421, text), 0);
  EXPECT_EQ(text[0], '\0');
  const char *reply = admin_bench::Record(remote421)->scpiReply;
  EXPECT_TRUE(std::all_of(reply, reply + QBVISA_SCPI_REPLY_SIZE,
                          [](char c) { return c == '\0'; }));
}

}  // namespace
