// Imports that fail: host code, text, and what is left of the destination.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "plugin/output_capture.h"
#include "plugin/plugin_host.h"
#include "support/model_dir_builder.h"

namespace zel::test {
namespace {

class ImportFailure : public testing::Test {
 protected:
  // Nothing is written, to the destination or to the two numbers, before the container is.
  void expectFailure(const std::string& source, std::int32_t code, const std::string& message) {
    const std::string destination = dir_.write("out.okv2", "as it was");
    OutputCapture capture;
    const ImportAnswer answer = importDir(source, destination);
    EXPECT_EQ(capture.stop(), "");
    EXPECT_EQ(answer.code, code);
    EXPECT_EQ(answer.message, message);
    EXPECT_EQ(answer.tensors, kUnwritten);
    EXPECT_EQ(answer.fileSize, kUnwritten);
    EXPECT_EQ(readWholeFile(destination), "as it was");
  }
  void expectFailure(const ModelDirBuilder& model, std::int32_t code, const std::string& message) {
    expectFailure(model.write(dir_), code, message);
  }

  TempDir dir_;
};

const char* const kNoWeights = "convert: HF directory has no safetensors or pytorch_model.bin";
const char* const kNoConfig = "hf: no config.json in directory";

// ---- the configuration comes first

TEST_F(ImportFailure, OfAMissingDirectory) { expectFailure(dir_ / "missing", 2, kNoConfig); }

TEST_F(ImportFailure, OfARegularFileAsDirectory) { expectFailure(dir_.write("file", "x"), 2, kNoConfig); }

TEST_F(ImportFailure, OfAnEmptyPath) { expectFailure("", 2, kNoConfig); }

TEST_F(ImportFailure, WithoutConfigJson) {
  expectFailure(ModelDirBuilder().without("config.json"), 2, kNoConfig);
}

TEST_F(ImportFailure, WithAnEmptyConfigJson) { expectFailure(ModelDirBuilder().config(""), 2, kNoConfig); }

TEST_F(ImportFailure, WithAFolderAsConfigJson) {
  expectFailure(ModelDirBuilder().without("config.json").folder("config.json"), 2, kNoConfig);
}

TEST_F(ImportFailure, WithAFifoAsConfigJsonAtOnce) {
  expectFailure(ModelDirBuilder().without("config.json").fifo("config.json"), 2, kNoConfig);
}

TEST_F(ImportFailure, WithADeviceAsConfigJson) {
  expectFailure(ModelDirBuilder().without("config.json").symlink("config.json", "/dev/zero"), 2, kNoConfig);
}

TEST_F(ImportFailure, WithABrokenConfigJson) {
  expectFailure(ModelDirBuilder().config("{"), 7, "hf: bad config.json");
}

TEST_F(ImportFailure, WithAConfigJsonThatIsNoObject) {
  expectFailure(ModelDirBuilder().config("[]"), 7, "hf: config.json not an object");
}

TEST_F(ImportFailure, WithoutAModelType) {
  expectFailure(ModelDirBuilder().config("{}"), 2, "hf: config.json has no model_type");
}

TEST_F(ImportFailure, WithAnEmptyModelTypeThatArchitecturesDoNotReplace) {
  expectFailure(ModelDirBuilder().config(R"({"model_type":"","architectures":["LlamaForCausalLM"]})"), 2,
                "hf: config.json has no model_type");
}

TEST_F(ImportFailure, OfTheConfigurationIsReportedBeforeMissingWeights) {
  expectFailure(ModelDirBuilder().config("{").noWeights(), 7, "hf: bad config.json");
}

// ---- the weight files

TEST_F(ImportFailure, WithoutWeights) { expectFailure(ModelDirBuilder().noWeights(), 2, kNoWeights); }

TEST_F(ImportFailure, WithoutWeightsThoughWithATokenizer) {
  expectFailure(ModelDirBuilder().tokenizer().noWeights(), 2, kNoWeights);
}

TEST_F(ImportFailure, WithAFolderAsPytorchModelBin) {
  expectFailure(ModelDirBuilder().noWeights().folder("pytorch_model.bin"), 2, kNoWeights);
}

TEST_F(ImportFailure, WithAFifoAsPytorchModelBinAtOnce) {
  expectFailure(ModelDirBuilder().noWeights().fifo("pytorch_model.bin"), 2, kNoWeights);
}

TEST_F(ImportFailure, WithADanglingLinkAsPytorchModelBin) {
  expectFailure(ModelDirBuilder().noWeights().symlink("pytorch_model.bin", "nowhere"), 2, kNoWeights);
}

TEST_F(ImportFailure, WithAPytorchModelBinThatIsNoArchive) {
  expectFailure(ModelDirBuilder().noWeights().file("pytorch_model.bin", std::string(130, 'x')), 7,
                "torch: no EOCD");
}

TEST_F(ImportFailure, WithAFifoAsShardAtOnce) {
  expectFailure(ModelDirBuilder().noWeights().fifo("x.safetensors"), 7, "safetensors: file too small");
}

TEST_F(ImportFailure, WithADeviceAsShard) {
  expectFailure(ModelDirBuilder().noWeights().symlink("x.safetensors", "/dev/zero"), 7,
                "safetensors: file too small");
}

TEST_F(ImportFailure, WithAFolderAsShard) {
  const std::string source = ModelDirBuilder().noWeights().folder("x.safetensors/inside").write(dir_);
  struct stat info {};
  ASSERT_EQ(stat((source + "/x.safetensors").c_str(), &info), 0);
  // The size is looked at before the mapping, and a few file systems give folders next to none.
  if (info.st_size < 8) {
    expectFailure(source, 7, "safetensors: file too small");
  } else {
    expectFailure(source, 6, "safetensors: mmap failed");
  }
}

TEST_F(ImportFailure, WithADanglingLinkAsShard) {
  expectFailure(ModelDirBuilder().noWeights().symlink("x.safetensors", "nowhere"), 6,
                "safetensors: open failed");
}

TEST_F(ImportFailure, WithAShardOfAnUnsupportedType) {
  expectFailure(ModelDirBuilder().shard(
                    "x.safetensors", SafetensorsBuilder().tensor("steps", "I64", {1}, {0, 8}).dataBytes(8)),
                3, "safetensors: unsupported dtype 'I64'");
}

TEST_F(ImportFailure, WithABadShardBehindGoodOnes) {
  expectFailure(ModelDirBuilder()
                    .shard("m-1.safetensors", SafetensorsBuilder().tensor("w", "F32", {1}))
                    .shard("m-2.safetensors", SafetensorsBuilder().headerJson("[]"))
                    .shard("m-3.safetensors", SafetensorsBuilder().headerJson("x")),
                7, "safetensors: header not an object");
}

TEST_F(ImportFailure, WithAShardThatIsAPointerFile) {
  expectFailure(
      ModelDirBuilder().noWeights().file("m.safetensors", "version https://" + std::string(119, 'x')), 7,
      "safetensors: bad header length");
}

TEST_F(ImportFailure, WithOnlyEmptyShards) {
  expectFailure(ModelDirBuilder().shard("m.safetensors", SafetensorsBuilder()), 2,
                "OKV2: no tensors to write");
}

TEST_F(ImportFailure, WithAScalar) {
  expectFailure(ModelDirBuilder().shard("m.safetensors", SafetensorsBuilder().tensor("s", "F32", {})), 2,
                "OKV2: bad tensor memory source");
}

TEST_F(ImportFailure, WithATensorWithoutAName) {
  expectFailure(ModelDirBuilder().shard("m.safetensors", SafetensorsBuilder().tensor("", "F32", {1})), 2,
                "convert: cannot map tensor ''");
}

// Imports a directory whose files can be opened by name, but whose names cannot be listed.
ImportAnswer importUnlistable(const TempDir& dir, const std::string& source, const std::string& destination) {
  EXPECT_EQ(chmod(source.c_str(), 0311), 0);
  // Permissions do not bind the superuser: act as "nobody" for the one call.
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    EXPECT_EQ(chmod(dir.path().c_str(), 0755), 0);
    EXPECT_EQ(seteuid(65534), 0);
  }
  ImportAnswer answer = importDir(source, destination);
  if (isRoot) {
    EXPECT_EQ(seteuid(0), 0);
  }
  EXPECT_EQ(chmod(source.c_str(), 0755), 0);
  EXPECT_FALSE(std::filesystem::exists(destination));
  return answer;
}

TEST_F(ImportFailure, OfADirectoryThatMayNotBeListed) {
  const ImportAnswer answer = importUnlistable(dir_, ModelDirBuilder().write(dir_), dir_ / "out.okv2");
  EXPECT_EQ(answer.code, 6);
  EXPECT_EQ(answer.message, "convert: cannot open directory");
}

TEST_F(ImportFailure, OfTheConfigurationIsReportedBeforeTheDirectoryIsListed) {
  const ImportAnswer answer =
      importUnlistable(dir_, ModelDirBuilder().config("{").write(dir_), dir_ / "out.okv2");
  EXPECT_EQ(answer.code, 7);
  EXPECT_EQ(answer.message, "hf: bad config.json");
}

// ---- the destination

TEST_F(ImportFailure, OfADestinationInAMissingFolder) {
  const ImportAnswer answer = importDir(ModelDirBuilder().write(dir_), dir_ / "no/such/folder");
  EXPECT_EQ(answer.code, 2);
  EXPECT_EQ(answer.message, "OKV2: cannot open output file");
}

TEST_F(ImportFailure, OfADestinationThatIsAFolder) {
  const ImportAnswer answer = importDir(ModelDirBuilder().write(dir_), dir_.path());
  EXPECT_EQ(answer.code, 2);
  EXPECT_EQ(answer.message, "OKV2: cannot open output file");
}

TEST_F(ImportFailure, OfAnEmptyDestinationPath) {
  const ImportAnswer answer = importDir(ModelDirBuilder().write(dir_), "");
  EXPECT_EQ(answer.code, 2);
  EXPECT_EQ(answer.message, "OKV2: cannot open output file");
}

TEST_F(ImportFailure, CreatesNoDestination) {
  const std::string source = ModelDirBuilder().noWeights().write(dir_);
  EXPECT_EQ(importDir(source, dir_ / "new").code, 2);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "new"));
}

// A mapped shard that is written to would be copied over itself while it is read.
class DestinationIsAShard : public testing::Test {
 protected:
  void expectRefusal(const std::string& destination) {
    const ImportAnswer answer = importDir(source_, destination);
    EXPECT_EQ(answer.code, 2);
    EXPECT_EQ(answer.message, "OKV2: cannot open output file");
    EXPECT_EQ(answer.tensors, kUnwritten);
    EXPECT_EQ(readWholeFile(first_), firstBytes_);
    EXPECT_EQ(readWholeFile(second_), secondBytes_);
  }

  TempDir dir_;
  std::string source_ = ModelDirBuilder()
                            .shard("m-1.safetensors", SafetensorsBuilder().tensor("a", "F32", {100}))
                            .shard("m-2.safetensors", SafetensorsBuilder().tensor("b", "F32", {50}))
                            .write(dir_);
  std::string first_ = source_ + "/m-1.safetensors";
  std::string second_ = source_ + "/m-2.safetensors";
  std::string firstBytes_ = readWholeFile(first_);
  std::string secondBytes_ = readWholeFile(second_);
};

TEST_F(DestinationIsAShard, ByPath) {
  expectRefusal(first_);
  expectRefusal(second_);
}

TEST_F(DestinationIsAShard, ByAnotherSpellingOfThePath) {
  expectRefusal(source_ + "/../model/./m-2.safetensors");
}

TEST_F(DestinationIsAShard, ThroughASymbolicLink) {
  std::filesystem::create_symlink(first_, dir_ / "soft");
  expectRefusal(dir_ / "soft");
}

TEST_F(DestinationIsAShard, ThroughAHardLink) {
  std::filesystem::create_hard_link(second_, dir_ / "hard");
  expectRefusal(dir_ / "hard");
}

TEST_F(DestinationIsAShard, WhichIsItselfALinkToTheDestination) {
  const std::string target = dir_.write("blob", SafetensorsBuilder().tensor("c", "F32", {9}).bytes());
  const std::string before = readWholeFile(target);
  std::filesystem::create_symlink(target, source_ + "/m-3.safetensors");
  expectRefusal(target);
  EXPECT_EQ(readWholeFile(target), before);
}

TEST_F(DestinationIsAShard, OnlyWhenItIsTheSameFile) {
  std::filesystem::copy_file(first_, dir_ / "copy");
  EXPECT_EQ(importDir(source_, dir_ / "copy").code, 0);
  EXPECT_EQ(readWholeFile(first_), firstBytes_);
}

}  // namespace
}  // namespace zel::test
