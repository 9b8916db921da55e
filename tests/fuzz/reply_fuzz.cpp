// Fuzz target for everything that comes back from a chassis: identity
// answers and the serial rate search of discovery, presence masks, versions,
// identity and serial numbers, settings, diagnostics and update replies, and
// the VISA statuses and counts that come with them.
//
// The VISA calls are defined here, so they take the place of libvisa.so's
// for libQBVISA.so.1: a scripted VISA that answers from the fuzz input.
// Input: byte 0 picks the chassis model; then, until the input runs out, a
// call byte picks the next library call, whose arguments and every VISA
// answer it meets are read from the following bytes:
//   read:   status byte (bits 0-2: VI_SUCCESS, VI_SUCCESS_TERM_CHAR,
//           VI_SUCCESS_MAX_CNT, VI_SUCCESS, VI_ERROR_TMO, VI_ERROR_IO,
//           VI_ERROR_CONN_LOST, VI_SUCCESS; bit 7: the count reported differs
//           from the bytes delivered, and a u16 count follows), u16 length,
//           then the reply bytes;
//   write, viOpen, viSetAttribute, viOpenDefaultRM: fail when the next byte
//           is FE, FC, FD or FB respectively (that byte is then consumed);
//   viFindRsrc: a byte for the resource count, and one per resource name.
// Once the input is used up every read times out, as a silent chassis does.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "core/visa_api.h"
#include "qbvisa.h"
#include "qbvisa_ext.h"
#include "qbvisa_lowlevel.h"

namespace {

void require(bool ok, const char *what) {
  if (!ok) std::fprintf(stderr, "reply fuzz: %s\n", what), std::abort();
}

struct Script {
  const uint8_t *data = nullptr;
  size_t size = 0, at = 0;
  bool done() const { return at >= size; }
  uint8_t byte() { return done() ? 0 : data[at++]; }
  uint16_t word() { return static_cast<uint16_t>(byte() | byte() << 8); }
  // Consumes the next byte only when it is `marker`.
  bool marked(uint8_t marker) { return !done() && data[at] == marker && ++at != 0; }
} script;

// Discovery during set-up gets a chassis of the chosen model from these.
bool canned = false;
const char *cannedIdentity = "";
unsigned reads = 0;
ViSession nextSession = 100;

constexpr const char *kIdentities[] = {"QB ,RK420 ,1 ,1.0\n",  "QB ,RK420B ,1 ,1.0\n",
                                       "QB ,RK421 ,1 ,1.0\n",  "Quelbrink ,043A ,1 ,1.0\n",
                                       "QB ,RK423 ,1 ,1.0\n",  "QB ,044B ,1 ,1.0\n"};
constexpr const char *kResources[] = {
    "GPIB0::5::INSTR", "ASRL1::INSTR", "USB0::0x1A2B::0x0421::RK421001::INSTR", "TCPIP0::10.0.0.2::inst0::INSTR",
    "ASRL2::INSTR",    "GPIB0::9::INSTR",
    "TCPIP0::a-resource-name-longer-than-the-record-holds-without-its-end::inst0::INSTR"};
constexpr ViStatus kReadStatuses[] = {VI_SUCCESS,   VI_SUCCESS_TERM_CHAR, VI_SUCCESS_MAX_CNT, VI_SUCCESS,
                                      VI_ERROR_TMO, VI_ERROR_IO, VI_ERROR_CONN_LOST, VI_SUCCESS};
constexpr uint16_t kRelayStateCommand = 19;
unsigned foundLeft = 0;

void nameResource(ViChar desc[]) {
  const char *name = canned ? kResources[0] : kResources[script.byte() % std::size(kResources)];
  std::snprintf(desc, VI_FIND_BUFLEN, "%s", name);
}
ViStatus fresh(ViSession *vi) {
  *vi = nextSession++;
  return VI_SUCCESS;
}

}  // namespace

extern "C" {

ViStatus viOpenDefaultRM(ViSession *vi) { return !canned && script.marked(0xFB) ? VI_ERROR_SYSTEM_ERROR : fresh(vi); }

ViStatus viFindRsrc(ViSession, const char *, ViFindList *vi, ViUInt32 *retCnt, ViChar desc[]) {
  const unsigned count = canned ? 1 : script.byte() % 8;
  if (count == 0) return VI_ERROR_RSRC_NFOUND;
  *retCnt = count;
  foundLeft = count - 1;
  nameResource(desc);
  return fresh(vi);
}

ViStatus viFindNext(ViFindList, ViChar desc[]) {
  if (foundLeft == 0) return VI_ERROR_RSRC_NFOUND;
  --foundLeft;
  nameResource(desc);
  return VI_SUCCESS;
}

ViStatus viOpen(ViSession, const char *, ViAccessMode, ViUInt32, ViSession *vi) {
  return !canned && script.marked(0xFC) ? VI_ERROR_RSRC_NFOUND : fresh(vi);
}

ViStatus viClose(ViObject) { return VI_SUCCESS; }

ViStatus viWrite(ViSession vi, const ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  require(vi != 0 && buf != nullptr && cnt > 0, "write without session or bytes");
  *retCnt = 0;
  // A failed relay-frame write keeps the exchange lock taken by design (the
  // next one would wait for ever), so those writes always go out.
  const bool relayFrame = cnt >= 2 && (buf[0] | buf[1] << 8) == kRelayStateCommand;
  if (!canned && !relayFrame && script.marked(0xFE)) return VI_ERROR_IO;
  *retCnt = cnt;
  return VI_SUCCESS;
}

ViStatus viRead(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  require(vi != 0 && buf != nullptr, "read without session or buffer");
  ++reads;
  *retCnt = 0;
  if (canned) {
    *retCnt = static_cast<ViUInt32>(std::strlen(cannedIdentity));
    std::memcpy(buf, cannedIdentity, *retCnt);
    return VI_SUCCESS;
  }
  if (script.done()) return VI_ERROR_TMO;
  const uint8_t head = script.byte();
  const ViUInt32 length = script.word() % (cnt + 1);
  ViUInt32 delivered = 0;
  while (delivered < length && !script.done()) buf[delivered++] = script.byte();
  *retCnt = (head & 0x80) != 0 ? script.word() % (cnt + 1) : delivered;
  return kReadStatuses[head & 7];
}

ViStatus viSetAttribute(ViObject, ViAttr, ViAttrState) {
  return !canned && script.marked(0xFD) ? VI_ERROR_NSUP_ATTR_STATE : VI_SUCCESS;
}

ViStatus viFlush(ViSession, ViUInt16) { return VI_SUCCESS; }

// The chassis's waits (6 s after a LAN mode change) are not waited for.
unsigned int sleep(unsigned int) { return 0; }

}  // extern "C"

namespace {

char updatePath[64] = "/tmp/qbvisa-reply-fuzz-XXXXXX";
uint32_t session = 0;

// A caller's buffer with a guard area behind the `N` bytes a call may use.
template <size_t N>
struct Guarded {
  char bytes[N + 16];
  Guarded() { std::memset(bytes, 0xA5, sizeof bytes); }
  void check() const {
    for (size_t i = N; i < sizeof bytes; ++i) require(static_cast<uint8_t>(bytes[i]) == 0xA5, "buffer overrun");
  }
};
template <size_t N, typename Call>
void guarded(Call call) {
  Guarded<N> buffer;
  call(buffer.bytes);
  buffer.check();
}

constexpr const char *kQueries[] = {
    "*IDN?", ":SYSTem:VERSion?", ":SYSTem:MODule?", ":SYSTem:MANF?", ":SYSemT:COMMunication:LAN:IP:ADDRess?",
    ":SYSemT:COMMunication:LAN:MODE?", ":SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?", ":SYSTem:COMMunicate:RS232:BAUD?",
    ":SYSTem:ConTRoL:MODE?", ":SYSTem:ConTRoL:SET: REMOTE", ":DIAGnostic:TEST:CARD:BIP?",
    ":DIAGnostic:TEST:CARD:SPILOOP?", ":DIAGnostic:TEST:CARD:STATe?", "*RST>", ":CLOSe (@1(1!1,2!3))", ":OPEN:ALL",
};

void runCall(uint8_t call) {
  const uint64_t slot = script.byte() % 4;
  switch (call % 30) {
    case 0: QBVISA_OpenSpecifiedCard(session, slot, nullptr); break;
    case 1: QBVISA_Init(session, slot); break;
    case 2: QBVISABoardInPlaceHDW(session, slot); break;
    case 3: {
      static uint32_t words[1100];
      const uint32_t pattern = script.word() * 0x9E3779B1u;
      for (size_t i = 0; i < std::size(words); ++i) words[i] = (i * 7 + pattern) % 13 == 0 ? pattern >> (i % 24) : 0;
      QBVISA_OpMatrix(session, slot & 1, words, static_cast<uint32_t>(std::size(words)));
      break;
    }
    case 4: guarded<220>([](char *list) { QBVISA_GetSWVersion(session, list, 22); }); break;
    case 5: guarded<220>([](char *list) { QBVISA_GetHWVersion(session, list, 22); }); break;
    case 6: {
      Guarded<10> texts[4];
      for (auto &t : texts) std::memset(t.bytes, 'x', 10), t.bytes[9] = '\0';
      QBVISA_GetDeviceInfo(session, texts[0].bytes, texts[1].bytes, texts[2].bytes, texts[3].bytes, slot * 3);
      for (auto &t : texts) t.check();
      break;
    }
    case 7: {
      uint32_t list[31];
      list[30] = 0xA5A5A5A5u;
      QBVISA_GetSN(session, list, slot * 10);
      return require(list[30] == 0xA5A5A5A5u, "serial list overrun");
    }
    case 8: QBVISA_SetSN(session, "12345678", "3"); break;
    case 9: QBVISA_SetCardSN(session, "87654321", "2", static_cast<int32_t>(slot) + 1); break;
    case 10: guarded<10>([slot](char *name) { QBVISA_GetCardType(session, static_cast<uint32_t>(slot), name); }); break;
    case 11: guarded<16>([](char *ip) { QBVISA_GetCOMMIPAddr(session, ip); }); break;
    case 12: case 13: case 14: case 15: {
      static int32_t (*const getters[])(uint32_t, uint32_t *) = {QBVISA_GetGPIBAddress, QBVISA_GetBaudRate,
                                                                QBVISA_GetLANMode, QBVISA_GetControlMode};
      uint32_t value = 0;
      getters[call % 30 - 12](session, &value);
      break;
    }
    case 16: QBVISA_SetIPAddress(session, "192.168.1.23"); break;
    case 17: QBVISA_SetGPIBAddress(session, static_cast<uint32_t>(slot) + 1); break;
    case 18: QBVISA_SetBaudRate(session, slot == 0 ? 9600 : 115200); break;
    case 19: QBVISA_SetLANMode(session, slot & 1); break;
    case 20: QBVISA_SetControlMode(session, slot & 1); break;
    case 21: QBVISA_Clear(session, slot); break;
    case 22: guarded<40>([slot](char *text) { QBVISA_SelfTest(session, slot, text, 40); }); break;
    case 23: QBVISA_BoardInPlace(session, slot); break;
    case 24: case 25: {
      int32_t values[5] = {0, 0, 0, 0, 0x5A5A5A5A};
      uint32_t count = 0;
      call % 30 == 24 ? QBVISA_BoardInPlaceInfo(session, values, &count)
                      : QBVISA_SPILoopTestInfo(session, slot, values, &count);
      return require(values[4] == 0x5A5A5A5A, "flag list overrun");
    }
    case 26: QBVISA_OnlineUpdate(session, updatePath); break;
    case 27:
      return guarded<400>([](char *reply) {
        QBVISA_SCPIQuery(session, kQueries[script.byte() % std::size(kQueries)], reply);
        require(std::memchr(reply, '\0', 400) != nullptr, "reply not terminated");
      });
    case 28: {
      QBVISA_ResourceEntry list[8];
      uint32_t count = 0;
      QBVISA_FindRsrc(list, &count);
      return require(count <= QBVISA_USABLE_RECORDS, "more chassis registered than can be reached");
    }
    default: {  // the record as the calls above left it, read back
      QBVISA_SlotInfo info;
      QBVISA_GetSlotInfo(session, slot, &info);
      char name[8];
      QBVISA_GetModelName(session, name, sizeof name);
      uint32_t again = 0;
      if (QBVISA_Connect(kResources[slot], &again) == 0) session = again;
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const int fd = mkstemp(updatePath);
  require(fd >= 0, "cannot create the update file");
  uint8_t image[2500];
  for (size_t i = 0; i < sizeof image; ++i) image[i] = static_cast<uint8_t>(i * 31);
  require(write(fd, image, sizeof image) == static_cast<ssize_t>(sizeof image), "cannot write the update file");
  close(fd);
  std::atexit([] { unlink(updatePath); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Every input starts from a registry with one chassis of its model.
  std::memset(globalChassisInfo, 0, sizeof globalChassisInfo);
  first_findrsc = 1;
  defaultRM = 0;
  script = Script{data, size, 0};
  canned = true;
  cannedIdentity = kIdentities[script.byte() % std::size(kIdentities)];
  const unsigned readsBefore = reads;
  session = 0;
  require(QBVISA_Connect(kResources[0], &session) == 0, "set-up discovery failed");
  // Proof that the library's VISA calls reach the definitions above and not
  // the simulated bench.
  require(reads > readsBefore, "VISA calls not interposed");
  canned = false;
  while (!script.done()) runCall(script.byte());
  return 0;
}
