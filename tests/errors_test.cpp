// Status texts and the library version.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "qbvisa_lowlevel.h"

namespace {

// Cutting a text is permanent for the process; every test starts from the
// texts as shipped so the order of tests does not matter.
class ErrorTextTest : public ::testing::Test {
 protected:
  void SetUp() override { std::memcpy(saved_, errmsg, sizeof saved_); }
  void TearDown() override { std::memcpy(errmsg, saved_, sizeof saved_); }

  static std::string message(int64_t code, uint64_t length = 255) {
    char text[300];
    std::memset(text, '#', sizeof text);
    text[sizeof text - 1] = '\0';
    EXPECT_EQ(QBVISA_ErrorCodeToMessage(code, text, length), 0) << code;
    return text;
  }

 private:
  char saved_[55][256];
};

struct TextCase {
  int64_t code;
  const char *text;
};

// Texts whose exact bytes callers compare against: trailing blank, missing
// blanks after commas, punctuation.
TEST_F(ErrorTextTest, GivesTheFixedTextOfEachCode) {
  const TextCase cases[] = {
      {QBVISA_ERR_LOAD_WINSOCK, "VISA_IO:Load winsock error"},
      {QBVISA_ERR_SEND, "VISA_IO:Network communicate fail,Send data fail"},
      {QBVISA_ERR_RECEIVE, "VISA_IO:Network communicate fail,Receive data fail"},
      {QBVISA_ERR_PHYSICS_LOCATION, "Can not found physics location"},
      {QBVISA_ERR_NOT_SUPPORTED,
       "MCU Software Version is not Supported or Hardware Does Not Support "
       "This Function"},
      {QBVISA_ERR_POINT_DEFINITION, "Point Definition Error "},
      {QBVISA_ERR_HANDLE, "Handle Error, Not Found This Handle or ResourceName"},
      {QBVISA_ERR_CLOSURE_LIMIT, "Relay Closure Limit Exceeded"},
      {QBVISA_ERR_PARAMETER, "parameter error"},
      {QBVISA_ERR_CONTROL_MODE_CONFLICT, "Local/Remote Control Mode Conflict"},
      {QBVISA_ERR_RESOURCE_NOT_PRESENT, "Resource is not present in the system"},
      {QBVISA_ERR_DEVICE_FAILURE,
       "USB Error: Adapter card failed to connect. Check connection"},
      {QBVISA_ERR_GPIB_ADDRESS,
       "Invalid GPIB Address, Please check the GPIB address between 1~30"},
      {QBVISA_ERR_BAUDRATE,
       "Invalid Baudrate, Please set the baudrate:9600/19200/38400/57600/115200"},
      {QBVISA_ERR_LAN_MODE,
       "Invalid IP Communication Mode Setting, Please set the IP Communication "
       "Mode: 0/1 (ManualIP/AutoIP)"},
      {QBVISA_ERR_VISA_API, "Error caused by VISA API"},
      // One past the last code still reads the table: its slot is a blank.
      {-10054, " "},
      // Everything further down reads as a VISA failure.
      {-10055, "Error caused by VISA API"},
      {-99999, "Error caused by VISA API"},
      {INT64_MIN, "Error caused by VISA API"},
  };
  for (const TextCase &c : cases) EXPECT_EQ(message(c.code), c.text) << c.code;
}

TEST_F(ErrorTextTest, RefusesNonErrorCodesWithoutTouchingTheBuffer) {
  for (int64_t code : {int64_t{0}, int64_t{5}, int64_t{-1}, int64_t{-9999},
                       int64_t{INT64_MAX}}) {
    char text[8] = "keep";
    EXPECT_EQ(QBVISA_ErrorCodeToMessage(code, text, sizeof text),
              QBVISA_ERR_ERRORCODE)
        << code;
    EXPECT_STREQ(text, "keep") << code;
  }
}

struct CutCase {
  int64_t code;
  uint64_t length;
  const char *firstAnswer;
  const char *laterAnswer;  // asked again with room for the whole text
};

TEST_F(ErrorTextTest, ShortRequestCutsTheStoredTextForGood) {
  const CutCase cases[] = {
      {QBVISA_ERR_CLOSURE_LIMIT, 5, "Relay", "Relay"},
      {QBVISA_ERR_LOAD_WINSOCK, 0, "", ""},
      // Exactly the text's length: nothing is lost.
      {QBVISA_ERR_CLOSE, 49, "VISA_IO:Close VISA_IO fail,invalid VISA_IO handle",
       "VISA_IO:Close VISA_IO fail,invalid VISA_IO handle"},
      // One more than the length copies without cutting.
      {QBVISA_ERR_BAD_IP, 15, "Bad IP Address", "Bad IP Address"},
      {-10054, 0, "", ""},
      // Codes past the table share the text of -10053, and its cut.
      {-20000, 5, "Error", "Error"},
  };
  for (const CutCase &c : cases) {
    EXPECT_EQ(message(c.code, c.length), c.firstAnswer) << c.code;
    EXPECT_EQ(message(c.code, 256), c.laterAnswer) << c.code;
    EXPECT_EQ(message(c.code, 3), std::string(c.laterAnswer).substr(0, 3))
        << c.code;
  }
  EXPECT_EQ(message(QBVISA_ERR_VISA_API), "Err");
  // Neighbouring texts are not affected.
  EXPECT_EQ(message(QBVISA_ERR_BAD_HW_NUMBER), "Bad Input HardWare Number");
  EXPECT_EQ(message(QBVISA_ERR_SN_UNSET), "SN_Num Unset");
}

TEST(LibVersionTest, WritesSevenBytesAndIgnoresNull) {
  char buffer[10];
  std::memset(buffer, 'x', sizeof buffer);
  QBVISA_GetLibVersion(buffer);
  EXPECT_EQ(std::memcmp(buffer, "1.1.77\0xxx", sizeof buffer), 0);
  QBVISA_GetLibVersion(nullptr);
}

}  // namespace
