// What no import asks the source of a checkpoint for: it counts before it asks, and reads no names apart.
#include "plugin/importer_hf.cpp"  // the class has no linkage

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"
#include "support/zip_builder.h"

namespace zel {
namespace {

class PtSourceTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string bytes =
        test::ZipBuilder().add("data.pkl", test::stateDict({{"w", {1}, "s"}})).add("s", "1234").build();
    ASSERT_THAT(source_.open(dir_.write("pytorch_model.bin", bytes).c_str()), test::IsOk());
  }

  test::TempDir dir_;
  PtSource source_;
};

TEST_F(PtSourceTest, HasANameForEachIndexBelowItsCount) {
  ASSERT_EQ(source_.count(), 1U);
  ASSERT_NE(source_.nameAt(0), nullptr);
  EXPECT_EQ(*source_.nameAt(0), "w");
  EXPECT_EQ(source_.nameAt(1), nullptr);
}

TEST_F(PtSourceTest, FillsNothingBehindItsLastTensor) {
  WeightTensor tensor;
  tensor.name = "mine";
  tensor.nbytes = 7;
  EXPECT_FALSE(source_.tensorAt(1, tensor));
  EXPECT_EQ(tensor.name, "mine");
  EXPECT_EQ(tensor.nbytes, 7U);
  EXPECT_TRUE(source_.tensorAt(0, tensor));
  EXPECT_EQ(tensor.name, "w");
  EXPECT_EQ(tensor.nbytes, 4U);
}

}  // namespace
}  // namespace zel
