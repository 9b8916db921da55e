// Discovery over simulated benches, connection by resource name and lookup
// of a chassis by session.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

using qbsim::Model;
using qbsim::ResourceKind;

qbsim::Resource chassis(const std::string &name, Model model) {
  qbsim::Resource r{name, ResourceKind::Chassis, {}, {}};
  r.chassis.model = model;
  return r;
}

qbsim::Resource other(const std::string &name, const std::string &idn = {}) {
  return {name, idn.empty() ? ResourceKind::Silent : ResourceKind::Foreign, {},
          idn};
}

int identityQueries(const std::string &resource) {
  int queries = 0;
  for (const auto &bytes : qbsim::writes(resource))
    queries += std::string(bytes.begin(), bytes.end()) == "*IDN?\n";
  return queries;
}

std::string name(const char (&field)[64]) {
  return std::string(field, strnlen(field, sizeof field));
}

template <typename T>
bool allBytes(const T &object, uint8_t value) {
  const auto *bytes = reinterpret_cast<const uint8_t *>(&object);
  for (size_t i = 0; i < sizeof object; ++i)
    if (bytes[i] != value) return false;
  return true;
}

// A frame to the chassis of `record` gets an answer: its session is open.
bool answers(int record) {
  uint8_t request[4] = {5, 0, 0, 0};
  uint8_t reply[QBVISA_REPLY_SIZE] = {};
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

  int32_t discover(const std::vector<qbsim::Resource> &resources) {
    qbsim::setBench(qbsim::Bench{resources});
    std::memset(list_, 0x5A, sizeof list_);
    count_ = 12345;
    return QBVISA_FindRsrc(list_, &count_);
  }

  QBVISA_ResourceEntry list_[8];
  uint32_t count_ = 0;
};

TEST_F(DiscoveryTest, KeepsOnlyTheMakersChassisOnAMixedBench) {
  ASSERT_EQ(discover({
                other("GPIB0::3::INSTR", "ACME ,DMM 1 ,42 ,1.0\n"),
                other("GPIB0::4::INSTR"),
                chassis("GPIB0::5::INSTR", Model::RK420),
                chassis("PXI0::1::INSTR", Model::RK421),  // not searched for
                other("USB0::0x1AB1::0x0001::SN7::INSTR",
                      "Quelbrink ,RK422 ,7 ,1.0\n"),
                other("TCPIP0::192.168.1.20::inst0::INSTR", "qb ,RK423 ,1\n"),
                other("GPIB0::6::INSTR", "Quelbrinks ,RK420 ,1 ,1.0\n"),
                chassis("TCPIP0::192.168.1.21::inst0::INSTR", Model::RK423B),
            }),
            0);
  ASSERT_EQ(count_, 3u);
  const QBVISA_ResourceEntry expected[] = {
      {"GPIB0::5::INSTR", 1050},
      {"USB0::0x1AB1::0x0001::SN7::INSTR", 1082},
      {"TCPIP0::192.168.1.21::inst0::INSTR", 1099},
  };
  EXPECT_EQ(std::memcmp(list_, expected, sizeof expected), 0);
  EXPECT_TRUE(allBytes(list_[3], 0x5A));
  EXPECT_EQ(name(globalChassisInfo[2].resourceName), expected[2].resourceName);
  EXPECT_EQ(name(globalChassisInfo[2].modelName), "RK423B");
  EXPECT_EQ(FindIdleChassis(), 3);
  EXPECT_EQ(first_findrsc, 0);
  // Each instrument searched for was asked once; the others never.
  for (const char *asked : {"GPIB0::4::INSTR", "GPIB0::6::INSTR"})
    EXPECT_EQ(identityQueries(asked), 1) << asked;
  EXPECT_TRUE(qbsim::traffic("PXI0::1::INSTR").empty());
}

// The model field may carry the name or the code text; the RK420 pair differ
// only in the kind of matrix they expect in slot 2.
TEST_F(DiscoveryTest, ModelFieldMayCarryTheNameOrTheCodeText) {
  const struct {
    const char *field;
    uint16_t type, slots, subMatrices;
    uint32_t kind, slot2Kind;  // 0: no card slots
  } cases[] = {
      {"041A", 1050, 6, 5, 0, 11},
      {"RK420B", 1051, 6, 5, 0, 12},
      {"042A", 1066, 4, 4, 1, 0},
      {"RK422", 1082, 21, 21, 2, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.field);
    std::memset(globalChassisInfo, 0, sizeof globalChassisInfo);
    ASSERT_EQ(discover({other("GPIB0::9::INSTR",
                              std::string("QB ,") + c.field + " ,1 ,1.0\n")}),
              0);
    ASSERT_EQ(count_, 1u);
    const ChassisRecord &r = globalChassisInfo[0];
    EXPECT_EQ(name(r.modelName), c.field);
    const int cards = c.slot2Kind != 0 ? 1 : 0;
    EXPECT_EQ(std::tuple(list_[0].typeCode, r.modelTypeCode, r.slotCount,
                         r.slots[0].subMatrixCount, r.slots[0].matrixKind,
                         r.slots[1].subMatrixCount, r.slots[2].subMatrixCount,
                         r.slots[2].matrixKind, int{r.connectedFlag}),
              std::tuple(c.type, c.type, c.slots, c.subMatrices, c.kind, cards,
                         cards, c.slot2Kind, 0));
  }
}

// The chassis put one blank before each comma and a field matches only when
// written that way: its last character is always dropped. The split must
// never read past the reply.
TEST_F(DiscoveryTest, JudgesIdentityRepliesFieldByField) {
  const struct {
    std::string reply;
    int32_t status;
    uint16_t type;  // 0: nothing registered
  } cases[] = {
      {"QBx,RK420x,1\n", 0, 1050},
      {"QB,RK420 ,1\n", 0, 0},  // the maker is cut to "Q"
      {"QB ,RK421,1\n", QBVISA_ERR_NOT_SUPPORTED, 0},  // cut to "RK42"
      {"Quelbrink ,042A ,1\n", 0, 1066},
      {"QB ,RK420 ", 0, 1050},  // one comma: the model runs to the end
      {"QB ,", QBVISA_ERR_NOT_SUPPORTED, 0},
      {"QB ", 0, 0},  // no comma: no maker
      {"QB ," + std::string(600, 'R'), QBVISA_ERR_NOT_SUPPORTED, 0},
      {std::string(600, 'Q'), 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.reply.substr(0, 20));
    first_findrsc = 1;
    EXPECT_EQ(discover({other("TCPIP0::10.0.0.1::inst0::INSTR", c.reply)}),
              c.status);
    EXPECT_EQ(count_, c.type != 0 ? 1u : 0u);
    EXPECT_EQ(count_ != 0 ? list_[0].typeCode : 0, c.type);
  }
  // The 600-character model was stored as a bounded 64-byte copy.
  EXPECT_EQ(name(globalChassisInfo[0].modelName), std::string(64, 'R'));
}

TEST_F(DiscoveryTest, UnknownModelEndsDiscoveryKeepingEarlierChassis) {
  std::vector<qbsim::Resource> bench = {
      chassis("GPIB0::5::INSTR", Model::RK420),
      chassis("GPIB0::6::INSTR", Model::RK420),
      chassis("GPIB0::7::INSTR", Model::RK421)};
  bench[1].chassis.idnModel = "RK499";
  EXPECT_EQ(discover(bench), QBVISA_ERR_NOT_SUPPORTED);
  EXPECT_EQ(count_, 1u);
  EXPECT_TRUE(allBytes(list_[0], 0x5A));
  EXPECT_EQ(first_findrsc, 1);
  EXPECT_TRUE(answers(0));
  // The unknown chassis keeps its open session in the next record.
  EXPECT_EQ(name(globalChassisInfo[1].resourceName), "GPIB0::6::INSTR");
  EXPECT_EQ(name(globalChassisInfo[1].modelName), "RK499");
  EXPECT_TRUE(answers(1));
  EXPECT_TRUE(qbsim::traffic("GPIB0::7::INSTR").empty());
  // Connecting runs discovery again and passes the error on.
  uint32_t session = 0;
  EXPECT_EQ(QBVISA_Connect("GPIB0::5::INSTR", &session),
            QBVISA_ERR_NOT_SUPPORTED);
}

TEST_F(DiscoveryTest, RegistersAtMostFiveAndRefillsFromTheFirstRecord) {
  std::vector<qbsim::Resource> bench;
  for (int i = 1; i <= 6; ++i)
    bench.push_back(chassis("GPIB0::" + std::to_string(i) + "::INSTR",
                            Model::RK421));
  ASSERT_EQ(discover(bench), 0);
  EXPECT_EQ(count_, 5u);
  EXPECT_STREQ(list_[4].resourceName, "GPIB0::5::INSTR");
  // The sixth is not even opened, and nothing is written past five.
  EXPECT_TRUE(allBytes(list_[5], 0x5A));
  EXPECT_EQ(globalChassisInfo[5].session, 0u);
  EXPECT_TRUE(qbsim::traffic("GPIB0::6::INSTR").empty());
  EXPECT_EQ(FindIdleChassis(), QBVISA_ERR_HANDLE);
  uint32_t session = 77;
  EXPECT_EQ(QBVISA_Connect("GPIB0::6::INSTR", &session),
            QBVISA_ERR_RESOURCE_NOT_PRESENT);
  EXPECT_EQ(session, 77u);

  // Discovering again opens a new manager and refills from record 0; the
  // records past the new count keep what they had, and stay reachable.
  const uint32_t firstManager = defaultRM;
  ChassisRecord before[4];
  std::memcpy(before, &globalChassisInfo[1], sizeof before);
  ASSERT_EQ(discover({chassis("USB0::0x1AB1::0x0002::SN9::INSTR",
                              Model::RK422)}),
            0);
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

// Rates are tried in a fixed order; serial instruments that never answer as
// a chassis are asked at every rate and skipped.
TEST_F(DiscoveryTest, FindsASerialChassisAtEachRate) {
  const uint32_t rates[] = {115200, 9600, 19200, 38400, 57600};
  for (int i = 0; i < 5; ++i) {
    SCOPED_TRACE(rates[i]);
    qbsim::Resource serial = chassis("ASRL3::INSTR", Model::RK421);
    serial.chassis.baudRate = rates[i];
    ASSERT_EQ(discover({other("ASRL1::INSTR"),
                        other("ASRL2::INSTR", "ACME ,PSU ,1 ,1\n"), serial}),
              0);
    ASSERT_EQ(count_, 1u);
    EXPECT_EQ(globalChassisInfo[0].baudRate, rates[i]);
    EXPECT_EQ(identityQueries("ASRL1::INSTR"), 5);
    EXPECT_EQ(identityQueries("ASRL2::INSTR"), 5);
    EXPECT_EQ(identityQueries("ASRL3::INSTR"), i + 1);
    EXPECT_TRUE(answers(0));  // the session is left at the chassis's rate
  }
}

class ConnectTest : public DiscoveryTest {
 protected:
  static constexpr char kFirst[] = "GPIB0::5::INSTR";
  static constexpr char kSecond[] = "TCPIP0::192.168.1.10::inst0::INSTR";

  void SetUp() override {
    DiscoveryTest::SetUp();
    qbsim::setBench(qbsim::Bench{{chassis(kFirst, Model::RK420),
                                  chassis(kSecond, Model::RK421)}});
    // Leftovers of an earlier life of the records.
    for (ChassisRecord &record : globalChassisInfo) {
      std::memset(record.slots, 0x11, sizeof record.slots);
      std::strcpy(record.scpiReply, "stale");
    }
  }

  static bool slotsReset(const ChassisRecord &r) {
    for (const SlotArea &s : r.slots) {
      if (!allBytes(s.cardPresent, 0xFF) || !allBytes(s.subMatrixGroup, 0xFF) ||
          !allBytes(s.ltIsolationState, 0xFF) ||
          s.lastArray[0] != 0x11)  // not part of the reset
        return false;
    }
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
  const QBVISA_ResourceEntry found[] = {{"GPIB0::5::INSTR", 1050},
                                        {"TCPIP0::192.168.1.10::inst0::INSTR",
                                         1066}};
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
    EXPECT_EQ(QBVISA_Connect(wanted, &session),
              QBVISA_ERR_RESOURCE_NOT_PRESENT) << '"' << wanted << '"';
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
