// Fuzz target for bench files: any text either is refused with
// std::runtime_error or reads as a bench that writes back to the same text it
// was read from again, and on which discovery, opening every slot, clearing
// and the version query run to the end whatever the chassis it describes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "qbsim.hpp"
#include "qbvisa.h"

namespace {
void require(bool ok, const char *what) {
  if (!ok) std::fprintf(stderr, "bench fuzz: %s\n", what), std::abort();
}
// Benches larger than this take long to discover and add nothing new.
constexpr size_t kMostResourcesDiscovered = 8;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  qbsim::Bench bench;
  try {
    bench = qbsim::parseBench(std::string(reinterpret_cast<const char *>(data), size));
  } catch (const std::runtime_error &) {
    return 0;  // refused, as it should be; anything else thrown aborts
  }
  const std::string written = qbsim::benchToJson(bench);
  require(qbsim::benchToJson(qbsim::parseBench(written)) == written, "bench does not read back as written");
  if (bench.resources.size() > kMostResourcesDiscovered) return 0;

  qbsim::setBench(bench);
  QBVISA_ResourceEntry list[kMostResourcesDiscovered];
  uint32_t found = 0;
  if (QBVISA_FindRsrc(list, &found) < 0) found = 0;
  for (uint32_t i = 0; i < found && i < 5; ++i) {
    char name[65] = {};
    std::snprintf(name, sizeof name, "%.64s", list[i].resourceName);
    uint32_t session = 0;
    if (QBVISA_Connect(name, &session) != 0) continue;
    for (uint64_t slot = 0; slot < 3; ++slot) QBVISA_OpenSpecifiedCard(session, slot, nullptr);
    QBVISA_Clear(session, 0);
    char versions[22 * 10 + 1];
    versions[220] = '\x5A';
    QBVISA_GetSWVersion(session, versions, 22);
    require(versions[220] == '\x5A', "version list overrun");
  }
  // The bench's instruments and sessions go with the input, so that the
  // leak check sees every input free what it took.
  qbsim::setBench(qbsim::Bench{});
  return 0;
}
