// Read-only chassis facts for bindings: slot geometry, fitted sub-matrices,
// closure limit and model name of each model, and the refusals.
#include <gtest/gtest.h>

#include <cstring>

#include "qbvisa_ext.h"
#include "switching_bench.hpp"

namespace {

using qbsim::Model;

TEST(ExtensionInfoTest, SlotZeroOfEveryModel) {
  struct Case {
    Model model;
    const char *name;
    uint32_t rows, columns, subMatrices, closureLimit, kind;
  } cases[] = {
      {Model::RK420, "RK420", 12, 10, 5, 400, MATRIX_KIND_RK420},
      {Model::RK420B, "RK420B", 12, 10, 5, 400, MATRIX_KIND_RK420},
      {Model::RK421, "RK421", 10, 12, 4, 270, MATRIX_KIND_RK421},
      {Model::RK422, "RK422", 16, 96, 21, 0, MATRIX_KIND_RK422},
      {Model::RK423, "RK423", 8, 12, 1, 0, MATRIX_KIND_RK423},
      {Model::RK423B, "RK423B", 8, 12, 1, 0, MATRIX_KIND_RK423},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    qbsim::ChassisConfig config = qbtest::chassisConfig(c.model);
    config.presenceMask = 0x5;  // sub-matrices 0 and 2 fitted
    config.presenceMaskSet = true;
    const qbtest::Connection chassis = qbtest::readyChassis(config);
    QBVISA_SlotInfo info;
    std::memset(&info, 0xAB, sizeof info);
    ASSERT_EQ(QBVISA_GetSlotInfo(chassis.session, 0, &info), 0);
    EXPECT_EQ(info.rows, c.rows);
    EXPECT_EQ(info.columnsPerSubMatrix, c.columns);
    EXPECT_EQ(info.subMatrices, c.subMatrices);
    EXPECT_EQ(info.pointCount, c.rows * c.columns * c.subMatrices);
    EXPECT_EQ(info.arrayWords, chassis.record->slots[0].arrayWordLimit);
    EXPECT_EQ(info.closureLimit, c.closureLimit);
    EXPECT_EQ(info.matrixKind, c.kind);
    EXPECT_EQ(info.fittedMask, c.subMatrices == 1 ? 0x1u : 0x5u);
    char name[16];
    ASSERT_EQ(QBVISA_GetModelName(chassis.session, name, sizeof name), 0);
    EXPECT_STREQ(name, c.name);
  }
}

TEST(ExtensionInfoTest, RefusalsAndCutName) {
  const qbtest::Connection chassis =
      qbtest::readyChassis(qbtest::chassisConfig(Model::RK420B));
  QBVISA_SlotInfo info;
  char name[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(QBVISA_GetSlotInfo(qbtest::kUnknownSession, 0, &info), QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_GetSlotInfo(chassis.session, 0, nullptr), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetSlotInfo(chassis.session, 3, &info), QBVISA_ERR_PARAMETER);
  EXPECT_EQ(QBVISA_GetModelName(qbtest::kUnknownSession, name, sizeof name),
            QBVISA_ERR_HANDLE);
  EXPECT_EQ(QBVISA_GetModelName(chassis.session, name, 0), QBVISA_ERR_PARAMETER);
  ASSERT_EQ(QBVISA_GetModelName(chassis.session, name, sizeof name), 0);
  EXPECT_STREQ(name, "RK4");  // cut to the buffer, always terminated
}

}  // namespace
