// The small shared helpers, each held to its exact behaviour.
#include <gtest/gtest.h>

#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "qbvisa_lowlevel.h"

namespace {

using Texts = std::initializer_list<const char *>;

// Callers size their point arrays from these exported geometry values.
TEST(UtilitiesTest, ExportedGeometryValues) {
  EXPECT_EQ(std::vector<int32_t>({MATRIXPOINTCOUNT, GX3_SUBMATRIXCOL, GX4_SUBMATRIXCOL, GX4_MATRIXPOINTCOUNT,
                                  GX4C_SUBMATRIXCOL, GX4C_MATRIXPOINTCOUNT, GX4Mix_SUBMATRIXCOL,
                                  GX4Mix_MATRIXPOINTCOUNT}),
            std::vector<int32_t>({600, 7, 7, 800, 7, 800, 7, 800}));
}

TEST(UtilitiesTest, RotateRightMovesTheLastByteOfTheRangeToItsFront) {
  const struct {
    int32_t first, end, times;
    const char *expected;
    int32_t result;
  } cases[] = {
      {1, 5, 2, "ADEBCF", 2}, {0, 6, 7, "FABCDE", 7}, {0, 6, -2, "ABCDEF", 0},
      {2, 3, 4, "ABCDEF", 4}, {4, 2, 1, "ABCDEF", 1},
  };
  for (const auto &c : cases) {
    uint8_t bytes[] = {'A', 'B', 'C', 'D', 'E', 'F'};
    EXPECT_EQ(rotateRight(bytes, c.first, c.end, c.times), c.result);
    EXPECT_EQ(std::string(bytes, bytes + 6), c.expected)
        << c.first << ".." << c.end << " x" << c.times;
  }
}

// Two-level arrays: zeroed values, rows packed one after another, and a free
// that releases the row pointers only (ASan reports a double free or a leak
// otherwise). Only values of exactly 1 are counted.
template <typename T, typename Alloc, typename Free>
void checkRows(Alloc alloc, Free release) {
  T **array = alloc(0, 3, 5);
  ASSERT_NE(array, nullptr);
  for (int r = 0; r < 3; ++r) EXPECT_EQ(array[r], array[0] + r * 5) << r;
  for (int v = 0; v < 15; ++v) EXPECT_EQ(array[0][v], 0) << v;
  if constexpr (std::is_same_v<T, int32_t>) {
    array[0][0] = array[2][4] = 1;
    array[1][1] = 2;
    array[1][2] = -1;
    EXPECT_EQ(countOnes2D(array, 3, 5), 2);
    EXPECT_EQ(countOnes2D(array, 2, 5), 1);
  }
  T *values = array[0];
  release(array);
  std::free(values);
  EXPECT_EQ(alloc(0, 0, 5), nullptr);
  EXPECT_EQ(alloc(0, 3, -1), nullptr);
}

TEST(UtilitiesTest, ArraysAreLaidOutFilledCountedAndFreed) {
  checkRows<int32_t>(alloc2int, free2int);
  checkRows<uint16_t>(alloc2ViUInt16, free2ViUInt16);
  EXPECT_EQ(countOnes2D(nullptr, 2, 3), 0);

  int32_t ***cube = alloc3int(0, 2, 3, 4, 1);
  ASSERT_NE(cube, nullptr);
  EXPECT_EQ(countOnes(cube, 2, 3, 4), 24);
  cube[0][0][0] = 0;
  cube[1][2][3] = -1;
  cube[1][0][1] = 11;
  EXPECT_EQ(countOnes3D(cube, 2, 3, 4), 21);
  EXPECT_EQ(countOnes(cube, 1, 3, 4), 11);
  free3int(cube);
  for (auto [a, b, c] : {std::tuple{0, 3, 4}, {2, 0, 4}, {2, 3, 0}})
    EXPECT_EQ(alloc3int(0, a, b, c, 1), nullptr) << a << b << c;
}

TEST(UtilitiesTest, Dec2BinWritesBitsLeastSignificantFirstIntoOneArray) {
  const int32_t *bits = dec_2bin(INT32_MIN + 5);
  std::vector<int32_t> expected(32, 0);
  expected[0] = expected[2] = expected[31] = 1;
  EXPECT_EQ(std::vector<int32_t>(bits, bits + 32), expected);
  EXPECT_EQ(dec_2bin(0x40000000), bits);  // one shared array, overwritten
  EXPECT_TRUE(bits[30] == 1 && bits[31] == 0 && bits[0] == 0);
}

TEST(UtilitiesTest, TextHelpersCutFoldAndSum) {
  char text[] = "abcdef";
  EXPECT_EQ(mystrncpy(text, 99), text);
  EXPECT_STREQ(mystrncpy(text, 3), "abc");
  EXPECT_EQ(mystrncpy(nullptr, 3), nullptr);

  const struct {
    const char *text;
    uint32_t value;
  } dotted[] = {
      {"255.255.255.255", 0xFFFFFFFFu}, {"", 0},
      {"1..2", 258},  // empty parts skipped
      // Only the first 15 characters are read: "10.20.30.40.506".
      {"10.20.30.40.50607080",
       (((10u * 256 + 20) * 256 + 30) * 256 + 40) * 256 + 506},
  };
  for (const auto &c : dotted) EXPECT_EQ(toInt(c.text), c.value) << c.text;
  EXPECT_EQ(toInt(nullptr), 0u);

  const std::vector<uint8_t> bytes(70000, 0xFF);
  EXPECT_EQ(checkSum(bytes.data(), 70000), 70000u * 255u);
  EXPECT_EQ(checkSum(nullptr, 5), 0u);

  for (const char *digits : Texts{"", "0", "12345678"})
    EXPECT_TRUE(isdigitstr(digits)) << digits;
  for (const char *other : Texts{"12a", " 1", "-1", "1.5", "+1", nullptr})
    EXPECT_FALSE(isdigitstr(other)) << (other ? other : "null");
}

TEST(UtilitiesTest, ValidIPAddressAcceptsOnlyTheChassisNetwork) {
  for (const char *valid : Texts{"192.168.1.0", "192.168.1.199",
                                 "192.168.1.201", "192.168.1.254"})
    EXPECT_TRUE(validIPAddress(valid)) << valid;
  for (const char *invalid :
       Texts{"192.168.1.200", "192.168.1.255", "192.168.1.256", "192.168.1.01",
             "192.168.01.1", "192.168.1.00", "0192.168.1.1", "192.168.1.1000",
             "192.168.2.5", "192.168.1", "192.168.1.", "192.168.1.1.1",
             "192.168.1.-1", "192.168.1.1 ", "", nullptr})
    EXPECT_FALSE(validIPAddress(invalid)) << (invalid ? invalid : "null");
}

// Bytes are given as digits, byte 0 first. A byte above 1 spills into the
// next bit, and one shifted out of the word still counts.
TEST(UtilitiesTest, ArrayToU16PacksByteIIntoBitI) {
  const struct {
    const char *bytes;
    uint16_t word;
    int32_t ones;
  } cases[] = {
      {"1000000000000001", 0x8001, 2}, {"0002000000000000", 0x0010, 1},
      {"0000000000000002", 0x0000, 1},
  };
  for (const auto &c : cases) {
    uint8_t bytes[16];
    for (int i = 0; i < 16; ++i)
      bytes[i] = static_cast<uint8_t>(c.bytes[i] - '0');
    int32_t ones = -1;
    EXPECT_EQ(ArrayToU16(bytes, &ones), c.word) << c.bytes;
    EXPECT_EQ(ones, c.ones) << c.bytes;
  }
}

// SLEEP waits whole seconds only, measured on the monotonic clock.
TEST(UtilitiesTest, SleepTakesWholeSecondsOnly) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  double begin = 0, end = 0;
  getHighPrecisionTime(&begin);
  EXPECT_NEAR(begin, static_cast<double>(now.tv_sec), 1.5);
  SLEEP(999);
  SLEEP(0);
  getHighPrecisionTime(&end);
  EXPECT_LT(end - begin, 0.2);
  SLEEP(1000);  // exactly one second, not rounded down to none
  getHighPrecisionTime(&begin);
  EXPECT_NEAR(begin - end, 1.0, 0.3);
  getHighPrecisionTime(nullptr);
}

}  // namespace
