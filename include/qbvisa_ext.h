/*
 * qbvisa_ext.h - extension calls of libQBVISA.so.1 beyond the chassis
 * interface of qbvisa.h: read-only facts about a connected chassis that a
 * binding or a front panel needs to address its matrix (slot geometry,
 * fitted sub-matrices, closure limit, model name).
 *
 * The rules of qbvisa.h hold here too: plain C, caller-owned buffers, a
 * negative QBVISA_ERR_* code on failure. None of these calls talks to the
 * chassis or changes any state: they read what QBVISA_Connect,
 * QBVISA_OpenSpecifiedCard and QBVISA_Init stored.
 */
#ifndef QBVISA_EXT_H
#define QBVISA_EXT_H

#include "qbvisa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The matrix of one slot, as QBVISA_OpMatrix addresses it. Bit
 * (row * subMatrices + block) * columnsPerSubMatrix + column (all 0-based)
 * of the caller's 32-bit word array is a crosspoint, where column block n
 * is the n-th FITTED sub-matrix (blocks past the fitted count reach no
 * board); on the chassis rows and columns are numbered from 1. All fields
 * are 0 until the slot has been opened and initialised. */
typedef struct QBVISA_SlotInfo {
  uint32_t rows;
  uint32_t columnsPerSubMatrix;
  uint32_t subMatrices;         /* sub-matrices side by side in a row */
  uint32_t fittedMask;          /* bit s: sub-matrix s is fitted */
  uint32_t pointCount;          /* rows * subMatrices * columnsPerSubMatrix */
  uint32_t arrayWords;          /* 32-bit words QBVISA_OpMatrix reads */
  uint32_t closureLimit;        /* most relays closed at once; 0 = no limit */
  uint32_t matrixKind;          /* MATRIX_KIND_* of qbvisa.h */
} QBVISA_SlotInfo;

/* Fills `info` for `slot` (0 = the chassis's own matrix, 1 and 2 the cards
 * of an RK420/RK420B). -10023 for an unknown session, -10038 for a null
 * `info` or a slot the model has no record for. */
QBVISA_EXPORT int32_t QBVISA_GetSlotInfo(uint32_t session, uint64_t slot,
                                         QBVISA_SlotInfo *info);

/* The model's name ("RK420", ... "RK423B") into `name` (at most `size`
 * bytes with the terminating NUL; cut to fit). -10023 for an unknown
 * session, -10038 for a null `name` or a zero `size`. */
QBVISA_EXPORT int32_t QBVISA_GetModelName(uint32_t session, char *name,
                                          uint32_t size);

/* What the library knows of one chassis model, before any chassis is
 * connected (bindings name models and their slots from this, not from a copy
 * of their own). */
typedef struct QBVISA_ModelInfo {
  char name[16];                /* "RK420", ... */
  uint16_t typeCode;            /* QBVISA_TYPE_* */
  uint16_t slotCount;           /* board positions in the identity reply */
  uint16_t cardSlots;           /* plug-in card slots beside slot 0 (1, 2...) */
  uint16_t hasControlMode;      /* 1: own ports and front-panel control */
  uint32_t closureLimit;        /* most relays closed at once; 0 = no limit */
} QBVISA_ModelInfo;

/* Model number `index` (0, 1, ... in the library's order) into `info`;
 * -10038 for a null `info` or an index past the last model. */
QBVISA_EXPORT int32_t QBVISA_GetModelInfo(uint32_t index,
                                          QBVISA_ModelInfo *info);

/* One relay: board of the relay-state frame, bit group (16-bit word index
 * in image order, as the frame lists a board's groups last first) and bit. */
typedef struct QBVISA_Relay {
  int32_t board;
  int32_t group;
  int32_t bit;
} QBVISA_Relay;

/* The relays that closing crosspoint (row, column) of slot 0 closes: its own
 * relay first, then its isolation relays; returns how many (1..4) were
 * written to `relays`. Row and column are 1-based as on the chassis, columns
 * counted across the whole front (sub-matrix s holds columns
 * s * columnsPerSubMatrix + 1 ...). A group at or past the board's bit groups
 * in the frame never reaches the chassis (the RK422's rows past its first
 * block of four). -10023 unknown session; -10038 null `relays`; -10026 a
 * slot other than 0 (cards are not switched by relay frames); -10007 /
 * -10008 row / column outside the matrix; -10014 a sub-matrix not fitted. */
QBVISA_EXPORT int32_t QBVISA_GetPointRelays(uint32_t session, uint64_t slot,
                                            uint32_t row, uint32_t column,
                                            QBVISA_Relay relays[4]);

#ifdef __cplusplus
}
#endif

#endif /* QBVISA_EXT_H */
