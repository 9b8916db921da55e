// Fuzz target for the rack server's message decoding: a connection's byte
// stream (control protocol or ONC RPC / VXI-11 record marking) arrives in
// pieces, is cut into messages and answered on a fresh built-in bench, and
// the connection then ends. Built as a libFuzzer program (clang) or, with
// replay_main.cpp, as a program that replays the committed corpus.
//
// Input: byte 0 bit 0 chooses the protocol (0 control, 1 RPC), bits 1..7 the
// size of the pieces the stream arrives in (1..128 bytes); the rest is the
// stream.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "qbsim.hpp"
#include "rack_service.hpp"

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static const qbsim::Bench bench = qbsim::defaultBench();
  qbsim::setBench(bench);
  const bool rpc = (data[0] & 1) != 0;
  const size_t piece = 1 + (data[0] >> 1);
  qbsim::server::RackService service(4321);
  qbsim::server::ClientState client;
  qbsim::wire::Bytes stream, message;
  bool open = true;
  for (size_t at = 1; at < size && open; at += piece) {
    const size_t end = at + piece < size ? at + piece : size;
    stream.insert(stream.end(), data + at, data + end);
    for (;;) {
      const bool valid = rpc ? qbsim::server::nextRpcRecord(stream, message)
                             : qbsim::server::nextControlMessage(stream, message);
      if (!valid) {
        open = false;
        break;
      }
      if (message.empty()) break;
      const auto reply = rpc ? service.rpc(client, message.data(), message.size())
                             : service.control(client, message.data(), message.size());
      if (!reply) {
        open = false;
        break;
      }
      // Every reply the server sends can be framed: it fits a message.
      if (reply->size() > qbsim::wire::kMaxMessage) std::abort();
    }
  }
  service.disconnect(client);
  // Nothing of the connection may outlive it.
  if (!client.objects.empty() || !client.links.empty()) std::abort();
  return 0;
}
