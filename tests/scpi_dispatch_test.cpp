// Text commands end to end on the simulated bench: the reply of every
// outcome, the bits a crosspoint list sets in the relay image, and the bytes
// that reach the chassis.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "bench.hpp"
#include "golden.hpp"

namespace {

using qbtest::Commands;
using qbtest::Record;
using Frames = std::vector<std::vector<uint8_t>>;

constexpr const char *kRemote421 = "GPIB0::5::INSTR";
constexpr const char *kLocal421 = "GPIB0::6::INSTR";
constexpr const char *kRK420 = "GPIB0::7::INSTR";
constexpr const char *kOperated = "Relays Operate Success";

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

// Rows of tests/data/scpi_replies.tsv: chassis, fault, line, reply. Each row
// is rendered again from what the query and the write answer.
TEST_F(ScpiBench, RepliesOfQueriesRefusalsAndTransportFailures) {
  using qbsim::Fault;
  const std::map<std::string, uint32_t> sessions = {
      {"remote421", remote421}, {"local421", local421}, {"rk420", rk420}};
  const std::map<std::string, Fault> faults = {
      {"WriteFails", Fault::WriteFails}, {"ReadFails", Fault::ReadFails}, {"FailureReply", Fault::FailureReply}};
  std::ifstream table(QBVISA_TEST_DATA "/scpi_replies.tsv");
  ASSERT_TRUE(table.good());
  std::string rendered;
  for (std::string row; std::getline(table, row); rendered += row + "\n") {
    if (row.empty() || row[0] == '#') continue;
    std::istringstream fields(row);
    std::string chassis, fault, line;
    std::getline(fields, chassis, '\t'), std::getline(fields, fault, '\t'), std::getline(fields, line, '\t');
    const uint32_t session = sessions.at(chassis);
    if (fault != "-") qbsim::injectFault(kRemote421, faults.at(fault));
    row = chassis + "\t" + fault + "\t" + line + "\t" + query(session, line);
    if (fault != "-") qbsim::injectFault(kRemote421, faults.at(fault));
    EXPECT_EQ(QBVISA_SCPIWrite(session, line.c_str()), 0);
    EXPECT_EQ(Record(session)->scpiReply, row.substr(row.rfind('\t') + 1)) << line;  // the write's reply too
  }
  qbgolden::expectGolden("scpi_replies.tsv", rendered);
  // Nothing above sent a setting.
  for (uint16_t command : Commands(kLocal421)) EXPECT_NE(command, 6);
  for (uint16_t command : Commands(kRemote421)) EXPECT_TRUE(command != 20 && command != 48);
}

// Settings, crosspoint lists and refused lists as queries: each line with its
// reply, the commands sent and the words of the relay image that it touches,
// compared whole with tests/data/scpi_transcript.txt.
TEST_F(ScpiBench, Transcript) {
  std::ostringstream out;
  const auto step = [&out](uint32_t session, const char *name, const std::string &line) {
    out << line << " -> " << query(session, line) << ";";
    for (uint16_t command : Commands(name)) out << ' ' << command;
    if (name == kRemote421)
      for (int word : {0, 1, 200, 374, 375}) out << (word ? " " : "; words ") << std::hex << imageWord(session, word) << std::dec;
    out << "; " << qbsim::closedRelays(name).size() << " closed\n";
    qbsim::clearTraffic(name);
  };
  step(remote421, kRemote421, ":SYST:COMM:GPIB:RDEV:ADDR 12");
  step(remote421, kRemote421, ":SYSemT:COMMunication:LAN:IP:ADDRess 192.168.1.33");
  // The chassis takes seconds over a LAN-mode change: the one slow step here.
  step(remote421, kRemote421, ":SYST:COM:LAN:SET:MODE AUTO");
  const qbsim::ChassisConfig state = qbsim::chassisState(kRemote421);
  out << "gpib " << +state.gpibAddress << " ip " << +state.ip[3] << " lan mode " << +state.lanMode << '\n';
  // A control mode is only taken from remote control with the relays
  // cleared: mode read, set-remote (already remote: nothing sent), clear, set.
  step(remote421, kRemote421, ":SYST:CTRL:SET: LOCAL");
  step(remote421, kRemote421, ":SYSTem:ConTRoL:SET: REMOTE");
  out << "control mode " << +qbsim::chassisState(kRemote421).controlMode << '\n';

  // A close adds to what is closed; index 49: column 49 is row 2's first, so
  // row 2, column 1 is the same point as row 1, column 49. Opening a point
  // that is open leaves it open. Every switch is one relay-state frame.
  for (const char *line : {":CLOSe (@1(1!1))", ":CLOS (@1(1!49,250!48))", "[:ROUTe]:OPEN (@1(1!1,2!1,250!48))",
                           ":OPEN (@1(1!1))",
                           // Closing every point of the image is more than any chassis may
                           // close; the image keeps the attempt.
                           ":CLOSe:ALL", ":OPEN:ALL",
                           // The bracketed upper-case ":ALL" is an empty list: it switches the
                           // image as it stands.
                           ":CLOS (@1(1!2))", "[:ROUT]:OPEN:ALL", ":CLOSe (@1(3!3))"})
    step(remote421, kRemote421, line);

  // Refused lists switch nothing: only digits and "!:,()@" pass, and no
  // point past the image.
  const uint8_t *image = Record(remote421)->slots[0].lastArray;
  const std::vector<uint8_t> before(image, image + QBVISA_LAST_ARRAY_SIZE);
  for (const char *line : {":CLOSe (@1(1!1, 1!2))", ":CLOSe (@1(251!1))", ":CLOSe (@1(1!1,2147483647!1))",
                           ":OPEN (@1(3!3,1!1:300!1))", ":CLOSe (@1(1!1,0!1))"})
    step(remote421, kRemote421, line);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), image));
  // The subunit selects the slot: the RK420 has no card in slot 1 and refuses
  // subunit 1 as the switching call does; subunit 0 is every relay at once.
  uint32_t words[QBVISA_LAST_ARRAY_SIZE / 4] = {1};
  out << "OpMatrix slot 1: " << messageOf(QBVISA_OpMatrix(rk420, 1, words, QBVISA_LAST_ARRAY_SIZE / 4)) << '\n';
  for (const char *line : {":CLOSe (@1(1!1))", ":CLOSe (@0(1!1))", ":OPEN:ALL"}) step(rk420, kRK420, line);
  qbgolden::expectGolden("scpi_transcript.txt", out.str());
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
