// The simulated bench at the VISA level: raw bytes in, raw bytes out. What
// the library's own tests drive end to end is not repeated here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
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
const Bytes kFailure(4, 0xFF);

// A request frame: command, length field, then 16-bit payload words.
Bytes frame(uint16_t command, std::vector<uint16_t> words = {}, int lengthField = 0) {
  Bytes out = {static_cast<uint8_t>(command), static_cast<uint8_t>(command >> 8),
               static_cast<uint8_t>(lengthField), static_cast<uint8_t>(lengthField >> 8)};
  for (uint16_t w : words) out.insert(out.end(), {uint8_t(w), uint8_t(w >> 8)});
  return out;
}
Bytes relayFrame(const std::vector<uint16_t> &words) {
  return frame(19, words, static_cast<int>(words.size() * 2));
}
Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes head(const Bytes &b) { return Bytes(b.begin(), b.begin() + std::min<size_t>(4, b.size())); }

// The default bench plus three resources that never answer.
class Bench : public ::testing::Test {
 protected:
  void SetUp() override {
    qbsim::Bench bench = qbsim::defaultBench();
    for (const char *name : {"GPIB0::INTFC", "VXI0::1::INSTR", "ASRL12::INSTR"}) {
      bench.resources.emplace_back();
      bench.resources.back().name = name;
      bench.resources.back().kind = qbsim::ResourceKind::Silent;
    }
    qbsim::setBench(bench);
    ASSERT_EQ(viOpenDefaultRM(&rm_), VI_SUCCESS);
  }
  void TearDown() override { viClose(rm_); }

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
  std::vector<std::string> find(const char *expression, ViStatus *status) {
    ViFindList list = VI_NULL;
    ViUInt32 count = 0;
    char desc[VI_FIND_BUFLEN] = {};
    std::vector<std::string> names;
    if ((*status = viFindRsrc(rm_, expression, &list, &count, desc)) < 0) return names;
    for (names.push_back(desc); names.size() < count; names.push_back(desc))
      EXPECT_EQ(viFindNext(list, desc), VI_SUCCESS);
    EXPECT_EQ(viFindNext(list, desc), VI_ERROR_RSRC_NFOUND);
    viClose(list);
    return names;
  }

  ViSession rm_ = VI_NULL;
};

TEST_F(Bench, FindMatchesWholeNamesByExpression) {
  const struct {
    const char *expression;
    std::vector<std::string> found;
    ViStatus status = VI_SUCCESS;
  } cases[] = {
      {"(GPIB|USB|ASRL|TCPIP)?*INSTR", {kRk420, kRk421, kRk422, kRk423, kDmm, "ASRL12::INSTR"}},
      {"gpib0::5::instr", {kRk420}}, {"ASRL?::INSTR", {kRk423}},
      {"ASRL[0-9]*", {kRk423, "ASRL12::INSTR"}}, {"GPIB?::[^5]::INSTR", {kDmm}},
      {"GPIB?*::INTFC|VXI?*", {"GPIB0::INTFC", "VXI0::1::INSTR"}},
      {"USB", {}, VI_ERROR_RSRC_NFOUND}, {"(GPIB|USB", {}, VI_ERROR_INV_EXPR},
      {"ASRL[12", {}, VI_ERROR_INV_EXPR}, {"GPIB\\", {}, VI_ERROR_INV_EXPR},
  };
  for (const auto &c : cases) {
    ViStatus status = VI_SUCCESS;
    EXPECT_EQ(find(c.expression, &status), c.found) << c.expression;
    EXPECT_EQ(status, c.status) << c.expression;
  }
}

// A chassis answers "*IDN?" with or without the newline, also after binary
// traffic; a foreign instrument ignores frames and a silent one never answers.
TEST_F(Bench, IdentificationAnswers) {
  for (const auto &[resource, answer] : {std::pair{kRk420, "QB ,RK420 ,20420001 ,3.06\n"},
                                         {kDmm, "Acme Instruments,DMM-7,123,1.0\n"}}) {
    const ViSession vi = open(resource);
    EXPECT_EQ(exchange(vi, text("*IDN?\n")), text(answer)) << resource;
    if (resource != kDmm) exchange(vi, frame(11));
    EXPECT_EQ(exchange(vi, text("*IDN?")), text(answer)) << resource;
  }
  for (const auto &[quiet, request] : {std::pair{kDmm, frame(8)}, {"VXI0::1::INSTR", text("*IDN?\n")}}) {
    ViStatus status = VI_SUCCESS;
    EXPECT_TRUE(exchange(open(quiet), request, &status).empty());
    EXPECT_EQ(status, VI_ERROR_TMO) << quiet;
  }
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
  ASSERT_EQ(viWrite(vi, text("*IDN?\n").data(), 6, &count), VI_SUCCESS);
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
}

// Each fault hits the next call only; whether the request still took effect
// shows in the GPIB address it sets. A vanished chassis stays gone.
TEST_F(Bench, FaultsAreOneShotExceptVanish) {
  using qbsim::Fault;
  const ViSession vi = open(kRk421);
  Bytes buf(400);
  ViUInt32 count = 0;
  const Bytes setGpib = frame(20, {12});
  const struct { Fault fault; ViStatus write, read; size_t replySize; bool applied; } cases[] = {
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
    EXPECT_TRUE(c.fault != Fault::FailureReply || head(buf) == kFailure);
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
  ViStatus status = VI_SUCCESS;
  EXPECT_EQ(find("USB?*INSTR", &status), std::vector<std::string>{});
  EXPECT_EQ(viClose(vi), VI_SUCCESS);
}

TEST_F(Bench, RelayFramesReplaceTheRelayState) {
  using R = qbsim::Relay;
  const ViSession vi = open(kRk420);
  // RK420 with 12 words per board: frame word g*12+w carries bit group 11-w.
  std::vector<uint16_t> words(5 * 12, 0);
  words[0] = 1u << 3;           // board 0, group 11, bit 3
  words[11] = 0x8001;           // board 0, group 0, bits 0 and 15
  words[4 * 12 + 6] = 1u << 9;  // board 4, group 5, bit 9
  EXPECT_EQ(head(exchange(vi, relayFrame(words))), (Bytes{19, 0, 0, 0}));
  EXPECT_EQ(qbsim::closedRelays(kRk420), (std::vector<R>{{0, 0, 0}, {0, 0, 15}, {0, 11, 3}, {4, 5, 9}}));

  // The C hook copies no more triples than it is given room for but counts
  // them all; -1 for what is not a chassis.
  std::vector<int32_t> triples(12, -1);
  EXPECT_EQ(qbsim_closed_relays(kRk420.c_str(), triples.data(), 2), 4);
  EXPECT_EQ(triples, (std::vector<int32_t>{0, 0, 0, 0, 0, 15, -1, -1, -1, -1, -1, -1}));
  EXPECT_EQ(qbsim_closed_relays(kDmm.c_str(), triples.data(), 2), -1);

  // Lengths that do not split into whole boards fail and change nothing.
  for (const Bytes &bad : {relayFrame(std::vector<uint16_t>(7, 0xFFFF)), frame(19, {}, 0),
                           frame(19, {1, 2}, 120)}) {
    EXPECT_EQ(head(exchange(vi, bad)), kFailure);
    EXPECT_EQ(qbsim::closedRelays(kRk420).size(), 4u);
  }
  // The RK422 alone knows command 67.
  EXPECT_EQ(head(exchange(vi, frame(67))), kFailure);
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
  const struct { const char *document, *message; } cases[] = {
      {R"({"version": 3, "resources": []})", "unsupported bench file version 3"},
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

// A bench file named by QBSIM_BENCH that cannot be read fails the first use
// (the tool tests read a good one). The case runs in a freshly started copy
// of this program, so nothing has loaded a bench yet.
TEST(BenchFileDeathTest, EnvironmentNamesTheBenchFile) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto firstUse = [](const std::string &path) {
    setenv("QBSIM_BENCH", path.c_str(), 1);
    ViSession rm = VI_NULL;
    const ViStatus status = viOpenDefaultRM(&rm);
    if (status != VI_SUCCESS) std::exit(status == VI_ERROR_SYSTEM_ERROR ? 3 : 1);
    std::exit(static_cast<int>(qbsim::currentBench().resources.size()));
  };
  EXPECT_EXIT(firstUse(benchDir() + "/missing.json"), ::testing::ExitedWithCode(3), "missing.json");
}

}  // namespace

// The entry points bindings call: bench loading with its reason on failure,
// faults by name, and reset back to the described state.
TEST(BenchEntryPoints, LoadInjectAndReset) {
  char error[128] = "x";
  EXPECT_EQ(qbsim_load_bench_json("{\"version\": 9, \"resources\": []}", error, sizeof error), -1);
  EXPECT_NE(std::string(error), "");
  EXPECT_EQ(qbsim_load_bench_file("/nonexistent/bench.json", nullptr, 0), -1);
  const std::string one =
      R"({"version": 1, "resources": [{"name": "GPIB0::7::INSTR", "chassis": {"model": "RK423"}}]})";
  ASSERT_EQ(qbsim_load_bench_json(one.c_str(), error, sizeof error), 0) << error;
  EXPECT_EQ(qbsim::currentBench().resources.size(), 1u);
  std::vector<char> json(qbsim_bench_json(nullptr, 0) + 1);
  EXPECT_EQ(qbsim_bench_json(json.data(), static_cast<int>(json.size())), static_cast<int>(json.size()) - 1);
  EXPECT_EQ(qbsim::parseBench(json.data()).resources.at(0).name, "GPIB0::7::INSTR");

  EXPECT_EQ(qbsim_inject_fault("GPIB0::7::INSTR", "Flood"), -1);
  EXPECT_EQ(qbsim_inject_fault("GPIB0::8::INSTR", "Vanish"), -1);
  ASSERT_EQ(qbsim_inject_fault("GPIB0::7::INSTR", "Vanish"), 0);
  ViSession rm = VI_NULL, vi = VI_NULL;
  ASSERT_EQ(viOpenDefaultRM(&rm), VI_SUCCESS);
  ViUInt32 count = 0;
  EXPECT_LT(viOpen(rm, "GPIB0::7::INSTR", 0, 0, &vi), 0);  // gone
  ASSERT_EQ(qbsim_reset(), 0);  // the instrument is back, every old session closed
  ASSERT_EQ(viOpenDefaultRM(&rm), VI_SUCCESS);
  ASSERT_EQ(viOpen(rm, "GPIB0::7::INSTR", 0, 0, &vi), VI_SUCCESS);
  EXPECT_EQ(viWrite(vi, reinterpret_cast<const ViByte *>("\x08\0\0\0"), 4, &count), VI_SUCCESS);
  viClose(rm);
  ASSERT_EQ(qbsim_use_default_bench(), 0);
  EXPECT_EQ(qbsim::currentBench().resources.size(), 5u);
}
