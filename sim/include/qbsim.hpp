// qbsim.hpp - control API of the simulated VISA bench (libvisa.so built from
// sim/). Tests and tools link the same libvisa.so that libQBVISA.so.1 calls,
// build a bench in code (or load one from a JSON bench file), then read each
// chassis's state and byte-exact traffic and inject faults.
//
// The chassis are firmware models of the wire protocol: they decode request
// frames (u16 command, u16 length, payload; little-endian) and answer as the
// real controllers do. They never call libQBVISA.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qbsim {

enum class Model : uint16_t {
  RK420 = 1050,
  RK420B = 1051,
  RK421 = 1066,
  RK422 = 1082,
  RK423 = 1098,
  RK423B = 1099,
};

const char *modelName(Model m);  // "RK420", ...
int slotCount(Model m);          // 6, 6, 4, 21, 1, 1

// Relay state decoded from relay-state frames (commands 19 and 67): a relay
// is (board, bit group, bit); bit group = 16-bit word index in image order.
struct Relay {
  int board;
  int group;
  int bit;
  bool operator==(const Relay &o) const {
    return board == o.board && group == o.group && bit == o.bit;
  }
  bool operator<(const Relay &o) const;
};

// A card position k (1..slotCount) in the identity reply (command 8).
struct CardIdentity {
  uint32_t serial = 0;      // 0 = no serial number set
  uint8_t hwVersion = 10;   // tens = major, units = minor
};

struct ChassisConfig {
  Model model = Model::RK420;
  std::string maker = "QB";       // first "*IDN?" field ("QB", "Quelbrink")
  std::string idnModel;           // model field; empty = modelName(model)
  std::string idnSerial = "0";    // third field
  std::string idnFirmware = "1.0";  // fourth field

  // Command 11 (version query): pairs answered from reply byte 2 on.
  // RK420/RK420B: the first pair is bytes 2/3; `versionInBytes45` answers the
  // newer form, which carries the version in bytes 4/5 and 0.0 in 2/3.
  std::vector<std::pair<uint8_t, uint8_t>> firmware = {{3, 6}};
  bool versionInBytes45 = false;
  std::pair<uint8_t, uint8_t> secondFirmware = {1, 2};  // command 49 (RK421)

  // Command 8 (identity query).
  uint32_t serial = 12345678;     // chassis serial number
  uint8_t hwVersion = 31;
  std::array<char, 2> idChars = {'A', '1'};
  uint16_t typeCode = 0;          // type code in the identity reply (it also
                                  // names the slot-2 card); 0 = the model's code
  std::vector<CardIdentity> cards;  // positions 1..slotCount; missing = {}

  // Presence: command 10 answers this 24-bit mask in bytes 2..4. Bit s
  // (s < sub-matrix count) = sub-matrix s of the main matrix is fitted; on an
  // RK420/RK420B bit 5 = a card in slot 1.
  uint32_t presenceMask = 0;      // 0 = all sub-matrices fitted (default)
  bool presenceMaskSet = false;   // true: use presenceMask as given
  uint8_t slot1CardType = 0;      // command 17 reply byte 2
  bool slot2Present = false;      // slot-2 presence query, reply byte 2 bit 0

  // Administration state.
  uint8_t controlMode = 1;        // 0 local, 1 remote (RK421)
  std::array<uint8_t, 4> ip = {192, 168, 1, 10};
  std::array<uint8_t, 4> gateway = {192, 168, 1, 1};
  uint8_t lanMode = 0;
  uint8_t gpibAddress = 5;
  uint32_t baudRate = 115200;     // also the rate an ASRL chassis answers at

  // Diagnostics (commands 80..82).
  std::array<uint8_t, 4> boardInPlace = {1, 1, 1, 1};
  std::array<uint8_t, 4> spiLoop = {1, 1, 1, 1};
  bool rejectUpdate = false;      // command 98 answers "rejected"

  // Relays closed when the chassis starts, and the bit groups per board of
  // the frame that closed them (0 = what the model's controller expects).
  // A rack server's state file carries them; chassisState() leaves them
  // empty (closedRelays() and groupsPerBoard() tell the live relays).
  std::vector<Relay> closedRelays;
  int groupsPerBoard = 0;
};

enum class ResourceKind { Chassis, Foreign, Silent };

struct Resource {
  std::string name;               // e.g. "GPIB0::5::INSTR", "ASRL1::INSTR"
  ResourceKind kind = ResourceKind::Chassis;
  ChassisConfig chassis;          // for Chassis
  std::string idn;                // for Foreign: the whole "*IDN?" answer
};

struct Bench {
  std::vector<Resource> resources;
};

struct TrafficEntry {
  bool write;                     // true: host -> instrument
  std::vector<uint8_t> bytes;
};

enum class Fault {
  WriteFails,     // next viWrite returns VI_ERROR_IO
  ReadFails,      // next viRead returns VI_ERROR_IO
  FailureReply,   // next reply begins FF FF FF FF
  ShortReply,     // next reply is 2 bytes long
  Timeout,        // next viRead returns VI_ERROR_TMO
  Vanish,         // instrument gone: every later call fails VI_ERROR_CONN_LOST
  // The next read that delivers a whole reply ends with this positive VISA
  // completion code instead of VI_SUCCESS (a success all the same).
  TermCharCompletion,  // VI_SUCCESS_TERM_CHAR
  MaxCountCompletion,  // VI_SUCCESS_MAX_CNT
};

// The bench every VISA call sees. Functions are thread-safe.
//
// Built-in bench (sim/benches/default.json holds the same): an RK420 on
// "GPIB0::5::INSTR" (firmware 3.06, card type 0 in slot 1, slot 2 fitted), an
// RK421 on "USB0::0x1A2B::0x0421::RK421001::INSTR", an RK422 on
// "TCPIP0::192.168.1.22::inst0::INSTR", an RK423 on "ASRL1::INSTR" at 19200
// baud and a foreign multimeter on "GPIB0::9::INSTR".
//
// Bench files are JSON:
//   {"version": 1,
//    "resources": [
//      {"name": "GPIB0::5::INSTR", "kind": "chassis",
//       "chassis": {"model": "RK420", "serial": 20420001, ...}},
//      {"name": "GPIB0::9::INSTR", "kind": "foreign", "idn": "Acme,DMM-7,1,1.0\n"},
//      {"name": "GPIB0::12::INSTR", "kind": "silent"}]}
// "kind" defaults to "chassis". Every chassis member is optional and named as
// in ChassisConfig; "model" is a model name or its type code, "idChars" a
// two-character text, "ip"/"gateway" dotted texts, "firmware" a list of
// [major, minor], "cards" a list of {"serial", "hwVersion"}; giving
// "presenceMask" sets presenceMaskSet. Unknown members and other versions are
// errors.
Bench defaultBench();
Bench loadBenchFile(const std::string &path);  // JSON bench file; throws
                                               // std::runtime_error
Bench parseBench(const std::string &document);  // same format; throws
std::string benchToJson(const Bench &bench);     // what loadBenchFile reads
void saveBenchFile(const Bench &bench, const std::string &path);
void setBench(const Bench &bench);  // replaces the bench, closes sessions
// Loads the file named by $QBSIM_BENCH (else the built-in bench) on first
// use; throws std::runtime_error when that file is bad. The reference stays
// valid until the next setBench.
const Bench &currentBench();

// State of a chassis by resource name (throws std::out_of_range if none).
ChassisConfig chassisState(const std::string &resource);
std::vector<Relay> closedRelays(const std::string &resource);  // sorted
// Traffic keeps the most recent 16384 entries of each resource.
std::vector<TrafficEntry> traffic(const std::string &resource);
std::vector<std::vector<uint8_t>> writes(const std::string &resource);
void clearTraffic(const std::string &resource);
void injectFault(const std::string &resource, Fault fault);
// Bytes of the last firmware image the chassis accepted, and its byte sum.
std::vector<uint8_t> firmwareImage(const std::string &resource);
// Change state behind the library's back (front-panel actions, tests).
void setControlMode(const std::string &resource, uint8_t mode);
// Bit groups per board of the last relay-state frame (before the first
// frame: what the model's controller expects).
int groupsPerBoard(const std::string &resource);

}  // namespace qbsim

// Hooks for tools that may run on a vendor VISA, where they are absent: look
// them up with dlsym. Both return -1 when `resource` is not a simulated chassis.
extern "C" {
// Fills at most max_triples (board, group, bit) triples of closed relays and
// returns how many relays are closed.
int qbsim_closed_relays(const char *resource, int32_t *triples, int max_triples);
// Sets the board count and bit groups per board; returns 0.
int qbsim_relay_geometry(const char *resource, int *boards, int *groups_per_board);

// For bindings (ctypes) that cannot use the C++ API. Each returns 0, or -1
// with the reason in `error` (cut to error_size, may be null).
// Replaces the bench (closing every session) from a bench-file text or file,
// or with the built-in bench.
int qbsim_load_bench_json(const char *json, char *error, int error_size);
int qbsim_load_bench_file(const char *path, char *error, int error_size);
int qbsim_use_default_bench(void);
// Puts every instrument of the current bench back to its described state
// (relays open, settings as described, faults and traffic cleared); closes
// every session.
int qbsim_reset(void);
// Arms a fault on `resource`: "WriteFails", "ReadFails", "FailureReply",
// "ShortReply", "Timeout", "Vanish", "TermCharCompletion" or
// "MaxCountCompletion" (see qbsim::Fault). -1 for an unknown
// resource or kind.
int qbsim_inject_fault(const char *resource, const char *kind);
// The bench as first described (bench-file JSON) into `buffer`, cut to size;
// returns the full length, or -1.
int qbsim_bench_json(char *buffer, int size);
// The bench as it is now: every chassis's present settings and closed relays
// (a version-2 bench file when relays are closed); as qbsim_bench_json.
int qbsim_state_json(char *buffer, int size);
// Puts one instrument back to its described state and ends its sessions.
int qbsim_reset_resource(const char *resource);
}

// Shared rack: with the simulator's environment variable QBSIM_SERVER naming
// the socket of a running `qbvisa-sim serve`, the VISA calls of this
// libvisa.so and the C entry points above act on that server's rack, so
// every process sees the same instruments. A server that has gone away gives
// VI_ERROR_CONN_LOST (VI_ERROR_SYSTEM_ERROR from viOpenDefaultRM) after at
// most the session's time-out; the next viOpenDefaultRM connects again. The
// C++ API in namespace qbsim always works on this process's own bench.
