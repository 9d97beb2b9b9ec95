// The weights' half of `okv2 prepare` over whole directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "prepare_weights.h"
#include "support/pickle_builder.h"
#include "support/safetensors_builder.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bytesOf;
using test::SafetensorsBuilder;
using test::savedDict;
using test::savedLegacy;
using test::SavedPickle;
using test::SavedTensor;
using test::savedText;
using test::savedZip;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

// A checkpoint with one storage.
std::string zipOf(const std::vector<SavedTensor>& tensors, const std::string& storage,
                  bool deflated = false) {
  return savedZip(SavedPickle().stateDict(tensors).stop(), {{"0", storage}}, "archive", deflated).build();
}

// ---- torch checkpoints

TEST_F(WeightsTest, WritesATorchCheckpointAsSafetensors) {
  write("pytorch_model.bin", zipOf({{"w", {2, 3}, {3, 1}, "0", 6}}, kSix));
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)"));
  EXPECT_THAT(outNames(), ElementsAre("model.safetensors"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [2,3]"));
  EXPECT_EQ(dataOf("model.safetensors", "w"), kSix);
}

TEST_F(WeightsTest, WritesTheHeaderAsTheFormatHasIt) {
  write("pytorch_model.bin", zipOf({{"w", {6}, {1}, "0", 6}}, kSix));
  prepare();
  const std::string json =
      R"({"__metadata__":{"format":"pt"},"w":{"dtype":"F32","shape":[6],"data_offsets":[0,24]}})";
  const std::string padded = json + std::string((8 - json.size() % 8) % 8, ' ');
  EXPECT_EQ(test::readWholeFile(out() + "/model.safetensors"),
            test::littleEndian(padded.size(), 8) + padded + kSix);
}

TEST_F(WeightsTest, NamesATensorThatHasNoName) {
  const SavedTensor tensor{"", {6}, {1}, "0", 6};
  write("pytorch_model.bin", savedZip(SavedPickle().tensor(tensor).stop(), {{"0", kSix}}).build());
  EXPECT_THAT(changeTexts(prepare()),
              ElementsAre("model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: none -> tensor (pytorch.pickle)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("tensor F32 [6]"));
  EXPECT_EQ(dataOf("model.safetensors", "tensor"), kSix);
}

TEST_F(WeightsTest, NamesTheTensorsOfAListByTheirPositions) {
  SavedPickle program;
  program.op(test::pickle_op::kEmptyList).op(test::pickle_op::kMark);
  program.tensor({"", {2}, {1}, "0", 6}).tensor({"", {4}, {1}, "0", 6, "FloatStorage", 2});
  write("pytorch_model.bin", savedZip(program.op(test::pickle_op::kAppends).stop(), {{"0", kSix}}).build());
  EXPECT_THAT(changeTexts(prepare()),
              ElementsAre("model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: none -> 0, 1, ... (pytorch.pickle)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("0 F32 [2]", "1 F32 [4]"));
  EXPECT_EQ(dataOf("model.safetensors", "1"), bytesOf<float>({3, 4, 5, 6}));
}

TEST_F(WeightsTest, UnpacksADeflatedCheckpoint) {
  write("pytorch_model.bin", zipOf({{"a", {3}, {1}, "0", 6, "FloatStorage", 3}}, kSix, true));
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.deflated)"));
  EXPECT_EQ(dataOf("model.safetensors", "a"), bytesOf<float>({4, 5, 6}));
  EXPECT_THAT(outNames(), ElementsAre("model.safetensors"));
}

TEST_F(WeightsTest, WritesALegacyCheckpoint) {
  write("pytorch_model.bin",
        savedLegacy(SavedPickle().stateDict({{"w", {6}, {1}, "7", 6}}, true).stop(), {{"7", 6, kSix}}));
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.legacy)"));
  EXPECT_EQ(dataOf("model.safetensors", "w"), kSix);
}

TEST_F(WeightsTest, MakesATransposedTensorContiguous) {
  write("pytorch_model.bin", zipOf({{"w", {3, 2}, {1, 3}, "0", 6}}, kSix));
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: w: strides [1, 3] -> contiguous (pytorch.pickle)",
                  "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)"));
  EXPECT_EQ(dataOf("model.safetensors", "w"), bytesOf<float>({1, 4, 2, 5, 3, 6}));
}

TEST_F(WeightsTest, RepeatsTheElementsOfAnExpandedTensor) {
  write("pytorch_model.bin", zipOf({{"w", {2, 3}, {0, 1}, "0", 6}}, kSix));
  prepare();
  EXPECT_EQ(dataOf("model.safetensors", "w"), bytesOf<float>({1, 2, 3, 1, 2, 3}));
}

TEST_F(WeightsTest, WritesTensorsThatShareAStorageEach) {
  write("pytorch_model.bin",
        zipOf({{"a", {4}, {1}, "0", 6}, {"b", {4}, {1}, "0", 6, "FloatStorage", 2}}, kSix));
  prepare();
  EXPECT_EQ(dataOf("model.safetensors", "a"), bytesOf<float>({1, 2, 3, 4}));
  EXPECT_EQ(dataOf("model.safetensors", "b"), bytesOf<float>({3, 4, 5, 6}));
}

TEST_F(WeightsTest, TakesTensorsFromUnderAKeyAndSaysSo) {
  write("pytorch_model.bin", savedZip(SavedPickle()
                                          .op(test::pickle_op::kEmptyDict)
                                          .op(test::pickle_op::kMark)
                                          .text("epoch")
                                          .number(3)
                                          .text("state_dict")
                                          .stateDict({{"w", {6}, {1}, "0", 6}})
                                          .op(test::pickle_op::kSetItems)
                                          .stop(),
                                      {{"0", kSix}})
                                 .build());
  EXPECT_THAT(changeTexts(prepare()),
              ElementsAre("model.safetensors: epoch: a number ->  (pytorch.pickle)",
                          "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: state_dict.* -> * (pytorch.pickle)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
}

// A checkpoint that is a dictionary of these items, with one storage of six floats.
std::string dictionaryOf(const std::vector<std::pair<SavedPickle, SavedPickle>>& items) {
  return savedZip(SavedPickle().raw(savedDict(items).bytes()).stop(), {{"0", kSix}}).build();
}
SavedPickle six(const char* storageClass = "FloatStorage") {
  return SavedPickle::bare().tensor({"", {6}, {1}, "0", 6, storageClass});
}

TEST_F(WeightsTest, TakesTensorsFromUnderAKnownKeyBesideTensorsAndSaysSo) {
  write("pytorch_model.bin",
        dictionaryOf({{savedText("epoch"), SavedPickle::bare().number(1)},
                      {savedText("state_dict"), savedDict({{savedText("w"), six()}})},
                      {savedText("best_acc1"), SavedPickle::bare().tensor({"", {}, {}, "0", 6})}}));
  const Changes changes = prepare();
  EXPECT_THAT(changeTexts(changes),
              ElementsAre("model.safetensors: epoch: a number ->  (pytorch.pickle)",
                          "model.safetensors: best_acc1: a tensor ->  (pytorch.pickle)",
                          "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: state_dict.* -> * (pytorch.pickle)"));
  EXPECT_EQ(changes[0].why, "It is no tensor of the model.");
  EXPECT_EQ(changes[1].why, "It lies beside the dictionary of tensors.");
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
  EXPECT_EQ(dataOf("model.safetensors", "w"), kSix);
}

TEST_F(WeightsTest, TakesArraysFromUnderAKnownKeyBesideADictionaryOfIntegers) {
  const SavedPickle array = SavedPickle::bare().array({{6}, kSix});
  write("pytorch_model.bin",
        dictionaryOf({{savedText("state_dict"), savedDict({{savedText("w"), array}})},
                      {savedText("rng"), savedDict({{savedText("cpu"), six("ByteStorage")}})}}));
  WeightOptions options;
  for (const bool castIntegers : {false, true}) {
    options.castIntegers = castIntegers;
    EXPECT_THAT(
        changeTexts(prepare(options)),
        ElementsAre("model.safetensors: rng: a dictionary ->  (pytorch.pickle)",
                    "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                    "model.safetensors: tensor names: state_dict.* -> * (pytorch.pickle)"));
    EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
    EXPECT_EQ(dataOf("model.safetensors", "w"), kSix);
    std::filesystem::remove(out() + "/model.safetensors");
  }
}

TEST_F(WeightsTest, RefusesADictionaryOfTensorsBesideArraysUntilItIsDropped) {
  const SavedPickle array = SavedPickle::bare().array({{6}, kSix});
  write("pytorch_model.bin", dictionaryOf({{savedText("w"), array},
                                           {savedText("b"), array},
                                           {savedText("extra"), savedDict({{savedText("step"), six()}})}}));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message, "pytorch_model.bin: among its tensors are other things: 'extra' (a dictionary)");
  EXPECT_EQ(refused.remedy, "Leave them out with --drop REGEX, or save the tensors alone.");
  const Changes changes = prepare({false, {"^extra$"}, false});
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0].what, "extra");
  EXPECT_EQ(changes[0].why, "--drop leaves it out.");
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("b F32 [6]", "w F32 [6]"));
}

TEST_F(WeightsTest, RefusesTensorsBesideADictionaryUnderAnUnknownKeyUntilTheyAreDropped) {
  const SavedPickle optimizer =
      savedDict({{savedText("state"), savedDict({{SavedPickle::bare().number(0), six()}})}});
  write("pytorch_model.bin", dictionaryOf({{savedText("net"), savedDict({{savedText("w"), six()}})},
                                           {savedText("optimizer"), optimizer}}));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: among its tensors are other things: 'optimizer' (a dictionary)");
  EXPECT_EQ(refused.remedy, "Leave them out with --drop REGEX, or save the tensors alone.");
  EXPECT_THAT(changeTexts(prepare({false, {"^optimizer$"}, false})),
              ElementsAre("model.safetensors: optimizer: a dictionary ->  (pytorch.pickle)",
                          "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: net.* -> * (pytorch.pickle)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
}

TEST_F(WeightsTest, RefusesArraysInTheOtherByteOrderBesideADictionaryUntilTheyAreDropped) {
  const SavedPickle array = SavedPickle::bare().array({{6}, kSix, "f4", false, ">"});
  write("pytorch_model.bin", dictionaryOf({{savedText("state_dict"), savedDict({{savedText("w"), array}})},
                                           {savedText("ema"), savedDict({{savedText("decay"), six()}})}}));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: among its tensors are other things: 'state_dict' (a dictionary)");
  EXPECT_EQ(refused.remedy, "Leave them out with --drop REGEX, or save the tensors alone.");
  prepare({false, {"^state_dict$"}, false});
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("decay F32 [6]"));
}

TEST_F(WeightsTest, RefusesToChooseBetweenADictionaryOfTensorsAndOneOfArrays) {
  const SavedPickle array = SavedPickle::bare().array({{6}, kSix});
  write("pytorch_model.bin",
        dictionaryOf({{savedText("net"), savedDict({{savedText("w"), six()}})},
                      {savedText("statistics"), savedDict({{savedText("mean"), array}})}}));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: checkpoint: it holds more than one dictionary of tensors: 'net', "
            "'statistics'");
  EXPECT_EQ(
      refused.remedy,
      "Load it in a program that trusts its author, and save the tensors alone, as a dictionary by name.");
}

TEST_F(WeightsTest, NamesWhatHasNoTextForAKeyByItsPosition) {
  const SavedPickle more = savedDict({{savedText("q"), six()}});
  write("pytorch_model.bin", dictionaryOf({{SavedPickle::bare().number(0), more},
                                           {savedText("model"), savedDict({{savedText("w"), six()}})},
                                           {SavedPickle::bare().number(1), more}}));
  EXPECT_THAT(changeTexts(prepare()),
              ElementsAre("model.safetensors: entry 0: a dictionary ->  (pytorch.pickle)",
                          "model.safetensors: entry 2: a dictionary ->  (pytorch.pickle)",
                          "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: model.* -> * (pytorch.pickle)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
}

TEST_F(WeightsTest, DropsWhatLiesAmongTheTensorsOfADictionaryByEitherOfItsNames) {
  const SavedPickle more = savedDict({{savedText("q"), six()}});
  const SavedPickle dict = savedDict({{savedText("w"), six()}, {savedText("b"), more}});
  write("pytorch_model.bin",
        dictionaryOf({{savedText("state_dict"), dict}, {savedText("epoch"), SavedPickle::bare().number(1)}}));
  for (const char* expression : {"^b$", "^state_dict\\.b$"}) {
    const Changes changes = prepare({false, {expression}, false});
    EXPECT_THAT(
        changeTexts(changes),
        ElementsAre("model.safetensors: epoch: a number ->  (pytorch.pickle)",
                    "model.safetensors: state_dict.b: a dictionary ->  (pytorch.pickle)",
                    "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                    "model.safetensors: tensor names: state_dict.* -> * (pytorch.pickle)"))
        << expression;
    EXPECT_EQ(changes.at(1).why, "--drop leaves it out.") << expression;
    EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]")) << expression;
    fs::remove(out() + "/model.safetensors");
  }
  for (const char* expression : {"^\\.b$", "^dict\\.b$", "^state_dict$"}) {
    const Refusal refused = refusal({false, {expression}, false});
    EXPECT_EQ(refused.code, 3) << expression;
    EXPECT_EQ(refused.message,
              "pytorch_model.bin: among its tensors are other things: 'state_dict.b' (a dictionary)")
        << expression;
  }
}

TEST_F(WeightsTest, KnowsEveryExpressionThatMatchesOneOfTheTwoNames) {
  const SavedPickle more = savedDict({{savedText("q"), six()}});
  const SavedPickle dict = savedDict({{savedText("w"), six()}, {savedText("b"), more}});
  write("pytorch_model.bin", dictionaryOf({{savedText("state_dict"), dict}}));
  EXPECT_THAT(changeTexts(prepare({false, {"^b$", "^state_dict\\.", "^c$"}, false})),
              ElementsAre("model.safetensors: state_dict.b: a dictionary ->  (pytorch.pickle)",
                          "weights: --drop ^c$:  ->  ()",
                          "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)",
                          "model.safetensors: tensor names: state_dict.* -> * (pytorch.pickle)"));
}

TEST_F(WeightsTest, DropsWhatLiesBesideADictionaryByItsWholeNameOnly) {
  const SavedPickle more = savedDict({{savedText("q"), savedDict({{savedText("r"), six()}})}});
  write("pytorch_model.bin",
        dictionaryOf({{savedText("net"), savedDict({{savedText("w"), six()}})}, {savedText("net.b"), more}}));
  const Refusal refused = refusal({false, {"^b$"}, false});
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.message, "pytorch_model.bin: among its tensors are other things: 'net.b' (a dictionary)");
  prepare({false, {"^net\\.b$"}, false});
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
}

TEST_F(WeightsTest, RefusesAnObjectAmongTheTensorsUntilItIsDropped) {
  write("pytorch_model.bin", savedZip(SavedPickle()
                                          .stateDict({{"w", {6}, {1}, "0", 6}})
                                          .text("array")
                                          .global("numpy.core.multiarray", "_reconstruct")
                                          .op(test::pickle_op::kEmptyTuple)
                                          .op(test::pickle_op::kReduce)
                                          .op(test::pickle_op::kSetItem)
                                          .stop(),
                                      {{"0", kSix}})
                                 .build());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: among its tensors are other things: 'array' (an object that is no tensor)");
  EXPECT_EQ(refused.remedy, "Leave them out with --drop REGEX, or save the tensors alone.");
  prepare({false, {"^array$"}, false});
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
}

TEST_F(WeightsTest, SaysThatTheOptionLeavesOutWhatMayHoldWeights) {
  SavedPickle program =
      SavedPickle().stateDict({{"w", {6}, {1}, "0", 6}}).text("note").op(test::pickle_op::kNone);
  program.op(test::pickle_op::kSetItem).text("more").stateDict({{"v", {6}, {1}, "0", 6}});
  program.op(test::pickle_op::kSetItem);
  write("pytorch_model.bin", savedZip(program.stop(), {{"0", kSix}}).build());
  const Changes changes = prepare({false, {"^(note|more)$"}, false});
  ASSERT_EQ(changes.size(), 3u);
  EXPECT_EQ(changes[0].what, "note");
  EXPECT_EQ(changes[0].why, "It is no tensor of the model.");
  EXPECT_EQ(changes[1].what, "more");
  EXPECT_EQ(changes[1].why, "--drop leaves it out.");
}

TEST_F(WeightsTest, GivesEveryShardOfATorchCheckpointItsPlace) {
  write("pytorch_model-00001-of-00002.bin", zipOf({{"a", {6}, {1}, "0", 6}}, kSix));
  write("pytorch_model-00002-of-00002.bin", zipOf({{"b", {6}, {1}, "0", 6}}, kSix));
  write("pytorch_model.bin.index.json",
        R"({"weight_map":{"a":"pytorch_model-00001-of-00002.bin","b":"pytorch_model-00002-of-00002.bin"}})");
  EXPECT_THAT(changeTexts(prepare()),
              ElementsAre("model-00001-of-00002.safetensors: file: pytorch_model-00001-of-00002.bin -> "
                          "model-00001-of-00002.safetensors (weights.sharded-bin)",
                          "model-00002-of-00002.safetensors: file: pytorch_model-00002-of-00002.bin -> "
                          "model-00002-of-00002.safetensors (weights.sharded-bin)"));
  EXPECT_THAT(outNames(),
              ElementsAre("model-00001-of-00002.safetensors", "model-00002-of-00002.safetensors"));
}

TEST_F(WeightsTest, RefusesACheckpointThatNamesAForeignGlobal) {
  write("pytorch_model.bin", savedZip(SavedPickle().global("os", "system").stop(), {}).build());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: checkpoint: the pickle names a global that is not on the list: os.system");
  EXPECT_EQ(
      refused.remedy,
      "Load it in a program that trusts its author, and save the tensors alone, as a dictionary by name.");
}

TEST_F(WeightsTest, RefusesTensorsThatWouldGrowWithoutBound) {
  write("pytorch_model.bin", zipOf({{"w", {1U << 30}, {0}, "0", 6}}, kSix));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(
      refused.message,
      "pytorch_model.bin: its tensors share elements, and written one by one take more than 16 times its "
      "bytes");
}

// ---- arrays of numpy's, which lie in the checkpoint's program

// 16-bit floats: 1, 2, 3, 4, 5, 6.
const std::string kSixHalves("\x00\x3c\x00\x40\x00\x42\x00\x44\x00\x45\x00\x46", 12);

SavedPickle sixPlainAndSixTransposed() {
  return SavedPickle()
      .stateDict({{"tensor", {6}, {1}, "0", 6}})
      .text("plain")
      .array({{2, 3}, kSix, "f4"})
      .op(test::pickle_op::kSetItem)
      .text("transposed")
      .array({{2, 3}, kSixHalves, "f2", true})
      .op(test::pickle_op::kSetItem);
}
TEST_F(WeightsTest, WritesArraysBesideTensors) {
  write("pytorch_model.bin", savedZip(sixPlainAndSixTransposed().stop(), {{"0", kSix}}).build());
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: transposed: strides [1, 2] -> contiguous (pytorch.pickle)",
                  "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)"));
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("plain F32 [2,3]", "tensor F32 [6]", "transposed F16 [2,3]"));
  EXPECT_EQ(dataOf("model.safetensors", "plain"), kSix);
  EXPECT_EQ(dataOf("model.safetensors", "tensor"), kSix);
  // 1, 3, 5, 2, 4, 6.
  EXPECT_EQ(dataOf("model.safetensors", "transposed"),
            std::string("\x00\x3c\x00\x42\x00\x45\x00\x40\x00\x44\x00\x46", 12));
  EXPECT_THAT(outNames(), ElementsAre("model.safetensors"));
}

TEST_F(WeightsTest, WritesTheArraysOfALegacyCheckpoint) {
  write("pytorch_model.bin", savedLegacy(SavedPickle()
                                             .stateDict({{"tensor", {6}, {1}, "7", 6}}, true)
                                             .text("array")
                                             .array({{3}, kSixHalves.substr(6), "f2"})
                                             .op(test::pickle_op::kSetItem)
                                             .stop(),
                                         {{"7", 6, kSix}}));
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.legacy)"));
  EXPECT_EQ(dataOf("model.safetensors", "array"), std::string("\x00\x44\x00\x45\x00\x46", 6));
  EXPECT_EQ(dataOf("model.safetensors", "tensor"), kSix);
}

TEST_F(WeightsTest, WritesArraysOfADeflatedCheckpoint) {
  write("pytorch_model.bin",
        savedZip(sixPlainAndSixTransposed().stop(), {{"0", kSix}}, "archive", true).build());
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("model.safetensors: transposed: strides [1, 2] -> contiguous (pytorch.pickle)",
                  "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.deflated)"));
  EXPECT_EQ(dataOf("model.safetensors", "plain"), kSix);
  EXPECT_EQ(dataOf("model.safetensors", "tensor"), kSix);
}

TEST_F(WeightsTest, CastsAnArrayOfDoubles) {
  write("pytorch_model.bin", savedZip(SavedPickle()
                                          .op(test::pickle_op::kEmptyDict)
                                          .text("array")
                                          .array({{2}, bytesOf<double>({0.5, -3}), "f8"})
                                          .op(test::pickle_op::kSetItem)
                                          .stop(),
                                      {})
                                 .build());
  prepare({true, {}, false});
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("array F32 [2]"));
  EXPECT_EQ(dataOf("model.safetensors", "array"), bytesOf<float>({0.5, -3}));
}

TEST_F(WeightsTest, RefusesAnArrayOfIntegersUntilItIsDropped) {
  write("pytorch_model.bin", savedZip(SavedPickle()
                                          .stateDict({{"w", {6}, {1}, "0", 6}})
                                          .text("array")
                                          .array({{1}, "12345678", "i8"})
                                          .op(test::pickle_op::kSetItem)
                                          .stop(),
                                      {{"0", kSix}})
                                 .build());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.storage-type");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: the container cannot carry these element types: 'array' (I64)");
  prepare({false, {"^array$"}, false});
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("w F32 [6]"));
}

TEST_F(WeightsTest, RefusesAnArrayInTheOtherByteOrder) {
  write("pytorch_model.bin", savedZip(SavedPickle()
                                          .stateDict({{"w", {6}, {1}, "0", 6}})
                                          .text("array")
                                          .array({{6}, kSix, "f4", false, ">"})
                                          .op(test::pickle_op::kSetItem)
                                          .stop(),
                                      {{"0", kSix}})
                                 .build());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "pytorch.pickle");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: among its tensors are other things: 'array' (a big-endian numpy array)");
}

// ---- checkpoints that an import reads as they are

// In the plug-in's dialect: entries at the top of the archive, named by the program.
std::string dialect() {
  return test::ZipBuilder()
      .add("data.pkl", test::stateDict({{"w", {6}, "storage"}}))
      .add("storage", kSix)
      .build();
}

TEST_F(WeightsTest, LinksACheckpointThatAnImportReads) {
  const std::string path = write("pytorch_model.bin", dialect());
  EXPECT_THAT(prepare(), IsEmpty());
  EXPECT_EQ(fs::read_symlink(out() + "/pytorch_model.bin"), path);
}

TEST_F(WeightsTest, LinksTheOnlyShardOfAnIndexUnderTheNameThatAnImportReads) {
  const std::string path = write("pytorch_model-00001-of-00001.bin", dialect());
  write("pytorch_model.bin.index.json", R"({"weight_map":{"w":"pytorch_model-00001-of-00001.bin"}})");
  const Changes changes = prepare();
  EXPECT_THAT(changeTexts(changes),
              ElementsAre("pytorch_model.bin: file: pytorch_model-00001-of-00001.bin -> pytorch_model.bin "
                          "(weights.sharded-bin)"));
  EXPECT_EQ(changes[0].why, "An import reads it under this name only.");
  EXPECT_THAT(outNames(), ElementsAre("pytorch_model.bin"));
  EXPECT_EQ(fs::read_symlink(out() + "/pytorch_model.bin"), path);
}

TEST_F(WeightsTest, WritesACheckpointThatAnImportReadsBesideAnother) {
  write("pytorch_model-00001-of-00002.bin", dialect());
  write("pytorch_model-00002-of-00002.bin", zipOf({{"v", {6}, {1}, "0", 6}}, kSix));
  prepare();
  EXPECT_EQ(dataOf("model-00001-of-00002.safetensors", "w"), kSix);
  EXPECT_EQ(dataOf("model-00002-of-00002.safetensors", "v"), kSix);
}

// ---- safetensors files

TEST_F(WeightsTest, LinksAShardThatIsFine) {
  const std::string path = write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  EXPECT_THAT(prepare(), IsEmpty());
  EXPECT_EQ(fs::read_symlink(out() + "/model.safetensors"), path);
}

TEST_F(WeightsTest, LinksTheFileThatWasReadWhereTheTextOfItsPathLeadsElsewhere) {
  // Behind the link, ".." is a and not the folder of the link.
  const std::string read =
      dir_.write("a/in/model.safetensors", SafetensorsBuilder().tensor("read", "F32", {2}).bytes());
  fs::create_directory(dir_ / "a/b");
  fs::create_symlink("a/b", dir_ / "link");
  write("model.safetensors", SafetensorsBuilder().tensor("other", "F32", {2}).bytes());
  Changes changes;
  prepareWeights(dir_ / "link/../in", out(), {}, changes);
  EXPECT_EQ(fs::read_symlink(out() + "/model.safetensors"), read);
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("read F32 [2]"));
}

TEST_F(WeightsTest, LinksAShardByItsOwnNameThoughItIsALinkItself) {
  const std::string blob = dir_.write("blobs/0123", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  fs::create_symlink(blob, in() + "/model.safetensors");
  prepare();
  EXPECT_EQ(fs::read_symlink(out() + "/model.safetensors"), in() + "/model.safetensors");
}

TEST_F(WeightsTest, TellsAnExpressionThatMatchesNothing) {
  write("model.safetensors", SafetensorsBuilder().tensor("a", "F32", {2}).tensor("b", "F32", {2}).bytes());
  EXPECT_THAT(
      changeTexts(prepare({false, {"^a$", "typo", "a"}, false})),
      ElementsAre("model.safetensors: a: F32 [2] ->  (weights.type)", "weights: --drop typo:  ->  ()"));
}

TEST_F(WeightsTest, CountsWhatIsNoTensorAsMatched) {
  write("pytorch_model.bin", savedZip(SavedPickle()
                                          .stateDict({{"w", {6}, {1}, "0", 6}})
                                          .text("epoch")
                                          .number(3)
                                          .op(test::pickle_op::kSetItem)
                                          .stop(),
                                      {{"0", kSix}})
                                 .build());
  EXPECT_THAT(
      changeTexts(prepare({false, {"epoch"}, false})),
      ElementsAre("model.safetensors: epoch: a number ->  (pytorch.pickle)",
                  "model.safetensors: file: pytorch_model.bin -> model.safetensors (pytorch.folder)"));
}

TEST_F(WeightsTest, LinksShardsThatAreFineAndWritesTheOthers) {
  write("a.safetensors", SafetensorsBuilder().tensor("a", "BF16", {2}).bytes());
  write("b.safetensors", SafetensorsBuilder()
                             .tensor("b", "Q4_K", {256, 2})
                             .tensorData("n", "I64", {}, std::string(8, '\1'))
                             .bytes());
  EXPECT_THAT(changeTexts(prepare({false, {"^n$"}, false})),
              ElementsAre("b.safetensors: n: I64 [] ->  (weights.type)"));
  EXPECT_TRUE(fs::is_symlink(out() + "/a.safetensors"));
  EXPECT_FALSE(fs::is_symlink(out() + "/b.safetensors"));
  EXPECT_THAT(tensorsIn("b.safetensors"), ElementsAre("b Q4_K [256,2]"));
  EXPECT_EQ(dataOf("b.safetensors", "b"), test::patternBytes(288, 0));
}

TEST_F(WeightsTest, RefusesTypesThatTheContainerCannotCarryAndNamesTheFlags) {
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData("d", "F64", {1}, std::string(8, '\0'))
                                 .tensorData("n", "I64", {1}, std::string(8, '\0'))
                                 .tensorData("x", "X7", {1}, "?")
                                 .tensor("w", "F32", {1})
                                 .bytes());
  Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.type");
  EXPECT_EQ(
      refused.message,
      "model.safetensors: the container cannot carry these element types: 'd' (F64), 'n' (I64), 'x' (X7)");
  EXPECT_EQ(
      refused.remedy,
      "Pass --drop REGEX for the tensors that inference does not need, --cast to make 64-bit floats (F64) "
      "32-bit ones, and --cast-integers to make integers and booleans such floats.");
  refused = refusal({true, {"n"}, false});
  EXPECT_EQ(refused.message, "model.safetensors: the container cannot carry these element types: 'x' (X7)");
}

TEST_F(WeightsTest, NamesTheFirstTensorsOfManyAndCountsTheOthers) {
  SafetensorsBuilder shard;
  for (int k = 0; k < 10; ++k)
    shard.tensorData("n" + std::to_string(k), "BOOL", {1}, "\1");
  write("model.safetensors", shard.bytes());
  EXPECT_EQ(
      refusal().message,
      "model.safetensors: the container cannot carry these element types: 'n0' (BOOL), 'n1' (BOOL), 'n2' "
      "(BOOL), 'n3' (BOOL), 'n4' (BOOL), 'n5' (BOOL), 'n6' (BOOL), 'n7' (BOOL) and 2 more");
}

TEST_F(WeightsTest, CastsDoublesRoundingToNearest) {
  const double tie = 1 + std::ldexp(1.0, -24);  // between 1 and the float above it: to even
  write("model.safetensors",
        SafetensorsBuilder().tensorData("d", "F64", {3}, bytesOf<double>({0.1, tie, -2})).bytes());
  EXPECT_THAT(changeTexts(prepare({true, {}, false})),
              ElementsAre("model.safetensors: d: F64 -> F32 (weights.type)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("d F32 [3]"));
  EXPECT_EQ(dataOf("model.safetensors", "d"), bytesOf<std::uint32_t>({0x3dcccccd, 0x3f800000, 0xc0000000}));
}

TEST_F(WeightsTest, RefusesToCastADoubleThatWouldBecomeInfinite) {
  const double largest = std::ldexp(1.0, 128) - std::ldexp(1.0, 103);  // the first to round up to 2^128
  write("model.safetensors",
        SafetensorsBuilder().tensorData("d", "F64", {1}, bytesOf<double>({largest})).bytes());
  const Refusal refused = refusal({true, {}, false});
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.type");
  EXPECT_EQ(refused.message, "model.safetensors: 64-bit floats too large for 32 bits are in 'd'");
}

TEST_F(WeightsTest, CastsTheLargestDoubleThatFitsAndInfinityItself) {
  const double below = std::nextafter(std::ldexp(1.0, 128) - std::ldexp(1.0, 103), 0);
  const double infinity = std::numeric_limits<double>::infinity();
  write("model.safetensors",
        SafetensorsBuilder().tensorData("d", "F64", {2}, bytesOf<double>({below, infinity})).bytes());
  prepare({true, {}, false});
  EXPECT_EQ(dataOf("model.safetensors", "d"), bytesOf<std::uint32_t>({0x7f7fffff, 0x7f800000}));
}

// One tensor of integers, and the 32-bit floats (IEEE 754) that equal them.
struct IntegerRow {
  const char* type;
  std::string elements;
  std::vector<std::uint32_t> floats;
};
class CastIntegers : public WeightsTest, public testing::WithParamInterface<IntegerRow> {};
TEST_P(CastIntegers, GivesTheFloatsThatEqualThem) {
  const IntegerRow& row = GetParam();
  write("model.safetensors",
        SafetensorsBuilder().tensorData("n", row.type, {row.floats.size()}, row.elements).bytes());
  WeightOptions options;
  options.castIntegers = true;
  EXPECT_THAT(changeTexts(prepare(options)),
              ElementsAre("model.safetensors: n: " + std::string(row.type) + " -> F32 (weights.type)"));
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("n F32 [" + std::to_string(row.floats.size()) + "]"));
  EXPECT_EQ(dataOf("model.safetensors", "n"), bytesOf(row.floats));
}
INSTANTIATE_TEST_SUITE_P(
    All, CastIntegers,
    testing::Values(
        IntegerRow{"I64",
                   bytesOf<std::int64_t>({0, -1, 1 << 24, -(1 << 24), (1 << 24) + 2, std::int64_t{1} << 62,
                                          std::numeric_limits<std::int64_t>::min()}),
                   {0, 0xbf800000, 0x4b800000, 0xcb800000, 0x4b800001, 0x5e800000, 0xdf000000}},
        IntegerRow{"I32",
                   bytesOf<std::int32_t>({3, -3, std::numeric_limits<std::int32_t>::min()}),
                   {0x40400000, 0xc0400000, 0xcf000000}},
        IntegerRow{"I16", bytesOf<std::int16_t>({32767, -32768}), {0x46fffe00, 0xc7000000}},
        IntegerRow{"I8", bytesOf<std::int8_t>({127, -128, -1}), {0x42fe0000, 0xc3000000, 0xbf800000}},
        IntegerRow{"U64", bytesOf<std::uint64_t>({std::uint64_t{1} << 63, 2}), {0x5f000000, 0x40000000}},
        IntegerRow{"U32", bytesOf<std::uint32_t>({0xffffff00, 1}), {0x4f7fffff, 0x3f800000}},
        IntegerRow{"U16", bytesOf<std::uint16_t>({65535, 1}), {0x477fff00, 0x3f800000}},
        IntegerRow{"U8", bytesOf<std::uint8_t>({255, 0}), {0x437f0000, 0}},
        // A boolean is true unless all its bits are 0.
        IntegerRow{"BOOL", bytesOf<std::uint8_t>({0, 1, 2, 255}), {0, 0x3f800000, 0x3f800000, 0x3f800000}}),
    [](const auto& row) { return row.param.type; });

// An integer that lies between two floats.
struct BetweenRow {
  const char* name;
  const char* type;
  std::string element;
};
class CastIntegersBetween : public WeightsTest, public testing::WithParamInterface<BetweenRow> {};
TEST_P(CastIntegersBetween, IsRefused) {
  write("model.safetensors",
        SafetensorsBuilder().tensorData("n", GetParam().type, {1}, GetParam().element).bytes());
  WeightOptions options;
  options.castIntegers = true;
  const Refusal refused = refusal(options);
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.type");
  EXPECT_EQ(refused.message, "model.safetensors: integers that no 32-bit float equals are in 'n'");
  EXPECT_EQ(refused.remedy, "Pass --drop REGEX for the tensors that inference does not need.");
}
INSTANTIATE_TEST_SUITE_P(
    All, CastIntegersBetween,
    testing::Values(
        BetweenRow{"I64", "I64", bytesOf<std::int64_t>({(1 << 24) + 1})},
        BetweenRow{"NegativeI64", "I64", bytesOf<std::int64_t>({-(1 << 24) - 1})},
        BetweenRow{"LargestI64", "I64", bytesOf<std::int64_t>({std::numeric_limits<std::int64_t>::max()})},
        BetweenRow{"I32", "I32", bytesOf<std::int32_t>({std::numeric_limits<std::int32_t>::max()})},
        BetweenRow{"U64", "U64", bytesOf<std::uint64_t>({std::numeric_limits<std::uint64_t>::max()})},
        BetweenRow{"U32", "U32", bytesOf<std::uint32_t>({0xffffff01})}),
    [](const auto& row) { return row.param.name; });

TEST_F(WeightsTest, LooksAtTheIntegersOfEveryPieceBeforeItCastsThem) {
  // More than the 256 KiB that are looked at in one go.
  std::vector<std::int32_t> elements(70'000, 7);
  WeightOptions options;
  options.castIntegers = true;
  const auto fileOf = [](const std::vector<std::int32_t>& values) {
    return SafetensorsBuilder().tensorData("n", "I32", {values.size()}, bytesOf(values)).bytes();
  };
  elements.back() = (1 << 24) + 1;
  write("model.safetensors", fileOf(elements));
  EXPECT_EQ(refusal(options).message, "model.safetensors: integers that no 32-bit float equals are in 'n'");
  elements.back() = 1 << 24;
  write("model.safetensors", fileOf(elements));
  prepare(options);
  std::vector<float> floats(70'000, 7);
  floats.back() = 16'777'216;
  EXPECT_EQ(dataOf("model.safetensors", "n"), bytesOf(floats));
}

TEST_F(WeightsTest, GathersIntegersAndCastsThem) {
  write("pytorch_model.bin",
        zipOf({{"n", {3, 2}, {1, 3}, "0", 6, "ShortStorage"}}, bytesOf<std::int16_t>({1, 2, 3, 4, 5, 6})));
  WeightOptions options;
  options.castIntegers = true;
  prepare(options);
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("n F32 [3,2]"));
  EXPECT_EQ(dataOf("model.safetensors", "n"), bytesOf<float>({1, 4, 2, 5, 3, 6}));
}

TEST_F(WeightsTest, CastsFloatsAndIntegersOnlyWhereEachIsAskedFor) {
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData("d", "F64", {1}, bytesOf<double>({0.5}))
                                 .tensorData("n", "I8", {1}, "\2")
                                 .bytes());
  WeightOptions options;
  options.castIntegers = true;
  EXPECT_EQ(refusal(options).message,
            "model.safetensors: the container cannot carry these element types: 'd' (F64)");
  options = {};
  options.cast = true;
  EXPECT_EQ(refusal(options).message,
            "model.safetensors: the container cannot carry these element types: 'n' (I8)");
}

TEST_F(WeightsTest, CastsNoComplexNumbersAndNo8BitFloats) {
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData("c", "C64", {1}, std::string(8, '\0'))
                                 .tensorData("f", "F8_E4M3", {1}, "\2")
                                 .bytes());
  WeightOptions options;
  options.cast = options.castIntegers = true;
  EXPECT_EQ(refusal(options).message,
            "model.safetensors: the container cannot carry these element types: 'c' (C64), 'f' (F8_E4M3)");
}

TEST_F(WeightsTest, GivesAScalarOneExtent) {
  write("model.safetensors", SafetensorsBuilder().tensor("s", "F32", {}).bytes());
  EXPECT_THAT(changeTexts(prepare()), ElementsAre("model.safetensors: s: [] -> [1] (tensor.refused)"));
  EXPECT_THAT(tensorsIn("model.safetensors"), ElementsAre("s F32 [1]"));
}

TEST_F(WeightsTest, RefusesEmptyTensorsAndFiveExtents) {
  write("model.safetensors", SafetensorsBuilder()
                                 .tensor("empty", "F32", {0, 4})
                                 .tensor("five", "F32", {1, 1, 1, 1, 2})
                                 .tensor("four", "F32", {1, 1, 1, 2})
                                 .bytes());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "tensor.refused");
  EXPECT_EQ(
      refused.message,
      "model.safetensors: the container takes one to four extents, none of them 0: 'empty' [0, 4], 'five' "
      "[1, 1, 1, 1, 2]");
  EXPECT_EQ(refusal({false, {"e"}, false}).code, 0);  // "four" is left, with its four extents
}

TEST_F(WeightsTest, RefusesToLeaveNothing) {
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  const Refusal refused = refusal({false, {"."}, false});
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "weights.no-tensors");
  EXPECT_EQ(refused.message, "model.safetensors: no tensor is left");
}

TEST_F(WeightsTest, RefusesABadRegularExpression) {
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  const Refusal refused = refusal({false, {"("}, false});
  EXPECT_EQ(refused.code, 64);
  EXPECT_EQ(refused.message, "--drop (: it is not a regular expression");
}

TEST_F(WeightsTest, SearchesNamesOfAnyLengthWithoutHarm) {
  write("model.safetensors",
        SafetensorsBuilder().tensor(std::string(1'000'000, 'a'), "F32", {2}).tensor("w", "F32", {2}).bytes());
  EXPECT_EQ(refusal({false, {"^(a|b)*$"}, false}).code, 0);
}

TEST_F(WeightsTest, RefusesAHeaderThatSaysMoreThanTheFileHas) {
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).dataBytes(7).bytes());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.finding, "weights.partial");
  EXPECT_EQ(refused.message,
            "model.safetensors: it ends in the middle: safetensors: tensor 'w' does not lie in the file");
  EXPECT_EQ(refused.remedy, "curl -fL -C - -o 'model.safetensors' \"$URL\"");
}

struct HeaderRow {
  const char* name;
  std::string file;
  const char* message;
};
class WeightHeaders : public WeightsTest, public testing::WithParamInterface<HeaderRow> {};
TEST_P(WeightHeaders, AreRefusedWithTheirMessage) {
  write("model.safetensors", GetParam().file);
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.message, std::string("model.safetensors: safetensors: ") + GetParam().message);
}
INSTANTIATE_TEST_SUITE_P(
    All, WeightHeaders,
    testing::Values(
        HeaderRow{"Short", "1234567", "the file has no header"},
        HeaderRow{"TooLong", test::littleEndian(100'000'001, 8) + "{}",
                  "a header of 100000001 bytes is too long"},
        HeaderRow{"NotJson", SafetensorsBuilder().headerJson("{\"a\"").bytes(), "the header is not JSON"},
        HeaderRow{"Array", SafetensorsBuilder().headerJson("[]").bytes(), "the header is not an object"},
        HeaderRow{"NoOffsets", SafetensorsBuilder().member("w", R"({"dtype":"F32","shape":[1]})").bytes(),
                  "bad entry of tensor 'w'"},
        HeaderRow{"NegativeExtent",
                  SafetensorsBuilder()
                      .member("w", R"({"dtype":"F32","shape":[-1],"data_offsets":[0,4]})")
                      .dataBytes(4)
                      .bytes(),
                  "bad entry of tensor 'w'"},
        HeaderRow{"WrongSize", SafetensorsBuilder().tensor("w", "F32", {2}, {0, 4}).dataBytes(4).bytes(),
                  "tensor 'w' has not the size of its shape"},
        HeaderRow{"WrappingShape",
                  SafetensorsBuilder().tensor("w", "F32", {std::uint64_t{1} << 62, 4}, {0, 0}).bytes(),
                  "tensor 'w' has not the size of its shape"}),
    [](const auto& row) { return row.param.name; });

// ---- the choice of files

TEST_F(WeightsTest, RefusesADirectoryWithoutWeights) {
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "weights.none");
  EXPECT_EQ(refused.message, in() + ": there are no weights");
}

TEST_F(WeightsTest, PrefersSafetensorsFiles) {
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  write("pytorch_model.bin", "anything");
  EXPECT_THAT(prepare(), IsEmpty());
  EXPECT_THAT(outNames(), ElementsAre("model.safetensors"));
}

TEST_F(WeightsTest, LeavesOutWhatTheIndexDoesNotName) {
  write("model-1.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  write("consolidated.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  write("model.safetensors.index.json", R"({"metadata":{},"weight_map":{"w":"model-1.safetensors"}})");
  EXPECT_THAT(
      changeTexts(prepare()),
      ElementsAre("consolidated.safetensors: file: consolidated.safetensors ->  (weights.index-unlisted)"));
  EXPECT_THAT(outNames(), ElementsAre("model-1.safetensors"));
}

TEST_F(WeightsTest, RefusesAMissingShard) {
  write("model-1.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  write("model.safetensors.index.json",
        R"({"weight_map":{"w":"model-1.safetensors","x":"model-2.safetensors"}})");
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "weights.index-missing");
  EXPECT_EQ(refused.message, "model-2.safetensors: it is missing, and model.safetensors.index.json names it");
  EXPECT_EQ(refused.remedy, "Fetch 'model-2.safetensors'.");
}

TEST_F(WeightsTest, RefusesAShardWithoutATensorOfTheIndex) {
  write("model-1.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  write("model.safetensors.index.json",
        R"({"weight_map":{"w":"model-1.safetensors","x":"model-1.safetensors"}})");
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.message,
            "model-1.safetensors: model.safetensors.index.json names tensors that it does not hold: 'x'");
}

struct IndexRow {
  const char* name;
  const char* text;
  const char* message;
};
class WeightIndexes : public WeightsTest, public testing::WithParamInterface<IndexRow> {};
TEST_P(WeightIndexes, AreRefusedWithTheirMessage) {
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  write("model.safetensors.index.json", GetParam().text);
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.finding, "weights.refused");
  EXPECT_EQ(refused.message, std::string("model.safetensors.index.json: ") + GetParam().message);
}
INSTANTIATE_TEST_SUITE_P(All, WeightIndexes,
                         testing::Values(IndexRow{"Empty", "", "it cannot be read"},
                                         IndexRow{"NotJson", "{", "it is not a JSON object"},
                                         IndexRow{"NoMap", "{}", "it has no \"weight_map\""},
                                         IndexRow{
                                             "LeadsElsewhere", R"({"weight_map":{"w":"../x.safetensors"}})",
                                             "it names a shard '../x.safetensors', which is no file name"}),
                         [](const auto& row) { return row.param.name; });

TEST_F(WeightsTest, RefusesTheWeightsOfAnAdapter) {
  write("adapter_config.json", "{}");
  write("adapter_model.safetensors", SafetensorsBuilder().tensor("w", "F32", {2}).bytes());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.adapter");
  EXPECT_EQ(refused.message, "adapter_model.safetensors: the weights are those of an adapter");
}

struct DisguiseRow {
  const char* name;
  const char* bytes;
  const char* finding;
  const char* message;
  const char* remedy;
};
class WeightDisguises : public WeightsTest, public testing::WithParamInterface<DisguiseRow> {};
TEST_P(WeightDisguises, AreRefusedWithTheMend) {
  write("pytorch_model.bin", GetParam().bytes);
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.finding, GetParam().finding);
  EXPECT_EQ(refused.message, std::string("pytorch_model.bin: ") + GetParam().message);
  EXPECT_EQ(refused.remedy, GetParam().remedy);
}
INSTANTIATE_TEST_SUITE_P(
    All, WeightDisguises,
    testing::Values(
        DisguiseRow{"LfsPointer", "version https://git-lfs.example/v1\noid sha256:00\nsize 9\n",
                    "weights.lfs-pointer", "it is a Git LFS pointer and not its content",
                    "git lfs pull --include 'pytorch_model.bin'"},
        DisguiseRow{
            "LinkText", "../../blobs/0123", "weights.link-text",
            "it holds the text of a symbolic link and not its target's content",
            "git config core.symlinks true && rm 'pytorch_model.bin' && git checkout -- 'pytorch_model.bin'"},
        DisguiseRow{"WebPage", "<!DOCTYPE html><html></html>", "weights.web-page", "it is a web page",
                    "curl -fL -H \"Authorization: Bearer $TOKEN\" -o 'pytorch_model.bin' \"$URL\""},
        DisguiseRow{"Empty", "", "file.empty", "it is empty", "Fetch 'pytorch_model.bin' again."}),
    [](const auto& row) { return row.param.name; });

TEST_F(WeightsTest, RefusesAPartialArchive) {
  const std::string whole = zipOf({{"w", {6}, {1}, "0", 6}}, kSix);
  write("pytorch_model.bin", whole.substr(0, whole.size() - 100));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.finding, "weights.partial");
  EXPECT_EQ(refused.message,
            "pytorch_model.bin: it ends in the middle: checkpoint: the archive cannot be opened: Not a zip "
            "archive");
}

TEST_F(WeightsTest, DoesNotWaitForAFifo) {
  ASSERT_EQ(::mkfifo((in() + "/model.safetensors").c_str(), 0600), 0);
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "file.not-regular");
  EXPECT_EQ(refused.message, "model.safetensors: it is not a regular file");
}

// ---- the operating system

TEST_F(WeightsTest, SaysWhenTheOutputCannotBeWritten) {
  write("pytorch_model.bin", zipOf({{"w", {6}, {1}, "0", 6}}, kSix));
  fs::remove(out());
  try {
    prepare();
    FAIL() << "written to nowhere";
  } catch (const Refused& refused) {
    EXPECT_EQ(refused.exitCode(), 6);
    EXPECT_EQ(refused.what(), out() + "/model.safetensors: cannot be written: No such file or directory");
  }
}

// ---- names

TEST_F(WeightsTest, BringsThePrefixesOfAWrappedTextModelToKnownOnes) {
  write("model.safetensors",
        SafetensorsBuilder()
            .tensor("language_model.lm_head.weight", "F32", {2})
            .tensor("language_model.model.layers.0.self_attn.q_proj.weight", "F32", {2, 2})
            .tensor("vision_tower.patch.weight", "F32", {2})
            .bytes());
  EXPECT_THAT(
      changeTexts(prepare({false, {}, true})),
      ElementsAre("model.safetensors: vision_tower.patch.weight: F32 [2] ->  (tensor.unmapped)",
                  "model.safetensors: language_model.lm_head.weight: language_model.lm_head.weight -> "
                  "lm_head.weight (tensor.unmapped)",
                  "model.safetensors: language_model.model.layers.0.self_attn.q_proj.weight: "
                  "language_model.model.layers.0.self_attn.q_proj.weight -> "
                  "model.layers.0.self_attn.q_proj.weight (tensor.unmapped)"));
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("lm_head.weight F32 [2]", "model.layers.0.self_attn.q_proj.weight F32 [2,2]"));
  EXPECT_EQ(dataOf("model.safetensors", "lm_head.weight"), test::patternBytes(8, 0));
}

TEST_F(WeightsTest, RefusesTwoTensorsThatGetOneName) {
  write("a.safetensors", SafetensorsBuilder().tensor("model.norm.weight", "F32", {2}).bytes());
  write("b.safetensors", SafetensorsBuilder().tensor("output_norm.weight", "F32", {2}).bytes());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "tensor.duplicate");
  EXPECT_EQ(
      refused.message,
      "b.safetensors: tensors 'output_norm.weight' and 'model.norm.weight' (a.safetensors) both get the "
      "name 'output_norm.weight'");
  EXPECT_EQ(refused.remedy, "Rename one of them: no name can stand for both.");
}

TEST_F(WeightsTest, RefusesTheSameTensorInTwoFilesUntilOneGoes) {
  const std::string bytes = SafetensorsBuilder().tensor("w", "F32", {2}).bytes();
  write("model.fp16.safetensors", bytes);
  write("model.safetensors", bytes);
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "tensor.duplicate");
  EXPECT_EQ(refused.message,
            "model.safetensors: tensors 'w' and 'w' (model.fp16.safetensors) both get the name 'w'");
  EXPECT_EQ(refused.remedy, "Move one of the two files away, if they hold the same weights.");
  fs::remove(in() + "/model.fp16.safetensors");
  EXPECT_EQ(refusal().code, 0);
}

TEST_F(WeightsTest, SeesCollisionsThatOnlyTheArchitectureMakes) {
  // Gemma's second norm has a name of its own; elsewhere both are the norm before the feed-forward.
  const std::string bytes = SafetensorsBuilder()
                                .tensor("model.layers.0.post_attention_layernorm.weight", "F32", {2})
                                .tensor("model.layers.0.pre_feedforward_layernorm.weight", "F32", {2})
                                .bytes();
  write("model.safetensors", bytes);
  EXPECT_EQ(refusal().finding, "tensor.duplicate");
  write("config.json", R"({"model_type":"gemma2"})");
  EXPECT_EQ(refusal().code, 0);
}

TEST_F(WeightsTest, KeepsANameOf63BytesAndShortensOneOf64) {
  const std::string stem = std::string(62, 'n');
  write("model.safetensors",
        SafetensorsBuilder().tensor(stem + "1", "F32", {2}).tensor(stem + "23", "F32", {2}).bytes());
  const Changes changes = prepare();
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].finding, "tensor.name-cut");
  EXPECT_EQ(changes[0].from, stem + "23");
  EXPECT_EQ(changes[0].to.size(), 63u);
  EXPECT_EQ(changes[0].to.substr(0, 47), std::string(46, 'n') + "~");
  EXPECT_THAT(tensorsIn("model.safetensors"),
              testing::UnorderedElementsAre(stem + "1 F32 [2]", changes[0].to + " F32 [2]"));
}

TEST_F(WeightsTest, TellsLongNamesApartThatAreEqualOnceCut) {
  const std::string stem = std::string(70, 'n');
  write("model.safetensors",
        SafetensorsBuilder().tensor(stem + "a", "F32", {2}).tensor(stem + "b", "F32", {2}).bytes());
  const Changes changes = prepare();
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_NE(changes[0].to, changes[1].to);
}

TEST_F(WeightsTest, RefusesNamesThatAreEmptyOrHoldAZeroByte) {
  write("model.safetensors", SafetensorsBuilder().tensor("", "F32", {2}).bytes());
  EXPECT_EQ(refusal().message, "model.safetensors: a tensor has an empty name");
  write("model.safetensors", SafetensorsBuilder().tensor(std::string("a\0b", 3), "F32", {2}).bytes());
  EXPECT_EQ(refusal().message, "model.safetensors: the name of tensor 'a\\0b' holds a zero byte");
}

}  // namespace
}  // namespace zel::tool::prepare
