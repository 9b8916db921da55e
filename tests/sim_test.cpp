// The simulated bench at the VISA level: raw bytes in, raw bytes out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "qbsim.hpp"
#include "visa_api.h"

namespace {

using Bytes = std::vector<uint8_t>;

const std::string kRk420 = "GPIB0::5::INSTR";
const std::string kRk421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";
const std::string kRk422 = "TCPIP0::192.168.1.22::inst0::INSTR";
const std::string kRk423 = "ASRL1::INSTR";  // answers at 19200 baud
const std::string kDmm = "GPIB0::9::INSTR";

// A request frame: command, length field, then 16-bit payload words.
Bytes frame(uint16_t command, std::vector<uint16_t> words = {}, int lengthField = 0) {
  Bytes out = {static_cast<uint8_t>(command), static_cast<uint8_t>(command >> 8),
               static_cast<uint8_t>(lengthField), static_cast<uint8_t>(lengthField >> 8)};
  for (uint16_t w : words) {
    out.push_back(static_cast<uint8_t>(w));
    out.push_back(static_cast<uint8_t>(w >> 8));
  }
  return out;
}

Bytes relayFrame(std::vector<uint16_t> words) {
  const int length = static_cast<int>(words.size() * 2);
  return frame(19, std::move(words), length);
}

Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

class Bench : public ::testing::Test {
 protected:
  void SetUp() override { use(qbsim::defaultBench()); }
  void TearDown() override {
    if (rm_ != VI_NULL) viClose(rm_);
  }

  void use(const qbsim::Bench &bench) {
    qbsim::setBench(bench);
    ASSERT_EQ(viOpenDefaultRM(&rm_), VI_SUCCESS);
  }

  ViSession open(const std::string &name) {
    ViSession vi = VI_NULL;
    EXPECT_EQ(viOpen(rm_, name.c_str(), 0, 0, &vi), VI_SUCCESS) << name;
    return vi;
  }

  // One write and one read; `status` receives the read's status.
  Bytes exchange(ViSession vi, const Bytes &request, ViStatus *status = nullptr) {
    ViUInt32 count = 0;
    EXPECT_EQ(viWrite(vi, request.data(), static_cast<ViUInt32>(request.size()), &count), VI_SUCCESS);
    Bytes reply(400);
    const ViStatus read = viRead(vi, reply.data(), 400, &count);
    if (status != nullptr) *status = read;
    else EXPECT_EQ(read, VI_SUCCESS);
    reply.resize(count);
    return reply;
  }

  std::vector<std::string> find(const char *expression, ViStatus *status = nullptr) {
    ViFindList list = VI_NULL;
    ViUInt32 count = 0;
    char desc[VI_FIND_BUFLEN] = {};
    const ViStatus s = viFindRsrc(rm_, expression, &list, &count, desc);
    if (status != nullptr) *status = s;
    std::vector<std::string> names;
    if (s < 0) return names;
    names.push_back(desc);
    for (ViUInt32 i = 1; i < count; ++i) {
      EXPECT_EQ(viFindNext(list, desc), VI_SUCCESS);
      names.push_back(desc);
    }
    EXPECT_EQ(viFindNext(list, desc), VI_ERROR_RSRC_NFOUND);
    viClose(list);
    return names;
  }

  ViSession rm_ = VI_NULL;
};

TEST_F(Bench, FindMatchesWholeNamesByExpression) {
  qbsim::Bench bench = qbsim::defaultBench();
  for (const char *name : {"GPIB0::INTFC", "VXI0::1::INSTR", "ASRL12::INSTR"}) {
    qbsim::Resource r;
    r.name = name;
    r.kind = qbsim::ResourceKind::Silent;
    bench.resources.push_back(r);
  }
  use(bench);
  const struct {
    const char *expression;
    std::vector<std::string> found;
  } cases[] = {
      {"(GPIB|USB|ASRL|TCPIP)?*INSTR", {kRk420, kRk421, kRk422, kRk423, kDmm, "ASRL12::INSTR"}},
      {"GPIB?*INSTR", {kRk420, kDmm}},
      {"gpib0::5::instr", {kRk420}},
      {"ASRL?::INSTR", {kRk423}},
      {"ASRL[0-9]*", {kRk423, "ASRL12::INSTR"}},
      {"[a-f]SRL1::INSTR", {kRk423}},
      {"ASRL[12]*::INSTR", {kRk423, "ASRL12::INSTR"}},
      {"GPIB?::[^5]::INSTR", {kDmm}},
      {"GPIB?*::INTFC|VXI?*", {"GPIB0::INTFC", "VXI0::1::INSTR"}},
      {"USB", {}},
      {"?*::5::INSTR", {kRk420}},
  };
  for (const auto &c : cases) {
    ViStatus status = VI_SUCCESS;
    EXPECT_EQ(find(c.expression, &status), c.found) << c.expression;
    EXPECT_EQ(status, c.found.empty() ? VI_ERROR_RSRC_NFOUND : VI_SUCCESS) << c.expression;
  }
  for (const char *bad : {"(GPIB|USB", "GPIB)", "ASRL[12", "GPIB\\"}) {
    ViStatus status = VI_SUCCESS;
    find(bad, &status);
    EXPECT_EQ(status, VI_ERROR_INV_EXPR) << bad;
  }
}

TEST_F(Bench, IdentificationAnswers) {
  qbsim::Bench bench = qbsim::defaultBench();
  qbsim::Resource quelbrink;
  quelbrink.name = "GPIB0::7::INSTR";
  quelbrink.chassis.model = qbsim::Model::RK420B;
  quelbrink.chassis.maker = "Quelbrink";
  quelbrink.chassis.idnModel = "041B";
  bench.resources.push_back(quelbrink);
  use(bench);
  const struct {
    std::string resource;
    std::string answer;
  } cases[] = {
      {kRk420, "QB ,RK420 ,20420001 ,3.06\n"},
      {kRk422, "QB ,RK422 ,20422001 ,1.04\n"},
      {"GPIB0::7::INSTR", "Quelbrink ,041B ,0 ,1.0\n"},
      {kDmm, "Acme Instruments,DMM-7,123,1.0\n"},
  };
  for (const auto &c : cases) {
    const ViSession vi = open(c.resource);
    EXPECT_EQ(exchange(vi, text("*IDN?\n")), text(c.answer)) << c.resource;
    // Also after binary traffic, and without the newline.
    if (c.resource != kDmm) exchange(vi, frame(11));
    EXPECT_EQ(exchange(vi, text("*IDN?")), text(c.answer)) << c.resource;
  }
  // Foreign instruments ignore frames; a silent one never answers.
  ViStatus status = VI_SUCCESS;
  EXPECT_TRUE(exchange(open(kDmm), frame(8), &status).empty());
  EXPECT_EQ(status, VI_ERROR_TMO);
}

TEST_F(Bench, SerialChassisAnswersOnlyAtItsRate) {
  const ViSession vi = open(kRk423);
  ViStatus status = VI_SUCCESS;
  exchange(vi, text("*IDN?\n"), &status);
  EXPECT_EQ(status, VI_ERROR_TMO) << "a new session runs at 9600 baud";

  ASSERT_EQ(viSetAttribute(vi, VI_ATTR_ASRL_END_IN, VI_ASRL_END_NONE), VI_SUCCESS);
  ASSERT_EQ(viSetAttribute(vi, VI_ATTR_ASRL_BAUD, 19200), VI_SUCCESS);
  EXPECT_EQ(exchange(vi, text("*IDN?\n")), text("QB ,RK423 ,20423001 ,1.01\n"));
  EXPECT_EQ(viSetAttribute(vi, VI_ATTR_ASRL_BAUD, 12345), VI_ERROR_NSUP_ATTR_STATE);

  // A pending reply is dropped by a read-buffer discard.
  ViUInt32 count = 0;
  const Bytes idn = text("*IDN?\n");
  ASSERT_EQ(viWrite(vi, idn.data(), 6, &count), VI_SUCCESS);
  ASSERT_EQ(viFlush(vi, VI_READ_BUF_DISCARD), VI_SUCCESS);
  Bytes buf(400);
  EXPECT_EQ(viRead(vi, buf.data(), 400, &count), VI_ERROR_TMO);

  // The chassis changes its own rate: the reply still comes at the old one.
  exchange(vi, frame(21, {57600 & 0xFFFF, 57600 >> 16}));
  exchange(vi, frame(23), &status);
  EXPECT_EQ(status, VI_ERROR_TMO);
  ASSERT_EQ(viSetAttribute(vi, VI_ATTR_ASRL_BAUD, 57600), VI_SUCCESS);
  const Bytes rate = exchange(vi, frame(23));
  EXPECT_EQ(rate[2] | rate[3] << 8 | rate[4] << 16 | rate[5] << 24, 57600);

  const ViSession gpib = open(kRk420);
  EXPECT_EQ(viSetAttribute(gpib, VI_ATTR_ASRL_BAUD, 19200), VI_ERROR_NSUP_ATTR);
  EXPECT_EQ(viSetAttribute(gpib, VI_ATTR_ASRL_END_IN, VI_ASRL_END_NONE), VI_ERROR_NSUP_ATTR);
  EXPECT_EQ(viSetAttribute(gpib, VI_ATTR_TMO_VALUE, 500), VI_SUCCESS);
}

TEST_F(Bench, FaultsAreOneShotExceptVanish) {
  using qbsim::Fault;
  const ViSession vi = open(kRk421);
  Bytes buf(400);
  ViUInt32 count = 0;
  const Bytes setGpib = frame(20, {12});
  const struct {
    Fault fault;
    ViStatus write, read;
    size_t replySize;
    bool applied;  // the GPIB address change took effect
  } cases[] = {
      {Fault::WriteFails, VI_ERROR_IO, VI_ERROR_TMO, 0, false},
      {Fault::ReadFails, VI_SUCCESS, VI_ERROR_IO, 0, true},
      {Fault::FailureReply, VI_SUCCESS, VI_SUCCESS, 64, false},
      {Fault::ShortReply, VI_SUCCESS, VI_SUCCESS, 2, true},
      {Fault::Timeout, VI_SUCCESS, VI_ERROR_TMO, 0, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(static_cast<int>(c.fault));
    exchange(vi, frame(20, {7}));
    qbsim::injectFault(kRk421, c.fault);
    EXPECT_EQ(viWrite(vi, setGpib.data(), 6, &count), c.write);
    EXPECT_EQ(viRead(vi, buf.data(), 400, &count), c.read);
    EXPECT_EQ(count, c.replySize);
    if (c.fault == Fault::FailureReply) {
      EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 4), Bytes(4, 0xFF));
    }
    EXPECT_EQ(qbsim::chassisState(kRk421).gpibAddress, c.applied ? 12 : 7);
    EXPECT_EQ(exchange(vi, frame(22))[2], c.applied ? 12 : 7) << "the fault must not repeat";
  }

  qbsim::injectFault(kRk421, Fault::Vanish);
  EXPECT_EQ(viWrite(vi, setGpib.data(), 6, &count), VI_ERROR_CONN_LOST);
  EXPECT_EQ(viRead(vi, buf.data(), 400, &count), VI_ERROR_CONN_LOST);
  EXPECT_EQ(viSetAttribute(vi, VI_ATTR_TMO_VALUE, 1), VI_ERROR_CONN_LOST);
  EXPECT_EQ(viFlush(vi, VI_READ_BUF_DISCARD), VI_ERROR_CONN_LOST);
  ViSession again = VI_NULL;
  EXPECT_EQ(viOpen(rm_, kRk421.c_str(), 0, 0, &again), VI_ERROR_RSRC_NFOUND);
  EXPECT_EQ(find("USB?*INSTR"), std::vector<std::string>{});
  EXPECT_EQ(viClose(vi), VI_SUCCESS);
}

TEST_F(Bench, RelayFramesReplaceTheRelayState) {
  const ViSession vi = open(kRk420);
  // RK420 with 12 words per board: frame word g*12+w carries bit group 11-w.
  std::vector<uint16_t> words(5 * 12, 0);
  words[0] = 1u << 3;           // board 0, group 11, bit 3
  words[11] = 0x8001;           // board 0, group 0, bits 0 and 15
  words[4 * 12 + 6] = 1u << 9;  // board 4, group 5, bit 9
  Bytes reply = exchange(vi, relayFrame(words));
  EXPECT_EQ(reply[0] | reply[1] << 8, 19);
  using R = qbsim::Relay;
  EXPECT_EQ(qbsim::closedRelays(kRk420),
            (std::vector<R>{{0, 0, 0}, {0, 0, 15}, {0, 11, 3}, {4, 5, 9}}));

  int32_t triples[6] = {};
  EXPECT_EQ(qbsim_closed_relays(kRk420.c_str(), triples, 2), 4);
  EXPECT_EQ(std::vector<int32_t>(triples, triples + 6), (std::vector<int32_t>{0, 0, 0, 0, 0, 15}));
  int boards = 0, groups = 0;
  EXPECT_EQ(qbsim_relay_geometry(kRk420.c_str(), &boards, &groups), 0);
  EXPECT_EQ(std::make_pair(boards, groups), std::make_pair(5, 12));
  EXPECT_EQ(qbsim_relay_geometry(kDmm.c_str(), &boards, &groups), -1);
  EXPECT_EQ(qbsim_closed_relays("GPIB7::1::INSTR", triples, 2), -1);

  // Lengths that do not split into whole boards fail and change nothing.
  for (const Bytes &bad : {relayFrame(std::vector<uint16_t>(7, 0xFFFF)), frame(19, {}, 0),
                           frame(19, {1, 2}, 120)}) {
    const Bytes failure = exchange(vi, bad);
    EXPECT_EQ(Bytes(failure.begin(), failure.begin() + 4), Bytes(4, 0xFF));
    EXPECT_EQ(qbsim::closedRelays(kRk420).size(), 4u);
  }
  // A firmware-1.x frame (13 words per board) is understood as well.
  words.assign(5 * 13, 0);
  words[2 * 13 + 12] = 1u << 1;
  exchange(vi, relayFrame(words));
  EXPECT_EQ(qbsim::closedRelays(kRk420), (std::vector<R>{{2, 0, 1}}));
  EXPECT_EQ(qbsim::groupsPerBoard(kRk420), 13);
  exchange(vi, relayFrame(std::vector<uint16_t>(5 * 13, 0)));
  EXPECT_TRUE(qbsim::closedRelays(kRk420).empty());

  // The RK422 clears with command 67; the other models do not know it.
  const ViSession rk422 = open(kRk422);
  words.assign(21 * 49, 0);
  words[20 * 49] = 1;
  exchange(rk422, relayFrame(words));
  EXPECT_EQ(qbsim::closedRelays(kRk422), (std::vector<R>{{20, 48, 0}}));
  exchange(rk422, frame(67, std::vector<uint16_t>(21 * 49, 0), 21 * 49 * 2));
  EXPECT_TRUE(qbsim::closedRelays(kRk422).empty());
  const Bytes unknown = exchange(vi, frame(67));
  EXPECT_EQ(Bytes(unknown.begin(), unknown.begin() + 4), Bytes(4, 0xFF));
}

TEST_F(Bench, Rk421UnderLocalControlRefusesRelayFrames) {
  const ViSession vi = open(kRk421);
  std::vector<uint16_t> words(4 * 13, 0);
  words[0] = 1;
  exchange(vi, relayFrame(words));
  qbsim::setControlMode(kRk421, 0);
  EXPECT_EQ(exchange(vi, frame(5))[2], 0);
  words[0] = 0;
  const Bytes reply = exchange(vi, relayFrame(words));
  EXPECT_EQ(reply[0], 0xFF);
  EXPECT_NE(Bytes(reply.begin(), reply.begin() + 4), Bytes(4, 0xFF));
  EXPECT_EQ(qbsim::closedRelays(kRk421).size(), 1u);

  exchange(vi, frame(6, {1}));
  EXPECT_EQ(exchange(vi, relayFrame(words))[0], 19);
  EXPECT_TRUE(qbsim::closedRelays(kRk421).empty());
}

TEST_F(Bench, IdentityAndVersionLayouts) {
  qbsim::Bench bench = qbsim::defaultBench();
  bench.resources[0].chassis.firmware = {{3, 5}};  // RK420 older than 3.06
  bench.resources[0].chassis.versionInBytes45 = false;
  bench.resources[0].chassis.serial = 2042001;
  use(bench);
  const struct {
    std::string resource;
    Bytes request;
    std::vector<std::pair<size_t, uint8_t>> expected;  // position, byte
  } cases[] = {
      // Older identity layout: seven-digit serial in 0, 2, 4; type code at 6, 7.
      {kRk420, frame(8), {{0, 0x1F}, {2, 0x28}, {4, 0x91}, {6, 0x04}, {7, 0x1A}, {8, 'A'}, {10, '1'}}},
      // Current layout: serial MSB first, hardware version, type code, cards.
      {kRk421, frame(8), {{0, 0x01}, {2, 0x37}, {4, 0x99}, {6, 0x89}, {8, 22}, {10, 0x04}, {11, 0x2A},
                          {12, 'B'}, {14, '2'}, {16, 0x01}, {18, 0xD0}, {22, 0x13}, {24, 13}, {54, 13}}},
      {kRk420, frame(11), {{2, 3}, {3, 5}, {4, 0}, {5, 0}}},
      {kRk422, frame(11), {{0, 11}, {2, 1}, {3, 4}, {4, 2}, {5, 1}, {6, 1}, {7, 0}, {8, 0}}},
      {kRk422, frame(10), {{2, 0xFF}, {3, 0xFF}, {4, 0x1F}, {5, 0}}},
      {kRk420, frame(10), {{2, 0x3F}, {3, 0}}},
      {kRk420, frame(17), {{2, 0}}},
      {kRk420, {0x0C, 0x04, 0, 0}, {{0, 0x0C}, {1, 0x04}, {2, 1}}},
      {kRk421, frame(49), {{2, 1}, {3, 2}}},
      {kRk421, frame(24), {{2, 192}, {4, 168}, {6, 1}, {8, 21}}},
      {kRk421, frame(23), {{2, 0x00}, {3, 0xC2}, {4, 0x01}, {5, 0}}},
      {kRk421, frame(81), {{2, 1}, {3, 1}, {4, 1}, {5, 1}}},
      {kRk421, frame(1234), {{0, 0xFF}, {1, 0xFF}, {2, 0xFF}, {3, 0xFF}}},
  };
  for (const auto &c : cases) {
    const Bytes reply = exchange(open(c.resource), c.request);
    for (const auto &[at, value] : c.expected) {
      ASSERT_LT(at, reply.size());
      EXPECT_EQ(reply[at], value) << c.resource << " command " << (c.request[0] | c.request[1] << 8)
                                  << " byte " << at;
    }
  }
  // RK420's newer version form: 0.0 in bytes 2/3, the version in 4/5.
  bench.resources[0].chassis.firmware = {{3, 6}};
  bench.resources[0].chassis.versionInBytes45 = true;
  use(bench);
  const Bytes version = exchange(open(kRk420), frame(11));
  EXPECT_EQ(Bytes(version.begin() + 2, version.begin() + 6), (Bytes{0, 0, 3, 6}));
  const Bytes identity = exchange(open(kRk420), frame(8));
  EXPECT_EQ(identity[74], 21) << "card position 6 hardware version";
  EXPECT_EQ(identity[10] << 8 | identity[11], 1050);
}

TEST_F(Bench, AdministrationCommandsChangeState) {
  const ViSession rk420 = open(kRk420);
  const ViSession rk421 = open(kRk421);
  // Serial numbers: words 0, 188, 97, 78 are 12345678; word 4 the hardware number.
  exchange(rk420, frame(2, {0, 188, 97, 78, 3, 0, 0, 0, 0, 0}));
  exchange(rk420, frame(37, {0, 188, 97, 79, 12, 0, 0, 0}));
  EXPECT_EQ(qbsim::chassisState(kRk420).serial, 12345678u);
  EXPECT_EQ(qbsim::chassisState(kRk420).hwVersion, 3);
  EXPECT_EQ(qbsim::chassisState(kRk420).cards[5].serial, 12345679u);
  EXPECT_EQ(exchange(rk420, frame(8))[6], 78);
  EXPECT_EQ(exchange(rk421, frame(37, {0, 188, 97, 79, 12, 0, 0, 0}))[0], 0xFF) << "RK421 has 4 slots";

  // A network address waits for command 14 (a bare command code) except on the RK421.
  const Bytes setIp = frame(13, {192, 168, 10, 55, 192, 168, 10, 1});
  exchange(rk420, setIp);
  EXPECT_EQ(qbsim::chassisState(kRk420).ip, (std::array<uint8_t, 4>{192, 168, 1, 20}));
  exchange(rk420, Bytes{14, 0});
  EXPECT_EQ(qbsim::chassisState(kRk420).ip, (std::array<uint8_t, 4>{192, 168, 10, 55}));
  EXPECT_EQ(qbsim::chassisState(kRk420).gateway, (std::array<uint8_t, 4>{192, 168, 10, 1}));
  exchange(rk421, setIp);
  EXPECT_EQ(qbsim::chassisState(kRk421).ip, (std::array<uint8_t, 4>{192, 168, 10, 55}));

  exchange(rk421, frame(48, {1}));
  EXPECT_EQ(exchange(rk421, frame(25))[2], 1);
  EXPECT_EQ(exchange(rk421, frame(21, {4800, 0}))[0], 0xFF) << "not a line rate";
  EXPECT_EQ(exchange(rk421, frame(20, {31}))[0], 0xFF) << "GPIB addresses end at 30";
}

TEST_F(Bench, FirmwareUpdateKeepsTheImageItAccepts) {
  const Bytes image = {1, 2, 3, 250, 251};  // byte sum 507
  auto upload = [&](uint16_t sum) {
    const ViSession vi = open(kRk422);
    EXPECT_EQ(exchange(vi, frame(96, {5, 0}))[2], 0);
    Bytes chunk = frame(97, {}, 3);
    chunk.insert(chunk.end(), image.begin(), image.begin() + 3);
    EXPECT_EQ(exchange(vi, chunk)[2], 0);
    chunk = frame(97, {}, 2);
    chunk.insert(chunk.end(), image.begin() + 3, image.end());
    EXPECT_EQ(exchange(vi, chunk)[2], 0);
    return exchange(vi, frame(98, {sum, 0}));
  };
  Bytes end = upload(506);
  EXPECT_EQ(end[2], 1);
  EXPECT_EQ(end[4] | end[5] << 8, 507);
  EXPECT_TRUE(qbsim::firmwareImage(kRk422).empty());
  EXPECT_EQ(upload(507)[2], 0);
  EXPECT_EQ(qbsim::firmwareImage(kRk422), image);

  EXPECT_EQ(exchange(open(kRk422), frame(97, {7}, 2))[2], 1) << "data without a begin";
  qbsim::Bench bench = qbsim::defaultBench();
  bench.resources[2].chassis.rejectUpdate = true;
  use(bench);
  EXPECT_EQ(upload(507)[2], 1);
}

TEST_F(Bench, SessionsAreUniqueAndDieWithTheirManager) {
  const ViSession a = open(kRk420);
  const ViSession b = open(kRk420);
  EXPECT_NE(a, b);
  EXPECT_NE(a, VI_NULL);
  EXPECT_EQ(viClose(a), VI_SUCCESS);
  ViUInt32 count = 0;
  EXPECT_EQ(viWrite(a, reinterpret_cast<const ViByte *>("*IDN?\n"), 6, &count), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(viClose(a), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(viClose(rm_), VI_SUCCESS);
  rm_ = VI_NULL;
  EXPECT_EQ(viFlush(b, VI_READ_BUF_DISCARD), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(viOpenDefaultRM(&rm_), VI_SUCCESS);
  ViSession unknown = VI_NULL;
  EXPECT_EQ(viOpen(rm_, "GPIB0::30::INSTR", 0, 0, &unknown), VI_ERROR_RSRC_NFOUND);
  EXPECT_EQ(viOpen(b, kRk420.c_str(), 0, 0, &unknown), VI_ERROR_INV_OBJECT);
}

TEST_F(Bench, TrafficRecordsWritesAndRepliesInOrder) {
  const ViSession vi = open(kRk421);
  qbsim::clearTraffic(kRk421);
  const Bytes reply = exchange(vi, frame(22));
  const auto log = qbsim::traffic(kRk421);
  ASSERT_EQ(log.size(), 2u);
  EXPECT_TRUE(log[0].write);
  EXPECT_EQ(log[0].bytes, frame(22));
  EXPECT_FALSE(log[1].write);
  EXPECT_EQ(log[1].bytes, reply);
  EXPECT_EQ(qbsim::writes(kRk421), std::vector<Bytes>{frame(22)});
  EXPECT_THROW(qbsim::traffic("GPIB7::1::INSTR"), std::out_of_range);
  EXPECT_THROW(qbsim::chassisState(kDmm), std::out_of_range);
}

std::string benchDir() {
  return (std::filesystem::path(__FILE__).parent_path().parent_path() / "sim" / "benches").string();
}

TEST(BenchFile, RoundTripsAndShipsTheDefault) {
  const std::string json = qbsim::benchToJson(qbsim::defaultBench());
  EXPECT_EQ(qbsim::benchToJson(qbsim::parseBench(json)), json);
  EXPECT_EQ(qbsim::benchToJson(qbsim::loadBenchFile(benchDir() + "/default.json")), json);
  for (const char *name : {"six-chassis.json", "serial-rates.json", "mixed.json"})
    EXPECT_NO_THROW(qbsim::loadBenchFile(benchDir() + "/" + name)) << name;

  // Every chassis field is optional.
  const qbsim::Bench minimal =
      qbsim::parseBench(R"({"version": 1, "resources": [{"name": "ASRL4::INSTR"}]})");
  ASSERT_EQ(minimal.resources.size(), 1u);
  EXPECT_EQ(minimal.resources[0].kind, qbsim::ResourceKind::Chassis);
  EXPECT_EQ(minimal.resources[0].chassis.baudRate, 115200u);
}

TEST(BenchFile, RejectsWhatItCannotRead) {
  const struct {
    const char *document;
    const char *message;
  } cases[] = {
      {R"({"version": 2, "resources": []})", "unsupported bench file version 2"},
      {R"({"resources": []})", "missing \"version\""},
      {R"({"version": 1, "resources": [{"name": "A", "chassis": {"serail": 1}}]})", "serail"},
      {R"({"version": 1, "resources": [{"name": "A", "chassis": {"model": "RK999"}}]})", "unknown model"},
      {R"({"version": 1, "resources": [{"name": "A", "chassis": {"hwVersion": 300}}]})", "out of range"},
      {R"({"version": 1, "resources": [{"name": "A", "chassis": {"ip": "1.2.3"}}]})", "dotted"},
      {R"({"version": 1, "resources": [{"name": "A", "kind": "printer"}]})", "kind"},
      {R"({"version": 1, "resources": [{"kind": "silent"}]})", "missing \"name\""},
      {R"({"version": 1, "resources": [)", "syntax"},
  };
  for (const auto &c : cases) {
    try {
      qbsim::parseBench(c.document);
      ADD_FAILURE() << "accepted " << c.document;
    } catch (const std::runtime_error &e) {
      EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
    }
  }
  EXPECT_THROW(qbsim::loadBenchFile("/nonexistent/bench.json"), std::runtime_error);
}

// The bench named by QBSIM_BENCH is read on first use. Each case runs in a
// freshly started copy of this program, so nothing has loaded a bench yet.
TEST(BenchFileDeathTest, EnvironmentNamesTheBenchFile) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto firstUse = [](const std::string &path) {
    setenv("QBSIM_BENCH", path.c_str(), 1);
    ViSession rm = VI_NULL;
    const ViStatus status = viOpenDefaultRM(&rm);
    if (status != VI_SUCCESS) std::exit(status == VI_ERROR_SYSTEM_ERROR ? 3 : 1);
    std::exit(static_cast<int>(qbsim::currentBench().resources.size()));
  };
  EXPECT_EXIT(firstUse(benchDir() + "/six-chassis.json"), ::testing::ExitedWithCode(6), "");
  EXPECT_EXIT(firstUse(benchDir() + "/missing.json"), ::testing::ExitedWithCode(3), "missing.json");
}

}  // namespace
