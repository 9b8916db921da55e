#include "switching_bench.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace qbtest {

std::string resourceName(int n) {
  return "TCPIP0::192.168.1." + std::to_string(20 + n) + "::inst0::INSTR";
}

qbsim::ChassisConfig chassisConfig(qbsim::Model model) {
  qbsim::ChassisConfig config;
  config.model = model;
  return config;
}

std::vector<Connection> connectBench(
    const std::vector<qbsim::ChassisConfig> &chassis) {
  qbsim::Bench bench;
  for (size_t n = 0; n < chassis.size(); ++n) {
    qbsim::Resource resource;
    resource.name = resourceName(static_cast<int>(n));
    resource.chassis = chassis[n];
    bench.resources.push_back(resource);
  }
  qbsim::setBench(bench);
  QBVISA_ResourceEntry list[8] = {};
  uint32_t found = 0;
  EXPECT_EQ(QBVISA_FindRsrc(list, &found), 0);
  EXPECT_EQ(found, chassis.size());
  std::vector<Connection> connections;
  for (const qbsim::Resource &resource : bench.resources) {
    Connection c;
    c.resource = resource.name;
    EXPECT_EQ(QBVISA_Connect(resource.name.c_str(), &c.session), 0)
        << resource.name;
    EXPECT_GE(FindChassis(static_cast<int32_t>(c.session), &c.record), 0)
        << resource.name;
    qbsim::clearTraffic(resource.name);
    connections.push_back(c);
  }
  return connections;
}

Connection connectChassis(const qbsim::ChassisConfig &config) {
  return connectBench({config}).front();
}

Connection readyChassis(const qbsim::ChassisConfig &config) {
  Connection c = connectChassis(config);
  uint64_t kind = 99;
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), 0);
  EXPECT_EQ(QBVISA_Init(c.session, 0), 0);
  qbsim::clearTraffic(c.resource);
  return c;
}

uint32_t pointIndex(const SlotArea &slot, uint32_t row, uint32_t sub,
                    uint32_t column) {
  return (row * slot.subMatrixCount + sub) * slot.columnCount + column;
}

std::vector<uint32_t> wordsFor(const std::vector<uint32_t> &points,
                               size_t wordCount) {
  std::vector<uint32_t> words(wordCount, 0);
  for (uint32_t p : points) {
    if (p / 32 < wordCount) words[p / 32] |= 1u << (p % 32);
  }
  return words;
}

namespace {

// Adds the relay GetPoint names for `selector`, as board-relative bit group
// and bit, when it lies in the part of the board the frame carries.
void addRelay(std::set<qbsim::Relay> &relays, const SlotArea &slot, int board,
              uint32_t kind, LocationSelector selector, uint32_t row,
              uint32_t column) {
  // The RK422 tables cover one block of four rows, with bits counted from 1.
  const bool blocks = kind == MATRIX_KIND_RK422;
  RelayPosition where{-1, -1};
  GetPoint(kind, selector, blocks ? row % 4 : row, column, &where);
  const int group =
      where.group +
      (blocks ? static_cast<int>(slot.wordsPerGroup * (row / 4)) : 0);
  const int bit = blocks ? where.position - 1 : where.position;
  if (group < 0 || group >= slot.wordsPerGroup || bit < 0 || bit > 15) return;
  // A 13-word board of the RK420 family never closes bits 12..15 of group 12.
  if (kind == MATRIX_KIND_RK420 && slot.wordsPerGroup == 13 && group == 12 &&
      bit >= 12)
    return;
  relays.insert(qbsim::Relay{board, group, bit});
}

}  // namespace

std::vector<qbsim::Relay> expectedRelays(const ChassisRecord &record,
                                         const std::vector<uint32_t> &words) {
  const SlotArea &slot = record.slots[0];
  const uint32_t kind = slot.matrixKind;
  const uint32_t perRow = uint32_t{slot.subMatrixCount} * slot.columnCount;
  const size_t usedWords = std::min<size_t>(words.size(), slot.arrayWordLimit);
  std::set<qbsim::Relay> relays;
  for (uint32_t p = 0; p < slot.pointCount && p / 32 < usedWords; ++p) {
    if ((words[p / 32] >> (p % 32) & 1u) == 0) continue;
    const uint32_t row = p / perRow;
    const uint32_t sub = p % perRow / slot.columnCount;
    uint32_t column = p % perRow % slot.columnCount;
    if (record.modelTypeCode == QBVISA_TYPE_RK421 && column <= 5)
      column = 5 - column;
    const int board = slot.subMatrixGroup[sub];
    if (board < 0) continue;
    addRelay(relays, slot, board, kind, MATRIX, row, column);
    addRelay(relays, slot, board, kind, ISO_Y, row, column);
    const bool isoX = kind == MATRIX_KIND_RK420 || kind == MATRIX_KIND_RK421 ||
                      (kind == MATRIX_KIND_RK423 && row >= 2);
    const bool isoCv = (kind == MATRIX_KIND_RK421 && (row == 4 || row == 5)) ||
                       (kind == MATRIX_KIND_RK423 && row >= 6);
    if (isoX) addRelay(relays, slot, board, kind, ISO_X, row, column);
    if (isoCv) addRelay(relays, slot, board, kind, ISO_CV, row, column);
  }
  if (record.modelTypeCode == QBVISA_TYPE_RK423) {
    for (uint32_t j = 0; j < slot.ltIsolationCount && j < 2; ++j) {
      if (slot.ltIsolationState[j] == 1)
        addRelay(relays, slot, 0, kind, ISO_LT, j, 0);
    }
  }
  return {relays.begin(), relays.end()};
}

std::vector<uint8_t> bytesOf(const std::vector<uint16_t> &words) {
  std::vector<uint8_t> bytes;
  for (uint16_t w : words) {
    bytes.push_back(static_cast<uint8_t>(w & 0xFF));
    bytes.push_back(static_cast<uint8_t>(w >> 8));
  }
  return bytes;
}

std::vector<uint16_t> wordsOf(const std::vector<uint8_t> &bytes) {
  std::vector<uint16_t> words;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    words.push_back(static_cast<uint16_t>(bytes[i] | bytes[i + 1] << 8));
  return words;
}

}  // namespace qbtest
