// chassis_model.h - everything the library and the tool know about each
// chassis model and each plug-in card type, one row per model or card.
// Internal (hidden visibility, linked from the qbvisa_wiring static library):
// nothing here is part of the C interface. This file and chassis_model.cpp
// are the only places outside the location tables that name a model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "qbvisa.h"

namespace qbvisa {

// Geometry of slot 0 under one firmware generation.
struct MainGeometry {
  uint16_t arrayWordLimit, rowCount, columnCount, subMatrixCount, groupCount,
      wordsPerGroup, pointCount;
};

// Rows [first, last] whose points also close one isolation relay; a model
// with no such rows says kNoRows.
struct RowRange {
  uint32_t first, last;
  constexpr bool holds(uint32_t row) const { return row >= first && row <= last; }
  constexpr bool operator==(const RowRange &) const = default;
};
inline constexpr RowRange kNoRows{1, 0};
inline constexpr RowRange kEveryRow{0, UINT32_MAX};

struct ChassisModel {
  const char *name;           // as the identity reply and the tool name it
  const char *codeText;       // the model field's other spelling
  uint16_t typeCode;          // QBVISA_TYPE_*
  uint16_t slotCount;
  uint16_t subMatrixCount;    // of slot 0
  uint32_t slot0Kind;         // MATRIX_KIND_* of the chassis's own matrix
  uint32_t slot2Kind;         // MATRIX_KIND_* of the AP card; 0: no card slots
  uint16_t slot2PointCount;   // points of that AP card
  MainGeometry firstGeneration;  // slot 0 under firmware major 0 or 1
  MainGeometry current;          // slot 0 under later firmware
  uint16_t geometryWords[2];  // slot 0's, when the model sets them (else 0)
  uint16_t ltIsolationCount;  // LT isolation entries slot 0 carries (else 0)
  int32_t closureLimit;       // relays closed at once; 0: no limit
  bool singleBoard;           // any slot a caller names means slot 0
  bool hasPortsAndControlMode;  // serial/GPIB/LAN ports, front-panel control
  uint16_t clearCommand;      // 0: clear with an all-open relay frame
  RowRange isoXRows;          // rows whose points close their X isolation relay
  RowRange isoCvRows;         // rows whose points close their CV isolation relay
  uint8_t reversedColumns;    // the first N columns are wired in reverse
  bool rowBlocks;             // tables hold one four-row block, 1-based bits
  bool hasLtRelays;           // LT isolation relays switched with the frame
  bool shortBoardDeadBits;    // a 13-word board lacks bit group 12's top bits
};

std::span<const ChassisModel> chassisModels();

// The row of a hardware type code, or nullptr.
const ChassisModel *modelByType(uint16_t typeCode);
// The row whose slot 0 is of `kind` (the first such), or nullptr.
const ChassisModel *modelByKind(uint32_t kind);
// The row named `text` by name or code text, or nullptr.
const ChassisModel *modelByName(const char *text);
// The row of the model whose card slot 2 was built for `typeCode`: the
// model must take cards, or nullptr.
const ChassisModel *cardSlotModel(uint16_t typeCode);

// Plug-in cards of slot 1, by the type byte the card reports.
struct CardType {
  uint8_t typeByte;
  uint32_t matrixKind;
  uint16_t arrayWordLimit, rowCount, groupCount, wordsPerGroup, pointCount,
      cardExtra;
};

std::span<const CardType> cardTypes();
const CardType *cardByTypeByte(uint8_t typeByte);

// The card name a slot reports for the matrix kind it holds, and the size
// text ("rows*columns") of a card name.
struct CardName {
  uint32_t matrixKind;  // kNoMatrixKind: a name callers may pass, no kind
  const char *name;
  const char *sizeText;
};
inline constexpr uint32_t kNoMatrixKind = UINT32_MAX;

// nullptr for a kind no card has.
const char *cardNameOfKind(uint32_t kind);
// nullptr for an unknown name.
const char *cardSizeOf(const char *name);

}  // namespace qbvisa
