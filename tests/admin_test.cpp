// Administration calls on the simulated bench (serials, card types, versions,
// settings, diagnostics, firmware update): what each answered, wrote and sent,
// compared whole with reviewed transcripts under tests/data.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "bench.hpp"
#include "core/chassis_model.h"
#include "golden.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
using Bytes = std::vector<uint8_t>;

// The frames written to `name` since the last look, in hex, then forgotten.
std::string hexFrames(const std::string &name) {
  std::ostringstream text;
  for (const Bytes &frame : qbsim::writes(name)) {
    text << ' ';
    for (uint8_t b : frame) text << std::hex << std::setw(2) << std::setfill('0') << int{b};
  }
  qbsim::clearTraffic(name);
  return text.str();
}

namespace identity {

using Version = std::pair<uint8_t, uint8_t>;

const std::string kName = "GPIB0::7::INSTR";

uint32_t Connect(Model model, std::vector<Version> firmware = {{3, 6}}, uint32_t serial = 12345678,
                 std::vector<qbsim::CardIdentity> cards = {}, bool versionInBytes45 = false) {
  qbsim::Resource resource = Chassis(kName, model);
  resource.chassis.firmware = std::move(firmware);
  resource.chassis.serial = serial;
  resource.chassis.cards = std::move(cards);
  resource.chassis.idChars = {'Q', '7'};
  resource.chassis.versionInBytes45 = versionInBytes45;
  return ConnectOne(resource);
}

std::string sent() { return hexFrames(kName); }

TEST(Identity, Transcript) {
  std::ostringstream out;
  // The chassis serial is spread over words (12345678 = 0x00BC614E) with the
  // low byte of the hardware number, then applied; nine digits still convert.
  // Serials are written blind: a chassis that does not answer is no error,
  // but it gets no apply either.
  uint32_t session = Connect(Model::RK420);
  out << "SetSN 260: " << QBVISA_SetSN(session, "12345678", "260") << sent() << '\n';
  out << "SetSN 123456789: " << QBVISA_SetSN(session, "12345678", "123456789") << sent() << '\n';
  for (const auto fault : {qbsim::Fault::WriteFails, qbsim::Fault::ReadFails, qbsim::Fault::FailureReply}) {
    qbsim::injectFault(kName, fault);
    out << "SetSN fault " << int(fault) << ": " << QBVISA_SetSN(session, "23456789", "1") << sent() << '\n';
  }
  // One 20-byte command per card slot, after the version query, no apply.
  for (int32_t slot = 1; slot <= 6; ++slot)
    out << "SetCardSN slot " << slot << ": "
        << QBVISA_SetCardSN(session, std::to_string(20000000 + slot).c_str(), "12", slot) << sent() << '\n';

  // The refusals of tests/data/serial_refusals.txt, "slot serial hardware
  // model firmware" each (slot -1: the chassis's own serial; "null": none).
  qbgolden::expectTable("serial_refusals.txt", [](const std::string &input) {
    std::istringstream in(input);
    int32_t slot = 0;
    std::string sn, hw, model;
    int major = 0, minor = 0;
    char dot = 0;
    in >> slot >> sn >> hw >> model >> major >> dot >> minor;
    const char *s = sn == "null" ? nullptr : sn.c_str(), *h = hw == "null" ? nullptr : hw.c_str();
    const auto set = [&](uint32_t session) { return slot < 0 ? QBVISA_SetSN(session, s, h) : QBVISA_SetCardSN(session, s, h, slot); };
    const int32_t status = set(Connect(Model(qbvisa::modelByName(model.c_str())->typeCode), {{uint8_t(major), uint8_t(minor)}}));
    const std::string wire = sent();  // before the unknown session's try
    return input + "\t" + std::to_string(status) + wire + "; unknown session " + std::to_string(set(kUnknownSession));
  });

  // Chassis and card serials; never past the list's 30 entries. Unset
  // serials and old firmware leave the list alone.
  const auto list = [&out](const std::string &label, int32_t status, const std::vector<uint32_t> &values) {
    out << label << ": " << status << ':';
    for (uint32_t v : values) out << ' ' << v;
    out << sent() << '\n';
  };
  session = Connect(Model::RK420, {{3, 6}}, 87654321, {{10000000, 1}, {0, 1}, {99999999, 1}});
  std::vector<uint32_t> values(32, 0xDEADBEEF);
  list("GetSN 8", QBVISA_GetSN(session, values.data(), 8), values);
  list("GetSN 1000", QBVISA_GetSN(session, values.data(), 1000), values);
  list("GetSN unknown session", QBVISA_GetSN(kUnknownSession, values.data(), 1), {});
  const struct { Model model; Version firmware; uint32_t serial, card; } unset[] = {
      {Model::RK422, {3, 6}, 0xFFFFFFFF, 0}, {Model::RK421, {3, 6}, 9999999, 0},
      {Model::RK421, {3, 6}, 12345678, 1234567}, {Model::RK420, {3, 5}, 12345678, 0},
  };
  for (const auto &c : unset) {
    values.assign(30, 77);
    list("GetSN " + std::to_string(c.serial) + " card " + std::to_string(c.card),
         QBVISA_GetSN(Connect(c.model, {c.firmware}, c.serial, {{c.card, 1}}), values.data(), 30), values);
  }

  // Connecting marks every slot empty until opened; codes 7 and 8 share a
  // name; anything past the known codes is unknown.
  session = Connect(Model::RK420);
  char name[10] = "same";
  for (uint32_t s : {0u, 1u, 2u, 3u}) out << "card type empty " << s << ": " << QBVISA_GetCardType(session, s, name) << ' ' << name << '\n';
  out << "card type unknown session: " << QBVISA_GetCardType(kUnknownSession, 0, name) << ' ' << name << '\n';
  for (uint32_t slot = 0; const uint32_t code : {0u, 6u, 7u, 8u, 12u, 13u, 0xFFFFFFFFu}) {  // each slot in turn
    SlotArea &area = Record(session)->slots[slot % 3];
    area.cardPresent[0] = 1;
    area.matrixKind = code;
    std::memset(name, '#', sizeof name);  // nothing is written past the name's NUL
    out << "card type code " << code << ": " << QBVISA_GetCardType(session, slot++ % 3, name) << ' ' << name
        << (name[std::strlen(name) + 1] == '#' ? "" : " (written past the name)") << '\n';
  }
  // Sizes of exact names only.
  for (const char *card : {"N7360", "N7361-FF", "N7361-H", "N7363", "n7360", "N7360 ", (const char *)nullptr}) {
    char text[10] = "";
    out << "card size '" << (card ? card : "null") << "': " << QBVISA_GetCardSize(card, text) << ' ' << text << '\n';
  }
  out << "sent" << sent() << '\n';
  qbgolden::expectGolden("identity_transcript.txt", out.str());
}

// The call's status, the texts of a list of 10-byte slots up to the first
// slot left unwritten (filled with '#' before) and the frames sent.
char list[400];
std::string Rendered(int32_t status) {
  std::ostringstream text;
  text << status << ':';
  for (const char *slot = list; slot < list + 400 && *slot != '#'; slot += 10)
    text << " [" << std::string(slot, strnlen(slot, 10)) << ']';
  std::memset(list, '#', sizeof list);
  return text.str() + ";" + sent();
}

TEST(Versions, Transcript) {
  std::ostringstream out;
  std::memset(list, '#', sizeof list);
  // Firmware lists (tests/data/sw_versions.txt): "MODEL BYTES45 MAJOR.MINOR...".
  qbgolden::expectTable("sw_versions.txt", [](const std::string &input) {
    std::istringstream in(input);
    std::string model;
    bool bytes45 = false;
    std::vector<Version> firmware;
    in >> model >> bytes45;
    for (int major = 0, minor = 0; in >> major && in.ignore() >> minor;) firmware.push_back({uint8_t(major), uint8_t(minor)});
    const Model m = Model(qbvisa::modelByName(model.c_str())->typeCode);
    return input + "\t" + Rendered(QBVISA_GetSWVersion(Connect(m, firmware, 12345678, {}, bytes45), list, 0));
  });

  // The chassis, then every card position (hexadecimal major from 100 up).
  qbsim::Resource resource = Chassis(kName, Model::RK422);
  resource.chassis.hwVersion = 31;
  resource.chassis.cards.resize(21);  // 10 unless set: "1.0"
  resource.chassis.cards[0].hwVersion = 5;
  resource.chassis.cards[1].hwVersion = 123;
  resource.chassis.cards[20].hwVersion = 195;
  out << "HW RK422: " << Rendered(QBVISA_GetHWVersion(ConnectOne(resource), list, 1)) << '\n';
  out << "HW RK420: " << Rendered(QBVISA_GetHWVersion(Connect(Model::RK420), list, 0)) << '\n';
  {  // The identity reply is read whatever the exchange reports: a dropped
     // answer yields the cleared buffer's zeros.
    qbtest::Scope tap;
    const uint32_t session = Connect(Model::RK423);
    qbtest::onWrite = [](std::vector<uint8_t> &frame) {
      if (frame[0] == 8) qbsim::injectFault(kName, qbsim::Fault::ReadFails);
    };
    out << "HW RK423 identity read fails: " << Rendered(QBVISA_GetHWVersion(session, list, 0)) << '\n';
  }

  // Type, identification characters, serial number and firmware version,
  // into texts that first hold `existing`: the limit is applied only when the
  // caller's buffer already holds a text at least maxlen long. Older RK420
  // firmware has seven digits, right-aligned to eight places.
  const auto info = [&out](uint32_t session, uint64_t maxlen, const char *existing = "") {
    char texts[4][16];
    for (auto &text : texts) std::strcpy(text, existing);
    out << "info " << maxlen << " '" << existing
        << "': " << QBVISA_GetDeviceInfo(session, texts[0], texts[1], texts[2], texts[3], maxlen);
    for (const auto &text : texts) out << " [" << text << ']';
    out << ";" << sent() << '\n';
  };
  info(Connect(Model::RK422, {{3, 6}}), 8);
  info(Connect(Model::RK420, {{3, 5}}, 1234567), 8);
  info(Connect(Model::RK420B, {{1, 0x16}}, 1000000), 8);
  const uint32_t rk421 = Connect(Model::RK421);
  for (const char *existing : {"XX", "XXX"}) info(rk421, 3, existing);
  info(rk421, 0, "XXXXXXXXXX");

  // Refusals leave the caller's texts as they were: eight digits are too many
  // for the older layout, six too few, and old firmware has no identity
  // query (each exchange fault: fault_table_test).
  info(Connect(Model::RK421, {{3, 6}}, 9999999), 8, "kept");
  info(Connect(Model::RK420, {{3, 5}}), 8, "kept");
  info(Connect(Model::RK420, {{2, 0}}, 999999), 8, "kept");
  info(kUnknownSession, 8, "kept");
  {  // an identity answer without a byte carries no serial number
    qbtest::Scope tap;
    static bool identityAsked;
    qbtest::onWrite = [](std::vector<uint8_t> &frame) { identityAsked = frame[0] == 8; };
    qbtest::onRead = [](uint8_t *reply, uint32_t &count) {
      if (identityAsked) std::memset(reply, 0, count), count = 0;
    };
    info(Connect(Model::RK421), 8, "kept");
  }
  out << "HW RK420B 3.05: " << Rendered(QBVISA_GetHWVersion(Connect(Model::RK420B, {{3, 5}}), list, 0)) << '\n';
  out << "HW unknown session: " << Rendered(QBVISA_GetHWVersion(kUnknownSession, list, 0)) << '\n';
  out << "SW unknown session: " << Rendered(QBVISA_GetSWVersion(kUnknownSession, list, 0)) << '\n';
  qbgolden::expectGolden("versions_transcript.txt", out.str());
}

}  // namespace identity

namespace diagnostics {

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

std::string sent(const std::string &name = kName) { return hexFrames(name); }

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
  {
    qbtest::Scope tap;  // a verdict needs a reply of four bytes
    static uint32_t cap;
    qbtest::onRead = [](uint8_t *, uint32_t &count) { count = std::min(count, cap); };
    for (const uint32_t bytes : {3u, 4u})
      cap = bytes, out << "SelfTest reply of " << bytes << ": " << QBVISA_SelfTest(session, 0, text, sizeof text), results();
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
  // The chassis restarts its network port: the call returns only after the
  // wait (a refused change does not wait: fault_table_test counts the waits).
  STEP(QBVISA_SetLANMode(session, 1)) << sent(serial) << '\n';
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

}  // namespace diagnostics
}  // namespace
