// update.cpp - sends a firmware image to a chassis: announce its size, stream
// it in chunks, then hand over its byte sum and compare the chassis's own.
// The file is read with plain POSIX calls straight into the record's request
// buffer, so an update of any size allocates nothing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "core/chassis_request.h"
#include "qbvisa_lowlevel.h"

namespace {

using namespace qbvisa;

// The chassis buffers at most this many bytes of one data frame.
constexpr uint32_t kChunkSize = 1024;
static_assert(4 + kChunkSize <= QBVISA_REQUEST_SIZE, "a data frame must fit the request buffer");

// Closes the update file on every way out.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  FileDescriptor(const FileDescriptor &) = delete;
  FileDescriptor &operator=(const FileDescriptor &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Reads up to `size` bytes, retrying interrupted reads. Returns the count
// (0 at end of file) or -1.
ssize_t readSome(int fd, uint8_t *buffer, size_t size) {
  for (;;) {
    const ssize_t got = read(fd, buffer, size);
    if (got >= 0 || errno != EINTR) {
      return got;
    }
  }
}

// Exchanges the request (`bytes` long) and checks the step's verdict in reply
// byte 2. A reply too short to carry the verdict (or the `replyBytes` the
// step reads) counts as a failed read.
int32_t updateStep(ChassisRecord *record, int32_t bytes, int32_t replyBytes) {
  clearReply(*record);
  const int32_t status = exchange(*record, bytes);
  if (status < 0) {
    return status;
  }
  if (status < replyBytes) {
    return QBVISA_ERR_RECEIVE;
  }
  return record->replyBuffer[2] == 0 ? 0 : QBVISA_ERR_UPDATE_CHECK;
}

void putLong(uint8_t *buffer, size_t offset, uint32_t value) {
  putWord(buffer, offset, value & 0xFFFF);
  putWord(buffer, offset + 2, value >> 16);
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t QBVISA_OnlineUpdate(uint32_t session, const char *path) {
  if (path == nullptr) {
    return QBVISA_ERR_PARAMETER;
  }
  ChassisRecord *record = lookUpChassis(session);
  if (record == nullptr) {
    return QBVISA_ERR_HANDLE;
  }
  const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) {
    return QBVISA_ERR_UPDATE_FILE;
  }
  struct stat info {};
  // A directory or a device opens but is no image to stream.
  if (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return QBVISA_ERR_UPDATE_FILE;
  }
  // The size travels as 32 bits: an empty image or one beyond that is
  // nothing the chassis could take.
  if (info.st_size <= 0 || static_cast<uint64_t>(info.st_size) > UINT32_MAX) {
    return QBVISA_ERR_PARAMETER;
  }
  const auto size = static_cast<uint32_t>(info.st_size);

  beginRequest(*record, kUpdateBegin);
  putLong(record->requestBuffer, 4, size);
  int32_t status = updateStep(record, 8, 3);
  if (status != 0) {
    return status;
  }

  uint32_t sum = 0;
  uint8_t *chunk = record->requestBuffer + 4;
  for (uint32_t sent = 0; sent < size;) {
    const uint32_t wanted = size - sent < kChunkSize ? size - sent : kChunkSize;
    const ssize_t got = readSome(file.get(), chunk, wanted);
    // A file that shrinks after the size went out cannot be completed.
    if (got <= 0) {
      return QBVISA_ERR_UPDATE_FILE;
    }
    const auto length = static_cast<uint32_t>(got);
    putWord(record->requestBuffer, 0, kUpdateData);
    putWord(record->requestBuffer, 2, static_cast<uint16_t>(length));
    sum += checkSum(chunk, length);
    status = updateStep(record, static_cast<int32_t>(4 + length), 3);
    if (status != 0) {
      return status;
    }
    sent += length;
  }

  beginRequest(*record, kUpdateEnd);
  putLong(record->requestBuffer, 4, sum);
  status = updateStep(record, 8, 8);
  if (status != 0) {
    return status;
  }
  const uint8_t *reply = record->replyBuffer;
  const uint32_t chassisSum = static_cast<uint32_t>(reply[4]) |
                              static_cast<uint32_t>(reply[5]) << 8 |
                              static_cast<uint32_t>(reply[6]) << 16 |
                              static_cast<uint32_t>(reply[7]) << 24;
  return chassisSum == sum ? 0 : QBVISA_ERR_UPDATE_CHECK;
}

}  // extern "C"
