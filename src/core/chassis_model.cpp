// The chassis models and plug-in card types, one row each.
#include "core/chassis_model.h"

#include <cstring>

namespace qbvisa {
namespace {

// Geometry fields: array words, rows, columns, sub-matrices, boards, words
// per board, points.
constexpr ChassisModel kModels[] = {
    // RK420: 12x50 main matrix on five boards, two card slots (slot 2 an AP
    // card); controllers before firmware 2 drive 13 words per board.
    {.name = "RK420", .codeText = "041A", .typeCode = QBVISA_TYPE_RK420,
     .slotCount = 6, .subMatrixCount = 5, .slot0Kind = MATRIX_KIND_RK420,
     .slot2Kind = MATRIX_KIND_AP, .slot2PointCount = 112,
     .firstGeneration = {19, 12, 10, 5, 5, 13, 600},
     .current = {32, 12, 10, 5, 5, 12, 600}, .geometryWords = {6, 5},
     .ltIsolationCount = 0, .closureLimit = 400, .singleBoard = false,
     .hasPortsAndControlMode = false, .clearCommand = 0,
     .isoXRows = kEveryRow, .isoCvRows = kNoRows, .reversedColumns = 0,
     .rowBlocks = false, .hasLtRelays = false, .shortBoardDeadBits = true},
    // RK420B: the RK420 with its own AP card in slot 2.
    {.name = "RK420B", .codeText = "041B", .typeCode = QBVISA_TYPE_RK420B,
     .slotCount = 6, .subMatrixCount = 5, .slot0Kind = MATRIX_KIND_RK420,
     .slot2Kind = MATRIX_KIND_AP_420B, .slot2PointCount = 100,
     .firstGeneration = {19, 12, 10, 5, 5, 13, 600},
     .current = {32, 12, 10, 5, 5, 12, 600}, .geometryWords = {6, 5},
     .ltIsolationCount = 0, .closureLimit = 400, .singleBoard = false,
     .hasPortsAndControlMode = false, .clearCommand = 0,
     .isoXRows = kEveryRow, .isoCvRows = kNoRows, .reversedColumns = 0,
     .rowBlocks = false, .hasLtRelays = false, .shortBoardDeadBits = true},
    // RK421: 10x48 on four boards, front panel and its own ports; rows 4 and
    // 5 reach the CV bus; the first six columns are wired in reverse.
    {.name = "RK421", .codeText = "042A", .typeCode = QBVISA_TYPE_RK421,
     .slotCount = 4, .subMatrixCount = 4, .slot0Kind = MATRIX_KIND_RK421,
     .slot2Kind = 0, .slot2PointCount = 0, .firstGeneration = {15, 10, 12, 4, 4, 13, 480},
     .current = {15, 10, 12, 4, 4, 13, 480}, .geometryWords = {0, 0},
     .ltIsolationCount = 0, .closureLimit = 270, .singleBoard = true,
     .hasPortsAndControlMode = true, .clearCommand = 0,
     .isoXRows = kEveryRow, .isoCvRows = {4, 5}, .reversedColumns = 6,
     .rowBlocks = false, .hasLtRelays = false, .shortBoardDeadBits = false},
    // RK422: 16x2016 on 21 boards, tables of one four-row block; clears with
    // command 67 instead of an all-open frame; no closure limit.
    {.name = "RK422", .codeText = "043A", .typeCode = QBVISA_TYPE_RK422,
     .slotCount = 21, .subMatrixCount = 21, .slot0Kind = MATRIX_KIND_RK422,
     .slot2Kind = 0, .slot2PointCount = 0, .firstGeneration = {1008, 16, 96, 21, 21, 49, 32256},
     .current = {1008, 16, 96, 21, 21, 49, 32256}, .geometryWords = {0, 0},
     .ltIsolationCount = 0, .closureLimit = 0, .singleBoard = true,
     .hasPortsAndControlMode = false, .clearCommand = 67,
     .isoXRows = kNoRows, .isoCvRows = kNoRows, .reversedColumns = 0,
     .rowBlocks = true, .hasLtRelays = false, .shortBoardDeadBits = false},
    // RK423: 8x12 on one board; rows 2-7 reach the X bus, 6-7 the CV bus;
    // two LT isolation relays switched with every frame.
    {.name = "RK423", .codeText = "044A", .typeCode = QBVISA_TYPE_RK423,
     .slotCount = 1, .subMatrixCount = 1, .slot0Kind = MATRIX_KIND_RK423,
     .slot2Kind = 0, .slot2PointCount = 0, .firstGeneration = {3, 8, 12, 1, 1, 10, 96},
     .current = {3, 8, 12, 1, 1, 10, 96}, .geometryWords = {0, 0},
     .ltIsolationCount = 2, .closureLimit = 0, .singleBoard = true,
     .hasPortsAndControlMode = false, .clearCommand = 0,
     .isoXRows = {2, 7}, .isoCvRows = {6, 7}, .reversedColumns = 0,
     .rowBlocks = false, .hasLtRelays = true, .shortBoardDeadBits = false},
    // RK423B: the RK423's tables without the LT wiring. It keeps the slot a
    // caller names (not forced to 0), as it always has.
    {.name = "RK423B", .codeText = "044B", .typeCode = QBVISA_TYPE_RK423B,
     .slotCount = 1, .subMatrixCount = 1, .slot0Kind = MATRIX_KIND_RK423,
     .slot2Kind = 0, .slot2PointCount = 0, .firstGeneration = {3, 8, 12, 1, 1, 10, 96},
     .current = {3, 8, 12, 1, 1, 10, 96}, .geometryWords = {0, 0},
     .ltIsolationCount = 2, .closureLimit = 0, .singleBoard = false,
     .hasPortsAndControlMode = false, .clearCommand = 0,
     .isoXRows = {2, 7}, .isoCvRows = {6, 7}, .reversedColumns = 0,
     .rowBlocks = false, .hasLtRelays = false, .shortBoardDeadBits = false},
};

// Slot-1 cards: type byte, kind, array words, rows, boards, words per board,
// points, extra card words.
constexpr CardType kCards[] = {
    {0, MATRIX_KIND_GX4_TYPE0, 25, 16, 8, 20, 800, 0},
    {1, MATRIX_KIND_GX4MIX, 25, 16, 4, 20, 800, 12},
    {3, MATRIX_KIND_GX4_TYPE3, 25, 8, 4, 20, 400, 0},
    {9, MATRIX_KIND_GX4CNEW_TYPE9, 25, 16, 4, 12, 800, 0},
    {11, MATRIX_KIND_GX4CNEW_TYPE11, 25, 8, 2, 12, 400, 0},
    {12, MATRIX_KIND_GX3, 13, 8, 4, 10, 400, 0},
};

// Every matrix kind's card name and size; "N7361-FF" has no kind but keeps
// its size for callers that pass the name themselves.
constexpr CardName kCardNames[] = {
    {MATRIX_KIND_RK420, "N7360", "12*10"},
    {MATRIX_KIND_RK421, "N7362", "10*12"},
    {MATRIX_KIND_RK422, "N7363", "16*96"},
    {MATRIX_KIND_RK423, "N7364", "8*12"},
    {MATRIX_KIND_GX3, "GX3", "8*50"},
    {MATRIX_KIND_GX4_TYPE3, "N7361-F", "8*50"},
    {MATRIX_KIND_GX4_TYPE0, "N7361-HH", "16*50"},
    {MATRIX_KIND_GX4C, "N7361-H", "8*50"},
    {MATRIX_KIND_GX4CNEW_TYPE11, "N7361-H", "8*50"},
    {MATRIX_KIND_GX4CNEW_TYPE9, "N7361-HH", "16*50"},
    {MATRIX_KIND_GX4MIX, "N7361-FH", "16*50"},
    {MATRIX_KIND_AP, "K57", "14*8"},
    {MATRIX_KIND_AP_420B, "K63", "10*10"},
    {kNoMatrixKind, "N7361-FF", "16*50"},
};

}  // namespace

std::span<const ChassisModel> chassisModels() { return kModels; }

const ChassisModel *modelByType(uint16_t typeCode) {
  for (const ChassisModel &model : kModels)
    if (model.typeCode == typeCode) return &model;
  return nullptr;
}

const ChassisModel *modelByKind(uint32_t kind) {
  for (const ChassisModel &model : kModels)
    if (model.slot0Kind == kind) return &model;
  return nullptr;
}

const ChassisModel *modelByName(const char *text) {
  for (const ChassisModel &model : kModels)
    if (std::strcmp(text, model.name) == 0 ||
        std::strcmp(text, model.codeText) == 0)
      return &model;
  return nullptr;
}

const ChassisModel *cardSlotModel(uint16_t typeCode) {
  const ChassisModel *model = modelByType(typeCode);
  return model != nullptr && model->slot2Kind != 0 ? model : nullptr;
}

std::span<const CardType> cardTypes() { return kCards; }

const CardType *cardByTypeByte(uint8_t typeByte) {
  for (const CardType &card : kCards)
    if (card.typeByte == typeByte) return &card;
  return nullptr;
}

const char *cardNameOfKind(uint32_t kind) {
  if (kind == kNoMatrixKind) return nullptr;
  for (const CardName &card : kCardNames)
    if (card.matrixKind == kind) return card.name;
  return nullptr;
}

const char *cardSizeOf(const char *name) {
  for (const CardName &card : kCardNames)
    if (std::strcmp(card.name, name) == 0) return card.sizeText;
  return nullptr;
}

}  // namespace qbvisa
