// server.cpp - sockets and the event loop of the rack server.
#include "server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "rack_service.hpp"
#include "runtime.hpp"

namespace qbsim::server {
namespace {

// A client that stops reading its replies is dropped past this much backlog.
constexpr size_t kMostPendingOutput = 4u << 20;
constexpr size_t kMostConnections = 256;

int signalPipe[2] = {-1, -1};

void onSignal(int) {
  const char byte = 1;
  [[maybe_unused]] const ssize_t n = ::write(signalPipe[1], &byte, 1);
}

struct Fd {
  int fd = -1;
  explicit Fd(int f = -1) : fd(f) {}
  Fd(Fd &&o) noexcept : fd(o.fd) { o.fd = -1; }
  Fd &operator=(Fd &&o) noexcept {
    std::swap(fd, o.fd);
    return *this;
  }
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

// Rpc: TCP with record marking; Datagram: UDP, one call per datagram (the
// port mapper's other transport).
enum class Kind { Control, Rpc, Datagram };

struct Listener {
  Fd fd;
  Kind kind;
};

struct Connection {
  Fd fd;
  Kind kind;
  Bytes in, out;
  ClientState client;
  bool closing = false;
};

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

Fd unixListener(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path))
    throw std::runtime_error("socket path too long or empty: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(probe.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
    throw std::runtime_error("a rack server already listens on " + path);
  ::unlink(path.c_str());  // a socket file left by a server that was killed
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  errno = 0;
  if (::bind(fd.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      ::listen(fd.fd, 64) != 0)
    fail("cannot listen on " + path);
  setNonBlocking(fd.fd);
  return fd;
}

// Listens on address:port (TCP); port 0 picks one. Returns the port bound.
Fd tcpListener(const std::string &host, uint16_t port, uint16_t &bound) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
    throw std::runtime_error("not an IPv4 address: " + host);
  Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int yes = 1;
  ::setsockopt(fd.fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  errno = 0;
  if (::bind(fd.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      ::listen(fd.fd, 64) != 0)
    fail("cannot listen on " + host + ":" + std::to_string(port));
  socklen_t size = sizeof address;
  ::getsockname(fd.fd, reinterpret_cast<sockaddr *>(&address), &size);
  bound = ntohs(address.sin_port);
  setNonBlocking(fd.fd);
  return fd;
}

Fd udpSocket(const std::string &host, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
    throw std::runtime_error("not an IPv4 address: " + host);
  Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  errno = 0;
  if (::bind(fd.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
    fail("cannot bind UDP " + host + ":" + std::to_string(port));
  return fd;
}

// Answers one datagram: port mapper calls only (a VXI-11 link needs TCP).
void answerDatagram(RackService &service, int fd) {
  uint8_t buffer[9000];
  sockaddr_in from{};
  socklen_t size = sizeof from;
  const ssize_t n = ::recvfrom(fd, buffer, sizeof buffer, MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(&from), &size);
  if (n < 28) return;
  const uint32_t program = wire::Reader(buffer + 12, 4, true).u32();
  if (program != kPortMapperProgram) return;
  ClientState once;
  const auto reply = service.rpc(once, buffer, static_cast<size_t>(n));
  service.disconnect(once);
  if (reply)
    ::sendto(fd, reply->data(), reply->size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from),
             size);
}

// The rack to start with: a saved state, else a bench file, else the
// environment's or the built-in bench.
void loadRack(const Options &options) {
  auto &runtime = detail::Runtime::instance();
  if (!options.stateFile.empty() && std::filesystem::exists(options.stateFile)) {
    const Bench live = loadBenchFile(options.stateFile);
    Bench described = live;
    for (Resource &r : described.resources) {
      r.chassis.closedRelays.clear();
      r.chassis.groupsPerBoard = 0;
    }
    runtime.replace(live, described);
  } else if (!options.benchFile.empty()) {
    runtime.replace(loadBenchFile(options.benchFile));
  } else {
    runtime.replace(currentBench());
  }
}

// Written beside the file and renamed over it: a reader (or a crash while
// saving) sees the old state or the new one, never half of one.
void saveRack(const std::string &path) {
  const std::string temporary = path + ".tmp";
  saveBenchFile(detail::Runtime::instance().liveBench(), temporary);
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw std::runtime_error("cannot replace " + path);
  }
}

// Hands complete messages of `c` to the service and queues the replies.
void handleInput(RackService &service, Connection &c) {
  Bytes message;
  for (;;) {
    const bool valid =
        c.kind == Kind::Control ? nextControlMessage(c.in, message) : nextRpcRecord(c.in, message);
    if (!valid) {
      c.closing = true;
      c.in.clear();
      return;
    }
    if (message.empty()) return;
    auto reply = c.kind == Kind::Control ? service.control(c.client, message.data(), message.size())
                                         : service.rpc(c.client, message.data(), message.size());
    if (!reply) {
      c.closing = true;
      c.in.clear();
      return;
    }
    wire::Writer header(c.kind == Kind::Rpc);
    header.u32(static_cast<uint32_t>(reply->size()) | (c.kind == Kind::Rpc ? 0x80000000u : 0u));
    c.out.insert(c.out.end(), header.data().begin(), header.data().end());
    c.out.insert(c.out.end(), reply->begin(), reply->end());
    if (service.stopRequested()) return;
  }
}

// Sends what is queued; false when the peer is gone.
bool flushOutput(Connection &c) {
  while (!c.out.empty()) {
    const ssize_t n = ::send(c.fd.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      c.out.erase(c.out.begin(), c.out.begin() + n);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      return c.out.size() <= kMostPendingOutput;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int serve(const Options &options) {
  std::vector<Listener> listeners;
  std::list<Connection> connections;
  RackService service;
  bool unixBound = false;
  try {
    loadRack(options);
    listeners.push_back({unixListener(options.socketPath), Kind::Control});
    unixBound = true;
    std::string lan = "no VXI-11";
    if (options.lan) {
      uint16_t core = 0, mapper = 0;
      listeners.push_back({tcpListener(options.listenAddress, options.corePort, core), Kind::Rpc});
      service.setCorePort(core);
      lan = "VXI-11 core channel on " + options.listenAddress + ":" + std::to_string(core);
      try {
        listeners.push_back(
            {tcpListener(options.listenAddress, options.portMapperPort, mapper), Kind::Rpc});
        listeners.push_back({udpSocket(options.listenAddress, mapper), Kind::Datagram});
        lan += ", port mapper on port " + std::to_string(mapper) + " (TCP and UDP)";
      } catch (const std::exception &e) {
        // Without the port mapper (port 111 needs privileges, or another
        // one runs) a LAN client cannot find the core channel.
        std::fprintf(stderr, "qbvisa-sim: no port mapper (%s); LAN clients cannot find the rack\n",
                     e.what());
      }
    }
    std::fprintf(stderr, "qbvisa-sim: serving %zu instruments on %s (%s)\n",
                 currentBench().resources.size(), options.socketPath.c_str(), lan.c_str());
  } catch (const std::exception &e) {
    std::fprintf(stderr, "qbvisa-sim: %s\n", e.what());
    if (unixBound) ::unlink(options.socketPath.c_str());
    return 1;
  }
  if (options.background) {
    // Everything listens already, so the command after this one finds the
    // server; the server goes on in a child of its own session.
    const pid_t child = ::fork();
    if (child < 0) return 1;
    if (child > 0) std::_Exit(0);
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
      ::dup2(null, STDIN_FILENO);
      ::dup2(null, STDOUT_FILENO);
      if (null > STDERR_FILENO) ::close(null);
    }
  }

  if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  bool running = true;
  std::vector<pollfd> polled;
  while (running) {
    polled.clear();
    polled.push_back({signalPipe[0], POLLIN, 0});
    for (const Listener &l : listeners) polled.push_back({l.fd.fd, POLLIN, 0});
    for (const Connection &c : connections)
      polled.push_back({c.fd.fd, static_cast<short>(POLLIN | (c.out.empty() ? 0 : POLLOUT)), 0});
    if (::poll(polled.data(), polled.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (polled[0].revents != 0) break;
    for (size_t i = 0; i < listeners.size(); ++i) {
      if ((polled[1 + i].revents & POLLIN) == 0) continue;
      if (listeners[i].kind == Kind::Datagram) {
        answerDatagram(service, listeners[i].fd.fd);
        continue;
      }
      Fd fd(::accept4(listeners[i].fd.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (fd.fd < 0 || connections.size() >= kMostConnections) continue;
      connections.push_back(Connection{std::move(fd), listeners[i].kind, {}, {}, {}, false});
    }
    size_t index = 1 + listeners.size();
    for (auto it = connections.begin(); it != connections.end() && index < polled.size(); ++index) {
      Connection &c = *it;
      const short events = polled[index].revents;
      bool alive = true;
      if (events & (POLLIN | POLLHUP | POLLERR)) {
        uint8_t buffer[65536];
        const ssize_t n = ::recv(c.fd.fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n > 0) {
          c.in.insert(c.in.end(), buffer, buffer + n);
          handleInput(service, c);
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
          alive = false;
        }
      }
      if (alive) alive = flushOutput(c) && !c.closing;
      if (service.stopRequested()) running = false;
      if (!alive) {
        service.disconnect(c.client);
        it = connections.erase(it);
      } else {
        ++it;
      }
    }
  }

  for (Connection &c : connections) service.disconnect(c.client);
  connections.clear();
  listeners.clear();
  ::unlink(options.socketPath.c_str());
  int status = 0;
  if (!options.stateFile.empty()) {
    try {
      saveRack(options.stateFile);
    } catch (const std::exception &e) {
      std::fprintf(stderr, "qbvisa-sim: state not saved: %s\n", e.what());
      status = 1;
    }
  }
  ::close(signalPipe[0]);
  ::close(signalPipe[1]);
  return status;
}

}  // namespace qbsim::server
