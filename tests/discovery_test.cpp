// Discovery over simulated benches, connection by resource name and lookup
// of a chassis by session. What each discovery left behind is compared whole
// with the reviewed transcript tests/data/discovery.txt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "core/visa_api.h"
#include "golden_lines.hpp"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

using qbsim::Model;
using std::to_string;

qbsim::Resource chassis(const std::string &name, Model model) {
  qbsim::Resource r{name, qbsim::ResourceKind::Chassis, {}, {}};
  r.chassis.model = model;
  return r;
}
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

class DiscoveryTest : public ::testing::Test {
 protected:
  // Every test starts from a library that has never run discovery.
  void SetUp() override {
    std::memset(globalChassisInfo, 0, sizeof globalChassisInfo);
    std::memset(tmp, 0, sizeof tmp);
    first_findrsc = 1;
  }

  // Discovery on this bench, then what it left behind: its code and count,
  // the caller's list up to the first entry left alone (0x5A), every record
  // that holds a name or a session, and for each instrument how often it was
  // asked "*IDN?" (or that it saw no traffic at all).
  int32_t discover(const std::vector<qbsim::Resource> &bench, const std::string &title) {
    qbsim::setBench(qbsim::Bench{bench});
    std::memset(list_, 0x5A, sizeof list_);
    count_ = 12345;
    const int32_t status = QBVISA_FindRsrc(list_, &count_);
    lines_.push_back("== " + title);
    lines_.push_back("status " + to_string(status) + ", count " + to_string(count_) + ", first_findrsc " +
                     to_string(first_findrsc) + ", idle record " + to_string(FindIdleChassis()));
    for (size_t i = 0; i < std::size(list_); ++i) {
      if (allBytes(list_[i], 0x5A)) {
        lines_.push_back("list " + to_string(i) + " untouched");
        break;
      }
      const std::string name = text(list_[i].resourceName);
      const char *after = list_[i].resourceName + name.size();  // the rest must be zeros
      lines_.push_back("list " + to_string(i) + ": " + name + " " + to_string(list_[i].typeCode) +
                       (std::all_of(after, after + (64 - name.size()), [](char c) { return c == 0; }) ? "" : " +junk"));
    }
    for (const qbsim::Resource &r : bench) {
      int asked = 0;
      for (const auto &bytes : qbsim::writes(r.name)) asked += std::string(bytes.begin(), bytes.end()) == "*IDN?\n";
      lines_.push_back("asked " + r.name + (qbsim::traffic(r.name).empty() ? ": no traffic" : ": " + to_string(asked)));
    }
    for (int i = 0; i < QBVISA_RECORD_COUNT; ++i) {
      const ChassisRecord &c = globalChassisInfo[i];
      if (c.resourceName[0] == 0 && c.session == 0) continue;
      const SlotArea *s = c.slots;
      lines_.push_back("record " + to_string(i) + ": " + text(c.resourceName) + " model " + text(c.modelName) +
                       " type " + to_string(c.modelTypeCode) + "/" + to_string(c.reportedTypeCode) + " slots " +
                       to_string(c.slotCount) + " sub " + to_string(s[0].subMatrixCount) + "/" +
                       to_string(s[1].subMatrixCount) + "/" + to_string(s[2].subMatrixCount) + " kind " +
                       to_string(s[0].matrixKind) + "/" + to_string(s[2].matrixKind) + " connected " +
                       to_string(c.connectedFlag) + " baud " + to_string(c.baudRate) +
                       (c.session == 0 ? " idle" : answers(i) ? " answers" : " no answer"));
    }
    return status;
  }

  QBVISA_ResourceEntry list_[8];
  uint32_t count_ = 0;
  std::vector<std::string> lines_;
};

TEST_F(DiscoveryTest, BenchesAgainstTheTranscript) {
  // Only the maker's chassis are kept; PXI is not searched for.
  discover({other("GPIB0::3::INSTR", "ACME ,DMM 1 ,42 ,1.0\n"), other("GPIB0::4::INSTR"),
            chassis("GPIB0::5::INSTR", Model::RK420), chassis("PXI0::1::INSTR", Model::RK421),
            other("USB0::0x1AB1::0x0001::SN7::INSTR", "Quelbrink ,RK422 ,7 ,1.0\n"),
            other("TCPIP0::192.168.1.20::inst0::INSTR", "qb ,RK423 ,1\n"),
            other("GPIB0::6::INSTR", "Quelbrinks ,RK420 ,1 ,1.0\n"),
            chassis("TCPIP0::192.168.1.21::inst0::INSTR", Model::RK423B)},
           "mixed bench");
  // The model field may carry the name or the code text; the RK420 pair
  // differ only in the kind of matrix they expect in slot 2.
  for (const char *field : {"041A", "RK420B", "042A", "RK422"}) {
    SetUp();
    discover({other("GPIB0::9::INSTR", std::string("QB ,") + field + " ,1 ,1.0\n")}, field);
  }
  // The chassis put one blank before each comma and a field matches only
  // when written that way: its last character is always dropped. The split
  // must never read past the reply; a long model is a bounded 64-byte copy.
  const std::string longModel = "QB ," + std::string(600, 'R'), longMaker(600, 'Q');
  for (const std::string &reply : std::vector<std::string>{"QBx,RK420x,1\n", "QB,RK420 ,1\n", "QB ,RK421,1\n",
                                                           "Quelbrink ,042A ,1\n", "QB ,RK420 ", "QB ,", "QB ",
                                                           longModel, longMaker}) {
    SetUp();
    std::string shown;
    for (char c : reply.substr(0, 20)) shown += c == '\n' ? "\\n" : std::string(1, c);
    discover({other("TCPIP0::10.0.0.1::inst0::INSTR", reply)}, "reply \"" + shown + "\"");
  }
  // An unknown model ends discovery keeping the chassis before it, and its
  // own open session in the next record; connecting passes the error on.
  SetUp();
  std::vector<qbsim::Resource> bench = {chassis("GPIB0::5::INSTR", Model::RK420),
                                        chassis("GPIB0::6::INSTR", Model::RK420),
                                        chassis("GPIB0::7::INSTR", Model::RK421)};
  bench[1].chassis.idnModel = "RK499";
  discover(bench, "unknown model");
  uint32_t session = 77;
  lines_.push_back("connect: " + to_string(QBVISA_Connect("GPIB0::5::INSTR", &session)));
  // Rates are tried in a fixed order; serial instruments that never answer
  // as a chassis are asked at every rate and skipped. The session is left at
  // the chassis's rate.
  for (uint32_t rate : {115200, 9600, 19200, 38400, 57600}) {
    SetUp();
    qbsim::Resource serial = chassis("ASRL3::INSTR", Model::RK421);
    serial.chassis.baudRate = rate;
    discover({other("ASRL1::INSTR"), other("ASRL2::INSTR", "ACME ,PSU ,1 ,1\n"), serial}, "serial " + to_string(rate));
  }
  // At most five are registered; the sixth is not even opened and cannot be
  // connected.
  SetUp();
  bench.clear();
  for (int i = 1; i <= 6; ++i) bench.push_back(chassis("GPIB0::" + to_string(i) + "::INSTR", Model::RK421));
  discover(bench, "six chassis");
  session = 77;
  lines_.push_back("connect sixth: " + to_string(QBVISA_Connect("GPIB0::6::INSTR", &session)) + ", session " +
                   to_string(session));
  ExpectGoldenLines("discovery.txt", lines_);
}

// Discovering again opens a new manager and refills from record 0; the
// records past the new count keep what they had, and stay reachable.
TEST_F(DiscoveryTest, RefillsFromTheFirstRecord) {
  std::vector<qbsim::Resource> bench;
  for (int i = 1; i <= 6; ++i) bench.push_back(chassis("GPIB0::" + to_string(i) + "::INSTR", Model::RK421));
  ASSERT_EQ(discover(bench, "six"), 0);
  const uint32_t firstManager = defaultRM;
  ChassisRecord before[4];
  std::memcpy(before, &globalChassisInfo[1], sizeof before);
  ASSERT_EQ(discover({chassis("USB0::0x1AB1::0x0002::SN9::INSTR", Model::RK422)}, "again"), 0);
  ASSERT_EQ(count_, 1u);
  EXPECT_NE(defaultRM, firstManager);
  EXPECT_STREQ(list_[0].resourceName, "USB0::0x1AB1::0x0002::SN9::INSTR");
  EXPECT_TRUE(allBytes(list_[1], 0x5A));
  EXPECT_EQ(std::memcmp(&globalChassisInfo[1], before, sizeof before), 0);
  EXPECT_EQ(FindChassis(static_cast<int32_t>(before[3].session), nullptr), 4);
  // Lookups stop at record 4 whatever the later records hold.
  globalChassisInfo[5].session = 4242;
  EXPECT_EQ(FindChassis(4242, nullptr), QBVISA_ERR_HANDLE);
}

class ConnectTest : public DiscoveryTest {
 protected:
  static constexpr char kFirst[] = "GPIB0::5::INSTR";
  static constexpr char kSecond[] = "TCPIP0::192.168.1.10::inst0::INSTR";

  void SetUp() override {
    DiscoveryTest::SetUp();
    qbsim::setBench(qbsim::Bench{{chassis(kFirst, Model::RK420), chassis(kSecond, Model::RK421)}});
    // Leftovers of an earlier life of the records.
    for (ChassisRecord &record : globalChassisInfo) {
      std::memset(record.slots, 0x11, sizeof record.slots);
      std::strcpy(record.scpiReply, "stale");
    }
  }

  static bool slotsReset(const ChassisRecord &r) {
    for (const SlotArea &s : r.slots)
      if (!allBytes(s.cardPresent, 0xFF) || !allBytes(s.subMatrixGroup, 0xFF) || !allBytes(s.ltIsolationState, 0xFF) ||
          s.lastArray[0] != 0x11)  // not part of the reset
        return false;
    return allBytes(r.scpiReply, 0) && r.connectedFlag == 1;
  }
};

TEST_F(ConnectTest, RunsDiscoveryOnceAndResetsTheSlotsOnce) {
  // Every call starts the settings lock afresh, even one left taken.
  ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
  uint32_t session = 0;
  ASSERT_EQ(QBVISA_Connect(kSecond, &session), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(first_findrsc, 0);
  EXPECT_NE(session, 0u);
  EXPECT_EQ(session, globalChassisInfo[1].session);
  const QBVISA_ResourceEntry found[] = {{"GPIB0::5::INSTR", 1050}, {"TCPIP0::192.168.1.10::inst0::INSTR", 1066}};
  EXPECT_EQ(std::memcmp(tmp, found, sizeof found), 0);
  EXPECT_TRUE(slotsReset(globalChassisInfo[1]));
  EXPECT_FALSE(slotsReset(globalChassisInfo[0]));  // only the named chassis

  // A second connection neither rediscovers nor resets again.
  qbsim::clearTraffic(kFirst);
  qbsim::clearTraffic(kSecond);
  globalChassisInfo[1].slots[0].cardPresent[0] = 1;
  std::strcpy(globalChassisInfo[1].scpiReply, "kept");
  uint32_t again = 0;
  ASSERT_EQ(QBVISA_Connect(kSecond, &again), 0);
  EXPECT_EQ(again, session);
  EXPECT_EQ(globalChassisInfo[1].slots[0].cardPresent[0], 1);
  EXPECT_STREQ(globalChassisInfo[1].scpiReply, "kept");
  EXPECT_TRUE(qbsim::traffic(kFirst).empty());
  EXPECT_TRUE(qbsim::traffic(kSecond).empty());

  ASSERT_EQ(QBVISA_Connect(kFirst, &again), 0);
  EXPECT_EQ(again, globalChassisInfo[0].session);
  EXPECT_TRUE(slotsReset(globalChassisInfo[0]));
}

TEST_F(ConnectTest, RefusesBadArgumentsAndNamesNotInTheRegistry) {
  for (const char *wanted : {"gpib0::5::instr", "GPIB0::5::INSTR ", ""}) {
    uint32_t session = 99;
    EXPECT_EQ(QBVISA_Connect(wanted, &session), QBVISA_ERR_RESOURCE_NOT_PRESENT) << '"' << wanted << '"';
    EXPECT_EQ(session, 99u);
  }
  uint32_t session = 0;
  EXPECT_EQ(QBVISA_Connect(nullptr, &session), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_Connect(kFirst, nullptr), QBVISA_ERR_PARAMETER);
  // A refused discovery leaves the registry as it was.
  const uint32_t manager = defaultRM;
  EXPECT_EQ(QBVISA_FindRsrc(nullptr, &count_), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_FindRsrc(list_, nullptr), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(defaultRM, manager);
  EXPECT_TRUE(answers(1));
}

}  // namespace
