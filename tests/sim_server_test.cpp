// Runs qbvisa-sim on a temporary socket and uses its rack from several
// processes: this test program (the simulated libvisa.so forwarding to the
// server), the qbvisa tool and the qbvisa-sim commands. Every test runs in a
// process of its own (CTest runs each one separately), so QBSIM_SERVER set
// here applies from the first VISA call on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa.h"
#include "visa_api.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

const std::string kRK420 = "GPIB0::5::INSTR";
const std::string kRK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";

fs::path buildDir() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path(); }

struct ProgramRun { int status; std::string out; };

class SimServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qbsim_server_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    socket_ = dir_ / "rack.sock";
    setenv("QBSIM_SERVER", socket_.c_str(), 1);
    unsetenv("QBSIM_BENCH");
  }
  void TearDown() override {
    killServer();
    fs::remove_all(dir_);
  }
  void killServer() {
    if (pid_ > 0) kill(pid_, SIGCONT), kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // Starts the server (no VXI-11: the test shares the machine's network)
  // and waits until its socket answers.
  void start(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {"serve", "--no-lan", "--socket", socket_.string()});
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      std::vector<char *> argv;
      const std::string program = (buildDir() / "sim/qbvisa-sim").string();
      argv.push_back(const_cast<char *>(program.c_str()));
      for (auto &a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    for (int i = 0; i < 200 && !answers(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(answers()) << "qbvisa-sim did not start";
  }

  // A raw connection to the server's socket, or -1.
  int connectRaw() const {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
  }
  bool answers() const {
    const int fd = connectRaw();
    return fd >= 0 && close(fd) == 0;
  }

  // Ends the server as a user would (qbvisa-sim stop, or a signal) and
  // waits for it.
  void stop(int signal = 0) {
    if (signal != 0)
      kill(pid_, signal);
    else
      EXPECT_EQ(program("sim/qbvisa-sim", {"stop"}).status, 0);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  // Runs a program of the build (relative path) with QBSIM_SERVER set.
  ProgramRun program(const std::string &program, const std::vector<std::string> &args) const {
    std::string command = "'" + (buildDir() / program).string() + "'";
    for (const auto &a : args) command += " '" + a + "'";
    const std::string out = (dir_ / "out").string();
    const int raw = std::system((command + " >'" + out + "' 2>&1").c_str());
    std::ifstream in(out);
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, {std::istreambuf_iterator<char>(in), {}}};
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

  fs::path dir_, socket_;
  pid_t pid_ = -1;
};

TEST_F(SimServerTest, TheToolTwiceAndThisProgramSeeOneRack) {
  start();
  ASSERT_EQ(program("tools/qbvisa", {"close", kRK420, "2!3"}).status, 0);
  // A second process starts from what the first one closed.
  ASSERT_EQ(program("tools/qbvisa", {"close", kRK420, "1!1"}).status, 0);
  const ProgramRun show = program("tools/qbvisa", {"show", kRK420});
  EXPECT_THAT(show.out, ContainsRegex("\n 1  X\\.\\.\\.\\.\\.\\.\\.\\.\\. "));
  EXPECT_THAT(show.out, ContainsRegex("\n 2  \\.\\.X\\.\\.\\.\\.\\.\\.\\. "));

  // This program switches through the same server; the tool sees the result
  // and the hooks here read the server's relays.
  const uint32_t session = readyRK420();
  uint32_t word = 1;  // row 1, column 1 (Init opened the others)
  EXPECT_EQ(QBVISA_OpMatrix(session, 0, &word, 1), 0);
  int32_t triples[64 * 3];
  const int closed = qbsim_closed_relays(kRK420.c_str(), triples, 64);
  EXPECT_GT(closed, 0);
  const ProgramRun relays = program("sim/qbvisa-sim", {"relays", kRK420, "--json"});
  EXPECT_EQ(relays.status, 0);
  EXPECT_THAT(relays.out, HasSubstr("\"board\":" + std::to_string(triples[0]) +
                                    ",\"group\":" + std::to_string(triples[1]) +
                                    ",\"bit\":" + std::to_string(triples[2])));
  const ProgramRun after = program("tools/qbvisa", {"show", kRK420});
  EXPECT_THAT(after.out, ContainsRegex("\n 1  X\\.\\.\\.\\.\\.\\.\\.\\.\\. "));
  EXPECT_THAT(after.out, ContainsRegex("\n 2  \\.\\.\\.\\.\\.\\.\\.\\.\\.\\. "));
}

TEST_F(SimServerTest, TheRackSurvivesARestartWithAStateFile) {
  const std::string state = (dir_ / "rack.json").string();
  start({"--state", state});
  ASSERT_EQ(program("tools/qbvisa", {"close", kRK420, "3!4"}).status, 0);
  readyRK420();  // opens every relay again ...
  ASSERT_EQ(program("tools/qbvisa", {"close", kRK420, "3!4"}).status, 0);  // ... closed anew
  uint32_t rk421 = 0;
  ASSERT_EQ(QBVISA_Connect(kRK421.c_str(), &rk421), 0);
  ASSERT_EQ(QBVISA_SetControlMode(rk421, 0), 0);  // local
  const std::string before = program("sim/qbvisa-sim", {"relays", kRK420, "--json"}).out;
  stop(SIGTERM);
  EXPECT_THAT(std::ifstream(state).good(), true);
  EXPECT_FALSE(fs::exists(state + ".tmp"));

  start({"--state", state});
  EXPECT_EQ(program("sim/qbvisa-sim", {"relays", kRK420, "--json"}).out, before);
  EXPECT_THAT(program("sim/qbvisa-sim", {"state", "--json"}).out, HasSubstr("\"controlMode\": 0"));
  // A reset goes back to the saved settings, with every relay open.
  EXPECT_EQ(program("sim/qbvisa-sim", {"reset", kRK420}).status, 0);
  EXPECT_THAT(program("sim/qbvisa-sim", {"relays", kRK420}).out, HasSubstr(": 0 relays closed"));
  EXPECT_THAT(program("sim/qbvisa-sim", {"state", "--json"}).out, HasSubstr("\"controlMode\": 0"));
  stop();
}

TEST_F(SimServerTest, AServerThatIsGoneGivesAVisaErrorWithinTheTimeOut) {
  const struct { const char *name; int signal; } cases[] = {{"hangs", SIGSTOP}, {"killed", SIGKILL}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    start();
    ViSession manager = 0, vi = 0;
    ASSERT_EQ(viOpenDefaultRM(&manager), VI_SUCCESS);
    ASSERT_EQ(viOpen(manager, kRK420.c_str(), 0, 0, &vi), VI_SUCCESS);
    ASSERT_EQ(viSetAttribute(vi, VI_ATTR_TMO_VALUE, 300), VI_SUCCESS);
    kill(pid_, c.signal);
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
  const struct { const char *fault; int32_t code; } cases[] = {
      {"ReadFails", -10005},
      {"Timeout", -10005},
      {"FailureReply", -10049},
      {"WriteFails", -10004},  // last: a failed write leaves the exchange lock taken
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    ASSERT_EQ(program("sim/qbvisa-sim", {"fault", kRK420, c.fault}).status, 0);
    EXPECT_EQ(QBVISA_OpMatrix(session, 0, &word, 1), c.code);
  }
  EXPECT_NE(program("sim/qbvisa-sim", {"fault", kRK420, "Melts"}).status, 0);
  EXPECT_NE(program("sim/qbvisa-sim", {"fault", "GPIB0::30::INSTR", "Timeout"}).status, 0);
}

TEST_F(SimServerTest, BadMessagesCloseTheConnectionOrAnswerAnErrorAndTheServerGoesOn) {
  start();
  const auto le32 = [](uint32_t v) { return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; };
  // closes, else: one reply with VI_ERROR_NSUP_OPER or VI_ERROR_INV_OBJECT
  const struct { const char *name; std::string bytes; bool closes; } cases[] = {
      {"oversized frame", le32(0xFFFFFFF0u) + "x", true},
      {"empty frame", le32(0), true},
      {"arguments cut short", le32(3) + std::string("\x04\x01\x00", 3), true},
      {"trailing bytes", le32(2) + std::string("\x01\x00", 2), true},
      {"unknown operation", le32(1) + "\x7F", false},
      {"another client's session", le32(5) + std::string("\x05\x01\x00\x00\x00", 5), false},
      {"disconnect inside a frame", le32(100) + "half", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const int fd = connectRaw();
    ASSERT_GE(fd, 0);
    timeval wait{0, 300000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    ASSERT_EQ(send(fd, c.bytes.data(), c.bytes.size(), 0), static_cast<ssize_t>(c.bytes.size()));
    char reply[16] = {};
    const ssize_t n = recv(fd, reply, sizeof reply, 0);
    if (c.closes) {
      // Closed at once, or (a frame still incomplete) left waiting.
      EXPECT_LE(n, 0);
    } else {
      ASSERT_EQ(n, 8);
      int32_t status = 0;
      std::memcpy(&status, reply + 4, 4);
      EXPECT_TRUE(status == static_cast<int32_t>(0xBFFF0067u) || status == VI_ERROR_INV_OBJECT);
    }
    close(fd);
  }
  EXPECT_THAT(program("sim/qbvisa-sim", {"relays", kRK420}).out, HasSubstr(": 0 relays closed"));
}

}  // namespace
