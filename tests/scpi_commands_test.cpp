// Keyword matching: which command id and argument a text line yields.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qbvisa_lowlevel.h"

namespace {

struct LineCase {
  const char *line;
  uint32_t id;
  const char *argument;  // nullptr: the argument buffer must stay untouched
};

// Every entry of both tables, setters with an argument and queries with
// trailing text that must be ignored.
const LineCase kLines[] = {
    // Mixed-case lines: the long forms.
    {"*IDN?", 0, nullptr},
    {"*IDN?xyz", 0, nullptr},
    {"*RST>now", 4, nullptr},
    {":SYSTem:VERSion?", 1, nullptr},
    {":SYSTem:MANF?", 2, nullptr},
    {":SYSTem:MODule? extra", 3, nullptr},
    {":SYSemT:COMMunication:LAN:IP:ADDRess 192.168.1.20", 5, "192.168.1.20"},
    {":SYSemT:COMMunication:LAN:IP:ADDRess?", 6, nullptr},
    {":SYSemT:COMMunication:LAN:SET:MODE AUTO", 7, "AUTO"},
    {":SYSemT:COMMunication:LAN:MODE?", 8, nullptr},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess 7", 14, "7"},
    {":SYSTem:COMMunicate:RS232:BAUD 9600", 15, "9600"},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?", 16, nullptr},
    {":SYSTem:COMMunicate:RS232:BAUD?", 17, nullptr},
    {":SYSTem:ConTRoL:MODE?", 12, nullptr},
    {":SYSTem:ConTRoL:SET: local", 13, "local"},
    {":DIAGnostic:TEST:CARD:BIP?", 9, nullptr},
    {":DIAGnostic:TEST:CARD:SPILOOP?", 10, nullptr},
    {":DIAGnostic:TEST:CARD:STATe?", 11, nullptr},
    {"[:ROUTe]:OPEN (@1(1!1))", 18, "(@1(1!1))"},
    {"[:ROUTe]:OPEN:ALL", 20, nullptr},
    {":OPEN (@1(1!1))", 18, "(@1(1!1))"},
    {":OPEN:ALL", 20, nullptr},
    {"[:ROUTe]:CLOSe (@1(1!1))", 19, "(@1(1!1))"},
    {"[:ROUTe]:CLOSe:ALL", 21, nullptr},
    {":CLOSe (@1(1!1))", 19, "(@1(1!1))"},
    {":CLOSe:ALL", 21, nullptr},
    {":CLOSe   (@1(1!1))", 19, "  (@1(1!1))"},  // extra blanks stay
    // Upper-case lines: the short forms.
    {"*IDN?", 0, nullptr},
    {"*RST>", 4, nullptr},
    {":SYST:VERS?", 1, nullptr},
    {":SYST:MANF?", 2, nullptr},
    {":SYST:MOD?", 3, nullptr},
    {":SYST:CTRL:MODE?", 12, nullptr},
    {":SYST:CTRL:SET: REMOTE", 13, "REMOTE"},
    {":SYST:COMM:LAN:IP:ADDR 192.168.1.20", 5, "192.168.1.20"},
    {":SYST:COMM:LAN:IP:ADDR?", 6, nullptr},
    {":SYST:COM:LAN:SET:MODE MANUAL", 7, "MANUAL"},
    {":SYST:COMM:LAN:MODE?", 8, nullptr},
    {":SYST:COMM:GPIB:RDEV:ADDR 12", 14, "12"},
    {":SYST:COMM:RS232:BAUD 115200", 15, "115200"},
    {":SYST:COMM:GPIB:RDEV:ADDR?", 16, nullptr},
    {":SYST:COMM:RS232:BAUD?", 17, nullptr},
    {":DIAG:TEST:CARD:BIP?", 9, nullptr},
    {":DIAG:TEST:CARD:SPILOOP?", 10, nullptr},
    {":DIAG:TEST:CARD:STAT?", 11, nullptr},
    {"[:ROUT]:OPEN (@1(2!2))", 18, "(@1(2!2))"},
    {"[:ROUT]:OPEN:ALL", 18, ""},  // a list command with an empty list
    {":OPEN (@1(2!2))", 18, "(@1(2!2))"},
    {":OPEN:ALLX", 20, nullptr},
    {"[:ROUT]:CLOS (@1(2!2))", 19, "(@1(2!2))"},
    {"[:ROUT]:CLOS:ALL", 19, ""},
    {":CLOS (@1(2!2))", 19, "(@1(2!2))"},
    {":CLOS:ALL", 21, nullptr},
    {":CLOS ", 19, ""},
    // Not recognised: wrong table for the case used, or near misses.
    {":SYSTEM:VERSION?", 22, nullptr},
    {":SYST:VERS?X", 1, nullptr},
    {":SYST:VERS?x", 22, nullptr},  // one lower-case letter picks the long forms
    {":syst:vers?", 22, nullptr},
    {":SYSTem:COMMunication:LAN:MODE?", 22, nullptr},
    {":SYST:COMM:LAN:SET:MODE AUTO", 22, nullptr},
    {"*RST", 22, nullptr},
    {":SYST:CTRL:SET:LOCAL", 22, nullptr},
    {":CLOSE (@1(1!1))", 22, nullptr},
    {"", 22, nullptr},
};

class LineMatching : public ::testing::TestWithParam<LineCase> {};

TEST_P(LineMatching, YieldsIdAndArgument) {
  const LineCase &c = GetParam();
  char message[64] = "untouched";
  char argument[QBVISA_SCPI_ARGUMENT_SIZE];
  std::memset(argument, '#', sizeof argument);
  uint32_t id = 99;
  scpi_parser(0, c.line, message, argument, &id);
  EXPECT_EQ(id, c.id) << c.line;
  EXPECT_STREQ(message, c.id == 22 ? "Unknown Command" : "untouched");
  if (c.argument != nullptr) {
    EXPECT_STREQ(argument, c.argument) << c.line;
  } else {
    EXPECT_EQ(argument[0], '#') << c.line;
  }
}

INSTANTIATE_TEST_SUITE_P(BothTables, LineMatching, ::testing::ValuesIn(kLines));

TEST(LineMatching, OverlongArgumentIsCutToTheBuffer) {
  const std::string list = "(@1(" + std::string(400, '1') + "))";
  const std::string line = ":CLOS " + list;
  char area[QBVISA_SCPI_ARGUMENT_SIZE + 16];
  std::memset(area, '#', sizeof area);
  uint32_t id = 0;
  scpi_parser(0, line.c_str(), nullptr, area, &id);
  EXPECT_EQ(id, 19u);
  EXPECT_EQ(std::string(area), list.substr(0, QBVISA_SCPI_ARGUMENT_SIZE - 1));
  EXPECT_EQ(area[QBVISA_SCPI_ARGUMENT_SIZE], '#');
}

TEST(CaseHelpers, LowerCaseDetectionAndUpperCasing) {
  const char *const cases[][3] = {{"", "0", ""},
                                  {":CLOS (@1(1!1))", "0", ":CLOS (@1(1!1))"},
                                  {":SYSTem:VERSion?", "1", ":SYSTEM:VERSION?"},
                                  {"ABC\xe9z", "1", "ABC\xe9Z"}};
  for (const auto &[text, lower, upper] : cases) {
    EXPECT_EQ(existLowerCase(text), *lower - '0') << text;
    std::string copy = text;
    EXPECT_EQ(allUpperCase(copy.data()), 0);
    EXPECT_EQ(copy, upper);
  }
}

}  // namespace
