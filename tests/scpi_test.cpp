// Text commands: the command id and argument a line yields, crosspoint lists
// and the bounds that keep hostile lists harmless, and on the simulated bench
// the replies, the relay image bits and the bytes on the wire; and the helpers.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <tuple>
#include <type_traits>

#include "bench.hpp"
#include "golden.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using Points = std::vector<std::pair<int, int>>;

constexpr const char *kBadPoint = "Error: Invalid crosspoint format";

struct Parsed {
  int subunit;
  Points points;
  std::string message;
};

TEST(LineMatching, TableEntriesYieldTheirIdAndArgument) {
  qbgolden::expectTable("scpi_lines.tsv", [](const std::string &line) {
    char message[64] = "untouched";
    char argument[QBVISA_SCPI_ARGUMENT_SIZE];
    std::memset(argument, '#', sizeof argument);
    uint32_t id = 99;
    scpi_parser(0, line.c_str(), message, argument, &id);
    EXPECT_STREQ(message, id == 22 ? "Unknown Command" : "untouched") << line;
    return line + "\t" + std::to_string(id) + "\t" + (argument[0] == '#' ? "~" : argument);
  });
}

TEST(LineMatching, OverlongArgumentIsCutToTheBuffer) {
  const std::string list = "(@1(" + std::string(400, '1') + "))";
  char area[QBVISA_SCPI_ARGUMENT_SIZE + 16];
  std::memset(area, '#', sizeof area);
  uint32_t id = 0;
  scpi_parser(0, (":CLOS " + list).c_str(), nullptr, area, &id);
  EXPECT_EQ(id, 19u);
  EXPECT_EQ(std::string(area), list.substr(0, QBVISA_SCPI_ARGUMENT_SIZE - 1));
  EXPECT_EQ(area[QBVISA_SCPI_ARGUMENT_SIZE], '#');
}

Parsed parse(const std::string &text) {
  char message[256] = {};
  SCPIResult result = parseSCPICrossPoint(text.c_str(), message);
  Parsed parsed{result.subunit, {}, message};
  for (int i = 0; i < result.count; ++i)
    parsed.points.emplace_back(result.points[i].row, result.points[i].column);
  freeSCPIResult(&result);
  freeSCPIResult(&result);  // a second release is harmless
  EXPECT_TRUE(result.points == nullptr && result.count == 0);  // released and emptied
  freeSCPIResult(nullptr);
  return parsed;
}

TEST(ListParsing, YieldsPointsSubunitAndMessage) {
  qbgolden::expectTable("crosspoint_lists.tsv", [](const std::string &input) {
    const Parsed parsed = parse(input);
    std::string rendered = input + "\t" + std::to_string(parsed.subunit) + "\t";
    for (const auto &[r, c] : parsed.points)
      rendered += (&r == &parsed.points.front().first ? "" : " ") + std::to_string(r) + "!" + std::to_string(c);
    rendered += "\t";
    for (char ch : parsed.message) rendered += ch == '\n' ? std::string("\\n") : std::string(1, ch);
    return rendered;
  });
}

// One item on its own (0 and its points added, or -1 and nothing added), and
// whether parentheses balance, compared whole with tests/data/crosspoint_items.txt.
TEST(ListParsing, ItemsAndParentheses) {
  std::ostringstream out;
  for (const char *item : {"2!3", "2!3:1!2", "11", "a!1", "0!1", "1!1:2", "1!1:x!2", "1!1:0!1", "1!1:1000!1001"}) {
    SCPIResult result{};
    char message[256] = {};
    out << "item " << item << ": " << parseCrosspoints(&result, item, message);
    out << " count " << result.count << '\n';
    freeSCPIResult(&result);
  }
  out << "item without a result: " << parseCrosspoints(nullptr, "1!1", nullptr) << '\n';
  out << "list without a text: " << parseSCPICrossPoint(nullptr, nullptr).count << '\n';
  for (const char *text : {"(@1(1!1))", "", (const char *)nullptr, "(()", ")(", "())("})
    out << "balanced " << (text ? text : "null") << ": " << areParenthesesBalanced(text) << '\n';
  qbgolden::expectGolden("crosspoint_items.txt", out.str());
}

TEST(ListParsing, BoundsOfTheSliceAndOfTheRectangle) {
  std::string items;
  for (int i = 0; i < 100; ++i) items += "1!1,";
  // 255 characters survive: 63 items with their commas and a last "1!1".
  EXPECT_EQ(parse("(@1(" + items + "1!1))").points.size(), 64u);

  const Parsed full = parse("(@1(1000!1000:1!1))");
  ASSERT_EQ(full.points.size(), 1000000u);
  EXPECT_EQ(full.points[1000], std::make_pair(2, 1));
  EXPECT_EQ(full.points.back(), std::make_pair(1000, 1000));
  EXPECT_EQ(full.message, "");
  const Parsed over = parse("(@1(1!1:1000!1000,7!7))");
  EXPECT_EQ(over.points.size(), 1000000u);
  EXPECT_EQ(over.message, kBadPoint);
}

// An address-space limit cannot coexist with the sanitizer's shadow memory.
#if !defined(UNDER_ADDRESS_SANITIZER)
// Runs in a child process: parses a large rectangle under an address-space
// limit that leaves room for a few small blocks only.
[[noreturn]] void parseUnderMemoryLimit() {
  long pages = 0;
  if (FILE *statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
    std::fclose(statm);
  }
  const rlim_t size = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (2u << 20);
  const rlimit limit{size, size};
  setrlimit(RLIMIT_AS, &limit);
  char message[64] = {};
  SCPIResult result{};
  const bool first = parseCrosspoints(&result, "1!1", message) == 0;
  const bool refused = parseCrosspoints(&result, "1!1:999!1000", message) == -1;
  const bool kept = first && refused && result.count == 1 && result.points[0].row == 1;
  freeSCPIResult(&result);
  std::_Exit(kept && !std::strcmp(message, "Error: Not enough memory for crosspoints") ? 0 : 1);
}

TEST(ListParsing, ExhaustedMemoryIsReportedNotFatal) {
  EXPECT_EXIT(parseUnderMemoryLimit(), ::testing::ExitedWithCode(0), "");
}
#endif

// Two-level arrays: zeroed values, rows packed one after another, and a free
// that releases the row pointers only (ASan reports a double free or a leak
// otherwise). Only values of exactly 1 are counted.
template <typename T, typename Alloc, typename Free>
void checkRows(Alloc alloc, Free release) {
  T **array = alloc(0, 3, 5);
  ASSERT_NE(array, nullptr);
  for (int r = 0; r < 3; ++r) EXPECT_EQ(array[r], array[0] + r * 5) << r;
  for (int v = 0; v < 15; ++v) EXPECT_EQ(array[0][v], 0) << v;
  if constexpr (std::is_same_v<T, int32_t>) {
    array[0][0] = array[2][4] = 1;
    array[1][1] = 2;
    array[1][2] = -1;
    EXPECT_EQ(countOnes2D(array, 3, 5), 2);
    EXPECT_EQ(countOnes2D(array, 2, 5), 1);
  }
  T *values = array[0];
  release(array);
  std::free(values);
  EXPECT_EQ(alloc(0, 0, 5), nullptr);
  EXPECT_EQ(alloc(0, 3, -1), nullptr);
}

TEST(UtilitiesTest, ArraysAreLaidOutFilledCountedAndFreed) {
  checkRows<int32_t>(alloc2int, free2int);
  checkRows<uint16_t>(alloc2ViUInt16, free2ViUInt16);
  EXPECT_EQ(countOnes2D(nullptr, 2, 3), 0);

  int32_t ***cube = alloc3int(0, 2, 3, 4, 1);
  ASSERT_NE(cube, nullptr);
  EXPECT_EQ(countOnes(cube, 2, 3, 4), 24);
  cube[0][0][0] = 0;
  cube[1][2][3] = -1;
  cube[1][0][1] = 11;
  EXPECT_EQ(countOnes3D(cube, 2, 3, 4), 21);
  EXPECT_EQ(countOnes(cube, 1, 3, 4), 11);
  free3int(cube);
  for (auto [a, b, c] : {std::tuple{0, 3, 4}, {2, 0, 4}, {2, 3, 0}})
    EXPECT_EQ(alloc3int(0, a, b, c, 1), nullptr) << a << b << c;
}

// The table-like helpers render what they answered, compared whole with
// tests/data/utilities_transcript.txt.
TEST(UtilitiesTest, Transcript) {
  std::ostringstream out;
  // Callers size their point arrays from these exported geometry values.
  out << "geometry:";
  for (int32_t v : {MATRIXPOINTCOUNT, GX3_SUBMATRIXCOL, GX4_SUBMATRIXCOL, GX4_MATRIXPOINTCOUNT, GX4C_SUBMATRIXCOL,
                    GX4C_MATRIXPOINTCOUNT, GX4Mix_SUBMATRIXCOL, GX4Mix_MATRIXPOINTCOUNT})
    out << ' ' << v;
  // The last byte of the range moves to its front, `times` times.
  for (const auto &[first, end, times] : {std::tuple{1, 5, 2}, {0, 6, 7}, {0, 6, -2}, {2, 3, 4}, {4, 2, 1}}) {
    uint8_t bytes[] = {'A', 'B', 'C', 'D', 'E', 'F'};
    out << "\nrotateRight " << first << ' ' << end << ' ' << times << ": " << rotateRight(bytes, first, end, times)
        << ' ' << std::string(bytes, bytes + 6);
  }
  // Bits least significant first into one shared array, overwritten.
  for (const int32_t value : {INT32_MIN + 5, 0x40000000}) {
    const int32_t *bits = dec_2bin(value);
    out << "\ndec_2bin " << value << ": ";
    for (int i = 0; i < 32; ++i) out << bits[i];
    out << (bits == dec_2bin(0) ? " shared" : " separate");
  }
  char text[] = "abcdef";
  out << "\nmystrncpy: " << (mystrncpy(text, 99) == text) << ' ' << mystrncpy(text, 3) << ' '
      << (mystrncpy(nullptr, 3) == nullptr);
  // Empty parts are skipped; only the first 15 characters are read.
  for (const char *dotted : {"255.255.255.255", "", "1..2", "10.20.30.40.50607080", (const char *)nullptr})
    out << "\ntoInt " << (dotted ? dotted : "null") << ": " << toInt(dotted);
  const std::vector<uint8_t> bytes(70000, 0xFF);
  out << "\ncheckSum: " << checkSum(bytes.data(), 70000) << ' ' << checkSum(nullptr, 5);
  for (const char *digits : {"", "0", "12345678", "12a", " 1", "-1", "1.5", "+1", (const char *)nullptr})
    out << "\nisdigitstr " << (digits ? digits : "null") << ": " << isdigitstr(digits);
  // Only the chassis network, without the controller's own address.
  for (const char *ip : {"192.168.1.0", "192.168.1.199", "192.168.1.201", "192.168.1.254", "192.168.1.200",
                         "192.168.1.255", "192.168.1.256", "192.168.1.01", "192.168.01.1", "192.168.1.00",
                         "0192.168.1.1", "192.168.1.1000", "192.168.2.5", "192.168.1", "192.168.1.",
                         "192.168.1.1.1", "192.168.1.-1", "192.168.1.1 ", "", (const char *)nullptr})
    out << "\nvalidIPAddress " << (ip ? ip : "null") << ": " << validIPAddress(ip);
  // Three fields, and a fourth behind the terminator that must not be read.
  out << "\nvalidIPAddress 192.168.1<NUL>5: " << validIPAddress("192.168.1\0" "5");
  // Byte i into bit i, byte 0 first: a byte above 1 spills into the next
  // bit, and one shifted out of the word still counts. No bytes count none.
  for (const char *digits : {"1000000000000001", "0002000000000000", "0000000000000002", (const char *)nullptr}) {
    uint8_t flags[16];
    for (int i = 0; digits != nullptr && i < 16; ++i) flags[i] = static_cast<uint8_t>(digits[i] - '0');
    int32_t ones = -1;
    out << "\nArrayToU16 " << (digits ? digits : "null") << ": " << ArrayToU16(digits ? flags : nullptr, &ones);
    out << ' ' << ones;
  }
  out << "\nArrayToU16 null, no count: " << ArrayToU16(nullptr, nullptr);
  out << '\n';
  qbgolden::expectGolden("utilities_transcript.txt", out.str());
}

// SLEEP waits whole seconds only, measured on the monotonic clock.
TEST(UtilitiesTest, SleepTakesWholeSecondsOnly) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  double begin = 0, end = 0;
  getHighPrecisionTime(&begin);
  EXPECT_NEAR(begin, static_cast<double>(now.tv_sec), 1.5);
  SLEEP(999);
  SLEEP(0);
  getHighPrecisionTime(&end);
  EXPECT_LT(end - begin, 0.2);
  SLEEP(1000);  // exactly one second, not rounded down to none
  getHighPrecisionTime(&begin);
  EXPECT_NEAR(begin - end, 1.0, 0.3);
  getHighPrecisionTime(nullptr);
}

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
    local.chassis.lanMode = 2;  // neither manual nor automatic
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
  qbgolden::expectTable("scpi_replies.tsv", [&](const std::string &input) {
    std::istringstream fields(input);
    std::string chassis, fault, line;
    std::getline(fields, chassis, '\t'), std::getline(fields, fault, '\t'), std::getline(fields, line, '\t');
    const uint32_t session = sessions.at(chassis);
    if (fault != "-") qbsim::injectFault(kRemote421, faults.at(fault));
    const std::string reply = query(session, line);
    if (fault != "-") qbsim::injectFault(kRemote421, faults.at(fault));
    EXPECT_EQ(QBVISA_SCPIWrite(session, line.c_str()), 0);
    EXPECT_EQ(Record(session)->scpiReply, reply) << line;  // the write's reply too
    return input + "\t" + reply;
  }, 3);
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
    for (const auto &frame : qbsim::writes(name)) {
      const std::vector<uint16_t> words = qbtest::Words(frame);
      out << ' ' << words.at(0);
      if (words.at(0) == 48) out << '/' << words.at(2);  // the LAN mode sent
    }
    if (name == kRemote421)
      for (int word : {0, 1, 200, 374, 375}) out << (word ? " " : "; words ") << std::hex << imageWord(session, word) << std::dec;
    out << "; " << qbsim::closedRelays(name).size() << " closed\n";
    qbsim::clearTraffic(name);
  };
  step(remote421, kRemote421, ":SYST:COMM:GPIB:RDEV:ADDR 25");
  step(remote421, kRemote421, ":SYSemT:COMMunication:LAN:IP:ADDRess 192.168.1.33");
  // The chassis takes seconds over a LAN-mode change: the one slow step here.
  step(remote421, kRemote421, ":SYST:COM:LAN:SET:MODE AUTO");
  step(remote421, kRemote421, ":SYST:COMM:LAN:MODE?");
  // Refused by the chassis, so no wait: the mode sent still shows.
  qbsim::injectFault(kRemote421, qbsim::Fault::FailureReply);
  step(remote421, kRemote421, ":SYST:COM:LAN:SET:MODE MANUAL");
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
