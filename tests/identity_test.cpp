// Serial numbers, card types and sizes, version lists and device summaries on
// the simulated bench: what each call answered, wrote and sent, compared whole
// with tests/data/identity_transcript.txt and versions_transcript.txt.
#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>

#include "bench.hpp"
#include "golden.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
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

// The frames written since the last look, in hex, then forgotten.
std::string sent() {
  std::ostringstream text;
  for (const auto &frame : qbsim::writes(kName)) {
    text << ' ';
    for (uint8_t b : frame) text << std::hex << std::setw(2) << std::setfill('0') << int{b};
  }
  qbsim::clearTraffic(kName);
  return text.str();
}

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

  // The session is looked up first, then the serial text, the hardware
  // number and the slot; a card serial's range only after the version query.
  constexpr int32_t kChassis = -1;  // the chassis's own serial, not a card's
  const struct {
    int32_t slot;
    const char *sn, *hw;
    Version firmware = {3, 6};
    Model model = Model::RK420;
  } refusals[] = {
      {kChassis, "1234567", "3"}, {kChassis, "100000000", "3"}, {kChassis, "1234a678", "3x"},
      {kChassis, nullptr, "3"},
      {kChassis, "00000000000012345678", "3"},  // too long to convert
      {kChassis, "4307312974", "3"},  // 2^32 + 12345678 must not wrap
      {kChassis, "12345678", nullptr}, {kChassis, "12345678", "4294967299"}, {kChassis, "12345678", "1234567890"},
      {kChassis, "12345678", "0000000000000001"},  // 16 characters
      {kChassis, "12345678", "0123456789"},  // nine digits still fit
      {0, "12345678", "1"}, {7, "12345678", "1"}, {7, "12345678", "x"},
      {1, "1234567", "1", {3, 6}, Model::RK422}, {1, "12345678", "1", {3, 5}},
      {1, "12345678", "1", {2, 9}, Model::RK420B},
  };
  for (const auto &c : refusals) {
    const auto set = [&c](uint32_t s) {
      return c.slot == kChassis ? QBVISA_SetSN(s, c.sn, c.hw) : QBVISA_SetCardSN(s, c.sn, c.hw, c.slot);
    };
    out << "set slot " << c.slot << ' ' << (c.sn ? c.sn : "null") << ' ' << (c.hw ? c.hw : "null") << ' '
        << qbsim::modelName(c.model) << ' ' << int{c.firmware.first} << '.' << int{c.firmware.second} << ": "
        << set(Connect(c.model, {c.firmware})) << sent() << "; unknown session " << set(kUnknownSession) << '\n';
  }

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
    out << "card type code " << code << ": " << QBVISA_GetCardType(session, slot++ % 3, name) << ' ' << name << '\n';
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
  const struct {
    Model model;
    std::vector<Version> firmware;
    bool versionInBytes45 = false;
  } software[] = {
      {Model::RK420B, {{16, 0}}},
      {Model::RK420B, {{3, 10}}, true},  // newer controllers: bytes 4 and 5
      {Model::RK420, {{4, 0}}, true},  // either byte alone marks that form
      {Model::RK420B, {{0, 0x12}}, true},
      {Model::RK421, {{3, 6}, {4, 4}}},  // main and second controller
      // One slot per pair; the first pair with a zero byte ends the list.
      {Model::RK422, {{3, 6}, {2, 1}, {0x1F, 0x20}, {4, 0}, {5, 5}}},
      {Model::RK423, {{0, 6}}},
  };
  for (const auto &c : software) {
    const uint32_t session = Connect(c.model, c.firmware, 12345678, {}, c.versionInBytes45);
    out << "SW " << qbsim::modelName(c.model) << ' ' << c.versionInBytes45 << ": "
        << Rendered(QBVISA_GetSWVersion(session, list, 0)) << '\n';
  }

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
  out << "HW RK420B 3.05: " << Rendered(QBVISA_GetHWVersion(Connect(Model::RK420B, {{3, 5}}), list, 0)) << '\n';
  out << "HW unknown session: " << Rendered(QBVISA_GetHWVersion(kUnknownSession, list, 0)) << '\n';
  out << "SW unknown session: " << Rendered(QBVISA_GetSWVersion(kUnknownSession, list, 0)) << '\n';
  qbgolden::expectGolden("versions_transcript.txt", out.str());
}

}  // namespace
