// rack_server.hpp - the rack server of this build (qbvisa-sim) on a socket
// in a temporary directory, which QBSIM_SERVER names for this process and the
// programs it runs; killed, and the directory removed, when the test ends.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace qbtest {

inline std::filesystem::path buildDir() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
}

class RackServer : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qbsim_rack.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern, socket_ = dir_ / "rack.sock";
    setenv("QBSIM_SERVER", socket_.c_str(), 1);
    unsetenv("QBSIM_BENCH");
  }
  void TearDown() override {
    killServer();
    std::filesystem::remove_all(dir_);
  }
  void killServer() {
    if (pid_ > 0) kill(pid_, SIGCONT), kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // Starts the server (no VXI-11: the test shares the machine's network)
  // and waits until its socket answers.
  void start(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {(buildDir() / "sim/qbvisa-sim").string(), "serve", "--no-lan",
                               "--socket", socket_.string()});
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ASSERT_EQ(posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ), 0);
    for (int i = 0; i < 200 && !answers(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(answers()) << "qbvisa-sim did not start";
  }

  // A raw connection to the server's socket, or -1.
  int connectRaw() const {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{AF_UNIX, {}};
    socket_.string().copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    return close(fd), -1;
  }
  bool answers() const {
    const int fd = connectRaw();
    return fd >= 0 && close(fd) == 0;
  }

  std::filesystem::path dir_, socket_;
  pid_t pid_ = -1;
};

}  // namespace qbtest
