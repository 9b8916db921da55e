// remote.hpp - the control protocol between a simulated libvisa.so (or the
// qbvisa-sim commands) and the rack server, and the client side of it.
//
// Over a Unix stream socket each request is a u32 body length and a body:
// u8 operation, then its arguments (little-endian u32/u64; byte strings and
// texts as a u32 length and the bytes). Each request gets exactly one reply,
// framed the same way: i32 status, then the operation's results. The server
// answers the requests of one connection in order, so a client that waits for
// its reply before sending the next one always reads its own answer.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "visa_api.h"
#include "wire.hpp"

namespace qbsim::detail {

enum class Op : uint8_t {
  // VISA calls, with the arguments and results of their C signatures.
  OpenDefaultRM = 1,  // -> u32 manager
  FindRsrc = 2,       // u32 manager, text expression -> u32 list, u32 count, text first
  FindNext = 3,       // u32 list -> text description
  Open = 4,           // u32 manager, text name -> u32 session
  Close = 5,          // u32 object
  Write = 6,          // u32 session, bytes -> u32 count
  Read = 7,           // u32 session, u32 count -> bytes
  SetAttribute = 8,   // u32 object, u32 attribute, u64 value
  Flush = 9,          // u32 session, u16 mask
  // The rack's control API. Status 0 or a count, -1 on failure.
  Relays = 20,         // text resource -> u32 n, n x (i32 board, group, bit)
  Geometry = 21,       // text resource -> i32 boards, i32 groups per board
  LoadBench = 22,      // text bench JSON -> text error
  DefaultBench = 23,   //
  Reset = 24,          // every instrument back to its description
  ResetResource = 25,  // text resource: that instrument only
  Fault = 26,          // text resource, text fault name
  BenchJson = 27,      // -> text: the bench as described
  StateJson = 28,      // -> text: the bench with its live state
  Stop = 29,           // the server ends after this reply
};

// Default wait for a reply when no session time-out applies (milliseconds).
constexpr int kDefaultWaitMs = 2000;

// One connection to the server named by a socket path. Calls are serialised
// (one request in flight). A call that cannot be completed within its wait
// closes the connection: every object opened through it becomes stale and
// its calls fail with VI_ERROR_CONN_LOST, until an open reconnects.
class RemoteRack {
 public:
  explicit RemoteRack(std::string socketPath) : path_(std::move(socketPath)) {}
  ~RemoteRack();
  RemoteRack(const RemoteRack &) = delete;
  RemoteRack &operator=(const RemoteRack &) = delete;

  // The rack named by $QBSIM_SERVER (read once), or null: simulate in-process.
  static RemoteRack *fromEnvironment();

  // Sends `request` (a body) and returns the reply body, or nullopt when the
  // server cannot be reached or does not answer within `waitMs`. `connect`:
  // (re)connect first when there is no connection.
  std::optional<wire::Bytes> call(const wire::Bytes &request, int waitMs, bool connect);

  ViStatus openDefaultRM(ViSession *vi);
  ViStatus findRsrc(ViSession manager, const char *expr, ViFindList *list, ViUInt32 *count,
                    ViChar desc[]);
  ViStatus findNext(ViFindList list, ViChar desc[]);
  ViStatus open(ViSession manager, const char *name, ViSession *vi);
  ViStatus close(ViObject vi);
  ViStatus write(ViSession vi, const ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt);
  ViStatus read(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt);
  ViStatus setAttribute(ViObject vi, ViAttr attr, ViAttrState value);
  ViStatus flush(ViSession vi, ViUInt16 mask);

 private:
  struct Known {
    unsigned generation;
    int waitMs;
  };
  // VI_SUCCESS when `vi` was handed out by the current connection; its wait
  // in `waitMs`.
  ViStatus check(ViObject vi, int &waitMs);
  void remember(ViObject vi, int waitMs);
  // Calls with the VISA status in front of the reply; a lost server gives
  // `lost`.
  ViStatus visaCall(const wire::Writer &request, int waitMs, bool connect, wire::Bytes &reply,
                    ViStatus lost = VI_ERROR_CONN_LOST);
  bool connectLocked();
  void dropLocked();

  const std::string path_;
  std::mutex mutex_;  // guards the connection: one request in flight
  int fd_ = -1;
  unsigned generation_ = 0;
  std::mutex knownMutex_;
  std::map<ViObject, Known> known_;
};

}  // namespace qbsim::detail
