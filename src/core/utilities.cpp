// Small helpers shared by the switching, administration and text paths.
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "qbvisa_lowlevel.h"

namespace {

// Room for "255.255.255.255" and its NUL.
constexpr size_t kDottedWorkSize = 16;

// Both two-level allocators: one block of row pointers and one zeroed block
// of values; row i starts at value i * cols.
template <typename T>
T **allocRows(int32_t rows, int32_t cols) {
  if (rows <= 0 || cols <= 0) return nullptr;
  const size_t rowCount = static_cast<size_t>(rows);
  const size_t colCount = static_cast<size_t>(cols);
  auto **pointers = static_cast<T **>(std::malloc(rowCount * sizeof(T *)));
  auto *values = static_cast<T *>(std::calloc(rowCount * colCount, sizeof(T)));
  if (pointers == nullptr || values == nullptr) {
    std::free(pointers);
    std::free(values);
    return nullptr;
  }
  for (size_t i = 0; i < rowCount; ++i) pointers[i] = values + i * colCount;
  return pointers;
}

// One field of a dotted quad: 1..3 digits, at most 255, no leading zero.
bool validOctet(const char *field, size_t length, int *value) {
  if (length == 0 || length > 3) return false;
  int number = 0;
  for (size_t i = 0; i < length; ++i) {
    if (field[i] < '0' || field[i] > '9') return false;
    number = number * 10 + (field[i] - '0');
  }
  if (number > 255) return false;
  if (field[0] == '0' && length != 1) return false;
  *value = number;
  return true;
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t rotateRight(uint8_t *bytes, int32_t first, int32_t end,
                                  int32_t times) {
  if (times <= 0) return 0;
  // A range of fewer than two bytes (or a reversed one) has nothing to turn.
  if (bytes == nullptr || first < 0 || end - first < 2) return times;
  const size_t moved = static_cast<size_t>(end - 1 - first);
  for (int32_t t = 0; t < times; ++t) {
    const uint8_t last = bytes[end - 1];
    std::memmove(bytes + first + 1, bytes + first, moved);
    bytes[first] = last;
  }
  return times;
}

QBVISA_EXPORT int32_t **alloc2int(int32_t, int32_t rows, int32_t cols) {
  return allocRows<int32_t>(rows, cols);
}

// Releases the row pointers only; the value block stays allocated. Callers
// that need it back free it through row 0 before calling this.
QBVISA_EXPORT void free2int(int32_t **array) { std::free(array); }

QBVISA_EXPORT uint16_t **alloc2ViUInt16(int32_t, int32_t rows, int32_t cols) {
  return allocRows<uint16_t>(rows, cols);
}

// Like free2int: the value block is left to the caller.
QBVISA_EXPORT void free2ViUInt16(uint16_t **array) { std::free(array); }

QBVISA_EXPORT int32_t ***alloc3int(int32_t, int32_t a, int32_t b, int32_t c,
                                   int32_t fill) {
  if (a <= 0 || b <= 0 || c <= 0) return nullptr;
  const size_t planes = static_cast<size_t>(a);
  const size_t rows = planes * static_cast<size_t>(b);
  const size_t values = rows * static_cast<size_t>(c);
  // Pointers first (8-byte aligned), then the values, so one free releases
  // everything.
  void *block = std::malloc(planes * sizeof(int32_t **) +
                            rows * sizeof(int32_t *) +
                            values * sizeof(int32_t));
  if (block == nullptr) return nullptr;
  auto ***top = static_cast<int32_t ***>(block);
  auto **rowPointers = reinterpret_cast<int32_t **>(top + planes);
  auto *data = reinterpret_cast<int32_t *>(rowPointers + rows);
  for (size_t i = 0; i < planes; ++i)
    top[i] = rowPointers + i * static_cast<size_t>(b);
  for (size_t r = 0; r < rows; ++r)
    rowPointers[r] = data + r * static_cast<size_t>(c);
  for (size_t v = 0; v < values; ++v) data[v] = fill;
  return top;
}

QBVISA_EXPORT void free3int(int32_t ***array) { std::free(array); }

// Shared result area: the next call overwrites it.
QBVISA_EXPORT int32_t *dec_2bin(int32_t value) {
  static int32_t bits[32];
  const auto pattern = static_cast<uint32_t>(value);
  for (int i = 0; i < 32; ++i) bits[i] = static_cast<int32_t>((pattern >> i) & 1u);
  return bits;
}

// Cuts `text` in place after at most n characters.
QBVISA_EXPORT char *mystrncpy(char *text, uint64_t n) {
  if (text == nullptr) return nullptr;
  uint64_t i = 0;
  while (i < n && text[i] != '\0') ++i;
  text[i] = '\0';
  return text;
}

QBVISA_EXPORT uint32_t toInt(const char *dotted) {
  if (dotted == nullptr) return 0;
  // Anything past 15 characters cannot be an address; it is cut off here.
  char work[kDottedWorkSize];
  const size_t length = strnlen(dotted, sizeof work - 1);
  std::memcpy(work, dotted, length);
  work[length] = '\0';
  uint32_t value = 0;
  char *rest = nullptr;
  for (char *part = strtok_r(work, ".", &rest); part != nullptr;
       part = strtok_r(nullptr, ".", &rest)) {
    value = value * 256u + static_cast<uint32_t>(std::atoi(part));
  }
  return value;
}

QBVISA_EXPORT uint32_t checkSum(const uint8_t *bytes, uint32_t n) {
  if (bytes == nullptr) return 0;
  uint32_t sum = 0;
  for (uint32_t i = 0; i < n; ++i) sum += bytes[i];
  return sum;
}

QBVISA_EXPORT int32_t countOnes(int32_t ***array, int32_t a, int32_t b,
                                int32_t c) {
  if (array == nullptr) return 0;
  int32_t ones = 0;
  for (int32_t i = 0; i < a; ++i)
    for (int32_t j = 0; j < b; ++j)
      for (int32_t k = 0; k < c; ++k)
        if (array[i][j][k] == 1) ++ones;
  return ones;
}

QBVISA_EXPORT int32_t countOnes3D(int32_t ***array, int32_t a, int32_t b,
                                  int32_t c) {
  return countOnes(array, a, b, c);
}

QBVISA_EXPORT int32_t countOnes2D(int32_t **array, int32_t a, int32_t b) {
  if (array == nullptr) return 0;
  int32_t ones = 0;
  for (int32_t i = 0; i < a; ++i)
    for (int32_t j = 0; j < b; ++j)
      if (array[i][j] == 1) ++ones;
  return ones;
}

// The chassis accept only 192.168.1.0 .. 192.168.1.254 and reserve .200.
QBVISA_EXPORT bool validIPAddress(const char *text) {
  if (text == nullptr || std::strchr(text, '.') == nullptr) return false;
  int octets[4] = {};
  const char *field = text;
  for (int i = 0; i < 4; ++i) {
    // The fourth field runs to the end, so a fifth dot makes it invalid.
    const char *dot = (i < 3) ? std::strchr(field, '.') : nullptr;
    if (i < 3 && dot == nullptr) return false;
    const size_t length =
        (dot != nullptr) ? static_cast<size_t>(dot - field) : std::strlen(field);
    if (!validOctet(field, length, &octets[i])) return false;
    field += length + 1;
  }
  return octets[0] == 192 && octets[1] == 168 && octets[2] == 1 &&
         octets[3] != 200 && octets[3] != 255;
}

QBVISA_EXPORT bool isdigitstr(const char *text) {
  if (text == nullptr) return false;
  return text[std::strspn(text, "0123456789")] == '\0';
}

// Bytes are expected to be 0 or 1; a larger byte spills into higher bits.
QBVISA_EXPORT uint16_t ArrayToU16(const uint8_t *bytes16, int32_t *ones) {
  uint32_t word = 0;
  int32_t set = 0;
  if (bytes16 == nullptr) {
    if (ones != nullptr) *ones = 0;
    return 0;
  }
  for (int i = 0; i < 16; ++i) {
    const uint32_t shifted = static_cast<uint32_t>(bytes16[i]) << i;
    word |= shifted;
    if (shifted != 0) ++set;
  }
  if (ones != nullptr) *ones = set;
  return static_cast<uint16_t>(word);
}

QBVISA_EXPORT void getHighPrecisionTime(double *seconds) {
  if (seconds == nullptr) return;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  *seconds = static_cast<double>(now.tv_sec) +
             static_cast<double>(now.tv_nsec) / 1e9;
}

// Whole seconds only: the chassis waits it serves are all multiples of one
// second, and shorter requests return at once.
QBVISA_EXPORT void SLEEP(uint32_t milliseconds) { sleep(milliseconds / 1000); }

}  // extern "C"
