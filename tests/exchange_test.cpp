// One request frame out, one reply back: codes, wire bytes and the reply
// buffer after every outcome, for the plain and the guarded exchange.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

using Exchange = int32_t (*)(uint32_t, uint8_t *, int32_t, uint8_t *);

int32_t lockedExchange(uint32_t session, uint8_t *request, int32_t length,
                       uint8_t *reply) {
  return SendRecvMsgLock(session, reinterpret_cast<uint16_t *>(request), length,
                         reply);
}

struct ExchangeKind {
  const char *name;
  Exchange call;
};

const ExchangeKind kExchanges[] = {{"SendRecvMsg", SendRecvMsg},
                                   {"SendRecvMsgLock", lockedExchange}};

constexpr char kChassis[] = "TCPIP0::192.168.1.10::inst0::INSTR";
constexpr uint8_t kControlModeQuery[] = {0x05, 0x00, 0x00, 0x00};

qbsim::Resource foreign(const std::string &name, const std::string &idn) {
  qbsim::Resource r;
  r.name = name;
  r.kind = qbsim::ResourceKind::Foreign;
  r.idn = idn;
  return r;
}

// Instruments that answer "*IDN?" with raw bytes give replies whose leading
// status bytes the chassis firmware would never produce.
struct StatusCase {
  const char *resource;
  std::string answer;
  uint8_t stale;     // what the reply buffer held before the exchange
  int32_t expected;  // the exchange's result
};

const StatusCase kStatusCases[] = {
    {"GPIB0::11::INSTR", std::string("\xFF\xFF\xFF\x00tail", 8), 0x00, 8},
    {"GPIB0::12::INSTR", std::string("\xFF\xFF\xFF\xFE", 4), 0x00, 4},
    {"GPIB0::13::INSTR", std::string("\x00\xFF\xFF\xFF", 4), 0xFF, 4},
    {"GPIB0::14::INSTR", std::string("\xFF\xFF\xFF\xFFtail", 8), 0x00,
     QBVISA_ERR_DEVICE_FAILURE},
    // Two bytes only: bytes 2 and 3 are whatever the buffer held before.
    {"GPIB0::15::INSTR", std::string("\xFF\xFF", 2), 0xFF,
     QBVISA_ERR_DEVICE_FAILURE},
    {"GPIB0::16::INSTR", std::string("\xFF\xFF", 2), 0x00, 2},
};

class ExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Bench bench;
    qbsim::Resource chassis;
    chassis.name = kChassis;
    chassis.chassis.model = qbsim::Model::RK421;
    bench.resources.push_back(chassis);
    for (const StatusCase &c : kStatusCases)
      bench.resources.push_back(foreign(c.resource, c.answer));
    qbsim::setBench(bench);
    ASSERT_GE(viOpenDefaultRM(&manager_), VI_SUCCESS);
    session_ = open(kChassis);
  }
  void TearDown() override { viClose(manager_); }

  ViSession open(const char *resource) {
    ViSession session = 0;
    EXPECT_GE(viOpen(manager_, resource, VI_NULL, VI_NULL, &session),
              VI_SUCCESS);
    return session;
  }

  ViSession manager_ = 0;
  ViSession session_ = 0;
};

TEST_F(ExchangeTest, SendsLengthBytesAndReturnsTheCountRead) {
  for (const ExchangeKind &exchange : kExchanges) {
    SCOPED_TRACE(exchange.name);
    qbsim::clearTraffic(kChassis);
    // Bytes past `length` must stay off the wire.
    alignas(2) uint8_t request[8] = {0x05, 0x00, 0x00, 0x00, 0xAA, 0xBB};
    uint8_t reply[QBVISA_REPLY_SIZE] = {};
    const int32_t result = exchange.call(session_, request, 4, reply);

    const auto traffic = qbsim::traffic(kChassis);
    ASSERT_EQ(traffic.size(), 2u);
    EXPECT_TRUE(traffic[0].write);
    EXPECT_EQ(traffic[0].bytes,
              std::vector<uint8_t>(std::begin(kControlModeQuery),
                                   std::end(kControlModeQuery)));
    EXPECT_FALSE(traffic[1].write);
    EXPECT_EQ(result, static_cast<int32_t>(traffic[1].bytes.size()));
    EXPECT_EQ(std::memcmp(reply, traffic[1].bytes.data(),
                          traffic[1].bytes.size()),
              0);
    EXPECT_EQ(reply[0], 0x05);
    EXPECT_EQ(reply[2], 1);  // remote control
  }
}

TEST_F(ExchangeTest, RefusesBadArgumentsBeforeTheWire) {
  struct {
    const char *what;
    bool zeroSession;
    bool nullRequest;
    int32_t length;
    bool nullReply;
  } const cases[] = {
      {"session 0", true, false, 4, false},
      {"null request", false, true, 4, false},
      {"zero length", false, false, 0, false},
      {"negative length", false, false, -4, false},
      {"null reply", false, false, 4, true},
  };
  for (const ExchangeKind &exchange : kExchanges) {
    for (const auto &c : cases) {
      SCOPED_TRACE(std::string(exchange.name) + ": " + c.what);
      qbsim::clearTraffic(kChassis);
      alignas(2) uint8_t request[4] = {0x05, 0x00, 0x00, 0x00};
      uint8_t reply[QBVISA_REPLY_SIZE] = {};
      EXPECT_EQ(exchange.call(c.zeroSession ? 0 : session_,
                              c.nullRequest ? nullptr : request, c.length,
                              c.nullReply ? nullptr : reply),
                QBVISA_ERR_SEND);
      EXPECT_TRUE(qbsim::traffic(kChassis).empty());
    }
  }
}

TEST_F(ExchangeTest, MapsEachFailureToItsCode) {
  struct {
    const char *what;
    qbsim::Fault fault;
    int32_t expected;
    std::vector<uint8_t> replyStart;  // reply buffer afterwards
  } const cases[] = {
      {"read fails", qbsim::Fault::ReadFails, QBVISA_ERR_RECEIVE,
       {0xA5, 0xA5, 0xA5, 0xA5}},
      {"read times out", qbsim::Fault::Timeout, QBVISA_ERR_RECEIVE,
       {0xA5, 0xA5, 0xA5, 0xA5}},
      // The failure reply stays in the buffer for the caller to inspect.
      {"failure reply", qbsim::Fault::FailureReply, QBVISA_ERR_DEVICE_FAILURE,
       {0xFF, 0xFF, 0xFF, 0xFF, 0x00}},
      {"two-byte reply", qbsim::Fault::ShortReply, 2, {0x05, 0x00, 0xA5, 0xA5}},
  };
  for (const ExchangeKind &exchange : kExchanges) {
    for (const auto &c : cases) {
      SCOPED_TRACE(std::string(exchange.name) + ": " + c.what);
      qbsim::injectFault(kChassis, c.fault);
      alignas(2) uint8_t request[4] = {0x05, 0x00, 0x00, 0x00};
      uint8_t reply[QBVISA_REPLY_SIZE];
      std::memset(reply, 0xA5, sizeof reply);
      EXPECT_EQ(exchange.call(session_, request, 4, reply), c.expected);
      EXPECT_EQ(std::vector<uint8_t>(reply, reply + c.replyStart.size()),
                c.replyStart);
    }
  }
}

// The guarded form never meets a failed write here: it would keep its lock
// for the rest of the process (see the threaded exchange tests).
TEST_F(ExchangeTest, PlainExchangeReportsAFailedWriteWithoutReading) {
  qbsim::clearTraffic(kChassis);
  qbsim::injectFault(kChassis, qbsim::Fault::WriteFails);
  uint8_t request[4] = {0x05, 0x00, 0x00, 0x00};
  uint8_t reply[QBVISA_REPLY_SIZE];
  std::memset(reply, 0xA5, sizeof reply);
  EXPECT_EQ(SendRecvMsg(session_, request, 4, reply), QBVISA_ERR_SEND);
  EXPECT_TRUE(qbsim::traffic(kChassis).empty());
  EXPECT_EQ(reply[0], 0xA5);
  // The session is still usable.
  EXPECT_GT(SendRecvMsg(session_, request, 4, reply), 0);
}

TEST_F(ExchangeTest, JudgesOnlyTheFourLeadingBytes) {
  for (const ExchangeKind &exchange : kExchanges) {
    for (const StatusCase &c : kStatusCases) {
      SCOPED_TRACE(std::string(exchange.name) + ": " + c.resource);
      const ViSession session = open(c.resource);
      alignas(2) uint8_t request[] = {'*', 'I', 'D', 'N', '?', '\n'};
      uint8_t reply[QBVISA_REPLY_SIZE];
      std::memset(reply, c.stale, sizeof reply);
      EXPECT_EQ(exchange.call(session, request, sizeof request, reply),
                c.expected);
      EXPECT_EQ(std::memcmp(reply, c.answer.data(), c.answer.size()), 0);
      viClose(session);
    }
  }
}

}  // namespace
