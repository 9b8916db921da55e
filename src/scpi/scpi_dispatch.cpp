// Text commands: a line is matched to a command id and served by the
// library's own calls (or, for identification and reset, by raw VISA I/O);
// every outcome, failures included, comes back as readable text.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/chassis_request.h"
#include "core/visa_api.h"
#include "qbvisa_lowlevel.h"
#include "scpi/text_command.h"

namespace {

using qbvisa::lookUpChassis;
using enum qbvisa::TextCommandId;

enum class Caller { Write, Query };

constexpr const char *kUnknownScpi =
    "Unknown SCPI Command, Please Refer to the User Manual And Try Again";
constexpr const char *kBadRelayParameter = "Invalid Relays Opearation Parameter";
constexpr const char *kOperated = "Relays Operate Success";

// Query callers hand in at least this much room for the reply.
constexpr size_t kQueryReplySize = 400;
// The relay-state image: one bit per crosspoint at the start of slot 0's
// last array, every subunit laid out as rows of 48 columns.
constexpr size_t kImageBytes = 1500;
constexpr int64_t kImageWords = kImageBytes / 4;
constexpr int64_t kColumnsPerRow = 48;
// The switching call is handed the whole last array, 1500 words, of which
// the image is the first quarter; it stores what it is handed back there.
constexpr size_t kLastArrayWords = QBVISA_LAST_ARRAY_SIZE / 4;
// The version call writes one 10-byte text per firmware pair the chassis
// lists, up to its slot limit.
constexpr size_t kVersionListSize = qbvisa::kMaxVersionSlots * qbvisa::kVersionTextSize;

// Where the reply text of this call goes, and how much room it has.
struct Reply {
  char *text;
  size_t size;
};

__attribute__((format(printf, 2, 3))) void put(const Reply &reply,
                                               const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(reply.text, reply.size, format, args);
  va_end(args);
}

void putError(const Reply &reply, int32_t code) {
  // The message call may write length + 1 bytes.
  char message[101] = {};
  QBVISA_ErrorCodeToMessage(code, message, 100);
  put(reply, "%s", message);
}

bool onlyCharactersOf(const char *text, const char *allowed) {
  return text[std::strspn(text, allowed)] == '\0';
}

void identify(uint32_t session, const Reply &reply) {
  static const ViByte query[] = {'*', 'I', 'D', 'N', '?', '\n'};
  ViUInt32 count{};
  if (viWrite(session, query, sizeof query, &count) < VI_SUCCESS) {
    put(reply, "Send data failed!");
    return;
  }
  // The answer lands in the reply buffer itself, one byte short of its end
  // so that it stays a terminated text.
  const ViUInt32 room = static_cast<ViUInt32>(reply.size - 1);
  if (viRead(session, reinterpret_cast<ViByte *>(reply.text), room, &count) <
      VI_SUCCESS) {
    put(reply, "Receive data failed!");
    return;
  }
  reply.text[std::min(count, room)] = '\0';
}

void reset(uint32_t session, Caller caller, const Reply &reply) {
  static const ViByte request[] = {0x0E, 0x00};
  ViUInt32 count{};
  if (viWrite(session, request, sizeof request, &count) < VI_SUCCESS) {
    put(reply, "send data failed!");
    return;
  }
  ViByte discarded[QBVISA_REPLY_SIZE];
  if (viRead(session, discarded, sizeof discarded, &count) < VI_SUCCESS) {
    put(reply, "recv data failed!");
    return;
  }
  put(reply, caller == Caller::Write
                 ? "Reset Success!"
                 : "Reset Success!Please Restart The Application!");
}

// Switches the chassis to the image now held in slot 0's last array.
void operate(uint32_t session, ChassisRecord *record, int32_t subunit,
             const Reply &reply) {
  // Handed over as a word-aligned copy: the record keeps the array as bytes.
  uint32_t words[kLastArrayWords];
  std::memcpy(words, record->slots[0].lastArray, sizeof words);
  const int32_t status =
      QBVISA_OpMatrix(session, static_cast<uint64_t>(subunit), words,
                      static_cast<uint32_t>(kLastArrayWords));
  if (status < 0) {
    putError(reply, status);
  } else {
    put(reply, "%s", kOperated);
  }
}

// Opens (close == false) or closes the points of a crosspoint list in the
// image and switches. The points of other commands keep their bits, so the
// image accumulates what the text interface believes to be closed.
void switchList(uint32_t session, ChassisRecord *record, bool close,
                const char *argument, const Reply &reply) {
  if (!onlyCharactersOf(argument, "0123456789!:,()@")) {
    put(reply, "%s", kBadRelayParameter);
    return;
  }
  SCPIResult list = parseSCPICrossPoint(argument, reply.text);
  if (reply.text[0] != '\0') {
    freeSCPIResult(&list);
    return;
  }
  if (record == nullptr) record = lookUpChassis(session);
  if (record == nullptr) {
    freeSCPIResult(&list);
    putError(reply, QBVISA_ERR_HANDLE);
    return;
  }
  // The parser hands out rows and columns from 1 up; a point past the image
  // refuses the whole list before any bit changes.
  for (int32_t i = 0; i < list.count; ++i) {
    const int64_t index =
        (static_cast<int64_t>(list.points[i].row) - 1) * kColumnsPerRow +
        list.points[i].column;
    if ((index - 1) / 32 >= kImageWords) {
      freeSCPIResult(&list);
      put(reply, "%s", kBadRelayParameter);
      return;
    }
  }
  uint8_t *image = record->slots[0].lastArray;
  for (int32_t i = 0; i < list.count; ++i) {
    const int64_t index =
        (static_cast<int64_t>(list.points[i].row) - 1) * kColumnsPerRow +
        list.points[i].column;
    const size_t offset = static_cast<size_t>((index - 1) / 32) * 4;
    const uint32_t mask = 1u << ((index - 1) % 32);
    uint32_t word{};
    std::memcpy(&word, image + offset, sizeof word);
    word = close ? (word | mask) : (word & ~mask);
    std::memcpy(image + offset, &word, sizeof word);
  }
  const int32_t subunit = list.subunit;
  freeSCPIResult(&list);
  operate(session, record, subunit, reply);
}

void switchAll(uint32_t session, ChassisRecord *record, bool close,
               const Reply &reply) {
  if (record == nullptr) record = lookUpChassis(session);
  if (record == nullptr) {
    putError(reply, QBVISA_ERR_HANDLE);
    return;
  }
  std::memset(record->slots[0].lastArray, close ? 0xFF : 0x00, kImageBytes);
  operate(session, record, 0, reply);
}

// Any argument but "REMOTE" asks for local control. The chassis only takes a
// new mode from remote control with its relays cleared, hence the detour.
void changeControlMode(uint32_t session, const char *argument,
                       const Reply &reply) {
  const uint32_t wanted = std::strcmp(argument, "REMOTE") == 0 ? 1 : 0;
  uint32_t current{};
  const int32_t status = QBVISA_GetControlMode(session, &current);
  if (status < 0) {
    putError(reply, status);
    return;
  }
  if (current == wanted) {
    put(reply, "Local/Remote Control Mode Conflict");
    return;
  }
  QBVISA_SetControlMode(session, 1);
  QBVISA_Clear(session, 0);
  QBVISA_SetControlMode(session, wanted);
  put(reply, "Set Control Mode Success");
}

void setGpibAddress(uint32_t session, const char *argument,
                    const Reply &reply) {
  if (!onlyCharactersOf(argument, "0123456789")) {
    put(reply, "Invalid GPIB Address Parameter");
    return;
  }
  // Saturating: any address above 30 is refused by the setter alike.
  uint64_t address = 0;
  for (const char *digit = argument; *digit != '\0'; ++digit) {
    address = std::min<uint64_t>(address * 10 + (*digit - '0'), UINT32_MAX);
  }
  const int32_t status =
      QBVISA_SetGPIBAddress(session, static_cast<uint32_t>(address));
  if (status < 0) {
    putError(reply, status);
  } else {
    put(reply, "Set GPIB Address Success! Please Restart The Application");
  }
}

void setLanMode(uint32_t session, const char *argument, const Reply &reply) {
  const bool manual = std::strcmp(argument, "MANUAL") == 0 || std::strcmp(argument, "0") == 0;
  const bool automatic = std::strcmp(argument, "AUTO") == 0 || std::strcmp(argument, "1") == 0;
  if (!manual && !automatic) {
    put(reply, "Invalid LAN Mode Opearation Parameter");
    return;
  }
  const int32_t status = QBVISA_SetLANMode(session, automatic ? 1 : 0);
  if (status < 0) {
    putError(reply, status);
  } else {
    put(reply, "Set LAN Mode Success! Please Restart The Application");
  }
}

void firmwareVersions(uint32_t session, const Reply &reply) {
  char list[kVersionListSize] = {};
  const int32_t status = QBVISA_GetSWVersion(session, list, sizeof list);
  if (status < 0) {
    putError(reply, status);
    return;
  }
  put(reply, "Fw Version: CTR %s, COM %s", list, list + qbvisa::kVersionTextSize);
}

// The device summary: its first text names the module, its second the
// manufacturer.
void deviceText(uint32_t session, bool manufacturer, const Reply &reply) {
  struct {
    char module[qbvisa::kVersionTextSize], maker[qbvisa::kVersionTextSize];
    char serial[qbvisa::kVersionTextSize], version[qbvisa::kVersionTextSize];
  } texts{};
  const int32_t status = QBVISA_GetDeviceInfo(session, texts.module, texts.maker, texts.serial,
                                              texts.version, sizeof texts.module);
  if (status < 0) {
    putError(reply, status);
    return;
  }
  put(reply, "%.9s", manufacturer ? texts.maker : texts.module);
}

// Diagnostic flags come back first-to-last and are shown last-to-first.
void diagnosticFlags(int32_t status, const int32_t *values,
                     const Reply &reply) {
  if (status < 0) {
    putError(reply, status);
    return;
  }
  put(reply, "%d%d%d%d", values[3], values[2], values[1], values[0]);
}

void dispatch(uint32_t session, ChassisRecord *record, Caller caller,
              uint32_t id, const char *argument, const Reply &reply) {
  // Each case sets what it reads of these before reading it.
  uint32_t value{};
  int32_t status{};
  int32_t flags[4] = {};
  uint32_t flagCount{};
  switch (id) {
    case kCmdIdentify:
    case kCmdReset:
      if (record == nullptr && lookUpChassis(session) == nullptr) {
        putError(reply, QBVISA_ERR_HANDLE);
        return;
      }
      if (id == kCmdIdentify) {
        identify(session, reply);
      } else {
        reset(session, caller, reply);
      }
      return;
    case kCmdFirmwareVersions:
      firmwareVersions(session, reply);
      return;
    case kCmdManufacturer:
    case kCmdModule:
      deviceText(session, id == kCmdManufacturer, reply);
      return;
    case kCmdSetIpAddress:
      status = QBVISA_SetIPAddress(session, argument);
      if (status < 0) {
        putError(reply, status);
      } else {
        put(reply,
            "Set IP Address Success! Please Restart The Application if Using "
            "Manual IP Mode!");
      }
      return;
    case kCmdGetIpAddress: {
      char address[32] = {};
      status = QBVISA_GetCOMMIPAddr(session, address);
      if (status < 0) {
        putError(reply, status);
      } else {
        put(reply, "%.31s", address);
      }
      return;
    }
    case kCmdSetLanMode:
      setLanMode(session, argument, reply);
      return;
    case kCmdGetLanMode:
      status = QBVISA_GetLANMode(session, &value);
      if (status < 0) {
        putError(reply, status);
      } else if (value <= 1) {
        put(reply, value == 0 ? "LAN Mode: Manual" : "LAN Mode: AutoIP");
      } else {
        put(reply, "Unknown IP Communication Mode");
      }
      return;
    case kCmdBoardInPlace:
      status = QBVISA_BoardInPlaceInfo(session, flags, &flagCount);
      diagnosticFlags(status, flags, reply);
      return;
    case kCmdSpiLoop:
      status = QBVISA_SPILoopTestInfo(session, 0, flags, &flagCount);
      diagnosticFlags(status, flags, reply);
      return;
    case kCmdSelfTest:
      status = QBVISA_SelfTest(session, 0, reply.text, 100);
      if (status < 0) putError(reply, status);
      return;
    case kCmdGetControlMode:
      status = QBVISA_GetControlMode(session, &value);
      if (status < 0) {
        putError(reply, status);
      } else {
        put(reply, value == 0 ? "Control Mode : Local" : "Control Mode : Remote");
      }
      return;
    case kCmdSetControlMode:
      changeControlMode(session, argument, reply);
      return;
    case kCmdSetGpibAddress:
      setGpibAddress(session, argument, reply);
      return;
    case kCmdGetGpibAddress:
      status = QBVISA_GetGPIBAddress(session, &value);
      if (status < 0) {
        putError(reply, status);
      } else {
        put(reply, "GPIB Address:%d", static_cast<int>(value));
      }
      return;
    case kCmdGetBaudRate:
      status = QBVISA_GetBaudRate(session, &value);
      if (status < 0) {
        putError(reply, status);
      } else {
        put(reply, "RS232 Baudrate:%d", static_cast<int>(value));
      }
      return;
    case kCmdOpenList:
    case kCmdCloseList:
      switchList(session, record, id == kCmdCloseList, argument, reply);
      return;
    case kCmdOpenAll:
    case kCmdCloseAll:
      switchAll(session, record, id == kCmdCloseAll, reply);
      return;
    default:
      // The baud-rate setter is recognised but served only by
      // QBVISA_SetBaudRate, which also retunes the host side of the line.
      put(reply, "%s", kUnknownScpi);
      return;
  }
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_SCPIWrite(uint32_t session, const char *line) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  std::memset(record->scpiReply, 0, sizeof record->scpiReply);
  const Reply reply{record->scpiReply, sizeof record->scpiReply};
  char argument[QBVISA_SCPI_ARGUMENT_SIZE] = {};
  uint32_t id = 0;
  scpi_parser(session, line, reply.text, argument, &id);
  dispatch(session, record, Caller::Write, id, argument, reply);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SCPIRead(uint32_t session, char *text) {
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) return QBVISA_ERR_HANDLE;
  // The stored reply is dropped before it is copied, so the text delivered
  // is always empty; replies are read with QBVISA_SCPIQuery.
  record->scpiReply[0] = '\0';
  if (text != nullptr) std::strcpy(text, record->scpiReply);
  std::memset(record->scpiReply, 0, sizeof record->scpiReply);
  return 0;
}

QBVISA_EXPORT int32_t QBVISA_SCPIQuery(uint32_t session, const char *line,
                                       char *reply) {
  if (reply == nullptr) return 0;
  std::memset(reply, 0, 8);
  const Reply out{reply, kQueryReplySize};
  char argument[QBVISA_SCPI_ARGUMENT_SIZE] = {};
  uint32_t id = 0;
  scpi_parser(session, line, out.text, argument, &id);
  dispatch(session, nullptr, Caller::Query, id, argument, out);
  return 0;
}

}  // extern "C"
