// The location tables behind each chassis kind's crosspoints.
#include "locations/crosspoint_tables.h"

namespace qbvisa {

int crosspointLocationTables(uint32_t kind,
                             LocationTableRef (&tables)[kMaxCrosspointTables]) {
  switch (kind) {
    case MATRIX_KIND_RK420:
      tables[0] = {matrixLocation, sizeof matrixLocation};
      tables[1] = {isoLocationX, sizeof isoLocationX};
      tables[2] = {isoLocationY, sizeof isoLocationY};
      return 3;
    case MATRIX_KIND_RK421:
      tables[0] = {RK421_matrixLocation, sizeof RK421_matrixLocation};
      tables[1] = {RK421_isoLocationX, sizeof RK421_isoLocationX};
      tables[2] = {RK421_isoLocationY, sizeof RK421_isoLocationY};
      tables[3] = {RK421_isoLocationCV, sizeof RK421_isoLocationCV};
      return 4;
    case MATRIX_KIND_RK422:
      tables[0] = {RK422_matrixLocation, sizeof RK422_matrixLocation};
      tables[1] = {RK422_isoLocationY, sizeof RK422_isoLocationY};
      return 2;
    case MATRIX_KIND_RK423:
      tables[0] = {RK423_matrixLocation, sizeof RK423_matrixLocation};
      tables[1] = {RK423_isoLocationX, sizeof RK423_isoLocationX};
      tables[2] = {RK423_isoLocationY, sizeof RK423_isoLocationY};
      tables[3] = {RK423_isoLocationCV, sizeof RK423_isoLocationCV};
      return 4;
    default:
      return 0;
  }
}

}  // namespace qbvisa
