// `okv2 verify --against DIR --prepare`: a container against the directory that was prepared for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli.h"
#include "prepare_weights.h"
#include "support/safetensors_builder.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bytesOf;
using test::SafetensorsBuilder;
using test::SavedPickle;
using test::SavedTensor;

class VerifyPreparedTest : public WeightsTest {
 protected:
  void saveTorch(const std::vector<SavedTensor>& tensors, const std::string& bytes,
                 bool deflated = false) const {
    write(
        "pytorch_model.bin",
        test::savedZip(SavedPickle().stateDict(tensors).stop(), {{"0", bytes}}, "archive", deflated).build());
  }
  // Prepares the directory and imports what came of it.
  [[nodiscard]] std::string container(const WeightOptions& options = {}) const {
    prepare(options);
    std::filesystem::copy_file(in() + "/config.json", out() + "/config.json");
    const test::CommandResult result = okv2Run({"import", out(), "-o", dir_ / "model.okv2"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return dir_ / "model.okv2";
  }
  [[nodiscard]] test::CommandResult verify(const std::string& file,
                                           std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"verify", file, "--against", in(), "--prepare"});
    return okv2Run(options);
  }
  void expectSame(const std::string& file, const std::vector<std::string>& options = {}) const {
    const test::CommandResult result = verify(file, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
  }
};

TEST_F(VerifyPreparedTest, FindsNoDifferenceForTensorsOfEveryKind) {
  saveTorch({{"module.model.norm.weight", {6}, {1}, "0", 6},
             {"module.t", {3, 2}, {1, 3}, "0", 6},
             {"module.scalar", {}, {}, "0", 6, "FloatStorage", 5},
             {"module.double", {3}, {1}, "0", 3, "DoubleStorage"},
             {"module.model.layers.0.self_attn.c_attn.weight", {6}, {1}, "0", 6},
             {"module.counter", {3}, {1}, "0", 3, "LongStorage"}},
            kSix);
  expectSame(container({true, {"counter"}, false}), {"--cast", "--drop", "counter"});
}

TEST_F(VerifyPreparedTest, FindsNoDifferenceForIntegersThatWereCast) {
  write("model.safetensors",
        SafetensorsBuilder().tensorData("n", "I8", {4}, bytesOf<std::int8_t>({1, -2, 3, -4})).bytes());
  WeightOptions options;
  options.castIntegers = true;
  expectSame(container(options), {"--cast-integers"});
}

TEST_F(VerifyPreparedTest, FindsNoDifferenceForDeflatedStorages) {
  saveTorch({{"w", {6}, {1}, "0", 6}}, kSix, true);
  expectSame(container());
}

TEST_F(VerifyPreparedTest, FindsNoDifferenceForBlockTypesThatAreCut) {
  write("model.safetensors", SafetensorsBuilder()
                                 .tensor("transformer.h.0.attn.c_attn.weight", "Q4_K", {768, 2})
                                 .tensorData("n", "I64", {}, std::string(8, '\0'))
                                 .bytes());
  expectSame(container({false, {"^n$"}, false}), {"--drop", "^n$"});
}

TEST_F(VerifyPreparedTest, FindsNoDifferenceForAFusedProjectionOfMultiQueryAttention) {
  write("config.json", R"({"model_type":"gpt_bigcode","n_head":1})");
  saveTorch({{"transformer.h.0.attn.c_attn.weight", {3, 1}, {1, 1}, "0", 6},
             {"transformer.h.0.attn.c_attn.bias", {3}, {2}, "0", 6}},
            kSix);
  expectSame(container());
}

TEST_F(VerifyPreparedTest, FindsNoDifferenceForAFusedProjectionHeadByHead) {
  write("config.json", R"({"model_type":"gpt_bigcode","n_head":2,"multi_query":false})");
  saveTorch({{"transformer.h.0.attn.c_attn.bias", {6}, {1}, "0", 6}}, kSix);
  expectSame(container());
}

TEST_F(VerifyPreparedTest, NamesATensorThatWasDroppedWithoutBeingNamed) {
  saveTorch({{"a", {6}, {1}, "0", 6}, {"b", {6}, {1}, "0", 6}}, kSix);
  const std::string file = container({false, {"^b$"}, false});
  const test::CommandResult result = verify(file);
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.err, "okv2: " + file + ": tensor 'b' is missing, made of 'b'\n");
}

TEST_F(VerifyPreparedTest, NamesWhatTheDirectoryDoesNotHave) {
  saveTorch({{"a", {6}, {1}, "0", 6}, {"b", {6}, {1}, "0", 6}}, kSix);
  const std::string file = container();
  const test::CommandResult result = verify(file, {"--drop", "^b$"});
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.err, "okv2: " + file + ": tensor 'b' is made of no tensor of the directory\n");
}

TEST_F(VerifyPreparedTest, SaysWhereBytesDiffer) {
  saveTorch({{"t", {3, 2}, {1, 3}, "0", 6}}, kSix);
  const std::string file = container();
  saveTorch({{"t", {3, 2}, {1, 3}, "0", 6}}, bytesOf<float>({1, 2, 3, 4, 5, 7}));
  const test::CommandResult result = verify(file);
  EXPECT_EQ(result.exitCode, 10);
  // 6 and 7 are 0x40c00000 and 0x40e00000, the last element of the six.
  EXPECT_EQ(result.err, "okv2: " + file + ": tensor 't' differs from byte 22\n");
}

TEST_F(VerifyPreparedTest, SaysWhenTypesOrShapesDiffer) {
  saveTorch({{"t", {6}, {1}, "0", 6}}, kSix);
  const std::string file = container();
  saveTorch({{"t", {3, 2}, {2, 1}, "0", 6}}, kSix);
  EXPECT_EQ(verify(file).err, "okv2: " + file + ": tensor 't' has another shape than [3, 2]\n");
  saveTorch({{"t", {6}, {1}, "0", 6, "HalfStorage"}}, kSix);
  EXPECT_EQ(verify(file).err, "okv2: " + file + ": tensor 't' has type 0, expected 1\n");
}

TEST_F(VerifyPreparedTest, FailsAsPreparingDoes) {
  saveTorch({{"t", {6}, {1}, "0", 6}}, kSix);
  const std::string file = container();
  write("pytorch_model.bin", "none");
  const test::CommandResult result = verify(file);
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.err,
            "okv2: " + in() + ": pytorch_model.bin: checkpoint: it is neither a zip archive nor a pickle\n");
}

TEST_F(VerifyPreparedTest, RefusesWhatIsNoDirectory) {
  saveTorch({{"t", {6}, {1}, "0", 6}}, kSix);
  const std::string file = container();
  dir_.write("plain", "x");
  for (const std::string& against : {dir_ / "plain", dir_ / "none"}) {
    const test::CommandResult result = okv2Run({"verify", file, "--against", against, "--prepare"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "okv2: " + against + ": not a directory\n");
  }
}

TEST_F(VerifyPreparedTest, IsAQuestionAboutADirectory) {
  const test::CommandResult result = okv2Run({"verify", dir_ / "model.okv2", "--prepare"});
  EXPECT_EQ(result.exitCode, 64);
}

}  // namespace
}  // namespace zel::tool::prepare
