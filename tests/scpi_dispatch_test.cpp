// Text commands end to end on the simulated bench: the reply of every
// outcome, the bits a crosspoint list sets in the relay image, and the bytes
// that reach the chassis.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bench.hpp"
#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

namespace {

using qbtest::Commands;
using qbtest::Record;
using Frames = std::vector<std::vector<uint8_t>>;

constexpr const char *kRemote421 = "GPIB0::5::INSTR";
constexpr const char *kLocal421 = "GPIB0::6::INSTR";
constexpr const char *kRK420 = "GPIB0::7::INSTR";
constexpr const char *kOperated = "Relays Operate Success";
constexpr const char *kBadRelays = "Invalid Relays Opearation Parameter";

std::string messageOf(int32_t code) {
  char text[256] = {};
  QBVISA_ErrorCodeToMessage(code, text, sizeof text - 1);
  return text;
}

class ScpiBench : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Resource local = qbtest::Chassis(kLocal421, qbsim::Model::RK421);
    local.chassis.controlMode = 0;
    local.chassis.lanMode = 1;
    local.chassis.boardInPlace = {1, 0, 1, 1};
    local.chassis.spiLoop = {0, 1, 1, 0};
    const auto sessions = qbtest::Connect(
        {qbtest::Chassis(kRemote421, qbsim::Model::RK421), local,
         qbtest::Chassis(kRK420, qbsim::Model::RK420)});
    ASSERT_EQ(sessions.size(), 3u);
    remote421 = sessions[0], local421 = sessions[1], rk420 = sessions[2];
    uint64_t kind = 0;
    for (uint32_t session : {remote421, rk420}) {
      ASSERT_EQ(QBVISA_OpenSpecifiedCard(session, 0, &kind), 0);
      ASSERT_EQ(QBVISA_Init(session, 0), 0);
    }
    for (const char *name : {kRemote421, kLocal421, kRK420}) qbsim::clearTraffic(name);
  }

  // Queries into a 400-byte reply inside a guarded area: the reply must stay
  // terminated and inside its 400 bytes.
  static std::string query(uint32_t session, const std::string &line) {
    char area[400 + 16];
    std::memset(area, 0x5A, sizeof area);
    QBVISA_SCPIQuery(session, line.c_str(), area);
    EXPECT_NE(std::memchr(area, '\0', 400), nullptr) << line;
    EXPECT_TRUE(std::all_of(area + 400, area + sizeof area, [](char c) { return c == 0x5A; }));
    return std::string(area, strnlen(area, 400));
  }

  static uint32_t imageWord(uint32_t session, int word) {
    uint32_t value = 0;
    std::memcpy(&value, Record(session)->slots[0].lastArray + 4 * word, sizeof value);
    return value;
  }

  uint32_t remote421 = 0, local421 = 0, rk420 = 0;
};

// Rows of tests/data/scpi_replies.tsv: chassis, fault, line, reply. The row
// is rendered again from what the query and the write answer.
TEST_F(ScpiBench, RepliesOfQueriesRefusalsAndTransportFailures) {
  using qbsim::Fault;
  const std::map<std::string, uint32_t> sessions = {
      {"remote421", remote421}, {"local421", local421}, {"rk420", rk420}};
  const std::map<std::string, Fault> faults = {
      {"WriteFails", Fault::WriteFails}, {"ReadFails", Fault::ReadFails}, {"FailureReply", Fault::FailureReply}};
  std::ifstream table(QBVISA_TEST_DATA "/scpi_replies.tsv");
  int rows = 0;
  for (std::string row; std::getline(table, row);) {
    if (row.empty() || row[0] == '#') continue;
    ++rows;
    std::istringstream fields(row);
    std::string chassis, fault, line;
    std::getline(fields, chassis, '\t'), std::getline(fields, fault, '\t'), std::getline(fields, line, '\t');
    const std::string input = chassis + "\t" + fault + "\t" + line + "\t";
    const uint32_t session = sessions.at(chassis);
    if (fault != "-") qbsim::injectFault(kRemote421, faults.at(fault));
    EXPECT_EQ(input + query(session, line), row);
    if (fault != "-") qbsim::injectFault(kRemote421, faults.at(fault));
    EXPECT_EQ(QBVISA_SCPIWrite(session, line.c_str()), 0);
    EXPECT_EQ(input + Record(session)->scpiReply, row);
  }
  EXPECT_EQ(rows, 24);
  // Nothing above sent a setting.
  for (uint16_t command : Commands(kLocal421)) EXPECT_NE(command, 6);
  for (uint16_t command : Commands(kRemote421)) EXPECT_TRUE(command != 20 && command != 48);
}

TEST_F(ScpiBench, SettingsReachTheChassis) {
  EXPECT_EQ(query(remote421, ":SYST:COMM:GPIB:RDEV:ADDR 12"),
            "Set GPIB Address Success! Please Restart The Application");
  EXPECT_EQ(query(remote421, ":SYSemT:COMMunication:LAN:IP:ADDRess 192.168.1.33"),
            "Set IP Address Success! Please Restart The Application if Using Manual IP Mode!");
  // The chassis takes seconds over a LAN-mode change: the one slow step here.
  EXPECT_EQ(query(remote421, ":SYST:COM:LAN:SET:MODE AUTO"),
            "Set LAN Mode Success! Please Restart The Application");
  const qbsim::ChassisConfig state = qbsim::chassisState(kRemote421);
  EXPECT_EQ(std::make_tuple(state.gpibAddress, state.ip[3], state.lanMode),
            std::make_tuple(12, 33, 1));
  // A control mode is only taken from remote control with the relays
  // cleared: mode read, set-remote (already remote: nothing sent), clear, set.
  qbsim::clearTraffic(kRemote421);
  EXPECT_EQ(query(remote421, ":SYST:CTRL:SET: LOCAL"), "Set Control Mode Success");
  EXPECT_EQ(Commands(kRemote421), (std::vector<uint16_t>{5, 5, 19, 5, 6}));
  qbsim::clearTraffic(kRemote421);
  EXPECT_EQ(query(remote421, ":SYSTem:ConTRoL:SET: REMOTE"), "Set Control Mode Success");
  EXPECT_EQ(Commands(kRemote421), (std::vector<uint16_t>{5, 5, 6, 19, 5}));
  EXPECT_EQ(qbsim::chassisState(kRemote421).controlMode, 1);
}

TEST_F(ScpiBench, CrosspointsFollowTheFortyEightColumnLayout) {
  EXPECT_EQ(query(remote421, ":CLOSe (@1(1!1))"), kOperated);
  EXPECT_EQ(imageWord(remote421, 0), 1u);
  EXPECT_EQ(query(remote421, ":CLOS (@1(1!49,250!48))"), kOperated);
  EXPECT_EQ(imageWord(remote421, 0), 1u);  // a close adds to what is closed
  EXPECT_EQ(imageWord(remote421, 1), 1u << 16);  // index 49: column 49 is row 2's first
  EXPECT_EQ(imageWord(remote421, 374), 1u << 31);
  // Row 2, column 1 is the same point as row 1, column 49.
  EXPECT_EQ(query(remote421, "[:ROUTe]:OPEN (@1(1!1,2!1,250!48))"), kOperated);
  for (int word : {0, 1, 374}) EXPECT_EQ(imageWord(remote421, word), 0u) << word;
  // Opening a point that is open leaves it open.
  EXPECT_EQ(query(remote421, ":OPEN (@1(1!1))"), kOperated);
  EXPECT_EQ(imageWord(remote421, 0), 0u);
  EXPECT_TRUE(qbsim::closedRelays(kRemote421).empty());
  // Every switch was one relay-state frame.
  EXPECT_EQ(Commands(kRemote421), (std::vector<uint16_t>{19, 19, 19, 19}));

  // Closing every point of the image is more than any chassis may close; the
  // image keeps the attempt.
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

TEST_F(ScpiBench, RefusedListsSwitchNothing) {
  ASSERT_EQ(query(remote421, ":CLOSe (@1(3!3))"), kOperated);
  qbsim::clearTraffic(kRemote421);
  const uint8_t *image = Record(remote421)->slots[0].lastArray;
  const std::vector<uint8_t> before(image, image + QBVISA_LAST_ARRAY_SIZE);
  const std::pair<const char *, const char *> cases[] = {
      {":CLOSe (@1(1!1, 1!2))", kBadRelays},  // only digits and "!:,()@" pass
      {":CLOSe (@1(251!1))", kBadRelays},  // past the image
      {":CLOSe (@1(1!1,2147483647!1))", kBadRelays},
      {":OPEN (@1(3!3,1!1:300!1))", kBadRelays},
      {":CLOSe (@1(1!1,0!1))", "Error: Invalid crosspoint format"},
  };
  for (const auto &[line, reply] : cases) EXPECT_EQ(query(remote421, line), reply) << line;
  EXPECT_TRUE(std::equal(before.begin(), before.end(), image));
  EXPECT_TRUE(qbsim::writes(kRemote421).empty());
  // The subunit selects the slot: the RK420 has no card in slot 1 and refuses
  // subunit 1 as the switching call does.
  uint32_t words[QBVISA_LAST_ARRAY_SIZE / 4] = {1};
  EXPECT_EQ(query(rk420, ":CLOSe (@1(1!1))"),
            messageOf(QBVISA_OpMatrix(rk420, 1, words, QBVISA_LAST_ARRAY_SIZE / 4)));
  EXPECT_TRUE(qbsim::closedRelays(kRK420).empty());
  EXPECT_EQ(query(rk420, ":CLOSe (@0(1!1))"), kOperated);
  EXPECT_FALSE(qbsim::closedRelays(kRK420).empty());
  EXPECT_EQ(query(rk420, ":OPEN:ALL"), kOperated);  // every relay at once: subunit 0
}

TEST_F(ScpiBench, IdentificationAndResetUseRawBytes) {
  // The reply is the instrument's own answer, byte for byte.
  const std::string answer = query(remote421, "*IDN?");
  const auto traffic = qbsim::traffic(kRemote421);
  ASSERT_EQ(traffic.size(), 2u);
  EXPECT_EQ(answer, std::string(traffic[1].bytes.begin(), traffic[1].bytes.end()));
  EXPECT_NE(answer.find("RK421"), std::string::npos);
  EXPECT_EQ(query(remote421, "*RST>"), "Reset Success!Please Restart The Application!");
  EXPECT_EQ(qbsim::writes(kRemote421), (Frames{{'*', 'I', 'D', 'N', '?', '\n'}, {0x0E, 0x00}}));
  ASSERT_EQ(QBVISA_SCPIWrite(remote421, "*RST>"), 0);
  EXPECT_STREQ(Record(remote421)->scpiReply, "Reset Success!");
}

TEST_F(ScpiBench, MissingSessionAndTheStoredReply) {
  const uint32_t unknown = qbtest::kUnknownSession;
  for (const char *line : {"*IDN?", ":CLOSe (@1(1!1))", ":OPEN:ALL", ":SYST:VERS?"}) {
    EXPECT_EQ(query(unknown, line), messageOf(QBVISA_ERR_HANDLE)) << line;
    EXPECT_EQ(QBVISA_SCPIWrite(unknown, line), QBVISA_ERR_HANDLE) << line;
  }
  // Parser errors come before the lookup.
  EXPECT_EQ(query(unknown, ":CLOSe (@1(0!1))"), "Error: Invalid crosspoint format");
  EXPECT_EQ(QBVISA_SCPIQuery(remote421, "*IDN?", nullptr), 0);  // no reply area: nothing done
  char text[QBVISA_SCPI_REPLY_SIZE] = "x";
  EXPECT_EQ(QBVISA_SCPIRead(unknown, text), QBVISA_ERR_HANDLE);
  EXPECT_STREQ(text, "x");
  // A write starts from an empty reply, so a close after a query still
  // switches; a read delivers nothing and drops the stored reply.
  ASSERT_EQ(QBVISA_SCPIWrite(remote421, ":SYST:VERS?"), 0);
  ASSERT_EQ(QBVISA_SCPIWrite(remote421, ":CLOSe (@1(1!1))"), 0);
  EXPECT_STREQ(Record(remote421)->scpiReply, kOperated);
  std::memset(text, 'x', sizeof text);
  EXPECT_EQ(QBVISA_SCPIRead(remote421, text), 0);
  EXPECT_EQ(text[0], '\0');
  const char *reply = Record(remote421)->scpiReply;
  EXPECT_TRUE(std::all_of(reply, reply + QBVISA_SCPI_REPLY_SIZE, [](char c) { return !c; }));
}

}  // namespace
