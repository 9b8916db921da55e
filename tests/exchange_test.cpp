// One request frame out, one reply back: codes, wire bytes and the reply
// buffer after every outcome, for the plain and the guarded exchange.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

using namespace std::string_literals;
using Exchange = int32_t (*)(uint32_t, uint8_t *, int32_t, uint8_t *);

int32_t guarded(uint32_t session, uint8_t *request, int32_t length,
                uint8_t *reply) {
  return SendRecvMsgLock(session, reinterpret_cast<uint16_t *>(request), length,
                         reply);
}

const std::pair<const char *, Exchange> kExchanges[] = {
    {"plain", SendRecvMsg}, {"guarded", guarded}};

// The chassis first, then instruments that answer "*IDN?" with raw bytes
// whose leading status bytes no chassis firmware would produce.
const struct ReplyCase {
  const char *resource;
  std::string answer;  // empty: the chassis
  uint8_t stale;       // what the reply buffer held before the exchange
  int32_t expected;    // 0: the number of bytes read
} kReplies[] = {
    {"TCPIP0::192.168.1.10::inst0::INSTR", "", 0x00, 0},
    {"GPIB0::11::INSTR", "\xFF\xFF\xFF\x00tail"s, 0x00, 8},
    {"GPIB0::13::INSTR", "\x00\xFF\xFF\xFF"s, 0xFF, 4},
    {"GPIB0::14::INSTR", "\xFF\xFF\xFF\xFFok", 0x00, QBVISA_ERR_DEVICE_FAILURE},
    // Two bytes only: bytes 2 and 3 are whatever the buffer held before.
    {"GPIB0::15::INSTR", "\xFF\xFF", 0xFF, QBVISA_ERR_DEVICE_FAILURE},
    {"GPIB0::16::INSTR", "\xFF\xFF", 0x00, 2},
};
const char *const kChassis = kReplies[0].resource;

class ExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Bench bench;
    for (const ReplyCase &c : kReplies) {
      const auto kind = c.answer.empty() ? qbsim::ResourceKind::Chassis
                                         : qbsim::ResourceKind::Foreign;
      bench.resources.push_back({c.resource, kind, {}, c.answer});
    }
    qbsim::setBench(bench);
    ASSERT_GE(viOpenDefaultRM(&manager_), VI_SUCCESS);
    for (const ReplyCase &c : kReplies) {
      sessions_.push_back(0);
      ASSERT_GE(viOpen(manager_, c.resource, VI_NULL, VI_NULL,
                       &sessions_.back()), VI_SUCCESS);
    }
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
      const std::string request = i == 0 ? "\x05\x00\x00\x00"s : "*IDN?\n"s;
      alignas(2) uint8_t buffer[16] = {};
      std::memcpy(buffer, request.data(), request.size());
      buffer[request.size()] = 0xAA;  // must stay off the wire
      uint8_t reply[QBVISA_REPLY_SIZE];
      std::memset(reply, c.stale, sizeof reply);
      const int32_t result = exchange(
          sessions_[i], buffer, static_cast<int32_t>(request.size()), reply);

      const auto traffic = qbsim::traffic(c.resource);
      ASSERT_EQ(traffic.size(), 2u);
      EXPECT_EQ(std::string(traffic[0].bytes.begin(), traffic[0].bytes.end()),
                request);
      const std::vector<uint8_t> &read = traffic[1].bytes;
      EXPECT_EQ(result, c.expected != 0 ? c.expected
                                        : static_cast<int32_t>(read.size()));
      EXPECT_EQ(std::memcmp(reply, read.data(), read.size()), 0);
    }
  }
}

// Bad arguments never reach the wire; failed transfers give their own code.
// Either way the reply buffer is left alone and the session stays usable.
TEST_F(ExchangeTest, FailsWithItsCodeAndLeavesTheSessionUsable) {
  enum class Bad { None, Session, Request, Reply };
  using F = qbsim::Fault;
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
  const ViSession session = sessions_[0];
  for (const auto &[name, exchange] : kExchanges) {
    for (const auto &c : cases) {
      // A failed guarded write keeps its lock for the rest of the process:
      // the threaded exchange tests check that in a child process.
      if (exchange != SendRecvMsg && c.fault == F::WriteFails) continue;
      SCOPED_TRACE(std::string(name) + ": " + c.name);
      qbsim::clearTraffic(kChassis);
      if (c.fault) qbsim::injectFault(kChassis, *c.fault);
      alignas(2) uint8_t request[4] = {0x05, 0x00, 0x00, 0x00};
      uint8_t reply[QBVISA_REPLY_SIZE];
      std::memset(reply, 0xA5, sizeof reply);
      EXPECT_EQ(exchange(c.bad == Bad::Session ? 0 : session,
                         c.bad == Bad::Request ? nullptr : request, c.length,
                         c.bad == Bad::Reply ? nullptr : reply),
                c.expected);
      EXPECT_EQ(qbsim::writes(kChassis).size(), c.written);
      EXPECT_EQ(reply[0], 0xA5);
      EXPECT_GT(SendRecvMsg(session, request, 4, reply), 0);
    }
  }
}

}  // namespace
