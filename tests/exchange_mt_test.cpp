// The guarded exchange across threads: request/reply pairs never cross, and
// a failed write keeps the lock so that later guarded exchanges wait.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

constexpr const char *kChassis[] = {"TCPIP0::192.168.1.10::inst0::INSTR",
                                    "GPIB0::5::INSTR"};

class ExchangeThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Bench bench;
    for (const char *name : kChassis)
      bench.resources.push_back({name, qbsim::ResourceKind::Chassis, {}, {}});
    qbsim::setBench(bench);
    ASSERT_GE(viOpenDefaultRM(&manager_), VI_SUCCESS);
    for (int i = 0; i < 2; ++i)
      ASSERT_GE(viOpen(manager_, kChassis[i], VI_NULL, VI_NULL, &sessions_[i]),
                VI_SUCCESS);
  }
  void TearDown() override { viClose(manager_); }

  ViSession manager_ = 0;
  ViSession sessions_[2] = {};
};

// Several threads share each session: with the lock held over write and
// read, every thread reads the answer to its own request (the replies echo
// the command in bytes 0 and 1).
TEST_F(ExchangeThreadsTest, GuardedPairsNeverCrossOnOneSession) {
  constexpr uint16_t kQueries[] = {5, 22, 23, 24};
  constexpr int kRounds = 200;
  std::atomic<int> failed{0}, crossed{0};
  std::vector<std::thread> threads;
  for (uint16_t command : kQueries) {
    for (ViSession session : sessions_) {
      threads.emplace_back([&, command, session] {
        for (int i = 0; i < kRounds; ++i) {
          uint16_t request[2] = {command, 0};
          uint8_t reply[QBVISA_REPLY_SIZE] = {};
          if (SendRecvMsgLock(session, request, 4, reply) <= 0)
            ++failed;
          else if (reply[0] != command || reply[1] != 0)
            ++crossed;
        }
      });
    }
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(crossed.load(), 0);
  for (const char *name : kChassis)
    EXPECT_EQ(qbsim::writes(name).size(), std::size(kQueries) * kRounds);
}

bool received(int fd, char expected, int milliseconds) {
  pollfd p{fd, POLLIN, 0};
  char got = 0;
  return poll(&p, 1, milliseconds) == 1 && read(fd, &got, 1) == 1 &&
         got == expected;
}

// A first guarded exchange on chassis 0, then a second one from another
// thread on chassis 1 (the lock is shared by all chassis). Runs in a child
// process so that a lock left taken cannot hang the suite; the child writes
// 'A' after the first exchange and 'B' after the second.
TEST_F(ExchangeThreadsTest, OnlyAFailedWriteLeavesTheLockTaken) {
  using F = qbsim::Fault;
  const struct {
    const char *name;
    std::optional<F> fault;
    bool zeroSession, secondGuarded, secondCompletes;
    int32_t firstResult;
  } cases[] = {
      {"write fails", F::WriteFails, false, true, false, QBVISA_ERR_SEND},
      // The plain exchange takes no lock, so it still gets through.
      {"write fails, plain next", F::WriteFails, false, false, true,
       QBVISA_ERR_SEND},
      {"read fails", F::ReadFails, false, true, true, QBVISA_ERR_RECEIVE},
      {"failure reply", F::FailureReply, false, true, true,
       QBVISA_ERR_DEVICE_FAILURE},
      {"session 0", {}, true, true, true, QBVISA_ERR_SEND},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      if (c.fault) qbsim::injectFault(kChassis[0], *c.fault);
      uint16_t request[2] = {5, 0};
      uint8_t reply[QBVISA_REPLY_SIZE] = {};
      if (SendRecvMsgLock(c.zeroSession ? 0 : sessions_[0], request, 4,
                          reply) != c.firstResult ||
          write(fds[1], "A", 1) != 1)
        _exit(2);
      std::thread([&] {
        auto *bytes = reinterpret_cast<uint8_t *>(request);
        const int32_t result =
            c.secondGuarded ? SendRecvMsgLock(sessions_[1], request, 4, reply)
                            : SendRecvMsg(sessions_[1], bytes, 4, reply);
        _exit(result > 0 && write(fds[1], "B", 1) == 1 ? 0 : 3);
      }).join();
      _exit(4);
    }
    close(fds[1]);
    EXPECT_TRUE(received(fds[0], 'A', 10000));
    EXPECT_EQ(received(fds[0], 'B', 1500), c.secondCompletes);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(fds[0]);
  }
}

}  // namespace
