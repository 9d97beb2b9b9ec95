// What an import asks of the allocator, as its input grows.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "allocator_shim.h"
#include "plugin/plugin_host.h"
#include "support/model_dir_builder.h"
#include "support/pickle_builder.h"
#include "support/safetensors_builder.h"
#include "support/temp_dir.h"
#include "support/zip_builder.h"

namespace zel {
namespace {

using test::AllocationReport;
using test::ModelDirBuilder;
using test::SafetensorsBuilder;

AllocationReport costOf(const ModelDirBuilder& model) {
  const test::TempDir temp;
  const std::string dir = model.write(temp);
  const std::string out = temp / "out.okv2";
  OKVImportContext context{sizeof context, out.c_str(), nullptr, 0, nullptr, nullptr};
  const OKVImporter& loaded = test::importer();
  test::armAllocator(0, false);
  const std::int32_t code = loaded.import(dir.c_str(), &context);
  const AllocationReport report = test::disarmAllocator();
  test::takeLiveBlocks();
  EXPECT_EQ(code, OKV_OK);
  return report;
}

ModelDirBuilder withTensors(int count) {
  SafetensorsBuilder tensors;
  for (int k = 0; k < count; ++k)
    tensors.tensor("model.layers." + std::to_string(1000 + k) + ".mlp.down_proj.weight", "F32", {4});
  return ModelDirBuilder().shard("model.safetensors", tensors);
}

// Each text is `text` and a number of four digits.
ModelDirBuilder withTokens(int count, const std::string& text) {
  std::string vocabulary;
  for (int k = 0; k < count; ++k)
    vocabulary += (k == 0 ? "\"" : ",\"") + text + std::to_string(1000 + k) + "\":" + std::to_string(k);
  return ModelDirBuilder().tokenizer(R"({"model":{"type":"BPE","vocab":{)" + vocabulary +
                                     R"(},"merges":[]}})");
}

// Vectors grow a few times more on the way to twice the size.
constexpr std::uint64_t kGrowth = 32;

// The names are longer than what std::string holds in itself: in the reader, on the way and in the writer.
TEST(ImportCost, OfATensorIsAtMostFourAllocations) {
  const std::uint64_t once = costOf(withTensors(400)).count;
  const std::uint64_t twice = costOf(withTensors(800)).count;
  EXPECT_LE(twice - once, 400 * 4 + kGrowth);
}

TEST(ImportCost, OfAShortTokenIsNoAllocation) {
  const std::uint64_t once = costOf(withTokens(2000, "t")).count;
  const std::uint64_t twice = costOf(withTokens(4000, "t")).count;
  EXPECT_LE(twice, once + kGrowth);
}

TEST(ImportCost, OfALongTokenIsOneAllocation) {
  const std::uint64_t once = costOf(withTokens(2000, "a token beyond small strings")).count;
  const std::uint64_t twice = costOf(withTokens(4000, "a token beyond small strings")).count;
  EXPECT_LE(twice - once, 2000 + kGrowth);
}

TEST(ImportCost, InMemoryDoesNotGrowWithTheTensor) {
  const auto peak = [](std::uint64_t rows) {
    return costOf(ModelDirBuilder().shard("model.safetensors", SafetensorsBuilder().tensor(
                                                                   "model.norm.weight", "F32", {rows, 1024})))
        .peakBytes;
  };
  EXPECT_LE(peak(4096), peak(16) + 4096);  // 16 MiB and 64 KiB
}

// `rounds` times a list of two items that nothing keeps, around the one tensor that is imported.
ModelDirBuilder withDroppedLists(std::size_t rounds) {
  using test::Op;
  const std::string round = test::PickleBuilder()
                                .ops({Op::EMPTY_LIST, Op::NONE, Op::APPEND})
                                .binunicode("dropped")
                                .ops({Op::TUPLE1, Op::APPEND, Op::POP})
                                .bytes();
  test::PickleBuilder program;
  program.repeat(rounds, round).op(Op::EMPTY_DICT);
  program.binunicode("model.norm.weight").tensor({"", {1}, "data/0"}).op(Op::SETITEM);
  return ModelDirBuilder().noWeights().file(
      "pytorch_model.bin", test::ZipBuilder().add("data.pkl", program.stop()).add("data/0", "1234").build());
}

TEST(ImportCost, DoesNotGrowWithWhatAPickleDrops) {
  const AllocationReport one = costOf(withDroppedLists(1));
  const AllocationReport many = costOf(withDroppedLists(100000));
  EXPECT_EQ(many.count, one.count);
  EXPECT_EQ(many.peakBytes, one.peakBytes);
}

}  // namespace
}  // namespace zel
