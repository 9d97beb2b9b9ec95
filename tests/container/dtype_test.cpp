#include "container/dtype.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace zel {
namespace {

struct GeometryRow {
  std::uint16_t dtype;
  unsigned blockElements;
  unsigned blockBytes;
  unsigned at8, at12, at16;  // the layout table's three values, by their offset
  unsigned splitUnit;
  unsigned containerCode;
};

// The layout values as readers of containers know them; the split unit and the declared code as weight
// conversion uses them.
constexpr GeometryRow kRows[] = {
    {0, 1, 4, 0, 0, 0, 4, 0},         {1, 1, 2, 0, 0, 0, 2, 1},
    {2, 1, 2, 0, 0, 0, 2, 2},         {3, 32, 18, 2, 0, 0, 4, 0},
    {4, 32, 34, 2, 0, 0, 4, 0},       {5, 256, 144, 12, 4, 2, 144, 5},
    {6, 256, 176, 12, 4, 2, 176, 6},  {7, 256, 210, 16, 192, 208, 210, 7},
    {8, 256, 290, 2, 0, 65535, 4, 0},
};

class BlockGeometryRow : public testing::TestWithParam<GeometryRow> {};

TEST_P(BlockGeometryRow, HasTheFormatsValues) {
  const GeometryRow& row = GetParam();
  const BlockGeometry* geometry = findBlockGeometry(row.dtype);
  ASSERT_NE(geometry, nullptr);
  EXPECT_EQ(geometry->blockElements, row.blockElements);
  EXPECT_EQ(geometry->blockBytes, row.blockBytes);
  EXPECT_EQ(geometry->layout[0], row.at8);
  EXPECT_EQ(geometry->layout[1], row.at12);
  EXPECT_EQ(geometry->layout[2], row.at16);
  EXPECT_EQ(geometry->splitUnit, row.splitUnit);
  EXPECT_EQ(geometry->containerCode, row.containerCode);
}

INSTANTIATE_TEST_SUITE_P(AllDTypes, BlockGeometryRow, testing::ValuesIn(kRows),
                         [](const auto& row) { return "dtype" + std::to_string(row.param.dtype); });

TEST(DType, ValuesAreThoseStoredInContainers) {
  EXPECT_EQ(static_cast<int>(DType::F32), 0);
  EXPECT_EQ(static_cast<int>(DType::F16), 1);
  EXPECT_EQ(static_cast<int>(DType::BF16), 2);
  EXPECT_EQ(static_cast<int>(DType::Q4_K), 5);
  EXPECT_EQ(static_cast<int>(DType::Q5_K), 6);
  EXPECT_EQ(static_cast<int>(DType::Q6_K), 7);
}

TEST(DType, EightIsTheLastValueWithAGeometry) {
  EXPECT_EQ(kDTypeCount, 9U);
  EXPECT_NE(findBlockGeometry(8), nullptr);
  EXPECT_EQ(findBlockGeometry(9), nullptr);
  EXPECT_EQ(findBlockGeometry(65535), nullptr);
}

}  // namespace
}  // namespace zel
