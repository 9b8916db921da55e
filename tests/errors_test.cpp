// Status texts and the library version.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "qbvisa_lowlevel.h"

namespace {

// Rows run in order: a short request cuts the stored text for the rest of
// the process, so later rows see the cut (the texts are restored afterwards).
TEST(ErrorTextTest, AnswersEachCodeAndKeepsEveryCut) {
  static char saved[sizeof errmsg / sizeof errmsg[0]][sizeof errmsg[0]];
  std::memcpy(saved, errmsg, sizeof saved);
  constexpr uint64_t kAll = 255;
  const struct {
    int64_t code;
    uint64_t length;
    const char *text;  // nullptr: refused, buffer left alone
  } cases[] = {
      // Texts callers compare byte for byte (trailing blank, no blank after
      // a comma), both ends of the table and the codes past it.
      {QBVISA_ERR_LOAD_WINSOCK, kAll, "VISA_IO:Load winsock error"},
      {QBVISA_ERR_SEND, kAll,
       "VISA_IO:Network communicate fail,Send data fail"},
      {QBVISA_ERR_RECEIVE, kAll,
       "VISA_IO:Network communicate fail,Receive data fail"},
      {QBVISA_ERR_PHYSICS_LOCATION, kAll, "Can not found physics location"},
      {QBVISA_ERR_NOT_SUPPORTED, kAll,
       "MCU Software Version is not Supported or Hardware Does Not Support "
       "This Function"},
      {QBVISA_ERR_POINT_DEFINITION, kAll, "Point Definition Error "},
      {QBVISA_ERR_CLOSURE_LIMIT, kAll, "Relay Closure Limit Exceeded"},
      {QBVISA_ERR_PARAMETER, kAll, "parameter error"},
      {QBVISA_ERR_CONTROL_MODE_CONFLICT, kAll,
       "Local/Remote Control Mode Conflict"},
      {QBVISA_ERR_RESOURCE_NOT_PRESENT, kAll,
       "Resource is not present in the system"},
      {QBVISA_ERR_DEVICE_FAILURE, kAll,
       "USB Error: Adapter card failed to connect. Check connection"},
      {QBVISA_ERR_GPIB_ADDRESS, kAll,
       "Invalid GPIB Address, Please check the GPIB address between 1~30"},
      {QBVISA_ERR_BAUDRATE, kAll,
       "Invalid Baudrate, Please set the "
       "baudrate:9600/19200/38400/57600/115200"},
      {QBVISA_ERR_LAN_MODE, kAll,
       "Invalid IP Communication Mode Setting, Please set the IP Communication "
       "Mode: 0/1 (ManualIP/AutoIP)"},
      {QBVISA_ERR_VISA_API, kAll, "Error caused by VISA API"},
      {-10054, kAll, " "},  // one past the last code still reads the table
      {-10055, kAll, "Error caused by VISA API"},
      {INT64_MIN, kAll, "Error caused by VISA API"},
      {0, kAll, nullptr}, {5, kAll, nullptr}, {-9999, kAll, nullptr},
      {INT64_MAX, kAll, nullptr},
      // Each cut, then the same code asked again with room for all.
      {QBVISA_ERR_CLOSURE_LIMIT, 5, "Relay"},
      {QBVISA_ERR_CLOSURE_LIMIT, kAll, "Relay"},
      {QBVISA_ERR_LOAD_WINSOCK, 0, ""}, {QBVISA_ERR_LOAD_WINSOCK, kAll, ""},
      {-10054, 0, ""}, {-10054, kAll, ""},
      {QBVISA_ERR_BAD_IP, 14, "Bad IP Address"},  // exactly its length
      {QBVISA_ERR_BAD_IP, kAll, "Bad IP Address"},
      // Codes past the table share the text of -10053, and its cut.
      {-20000, 5, "Error"}, {QBVISA_ERR_VISA_API, kAll, "Error"},
      // Neighbouring texts are not affected.
      {QBVISA_ERR_BAD_HW_NUMBER, kAll, "Bad Input HardWare Number"},
      {QBVISA_ERR_SN_UNSET, kAll, "SN_Num Unset"},
  };
  for (const auto &c : cases) {
    char text[300];
    std::memset(text, '#', sizeof text - 1);
    text[sizeof text - 1] = '\0';
    EXPECT_EQ(QBVISA_ErrorCodeToMessage(c.code, text, c.length),
              c.text != nullptr ? QBVISA_SUCCESS : QBVISA_ERR_ERRORCODE)
        << c.code;
    EXPECT_EQ(std::string(text),
              c.text != nullptr ? c.text : std::string(sizeof text - 1, '#'))
        << c.code;
  }
  std::memcpy(errmsg, saved, sizeof saved);
}

TEST(LibVersionTest, WritesSevenBytesAndIgnoresNull) {
  char buffer[10];
  std::memset(buffer, 'x', sizeof buffer);
  QBVISA_GetLibVersion(buffer);
  EXPECT_EQ(std::memcmp(buffer, "1.1.77\0xxx", sizeof buffer), 0);
  QBVISA_GetLibVersion(nullptr);
}

}  // namespace
