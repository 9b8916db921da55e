// The point lookup over the location tables, the call that fills them all,
// and the size constants published beside them.
#include <cstddef>
#include <cstdint>

#include "qbvisa_lowlevel.h"

namespace {

// Where a lookup reads: one table entry, and whether that entry keeps its
// frame location one field further on (the GX4C IN tables).
struct Source {
  const PointLocation *entry = nullptr;
  bool shifted = false;
};

// An index outside the table names no relay: the lookup then leaves the
// caller's result as it was, as for a selector the kind does not know,
// instead of reading past the table.
template <std::size_t Rows, std::size_t Columns>
const PointLocation *entryAt(const PointLocation (&table)[Rows][Columns],
                             uint32_t row, uint32_t column) {
  return row < Rows && column < Columns ? &table[row][column] : nullptr;
}

// Tables indexed by row alone ignore the column.
template <std::size_t Rows>
const PointLocation *entryAt(const PointLocation (&table)[Rows], uint32_t row,
                             uint32_t) {
  return row < Rows ? &table[row] : nullptr;
}

const PointLocation *rk420(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX: return entryAt(matrixLocation, row, column);
    case ISO_X: return entryAt(isoLocationX, row, column);
    case ISO_Y: return entryAt(isoLocationY, row, column);
    default: return nullptr;
  }
}

const PointLocation *rk421(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX: return entryAt(RK421_matrixLocation, row, column);
    case ISO_X: return entryAt(RK421_isoLocationX, row, column);
    case ISO_Y: return entryAt(RK421_isoLocationY, row, column);
    case ISO_CV: return entryAt(RK421_isoLocationCV, row, column);
    default: return nullptr;
  }
}

const PointLocation *rk422(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX: return entryAt(RK422_matrixLocation, row, column);
    case ISO_Y: return entryAt(RK422_isoLocationY, row, column);
    default: return nullptr;
  }
}

const PointLocation *rk423(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX: return entryAt(RK423_matrixLocation, row, column);
    case ISO_X: return entryAt(RK423_isoLocationX, row, column);
    case ISO_Y: return entryAt(RK423_isoLocationY, row, column);
    case ISO_CV: return entryAt(RK423_isoLocationCV, row, column);
    case ISO_LT: return entryAt(RK423_isoLocationLT, row, column);
    default: return nullptr;
  }
}

// Selectors that pair two sub-matrices read the same table: the row and
// column the caller passes already tell which sub-matrix is meant.

// GX3: A and B share tables; C and D each have their own for every relay kind.
const PointLocation *gx3(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX_A: case MATRIX_B:
      return entryAt(GX3_matrixLocationAB, row, column);
    case ISO_X_A: case ISO_X_B: return entryAt(GX3_isoLocationX_AB, row, column);
    case ISO_Y_A: case ISO_Y_B: return entryAt(GX3_isoLocationY_AB, row, column);
    case MATRIX_C: return entryAt(GX3_matrixLocationC, row, column);
    case ISO_X_C: return entryAt(GX3_isoLocationX_C, row, column);
    case ISO_Y_C: return entryAt(GX3_isoLocationY_C, row, column);
    case MATRIX_D: return entryAt(GX3_matrixLocationD, row, column);
    case ISO_X_D: return entryAt(GX3_isoLocationX_D, row, column);
    case ISO_Y_D: return entryAt(GX3_isoLocationY_D, row, column);
    case CASCADE_A: case CASCADE_B:
      return entryAt(GX3_cascadeLocation_AB, row, column);
    case CASCADE_C: case CASCADE_D:
      return entryAt(GX3_cascadeLocation_CD, row, column);
    default: return nullptr;
  }
}

// GX4: C and D share the crosspoint and X isolation tables but have separate
// Y isolation tables.
const PointLocation *gx4(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX_A: case MATRIX_B:
      return entryAt(GX4_matrixLocationAB, row, column);
    case ISO_X_A: case ISO_X_B: return entryAt(GX4_isoLocationX_AB, row, column);
    case ISO_Y_A: case ISO_Y_B: return entryAt(GX4_isoLocationY_AB, row, column);
    case MATRIX_C: case MATRIX_D:
      return entryAt(GX4_matrixLocationCD, row, column);
    case ISO_X_C: case ISO_X_D: return entryAt(GX4_isoLocationX_CD, row, column);
    case ISO_Y_C: return entryAt(GX4_isoLocationY_C, row, column);
    case ISO_Y_D: return entryAt(GX4_isoLocationY_D, row, column);
    case CASCADE_A: case CASCADE_B:
      return entryAt(GX4_cascadeLocation_AB, row, column);
    case CASCADE_C: case CASCADE_D:
      return entryAt(GX4_cascadeLocation_CD, row, column);
    default: return nullptr;
  }
}

// GX4C: one IN table per sub-matrix, laid out with the frame location one
// field further on.
Source gx4c(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX_A: case MATRIX_B:
      return {entryAt(GX4C_matrixLocationAB, row, column)};
    case ISO_X_A: case ISO_X_B:
      return {entryAt(GX4C_isoLocationX_AB, row, column)};
    case ISO_Y_A: case ISO_Y_B:
      return {entryAt(GX4C_isoLocationY_AB, row, column)};
    case MATRIX_C: case MATRIX_D:
      return {entryAt(GX4C_matrixLocationCD, row, column)};
    case ISO_X_C: case ISO_X_D:
      return {entryAt(GX4C_isoLocationX_CD, row, column)};
    case ISO_Y_C: case ISO_Y_D:
      return {entryAt(GX4C_isoLocationY_CD, row, column)};
    case CASCADE_A: case CASCADE_B:
      return {entryAt(GX4C_cascadeLocation_AB, row, column)};
    case CASCADE_C: case CASCADE_D:
      return {entryAt(GX4C_cascadeLocation_CD, row, column)};
    case IN_A: return {entryAt(GX4C_IN_A, row, column), true};
    case IN_B: return {entryAt(GX4C_IN_B, row, column), true};
    case IN_C: return {entryAt(GX4C_IN_C, row, column), true};
    case IN_D: return {entryAt(GX4C_IN_D, row, column), true};
    default: return {};
  }
}

const PointLocation *gx4cNew(int32_t selector, uint32_t row, uint32_t column) {
  switch (selector) {
    case MATRIX_A: case MATRIX_B:
      return entryAt(GX4CNew_matrixLocationAB, row, column);
    case ISO_X_A: case ISO_X_B:
      return entryAt(GX4CNew_isoLocationX_AB, row, column);
    case ISO_Y_A: case ISO_Y_B:
      return entryAt(GX4CNew_isoLocationY_AB, row, column);
    case MATRIX_C: case MATRIX_D:
      return entryAt(GX4CNew_matrixLocationCD, row, column);
    case ISO_X_C: case ISO_X_D:
      return entryAt(GX4CNew_isoLocationX_CD, row, column);
    case ISO_Y_C: case ISO_Y_D:
      return entryAt(GX4CNew_isoLocationY_CD, row, column);
    case CASCADE_A: case CASCADE_B:
      return entryAt(GX4CNew_cascadeLocation_AB, row, column);
    case CASCADE_C: case CASCADE_D:
      return entryAt(GX4CNew_cascadeLocation_CD, row, column);
    case IN_A: case IN_B: return entryAt(GX4CNew_IN_AB, row, column);
    case IN_C: case IN_D: return entryAt(GX4CNew_IN_CD, row, column);
    default: return nullptr;
  }
}

Source sourceOf(uint32_t kind, int32_t selector, uint32_t row,
                uint32_t column) {
  switch (kind) {
    case MATRIX_KIND_RK420: return {rk420(selector, row, column)};
    case MATRIX_KIND_RK421: return {rk421(selector, row, column)};
    case MATRIX_KIND_RK422: return {rk422(selector, row, column)};
    case MATRIX_KIND_RK423: return {rk423(selector, row, column)};
    case MATRIX_KIND_GX3: return {gx3(selector, row, column)};
    case MATRIX_KIND_GX4_TYPE3:
    case MATRIX_KIND_GX4_TYPE0: return {gx4(selector, row, column)};
    case MATRIX_KIND_GX4C: return gx4c(selector, row, column);
    case MATRIX_KIND_GX4CNEW_TYPE11:
    case MATRIX_KIND_GX4CNEW_TYPE9: return {gx4cNew(selector, row, column)};
    case MATRIX_KIND_GX4MIX:
      // GX4Mix: a GX4 half on rows 0..7 and a GX4CNew half from row 8 on.
      return {row <= 7 ? gx4(selector, row, column)
                       : gx4cNew(selector, row - 8, column)};
    case MATRIX_KIND_AP:
      return {selector == MATRIX ? entryAt(matrixAPLocation, row, column)
                                 : nullptr};
    case MATRIX_KIND_AP_420B:
      return {selector == MATRIX ? entryAt(matrixAP_420BLocation, row, column)
                                 : nullptr};
    default: return {};
  }
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t MATRIXPOINTCOUNT = 600;
QBVISA_EXPORT int32_t GX3_SUBMATRIXCOL = 7;
QBVISA_EXPORT int32_t GX4_SUBMATRIXCOL = 7;
QBVISA_EXPORT int32_t GX4_MATRIXPOINTCOUNT = 800;
QBVISA_EXPORT int32_t GX4C_SUBMATRIXCOL = 7;
QBVISA_EXPORT int32_t GX4C_MATRIXPOINTCOUNT = 800;
QBVISA_EXPORT int32_t GX4Mix_SUBMATRIXCOL = 7;
QBVISA_EXPORT int32_t GX4Mix_MATRIXPOINTCOUNT = 800;

// Runs once per relay while a relay-state frame is built: one switch and one
// index, nothing allocated. A pair the kind does not know leaves out as it
// was; the result is 0 in every case.
QBVISA_EXPORT int32_t GetPoint(uint32_t kind, int32_t selector, uint32_t row,
                               uint32_t column, RelayPosition *out) {
  if (out == nullptr) return 0;
  const Source source = sourceOf(kind, selector, row, column);
  if (source.entry == nullptr) return 0;
  if (source.shifted) {
    out->group = source.entry->position;
    out->position = source.entry->auxiliary;
  } else {
    out->group = source.entry->group;
    out->position = source.entry->position;
  }
  return 0;
}

// Every filler writes its whole table from fixed wiring, so this may run any
// number of times and always leaves the same contents.
QBVISA_EXPORT void InitPointInfo(void) {
  setMatrixLocation();
  setISOLocationRow();
  setISOLocationColumn();
  setGX3_matrixLocationAB();
  setISORFLocationRowAB();
  setISORFLocationColumnAB();
  setGX3_matrixLocationC();
  setISORFLocationRowC();
  setISORFLocationColumnC();
  setGX3_matrixLocationD();
  setISORFLocationRowD();
  setISORFLocationColumnD();
  setCascadeLocaionAB();
  setCascadeLocaionCD();
  setMatrixAPLocation();
  setMatrixAP_420BLocation();
  GX4_setCascadeLocaionAB();
  GX4_setCascadeLocaionCD();
  GX4_setmatrixLocationAB();
  GX4_setISOLocationColumnAB();
  GX4_setISOLocationRowAB();
  GX4_setmatrixLocationCD();
  GX4_setISOLocationColumnCD();
  GX4_setISOLocationRowC();
  GX4_setISOLocationRowD();
  GX4CNew_setInAB();
  GX4CNew_setInCD();
  GX4CNew_setmatrixLocationAB();
  GX4CNew_setISOLocationColumnAB();
  GX4CNew_setISOLocationRowAB();
  GX4CNew_setmatrixLocationCD();
  GX4CNew_setISOLocationColumnCD();
  GX4CNew_setISOLocationRowCD();
  GX4C_setInA();
  GX4C_setInB();
  GX4C_setInC();
  GX4C_setInD();
  GX4C_setmatrixLocationAB();
  GX4C_setISOLocationColumnAB();
  GX4C_setISOLocationRowAB();
  GX4C_setmatrixLocationCD();
  GX4C_setISOLocationColumnCD();
  GX4C_setISOLocationRowCD();
  RK421_setMatrixLocation();
  RK421_setisoLocationX();
  RK421_setisoLocationY();
  RK421_setCV();
  RK422_setMatrixLocation();
  RK422_setisoLocationY();
  RK423_setMatrixLocation();
  RK423_setisoLocationX();
  RK423_setisoLocationY();
  RK423_setisoLocationCV();
  RK423_setisoLocationLT();
}

}  // extern "C"
