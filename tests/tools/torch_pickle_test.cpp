// The machine for pickles of torch.save: every opcode, the closed list of globals, and programs that mean
// harm.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "executed_pickle.h"
#include "okv2/prepare/torch_pickle.h"
#include "support/status_matchers.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bare;
using test::IsOk;
using test::littleEndian;
using test::SavedPickle;
using test::StatusIs;
namespace op = test::pickle_op;
using Kind = PickleKind;

// ---- values

struct IntegerRow {
  const char* name;
  std::string program;
  std::int64_t value;
};
class TorchPickleIntegers : public testing::TestWithParam<IntegerRow> {};

TEST_P(TorchPickleIntegers, AreReadAsPickletoolsSays) {
  const Executed run(GetParam().program + ".");
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Integer));
  EXPECT_EQ(run.root.integer(), GetParam().value);
  EXPECT_EQ(run.consumed, run.program.size());
}
INSTANTIATE_TEST_SUITE_P(All, TorchPickleIntegers,
                         testing::Values(IntegerRow{"BinInt1", "K\xff", 255},
                                         IntegerRow{"BinInt2", "M\xff\xff", 65535},
                                         IntegerRow{"BinIntNegative", "J\xff\xff\xff\xff", -1},
                                         IntegerRow{"BinIntLargest", "J\xff\xff\xff\x7f", 2147483647},
                                         IntegerRow{"Long1Empty", std::string("\x8a\0", 2), 0},
                                         IntegerRow{"Long1Negative", "\x8a\x01\x80", -128},
                                         IntegerRow{"Long1Positive", std::string("\x8a\x02\x80\0", 4), 128},
                                         IntegerRow{"Long1EightBytes",
                                                    "\x8a\x08\xff\xff\xff\xff\xff\xff\xff\x7f",
                                                    9223372036854775807},
                                         IntegerRow{"Long4", std::string("\x8b\x01\0\0\0\x05", 6), 5},
                                         IntegerRow{"DecimalLine", "I-3000000000\n", -3000000000}),
                         [](const auto& row) { return row.param.name; });

struct TextRow {
  const char* name;
  std::string program;
  Kind kind;
};
class TorchPickleTexts : public testing::TestWithParam<TextRow> {};

TEST_P(TorchPickleTexts, AreViewsOfTheProgram) {
  const Executed run(GetParam().program + "abc.");
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(GetParam().kind));
  EXPECT_EQ(run.root.text(), "abc");
}
TEST_P(TorchPickleTexts, EndOneByteTooEarly) {
  const Executed run(GetParam().program + "ab");
  EXPECT_THAT(run.status, StatusIs(Code::Corrupted, "checkpoint: the pickle ends early at byte " +
                                                        std::to_string(GetParam().program.size())));
}
INSTANTIATE_TEST_SUITE_P(
    All, TorchPickleTexts,
    testing::Values(TextRow{"BinUnicode", std::string("X\3\0\0\0", 5), Kind::Text},
                    TextRow{"ShortBinUnicode", "\x8c\3", Kind::Text},
                    TextRow{"BinUnicode8", std::string("\x8d\3\0\0\0\0\0\0\0", 9), Kind::Text},
                    TextRow{"BinString", std::string("T\3\0\0\0", 5), Kind::Text},
                    TextRow{"ShortBinString", "U\3", Kind::Text},
                    TextRow{"BinBytes", std::string("B\3\0\0\0", 5), Kind::Bytes},
                    TextRow{"ShortBinBytes", "C\3", Kind::Bytes},
                    TextRow{"BinBytes8", std::string("\x8e\3\0\0\0\0\0\0\0", 9), Kind::Bytes},
                    TextRow{"ByteArray8", std::string("\x96\3\0\0\0\0\0\0\0", 9), Kind::Bytes}),
    [](const auto& row) { return row.param.name; });

TEST(TorchPickle, KeepsNumbersOfMoreThan64BitsAsTheirBytes) {
  const Executed run(
      "\x8a\x09"
      "123456789.");
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::LongInteger));
  EXPECT_EQ(run.root.text(), "123456789");
}

TEST(TorchPickle, ReadsFloatsBigEndian) {
  const Executed run(std::string("G\x40\x09\0\0\0\0\0\0.", 10));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_EQ(run.root.real(), 3.125);
}

TEST(TorchPickle, KeepsTheItemsOfATupleInOrder) {
  const Executed run("(K\1K\2K\3K\4t.");
  ASSERT_THAT(run.status, IsOk());
  ASSERT_EQ(run.root.node().count, 4u);
  for (std::uint64_t k = 0; k < 4; ++k)
    EXPECT_EQ(run.root.node().at(k).integer(), std::int64_t(k + 1));
}

TEST(TorchPickle, FillsWhatTheMemoAlreadyRefersTo) {
  // A dictionary is memoised empty, then filled; the tuple of both is the dictionary twice.
  const Executed run(std::string("}q\0(X\1\0\0\0aK\7uh\0\x86.", 17));
  ASSERT_THAT(run.status, IsOk());
  const PickleNode& first = run.root.node().at(0).node();
  EXPECT_EQ(&first, &run.root.node().at(1).node());
  ASSERT_EQ(first.count, 1u);
  EXPECT_EQ(first.first->key.text(), "a");
  EXPECT_EQ(first.first->value.integer(), 7);
}

TEST(TorchPickle, TakesAnOrderedDictOfPairsAsPython2WritesIt) {
  const Executed run(bare()
                         .global("collections", "OrderedDict")
                         .op(op::kEmptyList)
                         .op(op::kEmptyList)
                         .text("a")
                         .op(op::kAppend)
                         .op(op::kBinInt1, "\1")
                         .op(op::kAppend)
                         .op(op::kAppend)
                         .op(op::kTuple1)
                         .op(op::kReduce)
                         .stop());
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Dict));
  EXPECT_EQ(run.root.node().first->key.text(), "a");
}

TEST(TorchPickle, StopsAtStopAndSaysHowFarItRead) {
  const Executed run("N.rest");
  ASSERT_THAT(run.status, IsOk());
  EXPECT_EQ(run.consumed, 2u);
}

TEST(TorchPickle, TakesEveryTruncationOfAStateDictForDamage) {
  const std::string whole = SavedPickle().stateDict({{"w", {2, 3}, {3, 1}, "0", 6}}).stop();
  ASSERT_THAT(Executed(whole).status, IsOk());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const Executed run(whole.substr(0, size));
    EXPECT_EQ(run.status.code(), Code::Corrupted) << size;
    EXPECT_EQ(run.status.message().find("checkpoint: the pickle ends early at byte "), 0u) << size;
  }
}

// ---- globals

TEST(TorchPickle, RefusesAGlobalThatIsNotOnTheListByName) {
  const Executed run(bare().global("os", "system").text("true").op(op::kTuple1).op(op::kReduce).stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle names a global that is not on the list: os.system"));
}

TEST(TorchPickle, RefusesAStackGlobalThatIsNotOnTheListByName) {
  const Executed run(bare().text("builtins").text("eval").op(op::kStackGlobal).stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle names a global that is not on the list: builtins.eval"));
}

TEST(TorchPickle, CutsAGlobalsNameInTheMessage) {
  const Executed run(bare().global(std::string(300, 'm'), "f").stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Unsupported, "checkpoint: the pickle names a global that is not on the list: " +
                                              std::string(200, 'm') + ".f"));
}

TEST(TorchPickle, LooksAtTheWholeNameOfAGlobal) {
  const Executed run(bare().global("torch", "FloatStorag").stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle names a global that is not on the list: torch.FloatStorag"));
}

TEST(TorchPickle, MakesNothingOfInertGlobals) {
  const Executed run(bare()
                         .global("numpy.core.multiarray", "scalar")
                         .global("numpy", "dtype")
                         .text("f8")
                         .op(op::kTuple1)
                         .op(op::kReduce)
                         .op(op::kBinBytes, littleEndian(2, 4) + "xy")
                         .op(op::kTuple2)
                         .op(op::kReduce)
                         .stop());
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Inert));
}

// ---- tensors

Status tensorStatus(const test::SavedTensor& tensor) {
  return Executed(SavedPickle().tensor(tensor).stop()).status;
}

TEST(TorchPickle, TakesATensorThatReachesTheLastElementOfItsStorage) {
  EXPECT_THAT(tensorStatus({"", {2, 3}, {4, 1}, "0", 8, "FloatStorage", 1}), IsOk());
}
TEST(TorchPickle, RefusesATensorThatReachesOneElementFurther) {
  const Executed run(SavedPickle().tensor({"", {2, 3}, {4, 1}, "0", 8, "FloatStorage", 2}).stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Corrupted, "checkpoint: the pickle has a tensor outside its storage at byte " +
                                            std::to_string(run.program.size() - 1)));
}
TEST(TorchPickle, TakesAnEmptyTensorWhereverItBegins) {
  EXPECT_THAT(tensorStatus({"", {0, 5}, {5, 1}, "0", 0, "FloatStorage", 1000}), IsOk());
}
TEST(TorchPickle, RefusesStridesThatWrapAround) {
  const std::uint64_t huge = std::uint64_t{1} << 62;
  EXPECT_EQ(tensorStatus({"", {5, 1}, {huge, 1}, "0", 8}).code(), Code::Corrupted);
  EXPECT_EQ(tensorStatus({"", {huge, huge}, {huge, 1}, "0", 8}).code(), Code::Corrupted);
}
TEST(TorchPickle, RefusesANegativeStride) {
  const Executed run(SavedPickle().tensor({"", {2}, {~std::uint64_t{0}}, "0", 8}).stop());
  EXPECT_THAT(run.status, StatusIs(Code::Corrupted, "checkpoint: the pickle has a bad tensor at byte " +
                                                        std::to_string(run.program.size() - 1)));
}
TEST(TorchPickle, RefusesMoreThanEightExtents) {
  const std::vector<std::uint64_t> ones(9, 1);
  EXPECT_THAT(tensorStatus({"", ones, ones, "0", 1}),
              StatusIs(Code::Unsupported, "checkpoint: the pickle has a tensor of more than 8 extents"));
  const std::vector<std::uint64_t> fewer(8, 1);
  EXPECT_THAT(tensorStatus({"", fewer, fewer, "0", 1}), IsOk());
}
TEST(TorchPickle, RefusesAStorageOfMoreBytesThanCanBeCounted) {
  EXPECT_EQ(tensorStatus({"", {1}, {1}, "0", std::uint64_t{1} << 62}).code(), Code::Corrupted);
}

TEST(TorchPickle, RefusesALongStorageKeyThatEveryLookupWouldPayFor) {
  EXPECT_THAT(tensorStatus({"", {1}, {1}, std::string(256, 'k'), 1}), IsOk());
  EXPECT_THAT(
      tensorStatus({"", {1}, {1}, std::string(257, 'k'), 1}),
      StatusIs(Code::Unsupported, "checkpoint: the pickle has a storage with a key of more than 256 bytes"));
}

std::string typedTensor(std::uint64_t bytes, const std::vector<std::uint64_t>& shape) {
  return SavedPickle()
      .global("torch._utils", "_rebuild_tensor_v3")
      .op(op::kMark)
      .storage("UntypedStorage", "0", bytes)
      .number(0)
      .tuple(shape)
      .tuple({1})
      .op(op::kNewFalse)
      .orderedDict()
      .global("torch", "uint16")
      .op(op::kTuple)
      .op(op::kReduce)
      .stop();
}
TEST(TorchPickle, CountsATypedTensorInItsUntypedStorageInBytes) {
  const Executed run(typedTensor(6, {3}));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_EQ(run.root.tensor().type->name, "U16");
  EXPECT_EQ(Executed(typedTensor(5, {3})).status.code(), Code::Corrupted);
}

// ---- metadata of tensors

// The tensor with one more argument, which ends with the opcodes `metadata`.
std::string withMetadata(const SavedPickle& metadata, bool typed = false) {
  SavedPickle program;
  program.global("torch._utils", typed ? "_rebuild_tensor_v3" : "_rebuild_tensor_v2").op(op::kMark);
  program.storage("FloatStorage", "0", 6).number(0).tuple({6}).tuple({1}).op(op::kNewFalse).orderedDict();
  if (typed) program.global("torch", "float32");
  return program.raw(metadata.bytes()).op(op::kTuple).op(op::kReduce).stop();
}
SavedPickle metadataOf(std::string_view key, char value) {
  return bare().op(op::kEmptyDict).text(key).op(value).op(op::kSetItem);
}

TEST(TorchPickle, TakesATensorWhoseMetadataSayNothingAboutItsElements) {
  EXPECT_THAT(Executed(withMetadata(bare().op(op::kNone))).status, IsOk());
  EXPECT_THAT(Executed(withMetadata(bare().op(op::kEmptyDict))).status, IsOk());
  EXPECT_THAT(Executed(withMetadata(metadataOf("neg", op::kNewFalse))).status, IsOk());
  EXPECT_THAT(Executed(withMetadata(metadataOf("negative", op::kNewTrue))).status, IsOk());
  EXPECT_THAT(Executed(withMetadata(bare().op(op::kNone), true)).status, IsOk());
}
TEST(TorchPickle, RefusesATensorThatIsNegatedWhenItIsRead) {
  const auto refused = StatusIs(Code::Unsupported,
                                "checkpoint: the pickle has a tensor with the neg bit, which resolve_neg() "
                                "takes away before it is saved");
  EXPECT_THAT(Executed(withMetadata(metadataOf("neg", op::kNewTrue))).status, refused);
  EXPECT_THAT(Executed(withMetadata(metadataOf("neg", op::kNewTrue), true)).status, refused);
}
TEST(TorchPickle, RefusesATensorThatIsConjugatedWhenItIsRead) {
  EXPECT_THAT(Executed(withMetadata(metadataOf("conj", op::kNewTrue))).status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle has a tensor with the conj bit, which resolve_conj() takes "
                       "away before it is saved"));
}
TEST(TorchPickle, RefusesMetadataThatAreNoDictionary) {
  EXPECT_THAT(Executed(withMetadata(bare().op(op::kNewTrue))).status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle has a tensor with metadata that torch.save does not write"));
}
TEST(TorchPickle, RefusesMetadataOfMoreThanSixteenItems) {
  SavedPickle items = bare().op(op::kEmptyDict);
  for (int k = 0; k < 16; ++k)
    items.text("k" + std::to_string(k)).op(op::kNone).op(op::kSetItem);
  EXPECT_THAT(Executed(withMetadata(items)).status, IsOk());
  items.text("k16").op(op::kNone).op(op::kSetItem);
  EXPECT_THAT(Executed(withMetadata(items)).status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle has a tensor with metadata that torch.save does not write"));
}

// ---- what a program may not do

struct RefusedRow {
  const char* name;
  std::string program;
  Code code;
  const char* message;
};
class TorchPickleRefusals : public testing::TestWithParam<RefusedRow> {};

TEST_P(TorchPickleRefusals, HaveTheirMessage) {
  EXPECT_THAT(Executed(GetParam().program).status,
              StatusIs(GetParam().code, std::string("checkpoint: the pickle ") + GetParam().message));
}
INSTANTIATE_TEST_SUITE_P(
    All, TorchPickleRefusals,
    testing::Values(
        RefusedRow{"Nothing", "", Code::Corrupted, "ends early at byte 0"},
        RefusedRow{"OldProtocol", "\x80\1N.", Code::Unsupported, "has protocol 1"},
        RefusedRow{"NewProtocol", "\x80\6N.", Code::Unsupported, "has protocol 6"},
        RefusedRow{"Persid", "Pabc\n.", Code::Unsupported,
                   "has the opcode 0x50, which torch.save does not write"},
        RefusedRow{"Inst", "(ios\nsystem\n.", Code::Unsupported,
                   "has the opcode 0x69, which torch.save does not write"},
        RefusedRow{"Extension", "\x82\1.", Code::Unsupported,
                   "has the opcode 0x82, which torch.save does not write"},
        RefusedRow{"PopOfNothing", "0N.", Code::Corrupted,
                   "takes more from the stack than there is at byte 1"},
        RefusedRow{"TupleAcrossAMark", "K\1(\x85.", Code::Corrupted,
                   "takes more from the stack than there is at byte 4"},
        RefusedRow{"TupleWithoutMark", "K\1t.", Code::Corrupted, "has no mark at byte 3"},
        RefusedRow{"ItemsOfNothing", "(K\1K\1u.", Code::Corrupted,
                   "takes more from the stack than there is at byte 6"},
        RefusedRow{"KeyWithoutValue", "}(K\1u.", Code::Corrupted, "has a key without a value at byte 5"},
        RefusedRow{"ItemOfANumber", "K\1K\1K\1s.", Code::Corrupted,
                   "sets an item of what is no dictionary at byte 7"},
        RefusedRow{"AppendToADict", "}K\1a.", Code::Corrupted, "appends to what is no list at byte 4"},
        RefusedRow{"MemoOfNothing", "h\5.", Code::Corrupted, "asks for an empty memo index at byte 2"},
        RefusedRow{"MemoGap", "Nq\2h\1.", Code::Corrupted, "asks for an empty memo index at byte 5"},
        RefusedRow{"MemoBomb", "Nr\xff\xff\xff\xff.", Code::Corrupted,
                   "has a memo index out of sequence at byte 6"},
        RefusedRow{"CallOfANumber", "K\1)R.", Code::Corrupted, "calls what cannot be called at byte 4"},
        RefusedRow{"CallOfAStorageType", "ctorch\nFloatStorage\n)R.", Code::Corrupted,
                   "calls what cannot be called at byte 22"},
        RefusedRow{"CallWithANumber", "ccollections\nOrderedDict\nK\1R.", Code::Corrupted,
                   "calls with what is no tuple at byte 28"},
        RefusedRow{"ObjectOfAFunction", "ctorch._utils\n_rebuild_tensor_v2\n)\x81.", Code::Corrupted,
                   "makes an object of what is no class at byte 35"},
        RefusedRow{"StateOfANumber", "K\1}b.", Code::Corrupted, "gives state to what has none at byte 4"},
        RefusedRow{"PersistentNumber", "K\1Q.", Code::Unsupported,
                   "has a persistent id that torch.save does not write"},
        RefusedRow{"PersistentModule", "(U\6moduleNNNNtQ.", Code::Unsupported,
                   "has a persistent id of the kind 'module'"},
        RefusedRow{"BadDecimal", "I1x\n.", Code::Corrupted, "has a bad number at byte 4"},
        RefusedRow{"BadParameter", "ctorch._utils\n_rebuild_parameter\nN\x85R.", Code::Corrupted,
                   "has a bad parameter at byte 36"}),
    [](const auto& row) { return row.param.name; });

TEST(TorchPickle, SaysWhenValuesAreLeftBehind) {
  EXPECT_THAT(Executed("NN.").status,
              StatusIs(Code::Corrupted, "checkpoint: the pickle leaves 2 values behind"));
  EXPECT_THAT(Executed(".").status,
              StatusIs(Code::Corrupted, "checkpoint: the pickle leaves 0 values behind"));
  EXPECT_THAT(Executed("N(.").status,
              StatusIs(Code::Corrupted, "checkpoint: the pickle leaves 1 values behind"));
}

TEST(TorchPickle, NestsAMillionDeepWithoutRecursion) {
  const Executed run(bare().op(op::kNone).repeat(1'000'000, std::string(1, op::kTuple1)).stop());
  EXPECT_THAT(run.status, IsOk());
}

TEST(TorchPickle, RefusesNestingOfTenMillion) {
  const Executed run(bare().op(op::kNone).repeat(10'000'000, std::string(1, op::kTuple1)).stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Unsupported, "checkpoint: the pickle makes more than 8388608 values"));
}

TEST(TorchPickle, SharesSubtreesInsteadOfCopyingThem) {
  // 60 times a tuple of itself twice: a tree of 2^60 leaves in 120 bytes.
  const Executed run(bare().op(op::kNone).repeat(60, "2\x86").stop());
  EXPECT_THAT(run.status, IsOk());
}

TEST(TorchPickle, RefusesToRebuildALongListAgainAndAgain) {
  // A list of 4096 pairs made an OrderedDict 4096 times.
  SavedPickle pickle = bare();
  pickle.op(op::kEmptyList).op(op::kMark).repeat(4096, "NN\x86").op(op::kAppends).op(op::kTuple1);
  pickle.op(op::kBinPut, std::string(1, '\0'));
  for (int k = 0; k < 4096; ++k) {
    pickle.global("collections", "OrderedDict")
        .op(op::kBinGet, std::string(1, '\0'))
        .op(op::kReduce)
        .op(op::kPop);
  }
  EXPECT_THAT(Executed(pickle.stop()).status,
              StatusIs(Code::Unsupported, "checkpoint: the pickle makes more than 8388608 values"));
}

TEST(TorchPickle, SaysThatALongProgramIsTooLong) {
  const std::string frame = std::string(1, op::kFrame) + std::string(8, '\0');
  const Executed run(bare().repeat((std::size_t{64} << 20) / 9 + 1, frame).op(op::kNone).stop());
  EXPECT_THAT(run.status,
              StatusIs(Code::Unsupported, "checkpoint: the pickle is longer than 67108864 bytes"));
}

}  // namespace
}  // namespace zel::tool::prepare
