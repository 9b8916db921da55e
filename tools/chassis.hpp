// chassis.hpp - what the qbvisa tool knows about a chassis: its session, the
// geometry of its own matrix (slot 0), the relay behind each crosspoint, and
// the crosspoints closed now.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "point_list.hpp"

struct ChassisRecord;

namespace qbtool {

// The model's name for a hardware type code, nullptr for an unknown one.
const char *modelName(uint16_t typeCode);
// Relays the model may hold closed at once; none for models without a limit.
std::optional<int> closureLimit(uint16_t typeCode);
// The model has a second (communication) controller with a version of its own.
bool hasTwoControllers(uint16_t typeCode);
// The model takes plug-in cards in slots 1 and 2.
bool takesCards(uint16_t typeCode);
// Every model's name, comma-separated, in table order.
std::string modelList();
// The card-taking models' names, slash-separated.
std::string cardModelList();
// Each closure limit with the models that have it ("400 A/B, 270 C").
std::string closureLimitList();

// The chassis's own matrix as the switching array sees it: every row spans
// all sub-matrices, sub-matrix n holding columns n*subColumns .. +subColumns-1.
struct Geometry {
  uint16_t modelType = 0;
  uint32_t kind = 0;
  int rows = 0;
  int subColumns = 0;     // columns of one sub-matrix
  int subMatrices = 0;    // sub-matrices side by side in a row
  int wordsPerGroup = 0;  // 16-bit relay words per board
  std::array<int, 21> subMatrixBoard{};  // board of sub-matrix n; -1 not fitted

  int columns() const { return subMatrices * subColumns; }
  int points() const { return rows * columns(); }
  int words() const { return (points() + 31) / 32; }
  // Bit of the switching array for a 0-based row and column.
  int pointIndex(int row, int column) const { return row * columns() + column; }
  bool fitted(int column) const { return subMatrixBoard[column / subColumns] >= 0; }
};

// One relay of the relay-state image: board, 16-bit word in image order, bit.
struct RelayAddress {
  int board;
  int group;
  int bit;
  auto operator<=>(const RelayAddress &) const = default;
};

// The crosspoint relay of a 0-based (row, column); none when the column's
// sub-matrix is not fitted. Needs the location tables (InitPointInfo).
std::optional<RelayAddress> crosspointRelay(const Geometry &geometry, int row,
                                            int column);

// Crosspoints closed on a chassis, one flag per switching-array bit.
struct MatrixState {
  std::vector<bool> closed;
  bool readBack = false;          // read from the relays, not remembered
  std::optional<int> relayCount;  // every closed relay, isolation included

  int closedCount() const;
};

// Relays the simulated bench reports closed for `resource`; nothing when the
// VISA library is not the simulated bench or the resource is not simulated.
std::optional<std::vector<RelayAddress>> readClosedRelays(const std::string &resource);

// The tool's view of the chassis it reached in this process.
class Bench {
 public:
  // Session of `resource` (discovery runs on first use).
  uint32_t session(const std::string &resource);
  ChassisRecord &record(const std::string &resource);
  // Opens slot 0 and prepares the location tables, once per process, without
  // initialising: initialisation would open every relay.
  Geometry matrix(const std::string &resource);
  // Opens `slot`; returns the slot the library opened (single-board models
  // have slot 0 only).
  uint64_t openSlot(const std::string &resource, uint64_t slot);
  // Initialises an opened slot: every relay of the slot opens.
  void initialise(const std::string &resource, uint64_t slot);

  // Crosspoints closed now: read back where the VISA allows it, else what
  // this process switched last.
  MatrixState state(const std::string &resource);
  // Sets the whole matrix: exactly the flagged crosspoints closed.
  void apply(const std::string &resource, const std::vector<bool> &closed);
  void clear(const std::string &resource);
  // Checks every point of `ranges` against the matrix and flags them.
  void mark(const Geometry &geometry, const std::vector<PointRange> &ranges,
            std::vector<bool> &closed, bool close) const;
  // Forget what was learned: a new discovery renews sessions and records.
  void forget() { chassis_.clear(); }

 private:
  struct Known {
    uint32_t session = 0;
    bool matrixOpen = false;
  };
  std::map<std::string, Known> chassis_;
};

}  // namespace qbtool
