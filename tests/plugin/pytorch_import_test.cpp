// Model directories with PyTorch weights, through the loaded module: what lands in the container, and what is
// refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "convert/container_view.h"
#include "plugin_host.h"
#include "support/model_dir_builder.h"
#include "support/pickle_builder.h"
#include "support/safetensors_builder.h"
#include "support/temp_dir.h"
#include "support/zip_builder.h"

namespace zel::test {
namespace {

using testing::ElementsAre;

constexpr int kF32 = 0, kF16 = 1, kBF16 = 2;

class PyTorchImport : public testing::Test {
 protected:
  ImportAnswer import(const ModelDirBuilder& model) { return importDir(model.write(temp_), destination()); }
  ImportAnswer import(const std::string& checkpoint) {
    return import(ModelDirBuilder().noWeights().file("pytorch_model.bin", checkpoint));
  }
  ImportAnswer import(const ZipBuilder& checkpoint) { return import(checkpoint.build()); }

  void expectFailure(const ZipBuilder& checkpoint, int code, const std::string& message) {
    const ImportAnswer answer = import(checkpoint);
    EXPECT_EQ(answer.code, code);
    EXPECT_EQ(answer.message, message);
    EXPECT_EQ(answer.tensors, kUnwritten);
    EXPECT_EQ(answer.fileSize, kUnwritten);
    EXPECT_FALSE(std::filesystem::exists(destination()));
  }

  [[nodiscard]] std::string destination() const { return temp_ / "out.okv"; }
  [[nodiscard]] ContainerView container() const { return ContainerView(readWholeFile(destination())); }

  TempDir temp_;
};

ZipBuilder checkpoint(const std::vector<PickleTensor>& tensors) {
  return ZipBuilder().add("data.pkl", stateDict(tensors));
}

void expectTensor(const ContainerView& view, std::string_view name, unsigned dtype,
                  const std::vector<std::uint64_t>& dims, const std::string& data) {
  const ContainerView::Tensor* tensor = view.tensor(name);
  ASSERT_NE(tensor, nullptr) << name;
  EXPECT_EQ(tensor->dtype, dtype) << name;
  EXPECT_EQ(tensor->dims, dims) << name;
  EXPECT_EQ(tensor->data, data) << name;
}

// ---- what lands in the container

TEST_F(PyTorchImport, WritesEveryTensorUnderItsContainerName) {
  const std::string embedding = patternBytes(48, 1);
  const std::string query = patternBytes(12, 2);
  const std::string norm = patternBytes(8, 3);
  const ImportAnswer answer =
      import(checkpoint({{"model.norm.weight", {4}, "n", "BFloat16Storage"},
                         {"model.embed_tokens.weight", {3, 4}, "e", "FloatStorage"},
                         {"model.layers.0.self_attn.q_proj.weight", {2, 3}, "q", "HalfStorage"}})
                 .add("e", embedding)
                 .add("q", query)
                 .add("n", norm));
  ASSERT_EQ(answer.code, 0) << answer.message;
  EXPECT_EQ(answer.tensors, 3u);
  EXPECT_EQ(answer.fileSize, std::filesystem::file_size(destination()));
  const ContainerView view = container();
  EXPECT_THAT(view.tensorNames(),
              ElementsAre("blk.0.attn_q.weight", "output_norm.weight", "token_embd.weight"));
  expectTensor(view, "token_embd.weight", kF32, {3, 4}, embedding);
  expectTensor(view, "blk.0.attn_q.weight", kF16, {2, 3}, query);
  expectTensor(view, "output_norm.weight", kBF16, {4}, norm);
  EXPECT_EQ(view.hiddenSize, 8u);
  EXPECT_EQ(view.numLayers, 2u);
}

TEST_F(PyTorchImport, CutsAFusedProjectionIntoThreeTensors) {
  const std::string data = patternBytes(6 * 4 * 2, 5);
  ASSERT_EQ(
      import(checkpoint({{"transformer.h.7.attn.c_attn.weight", {6, 4}, "s", "HalfStorage"}}).add("s", data))
          .code,
      0);
  const ContainerView view = container();
  expectTensor(view, "blk.7.attn_q.weight", kF16, {2, 4}, data.substr(0, 16));
  expectTensor(view, "blk.7.attn_k.weight", kF16, {2, 4}, data.substr(16, 16));
  expectTensor(view, "blk.7.attn_v.weight", kF16, {2, 4}, data.substr(32, 16));
}

TEST_F(PyTorchImport, GivesTensorsOverOneStorageTheBytesAtTheirOffsets) {
  const std::string data = patternBytes(40, 7);
  ASSERT_EQ(import(checkpoint({{"a", {4}, "s", "FloatStorage", 0},
                               {"b", {4}, "s", "FloatStorage", 2},
                               {"c", {1}, "s", "FloatStorage", 9},
                               {"d", {3}, "s", "HalfStorage", 1}})
                       .add("s", data))
                .code,
            0);
  const ContainerView view = container();
  expectTensor(view, "a", kF32, {4}, data.substr(0, 16));
  expectTensor(view, "b", kF32, {4}, data.substr(8, 16));
  expectTensor(view, "c", kF32, {1}, data.substr(36, 4));
  expectTensor(view, "d", kF16, {3}, data.substr(2, 6));
}

TEST_F(PyTorchImport, ReadsAStorageBehindALongLocalHeader) {
  // As checkpoints are written whose storages start at multiples of 64.
  const std::string data = patternBytes(8, 9);
  ASSERT_EQ(
      import(checkpoint({{"w", {2}, "data/0"}}).add("data/0", data).localExtra(std::string(37, 'Z'))).code,
      0);
  expectTensor(container(), "w", kF32, {2}, data);
}

TEST_F(PyTorchImport, KeepsEqualNamesInTheOrderOfTheProgram) {
  ASSERT_EQ(import(checkpoint({{"w", {1}, "s", "FloatStorage", 1}, {"w", {1}, "s", "FloatStorage", 0}})
                       .add("s", "AAAABBBB"))
                .code,
            0);
  const ContainerView view = container();
  ASSERT_EQ(view.tensors.size(), 2u);
  EXPECT_EQ(view.tensors[0].data, "BBBB");
  EXPECT_EQ(view.tensors[1].data, "AAAA");
}

TEST_F(PyTorchImport, GivesTheSameContainerAsTheSameTensorsInSafetensors) {
  struct Weight {
    const char* name;
    const char* dtype;
    const char* storageClass;
    std::vector<std::uint64_t> shape;
  };
  const Weight weights[] = {
      {"lm_head.weight", "F32", "FloatStorage", {5, 7}},
      {"model.embed_tokens.weight", "BF16", "BFloat16Storage", {5, 7}},
      {"model.layers.0.mlp.up_proj.weight", "F16", "HalfStorage", {3, 2, 2, 1}},
      {"model.layers.10.input_layernorm.weight", "F32", "FloatStorage", {1}},
      {"transformer.h.1.attn.c_attn.bias", "F16", "HalfStorage", {9}},
      {"some.other.name", "F32", "FloatStorage", {2, 2, 2}},
  };
  SafetensorsBuilder safetensors;
  std::vector<PickleTensor> tensors;
  ZipBuilder storages;
  unsigned seed = 0;
  for (const Weight& weight : weights) {
    const std::string data = patternBytes(SafetensorsBuilder::sizeOf(weight.dtype, weight.shape), ++seed);
    const std::string key = "archive/data/" + std::to_string(seed);
    safetensors.tensorData(weight.name, weight.dtype, weight.shape, data);
    tensors.insert(tensors.begin(), {weight.name, weight.shape, key, weight.storageClass});
    storages.add(key, data);
  }
  storages.add("data.pkl", stateDict(tensors));

  const ModelDirBuilder model = ModelDirBuilder().noWeights().tokenizer();
  const std::string fromPyTorch =
      ModelDirBuilder(model).file("pytorch_model.bin", storages.build()).write(temp_, "p");
  const std::string fromSafetensors =
      ModelDirBuilder(model).shard("model.safetensors", safetensors).write(temp_, "s");
  const ImportAnswer one = importDir(fromPyTorch, temp_ / "p.okv");
  const ImportAnswer other = importDir(fromSafetensors, temp_ / "s.okv");
  ASSERT_EQ(one.code, 0) << one.message;
  ASSERT_EQ(other.code, 0) << other.message;
  EXPECT_EQ(one.tensors, 8u);
  EXPECT_EQ(one.tensors, other.tensors);
  EXPECT_EQ(one.fileSize, other.fileSize);
  EXPECT_TRUE(readWholeFile(temp_ / "p.okv") == readWholeFile(temp_ / "s.okv"));
  EXPECT_EQ(ContainerView(readWholeFile(temp_ / "p.okv")).tokens.size(), 4u);
}

// ---- an entry that claims more bytes than it has

ZipBuilder withAStorageThatClaims(std::uint64_t uncompressedBytes, std::uint64_t elements) {
  ZipBuilder zip = checkpoint({{"w", {elements}, "s", "HalfStorage"}});
  return zip.add("s", "data").lieCentral(zip_central::kUncompressedSize, uncompressedBytes);
}

// Halves that fit between the storage's first byte and the end of the file.
std::uint64_t elementsToTheEnd() {
  for (std::uint64_t elements = 1;; ++elements) {
    const ZipBuilder zip = withAStorageThatClaims(0xFFFFFFFF, elements);
    if (zip.dataOffset(1) + 2 * (elements + 1) > zip.build().size()) return elements;
  }
}

TEST_F(PyTorchImport, ReadsATensorThatReachesTheEndOfTheFile) {
  const std::uint64_t elements = elementsToTheEnd();
  const ZipBuilder zip = withAStorageThatClaims(0xFFFFFFFF, elements);
  const ImportAnswer answer = import(zip);
  ASSERT_EQ(answer.code, 0) << answer.message;
  expectTensor(container(), "w", kF16, {elements}, zip.build().substr(zip.dataOffset(1), 2 * elements));
}

TEST_F(PyTorchImport, RefusesATensorThatEndsAfterTheFile) {
  expectFailure(withAStorageThatClaims(0xFFFFFFFF, elementsToTheEnd() + 1), 7, "convert: cannot read tensor");
}

TEST_F(PyTorchImport, RefusesATensorThatBeginsAfterTheFile) {
  expectFailure(checkpoint({{"w", {1}, "s", "FloatStorage", 0x3FFFFFF0}})
                    .add("s", "data")
                    .lieCentral(zip_central::kUncompressedSize, 0xFFFFFFFF),
                7, "convert: cannot read tensor");
}

// The writer would refuse these shapes as well, but is not asked for what cannot be read.
TEST_F(PyTorchImport, RefusesAnEmptyTensorOrAScalarThatBeginsAfterTheFileAsUnreadable) {
  for (const std::vector<std::uint64_t>& shape : {std::vector<std::uint64_t>{0}, {}, {1, 1, 1, 1, 1}}) {
    expectFailure(checkpoint({{"w", shape, "s", "FloatStorage", 0x3FFFFFF0}})
                      .add("s", "data")
                      .lieCentral(zip_central::kUncompressedSize, 0xFFFFFFFF),
                  7, "convert: cannot read tensor");
  }
}

// ---- shapes and names that the container cannot hold

TEST_F(PyTorchImport, AcceptsFourDimensions) {
  ASSERT_EQ(import(checkpoint({{"w", {1, 2, 1, 2}, "s"}}).add("s", std::string(16, 'x'))).code, 0);
  expectTensor(container(), "w", kF32, {1, 2, 1, 2}, std::string(16, 'x'));
}

TEST_F(PyTorchImport, RefusesFiveDimensions) {
  expectFailure(checkpoint({{"w", {1, 2, 1, 2, 1}, "s"}}).add("s", std::string(16, 'x')), 2,
                "OKV2: bad tensor memory source");
}

TEST_F(PyTorchImport, RefusesATensorWithoutDimensions) {
  expectFailure(checkpoint({{"w", {}, "s"}}).add("s", "data"), 2, "OKV2: bad tensor memory source");
}

TEST_F(PyTorchImport, RefusesATensorWithoutElements) {
  expectFailure(checkpoint({{"w", {0}, "s"}}).add("s", "data"), 2, "OKV2: bad tensor memory source");
}

TEST_F(PyTorchImport, RefusesATensorWithoutAName) {
  expectFailure(checkpoint({{"", {1}, "s"}}).add("s", "data"), 2, "convert: cannot map tensor ''");
}

TEST_F(PyTorchImport, RefusesACheckpointWithoutTensors) {
  expectFailure(checkpoint({}), 2, "OKV2: no tensors to write");
}

// ---- failures of the reader, as the host sees them

TEST_F(PyTorchImport, RefusesAnOrdinaryCheckpointForItsFolder) {
  expectFailure(ZipBuilder().add("archive/data.pkl", stateDict({})), 2, "torch: no data.pkl");
}

TEST_F(PyTorchImport, RefusesCompressedEntries) {
  expectFailure(
      checkpoint({}).lieCentral(zip_central::kMethod, 8), 3,
      "torch: zip entry uses compression (deflate); only STORED checkpoints (torch.save default) are "
      "supported");
}

TEST_F(PyTorchImport, RefusesAForeignObject) {
  PickleBuilder program;
  program.global("os", "system").binunicode("true").ops({Op::TUPLE1, Op::REDUCE});
  expectFailure(ZipBuilder().add("data.pkl", program.stop()), 3, "torch: pickle REDUCE on foreign object");
}

TEST_F(PyTorchImport, RefusesADamagedProgram) {
  expectFailure(ZipBuilder().add("data.pkl", "}"), 7, "torch: pickle unterminated pickle");
}

TEST_F(PyTorchImport, RefusesAnEmptyFile) {
  const ImportAnswer answer = import(std::string());
  EXPECT_EQ(answer.code, 6);
  EXPECT_EQ(answer.message, "torch: stat failed");
}

TEST_F(PyTorchImport, AnswersANameThatIsMultipliedBeyondTheProgramAsFailedMemory) {
  PickleBuilder program;
  program.binunicode(std::string(60000, 'n'))
      .op(Op::MEMOIZE)
      .tensor({"", {1}, "s"})
      .op(Op::MEMOIZE)
      .op(Op::EMPTY_DICT);
  program.repeat(1000, PickleBuilder().binget(0).binget(1).op(Op::SETITEM).bytes());
  expectFailure(ZipBuilder().add("data.pkl", program.stop()).add("s", "data"), 1, "hf convert failed");
}

TEST_F(PyTorchImport, NeverOverwritesTheCheckpointThatItReads) {
  const std::string bytes = checkpoint({{"w", {1}, "s"}}).add("s", "data").build();
  const std::string model = ModelDirBuilder().noWeights().file("pytorch_model.bin", bytes).write(temp_);
  std::filesystem::create_hard_link(model + "/pytorch_model.bin", temp_ / "link");
  for (const std::string& path : {model + "/pytorch_model.bin", temp_ / "link"}) {
    const ImportAnswer answer = importDir(model, path);
    EXPECT_EQ(answer.code, 2);
    EXPECT_EQ(answer.message, "OKV2: cannot open output file");
    EXPECT_EQ(readWholeFile(path), bytes);
  }
}

}  // namespace
}  // namespace zel::test
