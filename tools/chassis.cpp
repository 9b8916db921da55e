#include "chassis.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <set>

#include <qbvisa.h>
#include <qbvisa_lowlevel.h>

#include "core/chassis_model.h"
#include "tool_error.hpp"
#include "wiring/crosspoint_wiring.h"

namespace qbtool {

const char *modelName(uint16_t typeCode) {
  const qbvisa::ChassisModel *model = qbvisa::modelByType(typeCode);
  return model != nullptr ? model->name : nullptr;
}

std::optional<int> closureLimit(uint16_t typeCode) {
  const qbvisa::ChassisModel *model = qbvisa::modelByType(typeCode);
  if (model == nullptr || model->closureLimit == 0) return std::nullopt;
  return model->closureLimit;
}

bool hasTwoControllers(uint16_t typeCode) {
  const qbvisa::ChassisModel *model = qbvisa::modelByType(typeCode);
  return model != nullptr && model->hasPortsAndControlMode;
}

bool takesCards(uint16_t typeCode) {
  return qbvisa::cardSlotModel(typeCode) != nullptr;
}

std::string modelList() {
  std::string names;
  for (const qbvisa::ChassisModel &model : qbvisa::chassisModels())
    names += (names.empty() ? "" : ", ") + std::string(model.name);
  return names;
}

std::string cardModelList() {
  std::string names;
  for (const qbvisa::ChassisModel &model : qbvisa::chassisModels())
    if (model.slot2Kind != 0)
      names += (names.empty() ? "" : "/") + std::string(model.name);
  return names;
}

std::string closureLimitList() {
  // Models sharing a limit are named together: "400 A/B, 270 C".
  std::string text;
  int32_t shown = -1;
  for (const qbvisa::ChassisModel &model : qbvisa::chassisModels()) {
    if (model.closureLimit == 0) continue;
    if (model.closureLimit == shown) {
      text += "/" + std::string(model.name);
      continue;
    }
    text += (text.empty() ? "" : ", ") + std::to_string(model.closureLimit) +
            " " + model.name;
    shown = model.closureLimit;
  }
  return text;
}

std::optional<RelayAddress> crosspointRelay(const Geometry &geometry, int row,
                                            int column) {
  const int board = geometry.subMatrixBoard[column / geometry.subColumns];
  // Only the chassis's own matrix kinds have crosspoint wiring to draw.
  if (board < 0 || qbvisa::modelByKind(geometry.kind) == nullptr)
    return std::nullopt;
  // The library's own mapping: the crosspoint relay comes first.
  const qbvisa::PointRelays relays = qbvisa::pointRelays(
      qbvisa::modelByType(geometry.modelType), geometry.kind,
      static_cast<uint32_t>(geometry.wordsPerGroup), static_cast<uint32_t>(row),
      static_cast<uint32_t>(column % geometry.subColumns));
  return RelayAddress{board, relays.at[0].group, relays.at[0].position};
}

int MatrixState::closedCount() const {
  return static_cast<int>(std::count(closed.begin(), closed.end(), true));
}

namespace {

using ClosedRelaysHook = int (*)(const char *, int32_t *, int);
using RelayGeometryHook = int (*)(const char *, int *, int *);

// The simulated bench exports these beside VISA; a vendor VISA has neither.
struct SimHooks {
  ClosedRelaysHook closedRelays = nullptr;
  RelayGeometryHook relayGeometry = nullptr;
};

const SimHooks &simHooks() {
  static const SimHooks hooks = [] {
    SimHooks found;
    found.closedRelays = reinterpret_cast<ClosedRelaysHook>(
        dlsym(RTLD_DEFAULT, "qbsim_closed_relays"));
    found.relayGeometry = reinterpret_cast<RelayGeometryHook>(
        dlsym(RTLD_DEFAULT, "qbsim_relay_geometry"));
    return found;
  }();
  return hooks;
}

// Largest relay image a chassis can have: 25 boards of 200 words of 16 bits.
constexpr int kMostRelays = 25 * 200 * 16;

}  // namespace

std::optional<std::vector<RelayAddress>> readClosedRelays(
    const std::string &resource) {
  const auto &hooks = simHooks();
  if (hooks.closedRelays == nullptr) return std::nullopt;
  int capacity = kMostRelays;
  int boards = 0, groups = 0;
  if (hooks.relayGeometry != nullptr &&
      hooks.relayGeometry(resource.c_str(), &boards, &groups) >= 0 &&
      boards > 0 && groups > 0)
    capacity = std::min(kMostRelays, boards * groups * 16);
  std::vector<int32_t> triples(static_cast<size_t>(capacity) * 3);
  const int count = hooks.closedRelays(resource.c_str(), triples.data(), capacity);
  if (count < 0) return std::nullopt;
  std::vector<RelayAddress> relays;
  for (int i = 0; i < std::min(count, capacity); ++i)
    relays.push_back({triples[3 * i], triples[3 * i + 1], triples[3 * i + 2]});
  return relays;
}

uint32_t Bench::session(const std::string &resource) {
  auto &known = chassis_[resource];
  if (known.session == 0) {
    const int32_t status = QBVISA_Connect(resource.c_str(), &known.session);
    if (status < 0) {
      chassis_.erase(resource);
      throw ToolError(status, resource);
    }
  }
  return known.session;
}

ChassisRecord &Bench::record(const std::string &resource) {
  ChassisRecord *found = nullptr;
  check(FindChassis(static_cast<int32_t>(session(resource)), &found), resource);
  if (found == nullptr) throw ToolError(QBVISA_ERR_HANDLE, resource);
  return *found;
}

Geometry Bench::matrix(const std::string &resource) {
  session(resource);
  if (!chassis_[resource].matrixOpen) openSlot(resource, 0);
  const ChassisRecord &chassis = record(resource);
  const SlotArea &slot = chassis.slots[0];
  Geometry geometry;
  geometry.modelType = chassis.modelTypeCode;
  geometry.kind = slot.matrixKind;
  geometry.rows = slot.rowCount;
  geometry.subColumns = slot.columnCount;
  geometry.subMatrices = std::min<int>(slot.subMatrixCount, 21);
  geometry.wordsPerGroup = slot.wordsPerGroup;
  geometry.subMatrixBoard.fill(-1);
  for (int n = 0; n < geometry.subMatrices; ++n)
    geometry.subMatrixBoard[n] = slot.subMatrixGroup[n];
  // The relay record holds the last switching array; a matrix larger than it
  // cannot be switched through this interface.
  if (geometry.points() <= 0 ||
      geometry.words() * 4 > static_cast<int>(sizeof slot.lastArray))
    throw ToolError(QBVISA_ERR_ARRAY_SIZE, resource);
  return geometry;
}

uint64_t Bench::openSlot(const std::string &resource, uint64_t slot) {
  const uint32_t handle = session(resource);
  uint64_t opened = 0;
  check(QBVISA_OpenSpecifiedCard(handle, slot, &opened),
        resource + " slot " + std::to_string(slot));
  if (opened == 0) {
    InitPointInfo();
    chassis_[resource].matrixOpen = true;
  }
  return opened;
}

void Bench::initialise(const std::string &resource, uint64_t slot) {
  check(QBVISA_Init(session(resource), slot), resource + " slot " + std::to_string(slot));
}

MatrixState Bench::state(const std::string &resource) {
  const Geometry geometry = matrix(resource);
  MatrixState state;
  state.closed.assign(static_cast<size_t>(geometry.points()), false);
  if (auto relays = readClosedRelays(resource)) {
    const std::set<RelayAddress> closedRelays(relays->begin(), relays->end());
    for (int row = 0; row < geometry.rows; ++row)
      for (int column = 0; column < geometry.columns(); ++column) {
        const auto relay = crosspointRelay(geometry, row, column);
        if (relay && closedRelays.count(*relay) != 0)
          state.closed[geometry.pointIndex(row, column)] = true;
      }
    state.readBack = true;
    state.relayCount = static_cast<int>(closedRelays.size());
    return state;
  }
  // Without read-back the library's copy of the last switching array is the
  // best knowledge: it is what this process switched last.
  const SlotArea &slot = record(resource).slots[0];
  const int usable = std::min(geometry.points(), slot.arrayWordLimit * 32);
  for (int p = 0; p < usable; ++p) {
    uint32_t word = 0;
    std::memcpy(&word, slot.lastArray + 4 * (p / 32), sizeof word);
    state.closed[p] = ((word >> (p % 32)) & 1u) != 0;
  }
  return state;
}

void Bench::apply(const std::string &resource, const std::vector<bool> &closed) {
  const Geometry geometry = matrix(resource);
  std::vector<uint32_t> words(static_cast<size_t>(geometry.words()), 0);
  for (int p = 0; p < geometry.points(); ++p)
    if (closed[p]) words[p / 32] |= 1u << (p % 32);
  check(QBVISA_OpMatrix(session(resource), 0, words.data(),
                        static_cast<uint32_t>(words.size())),
        resource);
}

void Bench::clear(const std::string &resource) {
  matrix(resource);
  check(QBVISA_Clear(session(resource), 0), resource);
}

void Bench::mark(const Geometry &geometry, const std::vector<PointRange> &ranges,
                 std::vector<bool> &closed, bool close) const {
  for (const auto &range : ranges) {
    const std::string where = "point '" + range.text + "'";
    if (range.lastRow > geometry.rows)
      throw ToolError(QBVISA_ERR_ROW_RANGE,
                      where + ": rows run 1.." + std::to_string(geometry.rows));
    if (range.lastColumn > geometry.columns())
      throw ToolError(QBVISA_ERR_COLUMN_RANGE,
                      where + ": columns run 1.." +
                          std::to_string(geometry.columns()));
    for (int column = range.firstColumn - 1; column < range.lastColumn; ++column)
      if (!geometry.fitted(column))
        throw ToolError(QBVISA_ERR_PHYSICS_LOCATION,
                        where + ": column " + std::to_string(column + 1) +
                            " lies in sub-matrix " +
                            std::to_string(column / geometry.subColumns + 1) +
                            ", which is not fitted");
  }
  for (const auto &range : ranges)
    for (int row = range.firstRow - 1; row < range.lastRow; ++row)
      for (int column = range.firstColumn - 1; column < range.lastColumn; ++column)
        closed[geometry.pointIndex(row, column)] = close;
}

}  // namespace qbtool
