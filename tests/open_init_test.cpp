// Opening slots, initialising and clearing chassis, and the RK421's control
// mode on the simulated bench: presence, geometry, firmware gates and the
// requests on the wire.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "bench.hpp"
#include "core/chassis_model.h"
#include "golden.hpp"
#include "support/wire_tap.hpp"

namespace {

using qbsim::Model;
using qbtest::chassisConfig;
using qbtest::Connection;
using Bytes = std::vector<uint8_t>;

qbsim::ChassisConfig fitted(qbsim::ChassisConfig c, uint32_t mask) {
  c.presenceMask = mask;
  c.presenceMaskSet = true;
  return c;
}

// A card of this type in slot 1 (presence bit 5), and the identity entry of
// card position 6 at this hardware version.
qbsim::ChassisConfig slot1(Model model, uint8_t cardType, uint8_t hardware = 10) {
  qbsim::ChassisConfig c = fitted(chassisConfig(model), 0x3F);
  c.slot1CardType = cardType;
  c.cards.resize(6);
  c.cards[5].hwVersion = hardware;
  return c;
}

// Frames as hex bytes, one after another; an all-zero payload as its length.
std::string hex(const std::vector<Bytes> &frames) {
  std::ostringstream out;
  for (const Bytes &frame : frames) {
    const bool zeros = frame.size() > 4 && std::all_of(frame.begin() + 4, frame.end(), [](uint8_t b) { return b == 0; });
    out << ' ' << std::hex << std::setfill('0');
    for (size_t i = 0; i < (zeros ? 4 : frame.size()); ++i) out << std::setw(2) << int{frame[i]};
    if (zeros) out << std::dec << "+" << frame.size() - 4 << "x00";
  }
  return out.str();
}

// Each chassis of tests/data/open_transcript.txt as a bench file gives it,
// with the slot opened.
TEST(OpenTest, SlotsPerModelCardAndFirmware) {
  qbgolden::expectTable("open_transcript.txt", [](const std::string &input) {  // "slot N {chassis}"
    const size_t brace = input.find('{');
    const Connection conn = qbtest::connectResources(qbsim::parseBench(
        R"({"version": 1, "resources": [{"name": "GPIB0::5::INSTR", "chassis": )" + input.substr(brace) + "}]}")
        .resources).front();
    uint64_t kind = 77;
    const int32_t status = QBVISA_OpenSpecifiedCard(conn.session, std::stoull(input.substr(5, brace - 5)), &kind);
    std::ostringstream out;
    out << input << '\t' << status;
    if (status == 0) {
      out << " kind " << kind << ':';
      const SlotArea &s = conn.record->slots[kind];
      for (int v : {int(s.matrixKind), int{s.arrayWordLimit}, int{s.rowCount}, int{s.columnCount},
                    int{s.subMatrixCount}, int{s.groupCount}, int{s.wordsPerGroup}, int{s.pointCount},
                    int{s.subMatrixGroup[0]}, int(std::count(s.cardPresent, s.cardPresent + 21, 1))})
        out << ' ' << v;
    }
    return out.str() + ";" + hex(qbsim::writes(conn.resource));
  });
}

// Refusals against the reviewed list (tests/data/open_refusals.txt): calls
// on an unknown session; on no record or slot 3; with nothing fitted; a read
// failing while opening or initialising; slots never opened (an RK420 slot
// that was never opened cannot be cleared); and the identity entries, of which
// n = -1..18 lie in the 200-byte reply (bytes 4..194; 0: read).
TEST(OpenTest, Refusals) {
  const auto bench = qbtest::connectBench(
      {fitted(chassisConfig(Model::RK420), 0), chassisConfig(Model::RK421), chassisConfig(Model::RK420)});
  const Connection &empty = bench[0], &rk421 = bench[1], &rk420 = bench[2];
  const uint32_t unknown = qbtest::kUnknownSession;
  uint64_t kind = 0;
  uint32_t mode = 0;
  std::ostringstream out;
  out << "unknown session: open " << QBVISA_OpenSpecifiedCard(unknown, 0, &kind) << " in place "
      << QBVISABoardInPlaceHDW(unknown, 0) << " init " << QBVISA_Init(unknown, 0) << " get mode "
      << QBVISA_GetControlMode(unknown, &mode) << " set mode " << QBVISA_SetControlMode(unknown, 0) << " clear "
      << QBVISA_Clear(unknown, 0) << "\nno mode result " << QBVISA_GetControlMode(unknown, nullptr)
      << "\nno record: exists " << IsBoardExists(nullptr, 0) << " in place " << BoardInPlaceHDW(nullptr, 0)
      << " identity " << GetSlotHW(nullptr, 6) << "\nslot 3: exists " << IsBoardExists(empty.record, 3)
      << " in place " << BoardInPlaceHDW(empty.record, 3) << "\nnothing fitted: in place "
      << QBVISABoardInPlaceHDW(empty.session, 0) << "\nnever opened: init 0 " << QBVISA_Init(rk420.session, 0)
      << " init 1 " << QBVISA_Init(rk420.session, 1) << "\nopen RK421 " << QBVISA_OpenSpecifiedCard(rk421.session, 0, &kind);
  qbsim::injectFault(empty.resource, qbsim::Fault::ReadFails);
  qbsim::injectFault(rk421.resource, qbsim::Fault::ReadFails);
  out << "\nread fails: open " << QBVISA_OpenSpecifiedCard(empty.session, 0, &kind) << " init "
      << QBVISA_Init(rk421.session, 0) << "\nidentity entries";
  for (int32_t n : {-1, 18, 19, -2, INT32_MIN}) out << ' ' << n << ':' << std::min(GetSlotHW(empty.record, n), 0);
  qbgolden::expectGolden("open_refusals.txt", out.str() + "\n");
}

// Record words older programs read: the frame layout words of slots 0 and
// 1, the card words, and the LT isolation count.
TEST(OpenTest, RecordWordsOlderProgramsRead) {
  const auto bench = qbtest::connectBench({slot1(Model::RK420, 1), chassisConfig(Model::RK423)});
  const Connection &rk420 = bench[0], &rk423 = bench[1];
  uint64_t kind = 0;
  for (uint64_t slot : {0u, 1u}) ASSERT_EQ(QBVISA_OpenSpecifiedCard(rk420.session, slot, &kind), 0);
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(rk423.session, 0, &kind), 0);
  const SlotArea &s0 = rk420.record->slots[0], &s1 = rk420.record->slots[1];
  EXPECT_EQ(std::vector<int>({s0.geometryWords[0], s0.geometryWords[1], s1.geometryWords[0],
                              s1.geometryWords[1], s1.cardWords[0], s1.cardWords[1],
                              s1.cardWordsFollowing[0], s1.cardWordsFollowing[1], s1.cardExtra,
                              rk423.record->slots[0].ltIsolationCount}),
            std::vector<int>({6, 5, 4, 7, 13, 13, 12, 12, 12, 2}));
}

// An identity query read back with no bytes at all names no card type.
TEST(OpenTest, EmptyIdentityReplyIsNoCardType) {
  qbsim::ChassisConfig card = chassisConfig(Model::RK420);
  card.slot2Present = true;
  const Connection c = qbtest::connectChassis(card);
  qbtest::Scope tap;
  static bool identity = false;
  qbtest::onWrite = [](Bytes &frame) { identity = frame[0] == 8; };
  qbtest::onRead = [](uint8_t *reply, uint32_t &count) {
    if (identity) std::fill(reply, reply + count, 0), count = 0;
  };
  uint64_t kind = 0;
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 2, &kind), QBVISA_ERR_UNKNOWN_CARD_TYPE);
}

// Controllers from 3.06 on use the newer reply layouts.
TEST(OpenTest, NewLayoutFromFirmware306) {
  const struct { uint8_t major, minor; bool newer; } cases[] = {
      {2, 99, false}, {3, 0, false}, {3, 5, false}, {3, 6, true}, {3, 7, true}, {4, 0, true}, {255, 0, true}};
  ChassisRecord record{};
  for (const auto &c : cases) {
    record.firmwareMajor = c.major, record.firmwareMinor = c.minor;
    EXPECT_EQ(IsNewVer_3_06(&record), c.newer) << int{c.major} << "." << int{c.minor};
  }
  EXPECT_FALSE(IsNewVer_3_06(nullptr));
}

// Getting or setting the control mode, and initialising or clearing with
// relays closed: every relay opens, on the chassis and in the library's copy.
TEST(ControlModeTest, GetSetInitAndClear) {
  qbgolden::expectTable("control_modes.txt", [](const std::string &input) {  // "MODEL get|set [VALUE [FAULT]]"
    std::istringstream in(input);
    std::string model, op, fault;
    uint32_t wanted = 0, mode = 9;
    in >> model >> op >> wanted >> fault;
    const Connection c = qbtest::connectChassis(chassisConfig(Model(qbvisa::modelByName(model.c_str())->typeCode)));
    if (!fault.empty()) qbsim_inject_fault(c.resource.c_str(), fault.c_str());
    const int32_t status = op == "get" ? QBVISA_GetControlMode(c.session, &mode) : QBVISA_SetControlMode(c.session, wanted);
    return input + "\t" + std::to_string(status) + " mode " + std::to_string(mode) + ";" + hex(qbsim::writes(c.resource));
  });
  std::ostringstream out;
  // Initialising also asks an RK420 for its firmware version and takes an
  // RK421 out of front-panel control (asking for the mode once more before
  // it changes it). The RK422's frame is larger than the request buffer and
  // has a command of its own; single-board chassis take any card as 0.
  const struct {
    Model model;
    uint8_t major;
    bool init, local;
    uint64_t card;
  } clears[] = {{Model::RK420, 3, true, false, 0}, {Model::RK420B, 1, false, false, 0},
                {Model::RK421, 3, true, true, 4},  {Model::RK421, 3, true, false, 2},
                {Model::RK422, 3, false, false, 2}, {Model::RK423, 3, false, false, 1}};
  for (const auto &c : clears) {
    SCOPED_TRACE(qbsim::modelName(c.model));
    const Connection conn = qbtest::readyChassis(qbtest::chassisConfig(c.model, c.major));
    std::vector<uint32_t> words(conn.record->slots[0].arrayWordLimit, 0x01010101u);
    ASSERT_EQ(QBVISA_OpMatrix(conn.session, 0, words.data(), words.size()), 0);
    ASSERT_FALSE(qbsim::closedRelays(conn.resource).empty());
    if (c.local) qbsim::setControlMode(conn.resource, 0);
    qbsim::clearTraffic(conn.resource);
    out << qbsim::modelName(c.model) << ' ' << int{c.major} << (c.local ? " local" : "")
        << (c.init ? " init " : " clear ") << c.card << ": "  // a clear gives the bytes read
        << (c.init ? QBVISA_Init(conn.session, c.card) : QBVISA_Clear(conn.session, c.card)) << ";"
        << hex(qbsim::writes(conn.resource)) << '\n';
    EXPECT_TRUE(qbsim::closedRelays(conn.resource).empty());
    EXPECT_EQ(qbsim::chassisState(conn.resource).controlMode, 1);
    const uint8_t *last = conn.record->slots[0].lastArray;
    EXPECT_TRUE(std::all_of(last, last + QBVISA_LAST_ARRAY_SIZE, [](uint8_t b) { return b == 0; }));
  }
  qbgolden::expectGolden("control_transcript.txt", out.str());
}

TEST(ClearTest, RefusalsAndWrappedLength) {
  qbsim::ChassisConfig chassis = qbtest::chassisConfig(Model::RK420);
  chassis.presenceMask = 0x3F;  // a card in slot 1
  chassis.presenceMaskSet = true;
  const Connection c = qbtest::readyChassis(chassis);
  SlotArea *slots = c.record->slots;
  for (int s = 0; s < 3; ++s) std::memset(slots[s].lastArray, 0x5A, QBVISA_LAST_ARRAY_SIZE);

  EXPECT_EQ(QBVISA_Clear(c.session, 3), QBVISA_ERR_PARAMETER);
  // Slot 2 holds nothing: its copy is left as it was.
  EXPECT_EQ(QBVISA_Clear(c.session, 2), QBVISA_ERR_NO_TYPE2_CARD);
  EXPECT_EQ(slots[2].lastArray[0], 0x5A);
  // Slot 1 holds a card: its copy reads all open, but only card 0 is
  // cleared on the chassis.
  uint64_t kind = 0;
  ASSERT_EQ(QBVISA_OpenSpecifiedCard(c.session, 1, &kind), 0);
  qbsim::clearTraffic(c.resource);
  EXPECT_EQ(QBVISA_Clear(c.session, 1), QBVISA_ERR_UNKNOWN_CARD_TYPE);
  EXPECT_EQ(slots[1].lastArray[0], 0);
  EXPECT_EQ(slots[1].lastArray[QBVISA_LAST_ARRAY_SIZE - 1], 0);
  EXPECT_TRUE(qbsim::writes(c.resource).empty());
  // A slot without a known card type is refused before anything changes.
  slots[0].matrixKind = 0xFFFFFFFFu;
  EXPECT_EQ(QBVISA_Clear(c.session, 0), QBVISA_ERR_BAD_MODEL);
  EXPECT_EQ(slots[0].lastArray[0], 0x5A);
  slots[0].matrixKind = MATRIX_KIND_RK420;
  // The copy reads all open even when the chassis cannot be reached.
  qbsim::injectFault(c.resource, qbsim::Fault::ReadFails);
  EXPECT_EQ(QBVISA_Clear(c.session, 0), QBVISA_ERR_RECEIVE);
  EXPECT_EQ(slots[0].lastArray[0], 0);
  // The length field is 16 bits wide: the relay-word count wraps, and so
  // does the doubled byte count; the payload stays all zero.
  const struct {
    uint16_t groups, words;
    const char *frame;
  } wraps[] = {{200, 200, " 13008038+14464x00"}, {128, 256, " 13000000"}};
  for (const auto &w : wraps) {
    SCOPED_TRACE(testing::Message() << w.groups << "x" << w.words);
    slots[0].groupCount = w.groups;
    slots[0].wordsPerGroup = w.words;
    qbsim::clearTraffic(c.resource);
    QBVISA_Clear(c.session, 0);  // the chassis may refuse the odd length
    EXPECT_EQ(hex(qbsim::writes(c.resource)), w.frame);
  }
}

}  // namespace
