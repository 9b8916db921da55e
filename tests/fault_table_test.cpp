// Every exported call that talks to a chassis, with each exchange fault the
// bench can arm on its first exchange: the exact code, what the caller gets
// back, and that nothing changed that should not (the record's geometry and
// last arrays, the chassis's relays and settings). A read that ends with a
// positive VISA completion code must be indistinguishable from a plain one.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

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
constexpr const char *kSerialName = "ASRL1::INSTR";
constexpr uint32_t kUnset = 0xEEEEEEEEu;  // an out value the call did not write
constexpr int32_t kSkip = INT32_MIN;      // fault not applied to this call

// What the call handed back to its caller, values it did not write left out.
struct Out {
  std::string text;
  void num(uint32_t v) {
    if (v != kUnset) text += std::to_string(v) + " ";
  }
  void str(const char *s) {
    if (s[0] != '~') text += std::string(s) + "|";
  }
  void list(const char *l, int slots) {
    for (int i = 0; i < slots; ++i) str(l + 10 * i);
  }
};

struct Ctx {
  uint32_t s = 0;
  Out out;
};

// A caller's text buffer: each 10-byte slot starts as "~", not written.
struct Buf {
  char b[400];
  Buf() {
    for (int i = 0; i < 40; ++i) std::strcpy(b + 10 * i, "~");
  }
};

std::string updateFile() {
  static const std::string path = [] {
    std::string p = ::testing::TempDir() + "fault_table_update.bin";
    FILE *f = std::fopen(p.c_str(), "wb");
    std::fputs("firmware image", f);
    std::fclose(f);
    return p;
  }();
  return path;
}

using Run = std::function<int32_t(Ctx &)>;

// A text command always returns 0; its reply says what went wrong, and an
// error text is turned back into its code for the table.
// A write keeps its reply in the chassis record.
Run scpi(const char *line, bool write = false) {
  return [line, write](Ctx &c) -> int32_t {
    char reply[400] = "~";
    ChassisRecord *rec = nullptr;
    if (write ? QBVISA_SCPIWrite(c.s, line) != 0 || FindChassis(int32_t(c.s), &rec) < 0
              : QBVISA_SCPIQuery(c.s, line, reply) != 0)
      return -1;
    if (write) std::strcpy(reply, rec->scpiReply);
    if (std::strcmp(reply, "Send data failed!") == 0) return QBVISA_ERR_SEND;
    if (std::strcmp(reply, "Receive data failed!") == 0) return QBVISA_ERR_RECEIVE;
    for (int32_t code = -10000; code >= -10053; --code) {
      char text[257] = {};
      QBVISA_ErrorCodeToMessage(code, text, 256);
      if (std::strcmp(reply, text) == 0) return code;
    }
    c.out.str(reply);
    return 0;
  };
}
Run getter(int32_t (*call)(uint32_t, uint32_t *)) {
  return [call](Ctx &c) {
    uint32_t v = kUnset;
    const int32_t code = call(c.s, &v);
    c.out.num(v);
    return code;
  };
}
Run versions(int32_t (*call)(uint32_t, char *, uint64_t), int slots) {
  return [call, slots](Ctx &c) {
    Buf l;
    const int32_t code = call(c.s, l.b, 22);
    c.out.list(l.b, slots);
    return code;
  };
}
Run flags(bool spi) {
  return [spi](Ctx &c) {
    int32_t v[4] = {int32_t(kUnset), int32_t(kUnset), int32_t(kUnset), int32_t(kUnset)};
    uint32_t n = kUnset;
    const int32_t code = spi ? QBVISA_SPILoopTestInfo(c.s, 0, v, &n) : QBVISA_BoardInPlaceInfo(c.s, v, &n);
    for (int32_t x : v) c.out.num(uint32_t(x));
    c.out.num(n);
    return code;
  };
}
// Discovery again, now with the fault armed: how many chassis it finds.
int32_t discover(Ctx &) {
  QBVISA_ResourceEntry list[5] = {};
  uint32_t n = 0;
  const int32_t code = QBVISA_FindRsrc(list, &n);
  return code != 0 ? code : int32_t(n);
}
Run clear = [](Ctx &c) {
  const int32_t code = QBVISA_Clear(c.s, 0);
  c.out.num(code >= 0 ? uint32_t(code) : kUnset);
  return std::min(code, 0);
};

// Columns of `codes`: no fault, then each fault on the call's first exchange.
constexpr Fault kFaults[] = {Fault::WriteFails, Fault::ReadFails, Fault::FailureReply,
                             Fault::ShortReply, Fault::Timeout,   Fault::Vanish};
constexpr const char *kFaultNames[] = {"none",       "WriteFails", "ReadFails", "FailureReply",
                                       "ShortReply", "Timeout",    "Vanish"};

struct Row {
  const char *call;
  Model model;
  Run run;
  std::array<int32_t, 7> codes;
  const char *shortOut;        // what a short reply hands back, when it succeeds
  bool mayClearArrays = false;  // the call clears the last arrays before it sends
  bool serial = false;          // the chassis is on a serial line at 19200
};

constexpr int32_t S = QBVISA_ERR_SEND, R = QBVISA_ERR_RECEIVE, F = QBVISA_ERR_DEVICE_FAILURE;

// A short reply is two bytes; every byte the call reads past them was 0x5A
// before the call (an earlier, longer reply), so stale bytes show as 0x5A.
const Row kRows[] = {
    {"FindRsrc", Model::RK421, discover, {1, 0, 0, 0, 0, 0, 0}, nullptr},
    // A serial chassis at 19200: the first rate tried is 115200.
    // A serial chassis at 19200, asked at 115200 first: a failed write there
    // gives the resource up, a failed read goes on to the next rate.
    {"FindRsrc serial", Model::RK423, discover, {1, 0, 1, 0, 0, 1, 0}, nullptr, false, true},
    // On an RK420 the first exchange is the version query: a short answer
    // reads as firmware 0.00 (bytes 2..5 cleared), which is no failure.
    {"OpenSpecifiedCard 0", Model::RK420, [](Ctx &c) { return QBVISA_OpenSpecifiedCard(c.s, 0, nullptr); },
     {0, S, R, F, 0, R, S}, ""},
    {"OpenSpecifiedCard 1", Model::RK420, [](Ctx &c) { return QBVISA_OpenSpecifiedCard(c.s, 1, nullptr); },
     {0, S, R, F, 0, R, S}, ""},
    {"OpenSpecifiedCard 2", Model::RK420, [](Ctx &c) { return QBVISA_OpenSpecifiedCard(c.s, 2, nullptr); },
     {0, S, R, F, -10026, R, S}, nullptr},
    // A short presence answer is an empty mask, never the stale 5A bytes.
    {"OpenSpecifiedCard RK421", Model::RK421, [](Ctx &c) { return QBVISA_OpenSpecifiedCard(c.s, 0, nullptr); },
     {0, S, R, F, -10016, R, S}, nullptr},
    {"BoardInPlaceHDW", Model::RK420, [](Ctx &c) { return QBVISABoardInPlaceHDW(c.s, 1); },
     {0, S, R, F, -10024, R, S}, nullptr},
    {"Init RK420", Model::RK420, [](Ctx &c) { return QBVISA_Init(c.s, 0); }, {0, S, R, F, 0, R, S}, "", true},
    // A short mode answer reads as local control; the switch to remote then
    // finds the chassis already remote.
    {"Init RK421", Model::RK421, [](Ctx &c) { return QBVISA_Init(c.s, 0); }, {0, S, R, F, -10041, R, S}, nullptr,
     true},
    {"Init RK422", Model::RK422, [](Ctx &c) { return QBVISA_Init(c.s, 0); }, {0, S, R, F, 0, R, S}, "", true},
    // A failed relay-frame write keeps the exchange lock taken by design, so
    // that fault is left to the exchange tests.
    {"OpMatrix RK421", Model::RK421,
     [](Ctx &c) {
       uint32_t w[15] = {0x81, 0, 0x4000};
       return QBVISA_OpMatrix(c.s, 0, w, 15);
     },
     {0, kSkip, R, F, 0, R, kSkip}, ""},
    {"OpMatrix RK420", Model::RK420,
     [](Ctx &c) {
       uint32_t w[32] = {0, 0x300};
       return QBVISA_OpMatrix(c.s, 0, w, 32);
     },
     {0, kSkip, R, F, 0, R, kSkip}, ""},
    // "*IDN?" hands the chassis's answer through as it came.
    {"SCPI *IDN?", Model::RK421, scpi("*IDN?"), {0, S, R, 0, 0, R, S}, "QB|"},
    {"SCPI version", Model::RK421, scpi(":SYSTem:VERSion?"), {0, S, R, F, 0, R, S},
     "Fw Version: CTR 0.00, COM 1.02|"},
    {"SCPI write version", Model::RK421, scpi(":SYSTem:VERSion?", true), {0, S, R, F, 0, R, S},
     "Fw Version: CTR 0.00, COM 1.02|"},
    {"SCPI GPIB address", Model::RK421, scpi(":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?"), {0, S, R, F, 0, R, S},
     "GPIB Address:90|"},
    {"SCPI close", Model::RK421, scpi(":CLOSe (@1(1!1))"), {0, kSkip, R, F, 0, R, kSkip}, "Relays Operate Success|"},
    {"SetIPAddress RK420", Model::RK420, [](Ctx &c) { return QBVISA_SetIPAddress(c.s, "192.168.1.77"); },
     {0, S, R, F, 0, R, S}, ""},
    {"SetIPAddress RK421", Model::RK421, [](Ctx &c) { return QBVISA_SetIPAddress(c.s, "192.168.1.77"); },
     {0, S, R, F, 0, R, S}, ""},
    {"GetCOMMIPAddr", Model::RK421,
     [](Ctx &c) {
       Buf t;
       const int32_t code = QBVISA_GetCOMMIPAddr(c.s, t.b);
       c.out.str(t.b);
       return code;
     },
     {0, S, R, F, 0, R, S}, "90.90.90.90|"},
    {"SetGPIBAddress", Model::RK421, [](Ctx &c) { return QBVISA_SetGPIBAddress(c.s, 7); }, {0, S, R, F, 0, R, S}, ""},
    {"GetGPIBAddress", Model::RK421, getter(QBVISA_GetGPIBAddress), {0, S, R, F, 0, R, S}, "90 "},
    {"SetBaudRate", Model::RK421, [](Ctx &c) { return QBVISA_SetBaudRate(c.s, 9600); }, {0, S, R, F, 0, R, S}, ""},
    {"GetBaudRate", Model::RK421, getter(QBVISA_GetBaudRate), {0, S, R, F, 0, R, S}, "1515870810 "},
    {"SetLANMode", Model::RK421, [](Ctx &c) { return QBVISA_SetLANMode(c.s, 1); }, {0, S, R, F, 0, R, S},
     "slept 6"},
    {"GetLANMode", Model::RK421, getter(QBVISA_GetLANMode), {0, S, R, F, 0, R, S}, "90 "},
    // Setting a serial number reports argument errors only.
    {"SetSN", Model::RK421, [](Ctx &c) { return QBVISA_SetSN(c.s, "12345678", "7"); }, {0, 0, 0, 0, 0, 0, 0}, ""},
    {"GetSN", Model::RK420,
     [](Ctx &c) {
       uint32_t l[7] = {kUnset, kUnset, kUnset, kUnset, kUnset, kUnset, kUnset};
       const int32_t code = QBVISA_GetSN(c.s, l, 7);
       for (uint32_t v : l) c.out.num(v);
       return code;
     },
     {0, S, R, F, -10020, R, S}, nullptr},  // short: firmware 0.00 is too old
    {"SetCardSN", Model::RK420, [](Ctx &c) { return QBVISA_SetCardSN(c.s, "12345678", "7", 1); },
     {0, S, R, F, -10020, R, S}, nullptr},
    {"GetHWVersion", Model::RK420, versions(QBVISA_GetHWVersion, 7), {0, S, R, F, -10020, R, S}, nullptr},
    {"GetSWVersion RK420", Model::RK420, versions(QBVISA_GetSWVersion, 1), {0, S, R, F, 0, R, S}, "0.00|"},
    {"GetSWVersion RK421", Model::RK421, versions(QBVISA_GetSWVersion, 2), {0, S, R, F, 0, R, S}, "0.00|1.02|"},
    {"GetSWVersion RK422", Model::RK422, versions(QBVISA_GetSWVersion, 3), {0, S, R, F, 0, R, S}, ""},
    // The firmware version is read first; the identity answer is whole.
    {"GetDeviceInfo", Model::RK421,
     [](Ctx &c) {
       Buf t[4];
       const int32_t code = QBVISA_GetDeviceInfo(c.s, t[0].b, t[1].b, t[2].b, t[3].b, 20);
       for (auto &x : t) c.out.str(x.b);
       return code;
     },
     {0, S, R, F, 0, R, S}, "042A|A1|12345678|0.00|"},
    {"GetControlMode", Model::RK421, getter(QBVISA_GetControlMode), {0, S, R, F, 0, R, S}, "0 "},
    // When the mode cannot be read the request is sent whatever it asks for;
    // a short answer reads as local, the mode asked for.
    {"SetControlMode", Model::RK421, [](Ctx &c) { return QBVISA_SetControlMode(c.s, 0); },
     {0, 0, 0, 0, -10041, 0, S}, nullptr},
    {"Clear RK421", Model::RK421, clear, {0, S, R, F, 0, R, S}, "2 ", true},
    {"Clear RK422", Model::RK422, clear, {0, S, R, F, 0, R, S}, "2 ", true},
    {"SelfTest", Model::RK421,
     [](Ctx &c) {
       Buf t;
       const int32_t code = QBVISA_SelfTest(c.s, 0, t.b, 40);
       c.out.str(t.b);
       return code;
     },
     {0, S, R, F, R, R, S}, nullptr},
    {"BoardInPlace", Model::RK421, [](Ctx &c) { return QBVISA_BoardInPlace(c.s, 2); }, {0, S, R, F, R, R, S},
     nullptr},
    {"BoardInPlaceInfo", Model::RK421, flags(false), {0, S, R, F, R, R, S}, nullptr},
    {"SPILoopTestInfo", Model::RK421, flags(true), {0, S, R, F, R, R, S}, nullptr},
    {"OnlineUpdate", Model::RK421, [](Ctx &c) { return QBVISA_OnlineUpdate(c.s, updateFile().c_str()); },
     {0, S, R, F, R, R, S}, nullptr},
};

qbsim::Resource resourceFor(const Row &row) {
  qbsim::Resource r;
  r.name = row.serial ? kSerialName : kName;
  r.chassis.model = row.model;
  r.chassis.slot2Present = true;
  if (row.serial) r.chassis.baudRate = 19200;
  if (row.model == Model::RK420) {
    r.chassis.presenceMask = 0x3F;  // five sub-matrices and a card in slot 1
    r.chassis.presenceMaskSet = true;
  }
  return r;
}

// A chassis discovered, connected, opened, initialised and switched to a few
// closed relays, so that a call that clears or switches by mistake shows.
uint32_t prepare(const Row &row) {
  const qbsim::Resource r = resourceFor(row);
  qbsim::setBench(qbsim::Bench{{r}});
  QBVISA_ResourceEntry list[5] = {};
  uint32_t found = 0, s = 0;
  EXPECT_EQ(QBVISA_FindRsrc(list, &found), 0);
  EXPECT_EQ(QBVISA_Connect(r.name.c_str(), &s), 0);
  const uint64_t slots = row.model == Model::RK420 ? 3 : 1;
  for (uint64_t slot = 0; slot < slots; ++slot) EXPECT_EQ(QBVISA_OpenSpecifiedCard(s, slot, nullptr), 0);
  EXPECT_EQ(QBVISA_Init(s, 0), 0);
  uint32_t words[40] = {0x11, 0x2};
  EXPECT_EQ(QBVISA_OpMatrix(s, 0, words, 40), 0);
  qbsim::clearTraffic(r.name);
  slept = 0;
  return s;
}

// The record's geometry, firmware version and (unless the call may clear
// them) last arrays; the chassis's settings and relays.
struct State {
  std::string record, chassis;
  bool operator==(const State &) const = default;
};

// Geometry words as numbers, last arrays as their non-zero bytes.
State state(const Row &row, uint32_t s) {
  State st;
  ChassisRecord *rec = nullptr;
  if (FindChassis(int32_t(s), &rec) >= 0) {
    st.record = "firmware " + std::to_string(rec->firmwareMajor) + "." + std::to_string(rec->firmwareMinor);
    for (const SlotArea &slot : rec->slots) {
      st.record += "; kind " + std::to_string(slot.matrixKind) + ":";
      const auto *words = &slot.arrayWordLimit;
      for (size_t i = 0; i < (sizeof(SlotArea) - offsetof(SlotArea, arrayWordLimit)) / 2; ++i)
        st.record += " " + std::to_string(words[i]);
      for (size_t i = 0; i < sizeof slot.lastArray && !row.mayClearArrays; ++i)
        if (slot.lastArray[i] != 0) st.record += " [" + std::to_string(i) + "]=" + std::to_string(slot.lastArray[i]);
    }
  }
  const std::string name = resourceFor(row).name;
  qbsim::Resource now{name, qbsim::ResourceKind::Chassis, qbsim::chassisState(name), ""};
  st.chassis = qbsim::benchToJson(qbsim::Bench{{now}});
  for (const auto &relay : qbsim::closedRelays(name))
    st.chassis += " " + std::to_string(relay.board) + "/" + std::to_string(relay.group) + "/" + std::to_string(relay.bit);
  return st;
}

struct Result {
  int32_t code;
  std::string out;
  State before, after;
};

Result runWith(const Row &row, const Fault *fault) {
  Ctx c;
  c.s = prepare(row);
  Result res{0, "", state(row, c.s), {}};
  ChassisRecord *rec = nullptr;
  if (FindChassis(int32_t(c.s), &rec) >= 0) std::memset(rec->replyBuffer, 0x5A, sizeof rec->replyBuffer);
  if (fault != nullptr) qbsim::injectFault(resourceFor(row).name, *fault);
  res.code = row.run(c);
  res.out = c.out.text + (slept != 0 ? "slept " + std::to_string(slept) : "");
  res.after = state(row, c.s);
  return res;
}

TEST(FaultTable, EveryCallUnderEveryExchangeFault) {
  for (const Row &row : kRows) {
    const Result clean = runWith(row, nullptr);
    EXPECT_EQ(clean.code, row.codes[0]) << row.call;
    for (size_t i = 0; i < std::size(kFaults); ++i) {
      const int32_t want = row.codes[i + 1];
      if (want == kSkip) continue;
      const Result got = runWith(row, &kFaults[i]);
      SCOPED_TRACE(std::string(row.call) + " / " + kFaultNames[i + 1]);
      EXPECT_EQ(got.code, want);
      const bool unsent = kFaults[i] == Fault::WriteFails || kFaults[i] == Fault::Vanish;
      if (kFaults[i] == Fault::ShortReply && row.shortOut != nullptr) {
        EXPECT_EQ(got.out, row.shortOut);
      } else if (want < 0 && kFaults[i] != Fault::ShortReply) {
        // A failed call hands nothing back, waits for nothing and leaves the
        // record's geometry and last arrays as they were.
        EXPECT_EQ(got.out, "");
        EXPECT_EQ(got.after.record, got.before.record);
      }
      // Nothing reached the chassis: its relays and settings are untouched.
      if (unsent && want < 0) {
        EXPECT_EQ(got.after.chassis, got.before.chassis);
      }
    }
    // A positive completion code on the read is a success like any other.
    for (Fault completion : {Fault::TermCharCompletion, Fault::MaxCountCompletion}) {
      const Result got = runWith(row, &completion);
      SCOPED_TRACE(std::string(row.call) + " / completion code");
      EXPECT_EQ(got.code, clean.code);
      EXPECT_EQ(got.out, clean.out);
      EXPECT_EQ(got.after, clean.after);
    }
  }
}

// The completion-code faults above only prove something if the bench really
// ends the read with them.
TEST(FaultTable, BenchEndsTheNextReadWithTheArmedCompletionCode) {
  qbsim::Resource r;
  r.name = kName;
  qbsim::setBench(qbsim::Bench{{r}});
  ViSession manager = 0, session = 0;
  ASSERT_EQ(viOpenDefaultRM(&manager), VI_SUCCESS);
  ASSERT_EQ(viOpen(manager, kName, 0, 0, &session), VI_SUCCESS);
  for (const auto &[fault, status] : {std::pair{Fault::TermCharCompletion, VI_SUCCESS_TERM_CHAR},
                                      std::pair{Fault::MaxCountCompletion, VI_SUCCESS_MAX_CNT}}) {
    ViUInt32 count = 0;
    ViByte reply[400];
    ASSERT_EQ(viWrite(session, reinterpret_cast<const ViByte *>("*IDN?\n"), 6, &count), VI_SUCCESS);
    qbsim::injectFault(kName, fault);
    EXPECT_EQ(viRead(session, reply, sizeof reply, &count), status);
    EXPECT_GT(count, 4u);
  }
  viClose(manager);
}

}  // namespace
