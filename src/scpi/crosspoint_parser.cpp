// Crosspoint lists of the open and close commands, such as
// "(@1(1!1,2!5:4!6))": a subunit after "@" and a comma-separated list of
// points (row!column) and rectangles (row!column:row!column).
//
// Errors go into the caller's message buffer as text and parsing goes on
// with the next item, so the result may hold points even after an error; the
// caller decides by the message and always releases the points.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "qbvisa_lowlevel.h"

namespace {

constexpr const char *kBadSubunit = "Error: Invalid subunit format\n";
constexpr const char *kUnbalanced = "Error: Unmatched parentheses in input.";
constexpr const char *kEmptyList = "Error: Empty content in parentheses.\n";
constexpr const char *kBadPoint = "Error: Invalid crosspoint format";
constexpr const char *kBadRange = "Error: Invalid range format.";
// Reported when the point array cannot grow; the points parsed so far stay.
constexpr const char *kNoMemory = "Error: Not enough memory for crosspoints";

// The inner list is copied into a buffer of this size (text and its NUL).
constexpr size_t kListBufferSize = 256;
// A row is at most this many characters; anything longer is no crosspoint.
constexpr size_t kMaxRowText = 10;
// No matrix has anywhere near this many crosspoints (the text interface's
// image holds 12,000); the bound keeps one hostile rectangle such as
// 1!1:99999!99999 from exhausting memory.
constexpr int64_t kMaxPoints = 1000000;

void report(char *message, const char *text) {
  if (message != nullptr) std::strcpy(message, text);
}

// Decimal value of the text at `s` in the manner of atoi (leading blanks, an
// optional sign, digits up to the first non-digit), but a value that does
// not fit a signed 32-bit integer is refused instead of being undefined.
bool decimalValue(const char *s, int32_t *value) {
  while (std::isspace(static_cast<unsigned char>(*s))) ++s;
  bool negative = false;
  if (*s == '+' || *s == '-') negative = (*s++ == '-');
  int64_t magnitude = 0;
  for (; std::isdigit(static_cast<unsigned char>(*s)); ++s) {
    magnitude = magnitude * 10 + (*s - '0');
    if (magnitude > static_cast<int64_t>(INT32_MAX) + 1) return false;
  }
  if (!negative && magnitude > INT32_MAX) return false;
  *value = static_cast<int32_t>(negative ? -magnitude : magnitude);
  return true;
}

// Row text runs from `begin` up to the "!" at `bang`; it is bounded so that
// the row has a fixed-size home, as it always had.
bool rowValue(const char *begin, const char *bang, int32_t *value) {
  const size_t length = static_cast<size_t>(bang - begin);
  if (length > kMaxRowText) return false;
  char row[kMaxRowText + 1] = {};
  std::memcpy(row, begin, length);
  return decimalValue(row, value);
}

// Grows the array to hold `extra` more points. The block is reallocated to
// the next power of two at or above the new count, so appending n points
// costs O(n) copying overall while `count` stays exact. Calling realloc
// every time (a cheap no-op while the capacity suffices) keeps this correct
// for a result whose block holds exactly `count` points, as callers that
// build their own results may hand in.
bool reserve(SCPIResult *result, int64_t extra) {
  const int64_t wanted = static_cast<int64_t>(result->count) + extra;
  if (wanted > kMaxPoints) return false;
  int64_t capacity = 16;
  while (capacity < wanted) capacity *= 2;
  void *grown = std::realloc(result->points,
                             static_cast<size_t>(capacity) * sizeof(CrossPoint));
  if (grown == nullptr) return false;
  result->points = static_cast<CrossPoint *>(grown);
  return true;
}

}  // namespace

extern "C" {

QBVISA_EXPORT int areParenthesesBalanced(const char *text) {
  if (text == nullptr) return 1;
  int64_t depth = 0;
  for (; *text != '\0'; ++text) {
    if (*text == '(') {
      ++depth;
    } else if (*text == ')') {
      if (--depth < 0) return 0;
    }
  }
  return depth == 0 ? 1 : 0;
}

QBVISA_EXPORT int parseCrosspoints(SCPIResult *result, const char *item,
                                   char *message) {
  if (result == nullptr || item == nullptr) return -1;
  const char *bang = std::strchr(item, '!');
  if (bang == nullptr) {
    report(message, kBadPoint);
    return -1;
  }
  int32_t row1{};
  int32_t column1{};
  if (!rowValue(item, bang, &row1) || !decimalValue(bang + 1, &column1)) {
    report(message, kBadPoint);
    return -1;
  }

  const char *colon = std::strchr(item, ':');
  if (colon == nullptr) {
    if (column1 < 1 || row1 <= 0) {
      report(message, kBadPoint);
      return -1;
    }
    if (!reserve(result, 1)) {
      report(message, result->count + 1 > kMaxPoints ? kBadPoint : kNoMemory);
      return -1;
    }
    result->points[result->count++] = CrossPoint{row1, column1};
    return 0;
  }

  const char *bang2 = std::strchr(colon + 1, '!');
  if (bang2 == nullptr) {
    report(message, kBadRange);
    return -1;
  }
  int32_t row2{};
  int32_t column2{};
  if (!rowValue(colon + 1, bang2, &row2) ||
      !decimalValue(bang2 + 1, &column2)) {
    report(message, kBadPoint);
    return -1;
  }
  if (column1 <= 0 || column2 <= 0 || row1 < 1 || row2 <= 0) {
    report(message, kBadPoint);
    return -1;
  }
  if (row1 > row2) std::swap(row1, row2);
  if (column1 > column2) std::swap(column1, column2);

  // Both spans are below 2^31, so their product fits 64 bits.
  const int64_t points = (static_cast<int64_t>(row2) - row1 + 1) *
                         (static_cast<int64_t>(column2) - column1 + 1);
  if (static_cast<int64_t>(result->count) + points > kMaxPoints) {
    report(message, kBadPoint);
    return -1;
  }
  if (!reserve(result, points)) {
    report(message, kNoMemory);
    return -1;
  }
  for (int64_t row = row1; row <= row2; ++row) {
    for (int64_t column = column1; column <= column2; ++column) {
      result->points[result->count++] =
          CrossPoint{static_cast<int32_t>(row), static_cast<int32_t>(column)};
    }
  }
  return 0;
}

QBVISA_EXPORT SCPIResult parseSCPICrossPoint(const char *text, char *message) {
  SCPIResult result{0, nullptr, 0};
  if (text == nullptr) return result;

  const char *at = std::strchr(text, '@');
  if (at != nullptr) {
    if (!std::isdigit(static_cast<unsigned char>(at[1])) ||
        !decimalValue(at + 1, &result.subunit)) {
      report(message, kBadSubunit);
      return result;
    }
  }
  int64_t digits = 1;
  for (int32_t rest = result.subunit / 10; rest != 0; rest /= 10) ++digits;

  if (!areParenthesesBalanced(text)) {
    report(message, kUnbalanced);
    return result;
  }
  const char *open = std::strchr(text, '(');
  const char *close = std::strrchr(text, ')');
  if (open == nullptr || close == nullptr) return result;

  // The list is taken as a fixed-length slice: R - L - 5 characters starting
  // d + 3 after the first "(". With a one-digit subunit that is exactly the
  // inner list; longer subunits shift the slice onto the inner ")", which the
  // number conversions stop at. The slice is clipped to the text and to the
  // buffer so that no input can make it read outside either.
  const int64_t textLength = static_cast<int64_t>(std::strlen(text));
  const int64_t start = (open - text) + digits + 3;
  int64_t length = close - open - 5;
  length = std::min({length, textLength - start, static_cast<int64_t>(kListBufferSize) - 1});
  char list[kListBufferSize] = {};
  if (length > 0) std::memcpy(list, text + start, static_cast<size_t>(length));

  if (std::strlen(list) < 3) {
    report(message, kEmptyList);
    return result;
  }

  char *cursor = list;
  while (*cursor != '\0') {
    char *comma = std::strchr(cursor, ',');
    if (comma != nullptr) *comma = '\0';
    if (*cursor != '\0') parseCrosspoints(&result, cursor, message);
    if (comma == nullptr) break;
    cursor = comma + 1;
  }
  return result;
}

QBVISA_EXPORT void freeSCPIResult(SCPIResult *result) {
  if (result == nullptr) return;
  std::free(result->points);
  result->points = nullptr;
  result->count = 0;
}

}  // extern "C"
