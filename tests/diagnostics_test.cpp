// Self-test, board presence, SPI loop-back and firmware update on the
// simulated bench.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <numeric>

#include "bench.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using namespace std::string_literals;
using Bytes = std::vector<uint8_t>;
using Flags = std::array<uint8_t, 4>;
using Call = int32_t (*)(uint32_t);

const std::string kName = "TCPIP0::192.168.1.30::INSTR";

uint32_t Connect(Flags boards = {1, 1, 1, 1}, Flags loops = {1, 1, 1, 1}, bool rejectUpdate = false) {
  qbsim::Resource resource = Chassis(kName, qbsim::Model::RK422);
  resource.chassis.boardInPlace = boards;
  resource.chassis.spiLoop = loops;
  resource.chassis.rejectUpdate = rejectUpdate;
  return ConnectOne(resource);
}

TEST(SelfTest, VerdictTextAndCode) {
  const struct { Flags boards, loops; uint8_t slot; int32_t expected; const char *verdict; } cases[] = {
      {{1, 0, 1, 1}, {1, 1, 1, 1}, 1, QBVISA_ERR_CARD_IN_PLACE, "Self Test Fail: board missing"},
      {{1, 1, 1, 1}, {1, 1, 0, 1}, 2, QBVISA_ERR_SPI_LOOP, "Self Test Fail: SPI loop broken"},
      {{0, 1, 1, 1}, {0, 1, 1, 1}, 0, QBVISA_ERR_CARD_IN_PLACE, "Self Test Fail: board missing SPI loop broken"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.verdict);
    char text[64];
    EXPECT_EQ(QBVISA_SelfTest(Connect(c.boards, c.loops), c.slot, text, sizeof text), c.expected);
    EXPECT_STREQ(text, c.verdict);
    EXPECT_EQ(qbsim::writes(kName), (std::vector<Bytes>{{80, 0, 0, 0, c.slot, 0}}));
  }
  // The verdict is cut to the caller's length, NUL included.
  const uint32_t session = Connect({0, 1, 1, 1});
  for (const auto &[length, written] : {std::pair{0u, "####"s}, {6u, "Self \0#"s}}) {
    char text[8] = "#######";
    EXPECT_EQ(QBVISA_SelfTest(session, 0, text, length), QBVISA_ERR_CARD_IN_PLACE);
    EXPECT_EQ(std::string(text, written.size()), written) << length;
  }
}

TEST(BoardsAndLoops, FlagsOfFourPositions) {
  const uint32_t session = Connect({0, 1, 0, 1}, {1, 0, 0, 1});
  qbtest::Scope tap;  // replies just long enough for the four flags will do
  qbtest::onRead = [](uint8_t *, uint32_t &count) { count = std::min(count, 6u); };
  for (uint64_t position = 0; position < 4; ++position) {
    EXPECT_EQ(QBVISA_BoardInPlace(session, position), position % 2 == 1 ? 0 : QBVISA_ERR_CARD_IN_PLACE);
  }
  int32_t values[5] = {9, 9, 9, 9, 9};
  uint32_t count = 0;
  ASSERT_EQ(QBVISA_BoardInPlaceInfo(session, values, &count), 0);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(std::vector<int32_t>(values, values + 5), (std::vector<int32_t>{0, 1, 0, 1, 9}));
  EXPECT_EQ(qbsim::writes(kName), std::vector<Bytes>(5, Bytes{81, 0, 0, 0}));
  qbsim::clearTraffic(kName);
  ASSERT_EQ(QBVISA_SPILoopTestInfo(session, 2, values, &count), 0);  // a broken loop is a result
  EXPECT_EQ(std::vector<int32_t>(values, values + 5), (std::vector<int32_t>{1, 0, 0, 1, 9}));
  EXPECT_EQ(qbsim::writes(kName), (std::vector<Bytes>{{82, 0, 0, 0, 2, 0}}));
}

char text[32];
int32_t values[4];
uint32_t count;

// Arguments are checked before the session and nothing is sent; a failure
// reply or one too short to carry the flags is never read as a clean result.
TEST(Diagnostics, Refusals) {
  const Call badArguments[] = {
      [](uint32_t s) { return QBVISA_SelfTest(s, 3, text, sizeof text); },
      [](uint32_t s) { return QBVISA_SelfTest(s, 0, nullptr, 8); },
      [](uint32_t s) { return QBVISA_BoardInPlace(s, 4); },
      [](uint32_t s) { return QBVISA_BoardInPlaceInfo(s, nullptr, &count); },
      [](uint32_t s) { return QBVISA_SPILoopTestInfo(s, 3, values, &count); },
      [](uint32_t s) { return QBVISA_OnlineUpdate(s, nullptr); },
  };
  const uint32_t session = Connect();
  for (const Call call : badArguments) {
    EXPECT_EQ(call(session), QBVISA_ERR_PARAMETER);
    EXPECT_EQ(call(kUnknownSession), QBVISA_ERR_PARAMETER);
  }
  EXPECT_TRUE(qbsim::writes(kName).empty());
  EXPECT_EQ(QBVISA_OnlineUpdate(kUnknownSession, "/nonexistent"), QBVISA_ERR_HANDLE);
  const Call diagnostics[] = {
      [](uint32_t s) { return QBVISA_SelfTest(s, 0, text, sizeof text); },
      [](uint32_t s) { return QBVISA_BoardInPlace(s, 0); },
      [](uint32_t s) { return QBVISA_BoardInPlaceInfo(s, values, &count); },
      [](uint32_t s) { return QBVISA_SPILoopTestInfo(s, 0, values, &count); },
  };
  for (size_t i = 0; i < std::size(diagnostics); ++i) {
    SCOPED_TRACE(testing::Message() << "call " << i);
    EXPECT_EQ(diagnostics[i](kUnknownSession), QBVISA_ERR_HANDLE);
    for (const auto fault : {qbsim::Fault::FailureReply, qbsim::Fault::ShortReply}) {
      std::strcpy(text, "kept"), values[0] = 7, count = 0;
      qbsim::injectFault(kName, fault);
      EXPECT_EQ(diagnostics[i](session),
                fault == qbsim::Fault::ShortReply ? QBVISA_ERR_RECEIVE : QBVISA_ERR_DEVICE_FAILURE);
      EXPECT_STREQ(text, "kept");
      EXPECT_EQ(values[0], 7);
      EXPECT_EQ(count, 0u);
    }
  }
}

// A firmware image of patterned bytes in a file removed with it.
struct ImageFile {
  explicit ImageFile(size_t size) : bytes(size) {
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()), size);
  }
  ~ImageFile() { std::remove(path.c_str()); }
  static inline int made = 0;
  Bytes bytes;
  std::string path = testing::TempDir() + "qbvisa-image-" + std::to_string(getpid()) + "-" + std::to_string(made++);
};

TEST(OnlineUpdate, StreamsTheImageInChunksAndTheChassisTakesIt) {
  const uint32_t session = Connect();
  // Whole chunks, a short last one, and an image whose byte sum needs all
  // four bytes of the sum and of the size.
  for (const size_t size : {2048u, 2500u, 140000u}) {
    SCOPED_TRACE(size);
    qbsim::clearTraffic(kName);
    const ImageFile image(size);
    qbtest::Scope tap;  // replies exactly as long as each step needs are enough
    if (size == 2048) qbtest::onRead = [](uint8_t *, uint32_t &count) { count = count < 8 ? count : 8; };
    ASSERT_EQ(QBVISA_OnlineUpdate(session, image.path.c_str()), 0);
    EXPECT_EQ(qbsim::firmwareImage(kName), image.bytes);
    const auto writes = qbsim::writes(kName);
    const size_t chunks = (size + 1023) / 1024;
    ASSERT_EQ(writes.size(), chunks + 2);
    EXPECT_EQ(writes.front(), (Bytes{96, 0, 0, 0, uint8_t(size), uint8_t(size >> 8), uint8_t(size >> 16), 0}));
    for (size_t i = 0; i < chunks; ++i) {  // the length field carries the chunk's size
      const size_t length = std::min<size_t>(1024, size - i * 1024);
      Bytes expected = {97, 0, uint8_t(length), uint8_t(length >> 8)};
      expected.insert(expected.end(), image.bytes.begin() + i * 1024, image.bytes.begin() + i * 1024 + length);
      EXPECT_EQ(writes[i + 1], expected);
    }
    const uint32_t sum = std::accumulate(image.bytes.begin(), image.bytes.end(), 0u);
    EXPECT_EQ(Words(writes.back()), (std::vector<uint16_t>{98, 0, uint16_t(sum), uint16_t(sum >> 16)}));
  }
}

// A file that cannot be sent sends nothing; a refusal at any step ends the
// update there.
TEST(OnlineUpdate, Refusals) {
  uint32_t session = Connect();
  const ImageFile image(3000), empty(0);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, (image.path + ".missing").c_str()), QBVISA_ERR_UPDATE_FILE);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, testing::TempDir().c_str()), QBVISA_ERR_UPDATE_FILE);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, empty.path.c_str()), QBVISA_ERR_PARAMETER);
  EXPECT_TRUE(qbsim::writes(kName).empty());
  const struct {
    const char *name;
    void (*onThirdFrame)(Bytes &frame);
    void (*onRead)(uint8_t *reply, uint32_t count);
    int32_t expected;
    std::vector<uint16_t> sent;
    bool rejectUpdate = false;
  } cases[] = {
      {"chunk refused", [](Bytes &frame) { frame[2] = frame[3] = 0; }, nullptr, QBVISA_ERR_UPDATE_CHECK, {96, 97, 97}},
      {"end refused", nullptr, nullptr, QBVISA_ERR_UPDATE_CHECK, {96, 97, 97, 97, 98}, true},
      // The library checks the chassis's own sum, not only its verdict.
      {"sum differs", nullptr, [](uint8_t *reply, uint32_t count) { reply[4] ^= count >= 8 ? 1 : 0; },
       QBVISA_ERR_UPDATE_CHECK, {96, 97, 97, 97, 98}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    session = Connect({1, 1, 1, 1}, {1, 1, 1, 1}, c.rejectUpdate);
    qbtest::Scope tap;
    int frames = 0;
    qbtest::onWrite = [&](Bytes &frame) { if (frames++ == 2 && c.onThirdFrame) c.onThirdFrame(frame); };
    qbtest::onRead = c.onRead;
    EXPECT_EQ(QBVISA_OnlineUpdate(session, image.path.c_str()), c.expected);
    EXPECT_EQ(Commands(kName), c.sent);
    EXPECT_EQ(qbsim::firmwareImage(kName).empty(), c.onRead == nullptr);  // only a reply was changed
  }
  session = Connect();  // a reply without a single byte carries no verdict
  {
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *, uint32_t &count) { count = 0; };
    EXPECT_EQ(QBVISA_OnlineUpdate(session, image.path.c_str()), QBVISA_ERR_RECEIVE);
  }
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{96}));
  session = Connect();  // an image beyond the chassis's flash (a sparse file)
  ASSERT_EQ(truncate(image.path.c_str(), 17 << 20), 0);
  EXPECT_EQ(QBVISA_OnlineUpdate(session, image.path.c_str()), QBVISA_ERR_UPDATE_CHECK);
  EXPECT_EQ(Commands(kName), (std::vector<uint16_t>{96}));
}

}  // namespace
