// Threads of one process share one connection to the rack server, and a
// second process has its own: each session must still read the reply to its
// own request, and the relay hook may run beside them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qbsim.hpp"
#include "rack_server.hpp"
#include "visa_api.h"

namespace {

using SimServerThreadsTest = qbtest::RackServer;

TEST_F(SimServerThreadsTest, EachSessionOfEachThreadReadsItsOwnReplies) {
  start();
  // The child, forked before any thread, runs the same work beside them.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  ViSession manager = 0;
  ASSERT_EQ(viOpenDefaultRM(&manager), VI_SUCCESS);
  // Even threads use the RK420, odd ones the RK421. In this process the
  // even ones ask for the identification text, the odd ones for the identity
  // record (serials 2042x001 = 0x0137_xxxx); the child asks the other way
  // round, so both processes ask each chassis for different replies.
  const char *resources[] = {"GPIB0::5::INSTR", "USB0::0x1A2B::0x0421::RK421001::INSTR"};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k) {
    threads.emplace_back([&, k] {
      ViSession vi = 0;
      if (viOpen(manager, resources[k % 2], 0, 0, &vi) != VI_SUCCESS) {
        ++wrong;
        return;
      }
      const bool text = (k + (child == 0)) % 2 == 0;
      const std::string request = text ? "*IDN?\n" : std::string("\x08\x00\x00\x00", 4);
      for (int i = 0; i < 200; ++i) {
        ViByte reply[400];
        ViUInt32 count = 0;
        viWrite(vi, reinterpret_cast<const ViByte *>(request.data()),
                static_cast<ViUInt32>(request.size()), &count);
        const bool read = viRead(vi, reply, sizeof reply, &count) == VI_SUCCESS;
        const bool own = text ? std::memcmp(reply, k % 2 == 0 ? "QB ,RK420" : "QB ,RK421", 9) == 0
                              : reply[0] == 0x01 && reply[2] == 0x37;
        if (!read || !own) ++wrong;
        if (k == 3) qbsim_closed_relays(resources[0], nullptr, 0);
      }
      viClose(vi);
    });
  }
  for (auto &t : threads) t.join();
  if (child == 0) _exit(wrong.load() == 0 ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the other process: " << status;
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(viClose(manager), VI_SUCCESS);
}

}  // namespace
