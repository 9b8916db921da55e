// runtime.hpp - the live bench behind the VISA calls: instruments with their
// state, traffic and pending faults, and the table of open VISA objects
// (resource managers, instrument sessions, find lists).
//
// Locking: the runtime mutex guards the instrument list and the object table;
// each instrument's mutex guards that instrument and every session open on
// it. A call takes the runtime mutex only to look its object up, then works
// under the instrument's mutex, so different instruments run in parallel.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "firmware.hpp"
#include "qbsim.hpp"
#include "visa_api.h"

namespace qbsim::detail {

// Standard VISA codes the shared VISA header does not carry.
constexpr ViStatus kErrorUserBuffer = static_cast<ViStatus>(0xBFFF0071u);

// Runs one VISA call's body: no exception may leave a VISA entry point, so
// they become VISA statuses here, for the local bench and the rack client alike.
template <typename Body>
ViStatus guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return VI_ERROR_ALLOC;
  } catch (...) {
    return VI_ERROR_SYSTEM_ERROR;
  }
}

class Instrument;

// The fault a control request names ("WriteFails", ...), if any.
std::optional<Fault> faultNamed(const std::string &name);

struct Session {
  std::shared_ptr<Instrument> instrument;
  uint32_t baudRate = 9600;
  uint64_t endIn = 2;  // VI_ASRL_END_TERMCHAR, the VISA default
  uint64_t timeout = 2000;
  std::vector<uint8_t> reply;  // answer waiting to be read
  size_t replyRead = 0;
};

class Instrument {
 public:
  explicit Instrument(const Resource &resource);

  const std::string &name() const { return name_; }
  ResourceKind kind() const { return kind_; }
  bool serial() const { return serial_; }
  bool vanished() const { return vanished_.load(std::memory_order_acquire); }
  std::mutex &mutex() { return mutex_; }

  // The following need mutex() held.
  ViStatus write(Session &s, const uint8_t *bytes, size_t count);
  ViStatus read(Session &s, uint8_t *bytes, size_t count, size_t &delivered);
  void inject(Fault fault);
  ChassisFirmware *firmware() { return firmware_ ? &*firmware_ : nullptr; }
  std::vector<TrafficEntry> traffic() const { return {traffic_.begin(), traffic_.end()}; }
  void clearTraffic() { traffic_.clear(); }

 private:
  std::optional<std::vector<uint8_t>> answer(const Session &s, const uint8_t *bytes,
                                             size_t count);
  void log(bool write, const uint8_t *bytes, size_t count);

  std::mutex mutex_;
  const std::string name_;
  const ResourceKind kind_;
  const bool serial_;
  const std::string idn_;
  std::optional<ChassisFirmware> firmware_;
  std::deque<TrafficEntry> traffic_;
  bool writeFails_ = false;
  bool readFails_ = false;
  bool failureReply_ = false;
  bool shortReply_ = false;
  bool timeout_ = false;
  ViStatus completion_ = VI_SUCCESS;  // status of the next whole reply read
  std::atomic<bool> vanished_{false};
};

class Runtime {
 public:
  static Runtime &instance();

  ViStatus openDefaultRM(ViSession *vi);
  ViStatus findResources(ViSession manager, const char *expression, ViFindList *list,
                         ViUInt32 *count, ViChar *description);
  ViStatus findNext(ViFindList list, ViChar *description);
  ViStatus open(ViSession manager, const char *name, ViSession *vi);
  ViStatus close(ViObject vi);
  std::shared_ptr<Session> session(ViSession vi);

  const Bench &bench();  // throws when $QBSIM_BENCH cannot be loaded
  void replace(const Bench &bench);
  // Instruments built from `live` (a saved rack, relays and all) while
  // `described` is what a reset goes back to.
  void replace(const Bench &live, const Bench &described);
  // The bench with every chassis's present settings and closed relays.
  Bench liveBench();
  // Rebuilds one instrument from its description; its sessions end.
  // Throws std::out_of_range when there is no such resource.
  void resetInstrument(const std::string &name);
  // Throws std::out_of_range when the bench has no such resource.
  std::shared_ptr<Instrument> instrument(const std::string &name);

 private:
  struct Object {
    enum Kind { Manager, InstrumentSession, FindList };
    explicit Object(Kind k, ViSession owner = VI_NULL) : kind(k), manager(owner) {}
    Kind kind;
    ViSession manager;  // owner of a session or find list
    std::shared_ptr<Session> session;
    std::vector<std::string> found;
    size_t next = 0;
  };

  bool loadLocked();  // false when the bench file named by $QBSIM_BENCH is bad
  void buildLocked(const Bench &bench, const Bench &described);
  ViObject newIdLocked();

  std::mutex mutex_;
  bool loaded_ = false;
  std::string loadError_;
  Bench bench_;
  std::vector<std::shared_ptr<Instrument>> instruments_;
  std::map<ViObject, Object> objects_;
  ViObject nextId_ = 1;
};

}  // namespace qbsim::detail
