// bench_file.cpp - model facts, the built-in bench and JSON bench files.
#include <algorithm>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include <nlohmann/json.hpp>

#include "qbsim.hpp"

namespace qbsim {

using json = nlohmann::ordered_json;

namespace {

// Version 2 adds the live relay state ("closedRelays", "groupsPerBoard") that
// a rack server saves; a bench without closed relays is still written as
// version 1, which older readers take.
constexpr int kBenchFileVersion = 1;
constexpr int kRelayStateVersion = 2;

constexpr Model kModels[] = {Model::RK420, Model::RK420B, Model::RK421,
                             Model::RK422, Model::RK423,  Model::RK423B};

[[noreturn]] void fail(const std::string &where, const std::string &what) {
  throw std::runtime_error("bench file: " + where + ": " + what);
}

template <typename T>
T integer(const json &value, const std::string &where) {
  if (!value.is_number_integer()) fail(where, "expected an integer");
  if (value.is_number_unsigned()) {
    const auto v = value.get<uint64_t>();
    if (v > std::numeric_limits<T>::max()) fail(where, "value out of range");
    return static_cast<T>(v);
  }
  const auto v = value.get<int64_t>();
  if (v < 0 || static_cast<uint64_t>(v) > std::numeric_limits<T>::max())
    fail(where, "value out of range");
  return static_cast<T>(v);
}

std::string text(const json &value, const std::string &where) {
  if (!value.is_string()) fail(where, "expected a string");
  return value.get<std::string>();
}

bool flag(const json &value, const std::string &where) {
  if (!value.is_boolean()) fail(where, "expected true or false");
  return value.get<bool>();
}

std::array<uint8_t, 4> address(const json &value, const std::string &where) {
  std::array<uint8_t, 4> out{};
  std::istringstream in(text(value, where));
  char dot[3] = {};
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!(in >> a >> dot[0] >> b >> dot[1] >> c >> dot[2] >> d) || !in.eof() ||
      dot[0] != '.' || dot[1] != '.' || dot[2] != '.' || a > 255 || b > 255 || c > 255 || d > 255)
    fail(where, "expected a dotted address a.b.c.d");
  out = {static_cast<uint8_t>(a), static_cast<uint8_t>(b), static_cast<uint8_t>(c),
         static_cast<uint8_t>(d)};
  return out;
}

std::string addressText(const std::array<uint8_t, 4> &a) {
  return std::to_string(a[0]) + "." + std::to_string(a[1]) + "." + std::to_string(a[2]) + "." +
         std::to_string(a[3]);
}

std::pair<uint8_t, uint8_t> versionPair(const json &value, const std::string &where) {
  if (!value.is_array() || value.size() != 2) fail(where, "expected [major, minor]");
  return {integer<uint8_t>(value[0], where), integer<uint8_t>(value[1], where)};
}

std::array<uint8_t, 4> fourFlags(const json &value, const std::string &where) {
  if (!value.is_array() || value.size() != 4) fail(where, "expected four values");
  std::array<uint8_t, 4> out{};
  for (size_t i = 0; i < 4; ++i) out[i] = integer<uint8_t>(value[i], where);
  return out;
}

Model modelFrom(const json &value, const std::string &where) {
  for (const Model m : kModels) {
    if (value.is_string() && value.get<std::string>() == modelName(m)) return m;
    if (value.is_number_integer() && value.get<int64_t>() == static_cast<int64_t>(m)) return m;
  }
  fail(where, "unknown model (expected RK420, RK420B, RK421, RK422, RK423 or RK423B)");
}

ChassisConfig chassisFrom(const json &object, const std::string &where, int version) {
  if (!object.is_object()) fail(where, "expected an object");
  ChassisConfig c;
  for (const auto &[key, value] : object.items()) {
    const std::string at = where + "." + key;
    if (key == "model") c.model = modelFrom(value, at);
    else if (key == "maker") c.maker = text(value, at);
    else if (key == "idnModel") c.idnModel = text(value, at);
    else if (key == "idnSerial") c.idnSerial = text(value, at);
    else if (key == "idnFirmware") c.idnFirmware = text(value, at);
    else if (key == "firmware") {
      if (!value.is_array()) fail(at, "expected a list of [major, minor]");
      c.firmware.clear();
      for (const auto &pair : value) c.firmware.push_back(versionPair(pair, at));
    } else if (key == "versionInBytes45") c.versionInBytes45 = flag(value, at);
    else if (key == "secondFirmware") c.secondFirmware = versionPair(value, at);
    else if (key == "serial") c.serial = integer<uint32_t>(value, at);
    else if (key == "hwVersion") c.hwVersion = integer<uint8_t>(value, at);
    else if (key == "idChars") {
      const std::string chars = text(value, at);
      if (chars.size() != 2) fail(at, "expected two characters");
      c.idChars = {chars[0], chars[1]};
    } else if (key == "typeCode") c.typeCode = integer<uint16_t>(value, at);
    else if (key == "cards") {
      if (!value.is_array()) fail(at, "expected a list of cards");
      c.cards.clear();
      for (const auto &card : value) {
        if (!card.is_object()) fail(at, "expected {\"serial\": ..., \"hwVersion\": ...}");
        CardIdentity id;
        for (const auto &[ckey, cvalue] : card.items()) {
          if (ckey == "serial") id.serial = integer<uint32_t>(cvalue, at + ".serial");
          else if (ckey == "hwVersion") id.hwVersion = integer<uint8_t>(cvalue, at + ".hwVersion");
          else fail(at + "." + ckey, "unknown field");
        }
        c.cards.push_back(id);
      }
    } else if (key == "presenceMask") {
      c.presenceMask = integer<uint32_t>(value, at);
      if (c.presenceMask > 0xFFFFFF) fail(at, "the mask has 24 bits");
      c.presenceMaskSet = true;
    } else if (key == "slot1CardType") c.slot1CardType = integer<uint8_t>(value, at);
    else if (key == "slot2Present") c.slot2Present = flag(value, at);
    else if (key == "controlMode") c.controlMode = integer<uint8_t>(value, at);
    else if (key == "ip") c.ip = address(value, at);
    else if (key == "gateway") c.gateway = address(value, at);
    else if (key == "lanMode") c.lanMode = integer<uint8_t>(value, at);
    else if (key == "gpibAddress") c.gpibAddress = integer<uint8_t>(value, at);
    else if (key == "baudRate") c.baudRate = integer<uint32_t>(value, at);
    else if (key == "boardInPlace") c.boardInPlace = fourFlags(value, at);
    else if (key == "spiLoop") c.spiLoop = fourFlags(value, at);
    else if (key == "rejectUpdate") c.rejectUpdate = flag(value, at);
    else if (key == "closedRelays" && version >= kRelayStateVersion) {
      if (!value.is_array()) fail(at, "expected a list of [board, group, bit]");
      for (const auto &relay : value) {
        if (!relay.is_array() || relay.size() != 3) fail(at, "expected [board, group, bit]");
        Relay r{integer<uint16_t>(relay[0], at), integer<uint16_t>(relay[1], at),
                integer<uint8_t>(relay[2], at)};
        if (r.bit > 15) fail(at, "a bit group has bits 0..15");
        c.closedRelays.push_back(r);
      }
    } else if (key == "groupsPerBoard" && version >= kRelayStateVersion)
      c.groupsPerBoard = integer<uint16_t>(value, at);
    else fail(at, "unknown field");
  }
  if (c.cards.size() > static_cast<size_t>(slotCount(c.model)))
    fail(where + ".cards", "more cards than the model has slots");
  return c;
}

json chassisJson(const ChassisConfig &c) {
  json cards = json::array();
  for (const auto &card : c.cards) cards.push_back({{"serial", card.serial}, {"hwVersion", card.hwVersion}});
  json firmware = json::array();
  for (const auto &[major, minor] : c.firmware) firmware.push_back({major, minor});
  json out = {
      {"model", modelName(c.model)},
      {"maker", c.maker},
      {"idnModel", c.idnModel},
      {"idnSerial", c.idnSerial},
      {"idnFirmware", c.idnFirmware},
      {"firmware", firmware},
      {"versionInBytes45", c.versionInBytes45},
      {"secondFirmware", {c.secondFirmware.first, c.secondFirmware.second}},
      {"serial", c.serial},
      {"hwVersion", c.hwVersion},
      {"idChars", std::string{c.idChars[0], c.idChars[1]}},
      {"typeCode", c.typeCode},
      {"cards", cards},
      {"slot1CardType", c.slot1CardType},
      {"slot2Present", c.slot2Present},
      {"controlMode", c.controlMode},
      {"ip", addressText(c.ip)},
      {"gateway", addressText(c.gateway)},
      {"lanMode", c.lanMode},
      {"gpibAddress", c.gpibAddress},
      {"baudRate", c.baudRate},
      {"boardInPlace", c.boardInPlace},
      {"spiLoop", c.spiLoop},
      {"rejectUpdate", c.rejectUpdate},
  };
  if (c.presenceMaskSet) out["presenceMask"] = c.presenceMask;
  if (!c.closedRelays.empty()) {
    json relays = json::array();
    for (const Relay &r : c.closedRelays) relays.push_back({r.board, r.group, r.bit});
    out["closedRelays"] = relays;
  }
  if (c.groupsPerBoard > 0) out["groupsPerBoard"] = c.groupsPerBoard;
  return out;
}

Resource resourceFrom(const json &object, size_t index, int version) {
  const std::string where = "resources[" + std::to_string(index) + "]";
  if (!object.is_object()) fail(where, "expected an object");
  Resource r;
  if (!object.contains("name")) fail(where, "missing \"name\"");
  r.name = text(object["name"], where + ".name");
  const std::string at = "resource " + r.name;
  for (const auto &[key, value] : object.items()) {
    if (key == "name") continue;
    if (key == "kind") {
      const std::string kind = text(value, at + ".kind");
      if (kind == "chassis") r.kind = ResourceKind::Chassis;
      else if (kind == "foreign") r.kind = ResourceKind::Foreign;
      else if (kind == "silent") r.kind = ResourceKind::Silent;
      else fail(at + ".kind", "expected chassis, foreign or silent");
    } else if (key == "chassis") r.chassis = chassisFrom(value, at + ".chassis", version);
    else if (key == "idn") r.idn = text(value, at + ".idn");
    else fail(at + "." + key, "unknown field");
  }
  return r;
}

json resourceJson(const Resource &r) {
  json out = {{"name", r.name}};
  switch (r.kind) {
    case ResourceKind::Chassis:
      out["kind"] = "chassis";
      out["chassis"] = chassisJson(r.chassis);
      break;
    case ResourceKind::Foreign:
      out["kind"] = "foreign";
      out["idn"] = r.idn;
      break;
    case ResourceKind::Silent: out["kind"] = "silent"; break;
  }
  return out;
}

// Members one per line; objects and lists of plain values on one line.
void writePretty(std::string &out, const json &value, int depth) {
  const std::string pad(2 * static_cast<size_t>(depth + 1), ' ');
  const auto nested = [](const json &v) { return v.is_object(); };
  const bool flat = std::none_of(value.begin(), value.end(),
                                 [](const json &v) { return v.is_structured(); });
  if (value.is_object() && !flat) {
    out += "{\n";
    size_t i = 0;
    for (const auto &[key, member] : value.items()) {
      out += pad + json(key).dump() + ": ";
      writePretty(out, member, depth + 1);
      out += ++i < value.size() ? ",\n" : "\n";
    }
    out += std::string(2 * static_cast<size_t>(depth), ' ') + "}";
  } else if (value.is_array() && std::any_of(value.begin(), value.end(), nested)) {
    out += "[\n";
    for (size_t i = 0; i < value.size(); ++i) {
      out += pad;
      writePretty(out, value[i], depth + 1);
      out += i + 1 < value.size() ? ",\n" : "\n";
    }
    out += std::string(2 * static_cast<size_t>(depth), ' ') + "]";
  } else {
    out += value.dump();
  }
}


}  // namespace

const char *modelName(Model m) {
  switch (m) {
    case Model::RK420: return "RK420";
    case Model::RK420B: return "RK420B";
    case Model::RK421: return "RK421";
    case Model::RK422: return "RK422";
    case Model::RK423: return "RK423";
    case Model::RK423B: return "RK423B";
  }
  return "?";
}

int slotCount(Model m) {
  switch (m) {
    case Model::RK420:
    case Model::RK420B: return 6;
    case Model::RK421: return 4;
    case Model::RK422: return 21;
    case Model::RK423:
    case Model::RK423B: return 1;
  }
  return 0;
}

bool Relay::operator<(const Relay &o) const {
  return std::tie(board, group, bit) < std::tie(o.board, o.group, o.bit);
}

Bench defaultBench() {
  Bench bench;

  ChassisConfig rk420;
  rk420.model = Model::RK420;
  rk420.idnSerial = "20420001";
  rk420.idnFirmware = "3.06";
  rk420.firmware = {{3, 6}};
  rk420.versionInBytes45 = true;
  rk420.serial = 20420001;
  rk420.hwVersion = 31;
  rk420.idChars = {'A', '1'};
  // Card 1 is the matrix card in slot 1; position 6 is the card bus
  // controller, whose hardware version must be 1.0 or later for slot 1.
  rk420.cards = {{30420011, 12}, {30420012, 11}, {0, 10}, {0, 10}, {0, 10}, {0, 21}};
  rk420.presenceMask = 0x3F;  // five sub-matrices and a card in slot 1
  rk420.presenceMaskSet = true;
  rk420.slot1CardType = 0;
  rk420.slot2Present = true;
  rk420.ip = {192, 168, 1, 20};
  rk420.gateway = {192, 168, 1, 1};
  rk420.gpibAddress = 5;
  bench.resources.push_back({"GPIB0::5::INSTR", ResourceKind::Chassis, rk420, ""});

  ChassisConfig rk421;
  rk421.model = Model::RK421;
  rk421.idnSerial = "20421001";
  rk421.idnFirmware = "2.05";
  rk421.firmware = {{2, 5}};
  rk421.secondFirmware = {1, 2};
  rk421.serial = 20421001;
  rk421.hwVersion = 22;
  rk421.idChars = {'B', '2'};
  rk421.cards = {{30421011, 13}, {30421012, 13}, {30421013, 13}, {30421014, 13}};
  rk421.controlMode = 1;
  rk421.ip = {192, 168, 1, 21};
  rk421.gateway = {192, 168, 1, 1};
  rk421.gpibAddress = 7;
  rk421.baudRate = 115200;
  bench.resources.push_back(
      {"USB0::0x1A2B::0x0421::RK421001::INSTR", ResourceKind::Chassis, rk421, ""});

  ChassisConfig rk422;
  rk422.model = Model::RK422;
  rk422.idnSerial = "20422001";
  rk422.idnFirmware = "1.04";
  rk422.firmware = {{1, 4}, {2, 1}, {1, 0}};
  rk422.serial = 20422001;
  rk422.hwVersion = 40;
  rk422.idChars = {'C', '3'};
  rk422.cards = {{30422011, 20}, {30422012, 20}, {30422013, 21}};  // the rest unset
  rk422.ip = {192, 168, 1, 22};
  rk422.gateway = {192, 168, 1, 1};
  bench.resources.push_back(
      {"TCPIP0::192.168.1.22::inst0::INSTR", ResourceKind::Chassis, rk422, ""});

  ChassisConfig rk423;
  rk423.model = Model::RK423;
  rk423.idnSerial = "20423001";
  rk423.idnFirmware = "1.01";
  rk423.firmware = {{1, 1}};
  rk423.serial = 20423001;
  rk423.hwVersion = 15;
  rk423.idChars = {'D', '4'};
  rk423.cards = {{30423011, 10}};
  rk423.ip = {192, 168, 1, 23};
  rk423.gateway = {192, 168, 1, 1};
  rk423.baudRate = 19200;
  bench.resources.push_back({"ASRL1::INSTR", ResourceKind::Chassis, rk423, ""});

  Resource dmm;
  dmm.name = "GPIB0::9::INSTR";
  dmm.kind = ResourceKind::Foreign;
  dmm.idn = "Acme Instruments,DMM-7,123,1.0\n";
  bench.resources.push_back(dmm);
  return bench;
}

Bench parseBench(const std::string &document) {
  json root;
  try {
    root = json::parse(document);
  } catch (const json::exception &e) {  // syntax, and numbers out of range
    fail("syntax", e.what());
  }
  if (!root.is_object()) fail("top level", "expected an object");
  if (!root.contains("version")) fail("top level", "missing \"version\"");
  const json &versionField = root["version"];
  if (!versionField.is_number_integer() || versionField.get<int64_t>() < kBenchFileVersion ||
      versionField.get<int64_t>() > kRelayStateVersion)
    fail("version", "unsupported bench file version " + versionField.dump() +
                        " (this bench reads versions " + std::to_string(kBenchFileVersion) +
                        " and " + std::to_string(kRelayStateVersion) + ")");
  const int version = static_cast<int>(versionField.get<int64_t>());
  Bench bench;
  for (const auto &[key, value] : root.items()) {
    if (key == "version") continue;
    if (key != "resources") fail(key, "unknown field");
    if (!value.is_array()) fail("resources", "expected a list");
    for (size_t i = 0; i < value.size(); ++i) bench.resources.push_back(resourceFrom(value[i], i, version));
  }
  return bench;
}

std::string benchToJson(const Bench &bench) {
  json resources = json::array();
  int version = kBenchFileVersion;
  for (const auto &r : bench.resources) {
    resources.push_back(resourceJson(r));
    if (r.kind == ResourceKind::Chassis &&
        (!r.chassis.closedRelays.empty() || r.chassis.groupsPerBoard > 0))
      version = kRelayStateVersion;
  }
  std::string out;
  writePretty(out, json{{"version", version}, {"resources", resources}}, 0);
  return out + "\n";
}

Bench loadBenchFile(const std::string &path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("bench file " + path + ": cannot be opened");
  std::ostringstream content;
  content << in.rdbuf();
  try {
    return parseBench(content.str());
  } catch (const std::runtime_error &e) {
    throw std::runtime_error(path + ": " + e.what());
  }
}

void saveBenchFile(const Bench &bench, const std::string &path) {
  std::ofstream out(path);
  out << benchToJson(bench);
  if (!out) throw std::runtime_error("bench file " + path + ": cannot be written");
}

}  // namespace qbsim
