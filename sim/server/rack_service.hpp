// rack_service.hpp - what the rack server answers, without sockets: the
// control protocol of simulated libvisa.so clients and VXI-11 (ONC RPC) for
// LAN clients, both on this process's bench. The event loop (server.cpp)
// feeds it bytes; the fuzz target feeds it the same way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "visa_api.h"
#include "wire.hpp"

namespace qbsim::server {

using wire::Bytes;

// ONC RPC program numbers.
constexpr uint32_t kPortMapperProgram = 100000;   // version 2
constexpr uint32_t kVxi11CoreProgram = 0x0607AF;  // version 1
// Largest RPC record (all fragments) a client may send.
constexpr size_t kMaxRecord = 1u << 20;
// Largest read a VXI-11 link answers at once (the size create_link announces).
constexpr uint32_t kMaxReceive = 1u << 16;

// What one connection opened; everything is closed when it ends.
struct ClientState {
  std::set<ViObject> objects;   // control protocol: managers, sessions, lists
  ViSession manager = VI_NULL;  // VXI-11: the manager its links open through
  struct Link {
    ViSession session;
    Bytes pending;  // written without END so far
  };
  std::map<int32_t, Link> links;
};

// Takes the next complete message off the front of `buffer` into `message`.
// Returns false when the stream cannot be valid (too long a message): the
// connection must be closed. `message` is empty when more bytes are needed.
bool nextControlMessage(Bytes &buffer, Bytes &message);
// The same for RPC record marking (fragments with a last-fragment bit).
bool nextRpcRecord(Bytes &buffer, Bytes &record);

class RackService {
 public:
  // `corePort`: the TCP port of the VXI-11 core channel (GETPORT's answer).
  explicit RackService(uint16_t corePort = 0) : corePort_(corePort) {}

  void setCorePort(uint16_t port) { corePort_ = port; }
  // One control request body -> its reply body; nullopt: malformed, close.
  std::optional<Bytes> control(ClientState &client, const uint8_t *data, size_t size);
  // One RPC call record -> the reply record (without record marking);
  // nullopt: not a call, close.
  std::optional<Bytes> rpc(ClientState &client, const uint8_t *data, size_t size);
  // Closes what the connection left open.
  void disconnect(ClientState &client);

  bool stopRequested() const { return stop_; }

 private:
  std::optional<Bytes> visaRequest(ClientState &client, uint8_t op, wire::Reader &in);
  std::optional<Bytes> rackRequest(uint8_t op, wire::Reader &in);
  bool vxi11(ClientState &client, uint32_t procedure, wire::Reader &in, wire::Writer &out);
  int32_t createLink(ClientState &client, const std::string &device, int32_t &link);

  uint16_t corePort_;
  bool stop_ = false;
};

// Picks the chassis a VXI-11 device name means: "instN" is the N-th chassis
// of the bench (from 0), anything else a resource name (any case).
std::optional<std::string> chassisForDevice(const std::string &device);

}  // namespace qbsim::server
