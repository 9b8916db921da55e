// The guarded exchange across threads: request/reply pairs never cross, and
// a failed write keeps the lock so that later guarded exchanges wait.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

constexpr const char *kChassis[] = {"TCPIP0::192.168.1.10::inst0::INSTR",
                                    "GPIB0::5::INSTR"};

// Read-only requests whose replies echo the command in bytes 0 and 1.
constexpr uint16_t kQueries[] = {5, 22, 23, 24, 25};

class ExchangeThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Bench bench;
    for (const char *name : kChassis) {
      qbsim::Resource chassis;
      chassis.name = name;
      chassis.chassis.model = qbsim::Model::RK421;
      bench.resources.push_back(chassis);
    }
    qbsim::setBench(bench);
    ASSERT_GE(viOpenDefaultRM(&manager_), VI_SUCCESS);
    for (size_t i = 0; i < std::size(kChassis); ++i)
      ASSERT_GE(viOpen(manager_, kChassis[i], VI_NULL, VI_NULL, &sessions_[i]),
                VI_SUCCESS);
  }
  void TearDown() override { viClose(manager_); }

  ViSession manager_ = 0;
  ViSession sessions_[std::size(kChassis)] = {};
};

// Several threads share one session: with the lock held over write and read,
// every thread reads the answer to its own request.
TEST_F(ExchangeThreadsTest, GuardedPairsNeverCrossOnOneSession) {
  constexpr int kRounds = 300;
  std::atomic<int> crossed{0}, failed{0};
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
  for (const char *name : kChassis) {
    EXPECT_EQ(qbsim::writes(name).size(), std::size(kQueries) * kRounds)
        << name;
  }
}

// What a child process reports through its pipe.
constexpr char kFirstDone = 'A';
constexpr char kSecondDone = 'B';

bool readWithin(int fd, char expected, int milliseconds) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, milliseconds) != 1) return false;
  char got = 0;
  return read(fd, &got, 1) == 1 && got == expected;
}

enum class Outcome { Completes, Blocks, ChildFailed };

// Runs a guarded exchange (with `fault` armed) and then a second exchange
// from another thread, in a child process so that a lock left taken cannot
// hang this process.
Outcome secondExchangeAfter(ViSession session, const char *resource,
                            qbsim::Fault fault, bool armFault,
                            uint32_t firstSession, int32_t firstLength,
                            int32_t expectedFirst, bool secondGuarded) {
  int fds[2];
  if (pipe(fds) != 0) return Outcome::ChildFailed;
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    if (armFault) qbsim::injectFault(resource, fault);
    uint16_t request[2] = {5, 0};
    uint8_t reply[QBVISA_REPLY_SIZE] = {};
    if (SendRecvMsgLock(firstSession, request, firstLength, reply) !=
        expectedFirst)
      _exit(2);
    if (write(fds[1], &kFirstDone, 1) != 1) _exit(3);
    std::thread second([&] {
      uint16_t again[2] = {5, 0};
      uint8_t answer[QBVISA_REPLY_SIZE] = {};
      const int32_t result =
          secondGuarded
              ? SendRecvMsgLock(session, again, 4, answer)
              : SendRecvMsg(session, reinterpret_cast<uint8_t *>(again), 4,
                            answer);
      if (result > 0 && write(fds[1], &kSecondDone, 1) == 1)
        _exit(0);
      _exit(4);
    });
    second.join();
    _exit(5);
  }
  close(fds[1]);
  Outcome outcome = Outcome::ChildFailed;
  if (readWithin(fds[0], kFirstDone, 10000)) {
    outcome = readWithin(fds[0], kSecondDone, 1500) ? Outcome::Completes
                                                     : Outcome::Blocks;
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(fds[0]);
  return outcome;
}

TEST_F(ExchangeThreadsTest, OnlyAFailedWriteLeavesTheLockTaken) {
  struct {
    const char *what;
    bool armFault;
    qbsim::Fault fault;
    bool zeroSession;
    int32_t length;
    int32_t expectedFirst;
    bool secondGuarded;
    Outcome second;
  } const cases[] = {
      {"write fails", true, qbsim::Fault::WriteFails, false, 4,
       QBVISA_ERR_SEND, true, Outcome::Blocks},
      // The plain exchange takes no lock, so it still gets through.
      {"write fails, plain exchange next", true, qbsim::Fault::WriteFails,
       false, 4, QBVISA_ERR_SEND, false, Outcome::Completes},
      {"read fails", true, qbsim::Fault::ReadFails, false, 4,
       QBVISA_ERR_RECEIVE, true, Outcome::Completes},
      {"failure reply", true, qbsim::Fault::FailureReply, false, 4,
       QBVISA_ERR_DEVICE_FAILURE, true, Outcome::Completes},
      {"session 0", false, qbsim::Fault::WriteFails, true, 4, QBVISA_ERR_SEND,
       true, Outcome::Completes},
      {"zero length", false, qbsim::Fault::WriteFails, false, 0,
       QBVISA_ERR_SEND, true, Outcome::Completes},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    // The second exchange goes to the other chassis: the lock is shared by
    // all of them.
    EXPECT_EQ(secondExchangeAfter(sessions_[1], kChassis[0], c.fault,
                                  c.armFault, c.zeroSession ? 0 : sessions_[0],
                                  c.length, c.expectedFirst, c.secondGuarded),
              c.second);
  }
}

}  // namespace
