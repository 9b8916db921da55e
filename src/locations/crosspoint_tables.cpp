// The location tables behind each chassis kind's crosspoints.
#include "locations/crosspoint_tables.h"

namespace qbvisa {
namespace {

#define QBVISA_TABLE(table) LocationTableRef{table, sizeof table}

constexpr LocationTableRef kRK420Tables[] = {
    QBVISA_TABLE(matrixLocation), QBVISA_TABLE(isoLocationX), QBVISA_TABLE(isoLocationY)};
constexpr LocationTableRef kRK421Tables[] = {
    QBVISA_TABLE(RK421_matrixLocation), QBVISA_TABLE(RK421_isoLocationX),
    QBVISA_TABLE(RK421_isoLocationY), QBVISA_TABLE(RK421_isoLocationCV)};
constexpr LocationTableRef kRK422Tables[] = {
    QBVISA_TABLE(RK422_matrixLocation), QBVISA_TABLE(RK422_isoLocationY)};
constexpr LocationTableRef kRK423Tables[] = {
    QBVISA_TABLE(RK423_matrixLocation), QBVISA_TABLE(RK423_isoLocationX),
    QBVISA_TABLE(RK423_isoLocationY), QBVISA_TABLE(RK423_isoLocationCV)};

#undef QBVISA_TABLE

}  // namespace

std::span<const LocationTableRef> crosspointLocationTables(uint32_t kind) {
  switch (kind) {
    case MATRIX_KIND_RK420: return kRK420Tables;
    case MATRIX_KIND_RK421: return kRK421Tables;
    case MATRIX_KIND_RK422: return kRK422Tables;
    case MATRIX_KIND_RK423: return kRK423Tables;
    default: return {};
  }
}

}  // namespace qbvisa
