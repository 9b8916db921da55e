// wire_tap.hpp - a tap between the library and the simulated bench, for
// faults that strike in the middle of one library call (the bench's own
// faults arm only before a call) and for corrupting bytes in flight.
//
// Include it in exactly one source file of a test program: it defines
// viWrite and viRead, which the library's references bind to before those of
// libvisa.so, and forwards both to the bench.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "core/visa_api.h"

namespace wire_tap {

// Sees (and may change) every frame before the bench receives it.
inline std::function<void(std::vector<uint8_t> &frame)> onWrite;
// Sees (and may change) every reply after the bench delivered it.
inline std::function<void(uint8_t *reply, uint32_t count)> onRead;

// Removes the hooks when a test ends, however it ends.
struct Scope {
  Scope() = default;
  Scope(const Scope &) = delete;
  Scope &operator=(const Scope &) = delete;
  ~Scope() {
    onWrite = nullptr;
    onRead = nullptr;
  }
};

template <typename Function>
Function Next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace wire_tap

extern "C" ViStatus viWrite(ViSession vi, const ViByte *buf, ViUInt32 cnt,
                            ViUInt32 *retCnt) {
  using Write = ViStatus (*)(ViSession, const ViByte *, ViUInt32, ViUInt32 *);
  static const Write next = wire_tap::Next<Write>("viWrite");
  if (!wire_tap::onWrite || buf == nullptr) {
    return next(vi, buf, cnt, retCnt);
  }
  std::vector<uint8_t> frame(buf, buf + cnt);
  wire_tap::onWrite(frame);
  return next(vi, frame.data(), static_cast<ViUInt32>(frame.size()), retCnt);
}

extern "C" ViStatus viRead(ViSession vi, ViByte *buf, ViUInt32 cnt,
                           ViUInt32 *retCnt) {
  using Read = ViStatus (*)(ViSession, ViByte *, ViUInt32, ViUInt32 *);
  static const Read next = wire_tap::Next<Read>("viRead");
  const ViStatus status = next(vi, buf, cnt, retCnt);
  if (wire_tap::onRead && status >= 0 && buf != nullptr && retCnt != nullptr) {
    wire_tap::onRead(buf, *retCnt);
  }
  return status;
}
