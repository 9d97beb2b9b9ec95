// Which weight files of a directory are taken, and in which order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "convert/container_view.h"
#include "plugin/plugin_host.h"
#include "support/model_dir_builder.h"

namespace zel::test {
namespace {

using testing::ElementsAre;

class Shards : public testing::Test {
 protected:
  ContainerView import(const ModelDirBuilder& model) {
    answer_ = importDir(model.write(dir_), dir_ / "out.okv2");
    if (answer_.code != 0) throw std::runtime_error(answer_.message);
    return ContainerView(readWholeFile(dir_ / "out.okv2"));
  }

  // One tensor of one name in every file: the container keeps equal names in the order of addition, so
  // their data tell the order in which the files were read. The result gives positions in `names`.
  std::vector<int> readingOrder(const std::vector<std::string>& names) {
    ModelDirBuilder model;
    for (std::size_t k = 0; k < names.size(); ++k) {
      model.shard(names[k], SafetensorsBuilder().tensorData("w", "F32", {1}, std::string(4, char('0' + k))));
    }
    std::vector<int> order;
    for (const ContainerView::Tensor& each : import(model).tensors)
      order.push_back(each.data[0] - '0');
    return order;
  }

  TempDir dir_;
  ImportAnswer answer_{};
};

TEST_F(Shards, AreReadInTheOrderOfTheirZeroPaddedNumbers) {
  EXPECT_THAT(readingOrder({"model-00003-of-00003.safetensors", "model-00001-of-00003.safetensors",
                            "model-00002-of-00003.safetensors"}),
              ElementsAre(1, 2, 0));
}

TEST_F(Shards, WithoutZeroPaddingAreReadInByteOrder) {
  EXPECT_THAT(readingOrder({"m-2.safetensors", "m-10.safetensors"}), ElementsAre(1, 0));
}

TEST_F(Shards, WithAnUpperCaseInitialAreReadBeforeLowerCaseOnes) {
  EXPECT_THAT(readingOrder({"a.safetensors", "B.safetensors"}), ElementsAre(1, 0));
}

TEST_F(Shards, WithHighBytesAreReadAfterAscii) {
  EXPECT_THAT(readingOrder({"\xC3\xA9.safetensors", "z.safetensors"}), ElementsAre(1, 0));
}

TEST_F(Shards, WithAShorterNameThatIsAPrefixAreReadFirst) {
  EXPECT_THAT(readingOrder({"a.safetensors.safetensors", "a.safetensors"}), ElementsAre(1, 0));
}

TEST_F(Shards, MayHaveANameThatIsNothingButTheSuffix) {
  EXPECT_THAT(readingOrder({"a.safetensors", ".safetensors"}), ElementsAre(1, 0));
}

TEST_F(Shards, MayHaveHiddenNames) { EXPECT_THAT(readingOrder({".hidden.safetensors"}), ElementsAre(0)); }

TEST_F(Shards, MayBeSymbolicLinks) {
  const std::string target =
      dir_.write("elsewhere", SafetensorsBuilder().tensor("linked", "F32", {1}).bytes());
  EXPECT_THAT(import(ModelDirBuilder().noWeights().symlink("m.safetensors", target)).tensorNames(),
              ElementsAre("linked"));
}

TEST_F(Shards, AllGoIntoOneContainerWhoseCountersAreSums) {
  const ContainerView container = import(
      ModelDirBuilder()
          .shard("m-1.safetensors", SafetensorsBuilder().tensor("z", "F32", {2}).tensor("y", "F16", {1}))
          .shard("m-2.safetensors", SafetensorsBuilder())
          .shard("m-3.safetensors", SafetensorsBuilder().tensor("a", "BF16", {3})));
  EXPECT_THAT(container.tensorNames(), ElementsAre("a", "y", "z"));
  EXPECT_EQ(answer_.tensors, 3u);
  EXPECT_EQ(container.tensors[0].data, patternBytes(6, 0));
  EXPECT_EQ(container.tensors[1].data, patternBytes(2, 1));
  EXPECT_EQ(container.tensors[2].data, patternBytes(8, 0));
}

TEST_F(Shards, GiveEqualBytesWhateverOrderTheirFilesWereCreatedIn) {
  const auto shard = [](char mark) {
    return SafetensorsBuilder().tensorData("w", "F32", {1}, std::string(4, mark)).bytes();
  };
  const std::string forward = ModelDirBuilder().noWeights().write(dir_, "forward");
  const std::string backward = ModelDirBuilder().noWeights().write(dir_, "backward");
  for (char mark = 'a'; mark <= 'h'; ++mark) {
    const char other = char('a' + 'h' - mark);
    dir_.write(std::string("forward/") + mark + ".safetensors", shard(mark));
    dir_.write(std::string("backward/") + other + ".safetensors", shard(other));
  }
  ASSERT_EQ(importDir(forward, dir_ / "f").code, 0);
  ASSERT_EQ(importDir(backward, dir_ / "b").code, 0);
  EXPECT_EQ(readWholeFile(dir_ / "f"), readWholeFile(dir_ / "b"));
}

// ---- files that are not taken

TEST_F(Shards, AreTakenBeforePytorchModelBinWhichIsNotLookedAt) {
  EXPECT_THAT(import(ModelDirBuilder()
                         .shard("m.safetensors", SafetensorsBuilder().tensor("w", "F32", {1}))
                         .file("pytorch_model.bin", "no archive"))
                  .tensorNames(),
              ElementsAre("w"));
}

class NotAShard : public testing::TestWithParam<const char*> {};

TEST_P(NotAShard, IsIgnored) {
  const TempDir dir;
  const std::string source = ModelDirBuilder().noWeights().file(GetParam(), "unreadable").write(dir);
  const ImportAnswer answer = importDir(source, dir / "out");
  EXPECT_EQ(answer.code, 2);
  EXPECT_EQ(answer.message, "convert: HF directory has no safetensors or pytorch_model.bin");
}

INSTANTIATE_TEST_SUITE_P(Names, NotAShard,
                         testing::Values("model.SAFETENSORS", "model.Safetensors", "model.safetensorS",
                                         "safetensors", "model.safetensors.index.json", "model.safetensors ",
                                         "model.safetensors.bak", "modelsafetensors", "model.safetensor",
                                         "pytorch_model-00001-of-00002.bin", "pytorch_model.BIN",
                                         "pytorch_model.bin.index.json", "model.bin",
                                         "sub/model.safetensors"));

}  // namespace
}  // namespace zel::test
