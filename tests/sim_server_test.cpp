// One rack server used from several processes: this program (the simulated
// libvisa.so forwarding to the server), the qbvisa tool and the qbvisa-sim
// commands, each test's transcript compared whole. CTest runs every test in a
// process of its own, so the fixture's QBSIM_SERVER holds from the first call.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "golden.hpp"
#include "rack_server.hpp"
#include "qbsim.hpp"
#include "qbvisa.h"
#include "visa_api.h"

namespace {

namespace fs = std::filesystem;
using qbtest::buildDir;

const std::string kRK420 = "GPIB0::5::INSTR";
const std::string kRK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";

// What the rack's state shows of each instrument: its name and model, its
// control mode and closed relays (the rest is the bench file's).
const char *const kStateKept = "\"(name|model|controlMode|closedRelays)\"";

class SimServerTest : public qbtest::RackServer {
 protected:
  // Ends the server as a user would (qbvisa-sim stop, or a signal) and
  // waits for it.
  void stop(int signal = 0) {
    signal != 0 ? void(kill(pid_, signal)) : run("sim/qbvisa-sim", {"stop"});
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  // Runs a program of the build (relative path) with QBSIM_SERVER set and
  // writes the command, its exit status and output (the lines matching keep)
  // to the transcript.
  void run(const std::string &program, const std::vector<std::string> &args, const char *keep = "") {
    std::string command = "'" + (buildDir() / program).string() + "'";
    log_ += "$ " + fs::path(program).filename().string();
    for (const auto &a : args) command += " '" + a + "'", log_ += " " + a;
    const std::string out = (dir_ / "out").string();
    const int raw = std::system((command + " >'" + out + "' 2>&1").c_str());
    std::ifstream in(out);
    log_ += "\nexit " + std::to_string(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1) + "\n";
    for (std::string line; std::getline(in, line);)
      if (std::regex_search(line, std::regex(keep))) log_ += line + "\n";
  }

  // The library, in this process, connected to the RK420 with slot 0 ready.
  static uint32_t readyRK420() {
    uint32_t session = 0;
    uint64_t kind = 0;
    EXPECT_EQ(QBVISA_Connect(kRK420.c_str(), &session), 0);
    EXPECT_EQ(QBVISA_OpenSpecifiedCard(session, 0, &kind), 0);
    EXPECT_EQ(QBVISA_Init(session, 0), 0);
    return session;
  }

  std::string log_;
};

TEST_F(SimServerTest, TheToolTwiceAndThisProgramSeeOneRack) {
  start();
  // A second process starts from what the first one closed.
  run("tools/qbvisa", {"close", kRK420, "2!3"});
  run("tools/qbvisa", {"close", kRK420, "1!1"});
  run("tools/qbvisa", {"show", kRK420});
  // This program switches through the same server; the tool sees the result
  // and the hooks here read the server's relays.
  const uint32_t session = readyRK420();
  uint32_t word = 1;  // row 1, column 1 (Init opened the others)
  log_ += "here: OpMatrix 1!1: " + std::to_string(QBVISA_OpMatrix(session, 0, &word, 1)) + "\n";
  int32_t t[64 * 3];
  for (int i = 0, n = qbsim_closed_relays(kRK420.c_str(), t, 64); i < n; ++i)
    log_ += "here: relay board " + std::to_string(t[3 * i]) + " group " + std::to_string(t[3 * i + 1]) +
            " bit " + std::to_string(t[3 * i + 2]) + "\n";
  run("sim/qbvisa-sim", {"relays", kRK420, "--json"});
  run("tools/qbvisa", {"show", kRK420});
  qbgolden::expectGolden("sim_server_one_rack.txt", log_);
}

TEST_F(SimServerTest, TheRackSurvivesARestartWithAStateFile) {
  const std::string state = (dir_ / "rack.json").string();
  start({"--state", state});
  run("tools/qbvisa", {"close", kRK420, "3!4"});
  readyRK420();                                   // opens every relay again ...
  run("tools/qbvisa", {"close", kRK420, "3!4"});  // ... closed anew
  uint32_t rk421 = 0;
  ASSERT_EQ(QBVISA_Connect(kRK421.c_str(), &rk421), 0);
  ASSERT_EQ(QBVISA_SetControlMode(rk421, 0), 0);  // local
  run("sim/qbvisa-sim", {"relays", kRK420, "--json"});
  stop(SIGTERM);
  EXPECT_TRUE(std::ifstream(state).good());
  EXPECT_FALSE(fs::exists(state + ".tmp"));
  log_ += "(restarted)\n";
  start({"--state", state});
  run("sim/qbvisa-sim", {"relays", kRK420, "--json"});
  run("sim/qbvisa-sim", {"state", "--json"}, kStateKept);
  // A reset goes back to the saved settings, with every relay open.
  run("sim/qbvisa-sim", {"reset", kRK420});
  run("sim/qbvisa-sim", {"relays", kRK420});
  run("sim/qbvisa-sim", {"state", "--json"}, kStateKept);
  stop();
  qbgolden::expectGolden("sim_server_restart.txt", log_);
}

TEST_F(SimServerTest, AServerThatIsGoneGivesAVisaErrorWithinTheTimeOut) {
  for (const int signal : {SIGSTOP, SIGKILL}) {  // it hangs, it is killed
    SCOPED_TRACE(signal);
    start();
    ViSession manager = 0, vi = 0;
    ASSERT_EQ(viOpenDefaultRM(&manager), VI_SUCCESS);
    ASSERT_EQ(viOpen(manager, kRK420.c_str(), 0, 0, &vi), VI_SUCCESS);
    ASSERT_EQ(viSetAttribute(vi, VI_ATTR_TMO_VALUE, 300), VI_SUCCESS);
    kill(pid_, signal);
    const auto begin = std::chrono::steady_clock::now();
    ViUInt32 count = 0;
    EXPECT_EQ(viWrite(vi, reinterpret_cast<const ViByte *>("*IDN?\n"), 6, &count),
              VI_ERROR_CONN_LOST);
    // Generous: the bound that matters is "not for ever".
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    // Every later call on the lost connection fails at once.
    EXPECT_EQ(viFlush(vi, VI_READ_BUF_DISCARD), VI_ERROR_CONN_LOST);
    killServer();
    EXPECT_EQ(viOpenDefaultRM(&manager), VI_ERROR_SYSTEM_ERROR);
    // A new server is reached by the next open.
    start();
    ASSERT_EQ(viOpenDefaultRM(&manager), VI_SUCCESS);
    EXPECT_EQ(viOpen(manager, kRK420.c_str(), 0, 0, &vi), VI_SUCCESS);
    EXPECT_EQ(viClose(manager), VI_SUCCESS);
    killServer();
  }
}

TEST_F(SimServerTest, FaultsArmedFromOutsideReachTheLibraryAsItsCodes) {
  start();
  const uint32_t session = readyRK420();
  uint32_t word = 1;
  // WriteFails last: a failed write leaves the exchange lock taken.
  for (const char *fault : {"ReadFails", "Timeout", "FailureReply", "WriteFails"}) {
    run("sim/qbvisa-sim", {"fault", kRK420, fault});
    log_ += "here: OpMatrix: " + std::to_string(QBVISA_OpMatrix(session, 0, &word, 1)) + "\n";
  }
  run("sim/qbvisa-sim", {"fault", kRK420, "Melts"});
  run("sim/qbvisa-sim", {"fault", "GPIB0::30::INSTR", "Timeout"});
  qbgolden::expectGolden("sim_server_faults.txt", log_);
}

TEST_F(SimServerTest, BadMessagesCloseTheConnectionOrAnswerAnErrorAndTheServerGoesOn) {
  start();
  const auto le32 = [](uint32_t v) { return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; };
  const std::pair<const char *, std::string> cases[] = {
      {"oversized frame", le32(0xFFFFFFF0u) + "x"},
      {"empty frame", le32(0)},
      {"arguments cut short", le32(3) + std::string("\x04\x01\x00", 3)},
      {"trailing bytes", le32(2) + std::string("\x01\x00", 2)},
      {"unknown operation", le32(1) + "\x7F"},
      {"another client's session", le32(5) + std::string("\x05\x01\x00\x00\x00", 5)},
      {"disconnect inside a frame", le32(100) + "half"},
  };
  for (const auto &[name, bytes] : cases) {
    const int fd = connectRaw();
    ASSERT_GE(fd, 0);
    timeval wait{0, 300000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    char reply[16] = {};
    const ssize_t n = recv(fd, reply, sizeof reply, 0);
    int32_t status = 0;
    std::memcpy(&status, reply + 4, 4);
    // Closed at once, or (a frame still incomplete) left waiting: no reply.
    log_ += "here: " + std::string(name) + ": " +
            (n <= 0 ? "no reply" : std::to_string(n) + " bytes, status " + std::to_string(status)) + "\n";
    close(fd);
  }
  run("sim/qbvisa-sim", {"relays", kRK420});
  qbgolden::expectGolden("sim_server_bad_messages.txt", log_);
}

}  // namespace
