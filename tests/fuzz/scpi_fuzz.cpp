// Fuzz target for the text-command path: the line matcher, the crosspoint
// list parser and a whole query and write on simulated chassis. Built as a libFuzzer
// program (clang) or, with replay_main.cpp, as a program that replays the
// committed corpus in the ordinary test run.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qbsim.hpp"
#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

namespace {

constexpr const char *kMatrixChassis = "GPIB0::5::INSTR";  // RK421
constexpr const char *kOtherChassis = "GPIB0::7::INSTR";   // RK420
constexpr size_t kReplySize = 400;

uint32_t matrixSession = 0, otherSession = 0;

qbsim::Resource chassis(const char *name, qbsim::Model model) {
  qbsim::Resource resource;
  resource.name = name, resource.chassis.model = model;
  return resource;
}

void require(bool ok, const char *what) {
  if (!ok) std::fprintf(stderr, "scpi fuzz set-up failed: %s\n", what), std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  qbsim::setBench(qbsim::Bench{{chassis(kMatrixChassis, qbsim::Model::RK421),
                                chassis(kOtherChassis, qbsim::Model::RK420)}});
  require(QBVISA_Connect(kMatrixChassis, &matrixSession) == 0, "connect RK421");
  require(QBVISA_Connect(kOtherChassis, &otherSession) == 0, "connect RK420");
  uint64_t kind = 0;
  for (uint32_t session : {matrixSession, otherSession}) {
    require(QBVISA_OpenSpecifiedCard(session, 0, &kind) == 0, "open slot 0");
    require(QBVISA_Init(session, 0) == 0, "initialise slot 0");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string line(reinterpret_cast<const char *>(data), size);

  char message[64] = {};
  char argument[QBVISA_SCPI_ARGUMENT_SIZE] = {};
  uint32_t id = 0;
  scpi_parser(0, line.c_str(), message, argument, &id);
  require(id <= 22, "command id out of range");
  require(std::memchr(argument, '\0', sizeof argument) != nullptr, "argument not terminated");

  char parseMessage[256] = {};
  SCPIResult list = parseSCPICrossPoint(line.c_str(), parseMessage);
  require(list.count >= 0 && (list.count == 0 || list.points != nullptr), "point array inconsistent");
  for (int32_t i = 0; i < list.count; ++i)
    require(list.points[i].row >= 1 && list.points[i].column >= 1, "point outside the matrix");
  freeSCPIResult(&list);

  // The LAN-mode setter waits 6 s for a chassis that takes the new mode;
  // the RK420 refuses it at once, which still exercises the argument check.
  const uint32_t session = id == 7 ? otherSession : matrixSession;
  char reply[kReplySize + 8];
  std::memset(reply, 0xA5, sizeof reply);
  QBVISA_SCPIQuery(session, line.c_str(), reply);
  require(std::memchr(reply, '\0', kReplySize) != nullptr, "reply not terminated");
  for (size_t i = kReplySize; i < sizeof reply; ++i)
    require(static_cast<uint8_t>(reply[i]) == 0xA5, "reply overran its buffer");
  // The same line as a write: its reply stays inside the chassis record.
  QBVISA_SCPIWrite(session, line.c_str());
  ChassisRecord *record = nullptr;
  require(FindChassis(static_cast<int32_t>(session), &record) >= 0 &&
              std::memchr(record->scpiReply, '\0', sizeof record->scpiReply) != nullptr,
          "stored reply not terminated");
  qbsim::clearTraffic(kMatrixChassis);
  qbsim::clearTraffic(kOtherChassis);
  return 0;
}
