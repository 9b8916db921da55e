// firmware.hpp - the controller firmware of one simulated chassis: it decodes
// request frames (u16 command, u16 length field, payload; little-endian) and
// produces the reply bytes the real controller would send back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qbsim.hpp"

namespace qbsim::detail {

// Relay boards covered by one relay-state frame (one per sub-matrix).
int boardCount(Model m);
// Bit groups per board the controller expects before it has seen a frame.
int nominalGroupsPerBoard(const ChassisConfig &config);

class ChassisFirmware {
 public:
  explicit ChassisFirmware(ChassisConfig config);

  // Answers one binary request; the reply is never empty.
  std::vector<uint8_t> handle(const uint8_t *frame, size_t size);
  // The "*IDN?" answer: every field followed by one blank before its comma.
  std::string identification() const;

  const ChassisConfig &state() const { return state_; }
  ChassisConfig &state() { return state_; }
  const std::vector<Relay> &closedRelays() const { return closed_; }
  int groupsPerBoard() const { return groupsPerBoard_; }
  const std::vector<uint8_t> &acceptedImage() const { return acceptedImage_; }

 private:
  struct Request {
    uint16_t command;
    uint16_t lengthField;
    const uint8_t *payload;
    size_t payloadSize;
    bool word(size_t index, uint16_t &out) const;
  };

  std::vector<uint8_t> reply(const Request &r, size_t size = kReplySize) const;
  static std::vector<uint8_t> failure();

  std::vector<uint8_t> identity(const Request &r) const;
  std::vector<uint8_t> presence(const Request &r) const;
  std::vector<uint8_t> versions(const Request &r) const;
  static bool serialPayload(const Request &r, uint32_t &serial, uint8_t &hw);
  std::vector<uint8_t> setNetwork(const Request &r);
  std::vector<uint8_t> applySettings(const Request &r);
  std::vector<uint8_t> relayFrame(const Request &r);
  std::vector<uint8_t> clearRelays(const Request &r);
  std::vector<uint8_t> selfTest(const Request &r) const;
  std::vector<uint8_t> spiLoop(const Request &r) const;
  std::vector<uint8_t> updateBegin(const Request &r);
  std::vector<uint8_t> updateData(const Request &r);
  std::vector<uint8_t> updateEnd(const Request &r);

  bool olderIdentityLayout() const;
  std::pair<uint8_t, uint8_t> mainVersion() const;

  static constexpr size_t kReplySize = 64;

  ChassisConfig state_;
  std::vector<Relay> closed_;
  int groupsPerBoard_;

  // Network settings received by command 13, waiting for command 14.
  bool networkPending_ = false;
  std::array<uint8_t, 4> pendingIp_{};
  std::array<uint8_t, 4> pendingGateway_{};

  bool updating_ = false;
  uint32_t updateSize_ = 0;
  std::vector<uint8_t> updateBuffer_;
  std::vector<uint8_t> acceptedImage_;
};

}  // namespace qbsim::detail
