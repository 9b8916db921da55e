// Text-command tables and the keyword matcher: one command line becomes a
// command id plus the raw argument text that follows the keyword.
#include <cctype>
#include <cstring>

#include "qbvisa_lowlevel.h"
#include "scpi/text_command.h"

namespace {

using namespace qbvisa;

// Setters carry an argument after the blank that ends their pattern.
bool takesArgument(int32_t id) {
  switch (id) {
    case kCmdSetIpAddress: case kCmdSetLanMode: case kCmdSetControlMode:
    case kCmdSetGpibAddress: case kCmdSetBaudRate: case kCmdOpenList:
    case kCmdCloseList:
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
const ScpiCommandEntry commandMapUpperAndLower[kTextCommandPatterns] = {
    {"*IDN?", kCmdIdentify},
    {"*RST>", kCmdReset},
    {":SYSTem:VERSion?", kCmdFirmwareVersions},
    {":SYSTem:MANF?", kCmdManufacturer},
    {":SYSTem:MODule?", kCmdModule},
    {":SYSemT:COMMunication:LAN:IP:ADDRess ", kCmdSetIpAddress},
    {":SYSemT:COMMunication:LAN:IP:ADDRess?", kCmdGetIpAddress},
    {":SYSemT:COMMunication:LAN:SET:MODE ", kCmdSetLanMode},
    {":SYSemT:COMMunication:LAN:MODE?", kCmdGetLanMode},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess ", kCmdSetGpibAddress},
    {":SYSTem:COMMunicate:RS232:BAUD ", kCmdSetBaudRate},
    {":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?", kCmdGetGpibAddress},
    {":SYSTem:COMMunicate:RS232:BAUD?", kCmdGetBaudRate},
    {":SYSTem:ConTRoL:MODE?", kCmdGetControlMode},
    {":SYSTem:ConTRoL:SET: ", kCmdSetControlMode},
    {":DIAGnostic:TEST:CARD:BIP?", kCmdBoardInPlace},
    {":DIAGnostic:TEST:CARD:SPILOOP?", kCmdSpiLoop},
    {":DIAGnostic:TEST:CARD:STATe?", kCmdSelfTest},
    {"[:ROUTe]:OPEN ", kCmdOpenList},
    {"[:ROUTe]:OPEN:ALL", kCmdOpenAll},
    {":OPEN ", kCmdOpenList},
    {":OPEN:ALL", kCmdOpenAll},
    {"[:ROUTe]:CLOSe ", kCmdCloseList},
    {"[:ROUTe]:CLOSe:ALL", kCmdCloseAll},
    {":CLOSe ", kCmdCloseList},
    {":CLOSe:ALL", kCmdCloseAll},
};

// Short forms, used when the line has no lower-case letter. The bracketed
// ":ALL" forms map to the list commands on purpose: existing scripts rely on
// them switching nothing.
const ScpiCommandEntry commandMapAllUpper[kTextCommandPatterns] = {
    {"*IDN?", kCmdIdentify},
    {"*RST>", kCmdReset},
    {":SYST:VERS?", kCmdFirmwareVersions},
    {":SYST:MANF?", kCmdManufacturer},
    {":SYST:MOD?", kCmdModule},
    {":SYST:CTRL:MODE?", kCmdGetControlMode},
    {":SYST:CTRL:SET: ", kCmdSetControlMode},
    {":SYST:COMM:LAN:IP:ADDR ", kCmdSetIpAddress},
    {":SYST:COMM:LAN:IP:ADDR?", kCmdGetIpAddress},
    {":SYST:COM:LAN:SET:MODE ", kCmdSetLanMode},
    {":SYST:COMM:LAN:MODE?", kCmdGetLanMode},
    {":SYST:COMM:GPIB:RDEV:ADDR ", kCmdSetGpibAddress},
    {":SYST:COMM:RS232:BAUD ", kCmdSetBaudRate},
    {":SYST:COMM:GPIB:RDEV:ADDR?", kCmdGetGpibAddress},
    {":SYST:COMM:RS232:BAUD?", kCmdGetBaudRate},
    {":DIAG:TEST:CARD:BIP?", kCmdBoardInPlace},
    {":DIAG:TEST:CARD:SPILOOP?", kCmdSpiLoop},
    {":DIAG:TEST:CARD:STAT?", kCmdSelfTest},
    {"[:ROUT]:OPEN ", kCmdOpenList},
    {"[:ROUT]:OPEN:ALL", kCmdOpenList},
    {":OPEN ", kCmdOpenList},
    {":OPEN:ALL", kCmdOpenAll},
    {"[:ROUT]:CLOS ", kCmdCloseList},
    {"[:ROUT]:CLOS:ALL", kCmdCloseList},
    {":CLOS ", kCmdCloseList},
    {":CLOS:ALL", kCmdCloseAll},
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
  uint32_t found = kCmdNotRecognised;
  size_t matchedLength = 0;
  if (line != nullptr) {
    const ScpiCommandEntry *table = existLowerCase(line)
                                        ? commandMapUpperAndLower
                                        : commandMapAllUpper;
    for (size_t i = 0; i < kTextCommandPatterns; ++i) {
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
  if (found == kCmdNotRecognised) {
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
