// One request frame out, one reply back, plain and guarded: codes, wire bytes
// and the reply buffer after every outcome; a failed guarded write keeps the
// lock; and a soak of many chassis switched and queried at once.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <utility>

#include "bench.hpp"
#include "core/visa_api.h"
#include "qbvisa_ext.h"

namespace {

using namespace std::string_literals;
using F = qbsim::Fault;
using Exchange = int32_t (*)(uint32_t, uint8_t *, int32_t, uint8_t *);
int32_t guarded(uint32_t session, uint8_t *request, int32_t length, uint8_t *reply) {
  return SendRecvMsgLock(session, reinterpret_cast<uint16_t *>(request), length, reply);
}
const std::pair<const char *, Exchange> kExchanges[] = {{"plain", SendRecvMsg}, {"guarded", guarded}};

// Two chassis first, then instruments that answer "*IDN?" with raw bytes
// whose leading status bytes no chassis firmware would produce.
const struct ReplyCase {
  const char *resource;
  std::string answer;  // empty: a chassis
  uint8_t stale;       // what the reply buffer held before the exchange
  int32_t expected;    // 0: the number of bytes read
} kReplies[] = {
    {"TCPIP0::192.168.1.10::inst0::INSTR", "", 0x00, 0},
    {"GPIB0::5::INSTR", "", 0x00, 0},
    {"GPIB0::11::INSTR", "\xFF\xFF\xFF\x00tail"s, 0x00, 8},
    {"GPIB0::13::INSTR", "\x00\xFF\xFF\xFF"s, 0xFF, 4},
    {"GPIB0::14::INSTR", "\xFF\xFF\xFF\xFFok", 0x00, QBVISA_ERR_DEVICE_FAILURE},
    // Two bytes only: bytes 2 and 3 are whatever the buffer held before.
    {"GPIB0::15::INSTR", "\xFF\xFF", 0xFF, QBVISA_ERR_DEVICE_FAILURE},
    {"GPIB0::16::INSTR", "\xFF\xFF", 0x00, 2},
};
const char *const kChassis[] = {kReplies[0].resource, kReplies[1].resource};

class ExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Bench bench;
    for (const ReplyCase &c : kReplies)
      bench.resources.push_back(
          {c.resource, c.answer.empty() ? qbsim::ResourceKind::Chassis : qbsim::ResourceKind::Foreign, {}, c.answer});
    qbsim::setBench(bench);
    ASSERT_GE(viOpenDefaultRM(&manager_), VI_SUCCESS);
    for (const ReplyCase &c : kReplies)
      ASSERT_GE(viOpen(manager_, c.resource, VI_NULL, VI_NULL, &sessions_.emplace_back()), VI_SUCCESS);
  }
  void TearDown() override { viClose(manager_); }

  ViSession manager_ = 0;
  std::vector<ViSession> sessions_;
};

// Exactly `length` bytes go out; the reply lands in the buffer as read and
// only its four leading bytes decide between a count and a failure.
TEST_F(ExchangeTest, SendsLengthBytesAndJudgesTheLeadingReplyBytes) {
  for (const auto &[name, exchange] : kExchanges) {
    for (size_t i = 0; i < std::size(kReplies); ++i) {
      const ReplyCase &c = kReplies[i];
      SCOPED_TRACE(std::string(name) + ": " + c.resource);
      qbsim::clearTraffic(c.resource);
      const std::string request = c.answer.empty() ? "\x05\x00\x00\x00"s : "*IDN?\n"s;
      alignas(2) uint8_t buffer[16] = {};
      std::memcpy(buffer, request.data(), request.size());
      buffer[request.size()] = 0xAA;  // must stay off the wire
      uint8_t reply[QBVISA_REPLY_SIZE];
      std::memset(reply, c.stale, sizeof reply);
      const int32_t result = exchange(sessions_[i], buffer, static_cast<int32_t>(request.size()), reply);
      const auto traffic = qbsim::traffic(c.resource);
      ASSERT_EQ(traffic.size(), 2u);
      EXPECT_EQ(std::string(traffic[0].bytes.begin(), traffic[0].bytes.end()), request);
      const std::vector<uint8_t> &read = traffic[1].bytes;
      EXPECT_EQ(result, c.expected != 0 ? c.expected : static_cast<int32_t>(read.size()));
      EXPECT_EQ(std::memcmp(reply, read.data(), read.size()), 0);
    }
  }
}

// Bad arguments never reach the wire; failed transfers give their own code.
// Either way the reply buffer is left alone and the session stays usable.
TEST_F(ExchangeTest, FailsWithItsCodeAndLeavesTheSessionUsable) {
  enum class Bad { None, Session, Request, Reply };
  const struct {
    const char *name;
    std::optional<F> fault;
    Bad bad;
    int32_t length, expected;
    size_t written;  // requests the chassis received
  } cases[] = {
      {"session 0", {}, Bad::Session, 4, QBVISA_ERR_SEND, 0},
      {"null request", {}, Bad::Request, 4, QBVISA_ERR_SEND, 0},
      {"null reply", {}, Bad::Reply, 4, QBVISA_ERR_SEND, 0},
      {"zero length", {}, Bad::None, 0, QBVISA_ERR_SEND, 0},
      {"negative length", {}, Bad::None, -4, QBVISA_ERR_SEND, 0},
      {"write fails", F::WriteFails, Bad::None, 4, QBVISA_ERR_SEND, 0},
      {"read fails", F::ReadFails, Bad::None, 4, QBVISA_ERR_RECEIVE, 1},
  };
  for (const auto &[name, exchange] : kExchanges) {
    for (const auto &c : cases) {
      // A failed guarded write keeps its lock for the rest of the process:
      // the lock test below checks that in a child process.
      if (exchange != SendRecvMsg && c.fault == F::WriteFails) continue;
      SCOPED_TRACE(std::string(name) + ": " + c.name);
      qbsim::clearTraffic(kChassis[0]);
      if (c.fault) qbsim::injectFault(kChassis[0], *c.fault);
      alignas(2) uint8_t request[4] = {0x05, 0x00, 0x00, 0x00};
      uint8_t reply[QBVISA_REPLY_SIZE];
      std::memset(reply, 0xA5, sizeof reply);
      EXPECT_EQ(exchange(c.bad == Bad::Session ? 0 : sessions_[0], c.bad == Bad::Request ? nullptr : request, c.length,
                         c.bad == Bad::Reply ? nullptr : reply),
                c.expected);
      EXPECT_EQ(qbsim::writes(kChassis[0]).size(), c.written);
      EXPECT_EQ(reply[0], 0xA5);
      EXPECT_GT(SendRecvMsg(sessions_[0], request, 4, reply), 0);
    }
  }
}

// A first guarded exchange on chassis 0, then a second one from another
// thread on chassis 1 (the lock is shared by all chassis). Runs in a child
// process so that a lock left taken cannot hang the suite; the child writes
// 'A' after the first exchange and 'B' after the second.
TEST_F(ExchangeTest, OnlyAFailedWriteLeavesTheLockTaken) {
  const struct {
    const char *name;
    std::optional<F> fault;
    bool zeroSession, secondGuarded, secondCompletes;
    int32_t firstResult;
  } cases[] = {
      {"write fails", F::WriteFails, false, true, false, QBVISA_ERR_SEND},
      // The plain exchange takes no lock, so it still gets through.
      {"write fails, plain next", F::WriteFails, false, false, true, QBVISA_ERR_SEND},
      {"read fails", F::ReadFails, false, true, true, QBVISA_ERR_RECEIVE},
      {"failure reply", F::FailureReply, false, true, true, QBVISA_ERR_DEVICE_FAILURE},
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
      if (SendRecvMsgLock(c.zeroSession ? 0 : sessions_[0], request, 4, reply) != c.firstResult ||
          write(fds[1], "A", 1) != 1)
        _exit(2);
      std::thread([&] {
        const int32_t result = c.secondGuarded ? SendRecvMsgLock(sessions_[1], request, 4, reply)
                                               : SendRecvMsg(sessions_[1], reinterpret_cast<uint8_t *>(request), 4, reply);
        _exit(result > 0 && write(fds[1], "B", 1) == 1 ? 0 : 3);
      }).join();
      _exit(4);
    }
    close(fds[1]);
    const auto received = [&](char expected, int milliseconds) {
      pollfd p{fds[0], POLLIN, 0};
      char got = 0;
      return poll(&p, 1, milliseconds) == 1 && read(fds[0], &got, 1) == 1 && got == expected;
    };
    EXPECT_TRUE(received('A', 10000));
    EXPECT_EQ(received('B', 1500), c.secondCompletes);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(fds[0]);
  }
}

// Soak: five chassis, four threads each, switching and querying for
// QBVISA_SOAK_SECONDS seconds (5 when unset). After every switch a chassis
// holds exactly that pattern's relays, and every query gets its own chassis's
// answer. The library leaves a record unlocked, so the threads of one chassis
// take turns for QBVISA_OpMatrix; their guarded queries need no turn.
using qbsim::Model;
constexpr Model kModels[] = {Model::RK420, Model::RK420B, Model::RK421, Model::RK422, Model::RK423};
constexpr int kThreadsPerChassis = 4, kPatterns = 16;
constexpr uint16_t kIdentityQuery = 8;

struct Chassis {
  qbtest::Connection c;
  std::vector<std::vector<uint32_t>> patterns;
  std::vector<std::vector<qbsim::Relay>> relays;  // closed by each pattern
  std::mutex turn;                                // for QBVISA_OpMatrix
  int last = -1;                                  // pattern now switched
};

// The serial number in an identity answer, one byte per 16-bit word.
uint32_t serialIn(const uint8_t *reply) {
  return uint32_t(reply[0]) << 24 | uint32_t(reply[2]) << 16 | uint32_t(reply[4]) << 8 | reply[6];
}

TEST(SoakThreadsTest, FiveChassisFourThreadsEachKeepTheirFramesApart) {
  const char *seconds = std::getenv("QBVISA_SOAK_SECONDS");
  const int soakSeconds = seconds != nullptr && std::atoi(seconds) > 0 ? std::atoi(seconds) : 5;
  std::vector<qbsim::Resource> bench;
  for (uint32_t c = 0; c < std::size(kModels); ++c) {
    bench.push_back(qbtest::Chassis("GPIB0::" + std::to_string(c + 1) + "::INSTR", kModels[c]));
    bench.back().chassis.serial = 20000001 + c;
  }
  const std::vector<qbtest::Connection> connections = qbtest::connectResources(bench);
  ASSERT_EQ(connections.size(), bench.size());
  std::vector<Chassis> chassis(bench.size());
  // Each pattern (points p, p + step, ...) switched alone first: the relays
  // it must leave closed.
  for (uint32_t c = 0; c < chassis.size(); ++c) {
    Chassis &ch = chassis[c];
    ch.c = connections[c];
    ASSERT_EQ(QBVISA_OpenSpecifiedCard(ch.c.session, 0, nullptr), 0);
    ASSERT_EQ(QBVISA_Init(ch.c.session, 0), 0);
    QBVISA_SlotInfo info{};
    ASSERT_EQ(QBVISA_GetSlotInfo(ch.c.session, 0, &info), 0);
    for (uint32_t k = 0; k < kPatterns; ++k) {
      std::vector<uint32_t> &words = ch.patterns.emplace_back(info.arrayWords, 0);
      for (uint32_t p = (k * 5 + c) % 23; p < info.pointCount && p / 32 < words.size(); p += info.pointCount / 12 + k)
        words[p / 32] |= 1u << (p % 32);
      ASSERT_EQ(QBVISA_OpMatrix(ch.c.session, 0, words.data(), info.arrayWords), 0);
      ch.relays.push_back(qbsim::closedRelays(ch.c.resource));
      ASSERT_FALSE(ch.relays[k].empty());
    }
  }

  std::atomic<bool> stop{false};
  std::atomic<long> switches{0}, queries{0}, wrongRelays{0}, wrongArrays{0}, failedCalls{0}, misrouted{0};
  std::vector<std::thread> threads;
  for (size_t c = 0; c < chassis.size(); ++c) {
    for (int t = 0; t < kThreadsPerChassis; ++t) {
      threads.emplace_back([&, c, t] {
        Chassis &ch = chassis[c];
        std::minstd_rand random(static_cast<unsigned>(c * kThreadsPerChassis + t + 1));
        while (!stop.load(std::memory_order_relaxed)) {
          if (random() % 2 == 0) {
            const int k = static_cast<int>(random() % kPatterns);
            std::vector<uint32_t> &words = ch.patterns[k];
            std::lock_guard turn(ch.turn);
            if (QBVISA_OpMatrix(ch.c.session, 0, words.data(), static_cast<uint32_t>(words.size())) != 0) {
              ++failedCalls;
              continue;
            }
            ch.last = k;
            ++switches;
            wrongRelays += qbsim::closedRelays(ch.c.resource) != ch.relays[k];
            ChassisRecord *record = nullptr;
            wrongArrays += FindChassis(int32_t(ch.c.session), &record) < 0 ||
                           std::memcmp(record->slots[0].lastArray, words.data(), words.size() * 4) != 0;
          } else {
            uint16_t request[2] = {kIdentityQuery, 0};
            uint8_t reply[QBVISA_REPLY_SIZE] = {};
            if (SendRecvMsgLock(ch.c.session, request, 4, reply) <= 0) {
              ++failedCalls;
              continue;
            }
            ++queries;
            misrouted += serialIn(reply) != bench[c].chassis.serial;
          }
        }
      });
    }
  }
  std::this_thread::sleep_for(std::chrono::seconds(soakSeconds));
  stop = true;
  for (std::thread &thread : threads) thread.join();

  EXPECT_EQ(failedCalls, 0);
  EXPECT_EQ(wrongRelays, 0);
  EXPECT_EQ(wrongArrays, 0);
  EXPECT_EQ(misrouted, 0);
  EXPECT_GT(switches, 0);
  EXPECT_GT(queries, 0);
  for (const Chassis &ch : chassis)
    EXPECT_TRUE(ch.last < 0 || qbsim::closedRelays(ch.c.resource) == ch.relays[ch.last]) << ch.c.resource;
  std::printf("%d s: %ld switches, %ld queries over %zu chassis\n", soakSeconds, switches.load(), queries.load(),
              chassis.size());
}

}  // namespace
