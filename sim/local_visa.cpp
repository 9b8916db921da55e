// local_visa.cpp - the VISA calls answered by this process's own bench: the
// simulated libvisa.so uses them when no rack server is named, and the rack
// server uses them for every client. Every call catches whatever the C++ side
// throws: nothing may unwind into a C caller.
#include "local_visa.hpp"

#include <cstring>
#include <new>

#include "runtime.hpp"

namespace qbsim::detail::local {
namespace {


// Runs `body(instrument, session)` under the instrument's lock.
template <typename Body>
ViStatus onSession(ViSession vi, Body body) noexcept {
  return guarded([&]() -> ViStatus {
    const std::shared_ptr<Session> session = Runtime::instance().session(vi);
    if (!session) return VI_ERROR_INV_OBJECT;
    Instrument &instrument = *session->instrument;
    std::lock_guard lock(instrument.mutex());
    return body(instrument, *session);
  });
}

bool standardRate(ViAttrState rate) {
  static constexpr ViAttrState kRates[] = {300,   600,   1200,  2400,   4800,   9600,   14400,
                                           19200, 28800, 38400, 57600, 115200, 230400, 460800,
                                           921600};
  for (const ViAttrState r : kRates)
    if (r == rate) return true;
  return false;
}

constexpr ViAttrState kLastEndInMode = 3;  // VI_ASRL_END_BREAK

}  // namespace

ViStatus openDefaultRM(ViSession *vi) {
  return guarded([&] { return Runtime::instance().openDefaultRM(vi); });
}

ViStatus findRsrc(ViSession sesn, const char *expr, ViFindList *vi, ViUInt32 *retCnt,
                  ViChar desc[]) {
  return guarded([&] { return Runtime::instance().findResources(sesn, expr, vi, retCnt, desc); });
}

ViStatus findNext(ViFindList vi, ViChar desc[]) {
  return guarded([&] { return Runtime::instance().findNext(vi, desc); });
}

ViStatus open(ViSession sesn, const char *name, ViSession *vi) {
  return guarded([&] { return Runtime::instance().open(sesn, name, vi); });
}

ViStatus close(ViObject vi) {
  return guarded([&] { return Runtime::instance().close(vi); });
}

ViStatus write(ViSession vi, const ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  if (retCnt != nullptr) *retCnt = 0;
  return onSession(vi, [&](Instrument &instrument, Session &session) -> ViStatus {
    if (buf == nullptr && cnt > 0) return kErrorUserBuffer;
    const ViStatus status = instrument.write(session, buf, cnt);
    if (status >= 0 && retCnt != nullptr) *retCnt = cnt;
    return status;
  });
}

ViStatus read(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  if (retCnt != nullptr) *retCnt = 0;
  return onSession(vi, [&](Instrument &instrument, Session &session) -> ViStatus {
    if (buf == nullptr && cnt > 0) return kErrorUserBuffer;
    size_t delivered = 0;
    const ViStatus status = instrument.read(session, buf, cnt, delivered);
    if (retCnt != nullptr) *retCnt = static_cast<ViUInt32>(delivered);
    return status;
  });
}

ViStatus setAttribute(ViObject vi, ViAttr attrName, ViAttrState attrValue) {
  return onSession(vi, [&](Instrument &instrument, Session &session) -> ViStatus {
    if (instrument.vanished()) return VI_ERROR_CONN_LOST;
    switch (attrName) {
      case VI_ATTR_TMO_VALUE: session.timeout = attrValue; return VI_SUCCESS;
      case VI_ATTR_ASRL_BAUD:
        if (!instrument.serial()) return VI_ERROR_NSUP_ATTR;
        if (!standardRate(attrValue)) return VI_ERROR_NSUP_ATTR_STATE;
        session.baudRate = static_cast<uint32_t>(attrValue);
        return VI_SUCCESS;
      case VI_ATTR_ASRL_END_IN:
        if (!instrument.serial()) return VI_ERROR_NSUP_ATTR;
        if (attrValue > kLastEndInMode) return VI_ERROR_NSUP_ATTR_STATE;
        session.endIn = attrValue;
        return VI_SUCCESS;
      default: return VI_ERROR_NSUP_ATTR;
    }
  });
}

ViStatus flush(ViSession vi, ViUInt16 mask) {
  return onSession(vi, [&](Instrument &instrument, Session &session) -> ViStatus {
    constexpr ViUInt16 kKnown = VI_READ_BUF | VI_WRITE_BUF | VI_READ_BUF_DISCARD | VI_WRITE_BUF_DISCARD;
    if (mask == 0 || (mask & ~kKnown) != 0) return VI_ERROR_INV_MASK;
    if (instrument.vanished()) return VI_ERROR_CONN_LOST;
    if (mask & (VI_READ_BUF | VI_READ_BUF_DISCARD)) {
      session.reply.clear();
      session.replyRead = 0;
    }
    return VI_SUCCESS;
  });
}

}  // namespace qbsim::detail::local
