// Marks, globals, and the three constructions that a program may ask for.
#include <gtest/gtest.h>

#include <string>

#include "pickle_rows.h"

namespace zel {
namespace {

using test::fails;
using test::leaves;
using test::Op;
using test::rejects;
using test::rowName;

using P = test::PickleBuilder;

class PickleMarks : public testing::TestWithParam<test::PickleRow> {};
class PickleObjects : public testing::TestWithParam<test::PickleRow> {};

TEST_P(PickleMarks, LeaveThisStackOrFailLikeThis) { test::expectRow(GetParam()); }
TEST_P(PickleObjects, LeaveThisStackOrFailLikeThis) { test::expectRow(GetParam()); }

// ---- a mark is a value like any other

INSTANTIATE_TEST_SUITE_P(
    Position, PickleMarks,
    testing::Values(
        leaves("TheTopmostMarkIsTaken", P().ops({Op::MARK, Op::NONE, Op::MARK, Op::NEWTRUE, Op::LIST}),
               "[None('\\x01mark'), None, Tuple([Int(1)])]"),
        leaves("TheOuterMarkIsTakenNext",
               P().ops({Op::MARK, Op::NONE, Op::MARK, Op::NEWTRUE, Op::LIST, Op::LIST}),
               "[Tuple([None, Tuple([Int(1)])])]"),
        leaves("NothingAboveTheMark", P().ops({Op::NONE, Op::MARK, Op::LIST}), "[None, Tuple([])]"),
        leaves("APoppedMarkIsGone", P().ops({Op::MARK, Op::POP, Op::NONE, Op::LIST}), "[None, Tuple([])]"),
        leaves("AMarkInsideATupleIsNoMarkOfTheStack",
               P().ops({Op::NONE, Op::MARK, Op::TUPLE2, Op::NONE, Op::LIST}),
               "[Tuple([None, None('\\x01mark')]), None, Tuple([])]"),
        leaves("AMarkAppendedToAListIsNoMarkOfTheStack",
               P().ops({Op::EMPTY_LIST, Op::MARK, Op::APPEND, Op::LIST}),
               "[Tuple([None('\\x01mark')]), Tuple([])]"),
        leaves("TheMarkBelowATupleThatTookAMarkStillCounts",
               P().ops({Op::MARK, Op::NONE, Op::MARK, Op::TUPLE1, Op::LIST}),
               "[Tuple([None, Tuple([None('\\x01mark')])])]"),
        leaves("APlainNoneIsNoMark", P().ops({Op::NONE, Op::NEWTRUE, Op::LIST}), "[None, Int(1), Tuple([])]"),
        leaves("AStrOfTheMarksTextIsNoMark", P().shortBinunicode("\x01mark").ops({Op::NONE, Op::LIST}),
               "[Str('\\x01mark'), None, Tuple([])]")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Copies, PickleMarks,
    testing::Values(
        leaves("ADuplicateIsAMark", P().ops({Op::MARK, Op::DUP, Op::NONE, Op::LIST}),
               "[None('\\x01mark'), Tuple([None])]"),
        leaves("BothOfADuplicateCount", P().ops({Op::MARK, Op::DUP, Op::LIST, Op::LIST}),
               "[Tuple([Tuple([])])]"),
        leaves("AMemoizedMarkIsAMark",
               P().ops({Op::MARK, Op::MEMOIZE, Op::POP, Op::NONE}).binget(0).ops({Op::NEWTRUE, Op::LIST}),
               "[None, Tuple([Int(1)])]"),
        leaves("AMemoizedMarkIsAMarkByItsLongIndexToo",
               P().ops({Op::MARK, Op::MEMOIZE, Op::POP, Op::NONE}).longBinget(0).ops({Op::NEWTRUE, Op::LIST}),
               "[None, Tuple([Int(1)])]"),
        leaves("AMarkWithAnItemIsStillAMark",
               P().ops({Op::NONE, Op::MARK, Op::NONE, Op::APPEND, Op::NEWTRUE, Op::LIST}),
               "[None, Tuple([Int(1)])]"),
        leaves("AMarkWithAnItemKeepsItWhenCopied",
               P().ops({Op::MARK, Op::NEWTRUE, Op::APPEND, Op::DUP, Op::LIST}),
               "[None('\\x01mark', [Int(1)]), Tuple([])]"),
        leaves("ANoneWithAnItemIsNoMark", P().ops({Op::NONE, Op::NONE, Op::APPEND, Op::LIST}),
               "[None([None]), Tuple([])]")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    AsValues, PickleMarks,
    testing::Values(leaves("AMarkCountsForUnderflow", P().ops({Op::MARK, Op::NONE, Op::TUPLE2}),
                           "[Tuple([None('\\x01mark'), None])]"),
                    leaves("AMarkMayBeAState", P().storage("C", "k").ops({Op::MARK, Op::BUILD, Op::LIST}),
                           "[Storage('C', 'k', 0), Tuple([])]"),
                    leaves("AMarkMayBeADictValue",
                           P().op(Op::EMPTY_DICT).binunicode("a").ops({Op::MARK, Op::SETITEM, Op::LIST}),
                           "[Dict({'a': None('\\x01mark')}), Tuple([])]"),
                    rejects("AMarkIsNoKey", P().ops({Op::EMPTY_DICT, Op::MARK, Op::NONE, Op::SETITEM}),
                            "non-string dict key"),
                    rejects("AMarkIsNoArgument", P().global("_codecs", "encode").ops({Op::MARK, Op::REDUCE}),
                            "reduce args not a tuple"),
                    fails("AMarkIsNoName", P().binunicode("m").ops({Op::MARK, Op::STACK_GLOBAL}),
                          "bad STACK_GLOBAL")),
    rowName);

// ---- globals

INSTANTIATE_TEST_SUITE_P(
    Globals, PickleObjects,
    testing::Values(
        leaves("GlobalOfAnyModule", P().global("os", "system"), "[Global('os', 'system')]"),
        leaves("GlobalOfEmptyTexts", P().global("", ""), "[Global('', '')]"),
        leaves("GlobalKeepsCarriageReturns", P().global("m\r", "n\r"), "[Global('m\\x0d', 'n\\x0d')]"),
        fails("GlobalWithOneNewline", P().op(Op::GLOBAL, "torch\nFloatStorage"), "bad GLOBAL"),
        fails("GlobalWithoutANewline", P().op(Op::GLOBAL, "torch"), "bad GLOBAL"),
        leaves("StackGlobal", P().binunicode("m").binunicode("n").op(Op::STACK_GLOBAL), "[Global('m', 'n')]"),
        leaves("StackGlobalOfAnyText", P().shortBinunicode("").binunicode8("\n").op(Op::STACK_GLOBAL),
               "[Global('', '\\x0a')]"),
        fails("StackGlobalOnAnEmptyStack", P().op(Op::STACK_GLOBAL), "bad STACK_GLOBAL"),
        fails("StackGlobalOfOneValue", P().binunicode("n").op(Op::STACK_GLOBAL), "bad STACK_GLOBAL"),
        fails("StackGlobalWithANameThatIsNoStr", P().binunicode("m").binbytes("n").op(Op::STACK_GLOBAL),
              "bad STACK_GLOBAL"),
        fails("StackGlobalWithAModuleThatIsNoStr", P().binbytes("m").binunicode("n").op(Op::STACK_GLOBAL),
              "bad STACK_GLOBAL")),
    rowName);

// ---- NEWOBJ: storages

P newObject(const P& args, const char* module = "torch", const char* name = "FloatStorage") {
  return P().global(module, name).op(Op::MARK).raw(args.bytes()).ops({Op::TUPLE_T, Op::NEWOBJ});
}

INSTANTIATE_TEST_SUITE_P(
    Newobj, PickleObjects,
    testing::Values(
        leaves("Storage", newObject(P().binunicode("k").binint(6)), "[Storage('FloatStorage', 'k', 6)]"),
        leaves("StorageOfAnyClass", newObject(P().binunicode("").binint(-1), "torch", "no such class"),
               "[Storage('no such class', '', -1)]"),
        leaves("StorageIgnoresFurtherArguments", newObject(P().binunicode("k").binint(6).op(Op::NONE)),
               "[Storage('FloatStorage', 'k', 6)]"),
        leaves("StorageTakesATrueForOneElement", newObject(P().binunicode("k").op(Op::NEWTRUE)),
               "[Storage('FloatStorage', 'k', 1)]"),
        leaves("StorageOfAStackGlobal",
               P().binunicode("torch")
                   .binunicode("C")
                   .op(Op::STACK_GLOBAL)
                   .binunicode("k")
                   .binint(6)
                   .ops({Op::TUPLE2, Op::NEWOBJ}),
               "[Storage('C', 'k', 6)]"),
        fails("NewobjUnderflow", P().op(Op::EMPTY_TUPLE).op(Op::NEWOBJ), "newobj underflow"),
        rejects("NewobjArgsNotATuple", P().global("torch", "C").ops({Op::NONE, Op::NEWOBJ}),
                "newobj args not a tuple"),
        rejects("NewobjArgsBeforeTheClass", P().ops({Op::NONE, Op::NONE, Op::NEWOBJ}),
                "newobj args not a tuple"),
        rejects("NewobjOnNonGlobal", P().ops({Op::NONE, Op::EMPTY_TUPLE, Op::NEWOBJ}),
                "NEWOBJ on non-global"),
        rejects("NewobjOnForeignClass",
                newObject(P().binunicode("k").binint(6), "collections", "OrderedDict"),
                "NEWOBJ on foreign class"),
        rejects("NewobjOnASubmoduleOfTorch",
                newObject(P().binunicode("k").binint(6), "torch.nn", "FloatStorage"),
                "NEWOBJ on foreign class"),
        rejects("NewobjLooksAtTheModuleBeforeTheArguments", newObject(P(), "os", "system"),
                "NEWOBJ on foreign class"),
        fails("NewobjWithoutArguments", newObject(P()), "bad storage args"),
        fails("NewobjWithOneArgument", newObject(P().binunicode("k")), "bad storage args"),
        fails("NewobjWithAKeyThatIsNoStr", newObject(P().binbytes("k").binint(6)), "bad storage args"),
        fails("NewobjWithACountThatIsNoInt", newObject(P().binunicode("k").binfloat(6)), "bad storage args")),
    rowName);

// ---- REDUCE: tensors and byte strings

P rebuild(const P& args) {
  return P()
      .global("torch._utils", "_rebuild_tensor_v2")
      .op(Op::MARK)
      .raw(args.bytes())
      .ops({Op::TUPLE_T, Op::REDUCE});
}
P encode(const P& args) {
  return P().global("_codecs", "encode").op(Op::MARK).raw(args.bytes()).ops({Op::TUPLE_T, Op::REDUCE});
}
P storage() { return P().storage("C", "k", 6); }

INSTANTIATE_TEST_SUITE_P(
    Rebuild, PickleObjects,
    testing::Values(
        leaves("TensorHoldsStorageSizeAndOffsetInThisOrder",
               rebuild(storage().binint1(5).binint1(2).binint1(3).op(Op::TUPLE2).op(Op::NONE)),
               "[Tensor([Storage('C', 'k', 6), Tuple([Int(2), Int(3)]), Int(5)])]"),
        leaves(
            "TensorIgnoresFurtherArguments",
            rebuild(storage().binint1(5).op(Op::EMPTY_TUPLE).ops({Op::NONE, Op::NONE, Op::NONE, Op::NONE})),
            "[Tensor([Storage('C', 'k', 6), Tuple([]), Int(5)])]"),
        leaves("TensorTakesAListAsItsSize", rebuild(storage().binint1(0).op(Op::EMPTY_LIST).op(Op::NONE)),
               "[Tensor([Storage('C', 'k', 6), Tuple([]), Int(0)])]"),
        fails("TensorWithThreeArguments", rebuild(storage().binint1(5).op(Op::EMPTY_TUPLE)),
              "_rebuild_tensor_v2 args"),
        fails("TensorCountsItsArgumentsFirst", rebuild(P().ops({Op::NONE, Op::NONE, Op::NONE})),
              "_rebuild_tensor_v2 args"),
        fails("TensorWithoutAStorage", rebuild(P().op(Op::NONE).binint1(5).ops({Op::EMPTY_TUPLE, Op::NONE})),
              "bad tensor args"),
        fails("TensorWithAnOffsetThatIsNoInt",
              rebuild(storage().binfloat(5).ops({Op::EMPTY_TUPLE, Op::NONE})), "bad tensor args"),
        fails("TensorWithASizeThatIsNoTuple", rebuild(storage().binint1(5).binint1(2).op(Op::NONE)),
              "bad tensor args"),
        fails("TensorWithSizeAndOffsetSwapped",
              rebuild(storage().op(Op::EMPTY_TUPLE).binint1(5).op(Op::NONE)), "bad tensor args")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Encode, PickleObjects,
    testing::Values(
        leaves("EncodePassesBytesThrough", encode(P().binbytes("ab").binunicode("latin1")), "[Bytes('ab')]"),
        leaves("EncodeNeedsNoEncoding", encode(P().binbytes("ab")), "[Bytes('ab')]"),
        leaves("EncodePassesOnWhatWasAppended", encode(P().binbytes("ab").op(Op::NONE).op(Op::APPEND)),
               "[Bytes('ab', [None])]"),
        fails("EncodeWithoutArguments", encode(P()), "_codecs.encode args"),
        fails("EncodeOfAStr", encode(P().binunicode("ab").binunicode("latin1")), "_codecs.encode args")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Reduce, PickleObjects,
    testing::Values(fails("ReduceUnderflow", P().op(Op::EMPTY_TUPLE).op(Op::REDUCE), "reduce underflow"),
                    fails("ReduceOnAnEmptyStack", P().op(Op::REDUCE), "reduce underflow"),
                    rejects("ReduceArgsNotATuple",
                            P().global("_codecs", "encode").ops({Op::EMPTY_DICT, Op::REDUCE}),
                            "reduce args not a tuple"),
                    rejects("ReduceArgsBeforeTheCallable", P().ops({Op::NONE, Op::NONE, Op::REDUCE}),
                            "reduce args not a tuple"),
                    rejects("ReduceOnNonGlobal", P().ops({Op::NONE, Op::EMPTY_TUPLE, Op::REDUCE}),
                            "REDUCE on non-global"),
                    rejects("ReduceOnAForeignModule",
                            P().global("os", "system").binunicode("true").ops({Op::TUPLE1, Op::REDUCE}),
                            "REDUCE on foreign object"),
                    rejects("ReduceOnAnotherNameOfTheModule",
                            P().global("torch._utils", "_rebuild_tensor").ops({Op::EMPTY_TUPLE, Op::REDUCE}),
                            "REDUCE on foreign object"),
                    rejects("ReduceOnTheNameInAnotherModule",
                            P().global("torch", "_rebuild_tensor_v2").ops({Op::EMPTY_TUPLE, Op::REDUCE}),
                            "REDUCE on foreign object"),
                    rejects("ReduceOnMixedPairs",
                            P().global("_codecs", "_rebuild_tensor_v2").ops({Op::EMPTY_TUPLE, Op::REDUCE}),
                            "REDUCE on foreign object"),
                    rejects("ReduceOnAStorageClass",
                            P().global("torch", "FloatStorage").ops({Op::EMPTY_TUPLE, Op::REDUCE}),
                            "REDUCE on foreign object"),
                    rejects("ReduceOnAnOrderedDict",
                            P().global("collections", "OrderedDict").ops({Op::EMPTY_TUPLE, Op::REDUCE}),
                            "REDUCE on foreign object")),
    rowName);

// ---- BUILD

INSTANTIATE_TEST_SUITE_P(
    Build, PickleObjects,
    testing::Values(leaves("BuildOnAStorageDropsTheState", storage().op(Op::EMPTY_DICT).op(Op::BUILD),
                           "[Storage('C', 'k', 6)]"),
                    leaves("BuildOnATensorDropsTheState",
                           P().tensor({"", {}, "k", "C"}).op(Op::NONE).op(Op::BUILD),
                           "[Tensor([Storage('C', 'k', 0), Tuple([]), Int(0)])]"),
                    fails("BuildUnderflow", storage().op(Op::BUILD), "build underflow"),
                    rejects("BuildOnADict", P().ops({Op::EMPTY_DICT, Op::EMPTY_DICT, Op::BUILD}),
                            "BUILD on unsupported object"),
                    rejects("BuildOnAGlobal", P().global("torch", "C").ops({Op::NONE, Op::BUILD}),
                            "BUILD on unsupported object"),
                    rejects("BuildOnATuple", P().ops({Op::EMPTY_TUPLE, Op::NONE, Op::BUILD}),
                            "BUILD on unsupported object")),
    rowName);

}  // namespace
}  // namespace zel
