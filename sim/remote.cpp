// remote.cpp - the client side of the rack server's control protocol.
#include "remote.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>

#include "runtime.hpp"

namespace qbsim::detail {
namespace {

using Clock = std::chrono::steady_clock;

// A session time-out of 0 (answer at once) still has to allow the round trip.
constexpr int kShortestWaitMs = 200;

int msLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long long>(left, 0));
}

bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    const int n = ::poll(&p, 1, msLeft(deadline));
    if (n > 0) return (p.revents & (events | POLLHUP | POLLERR)) != 0;
    if (n == 0 || errno != EINTR) return false;
  }
}

bool sendAll(int fd, const uint8_t *data, size_t size, Clock::time_point deadline) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      if (!waitFor(fd, POLLOUT, deadline)) return false;
    } else {
      return false;
    }
  }
  return true;
}

bool receiveAll(int fd, uint8_t *data, size_t size, Clock::time_point deadline) {
  while (size > 0) {
    const ssize_t n = ::recv(fd, data, size, MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      if (!waitFor(fd, POLLIN, deadline)) return false;
    } else {
      return false;  // closed by the server, or an error
    }
  }
  return true;
}

void copyDescription(ViChar *out, const std::string &name) {
  if (out == nullptr) return;
  const size_t n = std::min(name.size(), static_cast<size_t>(VI_FIND_BUFLEN - 1));
  std::memcpy(out, name.data(), n);
  out[n] = '\0';
}

int waitFromTimeout(ViAttrState timeout) {
  return static_cast<int>(std::clamp<ViAttrState>(timeout, kShortestWaitMs, 24 * 3600 * 1000));
}


}  // namespace

RemoteRack::~RemoteRack() {
  if (fd_ >= 0) ::close(fd_);
}

RemoteRack *RemoteRack::fromEnvironment() {
  static RemoteRack *const rack = []() -> RemoteRack * {
    const char *path = std::getenv("QBSIM_SERVER");
    if (path == nullptr || *path == '\0') return nullptr;
    // Lives as long as the process: VISA calls may come from static
    // destructors of the program.
    return new RemoteRack(path);
  }();
  return rack;
}

bool RemoteRack::connectLocked() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
    ::close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

void RemoteRack::dropLocked() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  ++generation_;
}

std::optional<wire::Bytes> RemoteRack::call(const wire::Bytes &request, int waitMs, bool connect) {
  std::lock_guard lock(mutex_);
  wire::Writer framed;
  framed.u32(static_cast<uint32_t>(request.size()));
  framed.out().insert(framed.out().end(), request.begin(), request.end());
  const auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
  // A connection kept from earlier may lead to a server that has been
  // restarted since: one that fails at once is replaced by a new one.
  for (int attempt = 0; attempt < 2; ++attempt) {
    const bool fresh = fd_ < 0;
    if (fresh && (!connect || !connectLocked())) return std::nullopt;
    uint8_t header[4];
    bool ok = sendAll(fd_, framed.out().data(), framed.out().size(), deadline) &&
              receiveAll(fd_, header, sizeof header, deadline);
    uint32_t size = 0;
    wire::Bytes reply;
    if (ok) {
      size = wire::Reader(header, sizeof header).u32();
      ok = size <= wire::kMaxMessage;
      if (ok) {
        reply.resize(size);
        ok = receiveAll(fd_, reply.data(), size, deadline);
      }
    }
    if (ok) return reply;
    dropLocked();
    if (fresh || !connect || Clock::now() >= deadline) break;
  }
  return std::nullopt;
}

ViStatus RemoteRack::visaCall(const wire::Writer &request, int waitMs, bool connect,
                              wire::Bytes &reply, ViStatus lost) {
  auto answer = call(request.data(), waitMs, connect);
  if (!answer) return lost;
  reply = std::move(*answer);
  if (reply.size() < 4) return VI_ERROR_SYSTEM_ERROR;
  return wire::Reader(reply.data(), reply.size()).i32();
}

ViStatus RemoteRack::check(ViObject vi, int &waitMs) {
  std::lock_guard lock(knownMutex_);
  const auto it = known_.find(vi);
  if (it == known_.end()) return VI_ERROR_INV_OBJECT;
  std::lock_guard connection(mutex_);
  if (it->second.generation != generation_ || fd_ < 0) return VI_ERROR_CONN_LOST;
  waitMs = it->second.waitMs;
  return VI_SUCCESS;
}

void RemoteRack::remember(ViObject vi, int waitMs) {
  unsigned generation;
  {
    std::lock_guard connection(mutex_);
    generation = generation_;
  }
  std::lock_guard lock(knownMutex_);
  known_[vi] = Known{generation, waitMs};
}

ViStatus RemoteRack::openDefaultRM(ViSession *vi) {
  return guarded([&]() -> ViStatus {
    if (vi == nullptr) return kErrorUserBuffer;
    *vi = VI_NULL;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::OpenDefaultRM));
    wire::Bytes reply;
    // A server that cannot be reached is a system that cannot open VISA.
    const ViStatus status = visaCall(request, kDefaultWaitMs, true, reply, VI_ERROR_SYSTEM_ERROR);
    if (status < 0) return status;
    wire::Reader in(reply.data(), reply.size());
    in.i32();
    const ViSession manager = in.u32();
    if (!in.ok()) return VI_ERROR_SYSTEM_ERROR;
    remember(manager, kDefaultWaitMs);
    *vi = manager;
    return status;
  });
}

ViStatus RemoteRack::findRsrc(ViSession manager, const char *expr, ViFindList *list,
                              ViUInt32 *count, ViChar desc[]) {
  return guarded([&]() -> ViStatus {
    if (count != nullptr) *count = 0;
    if (list != nullptr) *list = VI_NULL;
    int wait = 0;
    if (const ViStatus known = check(manager, wait); known < 0) return known;
    if (expr == nullptr) return VI_ERROR_INV_EXPR;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::FindRsrc)).u32(manager).text(expr);
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    if (status < 0) return status;
    wire::Reader in(reply.data(), reply.size());
    in.i32();
    const ViFindList found = in.u32();
    const ViUInt32 n = in.u32();
    const std::string first = in.text();
    if (!in.ok()) return VI_ERROR_SYSTEM_ERROR;
    remember(found, wait);
    if (list != nullptr) *list = found;
    if (count != nullptr) *count = n;
    copyDescription(desc, first);
    return status;
  });
}

ViStatus RemoteRack::findNext(ViFindList list, ViChar desc[]) {
  return guarded([&]() -> ViStatus {
    int wait = 0;
    if (const ViStatus known = check(list, wait); known < 0) return known;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::FindNext)).u32(list);
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    if (status < 0) return status;
    wire::Reader in(reply.data(), reply.size());
    in.i32();
    const std::string next = in.text();
    if (!in.ok()) return VI_ERROR_SYSTEM_ERROR;
    copyDescription(desc, next);
    return status;
  });
}

ViStatus RemoteRack::open(ViSession manager, const char *name, ViSession *vi) {
  return guarded([&]() -> ViStatus {
    if (vi == nullptr) return kErrorUserBuffer;
    *vi = VI_NULL;
    int wait = 0;
    if (const ViStatus known = check(manager, wait); known < 0) return known;
    if (name == nullptr) return VI_ERROR_RSRC_NFOUND;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::Open)).u32(manager).text(name);
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    if (status < 0) return status;
    wire::Reader in(reply.data(), reply.size());
    in.i32();
    const ViSession session = in.u32();
    if (!in.ok()) return VI_ERROR_SYSTEM_ERROR;
    remember(session, kDefaultWaitMs);
    *vi = session;
    return status;
  });
}

ViStatus RemoteRack::close(ViObject vi) {
  return guarded([&]() -> ViStatus {
    int wait = 0;
    const ViStatus known = check(vi, wait);
    if (known == VI_ERROR_CONN_LOST) {
      // The server dropped everything of the old connection already.
      std::lock_guard lock(knownMutex_);
      known_.erase(vi);
      return VI_SUCCESS;
    }
    if (known < 0) return known;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::Close)).u32(vi);
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    if (status >= 0) {
      std::lock_guard lock(knownMutex_);
      known_.erase(vi);
    }
    return status;
  });
}

ViStatus RemoteRack::write(ViSession vi, const ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  if (retCnt != nullptr) *retCnt = 0;
  return guarded([&]() -> ViStatus {
    int wait = 0;
    if (const ViStatus known = check(vi, wait); known < 0) return known;
    if (buf == nullptr && cnt > 0) return kErrorUserBuffer;
    if (cnt > wire::kMaxMessage / 2) return VI_ERROR_IO;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::Write)).u32(vi).bytes(buf, cnt);
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    if (status < 0) return status;
    wire::Reader in(reply.data(), reply.size());
    in.i32();
    const ViUInt32 written = in.u32();
    if (!in.ok()) return VI_ERROR_SYSTEM_ERROR;
    if (retCnt != nullptr) *retCnt = written;
    return status;
  });
}

ViStatus RemoteRack::read(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  if (retCnt != nullptr) *retCnt = 0;
  return guarded([&]() -> ViStatus {
    int wait = 0;
    if (const ViStatus known = check(vi, wait); known < 0) return known;
    if (buf == nullptr && cnt > 0) return kErrorUserBuffer;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::Read)).u32(vi).u32(std::min(cnt, wire::kMaxMessage / 2));
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    wire::Reader in(reply.data(), reply.size());
    in.i32();
    const wire::Bytes data = in.bytes();
    if (!in.ok()) return status < 0 ? status : VI_ERROR_SYSTEM_ERROR;
    const size_t n = std::min<size_t>(data.size(), cnt);
    if (n > 0) std::memcpy(buf, data.data(), n);
    if (retCnt != nullptr) *retCnt = static_cast<ViUInt32>(n);
    return status;
  });
}

ViStatus RemoteRack::setAttribute(ViObject vi, ViAttr attr, ViAttrState value) {
  return guarded([&]() -> ViStatus {
    int wait = 0;
    if (const ViStatus known = check(vi, wait); known < 0) return known;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::SetAttribute)).u32(vi).u32(attr).u64(value);
    wire::Bytes reply;
    const ViStatus status = visaCall(request, wait, false, reply);
    // The session's time-out also bounds how long its calls wait for the server.
    if (status >= 0 && attr == VI_ATTR_TMO_VALUE) remember(vi, waitFromTimeout(value));
    return status;
  });
}

ViStatus RemoteRack::flush(ViSession vi, ViUInt16 mask) {
  return guarded([&]() -> ViStatus {
    int wait = 0;
    if (const ViStatus known = check(vi, wait); known < 0) return known;
    wire::Writer request;
    request.u8(static_cast<uint8_t>(Op::Flush)).u32(vi).u16(mask);
    wire::Bytes reply;
    return visaCall(request, wait, false, reply);
  });
}

}  // namespace qbsim::detail
