// Discovery over simulated benches, connection by resource name and lookup
// of a chassis by session. What each discovery left behind is compared whole
// with the reviewed transcript tests/data/discovery.txt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "bench.hpp"
#include "core/visa_api.h"
#include "golden.hpp"

namespace {

using qbsim::Model;
using qbtest::Chassis;
using std::to_string;

// An instrument that answers "*IDN?" with `idn`, or never answers.
qbsim::Resource other(const std::string &name, const std::string &idn = {}) {
  return {name, idn.empty() ? qbsim::ResourceKind::Silent : qbsim::ResourceKind::Foreign, {}, idn};
}

std::string text(const char (&field)[64]) { return std::string(field, strnlen(field, sizeof field)); }

template <typename T>
bool allBytes(const T &object, uint8_t value) {
  const auto *bytes = reinterpret_cast<const uint8_t *>(&object);
  return std::all_of(bytes, bytes + sizeof object, [value](uint8_t b) { return b == value; });
}

// A frame to the chassis of `record` gets an answer: its session is open.
bool answers(int record) {
  uint8_t request[4] = {5, 0, 0, 0}, reply[QBVISA_REPLY_SIZE] = {};
  return SendRecvMsg(globalChassisInfo[record].session, request, 4, reply) > 0;
}

// A library that has never run discovery.
void reset() {
  std::memset(globalChassisInfo, 0, sizeof globalChassisInfo);
  std::memset(tmp, 0, sizeof tmp);
  first_findrsc = 1;
}

// What discovery or a connection left behind, as lines of the transcript.
struct Transcript {
  std::vector<std::string> lines;

  void add(const std::string &line) { lines.push_back(line); }
  // A list up to its first entry left alone (filled with 0x5A before).
  void list(const char *what, const QBVISA_ResourceEntry *entries, size_t size) {
    for (size_t i = 0; i < size; ++i) {
      if (allBytes(entries[i], 0x5A)) return add(what + to_string(i) + " untouched");
      if (allBytes(entries[i], 0)) return add(what + to_string(i) + " empty");
      const std::string name = text(entries[i].resourceName);
      const char *after = entries[i].resourceName + name.size();  // the rest must be zeros
      add(what + to_string(i) + ": " + name + " " + to_string(entries[i].typeCode) +
          (std::all_of(after, after + (64 - name.size()), [](char c) { return c == 0; }) ? "" : " +junk"));
    }
  }
  // How often each instrument was asked "*IDN?", and every record that holds
  // a name or a session.
  void registry() {
    for (const qbsim::Resource &r : qbsim::currentBench().resources) {
      int asked = 0;
      for (const auto &bytes : qbsim::writes(r.name)) asked += std::string(bytes.begin(), bytes.end()) == "*IDN?\n";
      add("asked " + r.name + (qbsim::traffic(r.name).empty() ? ": no traffic" : ": " + to_string(asked)));
    }
    for (int i = 0; i < QBVISA_RECORD_COUNT; ++i) {
      const ChassisRecord &c = globalChassisInfo[i];
      if (c.resourceName[0] == 0 && c.session == 0) continue;
      const SlotArea *s = c.slots;
      bool reset = true;  // every slot's presence, groups and LT state 0xFF
      for (const SlotArea &slot : c.slots)
        reset = reset && allBytes(slot.cardPresent, 0xFF) && allBytes(slot.subMatrixGroup, 0xFF) &&
                allBytes(slot.ltIsolationState, 0xFF);
      add("record " + to_string(i) + ": " + text(c.resourceName) + " model " + text(c.modelName) + " type " +
          to_string(c.modelTypeCode) + "/" + to_string(c.reportedTypeCode) + " slots " + to_string(c.slotCount) +
          " sub " + to_string(s[0].subMatrixCount) + "/" + to_string(s[1].subMatrixCount) + "/" +
          to_string(s[2].subMatrixCount) + " kind " + to_string(s[0].matrixKind) + "/" + to_string(s[2].matrixKind) +
          " connected " + to_string(c.connectedFlag) + " baud " + to_string(c.baudRate) +
          (reset ? " reset" : "") + (s[0].lastArray[0] ? " last " + to_string(s[0].lastArray[0]) : "") +
          (!allBytes(c.scpiReply, 0) ? " reply \"" + std::string(c.scpiReply) + "\"" : "") +
          (c.session == 0 ? " idle" : answers(i) ? " answers" : " no answer"));
    }
  }
  // Discovery on a new bench, from a library that never ran one unless
  // `again`.
  int32_t discover(const std::vector<qbsim::Resource> &bench, const std::string &title, bool again = false) {
    if (!again) reset();
    qbsim::setBench(qbsim::Bench{bench});
    QBVISA_ResourceEntry found[8];
    std::memset(found, 0x5A, sizeof found);
    uint32_t count = 12345;
    const int32_t status = QBVISA_FindRsrc(found, &count);
    add("== " + title);
    add("status " + to_string(status) + ", count " + to_string(count) + ", first_findrsc " + to_string(first_findrsc) +
        ", idle record " + to_string(FindIdleChassis()));
    list("list ", found, std::size(found));
    registry();
    return status;
  }
  uint32_t connect(const char *name) {
    uint32_t session = 99;
    const int32_t status = QBVISA_Connect(name, &session);
    int32_t record = session == 99 ? -1 : FindChassis(int32_t(session), nullptr);
    add("connect \"" + std::string(name) + "\": " + to_string(status) + ", first_findrsc " +
        to_string(first_findrsc) + (record >= 0 ? ", session of record " + to_string(record) : ", session " +
        to_string(session)));
    return session;
  }
};

// Searching again closes the manager of the search before and every session
// it opened: repeated searches leak nothing, and a stale session is refused.
TEST(DiscoveryTest, ASearchClosesTheSearchBefore) {
  qbsim::setBench(qbsim::Bench{{Chassis("GPIB0::5::INSTR", Model::RK420)}});
  QBVISA_ResourceEntry found[5];
  uint32_t count = 0;
  ASSERT_EQ(QBVISA_FindRsrc(found, &count), 0);
  const uint32_t firstSession = globalChassisInfo[0].session;
  ASSERT_EQ(QBVISA_FindRsrc(found, &count), 0);
  EXPECT_NE(globalChassisInfo[0].session, firstSession);
  EXPECT_TRUE(answers(0));
  globalChassisInfo[0].session = firstSession;
  EXPECT_FALSE(answers(0));
}

TEST(DiscoveryTest, BenchesAgainstTheTranscript) {
  Transcript t;
  // Only the maker's chassis are kept; PXI is not searched for. A reply
  // without a comma has no maker, whatever the instrument before said.
  t.discover({other("GPIB0::3::INSTR", "ACME ,DMM 1 ,42 ,1.0\n"), other("GPIB0::4::INSTR"),
              Chassis("GPIB0::5::INSTR", Model::RK420), other("GPIB0::7::INSTR", "QB \n"),
              Chassis("PXI0::1::INSTR", Model::RK421),
              other("USB0::0x1AB1::0x0001::SN7::INSTR", "Quelbrink ,RK422 ,7 ,1.0\n"),
              other("TCPIP0::192.168.1.20::inst0::INSTR", "qb ,RK423 ,1\n"),
              other("GPIB0::6::INSTR", "Quelbrinks ,RK420 ,1 ,1.0\n"),
              Chassis("TCPIP0::192.168.1.21::inst0::INSTR", Model::RK423B)},
             "mixed bench");
  // The model field may carry the name or the code text; the RK420 pair
  // differ only in the kind of matrix they expect in slot 2.
  for (const char *field : {"041A", "RK420B", "042A", "RK422"})
    t.discover({other("GPIB0::9::INSTR", std::string("QB ,") + field + " ,1 ,1.0\n")}, field);
  // The chassis put one blank before each comma and a field matches only
  // when written that way: its last character is always dropped. The split
  // must never read past the reply; a long model is a bounded 64-byte copy.
  const std::string longModel = "QB ," + std::string(600, 'R'), longMaker(600, 'Q');
  for (const std::string &reply : std::vector<std::string>{"QBx,RK420x,1\n", "QB,RK420 ,1\n", "QB ,RK421,1\n",
                                                           "Quelbrink ,042A ,1\n", "QB ,RK420 ", "QB ,", "QB ",
                                                           longModel, longMaker}) {
    std::string shown;
    for (char c : reply.substr(0, 20)) shown += c == '\n' ? "\\n" : std::string(1, c);
    t.discover({other("TCPIP0::10.0.0.1::inst0::INSTR", reply)}, "reply \"" + shown + "\"");
  }
  // An unknown model ends discovery keeping the chassis before it, and its
  // own open session in the next record; connecting passes the error on.
  std::vector<qbsim::Resource> bench = {Chassis("GPIB0::5::INSTR", Model::RK420),
                                        Chassis("GPIB0::6::INSTR", Model::RK420),
                                        Chassis("GPIB0::7::INSTR", Model::RK421)};
  bench[1].chassis.idnModel = "RK499";
  t.discover(bench, "unknown model");
  t.connect("GPIB0::5::INSTR");
  // Rates are tried in a fixed order; serial instruments that never answer
  // as a chassis are asked at every rate and skipped. The session is left at
  // the chassis's rate.
  for (uint32_t rate : {115200, 9600, 19200, 38400, 57600}) {
    qbsim::Resource serial = Chassis("ASRL3::INSTR", Model::RK421);
    serial.chassis.baudRate = rate;
    t.discover({other("ASRL1::INSTR"), other("ASRL2::INSTR", "ACME ,PSU ,1 ,1\n"), serial}, "serial " + to_string(rate));
  }
  // At most five are registered; the sixth is not even opened and cannot be
  // connected.
  bench.clear();
  for (int i = 1; i <= 6; ++i) bench.push_back(Chassis("GPIB0::" + to_string(i) + "::INSTR", Model::RK421));
  t.discover(bench, "six chassis");
  t.connect("GPIB0::6::INSTR");
  // Discovering again opens a new manager and refills from record 0; the
  // records past the new count keep what they had, and stay reachable.
  const uint32_t firstManager = defaultRM;
  ChassisRecord before[4];
  std::memcpy(before, &globalChassisInfo[1], sizeof before);
  t.discover({Chassis("USB0::0x1AB1::0x0002::SN9::INSTR", Model::RK422)}, "again", true);
  EXPECT_NE(defaultRM, firstManager);
  EXPECT_EQ(std::memcmp(&globalChassisInfo[1], before, sizeof before), 0);
  EXPECT_EQ(FindChassis(static_cast<int32_t>(before[3].session), nullptr), 4);
  // Lookups stop at record 4 whatever the later records hold.
  globalChassisInfo[5].session = 4242;
  EXPECT_EQ(FindChassis(4242, nullptr), QBVISA_ERR_HANDLE);

  // Connecting runs discovery once and resets the slots of the chassis it
  // names, once; the records hold leftovers of an earlier life. Each call
  // starts the settings lock afresh, even one left taken.
  constexpr char kFirst[] = "GPIB0::5::INSTR", kSecond[] = "TCPIP0::192.168.1.10::inst0::INSTR";
  const auto fresh = [&] {
    reset();
    qbsim::setBench(qbsim::Bench{{Chassis(kFirst, Model::RK420), Chassis(kSecond, Model::RK421)}});
    for (ChassisRecord &record : globalChassisInfo) {
      std::memset(record.slots, 0x11, sizeof record.slots);
      std::strcpy(record.scpiReply, "stale");
    }
  };
  fresh();
  t.add("== connecting");
  ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
  const uint32_t second = t.connect(kSecond);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  t.list("connect's list ", tmp, 5);
  t.registry();
  // A second connection neither rediscovers nor resets again.
  qbsim::clearTraffic(kFirst);
  qbsim::clearTraffic(kSecond);
  globalChassisInfo[1].slots[0].cardPresent[0] = 1;
  std::strcpy(globalChassisInfo[1].scpiReply, "kept");
  EXPECT_EQ(t.connect(kSecond), second);
  t.registry();
  t.connect(kFirst);
  t.registry();
  // Names are matched exactly; bad arguments are refused and a refused
  // discovery leaves the registry as it was.
  fresh();
  t.add("== refusals");
  for (const char *wanted : {"gpib0::5::instr", "GPIB0::5::INSTR ", ""}) t.connect(wanted);
  uint32_t session = 0, count = 0;
  QBVISA_ResourceEntry found[5];
  const uint32_t manager = defaultRM;
  const int32_t refused[] = {QBVISA_Connect(nullptr, &session), QBVISA_Connect(kFirst, nullptr),
                             QBVISA_FindRsrc(nullptr, &count), QBVISA_FindRsrc(found, nullptr)};
  t.add("null name " + to_string(refused[0]) + ", null session " + to_string(refused[1]) + ", discovery without list " +
        to_string(refused[2]) + ", without count " + to_string(refused[3]) +
        (defaultRM == manager ? ", same manager" : ", new manager"));
  t.registry();
  qbgolden::expectGolden("discovery.txt", t.lines);
}

}  // namespace
