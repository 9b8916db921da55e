// The simulated bench under several threads (run again under ThreadSanitizer).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "qbsim.hpp"
#include "visa_api.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Target {
  std::string name;
  int boards;
  int groups;
  uint32_t baud;  // 0: not a serial line
};

const Target kChassis[] = {
    {"GPIB0::5::INSTR", 5, 12, 0},
    {"USB0::0x1A2B::0x0421::RK421001::INSTR", 4, 13, 0},
    {"TCPIP0::192.168.1.22::inst0::INSTR", 21, 49, 0},
    {"ASRL1::INSTR", 1, 10, 19200},
};

Bytes relayFrame(const Target &t, uint16_t pattern) {
  const size_t words = static_cast<size_t>(t.boards * t.groups);
  Bytes out = {19, 0, static_cast<uint8_t>(words * 2), static_cast<uint8_t>(words * 2 >> 8)};
  for (size_t i = 0; i < words; ++i) {
    const uint16_t w = i == 0 ? pattern : 0;
    out.push_back(static_cast<uint8_t>(w));
    out.push_back(static_cast<uint8_t>(w >> 8));
  }
  return out;
}

// Write then read; returns the reply, empty on any failure.
Bytes transact(ViSession vi, const Bytes &request) {
  ViUInt32 count = 0;
  if (viWrite(vi, request.data(), static_cast<ViUInt32>(request.size()), &count) != VI_SUCCESS)
    return {};
  Bytes reply(400);
  if (viRead(vi, reply.data(), 400, &count) != VI_SUCCESS) return {};
  reply.resize(count);
  return reply;
}

TEST(BenchThreads, ChassisSwitchInParallelWithoutMixingReplies) {
  qbsim::setBench(qbsim::defaultBench());
  ViSession rm = VI_NULL;
  ASSERT_EQ(viOpenDefaultRM(&rm), VI_SUCCESS);
  constexpr int kRounds = 200;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  // Two sessions per chassis, each in its own thread, asking different things.
  for (const Target &t : kChassis) {
    for (int role = 0; role < 2; ++role) {
      threads.emplace_back([&, role] {
        ViSession vi = VI_NULL;
        if (viOpen(rm, t.name.c_str(), 0, 0, &vi) != VI_SUCCESS) return void(++failures);
        if (t.baud != 0 && viSetAttribute(vi, VI_ATTR_ASRL_BAUD, t.baud) != VI_SUCCESS) ++failures;
        for (int i = 0; i < kRounds; ++i) {
          const Bytes reply = role == 0 ? transact(vi, relayFrame(t, static_cast<uint16_t>(i | 1)))
                                        : transact(vi, Bytes{22, 0, 0, 0});
          if (reply.size() < 2 || reply[0] != (role == 0 ? 19 : 22)) ++failures;
        }
        // The last frame of this thread leaves bit group groups-1 of board 0 set.
        if (role == 0) transact(vi, relayFrame(t, 0x8000));
        viClose(vi);
      });
    }
  }
  // Meanwhile the control side reads state and traffic.
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i)
      for (const Target &t : kChassis) {
        qbsim::closedRelays(t.name);
        qbsim::traffic(t.name);
        qbsim::chassisState(t.name);
      }
  });
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  for (const Target &t : kChassis)
    EXPECT_EQ(qbsim::closedRelays(t.name), (std::vector<qbsim::Relay>{{0, t.groups - 1, 15}})) << t.name;
  viClose(rm);
}

TEST(BenchThreads, SessionsOpenAndCloseWhileOthersTalk) {
  qbsim::setBench(qbsim::defaultBench());
  ViSession rm = VI_NULL;
  ASSERT_EQ(viOpenDefaultRM(&rm), VI_SUCCESS);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        ViFindList list = VI_NULL;
        ViUInt32 count = 0;
        char desc[VI_FIND_BUFLEN];
        if (viFindRsrc(rm, "(GPIB|USB|ASRL|TCPIP)?*INSTR", &list, &count, desc) != VI_SUCCESS ||
            count != 5)
          ++failures;
        viClose(list);
        ViSession vi = VI_NULL;
        if (viOpen(rm, desc, 0, 0, &vi) != VI_SUCCESS) ++failures;
        const Bytes idn = transact(vi, Bytes{'*', 'I', 'D', 'N', '?', '\n'});
        if (std::string(idn.begin(), idn.end()) != "QB ,RK420 ,20420001 ,3.06\n") ++failures;
        if (viClose(vi) != VI_SUCCESS) ++failures;
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  viClose(rm);
}

}  // namespace
