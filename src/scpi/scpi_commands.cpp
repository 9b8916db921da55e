// Text-command tables and the keyword matcher: one command line becomes a
// command id plus the raw argument text that follows the keyword.
#include <cctype>
#include <cstring>

#include "qbvisa_lowlevel.h"

namespace {

constexpr uint32_t kUnknownCommand = 22;

// Setters carry an argument after the blank that ends their pattern.
bool takesArgument(int32_t id) {
  switch (id) {
    case 5: case 7: case 13: case 14: case 15: case 18: case 19:
      return true;
    default:
      return false;
  }
}

}  // namespace

extern "C" {

// Exported through their declarations in qbvisa_lowlevel.h.
//
// Long forms, used when the line holds any lower-case letter. The order is
// part of the matching rule (first prefix match wins) and the spellings are
// the ones the instruments' users have always typed, odd ones included.
const ScpiCommandEntry commandMapUpperAndLower[26] = {
    {"*IDN?", 0},
    {"*RST>", 4},
    {":SYSTem:VERSion?", 1},
    {":SYSTem:MANF?", 2},
    {":SYSTem:MODule?", 3},
    {":SYSemT:COMMunication:LAN:IP:ADDRess ", 5},
    {":SYSemT:COMMunication:LAN:IP:ADDRess?", 6},
    {":SYSemT:COMMunication:LAN:SET:MODE ", 7},
    {":SYSemT:COMMunication:LAN:MODE?", 8},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess ", 14},
    {":SYSTem:COMMunicate:RS232:BAUD ", 15},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?", 16},
    {":SYSTem:COMMunicate:RS232:BAUD?", 17},
    {":SYSTem:ConTRoL:MODE?", 12},
    {":SYSTem:ConTRoL:SET: ", 13},
    {":DIAGnostic:TEST:CARD:BIP?", 9},
    {":DIAGnostic:TEST:CARD:SPILOOP?", 10},
    {":DIAGnostic:TEST:CARD:STATe?", 11},
    {"[:ROUTe]:OPEN ", 18},
    {"[:ROUTe]:OPEN:ALL", 20},
    {":OPEN ", 18},
    {":OPEN:ALL", 20},
    {"[:ROUTe]:CLOSe ", 19},
    {"[:ROUTe]:CLOSe:ALL", 21},
    {":CLOSe ", 19},
    {":CLOSe:ALL", 21},
};

// Short forms, used when the line has no lower-case letter. The bracketed
// ":ALL" forms map to the list commands on purpose: existing scripts rely on
// them switching nothing.
const ScpiCommandEntry commandMapAllUpper[26] = {
    {"*IDN?", 0},
    {"*RST>", 4},
    {":SYST:VERS?", 1},
    {":SYST:MANF?", 2},
    {":SYST:MOD?", 3},
    {":SYST:CTRL:MODE?", 12},
    {":SYST:CTRL:SET: ", 13},
    {":SYST:COMM:LAN:IP:ADDR ", 5},
    {":SYST:COMM:LAN:IP:ADDR?", 6},
    {":SYST:COM:LAN:SET:MODE ", 7},
    {":SYST:COMM:LAN:MODE?", 8},
    {":SYST:COMM:GPIB:RDEV:ADDR ", 14},
    {":SYST:COMM:RS232:BAUD ", 15},
    {":SYST:COMM:GPIB:RDEV:ADDR?", 16},
    {":SYST:COMM:RS232:BAUD?", 17},
    {":DIAG:TEST:CARD:BIP?", 9},
    {":DIAG:TEST:CARD:SPILOOP?", 10},
    {":DIAG:TEST:CARD:STAT?", 11},
    {"[:ROUT]:OPEN ", 18},
    {"[:ROUT]:OPEN:ALL", 18},
    {":OPEN ", 18},
    {":OPEN:ALL", 20},
    {"[:ROUT]:CLOS ", 19},
    {"[:ROUT]:CLOS:ALL", 19},
    {":CLOS ", 19},
    {":CLOS:ALL", 21},
};

QBVISA_EXPORT int existLowerCase(const char *text) {
  if (text == nullptr) return 0;
  for (; *text != '\0'; ++text) {
    if (std::islower(static_cast<unsigned char>(*text))) return 1;
  }
  return 0;
}

QBVISA_EXPORT int allUpperCase(char *text) {
  if (text == nullptr) return 0;
  for (; *text != '\0'; ++text) {
    *text = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
  }
  return *text;
}

QBVISA_EXPORT void scpi_parser(uint32_t /*session*/, const char *line,
                               char *message, char *argument, uint32_t *id) {
  uint32_t found = kUnknownCommand;
  size_t matchedLength = 0;
  if (line != nullptr) {
    const ScpiCommandEntry *table = existLowerCase(line)
                                        ? commandMapUpperAndLower
                                        : commandMapAllUpper;
    for (int i = 0; i < 26; ++i) {
      const size_t n = std::strlen(table[i].pattern);
      // strncmp stops at the line's terminator, so a short line never
      // reads past its end.
      if (std::strncmp(line, table[i].pattern, n) == 0) {
        found = static_cast<uint32_t>(table[i].id);
        matchedLength = n;
        break;
      }
    }
  }
  if (id != nullptr) *id = found;
  if (found == kUnknownCommand) {
    if (message != nullptr) std::strcpy(message, "Unknown Command");
    return;
  }
  if (argument != nullptr && takesArgument(static_cast<int32_t>(found))) {
    // The argument area is the dispatcher's fixed buffer: an overlong
    // argument is cut rather than allowed to run past it.
    const char *rest = line + matchedLength;
    size_t length = std::strlen(rest);
    if (length > QBVISA_SCPI_ARGUMENT_SIZE - 1) {
      length = QBVISA_SCPI_ARGUMENT_SIZE - 1;
    }
    std::memcpy(argument, rest, length);
    argument[length] = '\0';
  }
}

}  // extern "C"
