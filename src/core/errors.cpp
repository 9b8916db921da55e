// Error texts of the library's status codes and the library version.
#include <cstring>

#include "core/version.h"
#include "qbvisa_lowlevel.h"

namespace {

constexpr int64_t kFirstCode = -10000;
// The text of -10053 answers every code below the table.
constexpr uint64_t kVisaApiSlot = 53;
// Codes down to -10054 index the table directly; slot 54 is the blank text.
constexpr uint64_t kLastIndexedSlot = 54;

}  // namespace

extern "C" {

// Writable: a short request cuts the stored text for the rest of the process,
// which is how callers of the devices' tools have always seen it behave.
QBVISA_EXPORT char errmsg[55][256] = {
    "VISA_IO:Load winsock error",
    "VISA_IO:Invalid VISA_IO",
    "VISA_IO:Bind port fail, Please check the port is in use",
    "VISA_IO:Set timeout fail",
    "VISA_IO:Network communicate fail,Send data fail",
    "VISA_IO:Network communicate fail,Receive data fail",
    "VISA_IO:Close VISA_IO fail,invalid VISA_IO handle",
    "Matrix row value out of range",
    "Matrix column value out of range",
    "Matrix state value out of range",
    "VISA_IO:IP address conflict",
    "Matrix Array size error",
    "ErrorCode error",
    "Can not found physics location",
    "Card in place set error",
    "Online Update file open fail",
    "No Type0 card",
    "Card requires newer driver",
    "Spi loop back fail",
    "Online update check fail",
    "MCU Software Version is not Supported or Hardware Does Not Support This "
    "Function",
    "Point Definition Error ",
    "RF Device Type Error",
    "Handle Error, Not Found This Handle or ResourceName",
    "No Type1 card Exists",
    "No Type2 card Exists",
    "Unknown CardType",
    "Device Type 2 Not Recognized",
    "Input SN_Num Error",
    "SN_Num Unset",
    "Relay Closure Limit Exceeded",
    "Bad IP Address",
    "Bad Input HardWare Number",
    "Bad Input Slot Number",
    "Chassis Num error",
    "malloc error",
    "Parallel signal timeout",
    "Bad Input Port Number",
    "parameter error",
    "Bad Model Number",
    "Local/Remote Control Mode Conflict",
    "Now In Same Control Mode",
    "Bad Input subUnit Number",
    "Invalid Mode",
    "Could not create file mapping object",
    "Shared memory is not mapped",
    "Data size exceeds shared memory capacity",
    "This Port Number is Invalid",
    "Resource is not present in the system",
    "USB Error: Adapter card failed to connect. Check connection",
    "Invalid GPIB Address, Please check the GPIB address between 1~30",
    "Invalid Baudrate, Please set the baudrate:9600/19200/38400/57600/115200",
    "Invalid IP Communication Mode Setting, Please set the IP Communication "
    "Mode: 0/1 (ManualIP/AutoIP)",
    "Error caused by VISA API",
    " ",
};

// `text` is not checked: callers always pass a buffer of length + 1 bytes.
QBVISA_EXPORT int32_t QBVISA_ErrorCodeToMessage(int64_t code, char *text,
                                                uint64_t length) {
  if (code > kFirstCode) return QBVISA_ERR_ERRORCODE;
  // Computed as kFirstCode - code so that even INT64_MIN cannot overflow.
  uint64_t slot = static_cast<uint64_t>(kFirstCode - code);
  if (slot > kLastIndexedSlot) slot = kVisaApiSlot;
  char *message = errmsg[slot];
  if (length <= std::strlen(message)) mystrncpy(message, length);
  std::strcpy(text, message);
  return QBVISA_SUCCESS;
}

// Callers size their buffer by the documented 7 bytes; a version text of
// another length must change that documentation first.
static_assert(sizeof qbvisa::kLibraryVersion == 7);

QBVISA_EXPORT void QBVISA_GetLibVersion(char *buffer) {
  if (buffer != nullptr)
    std::memcpy(buffer, qbvisa::kLibraryVersion, sizeof qbvisa::kLibraryVersion);
}

}  // extern "C"
