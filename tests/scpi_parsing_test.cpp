// Text-command parsing: which command id and argument a line yields, and
// crosspoint lists (points, subunit and error text for the telling inputs,
// and the bounds that keep hostile lists harmless).
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qbvisa_lowlevel.h"

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
constexpr const char *kBadSubunit = "Error: Invalid subunit format\n";
constexpr const char *kUnbalanced = "Error: Unmatched parentheses in input.";

struct Parsed {
  int subunit;
  Points points;
  std::string message;
};

struct LineCase {
  const char *line;
  uint32_t id;
  const char *argument = nullptr;  // nullptr: the argument area stays untouched
};

// Table entries the text-command bench tests do not send, setters with their
// argument, queries with trailing text that is ignored, and near misses.
const LineCase kLines[] = {
    // Any lower-case letter selects the long forms.
    {"*IDN?xyz", 0}, {"*RST>now", 4}, {":SYSTem:VERSion?", 1}, {":SYSTem:MANF?", 2},
    {":SYSTem:MODule? extra", 3}, {":SYSemT:COMMunication:LAN:IP:ADDRess?", 6},
    {":SYSemT:COMMunication:LAN:SET:MODE AUTO", 7, "AUTO"},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess 7", 14, "7"},
    {":SYSTem:COMMunicate:RS232:BAUD 9600", 15, "9600"}, {":SYSTem:COMMunicate:RS232:BAUD?", 17},
    {":DIAGnostic:TEST:CARD:BIP?", 9}, {":DIAGnostic:TEST:CARD:SPILOOP?", 10},
    {":DIAGnostic:TEST:CARD:STATe?", 11}, {"[:ROUTe]:OPEN:ALL", 20},
    {"[:ROUTe]:CLOSe (@1(1!1))", 19, "(@1(1!1))"}, {"[:ROUTe]:CLOSe:ALL", 21},
    {":CLOSe   (@1(1!1))", 19, "  (@1(1!1))"},
    // No lower-case letter: the short forms.
    {":SYST:VERS?X", 1}, {":SYST:MOD?", 3}, {":SYST:COMM:LAN:MODE?", 8},
    {":SYST:COMM:GPIB:RDEV:ADDR?", 16}, {":SYST:COMM:RS232:BAUD 115200", 15, "115200"},
    {"[:ROUT]:OPEN (@1(2!2))", 18, "(@1(2!2))"}, {"[:ROUT]:CLOS (@1(2!2))", 19, "(@1(2!2))"},
    {":OPEN:ALLX", 20}, {":CLOS:ALL", 21}, {":CLOS ", 19, ""},
    // The bracketed upper-case ":ALL" forms are list commands with an empty list.
    {"[:ROUT]:CLOS:ALL", 19, ""},
    // Not recognised: the wrong table for the case used, or near misses.
    {":SYSTEM:VERSION?", 22}, {":SYST:VERS?x", 22}, {":syst:vers?", 22}, {"*RST", 22},
    {":SYSTem:COMMunication:LAN:MODE?", 22}, {":SYST:COMM:LAN:SET:MODE AUTO", 22},
    {":SYST:CTRL:SET:LOCAL", 22}, {":CLOSE (@1(1!1))", 22}, {"", 22},
};

TEST(LineMatching, TableEntriesYieldTheirIdAndArgument) {
  for (const LineCase &c : kLines) {
    SCOPED_TRACE(c.line);
    char message[64] = "untouched";
    char argument[QBVISA_SCPI_ARGUMENT_SIZE];
    std::memset(argument, '#', sizeof argument);
    uint32_t id = 99;
    scpi_parser(0, c.line, message, argument, &id);
    EXPECT_EQ(id, c.id);
    EXPECT_STREQ(message, c.id == 22 ? "Unknown Command" : "untouched");
    if (c.argument != nullptr) {
      EXPECT_STREQ(argument, c.argument);
    } else {
      EXPECT_EQ(argument[0], '#');
    }
  }
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
  const struct {
    const char *text;
    int subunit;
    Points points;
    const char *message;
  } cases[] = {
      {"(@1(2!4:1!2))", 1, {{1, 2}, {1, 3}, {1, 4}, {2, 2}, {2, 3}, {2, 4}}, ""},
      {"(@1(3!3:2!2,1!1))", 1, {{2, 2}, {2, 3}, {3, 2}, {3, 3}, {1, 1}}, ""},
      {"(@2(1!1,,1!1,))", 2, {{1, 1}, {1, 1}}, ""}, {"(@123(1!1))", 123, {{1, 1}}, ""},
      {"(@1000(1!1))", 1000, {{1, 1}}, ""},  // four digits: the slice starts one further on
      {"(@0012(1!1))", 12, {{2, 1}}, ""},  // the slice is shifted by "00"
      {"(::(1!1))", 0, {{1, 1}}, ""},      // no "@": subunit 0
      {"1!1", 0, {}, ""}, {"(@1(1234567890!1))", 1, {{1234567890, 1}}, ""},
      {"(@1(1!0000000000000000000007))", 1, {{1, 7}}, ""},
      // Errors; parsing goes on with the next item.
      {"(@1(0!1))", 1, {}, kBadPoint}, {"(@1(1!0))", 1, {}, kBadPoint}, {"(@1(1!1,5,2!2))", 1, {{1, 1}, {2, 2}}, kBadPoint},
      {"(@1(0!1,1!1:2))", 1, {}, "Error: Invalid range format."},
      {"(@1(1!1:0!2))", 1, {}, kBadPoint}, {"(@1(00000000001!1))", 1, {}, kBadPoint},
      {"(@1(9999999999!1))", 1, {}, kBadPoint}, {"(@1(1!1:1!4294967297))", 1, {}, kBadPoint},
      {"(@x(1!1))", 0, {}, kBadSubunit}, {"(@(1!1))", 0, {}, kBadSubunit},
      {"(@99999999999(1!1))", 0, {}, kBadSubunit}, {"(@1(1!1)", 1, {}, kUnbalanced},
      {"(@1))((1!1)", 1, {}, kUnbalanced},  // counts even, but ")" before its "("
      {"(@1(1!))", 1, {}, "Error: Empty content in parentheses.\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    const Parsed parsed = parse(c.text);
    EXPECT_EQ(parsed.subunit, c.subunit);
    EXPECT_EQ(parsed.points, c.points);
    EXPECT_EQ(parsed.message, c.message);
  }
}

TEST(ListParsing, ParenthesesBalance) {
  const std::pair<const char *, int> cases[] = {
      {"(@1(1!1))", 1}, {"", 1}, {nullptr, 1}, {"(()", 0}, {")(", 0}, {"())(", 0}};
  for (const auto &[text, balanced] : cases)
    EXPECT_EQ(areParenthesesBalanced(text), balanced) << (text ? text : "null");
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
  SCPIResult result = parseSCPICrossPoint("(@1(1!1,1!1:999!1000))", message);
  const bool kept = result.count == 1 && result.points[0].row == 1;
  freeSCPIResult(&result);
  std::_Exit(kept && !std::strcmp(message, "Error: Not enough memory for crosspoints") ? 0 : 1);
}

TEST(ListParsing, ExhaustedMemoryIsReportedNotFatal) {
  EXPECT_EXIT(parseUnderMemoryLimit(), ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
