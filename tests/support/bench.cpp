#include "bench.hpp"

namespace qbtest {

qbsim::ChassisConfig chassisConfig(qbsim::Model model, uint8_t major, uint8_t minor) {
  qbsim::ChassisConfig config;
  config.model = model;
  config.firmware = {{major, minor}};
  return config;
}

std::vector<Connection> connectResources(const std::vector<qbsim::Resource> &resources) {
  qbsim::setBench(qbsim::Bench{resources});
  QBVISA_ResourceEntry list[8] = {};
  uint32_t found = 0;
  EXPECT_EQ(QBVISA_FindRsrc(list, &found), 0);
  std::vector<Connection> connections;
  for (const qbsim::Resource &resource : resources) {
    Connection c{resource.name};
    EXPECT_EQ(QBVISA_Connect(c.resource.c_str(), &c.session), 0) << c.resource;
    EXPECT_GE(FindChassis(static_cast<int32_t>(c.session), &c.record), 0);
    qbsim::clearTraffic(c.resource);
    connections.push_back(c);
  }
  return connections;
}

std::vector<Connection> connectBench(const std::vector<qbsim::ChassisConfig> &chassis) {
  std::vector<qbsim::Resource> resources;
  for (size_t n = 0; n < chassis.size(); ++n)
    resources.push_back({"TCPIP0::192.168.1." + std::to_string(20 + n) + "::inst0::INSTR",
                         qbsim::ResourceKind::Chassis, chassis[n], {}});
  return connectResources(resources);
}

Connection connectChassis(const qbsim::ChassisConfig &config) { return connectBench({config}).front(); }

Connection readyChassis(const qbsim::ChassisConfig &config) {
  Connection c = connectChassis(config);
  uint64_t kind = 99;
  EXPECT_EQ(QBVISA_OpenSpecifiedCard(c.session, 0, &kind), 0);
  EXPECT_EQ(QBVISA_Init(c.session, 0), 0);
  qbsim::clearTraffic(c.resource);
  return c;
}

std::vector<uint32_t> wordsFor(const SlotArea &slot, const std::vector<uint32_t> &points) {
  std::vector<uint32_t> words(slot.arrayWordLimit, 0);
  for (uint32_t p : points)
    if (p / 32 < words.size()) words[p / 32] |= 1u << (p % 32);
  return words;
}

}  // namespace qbtest
