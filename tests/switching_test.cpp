// Switching end to end on the simulated bench: a caller's bit array in, the
// exact frames and the relays the chassis closes out. Then a randomized
// differential test of the prepared tables against the point-by-point builder
// over every model and firmware generation (QBVISA_SWITCHING_SEED replays a run).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "core/chassis_model.h"
#include "switching/relay_frame.h"
#include "golden.hpp"
#include "bench.hpp"

namespace {

using qbsim::Model;
using qbsim::Relay;
using qbtest::Connection;

struct Point {
  uint32_t row, sub, column;
};

std::vector<uint32_t> wordsOf(const Connection &c, const std::vector<Point> &points) {
  const SlotArea &slot = c.record->slots[0];
  std::vector<uint32_t> indices;
  for (const Point &p : points)
    indices.push_back((p.row * slot.subMatrixCount + p.sub) * slot.columnCount + p.column);
  return qbtest::wordsFor(slot, indices);
}

// Every modulus-th point, from `first` on.
std::vector<uint32_t> everyNth(const Connection &c, uint32_t modulus, uint32_t first) {
  std::vector<uint32_t> indices;
  for (uint32_t p = first; p < c.record->slots[0].pointCount; p += modulus) indices.push_back(p);
  return qbtest::wordsFor(c.record->slots[0], indices);
}

int32_t opMatrix(const Connection &c, std::vector<uint32_t> words) {
  return QBVISA_OpMatrix(c.session, 0, words.data(), static_cast<uint32_t>(words.size()));
}

bool lastArrayHolds(const Connection &c, const std::vector<uint32_t> &words) {
  return std::memcmp(c.record->slots[0].lastArray, words.data(), words.size() * 4) == 0;
}

// One call as a transcript line: the status, each frame's byte count and
// non-zero 16-bit words (index:hex), and the relays the chassis holds closed.
template <class Call>
std::string transcriptOf(const Connection &c, const std::string &what, Call call) {
  qbsim::clearTraffic(c.resource);
  std::ostringstream out;
  out << what << ": " << call() << std::hex;
  for (const auto &frame : qbsim::writes(c.resource)) {
    out << " frame " << std::dec << frame.size() << std::hex;
    const std::vector<uint16_t> w = qbtest::Words(frame);
    for (size_t i = 0; i < w.size(); ++i)
      if (w[i] != 0) out << ' ' << i << ':' << w[i];
  }
  out << " closed" << std::dec;
  for (const Relay &r : qbsim::closedRelays(c.resource)) out << ' ' << r.board << '/' << r.group << '/' << r.bit;
  return out.str() + "\n";
}
std::string transcript(const Connection &c, const std::string &what, const std::vector<uint32_t> &words) {
  return transcriptOf(c, what, [&] { return opMatrix(c, words); });
}

// A point closes its crosspoint and the isolation relays its kind needs, on
// the board of its sub-matrix; bit group g of board b travels as frame word
// 2 + b*W + (W-1-g).
TEST(SwitchingTest, FramesAndRelaysMatchTheReviewedTranscript) {
  std::string out;
  struct Case {
    const char *what;
    Model model;
    std::vector<Point> points;
    uint32_t mask = 0;   // fitted sub-matrices; 0: all
    uint16_t rows = 0;   // 0: as opened
    uint8_t lt = 0;      // bit j: LT relay j closed
  } cases[] = {
      {"RK420 board 4", Model::RK420, {{0, 4, 0}}},
      {"RK420B", Model::RK420B, {{6, 4, 1}}},
      {"RK421 column 0 is wired as 5, row 4 adds CV", Model::RK421, {{4, 1, 0}}},
      {"RK421 column 6 as is", Model::RK421, {{0, 0, 6}}},
      {"RK422 bits from 1", Model::RK422, {{0, 0, 0}}},
      {"RK422 row 3", Model::RK422, {{3, 20, 24}}},
      // Rows 4 and up of the RK422 land beyond the 49 words a board sends.
      {"RK422 row 5", Model::RK422, {{5, 0, 0}}},
      {"RK423 row 7", Model::RK423, {{7, 0, 11}}},
      {"RK423 LT relays alone", Model::RK423, {}, 0, 0, 3},
      {"RK423B has no LT relays", Model::RK423B, {}, 0, 0, 3},
      {"RK423B row 6", Model::RK423B, {{6, 0, 3}}},
      // With sub-matrices 0, 2 and 4 fitted, sub-matrix 1 drives board 2
      // and sub-matrices 3 and 4 nothing.
      {"RK420 partly fitted", Model::RK420, {{0, 1, 0}, {0, 3, 0}, {0, 4, 0}}, 0x15},
      // Placing stops at the first point outside the matrix: the points
      // before it are still sent, but the LT relays are not placed.
      {"RK423 point outside", Model::RK423, {{1, 0, 0}, {5, 0, 0}, {6, 0, 2}}, 0, 4, 3},
  };
  for (const Case &c : cases) {
    qbsim::ChassisConfig config = qbtest::chassisConfig(c.model);
    config.presenceMask = c.mask;
    config.presenceMaskSet = c.mask != 0;
    const Connection chassis = qbtest::readyChassis(config);
    SlotArea &slot = chassis.record->slots[0];
    slot.rowCount = c.rows != 0 ? c.rows : slot.rowCount;
    slot.ltIsolationState[0] = c.lt & 1;
    slot.ltIsolationState[1] = c.lt >> 1 & 1;
    out += transcript(chassis, c.what, wordsOf(chassis, c.points));
  }
  // A 13-word RK420 board (firmware 1.x) never sends bits 12..15 of its bit
  // group 12, which travels as the board's first word; the RK421's 13-word
  // boards send them all. No table reaches that group, so an entry is bent.
  const std::tuple<Model, int, uint32_t> bent[] = {
      {Model::RK420, 11, 0}, {Model::RK420, 12, 0}, {Model::RK420B, 14, 3}, {Model::RK421, 13, 0}};
  for (const auto &[model, bit, sub] : bent) {
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(model, 1, 2));
    (model == Model::RK421 ? RK421_matrixLocation[0][5] : matrixLocation[0][0]) = PointLocation{12, bit, 0};
    out += transcript(chassis, std::string(qbsim::modelName(model)) + " 1.2 group 12 bit " + std::to_string(bit),
                      wordsOf(chassis, {{0, sub, 0}}));
    InitPointInfo();
  }
  // Whole patterns on every model and firmware generation, all or some
  // sub-matrices fitted, with and without the LT relays asked for.
  const std::pair<Model, int> generations[] = {{Model::RK420, 3}, {Model::RK420, 1}, {Model::RK420B, 3},
      {Model::RK421, 3}, {Model::RK422, 3}, {Model::RK423, 3}, {Model::RK423B, 3}};
  for (const auto &[model, major] : generations)
    for (uint32_t mask : {0u, 0x15u}) {
      qbsim::ChassisConfig config = qbtest::chassisConfig(model, uint8_t(major));
      config.presenceMask = mask;
      config.presenceMaskSet = mask != 0;
      const Connection chassis = qbtest::readyChassis(config);
      const std::string name = std::string(qbsim::modelName(model)) + " " + std::to_string(major) + " mask " + std::to_string(mask);
      out += transcript(chassis, name + " every 7th", everyNth(chassis, 7, 0));
      chassis.record->slots[0].ltIsolationState[0] = chassis.record->slots[0].ltIsolationState[1] = 1;
      out += transcript(chassis, name + " every 11th from 3, LT", everyNth(chassis, 11, 3));
    }
  qbgolden::expectGolden("switching_transcript.txt", out);
}

// Points are added one at a time, each kept only if the chassis takes it: the
// most relays (crosspoints and isolation relays together) ever closed must be
// the limit itself. Then a refused array sends nothing and changes nothing.
TEST(SwitchingTest, ClosureLimitIsCheckedBeforeAnythingIsSent) {
  const struct {
    Model model;
    size_t limit;
  } cases[] = {{Model::RK420, 400}, {Model::RK420B, 400}, {Model::RK421, 270}};
  for (const auto &c : cases) {
    SCOPED_TRACE(qbsim::modelName(c.model));
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    const SlotArea &slot = chassis.record->slots[0];
    std::vector<uint32_t> words(slot.arrayWordLimit, 0);
    size_t most = 0;
    for (uint32_t p = 0; p < slot.pointCount; ++p) {
      words[p / 32] |= 1u << (p % 32);
      const int32_t status = opMatrix(chassis, words);
      if (status != 0) words[p / 32] &= ~(1u << (p % 32));
      ASSERT_TRUE(status == 0 || status == QBVISA_ERR_CLOSURE_LIMIT) << status;
      most = std::max(most, qbsim::closedRelays(chassis.resource).size());
    }
    EXPECT_EQ(most, c.limit);
    qbsim::clearTraffic(chassis.resource);
    currentOpSwitch = 3;
    EXPECT_EQ(opMatrix(chassis, everyNth(chassis, 1, 0)), QBVISA_ERR_CLOSURE_LIMIT);
    EXPECT_TRUE(qbsim::writes(chassis.resource).empty());
    EXPECT_TRUE(lastArrayHolds(chassis, words));
    EXPECT_EQ(currentOpSwitch, 3);
  }
  // The other models have no limit.
  const Connection rk422 = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
  EXPECT_EQ(opMatrix(rk422, everyNth(rk422, 1, 0)), 0);
}

// A refused frame keeps the previous array as the slot's last array, and
// gives the exchange lock back.
TEST(SwitchingTest, FailedExchangesLeaveTheLastArrayAlone) {
  const struct {
    Model model;
    std::optional<qbsim::Fault> fault;  // none: front-panel control taken
    int32_t status;
  } cases[] = {
      {Model::RK420, qbsim::Fault::ReadFails, QBVISA_ERR_RECEIVE},
      {Model::RK423, qbsim::Fault::FailureReply, QBVISA_ERR_DEVICE_FAILURE},
      {Model::RK421, {}, QBVISA_ERR_CONTROL_MODE_CONFLICT},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(qbsim::modelName(c.model));
    const Connection chassis = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    const std::vector<uint32_t> kept = everyNth(chassis, 7, 1);
    currentOpSwitch = 4;
    ASSERT_EQ(opMatrix(chassis, kept), 0);
    EXPECT_EQ(currentOpSwitch, 0);
    currentOpSwitch = 4;
    c.fault ? qbsim::injectFault(chassis.resource, *c.fault)
            : qbsim::setControlMode(chassis.resource, 0);
    EXPECT_EQ(opMatrix(chassis, everyNth(chassis, 7, 3)), c.status);
    EXPECT_TRUE(lastArrayHolds(chassis, kept));
    EXPECT_EQ(currentOpSwitch, 4);
    EXPECT_EQ(opMatrix(chassis, kept), c.model == Model::RK421 ? c.status : 0);
  }
}

// Internal callers switch without the exchange lock, which a failed locked
// write would leave taken: a failed write here leaves it free.
TEST(SwitchingTest, UnlockedSwitching) {
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK421));
  std::vector<uint32_t> words = everyNth(c, 7, 1);
  ASSERT_EQ(opMatrix(c, words), 0);
  const std::vector<Relay> closed = qbsim::closedRelays(c.resource);
  ASSERT_EQ(opMatrix(c, {}), 0);
  ASSERT_EQ(OpMatrix(c.record, 0, words.data(), words.size(), 0), 0);
  EXPECT_EQ(qbsim::closedRelays(c.resource), closed);
  qbsim::injectFault(c.resource, qbsim::Fault::WriteFails);
  EXPECT_EQ(OpMatrix(c.record, 0, words.data(), words.size(), 0), QBVISA_ERR_SEND);
  EXPECT_EQ(opMatrix(c, words), 0);
}

// "kept 1" where the last array holds what it should: no words open every
// relay and leave the last array as it was; words beyond the limit are kept
// but not switched (every model's limit covers its points, so it is lowered).
TEST(SwitchingTest, SlotArgumentAndWordCountRules) {
  std::string out;
  uint32_t word = 1;
  const struct {
    const char *what;
    Model model;
    int opened;         // highest slot opened, -1: none
    uint32_t session;   // 0: the chassis's own
    uint64_t slot;
    uint32_t *array, words;
  } cases[] = {
      {"unknown session", Model::RK420, 0, qbtest::kUnknownSession, 0, &word, 1},
      {"null array", Model::RK420, 0, 0, 0, nullptr, 3},
      {"slot 0 not opened", Model::RK420, -1, 0, 0, &word, 1},
      {"slot 3", Model::RK420, 0, 0, 3, &word, 1},
      {"only slot 0 switches", Model::RK420, 1, 0, 1, &word, 1},
      {"RK423B keeps slot 1", Model::RK423B, 0, 0, 1, &word, 1},
      {"RK421 any slot is 0", Model::RK421, 0, 0, 7, &word, 1},
  };
  for (const auto &c : cases) {
    qbsim::ChassisConfig config = qbtest::chassisConfig(c.model);
    config.presenceMask = 0x3F;  // a card in slot 1 of an RK420
    config.presenceMaskSet = c.opened == 1;
    const Connection chassis = c.opened < 0 ? qbtest::connectChassis(config) : qbtest::readyChassis(config);
    uint64_t kind = 0;
    ASSERT_EQ(c.opened == 1 ? QBVISA_OpenSpecifiedCard(chassis.session, 1, &kind) : 0, 0);
    const uint32_t session = c.session != 0 ? c.session : chassis.session;
    out += transcriptOf(chassis, c.what, [&] { return QBVISA_OpMatrix(session, c.slot, c.array, c.words); });
  }
  const Connection rk420 = qbtest::readyChassis(qbtest::chassisConfig(Model::RK420));
  const std::vector<uint32_t> kept = everyNth(rk420, 5, 0);
  ASSERT_EQ(opMatrix(rk420, kept), 0);
  out += transcript(rk420, "RK420 no words", {});
  out += "kept " + std::to_string(lastArrayHolds(rk420, kept)) + "\n";
  const Connection rk423 = qbtest::readyChassis(qbtest::chassisConfig(Model::RK423));
  rk423.record->slots[0].arrayWordLimit = 2;
  const std::vector<uint32_t> words = {1, 0, 0xFFFFFFFFu, 0x12345678u};
  out += transcript(rk423, "RK423 limit 2", words);
  out += "kept " + std::to_string(lastArrayHolds(rk423, words)) + "\n";
  qbgolden::expectGolden("switching_rules.txt", out);
  // More than the last array holds: the first 6000 bytes are kept and the
  // fields after it are untouched.
  const Connection rk422 = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
  std::vector<uint32_t> many(2000);
  for (size_t i = 0; i < many.size(); ++i) many[i] = static_cast<uint32_t>(i * 2654435761u);
  ASSERT_EQ(opMatrix(rk422, {many.begin(), many.begin() + 1008}), 0);
  const std::vector<Relay> closed = qbsim::closedRelays(rk422.resource);
  ASSERT_EQ(opMatrix(rk422, many), 0);
  EXPECT_EQ(std::memcmp(rk422.record->slots[0].lastArray, many.data(), 6000), 0);
  EXPECT_EQ(rk422.record->slots[0].arrayWordLimit, 1008);
  EXPECT_EQ(qbsim::closedRelays(rk422.resource), closed);
}

// A geometry larger than the relay image is refused before anything is
// built or sent; a board number outside the image is skipped.
TEST(SwitchingTest, GeometryOutsideTheImageIsRefused) {
  const Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
  SlotArea &slot = c.record->slots[0];
  const std::vector<uint32_t> words = everyNth(c, 3, 0);
  std::vector<uint16_t> frame(qbvisa::kRelayFrameWords);
  std::vector<uint8_t> points(qbvisa::kPointListBytes);
  slot.groupCount = 26;
  EXPECT_EQ(opMatrix(c, words), QBVISA_ERR_PARAMETER);
  slot.groupCount = 21;
  slot.wordsPerGroup = 201;
  EXPECT_EQ(SendRelayStateType0(c.record, points.data(), frame.data(), 1), QBVISA_ERR_PARAMETER);
  EXPECT_TRUE(qbsim::writes(c.resource).empty());
  slot.wordsPerGroup = 49;
  // The caller's frame past the payload is not written.
  std::fill(frame.begin(), frame.end(), uint16_t{0xA5A5});
  ASSERT_EQ(SendRelayStateType0(c.record, points.data(), frame.data(), 1), 0);
  EXPECT_EQ(frame.at(2 + 21 * 49), 0xA5A5);
  // A sub-matrix on board 30 closes what a sub-matrix on no board does.
  slot.subMatrixGroup[0] = -1;
  ASSERT_EQ(opMatrix(c, words), 0);
  const std::vector<Relay> closed = qbsim::closedRelays(c.resource);
  slot.subMatrixGroup[0] = 30;
  ASSERT_EQ(opMatrix(c, words), 0);
  EXPECT_EQ(qbsim::closedRelays(c.resource), closed);
}

// Callers of these low-level pieces may pass anything.
TEST(SwitchingHelpersTest, BadArgumentsAreRefusedOrBounded) {
  const struct {
    int32_t row, column, state, status;
  } checks[] = {
      {11, 9, 1, 0}, {12, 0, 0, QBVISA_ERR_ROW_RANGE}, {-1, 99, 5, QBVISA_ERR_ROW_RANGE},
      {0, 10, 5, QBVISA_ERR_COLUMN_RANGE}, {0, -1, 0, QBVISA_ERR_COLUMN_RANGE},
      {0, 0, 2, QBVISA_ERR_STATE_RANGE}, {0, 0, -1, QBVISA_ERR_STATE_RANGE},
  };
  for (const auto &c : checks)
    EXPECT_EQ(CheckPointParam(c.row, c.column, c.state, 12, 10), c.status) << c.row << "," << c.column;
  std::vector<uint32_t> words(2000, 1);
  std::vector<uint8_t> points(qbvisa::kPointListBytes + 64, 0);
  EXPECT_EQ(UserArrayToMatrixPoints(words.data(), 3, 3, nullptr), -1);
  EXPECT_EQ(UserArrayToMatrixPoints(nullptr, 3, 3, points.data()), -1);
  EXPECT_EQ(UserArrayToMatrixPoints(words.data(), 3, -4, points.data()), -1);
  EXPECT_EQ(points[0], 0);
  // A word limit beyond the point list is held to the list.
  EXPECT_EQ(UserArrayToMatrixPoints(words.data(), 2000, 2000, points.data()), 0);
  EXPECT_EQ(points[qbvisa::kPointListBytes - 32], 1);
  EXPECT_EQ(points[qbvisa::kPointListBytes], 0);
}

struct Sent {
  int32_t status;
  std::vector<std::vector<uint8_t>> writes;
  bool operator==(const Sent &) const = default;
};

// Frames built point by point; the library's own calls reach this copy
// first, so a registry record that skips its prepared table shows here.
int pointByPointFrames = 0;

}  // namespace

extern "C" int32_t SendRelayStateType0(ChassisRecord *record, const uint8_t *points, uint16_t *frame,
                                       uint32_t locked) {
  using Next = int32_t (*)(ChassisRecord *, const uint8_t *, uint16_t *, uint32_t);
  static const auto next = reinterpret_cast<Next>(dlsym(RTLD_NEXT, "SendRelayStateType0"));
  ++pointByPointFrames;
  return next(record, points, frame, locked);
}

namespace {

// The same words through the registry record and through a copy of it.
std::pair<Sent, Sent> bothPaths(const qbtest::Connection &c, std::vector<uint32_t> &array) {
  static ChassisRecord copy;
  copy = *c.record;
  std::pair<Sent, Sent> out;
  qbsim::clearTraffic(c.resource);
  out.first.status = QBVISA_OpMatrix(c.session, 0, array.data(), uint32_t(array.size()));
  out.first.writes = qbsim::writes(c.resource);
  qbsim::clearTraffic(c.resource);
  out.second.status = OpMatrix(&copy, 0, array.data(), uint32_t(array.size()), 1);
  out.second.writes = qbsim::writes(c.resource);
  return out;
}

uint64_t seedOfRun() {
  const char *given = std::getenv("QBVISA_SWITCHING_SEED");
  const uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
  std::cout << "QBVISA_SWITCHING_SEED=" << seed << "\n";
  return seed;
}

// A location entry of the slot's kind, to bend and restore.
PointLocation *locationEntry(uint32_t kind, std::mt19937_64 &rng) {
  const uint64_t table = rng(), row = rng(), column = rng();
  switch (kind) {  // any table of the kind: a change to any of them must show
    case MATRIX_KIND_RK420: {
      PointLocation(*tables[])[10] = {matrixLocation, isoLocationX, isoLocationY};
      return &tables[table % 3][row % 12][column % 10];
    }
    case MATRIX_KIND_RK421: {
      PointLocation(*tables[])[12] = {RK421_matrixLocation, RK421_isoLocationX, RK421_isoLocationY,
                                      RK421_isoLocationCV};
      return &tables[table % 4][row % 10][column % 12];
    }
    case MATRIX_KIND_RK422: return &(table % 2 ? RK422_isoLocationY : RK422_matrixLocation)[row % 16][column % 96];
    default: {
      PointLocation(*tables[])[12] = {RK423_matrixLocation, RK423_isoLocationX, RK423_isoLocationY,
                                      RK423_isoLocationCV, RK423_isoLocationLT};
      return table % 5 == 4 ? &RK423_isoLocationLT[row % 2][0] : &tables[table % 4][row % 8][column % 12];
    }
  }
}

// A caller's change to the last location table of a kind reaches the next
// frame: the prepared table watches every table of its kind, not only some.
TEST(SwitchingDifferentialTest, EveryLocationTableIsWatched) {
  const struct { Model model; PointLocation *entry; uint32_t row; } cases[] = {
      {Model::RK420, &isoLocationY[0][0], 0},
      {Model::RK421, &RK421_isoLocationCV[4][5], 4},  // its column 0 is wired to 5
      {Model::RK422, &RK422_isoLocationY[0][0], 0},
      {Model::RK423, &RK423_isoLocationCV[6][0], 6}};
  for (const auto &c : cases) {
    const qbtest::Connection conn = qbtest::readyChassis(qbtest::chassisConfig(c.model));
    const SlotArea &s = conn.record->slots[0];
    std::vector<uint32_t> array(s.arrayWordLimit, 0);
    const uint32_t point = c.row * s.columnCount * s.subMatrixCount;  // column 0 of the row
    array[point / 32] |= 1u << (point % 32);
    bothPaths(conn, array);  // the prepared table is built for these tables
    const PointLocation kept = *c.entry;
    c.entry->position = kept.position == 1 ? 2 : 1;
    const auto [prepared, pointByPoint] = bothPaths(conn, array);
    *c.entry = kept;
    EXPECT_EQ(prepared, pointByPoint) << qbsim::modelName(c.model);
    EXPECT_EQ(prepared.status, 0) << qbsim::modelName(c.model);
  }
}

TEST(SwitchingDifferentialTest, PreparedFramesMatchThePointByPointBuilder) {
  std::mt19937_64 rng(seedOfRun());
  const std::pair<Model, uint8_t> configs[] = {
      {Model::RK420, 3}, {Model::RK420, 1}, {Model::RK420B, 3}, {Model::RK420B, 1},
      {Model::RK421, 3}, {Model::RK422, 3}, {Model::RK423, 3}, {Model::RK423B, 3}};
  int cases = 0, sent = 0;
  for (const auto &[model, major] : configs)
    for (int fitting = 0; fitting < 2; ++fitting) {
      qbsim::ChassisConfig config = qbtest::chassisConfig(model, major, 6);
      const int subs = qbvisa::modelByType(uint16_t(model))->subMatrixCount;
      config.presenceMaskSet = true;
      config.presenceMask = (1u << subs) - 1u;
      if (fitting == 1) config.presenceMask &= uint32_t(rng()) | 1u << (rng() % subs);
      const qbtest::Connection c = qbtest::readyChassis(config);
      ChassisRecord &record = *c.record;
      const ChassisRecord saved = record;
      for (int n = 0; n < 250; ++n, ++cases) {
        SCOPED_TRACE(testing::Message() << qbsim::modelName(model) << " firmware " << int{major}
                                        << " mask " << config.presenceMask << " case " << n);
        record.modelTypeCode = saved.modelTypeCode;
        std::memcpy(&record.slots[0], &saved.slots[0], offsetof(SlotArea, lastArray));
        std::memcpy(&record.slots[0].arrayWordLimit, &saved.slots[0].arrayWordLimit,
                    sizeof(SlotArea) - offsetof(SlotArea, arrayWordLimit));
        SlotArea &s = record.slots[0];
        auto chance = [&](int percent) { return int(rng() % 100) < percent; };
        auto nudge = [&](uint16_t &field, int span) { field = uint16_t(std::max(0, field + int(rng() % (2 * span + 1)) - span)); };
        for (const auto &[field, percent, span] : {std::tuple<uint16_t *, int, int>{&s.rowCount, 10, 3},
                 {&s.columnCount, 10, 3}, {&s.subMatrixCount, 8, 2}, {&s.groupCount, 8, 2},
                 {&s.wordsPerGroup, 8, 2}, {&s.pointCount, 8, 40}, {&s.arrayWordLimit, 8, 3}})
          if (chance(percent)) nudge(*field, span);
        if (chance(10)) s.subMatrixGroup[rng() % 21] = int8_t(int(rng() % 28) - 2);
        if (chance(5)) s.matrixKind = uint32_t(rng() % 5);  // another model's wiring, or a card's
        if (chance(5)) record.modelTypeCode = uint16_t(qbvisa::chassisModels()[rng() % 6].typeCode);
        s.ltIsolationState[0] = uint8_t(rng() % 3);
        s.ltIsolationState[1] = uint8_t(rng() % 3);
        if (chance(10)) s.ltIsolationCount = uint16_t(rng() % 4);
        // Bent entries reach relays no point uses (often a short board's dead bits).
        std::vector<std::pair<PointLocation *, PointLocation>> bent;
        for (int k = chance(15) ? 8 : 0; k > 0; --k) {
          PointLocation *entry = locationEntry(s.matrixKind, rng);
          bent.push_back({entry, *entry});
          *entry = {chance(50) ? 12 : int32_t(rng() % 60) - 4, int32_t(rng() % 18) - 1, 0};
        }
        const uint32_t densities[] = {0, 1, 8, 32, 64};  // closed in 64
        const uint32_t density = densities[rng() % 5];
        std::vector<uint32_t> array(rng() % (s.arrayWordLimit + 4u));
        for (uint32_t &word : array)
          for (int k = 0; k < 32; ++k) word |= uint32_t(rng() % 64 < density) << k;
        const auto [prepared, pointByPoint] = bothPaths(c, array);
        for (auto it = bent.rbegin(); it != bent.rend(); ++it) *it->first = it->second;
        EXPECT_EQ(prepared, pointByPoint);
        // Refused before sending (too large, over the closure limit): nothing goes out.
        const bool refused = prepared.status == QBVISA_ERR_PARAMETER || prepared.status == QBVISA_ERR_CLOSURE_LIMIT;
        EXPECT_EQ(prepared.writes.size(), refused ? 0u : 1u) << prepared.status;
        sent += !refused;
        if (prepared.status == 0 && !array.empty()) {
          EXPECT_EQ(std::memcmp(s.lastArray, array.data(), std::min<size_t>(array.size() * 4, 6000)), 0);
        }
      }
      record = saved;
    }
  std::cout << cases << " cases, " << sent << " frames sent, " << pointByPointFrames << " point by point\n";
  // Every copy went point by point; the registry records mostly did not.
  EXPECT_GE(pointByPointFrames, cases);
  EXPECT_LT(pointByPointFrames, cases + cases / 10);
}

// Boards of 200 words on every RK422 sub-matrix: frame bit numbers pass 16
// bits, which the prepared table cannot hold, yet the frame must be the same.
TEST(SwitchingDifferentialTest, FramesPastSixteenBitBitNumbers) {
  const qbtest::Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK422));
  c.record->slots[0].wordsPerGroup = qbvisa::kBitGroupsPerBoard;
  std::vector<uint32_t> array(c.record->slots[0].arrayWordLimit, 0x01000201u);
  const auto [prepared, pointByPoint] = bothPaths(c, array);
  EXPECT_EQ(prepared, pointByPoint);
  EXPECT_EQ(pointByPoint.writes.at(0).size(), 4 + 21 * 200 * 2u);
  c.record->slots[0].wordsPerGroup = 49;
}

// A slot's prepared table is rebuilt when its geometry changes: the points of
// RK420 row 11 stop the placing while the slot has 11 rows, but not once it
// has 12 again (with 590 points, also those past the first 18 words of stops).
TEST(SwitchingDifferentialTest, StopsOfAnEarlierGeometryAreCleared) {
  const qbtest::Connection c = qbtest::readyChassis(qbtest::chassisConfig(Model::RK420));
  SlotArea &slot = c.record->slots[0];
  slot.pointCount = 590;
  std::vector<uint32_t> array = qbtest::wordsFor(slot, {580, 585});
  for (uint16_t rows : {11, 12}) {
    slot.rowCount = rows;
    const auto [prepared, pointByPoint] = bothPaths(c, array);
    EXPECT_EQ(prepared, pointByPoint) << rows;
  }
  EXPECT_EQ(qbsim::closedRelays(c.resource).size(), 6u);
  slot.pointCount = 600;
}

}  // namespace
