// Firmware and hardware version lists and the device summary texts on the
// simulated bench: what each call answered, wrote and sent, compared whole
// with tests/data/versions_transcript.txt.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "bench.hpp"
#include "golden.hpp"
#include "support/wire_tap.hpp"

namespace {

using namespace qbtest;
using qbsim::Model;
using Version = std::pair<uint8_t, uint8_t>;

const std::string kName = "USB0::0x1234::0x0420::QB0001::INSTR";

uint32_t Connect(Model model, std::vector<Version> firmware = {{3, 6}}, uint32_t serial = 12345678,
                 bool versionInBytes45 = false) {
  qbsim::Resource resource = Chassis(kName, model);
  resource.chassis.firmware = std::move(firmware);
  resource.chassis.serial = serial;
  resource.chassis.idChars = {'Q', '7'};
  resource.chassis.versionInBytes45 = versionInBytes45;
  return ConnectOne(resource);
}

// The call's status, the texts of a list of 10-byte slots up to the first
// slot left unwritten (filled with '#' before) and the commands sent.
char list[400];
std::string Rendered(int32_t status) {
  std::ostringstream text;
  text << status << ':';
  for (const char *slot = list; slot < list + 400 && *slot != '#'; slot += 10)
    text << " [" << std::string(slot, strnlen(slot, 10)) << ']';
  text << ';';
  for (uint16_t command : Commands(kName)) text << ' ' << command;
  std::memset(list, '#', sizeof list);
  qbsim::clearTraffic(kName);
  return text.str();
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
    const uint32_t session = Connect(c.model, c.firmware, 12345678, c.versionInBytes45);
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
    out << ";" << Rendered(0) << '\n';
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
