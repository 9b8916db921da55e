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

// Write then read; the reply, empty on any failure.
Bytes transact(ViSession vi, const Bytes &request) {
  ViUInt32 count = 0;
  Bytes reply(400);
  if (viWrite(vi, request.data(), static_cast<ViUInt32>(request.size()), &count) != VI_SUCCESS ||
      viRead(vi, reply.data(), 400, &count) != VI_SUCCESS)
    return {};
  reply.resize(count);
  return reply;
}

// Per chassis one thread switches relays and one asks for the GPIB address on
// a session of its own; others find, open and close sessions meanwhile, and
// the control side reads state. No reply may go to the wrong session.
TEST(BenchThreads, SessionsSwitchOpenAndCloseInParallelWithoutMixingReplies) {
  qbsim::setBench(qbsim::defaultBench());
  ViSession rm = VI_NULL;
  ASSERT_EQ(viOpenDefaultRM(&rm), VI_SUCCESS);
  const struct { std::string name; int words; uint32_t baud; } chassis[] = {
      {"GPIB0::5::INSTR", 5 * 12, 0}, {"TCPIP0::192.168.1.22::inst0::INSTR", 21 * 49, 0},
      {"ASRL1::INSTR", 10, 19200}};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (const auto &t : chassis)
    for (int role = 0; role < 2; ++role)
      threads.emplace_back([&, role] {
        ViSession vi = VI_NULL;
        if (viOpen(rm, t.name.c_str(), 0, 0, &vi) != VI_SUCCESS) return void(++failures);
        if (t.baud != 0 && viSetAttribute(vi, VI_ATTR_ASRL_BAUD, t.baud) != VI_SUCCESS) ++failures;
        Bytes relays = {19, 0, static_cast<uint8_t>(t.words * 2), static_cast<uint8_t>(t.words * 2 >> 8)};
        relays.resize(4 + 2 * t.words, 0);
        for (int i = 0; i < 150; ++i) {
          relays[4] = static_cast<uint8_t>(i | 1);  // bit 0 of board 0's first word at least
          const Bytes reply = transact(vi, role == 0 ? relays : Bytes{22, 0, 0, 0});
          if (reply.size() < 2 || reply[0] != (role == 0 ? 19 : 22)) ++failures;
        }
        viClose(vi);
      });
  for (int n = 0; n < 2; ++n)
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        ViFindList list = VI_NULL;
        ViUInt32 count = 0;
        char desc[VI_FIND_BUFLEN];
        ViSession vi = VI_NULL;
        if (viFindRsrc(rm, "GPIB?*INSTR", &list, &count, desc) != VI_SUCCESS || count != 2) ++failures;
        viClose(list);
        if (viOpen(rm, desc, 0, 0, &vi) != VI_SUCCESS) ++failures;
        const Bytes idn = transact(vi, Bytes{'*', 'I', 'D', 'N', '?', '\n'});
        if (std::string(idn.begin(), idn.end()) != "QB ,RK420 ,20420001 ,3.06\n") ++failures;
        if (viClose(vi) != VI_SUCCESS) ++failures;
        for (const auto &t : chassis) qbsim::closedRelays(t.name), qbsim::traffic(t.name);
      }
    });
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  // The last frame of each chassis had 149 in the first word: word 0 is group groups-1.
  for (const auto &t : chassis) EXPECT_EQ(qbsim::closedRelays(t.name).size(), 4u) << t.name;
  viClose(rm);
}

}  // namespace
