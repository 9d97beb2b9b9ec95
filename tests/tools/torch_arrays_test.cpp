// Arrays of numpy in pickles of torch.save: which become tensors, which stay what they are, which are
// refused.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
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
using test::SavedArray;
using test::SavedPickle;
using test::StatusIs;
namespace op = test::pickle_op;
using Kind = PickleKind;
using Sizes = std::vector<std::uint64_t>;

SavedPickle latin1(std::string_view utf8) { return bare().latin1(utf8); }
SavedPickle f4() { return bare().numberType("f4"); }

Sizes sizesOf(const PickleNode& node) {
  Sizes out;
  for (const PickleItem* item = node.first; item != nullptr; item = item->next)
    out.push_back(static_cast<std::uint64_t>(item->value.integer()));
  return out;
}

// The message ends with the position behind the last opcode before STOP.
auto corruptAtTheEnd(const Executed& run, const std::string& what) {
  return StatusIs(Code::Corrupted, "checkpoint: the pickle has a " + what + " at byte " +
                                       std::to_string(run.program.size() - 1));
}

// ---- what becomes a tensor

TEST(TorchArrays, BecomeTensorsOverTheBytesInTheProgram) {
  const Executed run(bare().array({{2, 3}, std::string(24, '\x80')}));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Tensor));
  const PickleTensor& tensor = run.root.tensor();
  EXPECT_EQ(tensor.type->name, "F32");
  EXPECT_EQ(tensor.begin, 0u);
  EXPECT_EQ(sizesOf(*tensor.shape), (Sizes{2, 3}));
  EXPECT_EQ(sizesOf(*tensor.strides), (Sizes{3, 1}));
  EXPECT_EQ(tensor.storage->elements, 6u);
  ASSERT_NE(tensor.storage->content, nullptr);
  EXPECT_TRUE(tensor.storage->content->isLatin1);
  std::string utf8;
  for (int k = 0; k < 24; ++k)
    utf8 += "\xc2\x80";
  EXPECT_EQ(tensor.storage->content->text, utf8);
}

TEST(TorchArrays, AreNotAmongTheStoragesOfTheFile) {
  const Executed run(bare().array({{1}, "abcd"}));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.machine.storages().empty());
}

TEST(TorchArrays, HaveTheFirstExtentFastestWhenTheySaySo) {
  const Executed run(bare().array({{2, 3, 4}, std::string(96, 'x'), "f4", true}));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Tensor));
  EXPECT_EQ(sizesOf(*run.root.tensor().strides), (Sizes{1, 2, 6}));
}

TEST(TorchArrays, MayHaveNoExtents) {
  const Executed run(bare().array({{}, "abcd"}));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Tensor));
  EXPECT_EQ(run.root.tensor().shape->count, 0u);
  EXPECT_EQ(run.root.tensor().storage->elements, 1u);
}

TEST(TorchArrays, OfNoElementsHaveTheEmptyBytesOfProtocol2) {
  const auto noBytes = [](const char* module) {
    return bare().global(module, "bytes").op(op::kEmptyTuple).op(op::kReduce);
  };
  for (const char* module : {"__builtin__", "builtins"}) {
    const Executed run(bare().unfilledArray().arrayState({2, 0}, f4(), false, noBytes(module)));
    ASSERT_THAT(run.status, IsOk()) << module;
    ASSERT_TRUE(run.root.is(Kind::Tensor)) << module;
    EXPECT_EQ(run.root.tensor().storage->elements, 0u) << module;
  }
}

TEST(TorchArrays, OfNoElementsMayHaveAnyOtherExtents) {
  const std::uint64_t huge = std::uint64_t{1} << 62;
  const Executed run(bare().array({{huge, 0, huge}, ""}));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Tensor));
}

struct CodeRow {
  const char* code;
  const char* type;
  std::size_t bytes;
};
class TorchArrayCodes : public testing::TestWithParam<CodeRow> {};
TEST_P(TorchArrayCodes, AreElementTypes) {
  const Executed run(bare().array({{3}, std::string(3 * GetParam().bytes, 'x'), GetParam().code}));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Tensor));
  EXPECT_EQ(run.root.tensor().type->name, GetParam().type);
}
INSTANTIATE_TEST_SUITE_P(All, TorchArrayCodes,
                         testing::Values(CodeRow{"f2", "F16", 2}, CodeRow{"f4", "F32", 4},
                                         CodeRow{"f8", "F64", 8}, CodeRow{"i1", "I8", 1},
                                         CodeRow{"i2", "I16", 2}, CodeRow{"i4", "I32", 4},
                                         CodeRow{"i8", "I64", 8}, CodeRow{"u1", "U8", 1},
                                         CodeRow{"u2", "U16", 2}, CodeRow{"u4", "U32", 4},
                                         CodeRow{"u8", "U64", 8}, CodeRow{"b1", "BOOL", 1},
                                         CodeRow{"c8", "C64", 8}, CodeRow{"c16", "C128", 16}),
                         [](const auto& row) { return std::string(row.param.code); });

TEST(TorchArrays, MayShareATypeThatTheMemoHandsOut) {
  const SavedPickle known = bare().op(op::kBinGet, "\1");
  const Executed run(bare()
                         .raw(f4().bytes())
                         .op(op::kBinPut, "\1")
                         .unfilledArray()
                         .arrayState({1}, known, false, latin1("abcd"))
                         .unfilledArray()
                         .arrayState({1}, known, false, latin1("efgh"))
                         .op(op::kTuple3));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.node().at(1).is(Kind::Tensor));
  EXPECT_TRUE(run.root.node().at(2).is(Kind::Tensor));
}

// ---- byte order

const std::string kZero(1, '\0');
// The type of the code f4 with another state; `state` are the opcodes of a tuple.
SavedPickle typeWithState(const std::string& state) {
  return bare()
      .global("numpy", "dtype")
      .text("f4")
      .op(op::kTuple1)
      .op(op::kReduce)
      .op(op::kMark)
      .raw(state)
      .op(op::kTuple)
      .op(op::kBuild);
}
SavedPickle arrayOf(const SavedPickle& type, const SavedPickle& raw = latin1("abcd")) {
  return bare().unfilledArray().arrayState({1}, type, false, raw);
}

TEST(TorchArrays, AreTakenInTheByteOrderOfTheMachine) {
  for (const char* order : {"<", "=", "|"}) {
    const Executed run(bare().array({{1}, "abcd", "f4", false, order}));
    ASSERT_THAT(run.status, IsOk()) << order;
    EXPECT_TRUE(run.root.is(Kind::Tensor)) << order;
  }
}
TEST(TorchArrays, AreTakenWithATypeThatHasNoStateOfItsOwn) {
  const SavedPickle type = bare().global("numpy", "dtype").text("f4").op(op::kTuple1).op(op::kReduce);
  const Executed run(bare().unfilledArray().arrayState({1}, type, false, latin1("abcd")));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Tensor));
}
TEST(TorchArrays, AreTakenWithATypeWhoseStateSaysNothingElse) {
  // What the rows of TorchArrayObjects differ from.
  const Executed run(arrayOf(typeWithState("K\3U\1<NNNK\1K\1K" + kZero)));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Tensor));
}
TEST(TorchArrays, StayObjectsInTheOtherByteOrder) {
  const Executed run(bare().array({{1}, "abcd", "f4", false, ">"}));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Inert));
}
TEST(TorchArrays, DoNotMakeATypeOfTheOtherByteOrderBad) {
  const Executed run(bare().numberType("f4", ">"));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Inert));
}

// ---- what stays inert

struct InertRow {
  const char* name;
  SavedPickle program;
};
class TorchArrayObjects : public testing::TestWithParam<InertRow> {};
TEST_P(TorchArrayObjects, StayObjects) {
  const Executed run(GetParam().program);
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Inert));
}
INSTANTIATE_TEST_SUITE_P(
    All, TorchArrayObjects,
    testing::Values(
        InertRow{"Unfilled", bare().unfilledArray()},
        InertRow{"Objects", arrayOf(bare().numberType("O8", "|"), bare().op(op::kEmptyList))},
        InertRow{"Texts", arrayOf(bare().numberType("U1"))},
        InertRow{"Dates", arrayOf(bare().numberType("M8"))},
        InertRow{"Records", arrayOf(bare().numberType("V4", "|"))},
        InertRow{"LongDoubles", arrayOf(bare().numberType("f16"))},
        InertRow{"TypeOfSeveral", arrayOf(typeWithState("K\3U\1<)NNK\1K\1K" + kZero))},
        InertRow{"TypeWithNames", arrayOf(typeWithState("K\3U\1<N)NK\1K\1K" + kZero))},
        InertRow{"TypeWithFields", arrayOf(typeWithState("K\3U\1<NN}K\1K\1K" + kZero))},
        InertRow{"TypeOfAnotherVersion", arrayOf(typeWithState("K\4U\1<NNNK\1K\1K" + kZero))},
        InertRow{"TypeOfNoVersion", arrayOf(typeWithState("NU\1<NNNK\1K\1K" + kZero))},
        InertRow{"TypeOfANumberForAByteOrder", arrayOf(typeWithState("K\3K\3NNNK\1K\1K" + kZero))},
        InertRow{"TypeWithMetadata", arrayOf(typeWithState("K\3U\1<NNNK\1K\1K" + kZero + "}"))},
        InertRow{"TypeOfNoByteOrder", arrayOf(typeWithState("K\3U\1!NNNK\1K\1K" + kZero))},
        InertRow{"NoType", arrayOf(bare().op(op::kNone))},
        InertRow{"StateThatIsNoTuple", bare().unfilledArray().op(op::kNone).op(op::kBuild)},
        InertRow{"StateOfFourItems", bare().unfilledArray().tuple({1, 2, 3, 4}).op(op::kBuild)},
        InertRow{"StateOfAnotherVersion", bare()
                                              .unfilledArray()
                                              .op(op::kMark)
                                              .op(op::kBinInt1, "\2")
                                              .tuple({1})
                                              .raw(f4().bytes())
                                              .op(op::kNewFalse)
                                              .raw(latin1("abcd").bytes())
                                              .op(op::kTuple)
                                              .op(op::kBuild)},
        InertRow{"OfNoClass",
                 bare().global("numpy.core.multiarray", "_reconstruct").op(op::kEmptyTuple).op(op::kReduce)},
        InertRow{"MadeByItsClass", bare().global("numpy", "ndarray").tuple({1}).op(op::kReduce)},
        InertRow{"MadeOfAnotherClass", bare()
                                           .global("numpy.core.multiarray", "_reconstruct")
                                           .global("collections", "OrderedDict")
                                           .op(op::kTuple1)
                                           .op(op::kReduce)},
        InertRow{"MadeOfANumber",
                 bare().global("numpy.core.multiarray", "_reconstruct").tuple({1}).op(op::kReduce)},
        InertRow{"FromABufferAlone", bare()
                                         .global("numpy.core.numeric", "_frombuffer")
                                         .op(op::kShortBinBytes, "\4abcd")
                                         .op(op::kTuple1)
                                         .op(op::kReduce)},
        InertRow{"EncodedWithoutAnEncoding",
                 bare().global("_codecs", "encode").text("a").op(op::kTuple1).op(op::kReduce)},
        InertRow{"EncodedWithAMode", bare()
                                         .global("_codecs", "encode")
                                         .text("a")
                                         .text("latin1")
                                         .text("strict")
                                         .op(op::kTuple3)
                                         .op(op::kReduce)},
        InertRow{"EncodedNumbers", bare()
                                       .global("_codecs", "encode")
                                       .op(op::kBinInt1, "\1")
                                       .text("latin1")
                                       .op(op::kTuple2)
                                       .op(op::kReduce)},
        InertRow{"EncodedInANumber", bare()
                                         .global("_codecs", "encode")
                                         .text("a")
                                         .op(op::kBinInt1, "\1")
                                         .op(op::kTuple2)
                                         .op(op::kReduce)},
        InertRow{"OtherEncodings",
                 bare().global("_codecs", "encode").text("a").text("utf-8").op(op::kTuple2).op(op::kReduce)}),
    [](const auto& row) { return row.param.name; });

TEST(TorchArrays, OfOtherClassesAreRefusedByTheirName) {
  EXPECT_THAT(Executed(bare().global("numpy", "matrix")).status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the pickle names a global that is not on the list: numpy.matrix"));
}

// ---- their bytes

TEST(TorchArrays, TakeBytesAsTheyAre) {
  const Executed run(arrayOf(f4(), bare().op(op::kShortBinBytes, "\4\xff\xfe\xfd\xfc")));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Tensor));
  EXPECT_FALSE(run.root.tensor().storage->content->isLatin1);
  EXPECT_EQ(run.root.tensor().storage->content->text, "\xff\xfe\xfd\xfc");
}
TEST(TorchArrays, TakeTheStringsOfPython2AsTheirBytes) {
  for (const SavedPickle& raw : {bare().op(op::kShortBinString, "\4\xff\xfe\xfd\xfc"),
                                 bare().op(op::kBinString, littleEndian(4, 4)).raw("\xff\xfe\xfd\xfc")}) {
    const Executed run(arrayOf(f4(), raw));
    ASSERT_THAT(run.status, IsOk());
    ASSERT_TRUE(run.root.is(Kind::Tensor));
    EXPECT_FALSE(run.root.tensor().storage->content->isLatin1);
    EXPECT_EQ(run.root.tensor().storage->content->text, "\xff\xfe\xfd\xfc");
  }
}
TEST(TorchArrays, TakeNoTextThatNobodyEncoded) {
  const Executed run(arrayOf(f4(), bare().text("abcd")));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}
TEST(TorchArrays, TakeNoListForNumbers) {
  const Executed run(arrayOf(f4(), bare().op(op::kEmptyList)));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}

TEST(TorchArrays, HaveAsManyBytesAsTheirElements) {
  EXPECT_THAT(Executed(bare().array({{2, 3}, std::string(24, '\xff')})).status, IsOk());
  for (const std::size_t size : {0, 11, 23, 25, 49}) {
    const Executed run(bare().array({{2, 3}, std::string(size, '\xff')}));
    EXPECT_THAT(run.status, corruptAtTheEnd(run, "numpy array of another size than its bytes")) << size;
  }
}
TEST(TorchArrays, HaveAsManyBytesAsTheirElementsWithoutAnEncoding) {
  for (const std::size_t size : {23, 25}) {
    const SavedPickle raw = bare().op(op::kBinBytes, littleEndian(size, 4)).raw(std::string(size, 'x'));
    const Executed run(bare().unfilledArray().arrayState({6}, f4(), false, raw));
    EXPECT_THAT(run.status, corruptAtTheEnd(run, "numpy array of another size than its bytes")) << size;
  }
}
TEST(TorchArrays, OfMoreElementsThanCanBeCountedAreRefused) {
  const std::uint64_t huge = std::uint64_t{1} << 62;
  for (const Sizes& shape : {Sizes{huge, 4}, Sizes{huge, 4, 0, huge, 4}}) {
    const Executed run(bare().array({shape, "abcd"}));
    EXPECT_THAT(run.status, corruptAtTheEnd(run, "numpy array of another size than its bytes"));
  }
}
TEST(TorchArrays, OfMoreBytesThanCanBeCountedAreRefused) {
  const Executed run(bare().array({{std::uint64_t{1} << 62}, ""}));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "numpy array of another size than its bytes"));
}

TEST(TorchArrays, TakeEveryCharacterThatIsAByte) {
  // 0, 127, 128 and 255.
  const Executed run(arrayOf(f4(), latin1(std::string("\0\x7f\xc2\x80\xc3\xbf", 6))));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Tensor));
}
TEST(TorchArrays, RefuseCharactersThatAreNoBytes) {
  const std::string_view texts[] = {
      "abc\xc4\x80",   // 256
      "abc\xc1\xbf",   // 127 in two bytes
      "abc\x80",       // a second byte alone
      "abc\xc3",       // a first one alone
      "ab\xc3\x41",    // a first one before another character
      "a\xe2\x82\xac"  // 8364
  };
  for (const std::string_view text : texts) {
    const Executed run(arrayOf(f4(), latin1(text)));
    EXPECT_THAT(run.status, corruptAtTheEnd(run, "numpy array of characters that latin1 lacks")) << text;
  }
}

// ---- their shapes

TEST(TorchArrays, HaveAtMostEightExtents) {
  EXPECT_THAT(Executed(bare().array({Sizes(8, 1), "abcd"})).status, IsOk());
  EXPECT_THAT(Executed(bare().array({Sizes(9, 1), "abcd"})).status,
              StatusIs(Code::Unsupported, "checkpoint: the pickle has a tensor of more than 8 extents"));
}
TEST(TorchArrays, HaveNoNegativeExtent) {
  const Executed run(bare().array({{~std::uint64_t{0}}, ""}));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}

// A state with one item of another kind.
SavedPickle stateOf(const SavedPickle& shape, const SavedPickle& order) {
  return bare()
      .unfilledArray()
      .op(op::kMark)
      .op(op::kBinInt1, "\1")
      .raw(shape.bytes())
      .raw(f4().bytes())
      .raw(order.bytes())
      .raw(latin1("abcd").bytes())
      .op(op::kTuple)
      .op(op::kBuild);
}
TEST(TorchArrays, HaveATupleForAShape) {
  EXPECT_THAT(Executed(stateOf(bare().tuple({1}), bare().op(op::kNewFalse))).status, IsOk());
  const Executed run(stateOf(bare().number(1), bare().op(op::kNewFalse)));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}
TEST(TorchArrays, SayWhichExtentIsFastestWithABooleanOrANumber) {
  EXPECT_THAT(Executed(stateOf(bare().tuple({1}), bare().number(1))).status, IsOk());
  const Executed run(stateOf(bare().tuple({1}), bare().op(op::kNone)));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}

// ---- when they are filled

TEST(TorchArrays, AreTensorsInAContainerThatTakesThemFilled) {
  const Executed run(bare().op(op::kEmptyDict).text("a").array({{1}, "abcd"}).op(op::kSetItem));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.node().holdsTensor);
  EXPECT_TRUE(run.root.node().first->value.is(Kind::Tensor));
}
TEST(TorchArrays, AreTensorsWhereTheMemoHandsThemOutAgain) {
  // Memoised before they are filled, as picklers do.
  const Executed run(bare()
                         .unfilledArray()
                         .op(op::kBinPut, "\1")
                         .arrayState({1}, f4(), false, latin1("abcd"))
                         .op(op::kBinGet, "\1")
                         .op(op::kTuple2));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.node().at(1).is(Kind::Tensor));
  EXPECT_EQ(&run.root.node().at(0).tensor(), &run.root.node().at(1).tensor());
}
TEST(TorchArrays, StayInertInAContainerThatTakesThemUnfilled) {
  const Executed run(bare()
                         .unfilledArray()
                         .op(op::kBinPut, "\1")
                         .op(op::kTuple1)
                         .op(op::kBinGet, "\1")
                         .arrayState({1}, f4(), false, latin1("abcd"))
                         .op(op::kTuple2));
  ASSERT_THAT(run.status, IsOk());
  const PickleNode& early = run.root.node().at(0).node();
  EXPECT_FALSE(early.holdsTensor);
  EXPECT_TRUE(early.at(0).is(Kind::Inert));
  EXPECT_TRUE(run.root.node().at(1).is(Kind::Tensor));
}
TEST(TorchArrays, AreFilledOnce) {
  const Executed run(bare().array({{1}, "abcd"}).arrayState({1}, f4(), false, latin1("efgh")));
  EXPECT_THAT(run.status,
              StatusIs(Code::Corrupted, "checkpoint: the pickle fills a numpy array twice at byte " +
                                            std::to_string(run.program.size() - 1)));
}
TEST(TorchArrays, AreMadeByAFunctionThatIsNoClass) {
  const Executed run(
      bare().global("numpy.core.multiarray", "_reconstruct").op(op::kEmptyTuple).op(op::kNewObj));
  EXPECT_THAT(run.status, StatusIs(Code::Corrupted,
                                   "checkpoint: the pickle makes an object of what is no class "
                                   "at byte " +
                                       std::to_string(run.program.size() - 1)));
}

// ---- from a buffer, as protocol 5 writes them

SavedPickle fromBuffer(const char* module, const SavedPickle& type, const char* order,
                       std::uint64_t size = 24) {
  return bare()
      .global(module, "_frombuffer")
      .op(op::kMark)
      .op(op::kByteArray8, littleEndian(size, 8))
      .raw(std::string(size, '\xff'))
      .raw(type.bytes())
      .tuple({2, 3})
      .text(order)
      .op(op::kTuple)
      .op(op::kReduce);
}
TEST(TorchArraysFromABuffer, AreTensors) {
  for (const char* module : {"numpy.core.numeric", "numpy._core.numeric"}) {
    const Executed run(fromBuffer(module, f4(), "C"));
    ASSERT_THAT(run.status, IsOk()) << module;
    ASSERT_TRUE(run.root.is(Kind::Tensor)) << module;
    EXPECT_EQ(sizesOf(*run.root.tensor().shape), (Sizes{2, 3})) << module;
    EXPECT_EQ(sizesOf(*run.root.tensor().strides), (Sizes{3, 1})) << module;
    EXPECT_EQ(run.root.tensor().storage->content->text, std::string(24, '\xff')) << module;
  }
}
TEST(TorchArraysFromABuffer, HaveTheFirstExtentFastestInTheOrderOfFortran) {
  const Executed run(fromBuffer("numpy.core.numeric", f4(), "F"));
  ASSERT_THAT(run.status, IsOk());
  ASSERT_TRUE(run.root.is(Kind::Tensor));
  EXPECT_EQ(sizesOf(*run.root.tensor().strides), (Sizes{1, 2}));
}
TEST(TorchArraysFromABuffer, AreRefusedInAnyOtherOrder) {
  const Executed run(fromBuffer("numpy.core.numeric", f4(), "K"));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}
TEST(TorchArraysFromABuffer, AreRefusedInAnOrderThatIsNoText) {
  const Executed run(bare()
                         .global("numpy.core.numeric", "_frombuffer")
                         .op(op::kMark)
                         .op(op::kByteArray8, littleEndian(4, 8))
                         .raw("abcd")
                         .raw(f4().bytes())
                         .tuple({1})
                         .op(op::kBinInt1, "\1")
                         .op(op::kTuple)
                         .op(op::kReduce));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "bad numpy array"));
}
TEST(TorchArraysFromABuffer, StayObjectsInTheOtherByteOrder) {
  const Executed run(fromBuffer("numpy.core.numeric", bare().numberType("f4", ">"), "C"));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Inert));
}
TEST(TorchArraysFromABuffer, HaveAsManyBytesAsTheirElements) {
  const Executed run(fromBuffer("numpy.core.numeric", f4(), "C", 23));
  EXPECT_THAT(run.status, corruptAtTheEnd(run, "numpy array of another size than its bytes"));
}
TEST(TorchArraysFromABuffer, StayObjectsWhenTheyHoldNoNumbers) {
  const Executed run(fromBuffer("numpy.core.numeric", bare().numberType("V4", "|"), "C"));
  ASSERT_THAT(run.status, IsOk());
  EXPECT_TRUE(run.root.is(Kind::Inert));
}

// ---- what a program may not do

// `arrays` arrays over one text of `size` bytes.
SavedPickle sharing(std::size_t size, std::size_t arrays) {
  SavedPickle program = bare().latin1(std::string(size, 'x')).op(op::kBinPut, "\1");
  program.raw(bare().numberType("u1", "|").bytes()).op(op::kBinPut, "\2");
  for (std::size_t k = 0; k < arrays; ++k) {
    program.op(op::kPop).unfilledArray();
    program.arrayState({size}, bare().op(op::kBinGet, "\2"), false, bare().op(op::kBinGet, "\1"));
  }
  return program.op(op::kTuple2);
}
TEST(TorchArrays, MayTogetherBeAsLongAsTheProgramSoFar) {
  // Twice the text is what the text and the opcodes around it are: all but TUPLE2.
  const std::size_t around = sharing(1000, 2).bytes().size() - 1001;
  ASSERT_EQ(sharing(around, 2).bytes().size() - 1, 2 * around);
  EXPECT_THAT(Executed(sharing(around, 2)).status, IsOk());
  EXPECT_THAT(
      Executed(sharing(around + 1, 2)).status,
      StatusIs(Code::Unsupported, "checkpoint: the pickle has numpy arrays that are longer than itself"));
}

TEST(TorchArrays, OfAnEarlierProgramDoNotCount) {
  const std::size_t around = sharing(1000, 2).bytes().size() - 1001;
  const std::string program = sharing(around, 2).stop();
  TorchPickle machine;
  PickleValue root;
  std::uint64_t consumed;
  ASSERT_THAT(machine.run(program, root, consumed), IsOk());
  EXPECT_THAT(machine.run(program, root, consumed), IsOk());
}

TEST(TorchArrays, ThatAreNotFilledCountAsValues) {
  // Each makes a part and pushes what it is made of.
  SavedPickle program = bare().global("numpy.core.multiarray", "_reconstruct").op(op::kBinPut, "\1");
  program.global("numpy", "ndarray").op(op::kTuple1).op(op::kBinPut, "\2");
  program.repeat(2'500'000, "h\1h\2R0");
  EXPECT_THAT(Executed(program).status,
              StatusIs(Code::Unsupported, "checkpoint: the pickle makes more than 8388608 values"));
}

TEST(TorchArrays, AreDamagedByEveryTruncation) {
  const std::string whole = SavedPickle().array({{2}, "\x80ghi\xffklm"}).stop();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    TorchPickle machine;
    PickleValue root;
    std::uint64_t consumed;
    const Status status = machine.run(std::string_view(whole).substr(0, size), root, consumed);
    EXPECT_EQ(status.code(), Code::Corrupted) << size;
    EXPECT_EQ(status.message().find("checkpoint: the pickle ends early at byte "), 0u) << size;
  }
}

}  // namespace
}  // namespace zel::tool::prepare
