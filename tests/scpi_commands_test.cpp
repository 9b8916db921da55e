// Keyword matching: which command id and argument a text line yields.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qbvisa_lowlevel.h"

namespace {

struct LineCase {
  const char *line;
  uint32_t id;
  const char *argument = nullptr;  // nullptr: the argument area stays untouched
};

// Every entry of both tables, setters with their argument, and queries with
// trailing text that is ignored.
const LineCase kLines[] = {
    // Any lower-case letter selects the long forms.
    {"*IDN?xyz", 0}, {"*RST>now", 4}, {":SYSTem:VERSion?", 1}, {":SYSTem:MANF?", 2},
    {":SYSTem:MODule? extra", 3}, {":SYSTem:ConTRoL:MODE?", 12},
    {":SYSemT:COMMunication:LAN:IP:ADDRess 192.168.1.20", 5, "192.168.1.20"},
    {":SYSemT:COMMunication:LAN:IP:ADDRess?", 6},
    {":SYSemT:COMMunication:LAN:SET:MODE AUTO", 7, "AUTO"},
    {":SYSemT:COMMunication:LAN:MODE?", 8},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess 7", 14, "7"},
    {":SYSTem:COMMunicate:RS232:BAUD 9600", 15, "9600"},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?", 16}, {":SYSTem:COMMunicate:RS232:BAUD?", 17},
    {":SYSTem:ConTRoL:SET: local", 13, "local"}, {":DIAGnostic:TEST:CARD:BIP?", 9},
    {":DIAGnostic:TEST:CARD:SPILOOP?", 10}, {":DIAGnostic:TEST:CARD:STATe?", 11},
    {"[:ROUTe]:OPEN (@1(1!1))", 18, "(@1(1!1))"}, {"[:ROUTe]:OPEN:ALL", 20},
    {":OPEN (@1(1!1))", 18, "(@1(1!1))"}, {":OPEN:ALL", 20},
    {"[:ROUTe]:CLOSe (@1(1!1))", 19, "(@1(1!1))"}, {"[:ROUTe]:CLOSe:ALL", 21},
    {":CLOSe   (@1(1!1))", 19, "  (@1(1!1))"}, {":CLOSe:ALL", 21},
    // No lower-case letter: the short forms.
    {"*IDN?", 0}, {"*RST>", 4}, {":SYST:VERS?X", 1}, {":SYST:MANF?", 2}, {":SYST:MOD?", 3},
    {":SYST:CTRL:MODE?", 12}, {":SYST:CTRL:SET: REMOTE", 13, "REMOTE"},
    {":SYST:COMM:LAN:IP:ADDR 192.168.1.20", 5, "192.168.1.20"}, {":SYST:COMM:LAN:IP:ADDR?", 6},
    {":SYST:COM:LAN:SET:MODE MANUAL", 7, "MANUAL"}, {":SYST:COMM:LAN:MODE?", 8},
    {":SYST:COMM:GPIB:RDEV:ADDR 12", 14, "12"}, {":SYST:COMM:RS232:BAUD 115200", 15, "115200"},
    {":SYST:COMM:GPIB:RDEV:ADDR?", 16}, {":SYST:COMM:RS232:BAUD?", 17},
    {":DIAG:TEST:CARD:BIP?", 9}, {":DIAG:TEST:CARD:SPILOOP?", 10}, {":DIAG:TEST:CARD:STAT?", 11},
    {"[:ROUT]:OPEN (@1(2!2))", 18, "(@1(2!2))"}, {":OPEN (@1(2!2))", 18, "(@1(2!2))"},
    {"[:ROUT]:CLOS (@1(2!2))", 19, "(@1(2!2))"}, {":CLOS (@1(2!2))", 19, "(@1(2!2))"},
    {":OPEN:ALLX", 20}, {":CLOS:ALL", 21}, {":CLOS ", 19, ""},
    // The bracketed upper-case ":ALL" forms are list commands with an empty list.
    {"[:ROUT]:OPEN:ALL", 18, ""}, {"[:ROUT]:CLOS:ALL", 19, ""},
    // Not recognised: the wrong table for the case used, or near misses.
    {":SYSTEM:VERSION?", 22}, {":SYST:VERS?x", 22}, {":syst:vers?", 22}, {"*RST", 22},
    {":SYSTem:COMMunication:LAN:MODE?", 22}, {":SYST:COMM:LAN:SET:MODE AUTO", 22},
    {":SYST:CTRL:SET:LOCAL", 22}, {":CLOSE (@1(1!1))", 22}, {"", 22},
};

TEST(LineMatching, EveryTableEntryYieldsItsIdAndArgument) {
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

}  // namespace
