// The small shared helpers, each held to its exact behaviour.
#include <gtest/gtest.h>

#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qbvisa_lowlevel.h"

namespace {

struct RotateCase {
  const char *input;
  int32_t first, end, times;
  const char *expected;
  int32_t result;
};

TEST(UtilitiesTest, RotateRightMovesTheLastByteOfTheRangeToItsFront) {
  const RotateCase cases[] = {
      {"ABCDEF", 1, 5, 1, "AEBCDF", 1},
      {"ABCDEF", 1, 5, 2, "ADEBCF", 2},
      {"ABCDEF", 0, 6, 6, "ABCDEF", 6},
      {"ABCDEF", 0, 6, 7, "FABCDE", 7},
      {"ABCDEF", 0, 6, 0, "ABCDEF", 0},
      {"ABCDEF", 0, 6, -2, "ABCDEF", 0},
      {"ABCDEF", 2, 3, 4, "ABCDEF", 4},
      {"ABCDEF", 4, 2, 1, "ABCDEF", 1},
  };
  for (const RotateCase &c : cases) {
    std::vector<uint8_t> bytes(c.input, c.input + std::strlen(c.input));
    EXPECT_EQ(rotateRight(bytes.data(), c.first, c.end, c.times), c.result)
        << c.input << " " << c.first << ".." << c.end << " x" << c.times;
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), c.expected)
        << c.first << ".." << c.end << " x" << c.times;
  }
}

// Both two-level allocators share one layout: zeroed values, rows packed
// one after another, and a free that leaves the values to the caller.
template <typename T, typename Alloc, typename Free>
void checkRowsLayout(Alloc alloc, Free release) {
  const int rows = 3, cols = 5;
  T **array = alloc(0, rows, cols);
  ASSERT_NE(array, nullptr);
  for (int r = 0; r < rows; ++r) {
    EXPECT_EQ(array[r], array[0] + r * cols) << r;
    for (int c = 0; c < cols; ++c) EXPECT_EQ(array[r][c], 0) << r << "," << c;
  }
  array[rows - 1][cols - 1] = 7;
  EXPECT_EQ(array[0][rows * cols - 1], 7);
  T *values = array[0];
  release(array);
  std::free(values);  // not released by the library's free
  EXPECT_EQ(alloc(0, 0, cols), nullptr);
  EXPECT_EQ(alloc(0, rows, -1), nullptr);
}

TEST(UtilitiesTest, TwoLevelAllocatorsShareOneValueBlock) {
  checkRowsLayout<int32_t>(alloc2int, free2int);
  checkRowsLayout<uint16_t>(alloc2ViUInt16, free2ViUInt16);
}

TEST(UtilitiesTest, ThreeLevelAllocatorFillsAndCountsOnes) {
  int32_t ***cube = alloc3int(0, 2, 3, 4, 7);
  ASSERT_NE(cube, nullptr);
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 4; ++k) EXPECT_EQ(cube[i][j][k], 7);
  EXPECT_EQ(countOnes(cube, 2, 3, 4), 0);
  cube[0][0][0] = 1;
  cube[1][2][3] = 1;
  cube[1][0][1] = -1;
  cube[0][1][2] = 11;
  EXPECT_EQ(countOnes(cube, 2, 3, 4), 2);
  EXPECT_EQ(countOnes3D(cube, 2, 3, 4), 2);
  EXPECT_EQ(countOnes(cube, 1, 3, 4), 1);  // only the first plane
  free3int(cube);

  int32_t ***ones = alloc3int(0, 3, 2, 5, 1);
  ASSERT_NE(ones, nullptr);
  EXPECT_EQ(countOnes(ones, 3, 2, 5), 30);
  free3int(ones);
  EXPECT_EQ(alloc3int(0, 2, 0, 4, 1), nullptr);
}

TEST(UtilitiesTest, CountOnes2DCountsOnlyExactOnes) {
  int32_t **grid = alloc2int(0, 2, 3);
  ASSERT_NE(grid, nullptr);
  grid[0][0] = 1;
  grid[0][2] = 2;
  grid[1][1] = 1;
  grid[1][2] = -1;
  EXPECT_EQ(countOnes2D(grid, 2, 3), 2);
  EXPECT_EQ(countOnes2D(grid, 1, 3), 1);
  EXPECT_EQ(countOnes2D(nullptr, 2, 3), 0);
  std::free(grid[0]);
  free2int(grid);
}

TEST(UtilitiesTest, Dec2BinWritesBitsLeastSignificantFirstIntoOneArray) {
  struct {
    int32_t value;
    std::vector<int> setBits;
  } const cases[] = {
      {0, {}},
      {5, {0, 2}},
      {0x40000001, {0, 30}},
      {INT32_MIN, {31}},
  };
  int32_t *previous = nullptr;
  for (const auto &c : cases) {
    int32_t *bits = dec_2bin(c.value);
    if (previous != nullptr) {
      EXPECT_EQ(bits, previous);  // shared array
    }
    previous = bits;
    std::vector<int> set;
    for (int i = 0; i < 32; ++i) {
      EXPECT_TRUE(bits[i] == 0 || bits[i] == 1);
      if (bits[i] == 1) set.push_back(i);
    }
    EXPECT_EQ(set, c.setBits) << c.value;
  }
}

TEST(UtilitiesTest, MystrncpyCutsInPlace) {
  struct {
    const char *text;
    uint64_t n;
    const char *expected;
  } const cases[] = {
      {"abcdef", 3, "abc"}, {"abcdef", 0, ""},      {"abcdef", 6, "abcdef"},
      {"abcdef", 99, "abcdef"}, {"", 4, ""},
  };
  for (const auto &c : cases) {
    char text[16];
    std::strcpy(text, c.text);
    EXPECT_EQ(mystrncpy(text, c.n), text);
    EXPECT_STREQ(text, c.expected) << c.text << " " << c.n;
  }
  EXPECT_EQ(mystrncpy(nullptr, 3), nullptr);
}

TEST(UtilitiesTest, ToIntFoldsDottedParts) {
  struct {
    const char *text;
    uint32_t value;
  } const cases[] = {
      {"192.168.1.10", 0xC0A8010Au},
      {"255.255.255.255", 0xFFFFFFFFu},
      {"1.2", 258},
      {"77", 77},
      {"", 0},
      {"1..2", 258},  // empty parts are skipped
      // Only the first 15 characters are read: "10.20.30.40.506".
      {"10.20.30.40.50607080",
       (((10u * 256 + 20) * 256 + 30) * 256 + 40) * 256 + 506},
  };
  for (const auto &c : cases) EXPECT_EQ(toInt(c.text), c.value) << c.text;
  EXPECT_EQ(toInt(nullptr), 0u);
}

TEST(UtilitiesTest, CheckSumAddsBytesIntoThirtyTwoBits) {
  std::vector<uint8_t> bytes(70000, 0xFF);
  EXPECT_EQ(checkSum(bytes.data(), 70000), 70000u * 255u);
  EXPECT_EQ(checkSum(bytes.data(), 0), 0u);
  EXPECT_EQ(checkSum(nullptr, 5), 0u);
  const uint8_t mixed[] = {1, 2, 0x80, 0};
  EXPECT_EQ(checkSum(mixed, 4), 131u);
}

TEST(UtilitiesTest, ValidIPAddressAcceptsOnlyTheChassisNetwork) {
  struct {
    const char *text;
    bool valid;
  } const cases[] = {
      {"192.168.1.0", true},
      {"192.168.1.1", true},
      {"192.168.1.10", true},
      {"192.168.1.199", true},
      {"192.168.1.201", true},
      {"192.168.1.254", true},
      {"192.168.1.200", false},
      {"192.168.1.255", false},
      {"192.168.1.256", false},
      {"192.168.1.01", false},
      {"192.168.1.00", false},
      {"192.168.01.1", false},
      {"192.168.2.5", false},
      {"10.0.0.1", false},
      {"192.168.1", false},
      {"192.168.1.", false},
      {"192.168..1", false},
      {"192.168.1.1.", false},
      {"192.168.1.1.1", false},
      {"192.168.1.1000", false},
      {"192.168.1.-1", false},
      {"192.168.1. 1", false},
      {"192.168.1.1 ", false},
      {"192 168 1 1", false},
      {"", false},
  };
  for (const auto &c : cases)
    EXPECT_EQ(validIPAddress(c.text), c.valid) << '"' << c.text << '"';
  EXPECT_FALSE(validIPAddress(nullptr));
}

TEST(UtilitiesTest, IsDigitStrAcceptsOnlyDecimalDigits) {
  struct {
    const char *text;
    bool digits;
  } const cases[] = {
      {"", true},     {"0", true},    {"12345678", true}, {"12a", false},
      {" 1", false},  {"-1", false},  {"1.5", false},     {"+1", false},
  };
  for (const auto &c : cases)
    EXPECT_EQ(isdigitstr(c.text), c.digits) << '"' << c.text << '"';
  EXPECT_FALSE(isdigitstr(nullptr));
}

TEST(UtilitiesTest, ArrayToU16PacksByteIIntoBitI) {
  struct {
    std::vector<std::pair<int, uint8_t>> bytes;  // index, value; rest 0
    uint16_t word;
    int32_t ones;
  } const cases[] = {
      {{}, 0x0000, 0},
      {{{0, 1}, {15, 1}}, 0x8001, 2},
      {{{3, 1}, {4, 1}, {5, 1}}, 0x0038, 3},
      // Bytes above 1 spill into the next bits, and one shifted out of the
      // word still counts.
      {{{3, 2}}, 0x0010, 1},
      {{{15, 2}}, 0x0000, 1},
  };
  for (const auto &c : cases) {
    uint8_t bytes[16] = {};
    for (const auto &[index, value] : c.bytes) bytes[index] = value;
    int32_t ones = -1;
    EXPECT_EQ(ArrayToU16(bytes, &ones), c.word);
    EXPECT_EQ(ones, c.ones);
  }
}

double elapsedSeconds(void (*action)(uint32_t), uint32_t argument) {
  timespec begin{}, end{};
  clock_gettime(CLOCK_MONOTONIC, &begin);
  action(argument);
  clock_gettime(CLOCK_MONOTONIC, &end);
  return static_cast<double>(end.tv_sec - begin.tv_sec) +
         static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
}

TEST(UtilitiesTest, SleepTakesWholeSecondsOnly) {
  EXPECT_LT(elapsedSeconds(SLEEP, 999), 0.2);
  EXPECT_LT(elapsedSeconds(SLEEP, 0), 0.2);
  const double oneAndAHalf = elapsedSeconds(SLEEP, 1500);
  EXPECT_GE(oneAndAHalf, 0.95);
  EXPECT_LT(oneAndAHalf, 1.4);
}

TEST(UtilitiesTest, HighPrecisionTimeFollowsTheMonotonicClock) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  double first = 0, second = 0;
  getHighPrecisionTime(&first);
  getHighPrecisionTime(&second);
  const double reference =
      static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
  EXPECT_GE(first, reference);
  EXPECT_LT(first - reference, 0.5);
  EXPECT_GE(second, first);
  getHighPrecisionTime(nullptr);
}

}  // namespace
