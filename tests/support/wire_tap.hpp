// wire_tap.hpp - a tap between the library and the simulated bench, for faults
// in the middle of one library call and bytes changed in flight. Include it in
// one source file of a test program: its viWrite and viRead bind before those
// of libvisa.so and forward to them.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "core/visa_api.h"

namespace qbtest {

inline std::function<void(std::vector<uint8_t> &frame)> onWrite;  // before the bench
// After the bench; may change the count the read reports.
inline std::function<void(uint8_t *reply, uint32_t &count)> onRead;

// Removes the hooks when a test ends, however it ends.
struct Scope {
  ~Scope() { onWrite = nullptr; onRead = nullptr; }
};

}  // namespace qbtest

extern "C" ViStatus viWrite(ViSession vi, const ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  using Write = ViStatus (*)(ViSession, const ViByte *, ViUInt32, ViUInt32 *);
  static const auto next = reinterpret_cast<Write>(dlsym(RTLD_NEXT, "viWrite"));
  if (!qbtest::onWrite || buf == nullptr) return next(vi, buf, cnt, retCnt);
  std::vector<uint8_t> frame(buf, buf + cnt);
  qbtest::onWrite(frame);
  return next(vi, frame.data(), static_cast<ViUInt32>(frame.size()), retCnt);
}

extern "C" ViStatus viRead(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  using Read = ViStatus (*)(ViSession, ViByte *, ViUInt32, ViUInt32 *);
  static const auto next = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "viRead"));
  const ViStatus status = next(vi, buf, cnt, retCnt);
  if (qbtest::onRead && status >= 0 && buf != nullptr && retCnt != nullptr) {
    qbtest::onRead(buf, *retCnt);
  }
  return status;
}
