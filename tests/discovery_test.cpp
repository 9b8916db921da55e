// Discovery over simulated benches, connection by resource name and lookup
// of a chassis by session.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/visa_api.h"
#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

using qbsim::Model;

const std::string kIdentityQuery = "*IDN?\n";

qbsim::Resource chassis(const std::string &name, Model model,
                        const std::function<void(qbsim::ChassisConfig &)>
                            &adjust = {}) {
  qbsim::Resource r;
  r.name = name;
  r.chassis.model = model;
  if (adjust) adjust(r.chassis);
  return r;
}

qbsim::Resource other(const std::string &name, qbsim::ResourceKind kind,
                      const std::string &idn = {}) {
  qbsim::Resource r;
  r.name = name;
  r.kind = kind;
  r.idn = idn;
  return r;
}

int identityQueries(const std::string &resource) {
  int queries = 0;
  for (const auto &bytes : qbsim::writes(resource))
    if (std::string(bytes.begin(), bytes.end()) == kIdentityQuery) ++queries;
  return queries;
}

std::string name(const char (&field)[64]) {
  return std::string(field, strnlen(field, sizeof field));
}

class DiscoveryTest : public ::testing::Test {
 protected:
  static constexpr size_t kListSize = 8;

  // Every test starts from a library that has never run discovery.
  void SetUp() override {
    std::memset(globalChassisInfo, 0, sizeof globalChassisInfo);
    std::memset(tmp, 0, sizeof tmp);
    first_findrsc = 1;
  }

  int32_t discover(const std::vector<qbsim::Resource> &resources) {
    qbsim::setBench(qbsim::Bench{resources});
    return rediscover();
  }

  int32_t rediscover() {
    std::memset(list_, 0x5A, sizeof list_);
    count_ = 12345;
    return QBVISA_FindRsrc(list_, &count_);
  }

  bool listEntryUntouched(size_t i) const {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&list_[i]);
    for (size_t b = 0; b < sizeof list_[i]; ++b)
      if (bytes[b] != 0x5A) return false;
    return true;
  }

  QBVISA_ResourceEntry list_[kListSize];
  uint32_t count_ = 0;
};

TEST_F(DiscoveryTest, KeepsOnlyTheMakersChassisOnAMixedBench) {
  const std::vector<qbsim::Resource> bench = {
      other("GPIB0::3::INSTR", qbsim::ResourceKind::Foreign,
            "ACME ,DMM 1 ,42 ,1.0\n"),
      other("GPIB0::4::INSTR", qbsim::ResourceKind::Silent),
      chassis("GPIB0::5::INSTR", Model::RK420),
      chassis("PXI0::1::INSTR", Model::RK421),  // not searched for
      chassis("USB0::0x1AB1::0x0001::SN7::INSTR", Model::RK422,
              [](auto &c) { c.maker = "Quelbrink"; }),
      chassis("TCPIP0::192.168.1.20::inst0::INSTR", Model::RK423,
              [](auto &c) { c.maker = "qb"; }),
      other("GPIB0::6::INSTR", qbsim::ResourceKind::Foreign,
            "Quelbrinks ,RK420 ,1 ,1.0\n"),
      chassis("TCPIP0::192.168.1.21::inst0::INSTR", Model::RK423B),
  };
  ASSERT_EQ(discover(bench), 0);
  ASSERT_EQ(count_, 3u);
  const struct {
    const char *resource;
    uint16_t type;
    const char *model;
  } expected[] = {
      {"GPIB0::5::INSTR", 1050, "RK420"},
      {"USB0::0x1AB1::0x0001::SN7::INSTR", 1082, "RK422"},
      {"TCPIP0::192.168.1.21::inst0::INSTR", 1099, "RK423B"},
  };
  for (size_t i = 0; i < std::size(expected); ++i) {
    SCOPED_TRACE(expected[i].resource);
    EXPECT_STREQ(list_[i].resourceName, expected[i].resource);
    EXPECT_EQ(list_[i].typeCode, expected[i].type);
    const ChassisRecord &record = globalChassisInfo[i];
    EXPECT_EQ(name(record.resourceName), expected[i].resource);
    EXPECT_EQ(name(record.modelName), expected[i].model);
    EXPECT_NE(record.session, 0u);
    ChassisRecord *found = nullptr;
    EXPECT_EQ(FindChassis(static_cast<int32_t>(record.session), &found),
              static_cast<int32_t>(i));
    EXPECT_EQ(found, &globalChassisInfo[i]);
  }
  EXPECT_TRUE(listEntryUntouched(3));
  EXPECT_EQ(globalChassisInfo[3].session, 0u);
  EXPECT_EQ(first_findrsc, 0);
  // Each instrument searched for was asked once; the others never.
  for (const char *asked : {"GPIB0::3::INSTR", "GPIB0::4::INSTR",
                            "GPIB0::6::INSTR",
                            "TCPIP0::192.168.1.20::inst0::INSTR"})
    EXPECT_EQ(identityQueries(asked), 1) << asked;
  EXPECT_TRUE(qbsim::traffic("PXI0::1::INSTR").empty());
}

TEST_F(DiscoveryTest, ModelFieldMayCarryTheNameOrTheCodeText) {
  const struct {
    const char *field;
    Model model;
    uint16_t type;
    uint16_t slots;
    uint16_t subMatrices;
    uint32_t kind;
    uint32_t slot2Kind;  // 0: no card slots
  } cases[] = {
      {"RK420", Model::RK420, 1050, 6, 5, 0, 11},
      {"041A", Model::RK420, 1050, 6, 5, 0, 11},
      {"RK420B", Model::RK420B, 1051, 6, 5, 0, 12},
      {"041B", Model::RK420B, 1051, 6, 5, 0, 12},
      {"RK421", Model::RK421, 1066, 4, 4, 1, 0},
      {"042A", Model::RK421, 1066, 4, 4, 1, 0},
      {"RK422", Model::RK422, 1082, 21, 21, 2, 0},
      {"043A", Model::RK422, 1082, 21, 21, 2, 0},
      {"RK423", Model::RK423, 1098, 1, 1, 3, 0},
      {"044A", Model::RK423, 1098, 1, 1, 3, 0},
      {"RK423B", Model::RK423B, 1099, 1, 1, 3, 0},
      {"044B", Model::RK423B, 1099, 1, 1, 3, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.field);
    std::memset(globalChassisInfo, 0, sizeof globalChassisInfo);
    ASSERT_EQ(discover({chassis("GPIB0::9::INSTR", c.model,
                                [&](auto &cfg) { cfg.idnModel = c.field; })}),
              0);
    ASSERT_EQ(count_, 1u);
    EXPECT_EQ(list_[0].typeCode, c.type);
    const ChassisRecord &record = globalChassisInfo[0];
    EXPECT_EQ(record.reportedTypeCode, c.type);
    EXPECT_EQ(record.modelTypeCode, c.type);
    EXPECT_EQ(record.slotCount, c.slots);
    EXPECT_EQ(record.slots[0].subMatrixCount, c.subMatrices);
    EXPECT_EQ(record.slots[0].matrixKind, c.kind);
    EXPECT_EQ(name(record.modelName), c.field);
    EXPECT_EQ(record.connectedFlag, 0);
    if (c.slot2Kind != 0) {
      EXPECT_EQ(record.slots[1].subMatrixCount, 1);
      EXPECT_EQ(record.slots[2].subMatrixCount, 1);
      EXPECT_EQ(record.slots[2].matrixKind, c.slot2Kind);
    } else {
      EXPECT_EQ(record.slots[2].matrixKind, 0u);
    }
  }
}

// Identity replies as raw text. The chassis put one blank before each comma
// and a field matches only when written that way: its last character is
// always dropped. The split must never read past the reply.
TEST_F(DiscoveryTest, JudgesIdentityRepliesFieldByField) {
  const struct {
    std::string reply;
    int32_t status;
    uint16_t type;  // 0: nothing registered
  } cases[] = {
      {"QB ,RK420 ,1 ,1.0\n", 0, 1050},
      {"QBx,RK420x,1\n", 0, 1050},
      {"QB,RK420 ,1\n", 0, 0},  // the maker is cut to "Q"
      {"QB  ,RK420 ,1\n", 0, 0},
      {"QB ,RK421,1\n", QBVISA_ERR_NOT_SUPPORTED, 0},  // cut to "RK42"
      {"Quelbrink ,042A ,1\n", 0, 1066},
      {"QB ,rk420 ,1\n", QBVISA_ERR_NOT_SUPPORTED, 0},
      {"QB ,RK420 ", 0, 1050},  // one comma: the model runs to the end
      {"QB ,RK420 \n", QBVISA_ERR_NOT_SUPPORTED, 0},
      {"QB ,", QBVISA_ERR_NOT_SUPPORTED, 0},
      {"QB ", 0, 0},  // no comma: no maker
      {",RK420 ,1 ,1\n", 0, 0},
      {"QB ," + std::string(600, 'R'), QBVISA_ERR_NOT_SUPPORTED, 0},
      {std::string(600, 'Q'), 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.reply.substr(0, 20));
    first_findrsc = 1;
    EXPECT_EQ(discover({other("TCPIP0::10.0.0.1::inst0::INSTR",
                              qbsim::ResourceKind::Foreign, c.reply)}),
              c.status);
    EXPECT_EQ(count_, c.type != 0 ? 1u : 0u);
    if (c.type != 0) {
      EXPECT_EQ(list_[0].typeCode, c.type);
    }
  }
  // The 600-character model was stored as a bounded 64-byte copy.
  EXPECT_EQ(name(globalChassisInfo[0].modelName), std::string(64, 'R'));
}

TEST_F(DiscoveryTest, UnknownModelEndsDiscoveryKeepingEarlierChassis) {
  const int32_t status = discover({
      chassis("GPIB0::5::INSTR", Model::RK420),
      chassis("GPIB0::6::INSTR", Model::RK420,
              [](auto &c) { c.idnModel = "RK499"; }),
      chassis("GPIB0::7::INSTR", Model::RK421),
  });
  EXPECT_EQ(status, QBVISA_ERR_NOT_SUPPORTED);
  EXPECT_EQ(count_, 1u);
  EXPECT_TRUE(listEntryUntouched(0));
  EXPECT_EQ(first_findrsc, 1);
  EXPECT_EQ(FindChassis(static_cast<int32_t>(globalChassisInfo[0].session),
                        nullptr),
            0);
  // The unknown chassis keeps its open session in the next record.
  const ChassisRecord &unknown = globalChassisInfo[1];
  EXPECT_EQ(name(unknown.resourceName), "GPIB0::6::INSTR");
  EXPECT_EQ(name(unknown.modelName), "RK499");
  uint8_t request[4] = {5, 0, 0, 0};
  uint8_t reply[QBVISA_REPLY_SIZE] = {};
  EXPECT_GT(SendRecvMsg(unknown.session, request, 4, reply), 0);
  EXPECT_TRUE(qbsim::traffic("GPIB0::7::INSTR").empty());
}

TEST_F(DiscoveryTest, RegistersAtMostFiveChassis) {
  std::vector<qbsim::Resource> bench;
  for (int i = 1; i <= 6; ++i)
    bench.push_back(chassis("GPIB0::" + std::to_string(i) + "::INSTR",
                            Model::RK421));
  ASSERT_EQ(discover(bench), 0);
  EXPECT_EQ(count_, 5u);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(name(globalChassisInfo[i].resourceName),
              "GPIB0::" + std::to_string(i + 1) + "::INSTR");
  // The sixth is not even opened, and nothing is written past five.
  EXPECT_TRUE(listEntryUntouched(5));
  EXPECT_EQ(globalChassisInfo[5].session, 0u);
  EXPECT_TRUE(qbsim::traffic("GPIB0::6::INSTR").empty());
  EXPECT_EQ(FindIdleChassis(), QBVISA_ERR_HANDLE);
  uint32_t session = 77;
  EXPECT_EQ(QBVISA_Connect("GPIB0::6::INSTR", &session),
            QBVISA_ERR_RESOURCE_NOT_PRESENT);
  EXPECT_EQ(session, 77u);
}

TEST_F(DiscoveryTest, FindsASerialChassisAtEachRate) {
  const uint32_t rates[] = {115200, 9600, 19200, 38400, 57600};
  for (size_t i = 0; i < std::size(rates); ++i) {
    SCOPED_TRACE(rates[i]);
    ASSERT_EQ(discover({chassis("ASRL1::INSTR", Model::RK421,
                                [&](auto &c) { c.baudRate = rates[i]; })}),
              0);
    ASSERT_EQ(count_, 1u);
    EXPECT_EQ(globalChassisInfo[0].baudRate, rates[i]);
    // One query per rate tried, in order, up to the one that answered.
    EXPECT_EQ(identityQueries("ASRL1::INSTR"), static_cast<int>(i) + 1);
    // The session is left at the chassis's rate: frames get through.
    uint8_t request[4] = {23, 0, 0, 0};
    uint8_t reply[QBVISA_REPLY_SIZE] = {};
    ASSERT_GT(SendRecvMsg(globalChassisInfo[0].session, request, 4, reply), 0);
    uint32_t reported = 0;
    std::memcpy(&reported, reply + 2, 4);
    EXPECT_EQ(reported, rates[i]);
  }
}

TEST_F(DiscoveryTest, SkipsSerialInstrumentsThatNeverAnswerAsAChassis) {
  ASSERT_EQ(discover({
                other("ASRL1::INSTR", qbsim::ResourceKind::Silent),
                other("ASRL2::INSTR", qbsim::ResourceKind::Foreign,
                      "ACME ,PSU ,1 ,1\n"),
                chassis("ASRL3::INSTR", Model::RK421,
                        [](auto &c) { c.baudRate = 57600; }),
            }),
            0);
  ASSERT_EQ(count_, 1u);
  EXPECT_STREQ(list_[0].resourceName, "ASRL3::INSTR");
  EXPECT_EQ(globalChassisInfo[0].baudRate, 57600u);
  EXPECT_EQ(identityQueries("ASRL1::INSTR"), 5);
  EXPECT_EQ(identityQueries("ASRL2::INSTR"), 5);
}

TEST_F(DiscoveryTest, RediscoveryRefillsFromTheFirstRecord) {
  ASSERT_EQ(discover({chassis("GPIB0::1::INSTR", Model::RK420),
                      chassis("GPIB0::2::INSTR", Model::RK421),
                      chassis("GPIB0::3::INSTR", Model::RK423)}),
            0);
  ASSERT_EQ(count_, 3u);
  const uint32_t firstManager = defaultRM;
  const ChassisRecord before1 = globalChassisInfo[1];
  const ChassisRecord before2 = globalChassisInfo[2];

  ASSERT_EQ(discover({chassis("USB0::0x1AB1::0x0002::SN9::INSTR",
                              Model::RK422)}),
            0);
  ASSERT_EQ(count_, 1u);
  EXPECT_NE(defaultRM, firstManager);
  EXPECT_EQ(name(globalChassisInfo[0].resourceName),
            "USB0::0x1AB1::0x0002::SN9::INSTR");
  EXPECT_EQ(globalChassisInfo[0].modelTypeCode, 1082);
  EXPECT_TRUE(listEntryUntouched(1));
  // Records past the new count keep what they had, and stay reachable.
  EXPECT_EQ(std::memcmp(&globalChassisInfo[1], &before1, sizeof before1), 0);
  EXPECT_EQ(std::memcmp(&globalChassisInfo[2], &before2, sizeof before2), 0);
  EXPECT_EQ(FindChassis(static_cast<int32_t>(before2.session), nullptr), 2);
}

TEST_F(DiscoveryTest, EmptyBenchFindsNothing) {
  EXPECT_EQ(discover({}), 0);
  EXPECT_EQ(count_, 0u);
  EXPECT_TRUE(listEntryUntouched(0));
  EXPECT_EQ(QBVISA_FindRsrc(nullptr, &count_), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_FindRsrc(list_, nullptr), QBVISA_ERR_PARAMETER);
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
      for (SlotArea &slot : record.slots) {
        std::memset(slot.cardPresent, 0x11, sizeof slot.cardPresent);
        std::memset(slot.subMatrixGroup, 0x11, sizeof slot.subMatrixGroup);
        std::memset(slot.ltIsolationState, 0x11, sizeof slot.ltIsolationState);
        std::memset(slot.lastArray, 0x11, sizeof slot.lastArray);
      }
      std::strcpy(record.scpiReply, "stale");
    }
  }

  static bool slotsReset(const ChassisRecord &record) {
    for (const SlotArea &slot : record.slots) {
      for (uint8_t b : slot.cardPresent)
        if (b != 0xFF) return false;
      for (int8_t g : slot.subMatrixGroup)
        if (g != -1) return false;
      for (uint8_t b : slot.ltIsolationState)
        if (b != 0xFF) return false;
      if (slot.lastArray[0] != 0x11) return false;  // not part of the reset
    }
    for (char c : record.scpiReply)
      if (c != '\0') return false;
    return record.connectedFlag == 1;
  }
};

TEST_F(ConnectTest, RunsDiscoveryOnceAndResetsTheSlotsOnce) {
  uint32_t session = 0;
  ASSERT_EQ(QBVISA_Connect(kSecond, &session), 0);
  EXPECT_EQ(first_findrsc, 0);
  EXPECT_EQ(session, globalChassisInfo[1].session);
  EXPECT_NE(session, 0u);
  EXPECT_STREQ(tmp[0].resourceName, kFirst);
  EXPECT_EQ(tmp[0].typeCode, 1050);
  EXPECT_STREQ(tmp[1].resourceName, kSecond);
  EXPECT_EQ(tmp[1].typeCode, 1066);
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

TEST_F(ConnectTest, ReportsNamesNotInTheRegistry) {
  const char *names[] = {"GPIB0::7::INSTR", "gpib0::5::instr",
                         "GPIB0::5::INSTR ", "GPIB0::5", ""};
  for (const char *wanted : names) {
    uint32_t session = 99;
    EXPECT_EQ(QBVISA_Connect(wanted, &session),
              QBVISA_ERR_RESOURCE_NOT_PRESENT)
        << '"' << wanted << '"';
    EXPECT_EQ(session, 99u);
  }
  uint32_t session = 0;
  EXPECT_EQ(QBVISA_Connect(nullptr, &session), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_Connect(kFirst, nullptr), QBVISA_ERR_PARAMETER);
}

TEST_F(ConnectTest, PassesOnTheDiscoveryError) {
  qbsim::setBench(qbsim::Bench{{chassis(kFirst, Model::RK420, [](auto &c) {
    c.idnModel = "RK499";
  })}});
  uint32_t session = 0;
  EXPECT_EQ(QBVISA_Connect(kFirst, &session), QBVISA_ERR_NOT_SUPPORTED);
  EXPECT_EQ(first_findrsc, 1);
}

TEST_F(ConnectTest, ReleasesTheSettingsLockEveryCall) {
  ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
  uint32_t session = 0;
  ASSERT_EQ(QBVISA_Connect(kFirst, &session), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
}

TEST_F(DiscoveryTest, LooksUpRecordsZeroToFourBySession) {
  ASSERT_EQ(discover({chassis("GPIB0::1::INSTR", Model::RK420),
                      chassis("GPIB0::2::INSTR", Model::RK421)}),
            0);
  const auto first = static_cast<int32_t>(globalChassisInfo[0].session);
  const auto second = static_cast<int32_t>(globalChassisInfo[1].session);
  globalChassisInfo[5].session = 4242;  // beyond the usable records
  const struct {
    int32_t session;
    int32_t index;
  } cases[] = {
      {first, 0}, {second, 1}, {0, QBVISA_ERR_HANDLE},
      {4242, QBVISA_ERR_HANDLE}, {-1, QBVISA_ERR_HANDLE},
  };
  for (const auto &c : cases) {
    ChassisRecord *record = nullptr;
    EXPECT_EQ(FindChassis(c.session, &record), c.index) << c.session;
    if (c.index >= 0) {
      EXPECT_EQ(record, &globalChassisInfo[c.index]);
    } else {
      EXPECT_EQ(record, nullptr);
    }
  }
  // Session 0 never matches, even though records 2..4 are idle.
  EXPECT_EQ(FindIdleChassis(), 2);
}

}  // namespace
