// Status texts and the library version.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "qbvisa_lowlevel.h"

namespace {

// Every code's text against the reviewed list (tab, text, "|" marking its
// end), so that one wrong character in any text shows. Then the cuts, in
// order: a short request cuts the stored text for the rest of the process,
// so later rows see the cut (the texts are restored afterwards).
TEST(ErrorTextTest, EveryTextExactlyThenEachCutKept) {
  static char saved[sizeof errmsg / sizeof errmsg[0]][sizeof errmsg[0]];
  std::memcpy(saved, errmsg, sizeof saved);
  char text[300];
  std::ifstream golden(QBVISA_TEST_DATA "/error_texts.txt");
  int64_t code = 0, expectedCode = QBVISA_ERR_LOAD_WINSOCK;
  for (std::string line; golden >> code && std::getline(golden.ignore(1), line);) {
    EXPECT_EQ(code, expectedCode--);
    EXPECT_EQ(QBVISA_ErrorCodeToMessage(code, text, 255), QBVISA_SUCCESS);
    EXPECT_EQ(std::string(text) + "|", line) << code;
  }
  EXPECT_EQ(expectedCode, QBVISA_ERR_VISA_API - 1) << "the list ends early";
  constexpr uint64_t kAll = 255;
  const struct {
    int64_t code;
    uint64_t length;
    const char *text;  // nullptr: refused, buffer left alone
  } cases[] = {
      {-10054, kAll, " "},  // one past the last code still reads the table
      {-10055, kAll, "Error caused by VISA API"}, {INT64_MIN, kAll, "Error caused by VISA API"},
      {0, kAll, nullptr}, {-9999, kAll, nullptr}, {INT64_MAX, kAll, nullptr},
      // Each cut, then the same code asked again with room for all.
      {QBVISA_ERR_CLOSURE_LIMIT, 5, "Relay"}, {QBVISA_ERR_CLOSURE_LIMIT, kAll, "Relay"},
      {QBVISA_ERR_BAD_IP, 14, "Bad IP Address"},  // exactly its length
      {QBVISA_ERR_BAD_IP, kAll, "Bad IP Address"},
      {QBVISA_ERR_SN_UNSET, kAll, "SN_Num Unset"},  // the other neighbour
      // Codes past the table share the text of -10053, and its cut.
      {-20000, 5, "Error"}, {QBVISA_ERR_VISA_API, kAll, "Error"},
  };
  for (const auto &c : cases) {
    std::memset(text, '#', sizeof text - 1);
    text[sizeof text - 1] = '\0';
    EXPECT_EQ(QBVISA_ErrorCodeToMessage(c.code, text, c.length), c.text ? QBVISA_SUCCESS : QBVISA_ERR_ERRORCODE) << c.code;
    EXPECT_EQ(std::string(text), c.text ? c.text : std::string(sizeof text - 1, '#')) << c.code;
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
