// Threads of one process share one connection to the rack server: each
// session must still read the reply to its own request, and the relay hook
// may run beside them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qbsim.hpp"
#include "visa_api.h"

namespace {

namespace fs = std::filesystem;

TEST(SimServerThreadsTest, EachSessionOfEachThreadReadsItsOwnReplies) {
  char pattern[] = "/tmp/qbsim_server_mt_test.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  const std::string socket = (dir / "rack.sock").string();
  const std::string sim =
      (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim/qbvisa-sim").string();
  setenv("QBSIM_SERVER", socket.c_str(), 1);
  unsetenv("QBSIM_BENCH");
  ASSERT_EQ(std::system(("'" + sim + "' serve --no-lan --background --socket '" + socket + "'").c_str()),
            0);

  ViSession manager = 0;
  ASSERT_EQ(viOpenDefaultRM(&manager), VI_SUCCESS);
  // Even threads ask the RK420 for its identification text, odd ones the
  // RK421 for its identity record (serial 20421001 = 0x0137_9989).
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
      const std::string request = k % 2 == 0 ? "*IDN?\n" : std::string("\x08\x00\x00\x00", 4);
      for (int i = 0; i < 200; ++i) {
        ViByte reply[400];
        ViUInt32 count = 0;
        viWrite(vi, reinterpret_cast<const ViByte *>(request.data()),
                static_cast<ViUInt32>(request.size()), &count);
        const bool read = viRead(vi, reply, sizeof reply, &count) == VI_SUCCESS;
        const bool own = k % 2 == 0 ? std::memcmp(reply, "QB ,RK420", 9) == 0
                                    : reply[0] == 0x01 && reply[2] == 0x37;
        if (!read || !own) ++wrong;
        if (k == 3) qbsim_closed_relays(resources[0], nullptr, 0);
      }
      viClose(vi);
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(viClose(manager), VI_SUCCESS);
  EXPECT_EQ(std::system(("'" + sim + "' stop --socket '" + socket + "'").c_str()), 0);
  fs::remove_all(dir);
}

}  // namespace
