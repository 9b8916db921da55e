// Self-test, board presence, SPI loop-back and firmware update on the
// simulated bench.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "bench.hpp"
#include "golden.hpp"
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

// The frames written since the last look, in hex, then forgotten.
std::string sent() {
  std::ostringstream text;
  for (const Bytes &frame : qbsim::writes(kName)) {
    text << ' ';
    for (uint8_t b : frame) text << std::hex << std::setw(2) << std::setfill('0') << int{b};
  }
  qbsim::clearTraffic(kName);
  return text.str();
}

char text[64] = "kept";
int32_t values[5] = {9, 9, 9, 9, 9};
uint32_t count;

// What each call answered, wrote and sent, compared whole with
// tests/data/diagnostics_transcript.txt.
TEST(Diagnostics, Transcript) {
  std::ostringstream out;
  const auto results = [&out] {
    out << " [" << text << "] count " << count << ':';
    for (int32_t v : values) out << ' ' << v;
    out << ';' << sent() << '\n';
    std::strcpy(text, "kept"), std::fill(std::begin(values), std::end(values), 9), count = 0;
  };
  const struct { Flags boards, loops; uint8_t slot; } selfTests[] = {
      {{1, 0, 1, 1}, {1, 1, 1, 1}, 1}, {{1, 1, 1, 1}, {1, 1, 0, 1}, 2}, {{0, 1, 1, 1}, {0, 1, 1, 1}, 0}};
  for (const auto &c : selfTests)
    out << "SelfTest " << int{c.slot} << ": " << QBVISA_SelfTest(Connect(c.boards, c.loops), c.slot, text, sizeof text),
        results();
  // The verdict is cut to the caller's length, NUL included.
  uint32_t session = Connect({0, 1, 1, 1});
  for (const uint64_t length : {0u, 6u}) {
    char cut[8] = "#######";
    out << "SelfTest cut to " << length << ": " << QBVISA_SelfTest(session, 0, cut, length) << ' '
        << std::string(cut, 7).c_str() << '|' << cut[6] << '\n';
  }
  session = Connect({0, 1, 0, 1}, {1, 0, 0, 1});
  {
    qbtest::Scope tap;  // replies just long enough for the four flags will do
    qbtest::onRead = [](uint8_t *, uint32_t &count) { count = std::min(count, 6u); };
    for (uint64_t position = 0; position < 4; ++position)
      out << "BoardInPlace " << position << ": " << QBVISA_BoardInPlace(session, position), results();
    out << "BoardInPlaceInfo: " << QBVISA_BoardInPlaceInfo(session, values, &count), results();
  }
  // A broken loop is a result.
  out << "SPILoopTestInfo 2: " << QBVISA_SPILoopTestInfo(session, 2, values, &count), results();

  // Arguments are checked before the session and nothing is sent.
  session = Connect();
  const Call badArguments[] = {
      [](uint32_t s) { return QBVISA_SelfTest(s, 3, text, sizeof text); },
      [](uint32_t s) { return QBVISA_SelfTest(s, 0, nullptr, 8); },
      [](uint32_t s) { return QBVISA_BoardInPlace(s, 4); },
      [](uint32_t s) { return QBVISA_BoardInPlaceInfo(s, nullptr, &count); },
      [](uint32_t s) { return QBVISA_SPILoopTestInfo(s, 3, values, &count); },
      [](uint32_t s) { return QBVISA_OnlineUpdate(s, nullptr); },
  };
  for (const Call call : badArguments)
    out << "bad arguments: " << call(session) << " unknown session " << call(kUnknownSession), results();
  out << "OnlineUpdate unknown session: " << QBVISA_OnlineUpdate(kUnknownSession, "/nonexistent"), results();
  const Call diagnostics[] = {
      [](uint32_t s) { return QBVISA_SelfTest(s, 0, text, sizeof text); },
      [](uint32_t s) { return QBVISA_BoardInPlace(s, 0); },
      [](uint32_t s) { return QBVISA_BoardInPlaceInfo(s, values, &count); },
      [](uint32_t s) { return QBVISA_SPILoopTestInfo(s, 0, values, &count); },
  };
  for (const Call &call : diagnostics)  // each exchange fault: fault_table_test
    out << "call " << &call - diagnostics << " unknown session: " << call(kUnknownSession), results();
  qbgolden::expectGolden("diagnostics_transcript.txt", out.str());
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

// The image streamed in chunks whose length field carries their size, and
// the chassis takes it; a file that cannot be sent sends nothing; a refusal
// at any step ends the update there. What each answered and the frames sent
// (a chunk's payload as the image's bytes it carries) are compared whole with
// tests/data/update_transcript.txt.
TEST(OnlineUpdate, Transcript) {
  std::ostringstream out;
  // Whole chunks, a short last one, and an image whose byte sum needs all
  // four bytes of the sum and of the size.
  for (const size_t size : {2048u, 2500u, 140000u}) {
    const ImageFile image(size);
    const uint32_t session = Connect();
    qbtest::Scope tap;  // replies exactly as long as each step needs are enough
    if (size == 2048) qbtest::onRead = [](uint8_t *, uint32_t &count) { count = count < 8 ? count : 8; };
    out << "image " << size << ": " << QBVISA_OnlineUpdate(session, image.path.c_str())
        << (qbsim::firmwareImage(kName) == image.bytes ? " taken;" : " not taken;");
    size_t offset = 0;
    for (Bytes frame : qbsim::writes(kName)) {
      const bool chunk = frame[0] == 97 && frame.size() > 4 && offset + frame.size() - 4 <= size &&
                         std::equal(frame.begin() + 4, frame.end(), image.bytes.begin() + offset);
      const size_t payload = chunk ? frame.size() - 4 : 0;
      if (chunk) frame.resize(4);
      for (uint8_t b : frame) out << ' ' << std::hex << std::setw(2) << std::setfill('0') << int{b} << std::dec;
      if (chunk) out << " +image@" << offset, offset += payload;
    }
    out << '\n';
  }
  const auto update = [&out](const char *what, const std::string &path, uint32_t session = 0) {
    out << what << ": " << QBVISA_OnlineUpdate(session ? session : Connect(), path.c_str()) << ';';
    for (uint16_t command : Commands(kName)) out << ' ' << command;
    out << (qbsim::firmwareImage(kName).empty() ? "; not taken\n" : "; taken\n");
  };
  const ImageFile image(3000), empty(0);
  update("missing", image.path + ".missing");
  update("directory", testing::TempDir());
  update("empty", empty.path);
  qbtest::Scope tap;
  const uint32_t session = Connect();
  int frames = 0;
  qbtest::onWrite = [&](Bytes &frame) { if (frames++ == 2) frame[2] = frame[3] = 0; };
  update("chunk refused", image.path, session);
  qbtest::onWrite = nullptr;
  update("end refused", image.path, Connect({1, 1, 1, 1}, {1, 1, 1, 1}, true));
  // The library checks the chassis's own sum, not only its verdict; a reply
  // without a single byte carries no verdict.
  const uint32_t sumDiffers = Connect();
  qbtest::onRead = [](uint8_t *reply, uint32_t count) { reply[4] ^= count >= 8 ? 1 : 0; };
  update("sum differs", image.path, sumDiffers);
  qbtest::onRead = nullptr;
  const uint32_t emptyReply = Connect();
  qbtest::onRead = [](uint8_t *, uint32_t &count) { count = 0; };
  update("empty reply", image.path, emptyReply);
  qbtest::onRead = nullptr;
  // An image beyond the chassis's flash (a sparse file).
  ASSERT_EQ(truncate(image.path.c_str(), 17 << 20), 0);
  update("beyond the flash", image.path);
  qbgolden::expectGolden("update_transcript.txt", out.str());
}

}  // namespace
