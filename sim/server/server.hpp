// server.hpp - the rack server's event loop: one thread, non-blocking
// sockets, every request answered at once (the bench never waits).
#pragma once

#include <cstdint>
#include <string>

namespace qbsim::server {

struct Options {
  std::string socketPath;  // control protocol (Unix stream socket)
  std::string benchFile;   // empty: $QBSIM_BENCH or the built-in bench
  std::string stateFile;   // empty: the rack is not kept across runs
  bool lan = true;         // serve VXI-11
  std::string listenAddress = "127.0.0.1";
  uint16_t portMapperPort = 111;
  uint16_t corePort = 0;    // 0: any free port (clients ask the port mapper)
  bool background = false;  // return to the caller once clients can connect
};

// Runs until SIGINT, SIGTERM or a stop request; returns the exit status.
int serve(const Options &options);

}  // namespace qbsim::server
