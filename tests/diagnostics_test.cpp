// Communication settings, self-test, board presence, SPI loop-back and
// firmware update on the simulated bench: request bytes, order of the checks,
// the settings mutex, and what each call answered and sent.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "bench.hpp"
#include "golden.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
using Bytes = std::vector<uint8_t>;
using Flags = std::array<uint8_t, 4>;
using Call = int32_t (*)(uint32_t);

const std::string kName = "TCPIP0::192.168.1.30::INSTR";
const std::string kLan = "TCPIP0::192.168.1.21::INSTR";

uint32_t Connect(Flags boards = {1, 1, 1, 1}, Flags loops = {1, 1, 1, 1}, bool rejectUpdate = false) {
  qbsim::Resource resource = Chassis(kName, qbsim::Model::RK422);
  resource.chassis.boardInPlace = boards;
  resource.chassis.spiLoop = loops;
  resource.chassis.rejectUpdate = rejectUpdate;
  return ConnectOne(resource);
}

// The frames written to `name` since the last look, in hex, then forgotten.
std::string sent(const std::string &name = kName) {
  std::ostringstream text;
  for (const Bytes &frame : qbsim::writes(name)) {
    text << ' ';
    for (uint8_t b : frame) text << std::hex << std::setw(2) << std::setfill('0') << int{b};
  }
  qbsim::clearTraffic(name);
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

// Each call as written here, then what it answered.
#define STEP(call) out << #call << ": " << (call)

// What the settings calls answered and sent, compared whole with
// tests/data/settings_transcript.txt.
TEST(Settings, Transcript) {
  std::ostringstream out;
  // The address and its derived gateway, then the apply command alone except
  // on an RK421. The answer to the apply command is ignored; a refused
  // address is not, and gets no apply.
  uint32_t session = 0;
  for (const Model model : {Model::RK421, Model::RK420, Model::RK423B}) {
    session = ConnectOne(Chassis(kLan, model));
    STEP(QBVISA_SetIPAddress(session, "192.168.1.55")) << sent(kLan) << '\n';
  }
  {
    qbtest::Scope tap;
    qbtest::onWrite = [](Bytes &frame) {
      if (frame.size() == 2) qbsim::injectFault(kLan, qbsim::Fault::ReadFails);
    };
    STEP(QBVISA_SetIPAddress(session, "192.168.1.77")) << sent(kLan) << '\n';
  }
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  STEP(QBVISA_SetIPAddress(session, "192.168.1.78")) << sent(kLan) << '\n';

  // Over a serial line the host follows a new rate: the next request goes
  // out at 9600 baud and must still be understood.
  const std::string serial = "ASRL1::INSTR";
  qbsim::Resource resource = Chassis(serial, Model::RK421);
  resource.chassis.ip = {255, 255, 255, 255};
  session = ConnectOne(resource);
  char text[20] = "###################";  // the address fills the 16-byte buffer exactly
  STEP(QBVISA_GetCOMMIPAddr(session, text)) << ' ' << std::string(text, 17).c_str() << '|' << text[16]
                                            << sent(serial) << '\n';
  uint32_t value = 7;
  STEP(QBVISA_SetGPIBAddress(session, 30)) << sent(serial) << '\n';
  STEP(QBVISA_GetGPIBAddress(session, &value)) << ' ' << value << sent(serial) << '\n';
  {  // an empty answer to the new rate still means the host must follow
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *, uint32_t &count) { count = 0; };
    STEP(QBVISA_SetBaudRate(session, 9600)) << sent(serial) << '\n';
  }
  STEP(QBVISA_SetBaudRate(session, 115200)) << sent(serial) << '\n';
  STEP(QBVISA_GetBaudRate(session, &value)) << ' ' << value << sent(serial) << '\n';
  STEP(QBVISA_GetLANMode(session, &value)) << ' ' << value << sent(serial) << '\n';
  {  // the rate's top byte is read too
    qbtest::Scope tap;
    qbtest::onRead = [](uint8_t *reply, uint32_t count) { if (count >= 6) reply[5] = 0x40; };
    STEP(QBVISA_GetBaudRate(session, &value)) << " 0x" << std::hex << value << std::dec << sent(serial) << '\n';
  }
  char kept[16] = "untouched";
  qbsim::injectFault(serial, qbsim::Fault::ReadFails);
  STEP(QBVISA_GetCOMMIPAddr(session, kept)) << ' ' << kept << sent(serial) << '\n';

  // Arguments are refused before the session is looked up; only the RK421
  // has the other settings (two queries and two settings stand for them).
  // No refusal sends anything or keeps the settings mutex.
  const auto run = [](int32_t (*call)(uint32_t), uint32_t s) {
    const int32_t status = call(s);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "settings mutex left locked";
    pthread_mutex_unlock(&mutex);  // this thread holds it either way
    return status;
  };
  out << "valid address, unknown session: "
      << run([](uint32_t s) { return QBVISA_SetIPAddress(s, "192.168.1.55"); }, kUnknownSession) << '\n';
  const Call refusals[] = {
      [](uint32_t s) { return QBVISA_SetIPAddress(s, "192.168.10.55"); },
      [](uint32_t s) { return QBVISA_SetIPAddress(s, nullptr); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 0); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 31); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 0x10005); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 9601); },
      [](uint32_t s) { return QBVISA_SetLANMode(s, 2); },
      [](uint32_t s) { static char t[16]; return QBVISA_GetCOMMIPAddr(s, t); },
      [](uint32_t s) { return QBVISA_SetGPIBAddress(s, 7); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 9600); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 19200); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 38400); },
      [](uint32_t s) { return QBVISA_SetBaudRate(s, 57600); },
      [](uint32_t s) { static uint32_t mode; return QBVISA_GetLANMode(s, &mode); },
  };
  session = ConnectOne(Chassis(kLan, Model::RK420));
  for (const Call &call : refusals)
    out << "refusal " << &call - refusals << ": unknown session " << run(call, kUnknownSession) << ", RK420 "
        << run(call, session) << sent(kLan) << '\n';
  qbgolden::expectGolden("settings_transcript.txt", out.str());
}

TEST(SetLANMode, WaitsForTheNetworkPortOnlyAfterSuccess) {
  using Clock = std::chrono::steady_clock;
  const uint32_t session = ConnectOne(Chassis(kLan, Model::RK421));
  qbsim::injectFault(kLan, qbsim::Fault::FailureReply);
  auto start = Clock::now();
  EXPECT_EQ(QBVISA_SetLANMode(session, 1), QBVISA_ERR_DEVICE_FAILURE);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  start = Clock::now();
  ASSERT_EQ(QBVISA_SetLANMode(session, 1), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(6));
  EXPECT_EQ(qbsim::writes(kLan).back(), (Bytes{48, 0, 0, 0, 1, 0}));
}

}  // namespace
