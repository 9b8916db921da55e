// Every exported call that talks to a chassis under each exchange fault the
// bench can arm: the code, what the caller gets back, and whether record and
// chassis were kept (tests/data/fault_table.txt says why the odd cells are
// right). A read ending with a positive VISA completion code must be
// indistinguishable from a plain one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "bench.hpp"
#include "core/visa_api.h"
#include "golden.hpp"

namespace {
// The chassis's waits (6 s after a LAN mode change, 1 s after a serial
// number) are counted instead of slept.
unsigned slept = 0;
}  // namespace

extern "C" unsigned int sleep(unsigned int seconds) {
  slept += seconds;
  return 0;
}

namespace {

using qbsim::Fault;
using qbsim::Model;
constexpr const char *kName = "GPIB0::5::INSTR";
constexpr uint32_t kUnset = 0xEEEEEEEEu;  // an out value the call did not write

// A call's out arguments: numbers start as kUnset and texts as "~" in each
// 10-byte slot, so that what the call wrote, and only that, shows.
struct Ctx {
  uint32_t s = 0;
  uint32_t u[8] = {kUnset, kUnset, kUnset, kUnset, kUnset, kUnset, kUnset, kUnset};
  char t[4][400];
  uint32_t w[40] = {};  // a relay word array
  QBVISA_ResourceEntry list[5] = {};
  Ctx() {
    for (int i = 0; i < 160; ++i) std::strcpy(t[i / 40] + 10 * (i % 40), "~");
  }
  std::string out() const {
    std::string o;
    for (uint32_t v : u) o += v != kUnset ? std::to_string(v) + " " : "";
    for (const char *text : t)
      for (int i = 0; i < 40; ++i)
        if (text[10 * i] != '~') {
          const std::string written(text + 10 * i);
          o += escaped(written) + "|";
          i += static_cast<int>(written.size() / 10);
        }
    return o;
  }
  // Bytes outside printable ASCII as \xHH, so that a reply stays one line.
  static std::string escaped(const std::string &bytes) {
    std::string e;
    char hex[5];
    for (unsigned char b : bytes) {
      std::snprintf(hex, sizeof hex, "\\x%02X", b);
      e += b >= 0x20 && b < 0x7F ? std::string(1, char(b)) : std::string(hex);
    }
    return e;
  }
};

const std::string kUpdateFile = [] {
  const std::string path = ::testing::TempDir() + "fault_table_update.bin";
  std::ofstream(path) << "firmware image";
  return path;
}();

enum : unsigned {
  kClears = 1,    // the call clears the last arrays before it sends
  kSerial = 2,    // the chassis is on a serial line at 19200
  kSwitches = 4,  // a failed relay-frame write keeps the exchange lock taken by
                  // design: WriteFails and Vanish are left to the exchange tests
};
struct Row {
  const char *call;
  Model model;
  unsigned flags;
  int32_t (*run)(Ctx &);
};
#define CALL(expr) [](Ctx & c) { return expr; }

// A text command returns 0 and hands back its reply (an error text when it
// failed); a write keeps its reply in the chassis record. Discovery runs
// again with the fault armed and says how many chassis it found.
const Row kRows[] = {
    {"FindRsrc", Model::RK421, 0, CALL(QBVISA_FindRsrc(c.list, c.u))},
    {"FindRsrc serial", Model::RK423, kSerial, CALL(QBVISA_FindRsrc(c.list, c.u))},
    {"OpenSpecifiedCard 0", Model::RK420, 0, CALL(QBVISA_OpenSpecifiedCard(c.s, 0, nullptr))},
    {"OpenSpecifiedCard 1", Model::RK420, 0, CALL(QBVISA_OpenSpecifiedCard(c.s, 1, nullptr))},
    {"OpenSpecifiedCard 2", Model::RK420, 0, CALL(QBVISA_OpenSpecifiedCard(c.s, 2, nullptr))},
    {"OpenSpecifiedCard RK421", Model::RK421, 0, CALL(QBVISA_OpenSpecifiedCard(c.s, 0, nullptr))},
    {"BoardInPlaceHDW", Model::RK420, 0, CALL(QBVISABoardInPlaceHDW(c.s, 1))},
    {"Init RK420", Model::RK420, kClears, CALL(QBVISA_Init(c.s, 0))},
    {"Init RK421", Model::RK421, kClears, CALL(QBVISA_Init(c.s, 0))},
    {"Init RK422", Model::RK422, kClears, CALL(QBVISA_Init(c.s, 0))},
    {"OpMatrix RK421", Model::RK421, kSwitches, CALL((c.w[0] = 0x81, c.w[2] = 0x4000, QBVISA_OpMatrix(c.s, 0, c.w, 15)))},
    {"OpMatrix RK420", Model::RK420, kSwitches, CALL((c.w[1] = 0x300, QBVISA_OpMatrix(c.s, 0, c.w, 32)))},
    {"SCPI *IDN?", Model::RK421, 0, CALL(QBVISA_SCPIQuery(c.s, "*IDN?", c.t[0]))},
    {"SCPI version", Model::RK421, 0, CALL(QBVISA_SCPIQuery(c.s, ":SYSTem:VERSion?", c.t[0]))},
    {"SCPI write version", Model::RK421, 0, CALL(QBVISA_SCPIWrite(c.s, ":SYSTem:VERSion?"))},
    {"SCPI GPIB address", Model::RK421, 0, CALL(QBVISA_SCPIQuery(c.s, ":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?", c.t[0]))},
    {"SCPI close", Model::RK421, kSwitches, CALL(QBVISA_SCPIQuery(c.s, ":CLOSe (@1(1!1))", c.t[0]))},
    {"SetIPAddress RK420", Model::RK420, 0, CALL(QBVISA_SetIPAddress(c.s, "192.168.1.77"))},
    {"SetIPAddress RK421", Model::RK421, 0, CALL(QBVISA_SetIPAddress(c.s, "192.168.1.77"))},
    {"GetCOMMIPAddr", Model::RK421, 0, CALL(QBVISA_GetCOMMIPAddr(c.s, c.t[0]))},
    {"SetGPIBAddress", Model::RK421, 0, CALL(QBVISA_SetGPIBAddress(c.s, 7))},
    {"GetGPIBAddress", Model::RK421, 0, CALL(QBVISA_GetGPIBAddress(c.s, c.u))},
    {"SetBaudRate", Model::RK421, 0, CALL(QBVISA_SetBaudRate(c.s, 9600))},
    {"GetBaudRate", Model::RK421, 0, CALL(QBVISA_GetBaudRate(c.s, c.u))},
    {"SetLANMode", Model::RK421, 0, CALL(QBVISA_SetLANMode(c.s, 1))},
    {"GetLANMode", Model::RK421, 0, CALL(QBVISA_GetLANMode(c.s, c.u))},
    {"SetSN", Model::RK421, 0, CALL(QBVISA_SetSN(c.s, "12345678", "7"))},
    {"GetSN", Model::RK420, 0, CALL(QBVISA_GetSN(c.s, c.u, 7))},
    {"SetCardSN", Model::RK420, 0, CALL(QBVISA_SetCardSN(c.s, "12345678", "7", 1))},
    {"GetHWVersion", Model::RK420, 0, CALL(QBVISA_GetHWVersion(c.s, c.t[0], 22))},
    {"GetSWVersion RK420", Model::RK420, 0, CALL(QBVISA_GetSWVersion(c.s, c.t[0], 22))},
    {"GetSWVersion RK421", Model::RK421, 0, CALL(QBVISA_GetSWVersion(c.s, c.t[0], 22))},
    {"GetSWVersion RK422", Model::RK422, 0, CALL(QBVISA_GetSWVersion(c.s, c.t[0], 22))},
    {"GetDeviceInfo", Model::RK421, 0, CALL(QBVISA_GetDeviceInfo(c.s, c.t[0], c.t[1], c.t[2], c.t[3], 20))},
    {"GetControlMode", Model::RK421, 0, CALL(QBVISA_GetControlMode(c.s, c.u))},
    {"SetControlMode", Model::RK421, 0, CALL(QBVISA_SetControlMode(c.s, 0))},
    {"Clear RK421", Model::RK421, kClears, CALL(QBVISA_Clear(c.s, 0))},
    {"Clear RK422", Model::RK422, kClears, CALL(QBVISA_Clear(c.s, 0))},
    {"SelfTest", Model::RK421, 0, CALL(QBVISA_SelfTest(c.s, 0, c.t[0], 40))},
    {"BoardInPlace", Model::RK421, 0, CALL(QBVISA_BoardInPlace(c.s, 2))},
    {"BoardInPlaceInfo", Model::RK421, 0, CALL(QBVISA_BoardInPlaceInfo(c.s, reinterpret_cast<int32_t *>(c.u), c.u + 4))},
    {"SPILoopTestInfo", Model::RK421, 0, CALL(QBVISA_SPILoopTestInfo(c.s, 0, reinterpret_cast<int32_t *>(c.u), c.u + 4))},
    {"OnlineUpdate", Model::RK421, 0, CALL(QBVISA_OnlineUpdate(c.s, kUpdateFile.c_str()))},
};

qbsim::Resource resourceFor(const Row &row) {
  qbsim::Resource r;
  r.name = row.flags & kSerial ? "ASRL1::INSTR" : kName;
  r.chassis.model = row.model;
  r.chassis.slot2Present = true;
  if (row.flags & kSerial) r.chassis.baudRate = 19200;
  r.chassis.presenceMask = row.model == Model::RK420 ? 0x3F : 0;  // five sub-matrices and a card in slot 1
  r.chassis.presenceMaskSet = row.model == Model::RK420;
  return r;
}

// A chassis discovered, connected, opened, initialised and switched to a few
// closed relays, so that a call that clears or switches by mistake shows.
uint32_t prepare(const Row &row) {
  const uint32_t s = qbtest::ConnectOne(resourceFor(row));
  for (uint64_t slot = 0; slot < (row.model == Model::RK420 ? 3u : 1u); ++slot)
    EXPECT_EQ(QBVISA_OpenSpecifiedCard(s, slot, nullptr), 0);
  EXPECT_EQ(QBVISA_Init(s, 0), 0);
  uint32_t words[40] = {0x11, 0x2};
  EXPECT_EQ(QBVISA_OpMatrix(s, 0, words, 40), 0);
  qbsim::clearTraffic(resourceFor(row).name);
  slept = 0;
  return s;
}

// The record's firmware version, geometry words and (unless the call may
// clear them) last arrays as their non-zero bytes; the chassis's settings
// and closed relays.
using State = std::pair<std::string, std::string>;  // record, chassis
State state(const Row &row, uint32_t s) {
  State st;
  ChassisRecord *rec = nullptr;
  if (FindChassis(int32_t(s), &rec) >= 0) {
    st.first = "firmware " + std::to_string(rec->firmwareMajor) + "." + std::to_string(rec->firmwareMinor);
    for (const SlotArea &slot : rec->slots) {
      st.first += "; kind " + std::to_string(slot.matrixKind) + ":";
      const auto *words = &slot.arrayWordLimit;
      for (size_t i = 0; i < (sizeof(SlotArea) - offsetof(SlotArea, arrayWordLimit)) / 2; ++i)
        st.first += " " + std::to_string(words[i]);
      for (size_t i = 0; i < sizeof slot.lastArray && !(row.flags & kClears); ++i)
        if (slot.lastArray[i] != 0) st.first += " [" + std::to_string(i) + "]=" + std::to_string(slot.lastArray[i]);
    }
  }
  const std::string name = resourceFor(row).name;
  qbsim::Resource now{name, qbsim::ResourceKind::Chassis, qbsim::chassisState(name), ""};
  st.second = qbsim::benchToJson(qbsim::Bench{{now}});
  for (const auto &relay : qbsim::closedRelays(name))
    st.second += " " + std::to_string(relay.board) + "/" + std::to_string(relay.group) + "/" + std::to_string(relay.bit);
  return st;
}

struct Result {
  int32_t code;
  std::string out;
  State before, after;
  // Everything but the states themselves, as one line of the table.
  std::string line() const {
    return std::to_string(code) + ", out \"" + out + "\", record " + (after.first == before.first ? "kept" : "changed") +
           ", chassis " + (after.second == before.second ? "kept" : "changed");
  }
};

// Before the call the reply buffer holds 0x5A from an earlier, longer reply.
Result runWith(const Row &row, const Fault *fault) {
  Ctx c;
  c.s = prepare(row);
  Result res{0, "", state(row, c.s), {}};
  ChassisRecord *rec = nullptr;
  if (FindChassis(int32_t(c.s), &rec) >= 0) std::memset(rec->replyBuffer, 0x5A, sizeof rec->replyBuffer);
  if (fault != nullptr) qbsim::injectFault(resourceFor(row).name, *fault);
  res.code = row.run(c);
  res.out = c.out() + (slept != 0 ? "slept " + std::to_string(slept) : "");
  if (rec != nullptr && rec->scpiReply[0] != 0) res.out += "kept \"" + Ctx::escaped(rec->scpiReply) + "\"";
  res.after = state(row, c.s);
  return res;
}

TEST(FaultTable, EveryCallUnderEveryExchangeFault) {
  const std::pair<const char *, Fault> faults[] = {
      {"WriteFails", Fault::WriteFails}, {"ReadFails", Fault::ReadFails}, {"FailureReply", Fault::FailureReply},
      {"ShortReply", Fault::ShortReply}, {"Timeout", Fault::Timeout},     {"Vanish", Fault::Vanish},
      {"TermChar", Fault::TermCharCompletion}, {"MaxCount", Fault::MaxCountCompletion}};
  std::vector<std::string> got;
  for (const Row &row : kRows) {
    const Result clean = runWith(row, nullptr);
    got.push_back(std::string(row.call) + " / none: " + clean.line());
    for (const auto &[name, fault] : faults) {
      if ((row.flags & kSwitches) && (fault == Fault::WriteFails || fault == Fault::Vanish)) continue;
      const Result r = runWith(row, &fault);
      const bool asClean = r.code == clean.code && r.out == clean.out && r.after == clean.after;
      const bool completion = fault == Fault::TermCharCompletion || fault == Fault::MaxCountCompletion;
      got.push_back(std::string(row.call) + " / " + name + ": " + (completion && asClean ? "as none" : r.line()));
    }
  }
  qbgolden::expectGolden("fault_table.txt", got);
}

}  // namespace
