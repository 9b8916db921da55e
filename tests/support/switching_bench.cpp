#include "switching_bench.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace qbtest {

qbsim::ChassisConfig chassisConfig(qbsim::Model model, uint8_t major,
                                   uint8_t minor) {
  qbsim::ChassisConfig config;
  config.model = model;
  config.firmware = {{major, minor}};
  return config;
}

std::vector<Connection> connectBench(
    const std::vector<qbsim::ChassisConfig> &chassis) {
  qbsim::Bench bench;
  for (size_t n = 0; n < chassis.size(); ++n)
    bench.resources.push_back(
        {"TCPIP0::192.168.1." + std::to_string(20 + n) + "::inst0::INSTR",
         qbsim::ResourceKind::Chassis, chassis[n], {}});
  qbsim::setBench(bench);
  QBVISA_ResourceEntry list[8] = {};
  uint32_t found = 0;
  EXPECT_EQ(QBVISA_FindRsrc(list, &found), 0);
  EXPECT_EQ(found, chassis.size());
  std::vector<Connection> connections;
  for (const qbsim::Resource &resource : bench.resources) {
    Connection c{resource.name};
    EXPECT_EQ(QBVISA_Connect(c.resource.c_str(), &c.session), 0) << c.resource;
    EXPECT_GE(FindChassis(static_cast<int32_t>(c.session), &c.record), 0);
    qbsim::clearTraffic(c.resource);
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

std::vector<uint32_t> wordsFor(const SlotArea &slot,
                               const std::vector<uint32_t> &points) {
  std::vector<uint32_t> words(slot.arrayWordLimit, 0);
  for (uint32_t p : points)
    if (p / 32 < words.size()) words[p / 32] |= 1u << (p % 32);
  return words;
}

namespace {

// Adds the relay GetPoint names for `selector`, as board-relative bit group
// and bit, when it lies in the part of the board the frame carries.
void addRelay(std::set<qbsim::Relay> &relays, const SlotArea &slot, int board,
              LocationSelector selector, uint32_t row, uint32_t column) {
  // The RK422 tables cover one block of four rows, with bits counted from 1.
  const uint32_t kind = slot.matrixKind;
  const bool blocks = kind == MATRIX_KIND_RK422;
  RelayPosition where{-1, -1};
  GetPoint(kind, selector, blocks ? row % 4 : row, column, &where);
  const int group =
      where.group + (blocks ? int(slot.wordsPerGroup * (row / 4)) : 0);
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
    const uint32_t row = p / perRow, sub = p % perRow / slot.columnCount;
    uint32_t column = p % perRow % slot.columnCount;
    if (record.modelTypeCode == QBVISA_TYPE_RK421 && column <= 5)
      column = 5 - column;
    const int board = slot.subMatrixGroup[sub];
    if (board < 0) continue;
    addRelay(relays, slot, board, MATRIX, row, column);
    addRelay(relays, slot, board, ISO_Y, row, column);
    if (kind == MATRIX_KIND_RK420 || kind == MATRIX_KIND_RK421 ||
        (kind == MATRIX_KIND_RK423 && row >= 2))
      addRelay(relays, slot, board, ISO_X, row, column);
    if ((kind == MATRIX_KIND_RK421 && (row == 4 || row == 5)) ||
        (kind == MATRIX_KIND_RK423 && row >= 6))
      addRelay(relays, slot, board, ISO_CV, row, column);
  }
  for (uint32_t j = 0; record.modelTypeCode == QBVISA_TYPE_RK423 &&
                       j < slot.ltIsolationCount && j < 2; ++j)
    if (slot.ltIsolationState[j] == 1) addRelay(relays, slot, 0, ISO_LT, j, 0);
  return {relays.begin(), relays.end()};
}

}  // namespace qbtest
