// Which files of a directory are its weights, and which of them are missing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "prepare_weights.h"
#include "support/safetensors_builder.h"
#include "support/torch_builder.h"
#include "support/unprivileged.h"

namespace zel::tool::prepare {
namespace {

using test::SafetensorsBuilder;
using test::SavedPickle;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

std::string shardOf(const std::string& tensor) {
  return SafetensorsBuilder().tensor(tensor, "F32", {2}).bytes();
}

std::string torchShardOf(const std::string& tensor) {
  return test::savedZip(SavedPickle().stateDict({{tensor, {2}, {1}, "0", 2}}).stop(),
                        {{"0", test::bytesOf<float>({1, 2})}})
      .build();
}

// ---- shards that are numbered, without an index file

class NumberedShards : public WeightsTest {
 protected:
  // Refused because `first` promises `promised` shards, of which `there` are there.
  void expectMissing(const std::string& first, int promised, int there) const {
    const Refusal refused = refusal();
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.finding, "weights.index-missing");
    EXPECT_EQ(refused.message, first + ": its name says that there are " + std::to_string(promised) +
                                   " shards, there are " + std::to_string(there));
    EXPECT_EQ(refused.remedy, "Fetch the shards that are missing.");
  }
};

TEST_F(NumberedShards, OfSafetensorsAreTakenWhenAllAreThere) {
  write("model-00001-of-00003.safetensors", shardOf("a"));
  expectMissing("model-00001-of-00003.safetensors", 3, 1);
  write("model-00003-of-00003.safetensors", shardOf("c"));
  expectMissing("model-00001-of-00003.safetensors", 3, 2);
  write("model-00002-of-00003.safetensors", shardOf("b"));
  EXPECT_THAT(prepare(), IsEmpty());
  EXPECT_THAT(outNames(), ElementsAre("model-00001-of-00003.safetensors", "model-00002-of-00003.safetensors",
                                      "model-00003-of-00003.safetensors"));
}

TEST_F(NumberedShards, OfTorchAreTakenWhenAllAreThere) {
  write("pytorch_model-00002-of-00002.bin", torchShardOf("b"));
  expectMissing("pytorch_model-00002-of-00002.bin", 2, 1);
  write("pytorch_model-00001-of-00002.bin", torchShardOf("a"));
  prepare();
  EXPECT_THAT(outNames(),
              ElementsAre("model-00001-of-00002.safetensors", "model-00002-of-00002.safetensors"));
}

TEST_F(NumberedShards, MayBeginWithZero) {
  write("model-00000-of-00002.safetensors", shardOf("a"));
  expectMissing("model-00000-of-00002.safetensors", 2, 1);
  write("model-00001-of-00002.safetensors", shardOf("b"));
  EXPECT_THAT(prepare(), IsEmpty());
}

TEST_F(NumberedShards, AreNotMadeCompleteByANumberBeyondTheLast) {
  write("model-00001-of-00002.safetensors", shardOf("a"));
  write("model-00003-of-00002.safetensors", shardOf("b"));
  expectMissing("model-00001-of-00002.safetensors", 2, 1);
}

TEST_F(NumberedShards, AreNotMadeCompleteByThoseOfAnotherSeries) {
  write("extra.safetensors", shardOf("x"));
  write("model-00001-of-00002.safetensors", shardOf("a"));
  write("other-00002-of-00002.safetensors", shardOf("b"));
  expectMissing("model-00001-of-00002.safetensors", 2, 1);
}

TEST_F(NumberedShards, MayHaveASecondEnding) {
  write("model-00001-of-00002.fp16.safetensors", shardOf("a"));
  expectMissing("model-00001-of-00002.fp16.safetensors", 2, 1);
}

TEST_F(NumberedShards, AreCountedWithoutAnIndexOnly) {
  // The index is what was published; it says that this is all.
  write("model-00001-of-00002.safetensors", shardOf("a"));
  write("model.safetensors.index.json", R"({"weight_map":{"a":"model-00001-of-00002.safetensors"}})");
  EXPECT_THAT(prepare(), IsEmpty());
}

class UnnumberedShards : public WeightsTest, public testing::WithParamInterface<const char*> {};
TEST_P(UnnumberedShards, AreTakenAsTheyAre) {
  write(GetParam(), shardOf("a"));
  EXPECT_THAT(prepare(), IsEmpty());
  EXPECT_THAT(outNames(), ElementsAre(GetParam()));
}
INSTANTIATE_TEST_SUITE_P(All, UnnumberedShards,
                         testing::Values("model-00001-of-00001.safetensors", "model-1-of-.safetensors",
                                         "model-1-of-0.safetensors", "model-1-of-2x.safetensors",
                                         "model-of-2.safetensors", "1-of-2.safetensors",
                                         "model-one-of-2.safetensors", "best-of-breed.safetensors",
                                         "model-1-of-1000000.safetensors"));

// ---- files that may not be read

class SealedWeights : public WeightsTest {
 protected:
  void expectDenied(const std::string& name, const std::string& finding) const {
    test::sealFile(dir_.path(), in(), name);
    const test::Unprivileged user;
    const Refusal refused = refusal();
    EXPECT_EQ(refused.code, 6);
    EXPECT_EQ(refused.finding, finding);
    EXPECT_EQ(refused.message, name + ": it may not be read");
    EXPECT_EQ(refused.remedy, "chmod u+r '" + name + "'");
  }
};

TEST_F(SealedWeights, OfSafetensorsAreRefused) {
  write("model.safetensors", shardOf("a"));
  expectDenied("model.safetensors", "weights.no-permission");
}

TEST_F(SealedWeights, OfTorchAreRefused) {
  write("pytorch_model.bin", torchShardOf("a"));
  expectDenied("pytorch_model.bin", "weights.no-permission");
}

TEST_F(SealedWeights, WithASealedIndexAreRefusedForIt) {
  write("model.safetensors", shardOf("a"));
  write("model.safetensors.index.json", R"({"weight_map":{"a":"model.safetensors"}})");
  expectDenied("model.safetensors.index.json", "file.no-permission");
}

TEST_F(SealedWeights, InADirectoryThatCannotBeListedAreRefused) {
  write("model.safetensors", shardOf("a"));
  test::sealFile(dir_.path(), in(), "config.json");
  ASSERT_EQ(chmod(in().c_str(), 0311), 0);
  {
    const test::Unprivileged user;
    const Refusal refused = refusal();
    EXPECT_EQ(refused.code, 6);
    EXPECT_EQ(refused.finding, "directory.unreadable");
    EXPECT_EQ(refused.message, in() + ": the directory cannot be listed");
    EXPECT_EQ(refused.remedy, "chmod u+rx '" + in() + "'");
  }
  ASSERT_EQ(chmod(in().c_str(), 0755), 0);
}

// ---- an index that is no regular file

class IrregularIndex : public WeightsTest {
 protected:
  void expectRefused(const std::string& name) const {
    const Refusal refused = refusal();
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.finding, "file.not-regular");
    EXPECT_EQ(refused.message, name + ": it is not a regular file");
    EXPECT_EQ(refused.remedy, "Put the file there: '" + name + "'.");
  }
};

TEST_F(IrregularIndex, IsRefusedAsAPipe) {
  write("model.safetensors", shardOf("a"));
  ASSERT_EQ(mkfifo((in() + "/model.safetensors.index.json").c_str(), 0600), 0);
  expectRefused("model.safetensors.index.json");
}

TEST_F(IrregularIndex, IsRefusedAsAFolder) {
  write("pytorch_model-00001-of-00001.bin", torchShardOf("a"));
  fs::create_directory(in() + "/pytorch_model.bin.index.json");
  expectRefused("pytorch_model.bin.index.json");
}

TEST_F(IrregularIndex, IsNotLookedAtWhereItIsNotRead) {
  write("model.safetensors", shardOf("a"));
  ASSERT_EQ(mkfifo((in() + "/pytorch_model.bin.index.json").c_str(), 0600), 0);
  EXPECT_THAT(prepare(), IsEmpty());
}

TEST_F(IrregularIndex, IsDamagedAsALinkToNothing) {
  write("model.safetensors", shardOf("a"));
  fs::create_symlink("nowhere", in() + "/model.safetensors.index.json");
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.finding, "weights.refused");
  EXPECT_EQ(refused.message, "model.safetensors.index.json: it cannot be read");
  EXPECT_EQ(refused.remedy, "Fetch model.safetensors.index.json again.");
}

// ---- an index of .safetensors files that are not there

constexpr char kTorchIndexText[] = R"({"weight_map":{"a":"first.bin","b":"second.bin"}})";
constexpr char kStaleIndexText[] = R"({"weight_map":{"a":"model-00001-of-00001.safetensors"}})";

class StaleIndex : public WeightsTest {
 protected:
  StaleIndex() { write("model.safetensors.index.json", kStaleIndexText); }
  void expectSafetensorsMissing() const {
    const Refusal refused = refusal();
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.finding, "weights.index-missing");
    EXPECT_EQ(refused.message,
              "model-00001-of-00001.safetensors: it is missing, and model.safetensors.index.json names it");
    EXPECT_EQ(refused.remedy, "Fetch 'model-00001-of-00001.safetensors'.");
  }
};

constexpr char kPassedOver[] =
    "model.safetensors.index.json: file: model.safetensors.index.json ->  (weights.index-missing)";

TEST_F(StaleIndex, GivesWayToTheTorchShardsOfAnIndex) {
  write("first.bin", torchShardOf("a"));
  write("second.bin", torchShardOf("b"));
  write("pytorch_model.bin.index.json", kTorchIndexText);
  const Changes changes = prepare();
  EXPECT_THAT(
      changeTexts(changes),
      ElementsAre(kPassedOver,
                  "first.safetensors: file: first.bin -> first.safetensors (weights.sharded-bin)",
                  "second.safetensors: file: second.bin -> second.safetensors (weights.sharded-bin)"));
  EXPECT_EQ(changes[0].why, "There is no .safetensors file, and there are shards of a torch checkpoint.");
  EXPECT_THAT(outNames(), ElementsAre("first.safetensors", "second.safetensors"));
}

TEST_F(StaleIndex, GivesWayToNumberedTorchShards) {
  write("pytorch_model-00001-of-00001.bin", torchShardOf("a"));
  EXPECT_THAT(changeTexts(prepare()), ElementsAre(kPassedOver,
                                                  "model-00001-of-00001.safetensors: file: "
                                                  "pytorch_model-00001-of-00001.bin -> "
                                                  "model-00001-of-00001.safetensors (pytorch.folder)"));
}

TEST_F(StaleIndex, GivesWayToTorchShardsOfWhichOneIsMissing) {
  write("first.bin", torchShardOf("a"));
  write("pytorch_model.bin.index.json", kTorchIndexText);
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "weights.index-missing");
  EXPECT_EQ(refused.message, "second.bin: it is missing, and pytorch_model.bin.index.json names it");
  EXPECT_EQ(refused.remedy, "Fetch 'second.bin'.");
}

TEST_F(StaleIndex, NamesWhatIsMissingWhereNoTorchShardIsThereEither) {
  expectSafetensorsMissing();
  write("pytorch_model.bin.index.json", kTorchIndexText);
  expectSafetensorsMissing();
}

TEST_F(StaleIndex, HoldsWhereASafetensorsFileIsThere) {
  write("other.safetensors", shardOf("a"));
  write("first.bin", torchShardOf("a"));
  write("second.bin", torchShardOf("b"));
  write("pytorch_model.bin.index.json", kTorchIndexText);
  expectSafetensorsMissing();
}

// ---- the names under which shards are written

class EqualNames : public WeightsTest {
 protected:
  // Two shards of an index, with a tensor each.
  void shards(const std::string& first, const std::string& second) const {
    write(first, torchShardOf("a"));
    write(second, torchShardOf("b"));
    write("pytorch_model.bin.index.json",
          R"({"weight_map":{"a":")" + first + R"(","b":")" + second + R"("}})");
  }
  void expectRefused(const std::string& message, const WeightOptions& options = {}) const {
    const Refusal refused = refusal(options);
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.finding, "weights.refused");
    EXPECT_EQ(refused.message, message);
    EXPECT_EQ(refused.remedy, "Rename one of them, in the index file as well.");
  }
};

TEST_F(EqualNames, OfTorchShardsAreRefusedBeforeAnythingIsWritten) {
  shards("model-1.bin", "pytorch_model-1.bin");
  expectRefused("pytorch_model-1.bin: it and 'model-1.bin' would both be written as 'model-1.safetensors'");
  fs::rename(in() + "/pytorch_model-1.bin", in() + "/pytorch_model-2.bin");
  shards("model-1.bin", "pytorch_model-2.bin");
  prepare();
  EXPECT_THAT(outNames(), ElementsAre("model-1.safetensors", "model-2.safetensors"));
}

TEST_F(EqualNames, WithAndWithoutAnEndingAreRefused) {
  shards("x", "x.bin");
  expectRefused("x.bin: it and 'x' would both be written as 'x.safetensors'");
}

TEST_F(EqualNames, DoNotMatterWhereOneOfTheShardsIsLeftOut) {
  shards("x", "x.bin");
  prepare({false, {"^b$"}, false});
  EXPECT_THAT(tensorsIn("x.safetensors"), ElementsAre("a F32 [2]"));
}

}  // namespace
}  // namespace zel::tool::prepare
