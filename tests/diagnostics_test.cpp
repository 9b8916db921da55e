// Self-test, board presence, SPI loop-back and firmware update on the
// simulated bench.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "support/admin_bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using admin_bench::Commands;
using admin_bench::ConnectOne;
using admin_bench::kUnknownSession;
using admin_bench::Words;
using Bytes = std::vector<uint8_t>;
using Flags = std::array<uint8_t, 4>;

const std::string kName = "TCPIP0::192.168.1.30::INSTR";

uint32_t Connect(Flags boards = {1, 1, 1, 1}, Flags loops = {1, 1, 1, 1}, bool reject = false) {
  qbsim::Resource resource = admin_bench::Chassis(kName, qbsim::Model::RK422);
  resource.chassis.boardInPlace = boards;
  resource.chassis.spiLoop = loops;
  resource.chassis.rejectUpdate = reject;
  return ConnectOne(resource);
}

TEST(SelfTest, VerdictTextAndCode) {
  const std::tuple<Flags, Flags, uint8_t, int32_t, const char *> cases[] = {
      {{1, 1, 1, 1}, {1, 1, 1, 1}, 0, 0, "Self Test Pass"},
      {{1, 0, 1, 1}, {1, 1, 1, 1}, 0, 0, "Self Test Pass"},
      {{1, 0, 1, 1}, {1, 1, 1, 1}, 1, QBVISA_ERR_CARD_IN_PLACE, "Self Test Fail: board missing"},
      {{1, 1, 1, 1}, {1, 1, 0, 1}, 2, QBVISA_ERR_SPI_LOOP, "Self Test Fail: SPI loop broken"},
      {{0, 1, 1, 1}, {0, 1, 1, 1}, 0, QBVISA_ERR_CARD_IN_PLACE,
       "Self Test Fail: board missing SPI loop broken"},
  };
  for (const auto &[boards, loops, slot, expected, verdict] : cases) {
    SCOPED_TRACE(verdict);
    const uint32_t session = Connect(boards, loops);
    char text[64];
    EXPECT_EQ(QBVISA_SelfTest(session, slot, text, sizeof text), expected);
    EXPECT_STREQ(text, verdict);
    EXPECT_EQ(qbsim::writes(kName), (std::vector<Bytes>{{80, 0, 0, 0, slot, 0}}));
  }
}

TEST(SelfTest, TextIsBoundedByTheCallersLength) {
  const uint32_t session = Connect({0, 1, 1, 1});
  for (const uint64_t length : {0u, 1u, 10u, 15u}) {
    char text[20];
    std::fill(std::begin(text), std::end(text), '#');
    EXPECT_EQ(QBVISA_SelfTest(session, 0, text, length), QBVISA_ERR_CARD_IN_PLACE);
    const std::string written(text, std::find(text, text + 20, '#'));
    const std::string verdict = "Self Test Fail:";
    EXPECT_EQ(written, length == 0 ? "" : verdict.substr(0, length - 1) + '\0') << length;
  }
}

TEST(BoardInPlace, OnePositionAndAllFour) {
  const uint32_t session = Connect({1, 0, 1, 0});
  for (uint64_t position = 0; position < 4; ++position) {
    EXPECT_EQ(QBVISA_BoardInPlace(session, position),
              position % 2 == 0 ? 0 : QBVISA_ERR_CARD_IN_PLACE);
  }
  int32_t values[5] = {9, 9, 9, 9, 9};
  uint32_t count = 0;
  ASSERT_EQ(QBVISA_BoardInPlaceInfo(session, values, &count), 0);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(std::vector<int32_t>(values, values + 5), (std::vector<int32_t>{1, 0, 1, 0, 9}));
  EXPECT_EQ(qbsim::writes(kName), std::vector<Bytes>(5, Bytes{81, 0, 0, 0}));
}

TEST(SPILoopTestInfo, ABrokenLoopIsAResultNotAnError) {
  const uint32_t session = Connect({1, 1, 1, 1}, {1, 0, 0, 1});
  int32_t values[4] = {};
  uint32_t count = 0;
  ASSERT_EQ(QBVISA_SPILoopTestInfo(session, 2, values, &count), 0);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(std::vector<int32_t>(values, values + 4), (std::vector<int32_t>{1, 0, 0, 1}));
  EXPECT_EQ(qbsim::writes(kName), (std::vector<Bytes>{{82, 0, 0, 0, 2, 0}}));
}

TEST(Diagnostics, ArgumentsThenSessionAndNothingSent) {
  const uint32_t session = Connect();
  int32_t values[4];
  uint32_t count;
  char text[32];
  for (const uint32_t s : {session, kUnknownSession}) {
    EXPECT_EQ(QBVISA_SelfTest(s, 3, text, sizeof text), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_SelfTest(s, 0, nullptr, 8), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_BoardInPlace(s, 4), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_BoardInPlaceInfo(s, nullptr, &count), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_BoardInPlaceInfo(s, values, nullptr), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_SPILoopTestInfo(s, 3, values, &count), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(QBVISA_OnlineUpdate(s, nullptr), QBVISA_ERR_PARAMETER);
  }
  EXPECT_TRUE(qbsim::writes(kName).empty());
  EXPECT_EQ(QBVISA_SelfTest(kUnknownSession, 0, text, sizeof text), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_BoardInPlace(kUnknownSession, 0), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_BoardInPlaceInfo(kUnknownSession, values, &count), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_SPILoopTestInfo(kUnknownSession, 0, values, &count), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_OnlineUpdate(kUnknownSession, "/nonexistent"), QBVISA_ERR_HANDLE);
}

// Exchange errors pass through, and a reply too short to carry the flags is
// never read as a clean result; the caller's outputs stay untouched.
TEST(Diagnostics, ExchangeFailuresAndShortReplies) {
  const uint32_t session = Connect();
  const std::pair<qbsim::Fault, int32_t> cases[] = {
      {qbsim::Fault::WriteFails, QBVISA_ERR_SEND},
      {qbsim::Fault::ReadFails, QBVISA_ERR_RECEIVE},
      {qbsim::Fault::FailureReply, QBVISA_ERR_DEVICE_FAILURE},
      {qbsim::Fault::ShortReply, QBVISA_ERR_RECEIVE},
  };
  for (const auto &[fault, expected] : cases) {
    SCOPED_TRACE(expected);
    char text[32] = "kept";
    int32_t values[4] = {7, 7, 7, 7};
    uint32_t count = 0;
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(QBVISA_SelfTest(session, 0, text, sizeof text), expected);
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(QBVISA_BoardInPlace(session, 0), expected);
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(QBVISA_BoardInPlaceInfo(session, values, &count), expected);
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(QBVISA_SPILoopTestInfo(session, 0, values, &count), expected);
    EXPECT_STREQ(text, "kept");
    EXPECT_EQ(values[0], 7);
    EXPECT_EQ(count, 0u);
  }
}

class OnlineUpdate : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qbvisa-update-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (const auto &file : files_) std::remove(file.c_str());
    rmdir(dir_.c_str());
  }
  // Writes an image of `size` patterned bytes; returns its path.
  std::string File(size_t size, Bytes *image = nullptr) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
    const std::string path = dir_ + "/image" + std::to_string(files_.size());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(size));
    files_.push_back(path);
    if (image != nullptr) *image = std::move(bytes);
    return path;
  }
  std::string dir_;
  std::vector<std::string> files_;
};

TEST_F(OnlineUpdate, StreamsTheImageInChunksAndTheChassisTakesIt) {
  const uint32_t session = Connect();
  for (const size_t size : {1u, 1024u, 2048u, 2500u}) {
    SCOPED_TRACE(size);
    qbsim::clearTraffic(kName);
    Bytes image;
    ASSERT_EQ(QBVISA_OnlineUpdate(session, File(size, &image).c_str()), 0);
    EXPECT_EQ(qbsim::firmwareImage(kName), image);

    const auto writes = qbsim::writes(kName);
    const size_t chunks = (size + 1023) / 1024;
    ASSERT_EQ(writes.size(), chunks + 2);
    EXPECT_EQ(Words(writes.front()), (std::vector<uint16_t>{96, 0, static_cast<uint16_t>(size), 0}));
    for (size_t i = 0; i < chunks; ++i) {
      const size_t length = std::min<size_t>(1024, size - i * 1024);
      const Bytes &frame = writes[i + 1];
      EXPECT_EQ(Words(frame)[0], 97);
      EXPECT_EQ(Words(frame)[1], length);  // the length field carries the chunk size
      EXPECT_EQ(Bytes(frame.begin() + 4, frame.end()),
                Bytes(image.begin() + i * 1024, image.begin() + i * 1024 + length));
    }
    const uint32_t sum = std::accumulate(image.begin(), image.end(), 0u);
    EXPECT_EQ(Words(writes.back()), (std::vector<uint16_t>{98, 0, static_cast<uint16_t>(sum),
                                                          static_cast<uint16_t>(sum >> 16)}));
  }
}

TEST_F(OnlineUpdate, FilesThatCannotBeSentSendNothing) {
  const uint32_t session = Connect();
  EXPECT_EQ(QBVISA_OnlineUpdate(session, (dir_ + "/missing").c_str()), QBVISA_ERR_UPDATE_FILE);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, dir_.c_str()), QBVISA_ERR_UPDATE_FILE);  // a directory
  EXPECT_EQ(QBVISA_OnlineUpdate(session, File(0).c_str()), QBVISA_ERR_PARAMETER);
  EXPECT_TRUE(qbsim::writes(kName).empty());
}

TEST_F(OnlineUpdate, ChassisRefusals) {
  uint32_t session = Connect({1, 1, 1, 1}, {1, 1, 1, 1}, true);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, File(1500).c_str()), QBVISA_ERR_UPDATE_CHECK);
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{96, 97, 97, 98}));
  EXPECT_TRUE(qbsim::firmwareImage(kName).empty());

  // An image beyond the chassis's flash is refused at once (sparse file).
  session = Connect();
  const std::string huge = File(0);
  ASSERT_EQ(truncate(huge.c_str(), 17 << 20), 0);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, huge.c_str()), QBVISA_ERR_UPDATE_CHECK);
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{96}));
}

// Faults in the middle of the stream end the update with an error, and the
// chassis never takes the image.
TEST_F(OnlineUpdate, FaultsMidStream) {
  const std::string path = File(3000);
  const std::pair<std::function<void(Bytes &)>, int32_t> cases[] = {
      {[](Bytes &frame) { frame[100] ^= 0x40; }, QBVISA_ERR_UPDATE_CHECK},  // corrupted in flight
      {[](Bytes &frame) { frame[2] = frame[3] = 0; }, QBVISA_ERR_UPDATE_CHECK},  // chunk refused
      {[](Bytes &) { qbsim::injectFault(kName, qbsim::Fault::ReadFails); }, QBVISA_ERR_RECEIVE},
      {[](Bytes &) { qbsim::injectFault(kName, qbsim::Fault::ShortReply); }, QBVISA_ERR_RECEIVE},
  };
  for (const auto &[onSecondChunk, expected] : cases) {
    SCOPED_TRACE(expected);
    const uint32_t session = Connect();
    wire_tap::Scope tap;
    int index = 0;
    wire_tap::onWrite = [&, hook = onSecondChunk](Bytes &frame) {
      if (index++ == 2) hook(frame);
    };
    EXPECT_EQ(QBVISA_OnlineUpdate(session, path.c_str()), expected);
    EXPECT_TRUE(qbsim::firmwareImage(kName).empty());
  }
}

// The library checks the chassis's own sum, not only its verdict.
TEST_F(OnlineUpdate, SumReportedByTheChassisMustMatch) {
  const uint32_t session = Connect();
  wire_tap::Scope tap;
  bool endSent = false;
  wire_tap::onWrite = [&](Bytes &frame) { endSent = frame[0] == 98; };
  wire_tap::onRead = [&](uint8_t *reply, uint32_t count) {
    if (endSent && count >= 8) reply[4] ^= 1;
  };
  EXPECT_EQ(QBVISA_OnlineUpdate(session, File(700).c_str()), QBVISA_ERR_UPDATE_CHECK);
}

}  // namespace
