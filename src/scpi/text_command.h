// text_command.h - the ids a text-command line is matched to. The values are
// what scpi_parser hands back through its id argument, so they never change.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qbvisa {

// Patterns in each of the two keyword tables (long and short forms).
inline constexpr size_t kTextCommandPatterns = 26;

enum TextCommandId : uint32_t {
  kCmdIdentify = 0,           // *IDN?
  kCmdFirmwareVersions = 1,
  kCmdManufacturer = 2,
  kCmdModule = 3,
  kCmdReset = 4,              // *RST>
  kCmdSetIpAddress = 5,
  kCmdGetIpAddress = 6,
  kCmdSetLanMode = 7,
  kCmdGetLanMode = 8,
  kCmdBoardInPlace = 9,
  kCmdSpiLoop = 10,
  kCmdSelfTest = 11,
  kCmdGetControlMode = 12,
  kCmdSetControlMode = 13,
  kCmdSetGpibAddress = 14,
  kCmdSetBaudRate = 15,       // served only by QBVISA_SetBaudRate
  kCmdGetGpibAddress = 16,
  kCmdGetBaudRate = 17,
  kCmdOpenList = 18,
  kCmdCloseList = 19,
  kCmdOpenAll = 20,
  kCmdCloseAll = 21,
  kCmdNotRecognised = 22,     // no pattern matched the line
};

}  // namespace qbvisa
