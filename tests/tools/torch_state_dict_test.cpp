// Which dictionary of a checkpoint is taken for the weights, and what is said of everything beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "okv2/prepare/torch_archive.h"
#include "support/status_matchers.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bare;
using test::bytesOf;
using test::IsOk;
using test::savedDict;
using test::SavedPickle;
using test::savedText;
using test::StatusIs;
using testing::ElementsAre;
namespace op = test::pickle_op;

SavedPickle one() { return bare().op(op::kBinInt1, "\1"); }
SavedPickle tensor() { return bare().tensor({"", {4}, {1}, "0", 4}); }
SavedPickle array() { return bare().array({{1}, "abcd"}); }
SavedPickle tensorsIn(const char* name) { return savedDict({{savedText(name), tensor()}}); }
SavedPickle arraysIn(const char* name) { return savedDict({{savedText(name), array()}}); }

SavedPickle listOf(const SavedPickle& item) {
  return bare().op(op::kEmptyList).raw(item.bytes()).op(op::kAppend);
}

using Items = std::vector<std::pair<SavedPickle, SavedPickle>>;

// A checkpoint that is a dictionary of these items.
struct Chosen {
  explicit Chosen(const Items& items)
      : file(test::savedZip(SavedPickle().raw(savedDict(items).bytes()).stop(),
                            {{"0", bytesOf<float>({1, 2, 3, 4})}})
                 .build()) {
    status = checkpoint.parse(file);
  }
  [[nodiscard]] std::vector<std::string> tensors() const {
    std::vector<std::string> names;
    for (const TorchTensor& row : checkpoint.tensors())
      names.push_back(row.name);
    return names;
  }
  // "NAME: WHAT", and what follows from it.
  [[nodiscard]] std::vector<std::string> others() const {
    std::vector<std::string> texts;
    for (const OtherEntry& entry : checkpoint.others()) {
      texts.push_back(entry.name + ": " + entry.what + (entry.mayHoldWeights ? ", may hold weights" : "") +
                      (entry.isLeftOut ? ", left out" : ""));
    }
    return texts;
  }
  std::string file;
  TorchCheckpoint checkpoint;
  Status status;
};

// ---- under a known key

class KnownKeys : public testing::TestWithParam<const char*> {};
TEST_P(KnownKeys, OfArraysAreTakenBeforeAnotherDictionaryOfTensors) {
  const Chosen chosen({{savedText(GetParam()), arraysIn("w")}, {savedText("rng"), tensorsIn("cpu")}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), GetParam());
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre("rng: a dictionary, left out"));
}
TEST_P(KnownKeys, AreTakenBeforeTensorsAtTheTop) {
  const Chosen chosen({{savedText("epoch"), one()},
                       {savedText(GetParam()), tensorsIn("w")},
                       {savedText("best_acc1"), tensor()},
                       {savedText("mean"), array()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), GetParam());
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(),
              ElementsAre("epoch: a number", "best_acc1: a tensor, left out", "mean: a tensor, left out"));
}
TEST_P(KnownKeys, OfArraysAreTakenBeforeTensorsAtTheTop) {
  const Chosen chosen({{savedText("rng_state"), tensor()},
                       {savedText(GetParam()), arraysIn("w")},
                       {savedText("best_acc1"), array()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), GetParam());
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre("rng_state: a tensor, left out", "best_acc1: a tensor, left out"));
}
TEST_P(KnownKeys, SayThatTensorsSeveralContainersDeeperAreLeftOut) {
  const Chosen chosen({{savedText(GetParam()), tensorsIn("w")},
                       {savedText("optimizer"), savedDict({{savedText("state"), tensorsIn("m")}})},
                       {savedText("options"), savedDict({{savedText("more"), savedDict({})}})}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_THAT(chosen.others(), ElementsAre("optimizer: a dictionary, left out", "options: a dictionary"));
}
TEST_P(KnownKeys, OfADictionaryWithoutTensorsAreNotTaken) {
  const Chosen chosen(
      {{savedText(GetParam()), savedDict({{savedText("epoch"), one()}})}, {savedText("w"), tensor()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "");
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre(std::string(GetParam()) + ": a dictionary"));
}
TEST_P(KnownKeys, OfAListOfTensorsAreNotTaken) {
  const Chosen chosen({{savedText(GetParam()), listOf(tensor())}, {savedText("w"), tensor()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "");
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre(std::string(GetParam()) + ": a list, may hold weights"));
}
TEST_P(KnownKeys, AreNotTakenWhenTheyAreSpeltOtherwise) {
  const std::string longer = std::string(GetParam()) + "_";
  const Chosen chosen({{savedText(longer), tensorsIn("v")}, {savedText("w"), tensor()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "");
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre(longer + ": a dictionary, may hold weights"));
}
INSTANTIATE_TEST_SUITE_P(Each, KnownKeys,
                         testing::Values("model_state_dict", "state_dict", "model", "module"),
                         [](const auto& row) { return std::string(row.param); });

TEST(KeysBesideAKnownOne, ThatLookAlikeAreNamedOnceWithTensorsAndOnceWithout) {
  const std::string shown(200, 'k');
  const Chosen chosen({{savedText("model"), tensorsIn("w")},
                       {savedText(shown + "a"), one()},
                       {savedText(shown + "b"), tensor()},
                       {savedText(shown + "c"), one()},
                       {savedText(shown + "d"), tensor()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_THAT(chosen.others(), ElementsAre(shown + ": a number", shown + ": a tensor, left out"));
}

TEST(KnownKeysBesideEachOther, AreTakenInTheirOrder) {
  const std::vector<const char*> keys = {"model_state_dict", "state_dict", "model", "module"};
  for (std::size_t k = 0; k + 1 < keys.size(); ++k) {
    for (const bool ofTensors : {true, false}) {
      const SavedPickle dict = ofTensors ? tensorsIn("w") : arraysIn("w");
      const Chosen chosen({{savedText(keys[k + 1]), dict}, {savedText(keys[k]), dict}});
      ASSERT_THAT(chosen.status, IsOk());
      EXPECT_EQ(chosen.checkpoint.within(), keys[k]);
      EXPECT_THAT(chosen.others(), ElementsAre(std::string(keys[k + 1]) + ": a dictionary, left out"));
    }
  }
}
TEST(KnownKeysBesideEachOther, AreTakenWithTensorsBeforeThoseOfArrays) {
  const Chosen chosen(
      {{savedText("model_state_dict"), arraysIn("v")}, {savedText("module"), tensorsIn("w")}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "module");
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre("model_state_dict: a dictionary, left out"));
}

// ---- without a known key

TEST(UnknownKeys, AreTakenWhenNothingElseHoldsTensors) {
  for (const SavedPickle& dict : {tensorsIn("w"), arraysIn("w")}) {
    const Chosen chosen({{savedText("epoch"), one()},
                         {savedText("options"), savedDict({{savedText("more"), listOf(one())}})},
                         {savedText("net"), dict}});
    ASSERT_THAT(chosen.status, IsOk());
    EXPECT_EQ(chosen.checkpoint.within(), "net");
    EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
    EXPECT_THAT(chosen.others(), ElementsAre("epoch: a number", "options: a dictionary"));
  }
}
TEST(UnknownKeys, NeverOutrankArraysAtTheTop) {
  const Chosen chosen(
      {{savedText("w"), array()}, {savedText("b"), array()}, {savedText("extra"), tensorsIn("step")}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "");
  EXPECT_THAT(chosen.tensors(), ElementsAre("w", "b"));
  EXPECT_THAT(chosen.others(), ElementsAre("extra: a dictionary, may hold weights"));
}
TEST(UnknownKeys, NeverOutrankATensorAtTheTop) {
  const Chosen chosen({{savedText("w"), tensor()}, {savedText("extra"), arraysIn("step")}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "");
  EXPECT_THAT(chosen.tensors(), ElementsAre("w"));
  EXPECT_THAT(chosen.others(), ElementsAre("extra: a dictionary, may hold weights"));
}
TEST(UnknownKeys, OfTensorsNeverOutrankOneOfArrays) {
  const Chosen chosen({{savedText("net"), tensorsIn("w")}, {savedText("statistics"), arraysIn("mean")}});
  EXPECT_THAT(chosen.status, StatusIs(Code::Unsupported,
                                      "checkpoint: it holds more than one dictionary of tensors: 'net', "
                                      "'statistics'"));
}
TEST(UnknownKeys, NeverOutrankTensorsSeveralContainersDeeper) {
  const Chosen chosen({{savedText("net"), savedDict({{savedText("layers"), arraysIn("w")}})},
                       {savedText("ema"), tensorsIn("decay")},
                       {savedText("model"), listOf(tensor())},
                       {savedText("epoch"), one()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "ema");
  EXPECT_THAT(chosen.others(), ElementsAre("net: a dictionary, may hold weights",
                                           "model: a list, may hold weights", "epoch: a number"));
}

// ---- arrays of which no tensor was made

SavedPickle bigEndian() { return bare().array({{1}, "abcd", "f4", false, ">"}); }
SavedPickle longDouble() { return bare().array({{1}, std::string(16, 'x'), "f16"}); }

TEST(UnreadArrays, AreNotLostBesideAnUnknownKey) {
  const Chosen chosen(
      {{savedText("w"), bigEndian()},
       {savedText("v"), longDouble()},
       {savedText("options"), bare().global("argparse", "Namespace").op(op::kEmptyTuple).op(op::kReduce)},
       {savedText("extra"), tensorsIn("step")}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "extra");
  EXPECT_THAT(chosen.others(), ElementsAre("w: a big-endian numpy array, may hold weights",
                                           "v: an object that is no tensor, may hold weights",
                                           "options: an object that is no tensor"));
}
TEST(UnreadArrays, AreNotLostInADictionaryBesideAnUnknownKey) {
  for (const SavedPickle& array : {bigEndian(), longDouble()}) {
    const Chosen chosen({{savedText("state_dict"), savedDict({{savedText("w"), array}})},
                         {savedText("ema"), tensorsIn("decay")}});
    ASSERT_THAT(chosen.status, IsOk());
    EXPECT_EQ(chosen.checkpoint.within(), "ema");
    EXPECT_THAT(chosen.others(), ElementsAre("state_dict: a dictionary, may hold weights"));
  }
}
TEST(UnreadArrays, AreNotLostInAListAmongTheTensors) {
  const Chosen chosen({{savedText("w"), tensor()},
                       {savedText("more"), listOf(listOf(bigEndian()))},
                       {savedText("type"), listOf(bare().numberType("f4"))}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_THAT(chosen.others(), ElementsAre("more: a list, may hold weights", "type: a list"));
}
TEST(UnreadArrays, AreLeftOutBesideAKnownKey) {
  const Chosen chosen({{savedText("model"), tensorsIn("w")}, {savedText("mean"), bigEndian()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "model");
  EXPECT_THAT(chosen.others(), ElementsAre("mean: a big-endian numpy array, left out"));
}

// ---- keys that are no text

SavedPickle number(std::uint64_t value) { return bare().number(value); }
SavedPickle none() { return bare().op(op::kNone); }

TEST(KeysThatAreNoText, AreNamedByTheirPositionsAmongSeveralDictionaries) {
  const Chosen chosen(
      {{number(0), tensorsIn("q")}, {number(1), tensorsIn("q")}, {savedText("ema"), tensorsIn("a")}});
  EXPECT_THAT(chosen.status, StatusIs(Code::Unsupported,
                                      "checkpoint: it holds more than one dictionary of tensors: entry 0, "
                                      "entry 1, 'ema'"));
}
TEST(KeysThatAreNoText, NameNoDictionaryThatCouldBeTaken) {
  const Chosen chosen({{savedText("epoch"), one()}, {number(7), tensorsIn("w")}});
  EXPECT_THAT(chosen.status,
              StatusIs(Code::Unsupported, "checkpoint: it holds no dictionary of tensors by name"));
}
TEST(KeysThatAreNoText, AreNamedByTheirPositionsOneByOne) {
  const Chosen chosen({{number(7), one()},
                       {savedText("model"), tensorsIn("w")},
                       {number(7), tensorsIn("q")},
                       {none(), tensorsIn("q")},
                       {savedText("entry 2"), none()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "model");
  EXPECT_THAT(chosen.others(), ElementsAre("entry 0: a number", "entry 2: a dictionary, left out",
                                           "entry 3: a dictionary, left out", "entry 2: None"));
}
TEST(KeysThatAreNoText, AreNamedByTheirPositionsBesideAnUnknownOne) {
  const Chosen chosen(
      {{savedText("net"), tensorsIn("w")}, {number(0), listOf(tensor())}, {number(1), one()}});
  ASSERT_THAT(chosen.status, IsOk());
  EXPECT_EQ(chosen.checkpoint.within(), "net");
  EXPECT_THAT(chosen.others(), ElementsAre("entry 1: a list, may hold weights", "entry 2: a number"));
}
TEST(KeysThatAreNoText, AreAtMost131072BesideTheDictionary) {
  const auto beside = [](std::size_t keys) {
    Items items(keys, {none(), none()});
    items.emplace_back(savedText("model"), tensorsIn("w"));
    return Chosen(items);
  };
  const Chosen most = beside(131'072);
  ASSERT_THAT(most.status, IsOk());
  EXPECT_EQ(most.checkpoint.others().back().name, "entry 131071");
  EXPECT_THAT(beside(131'073).status,
              StatusIs(Code::Unsupported, "checkpoint: a dictionary has more than 131072 entries"));
}

}  // namespace
}  // namespace zel::tool::prepare
