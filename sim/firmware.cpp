// firmware.cpp - request decoding and replies of the simulated controllers.
#include "firmware.hpp"

#include <algorithm>
#include <numeric>

namespace qbsim::detail {
namespace {

enum Command : uint16_t {
  kSetSerial = 2,
  kGetControlMode = 5,
  kSetControlMode = 6,
  kIdentity = 8,
  kPresence = 10,
  kVersions = 11,
  kSetNetwork = 13,
  kApplySettings = 14,
  kCardType = 17,
  kRelayState = 19,
  kSetGpib = 20,
  kSetBaud = 21,
  kGetGpib = 22,
  kGetBaud = 23,
  kGetNetwork = 24,
  kGetLanMode = 25,
  kSetCardSerialSlot1 = 32,
  kSetCardSerialSlot6 = 37,
  kSetLanMode = 48,
  kSecondVersion = 49,
  kClearAll = 67,
  kSelfTest = 80,
  kBoardInPlace = 81,
  kSpiLoop = 82,
  kUpdateBegin = 96,
  kUpdateData = 97,
  kUpdateEnd = 98,
  kSlot2Presence = 0x040C,  // bytes 0C 04 on the wire
};

// The controller refuses images above this size (its flash is finite).
constexpr uint32_t kMaxImageSize = 16u << 20;
constexpr uint16_t kMaxChunk = 1024;

bool isRk420Family(Model m) { return m == Model::RK420 || m == Model::RK420B; }

bool standardLineRate(uint32_t rate) {
  return rate == 9600 || rate == 19200 || rate == 38400 || rate == 57600 ||
         rate == 115200;
}

void putLe32(std::vector<uint8_t> &out, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) out[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

// Serial numbers travel most significant byte first, one byte per even position.
void putSerial(std::vector<uint8_t> &out, size_t at, uint32_t serial) {
  for (int i = 0; i < 4; ++i) out[at + 2 * i] = static_cast<uint8_t>(serial >> (24 - 8 * i));
}

}  // namespace

int boardCount(Model m) {
  switch (m) {
    case Model::RK420:
    case Model::RK420B: return 5;
    case Model::RK421: return 4;
    case Model::RK422: return 21;
    case Model::RK423:
    case Model::RK423B: return 1;
  }
  return 1;
}

int nominalGroupsPerBoard(const ChassisConfig &config) {
  switch (config.model) {
    case Model::RK420:
    case Model::RK420B: {
      // Firmware 1.x drives a 13th bit group on each board.
      const uint8_t major = config.firmware.empty() ? 0 : config.firmware.front().first;
      return major > 1 ? 12 : 13;
    }
    case Model::RK421: return 13;
    case Model::RK422: return 49;
    case Model::RK423:
    case Model::RK423B: return 10;
  }
  return 1;
}

ChassisFirmware::ChassisFirmware(ChassisConfig config)
    : state_(std::move(config)), groupsPerBoard_(nominalGroupsPerBoard(state_)) {
  state_.cards.resize(static_cast<size_t>(slotCount(state_.model)));
  // Relays restored from a saved rack: the live list is the only copy.
  closed_ = std::move(state_.closedRelays);
  state_.closedRelays.clear();
  std::sort(closed_.begin(), closed_.end());
  if (state_.groupsPerBoard > 0) groupsPerBoard_ = state_.groupsPerBoard;
  state_.groupsPerBoard = 0;
}

bool ChassisFirmware::Request::word(size_t index, uint16_t &out) const {
  if (2 * index + 2 > payloadSize) return false;
  out = static_cast<uint16_t>(payload[2 * index] | payload[2 * index + 1] << 8);
  return true;
}

std::vector<uint8_t> ChassisFirmware::reply(const Request &r, size_t size) const {
  std::vector<uint8_t> out(size, 0);
  out[0] = static_cast<uint8_t>(r.command);
  out[1] = static_cast<uint8_t>(r.command >> 8);
  return out;
}

std::vector<uint8_t> ChassisFirmware::failure() {
  std::vector<uint8_t> out(kReplySize, 0);
  std::fill_n(out.begin(), 4, 0xFF);
  return out;
}

std::string ChassisFirmware::identification() const {
  const std::string model = state_.idnModel.empty() ? modelName(state_.model) : state_.idnModel;
  return state_.maker + " ," + model + " ," + state_.idnSerial + " ," + state_.idnFirmware + "\n";
}

std::pair<uint8_t, uint8_t> ChassisFirmware::mainVersion() const {
  return state_.firmware.empty() ? std::pair<uint8_t, uint8_t>{0, 0} : state_.firmware.front();
}

bool ChassisFirmware::olderIdentityLayout() const {
  if (!isRk420Family(state_.model)) return false;
  const auto [major, minor] = mainVersion();
  return major < 3 || (major == 3 && minor < 6);
}

std::vector<uint8_t> ChassisFirmware::handle(const uint8_t *frame, size_t size) {
  // A bare command code is a complete request (command 14 is sent that way).
  if (frame == nullptr || size < 2) return failure();
  Request r{};
  r.command = static_cast<uint16_t>(frame[0] | frame[1] << 8);
  r.lengthField = size >= 4 ? static_cast<uint16_t>(frame[2] | frame[3] << 8) : 0;
  r.payload = size > 4 ? frame + 4 : nullptr;
  r.payloadSize = size > 4 ? size - 4 : 0;

  uint16_t w0 = 0, w1 = 0;
  switch (r.command) {
    case kSetSerial: {
      uint32_t serial = 0;
      uint8_t hw = 0;
      if (!serialPayload(r, serial, hw)) return failure();
      state_.serial = serial;
      state_.hwVersion = hw;
      return reply(r);
    }
    case kGetControlMode: {
      auto out = reply(r);
      out[2] = state_.controlMode;
      return out;
    }
    case kSetControlMode:
      if (!r.word(0, w0)) return failure();
      state_.controlMode = static_cast<uint8_t>(w0);
      return reply(r);
    case kIdentity: return identity(r);
    case kPresence: return presence(r);
    case kVersions: return versions(r);
    case kSetNetwork: return setNetwork(r);
    case kApplySettings: return applySettings(r);
    case kCardType: {
      auto out = reply(r);
      out[2] = state_.slot1CardType;
      return out;
    }
    case kSlot2Presence: {
      auto out = reply(r);
      out[2] = state_.slot2Present ? 1 : 0;
      return out;
    }
    case kRelayState: return relayFrame(r);
    case kClearAll: return clearRelays(r);
    case kSetGpib:
      if (!r.word(0, w0) || (w0 & 0xFF) < 1 || (w0 & 0xFF) > 30) return failure();
      state_.gpibAddress = static_cast<uint8_t>(w0);
      return reply(r);
    case kSetBaud: {
      if (!r.word(0, w0) || !r.word(1, w1)) return failure();
      const uint32_t rate = w0 | static_cast<uint32_t>(w1) << 16;
      if (!standardLineRate(rate)) return failure();
      state_.baudRate = rate;  // this reply still goes out at the old rate
      return reply(r);
    }
    case kGetGpib: {
      auto out = reply(r);
      out[2] = state_.gpibAddress;
      return out;
    }
    case kGetBaud: {
      auto out = reply(r);
      putLe32(out, 2, state_.baudRate);
      return out;
    }
    case kGetNetwork: {
      auto out = reply(r);
      for (int i = 0; i < 4; ++i) out[2 + 2 * i] = state_.ip[i];
      return out;
    }
    case kGetLanMode: {
      auto out = reply(r);
      out[2] = state_.lanMode;
      return out;
    }
    case kSetLanMode:
      if (!r.word(0, w0) || w0 > 1) return failure();
      state_.lanMode = static_cast<uint8_t>(w0);
      return reply(r);
    case kSecondVersion: {
      auto out = reply(r);
      out[2] = state_.secondFirmware.first;
      out[3] = state_.secondFirmware.second;
      return out;
    }
    case kSelfTest: return selfTest(r);
    case kBoardInPlace: {
      auto out = reply(r);
      std::copy(state_.boardInPlace.begin(), state_.boardInPlace.end(), out.begin() + 2);
      return out;
    }
    case kSpiLoop: return spiLoop(r);
    case kUpdateBegin: return updateBegin(r);
    case kUpdateData: return updateData(r);
    case kUpdateEnd: return updateEnd(r);
    default: break;
  }
  if (r.command >= kSetCardSerialSlot1 && r.command <= kSetCardSerialSlot6) {
    const size_t slot = r.command - kSetCardSerialSlot1 + 1u;
    uint32_t serial = 0;
    uint8_t hw = 0;
    if (slot > state_.cards.size() || !serialPayload(r, serial, hw)) return failure();
    state_.cards[slot - 1] = CardIdentity{serial, hw};
    return reply(r);
  }
  return failure();
}

bool ChassisFirmware::serialPayload(const Request &r, uint32_t &serial, uint8_t &hw) {
  uint16_t w = 0;
  serial = 0;
  for (size_t i = 0; i < 4; ++i) {
    if (!r.word(i, w)) return false;
    serial = serial << 8 | (w & 0xFFu);
  }
  if (!r.word(4, w)) return false;
  hw = static_cast<uint8_t>(w);
  return true;
}

std::vector<uint8_t> ChassisFirmware::identity(const Request &) const {
  const size_t slots = state_.cards.size();
  std::vector<uint8_t> out(std::max(kReplySize, 16 + 10 * slots), 0);
  const uint16_t type = state_.typeCode != 0 ? state_.typeCode : static_cast<uint16_t>(state_.model);
  if (olderIdentityLayout()) {
    // Seven-digit serial in three bytes, no hardware version.
    out[0] = static_cast<uint8_t>(state_.serial >> 16);
    out[2] = static_cast<uint8_t>(state_.serial >> 8);
    out[4] = static_cast<uint8_t>(state_.serial);
    out[6] = static_cast<uint8_t>(type >> 8);
    out[7] = static_cast<uint8_t>(type);
    out[8] = static_cast<uint8_t>(state_.idChars[0]);
    out[10] = static_cast<uint8_t>(state_.idChars[1]);
  } else {
    putSerial(out, 0, state_.serial);
    out[8] = state_.hwVersion;
    out[10] = static_cast<uint8_t>(type >> 8);
    out[11] = static_cast<uint8_t>(type);
    out[12] = static_cast<uint8_t>(state_.idChars[0]);
    out[14] = static_cast<uint8_t>(state_.idChars[1]);
  }
  for (size_t k = 0; k < slots; ++k) {
    putSerial(out, 16 + k * 10, state_.cards[k].serial);
    out[16 + k * 10 + 8] = state_.cards[k].hwVersion;
  }
  return out;
}

std::vector<uint8_t> ChassisFirmware::presence(const Request &r) const {
  uint32_t mask = state_.presenceMask;
  if (!state_.presenceMaskSet) mask = (1u << boardCount(state_.model)) - 1;
  auto out = reply(r);
  out[2] = static_cast<uint8_t>(mask);
  out[3] = static_cast<uint8_t>(mask >> 8);
  out[4] = static_cast<uint8_t>(mask >> 16);
  return out;
}

std::vector<uint8_t> ChassisFirmware::versions(const Request &r) const {
  auto out = reply(r);
  if (isRk420Family(state_.model)) {
    const auto [major, minor] = mainVersion();
    const size_t at = state_.versionInBytes45 ? 4 : 2;
    out[at] = major;
    out[at + 1] = minor;
    return out;
  }
  // Pairs from byte 2 on; a zero pair must remain to end the list.
  const size_t maxPairs = (out.size() - 2) / 2 - 1;
  for (size_t i = 0; i < state_.firmware.size() && i < maxPairs; ++i) {
    out[2 + 2 * i] = state_.firmware[i].first;
    out[3 + 2 * i] = state_.firmware[i].second;
  }
  return out;
}

std::vector<uint8_t> ChassisFirmware::setNetwork(const Request &r) {
  uint16_t w = 0;
  for (size_t i = 0; i < 8; ++i) {
    if (!r.word(i, w)) return failure();
    (i < 4 ? pendingIp_[i] : pendingGateway_[i - 4]) = static_cast<uint8_t>(w);
  }
  networkPending_ = true;
  // The RK421's network board takes a new address at once; the others
  // wait for the apply command.
  if (state_.model == Model::RK421) return applySettings(r);
  return reply(r);
}

std::vector<uint8_t> ChassisFirmware::applySettings(const Request &r) {
  if (networkPending_) {
    state_.ip = pendingIp_;
    state_.gateway = pendingGateway_;
    networkPending_ = false;
  }
  return reply(r);
}

std::vector<uint8_t> ChassisFirmware::relayFrame(const Request &r) {
  if (state_.model == Model::RK421 && state_.controlMode == 0) {
    // Local control: the front panel owns the relays. Byte 0 says so, but
    // the reply is not the all-FF failure marker.
    auto out = reply(r);
    out[0] = 0xFF;
    out[1] = 0;
    return out;
  }
  const size_t boards = static_cast<size_t>(boardCount(state_.model));
  const size_t length = r.lengthField;
  if (length == 0 || length % (2 * boards) != 0 || r.payloadSize < length) return failure();
  const size_t words = length / 2 / boards;
  std::vector<Relay> closed;
  for (size_t g = 0; g < boards; ++g) {
    for (size_t w = 0; w < words; ++w) {
      uint16_t bits = 0;
      r.word(g * words + w, bits);
      // Within a board the words arrive last bit group first.
      const int group = static_cast<int>(words - 1 - w);
      for (int b = 0; b < 16; ++b)
        if (bits >> b & 1) closed.push_back(Relay{static_cast<int>(g), group, b});
    }
  }
  std::sort(closed.begin(), closed.end());
  closed_ = std::move(closed);
  groupsPerBoard_ = static_cast<int>(words);
  return reply(r);
}

std::vector<uint8_t> ChassisFirmware::clearRelays(const Request &r) {
  if (state_.model != Model::RK422) return failure();
  closed_.clear();
  return reply(r);
}

std::vector<uint8_t> ChassisFirmware::selfTest(const Request &r) const {
  uint16_t slot = 0;
  if (!r.word(0, slot) || slot > 2) return failure();
  const bool missing = state_.boardInPlace[slot] == 0;
  const bool broken = std::any_of(state_.spiLoop.begin(), state_.spiLoop.end(),
                                  [](uint8_t v) { return v == 0; });
  auto out = reply(r);
  out[2] = static_cast<uint8_t>((missing ? 1 : 0) | (broken ? 2 : 0));
  out[3] = static_cast<uint8_t>(std::count_if(state_.boardInPlace.begin(), state_.boardInPlace.end(),
                                              [](uint8_t v) { return v != 0; }));
  return out;
}

std::vector<uint8_t> ChassisFirmware::spiLoop(const Request &r) const {
  uint16_t slot = 0;
  if (!r.word(0, slot) || slot > 2) return failure();
  auto out = reply(r);
  std::copy(state_.spiLoop.begin(), state_.spiLoop.end(), out.begin() + 2);
  return out;
}

std::vector<uint8_t> ChassisFirmware::updateBegin(const Request &r) {
  uint16_t low = 0, high = 0;
  if (!r.word(0, low) || !r.word(1, high)) return failure();
  const uint32_t size = low | static_cast<uint32_t>(high) << 16;
  auto out = reply(r);
  updateBuffer_.clear();
  updating_ = size > 0 && size <= kMaxImageSize;
  updateSize_ = updating_ ? size : 0;
  out[2] = updating_ ? 0 : 1;
  return out;
}

std::vector<uint8_t> ChassisFirmware::updateData(const Request &r) {
  auto out = reply(r);
  const size_t chunk = r.lengthField;
  const bool taken = updating_ && chunk >= 1 && chunk <= kMaxChunk && r.payloadSize >= chunk &&
                     updateBuffer_.size() + chunk <= updateSize_;
  if (taken) updateBuffer_.insert(updateBuffer_.end(), r.payload, r.payload + chunk);
  out[2] = taken ? 0 : 1;
  return out;
}

std::vector<uint8_t> ChassisFirmware::updateEnd(const Request &r) {
  uint16_t low = 0, high = 0;
  if (!r.word(0, low) || !r.word(1, high)) return failure();
  const uint32_t expected = low | static_cast<uint32_t>(high) << 16;
  const uint32_t own = std::accumulate(updateBuffer_.begin(), updateBuffer_.end(), 0u);
  const bool accepted = updating_ && updateBuffer_.size() == updateSize_ && own == expected &&
                        !state_.rejectUpdate;
  if (accepted) acceptedImage_ = updateBuffer_;
  updating_ = false;
  auto out = reply(r);
  out[2] = accepted ? 0 : 1;
  putLe32(out, 4, own);
  return out;
}

}  // namespace qbsim::detail
