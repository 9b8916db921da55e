// main.cpp - qbvisa-sim: serves one simulated rack to every process (the
// simulated libvisa.so with QBSIM_SERVER set, and VXI-11 LAN clients), and
// looks at or changes that rack from the command line.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "remote.hpp"
#include "server.hpp"

namespace {

using qbsim::detail::Op;
using qbsim::detail::RemoteRack;

std::string defaultSocket() {
  if (const char *named = std::getenv("QBSIM_SERVER"); named != nullptr && *named != '\0')
    return named;
  return "/tmp/qbvisa-sim-" + std::to_string(::getuid()) + ".sock";
}

// Sends one control request; prints why on failure. Exit status 1 when the
// server refuses or cannot be reached.
bool ask(const std::string &socket, qbsim::wire::Writer request, qbsim::wire::Bytes &reply,
         const std::string &refusal) {
  RemoteRack rack(socket);
  auto body = rack.call(request.data(), 5000, true);
  if (!body || body->size() < 4) {
    std::cerr << "qbvisa-sim: no rack server answers on " << socket << "\n";
    return false;
  }
  reply = std::move(*body);
  if (qbsim::wire::Reader(reply.data(), reply.size()).i32() < 0) {
    std::cerr << "qbvisa-sim: " << refusal << "\n";
    return false;
  }
  return true;
}

qbsim::wire::Writer request(Op op) {
  qbsim::wire::Writer w;
  w.u8(static_cast<uint8_t>(op));
  return w;
}

qbsim::wire::Reader after(const qbsim::wire::Bytes &reply) {
  qbsim::wire::Reader in(reply.data(), reply.size());
  in.i32();
  return in;
}

int showRelays(const std::string &socket, const std::string &resource, bool json) {
  qbsim::wire::Bytes reply, geometry;
  const std::string refusal = resource + " is not a chassis of the rack";
  if (!ask(socket, request(Op::Relays).text(resource), reply, refusal) ||
      !ask(socket, request(Op::Geometry).text(resource), geometry, refusal))
    return 1;
  auto in = after(reply);
  auto g = after(geometry);
  const int boards = g.i32(), groups = g.i32();
  nlohmann::ordered_json closed = nlohmann::ordered_json::array();
  const uint32_t n = in.u32();
  for (uint32_t i = 0; i < n && in.ok(); ++i) {
    const int board = in.i32(), group = in.i32(), bit = in.i32();
    closed.push_back({{"board", board}, {"group", group}, {"bit", bit}});
  }
  if (json) {
    nlohmann::ordered_json out = {
        {"resource", resource}, {"boards", boards}, {"groupsPerBoard", groups}, {"closed", closed}};
    std::cout << out.dump() << "\n";
    return 0;
  }
  std::cout << resource << ": " << closed.size() << " relay" << (closed.size() == 1 ? "" : "s")
            << " closed (" << boards << " boards of " << groups << " bit groups)\n";
  for (const auto &r : closed)
    std::cout << "  board " << r["board"] << " group " << r["group"] << " bit " << r["bit"] << "\n";
  return 0;
}

int showState(const std::string &socket, bool json) {
  qbsim::wire::Bytes reply;
  if (!ask(socket, request(Op::StateJson), reply, "the rack's state cannot be read")) return 1;
  const std::string text = after(reply).text();
  if (json) {
    std::cout << text;
    return 0;
  }
  const auto bench = nlohmann::json::parse(text);
  for (const auto &r : bench["resources"]) {
    std::cout << r["name"].get<std::string>() << "  " << r.value("kind", "chassis");
    if (r.contains("chassis")) {
      const auto &c = r["chassis"];
      std::cout << " " << c["model"].get<std::string>() << "  serial " << c["serial"] << "  "
                << (c["controlMode"] == 0 ? "local" : "remote") << "  "
                << (c.contains("closedRelays") ? c["closedRelays"].size() : 0) << " relays closed";
    }
    std::cout << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{
      "qbvisa-sim: one simulated rack shared by every process, also a VXI-11 LAN "
      "instrument.\nStart it with `serve`, then set QBSIM_SERVER to its socket: the "
      "simulated libvisa.so of every process (the qbvisa tool, tests, bindings) then "
      "uses that rack."};
  app.require_subcommand(1);
  app.fallthrough();  // --socket also after the command
  std::string socket = defaultSocket();
  app.add_option("--socket", socket,
                 "the server's Unix socket (default: $QBSIM_SERVER, else " + defaultSocket() + ")");

  qbsim::server::Options options;
  bool noLan = false;
  CLI::App *serve = app.add_subcommand("serve", "Hold the rack and serve it until stopped");
  serve->add_option("--bench", options.benchFile, "bench file (default: $QBSIM_BENCH or built-in)");
  serve->add_option("--state", options.stateFile,
                    "keep the rack in FILE: read on start if present, written on exit");
  serve->add_option("--listen", options.listenAddress, "address for VXI-11 (default 127.0.0.1)");
  serve->add_option("--portmap-port", options.portMapperPort, "port mapper port (default 111)");
  serve->add_option("--vxi11-port", options.corePort, "VXI-11 core channel port (default: any)");
  serve->add_flag("--no-lan", noLan, "do not serve VXI-11");
  serve->add_flag("--background", options.background,
                  "return once the server listens; it goes on in the background");

  std::string resource, kind;
  bool json = false;
  CLI::App *relays = app.add_subcommand("relays", "Closed relays of a chassis (board, group, bit)");
  relays->add_option("resource", resource, "VISA resource name")->required();
  relays->add_flag("--json", json, "machine-readable output");
  CLI::App *state = app.add_subcommand("state", "Every instrument with its live state");
  state->add_flag("--json", json, "the rack as a bench file (with closed relays)");
  CLI::App *fault = app.add_subcommand(
      "fault", "Arm a fault: WriteFails, ReadFails, FailureReply, ShortReply, Timeout, Vanish");
  fault->add_option("resource", resource, "VISA resource name")->required();
  fault->add_option("kind", kind, "fault name")->required();
  CLI::App *reset = app.add_subcommand("reset", "Put one instrument (or all) back as described");
  reset->add_option("resource", resource, "VISA resource name (default: every instrument)");
  CLI::App *stop = app.add_subcommand("stop", "End the server (it saves its --state file)");

  CLI11_PARSE(app, argc, argv);

  qbsim::wire::Bytes reply;
  if (serve->parsed()) {
    options.socketPath = socket;
    options.lan = !noLan;
    // This process is the rack: nothing in it may forward to a server.
    ::unsetenv("QBSIM_SERVER");
    return qbsim::server::serve(options);
  }
  if (relays->parsed()) return showRelays(socket, resource, json);
  if (state->parsed()) return showState(socket, json);
  if (fault->parsed())
    return ask(socket, request(Op::Fault).text(resource).text(kind), reply,
               "cannot arm " + kind + " on " + resource)
               ? 0
               : 1;
  if (reset->parsed()) {
    auto w = resource.empty() ? request(Op::Reset) : request(Op::ResetResource).text(resource);
    return ask(socket, w, reply, "cannot reset " + (resource.empty() ? "the rack" : resource)) ? 0
                                                                                               : 1;
  }
  if (stop->parsed())
    return ask(socket, request(Op::Stop), reply, "cannot stop the server") ? 0 : 1;
  return 2;
}
