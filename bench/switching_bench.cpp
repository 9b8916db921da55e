// Cost of one QBVISA_OpMatrix call on the simulated RK420 and RK422: the
// library's work (relay image, packing, closure count) plus one exchange
// with the simulated chassis.
//
//   switching_bench                 Google Benchmark run
//   switching_bench --calls=N [--chassis=RK420|RK422]
//                   [--pattern=every13|all|empty]
//                                   N plain calls per chassis (or on the
//                                   one named) and nothing else, for
//                                   instruction counts under
//                                   valgrind --tool=callgrind; the pattern
//                                   closes every 13th point (default),
//                                   every point, or none (all words zero)
//   switching_bench --calls=N --text=LINE [--chassis=...]
//                                   N text commands LINE (e.g.
//                                   ":CLOSe (@0(1!1:12!48))") instead
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qbsim.hpp"
#include "qbvisa_lowlevel.h"

namespace {

struct Chassis {
  const char *model;
  std::string resource;
  uint32_t session = 0;
  std::vector<uint32_t> words;
};

// Every `step`th point (0: none). Every 13th: 46 points on the RK420 (well
// inside its closure limit), 2482 on the RK422 across all 21 boards; every
// point: the RK422 (no limit) with all its relays closed.
std::vector<uint32_t> pattern(uint32_t session, uint32_t step) {
  ChassisRecord *record = nullptr;
  FindChassis(static_cast<int32_t>(session), &record);
  const SlotArea &slot = record->slots[0];
  std::vector<uint32_t> words(slot.arrayWordLimit, 0);
  for (uint32_t p = 0; step != 0 && p < slot.pointCount; p += step)
    words[p / 32] |= 1u << (p % 32);
  return words;
}

uint32_t patternStep = 13;

// One RK420 and one RK422, opened and initialised.
std::vector<Chassis> &bench() {
  static std::vector<Chassis> chassis = [] {
    qbsim::Bench b;
    for (auto [name, model] : {std::pair{"GPIB0::5::INSTR", qbsim::Model::RK420},
                               std::pair{"TCPIP0::192.168.1.22::inst0::INSTR",
                                         qbsim::Model::RK422}}) {
      qbsim::Resource r;
      r.name = name;
      r.chassis.model = model;
      b.resources.push_back(r);
    }
    qbsim::setBench(b);
    QBVISA_ResourceEntry list[4] = {};
    uint32_t found = 0;
    if (QBVISA_FindRsrc(list, &found) != 0 || found != 2) std::abort();
    std::vector<Chassis> ready;
    for (const qbsim::Resource &r : b.resources) {
      Chassis c;
      c.model = qbsim::modelName(r.chassis.model);
      c.resource = r.name;
      uint64_t kind = 0;
      if (QBVISA_Connect(r.name.c_str(), &c.session) != 0 ||
          QBVISA_OpenSpecifiedCard(c.session, 0, &kind) != 0 ||
          QBVISA_Init(c.session, 0) != 0)
        std::abort();
      c.words = pattern(c.session, patternStep);
      ready.push_back(c);
    }
    return ready;
  }();
  return chassis;
}

void switchPattern(benchmark::State &state, size_t which) {
  Chassis &c = bench()[which];
  for (auto _ : state) {
    const int32_t status = QBVISA_OpMatrix(c.session, 0, c.words.data(),
                                           static_cast<uint32_t>(c.words.size()));
    if (status != 0) state.SkipWithError("OpMatrix failed");
    benchmark::DoNotOptimize(status);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_OpMatrix_RK420(benchmark::State &state) { switchPattern(state, 0); }
void BM_OpMatrix_RK422(benchmark::State &state) { switchPattern(state, 1); }
BENCHMARK(BM_OpMatrix_RK420);
BENCHMARK(BM_OpMatrix_RK422);

int runCalls(long calls, const char *only, const char *text) {
  for (Chassis &c : bench()) {
    if (only != nullptr && std::strcmp(only, c.model) != 0) continue;
    for (long i = 0; i < calls; ++i) {
      if (text != nullptr) {
        if (QBVISA_SCPIWrite(c.session, text) != 0) return 1;
        continue;
      }
      if (QBVISA_OpMatrix(c.session, 0, c.words.data(),
                          static_cast<uint32_t>(c.words.size())) != 0)
        return 1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  long calls = -1;
  const char *only = nullptr;
  const char *text = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--calls=", 8) == 0)
      calls = std::strtol(argv[i] + 8, nullptr, 10);
    else if (std::strncmp(argv[i], "--chassis=", 10) == 0)
      only = argv[i] + 10;
    else if (std::strncmp(argv[i], "--text=", 7) == 0)
      text = argv[i] + 7;
    else if (std::strcmp(argv[i], "--pattern=all") == 0)
      patternStep = 1;
    else if (std::strcmp(argv[i], "--pattern=empty") == 0)
      patternStep = 0;
  }
  if (calls >= 0) return runCalls(calls, only, text);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
