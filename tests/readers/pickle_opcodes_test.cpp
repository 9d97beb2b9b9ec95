// Opcodes that push values, build tuples and dicts, and use the stack and the memo.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
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

class PickleOpcodes : public testing::TestWithParam<test::PickleRow> {};

TEST_P(PickleOpcodes, LeaveThisStackOrFailLikeThis) { test::expectRow(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Constants, PickleOpcodes,
                         testing::Values(leaves("StopOnAnEmptyStack", P(), "[]"),
                                         leaves("StopReadsNothingBehindIt",
                                                P().op(Op::NONE).op(Op::STOP).raw("t"), "[None]"),
                                         leaves("Mark", P().op(Op::MARK), "[None('\\x01mark')]"),
                                         leaves("None", P().op(Op::NONE), "[None]"),
                                         leaves("Newtrue", P().op(Op::NEWTRUE), "[Int(1)]"),
                                         leaves("Newfalse", P().op(Op::NEWFALSE), "[Int(0)]"),
                                         leaves("EmptyTuple", P().op(Op::EMPTY_TUPLE), "[Tuple([])]"),
                                         leaves("EmptyListIsATuple", P().op(Op::EMPTY_LIST), "[Tuple([])]"),
                                         leaves("EmptyDict", P().op(Op::EMPTY_DICT), "[Dict({})]")),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Integers, PickleOpcodes,
    testing::Values(leaves("BinintHighest", P().binint(2147483647), "[Int(2147483647)]"),
                    leaves("BinintLowest", P().binint(std::numeric_limits<std::int32_t>::min()),
                           "[Int(-2147483648)]"),
                    leaves("BinintIsLittleEndian", P().op(Op::BININT, "\x01\x02\x03\x04"), "[Int(67305985)]"),
                    leaves("Binint1IsUnsigned", P().binint1(255), "[Int(255)]"),
                    leaves("Binint2IsUnsigned", P().binint2(65535), "[Int(65535)]"),
                    leaves("Binint2IsLittleEndian", P().op(Op::BININT2, "\x01\x02"), "[Int(513)]"),
                    leaves("Long1TakesItsByteAsASignedValue", P().long1(-1), "[Int(-1)]"),
                    leaves("Long1ConsumesOneByteOnly", P().op(Op::LONG1, "\x02").op(Op::NONE).op(Op::NONE),
                           "[Int(2), None, None]"),
                    leaves("Long1Highest", P().long1(127), "[Int(127)]"),
                    leaves("Long1Lowest", P().long1(-128), "[Int(-128)]"),
                    leaves("Long4TakesItsBytesAsASignedValue", P().long4(-2), "[Int(-2)]"),
                    leaves("Long4ConsumesFourBytesOnly",
                           P().op(Op::LONG4, std::string("\x01\0\0\0", 4)).op(Op::NONE), "[Int(1), None]")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    LongText, PickleOpcodes,
    testing::Values(
        leaves("Digits", P().op(Op::LONG, "12L"), "[Int(12)]"),
        rejects("ANewlineBehindItIsAnOpcode", P().op(Op::LONG, "12L\n"), "unknown pickle opcode"),
        leaves("NoDigits", P().op(Op::LONG, "L"), "[Int(0)]"),
        leaves("LeadingZeros", P().op(Op::LONG, "0007L"), "[Int(7)]"),
        leaves("HighestSigned", P().op(Op::LONG, "9223372036854775807L"), "[Int(9223372036854775807)]"),
        leaves("OneMoreWraps", P().op(Op::LONG, "9223372036854775808L"), "[Int(-9223372036854775808)]"),
        leaves("HighestUnsigned", P().op(Op::LONG, "18446744073709551615L"), "[Int(-1)]"),
        leaves("TwoToThe64WrapsToZero", P().op(Op::LONG, "18446744073709551616L"), "[Int(0)]"),
        // 10^30 = 54210108624 * 2^64 + 5076944270305263616
        leaves("ThirtyOneDigitsWrap", P().op(Op::LONG, "1" + std::string(30, '0') + "L"),
               "[Int(5076944270305263616)]"),
        fails("NoSign", P().op(Op::LONG, "-1L"), "bad LONG digits"),
        fails("NoPlus", P().op(Op::LONG, "+1L"), "bad LONG digits"),
        fails("NoNewlineWithin", P().op(Op::LONG, "1\nL"), "bad LONG digits"),
        fails("NoByteBelowTheDigits", P().op(Op::LONG, "/L"), "bad LONG digits"),
        fails("NoByteAboveTheDigits", P().op(Op::LONG, ":L"), "bad LONG digits"),
        fails("NoLetterL", P().op(Op::LONG, "12l"), "bad LONG"),
        fails("TheMissingLIsSeenBeforeABadDigit", P().op(Op::LONG, "-1"), "bad LONG")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Floats, PickleOpcodes,
    testing::Values(leaves("IsBigEndian", P().op(Op::BINFLOAT, "\x01\x02\x03\x04\x05\x06\x07\x08"),
                           "[Float(0102030405060708)]"),
                    leaves("One", P().binfloat(1), "[Float(3ff0000000000000)]"),
                    leaves("NegativeZero", P().binfloat(-0.0), "[Float(8000000000000000)]"),
                    leaves("ANanKeepsItsBits", P().op(Op::BINFLOAT, "\x7F\xF8\x01\x01\x01\x01\x01\x01"),
                           "[Float(7ff8010101010101)]")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Texts, PickleOpcodes,
    testing::Values(
        leaves("Binunicode", P().binunicode("abc"), "[Str('abc')]"),
        leaves("BinunicodeEmpty", P().binunicode(""), "[Str('')]"),
        leaves("ShortBinunicode", P().shortBinunicode("abc"), "[Str('abc')]"),
        leaves("ShortBinunicodeLongest", P().shortBinunicode(std::string(255, 'x')),
               "[Str('" + std::string(255, 'x') + "')]"),
        leaves("Binunicode8", P().binunicode8("abc"), "[Str('abc')]"),
        leaves("TextIsNotValidated", P().binunicode(std::string("\xFF\0\xC3", 3)),
               "[Str('\\xff\\x00\\xc3')]"),
        leaves("Binbytes", P().binbytes("abc"), "[Bytes('abc')]"),
        leaves("Binbytes8HasALengthOfOneByte",
               P().op(Op::BINBYTES8,
                      "\x03"
                      "abc"),
               "[Bytes('abc')]"),
        leaves("Binbytes8Longest", P().binbytes8(std::string(255, 'x')),
               "[Bytes('" + std::string(255, 'x') + "')]"),
        // Behind the length byte 3 its other seven bytes are content and opcodes.
        rejects("Binbytes8ReadsNoLengthOfEightBytes",
                P().op(Op::BINBYTES8, std::string("\x03\0\0\0\0\0\0\0abc", 11)), "unknown pickle opcode"),
        fails("BinunicodeLongest", P().op(Op::BINUNICODE, "\xFF\xFF\xFF\xFF"), "unicode too long"),
        fails("Binunicode8Longest", P().op(Op::BINUNICODE8, std::string(8, '\xFF')), "unicode too long"),
        fails("BinbytesLongest", P().op(Op::BINBYTES, "\xFF\xFF\xFF\xFF"), "bytes too long")),
    rowName);

// A length that equals what remains is read; the STOP is part of it, so the stream then has no end.
INSTANTIATE_TEST_SUITE_P(
    LengthEdges, PickleOpcodes,
    testing::Values(
        fails("BinunicodeFits", P().op(Op::BINUNICODE, std::string("\x03\0\0\0ab", 6)),
              "unterminated pickle"),
        fails("BinunicodeOneMore", P().op(Op::BINUNICODE, std::string("\x04\0\0\0ab", 6)),
              "unicode too long"),
        fails("ShortBinunicodeFits",
              P().op(Op::SHORT_BINUNICODE,
                     "\x03"
                     "ab"),
              "unterminated pickle"),
        fails("ShortBinunicodeOneMore",
              P().op(Op::SHORT_BINUNICODE,
                     "\x04"
                     "ab"),
              "unicode too long"),
        fails("Binunicode8Fits", P().op(Op::BINUNICODE8, std::string("\x03\0\0\0\0\0\0\0ab", 10)),
              "unterminated pickle"),
        fails("Binunicode8OneMore", P().op(Op::BINUNICODE8, std::string("\x04\0\0\0\0\0\0\0ab", 10)),
              "unicode too long"),
        fails("BinbytesFits", P().op(Op::BINBYTES, std::string("\x03\0\0\0ab", 6)), "unterminated pickle"),
        fails("BinbytesOneMore", P().op(Op::BINBYTES, std::string("\x04\0\0\0ab", 6)), "bytes too long"),
        fails("Binbytes8Fits",
              P().op(Op::BINBYTES8,
                     "\x03"
                     "ab"),
              "unterminated pickle"),
        fails("Binbytes8OneMore",
              P().op(Op::BINBYTES8,
                     "\x04"
                     "ab"),
              "bytes too long")),
    rowName);

INSTANTIATE_TEST_SUITE_P(Stack, PickleOpcodes,
                         testing::Values(leaves("Pop", P().ops({Op::NONE, Op::NEWTRUE, Op::POP}), "[None]"),
                                         fails("PopUnderflow", P().op(Op::POP), "pop underflow"),
                                         leaves("Dup", P().binint1(7).op(Op::DUP), "[Int(7), Int(7)]"),
                                         fails("DupUnderflow", P().op(Op::DUP), "dup underflow"),
                                         leaves("DupIsACopy",
                                                P().ops({Op::EMPTY_LIST, Op::DUP, Op::NONE, Op::APPEND}),
                                                "[Tuple([]), Tuple([None])]")),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Tuples, PickleOpcodes,
    testing::Values(
        leaves("Tuple1", P().binint1(1).op(Op::TUPLE1), "[Tuple([Int(1)])]"),
        leaves("Tuple2KeepsTheOrder", P().binint1(1).binint1(2).op(Op::TUPLE2), "[Tuple([Int(1), Int(2)])]"),
        leaves("Tuple3KeepsTheOrder", P().op(Op::NONE).binint1(1).binint1(2).binint1(3).op(Op::TUPLE3),
               "[None, Tuple([Int(1), Int(2), Int(3)])]"),
        fails("Tuple1Underflow", P().op(Op::TUPLE1), "tuple stack underflow"),
        fails("Tuple2Underflow", P().op(Op::NONE).op(Op::TUPLE2), "tuple stack underflow"),
        fails("Tuple3Underflow", P().ops({Op::NONE, Op::NONE, Op::TUPLE3}), "tuple stack underflow"),
        leaves("TheByteTTakesTheItemsAboveTheMark",
               P().op(Op::NONE).op(Op::MARK).binint1(1).binint1(2).op(Op::TUPLE_T),
               "[None, Tuple([Int(1), Int(2)])]"),
        leaves("TheByteTWithoutAMarkTakesNone", P().op(Op::NONE).op(Op::TUPLE_T), "[None, Tuple([])]"),
        leaves("TheByteTReadsNoOperand",
               P().op(Op::MARK).op(Op::TUPLE_T).ops({Op::NONE, Op::NONE, Op::NONE, Op::NONE}),
               "[Tuple([]), None, None, None, None]"),
        rejects("TheByteLowerTIsUnknown", P().op(Op::MARK).raw("t"), "unknown pickle opcode"),
        leaves("List", P().op(Op::MARK).binint1(1).binint1(2).op(Op::LIST), "[Tuple([Int(1), Int(2)])]"),
        leaves("ListWithoutAMark", P().op(Op::NONE).op(Op::LIST), "[None, Tuple([])]"),
        leaves("ListOnAnEmptyStack", P().op(Op::LIST), "[Tuple([])]")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Appending, PickleOpcodes,
    testing::Values(
        leaves("Append", P().op(Op::EMPTY_LIST).binint1(1).op(Op::APPEND).binint1(2).op(Op::APPEND),
               "[Tuple([Int(1), Int(2)])]"),
        fails("AppendUnderflow", P().op(Op::NONE).op(Op::APPEND), "append underflow"),
        leaves("AppendOnANone", P().op(Op::NONE).binint1(1).op(Op::APPEND), "[None([Int(1)])]"),
        leaves("AppendOnAnInt", P().binint1(5).binint1(1).op(Op::APPEND), "[Int(5, [Int(1)])]"),
        leaves("AppendOnAFloat", P().binfloat(1).binint1(1).op(Op::APPEND),
               "[Float(3ff0000000000000, [Int(1)])]"),
        leaves("AppendOnAStr", P().binunicode("s").binint1(1).op(Op::APPEND), "[Str('s', [Int(1)])]"),
        leaves("AppendOnABytes", P().binbytes("s").binint1(1).op(Op::APPEND), "[Bytes('s', [Int(1)])]"),
        leaves("AppendOnADict", P().op(Op::EMPTY_DICT).binint1(1).op(Op::APPEND), "[Dict([Int(1)], {})]"),
        leaves("AppendOnAGlobal", P().global("m", "n").binint1(1).op(Op::APPEND),
               "[Global('m', 'n', [Int(1)])]"),
        leaves("AppendOnAStorage", P().storage("C", "k", 9).binint1(1).op(Op::APPEND),
               "[Storage('C', 'k', 9, [Int(1)])]"),
        leaves("AppendOnATensor", P().tensor({"", {2}, "k", "C", 3}).binint1(1).op(Op::APPEND),
               "[Tensor([Storage('C', 'k', 0), Tuple([Int(2)]), Int(3), Int(1)])]"),
        leaves("AppendsKeepsTheOrder",
               P().op(Op::EMPTY_LIST).op(Op::MARK).binint1(1).binint1(2).op(Op::APPENDS),
               "[Tuple([Int(1), Int(2)])]"),
        leaves("AppendsGoesOnBehindEarlierItems",
               P().binint1(0).op(Op::TUPLE1).op(Op::MARK).binint1(1).binint1(2).op(Op::APPENDS),
               "[Tuple([Int(0), Int(1), Int(2)])]"),
        leaves("AppendsWithoutAMarkAppendsNothing", P().op(Op::EMPTY_LIST).op(Op::APPENDS), "[Tuple([])]"),
        fails("AppendsWithoutAMarkStillWantsATuple", P().ops({Op::EMPTY_LIST, Op::NONE, Op::APPENDS}),
              "appends on non-list"),
        fails("AppendsOnAnEmptyStack", P().op(Op::APPENDS), "appends on non-list"),
        fails("AppendsBelowTheMarkNothing", P().ops({Op::MARK, Op::EMPTY_LIST, Op::APPENDS}),
              "appends on non-list"),
        fails("AppendsOnADict", P().ops({Op::EMPTY_DICT, Op::MARK, Op::APPENDS}), "appends on non-list"),
        fails("AppendsOnAMark", P().ops({Op::MARK, Op::MARK, Op::APPENDS}), "appends on non-list")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Dicts, PickleOpcodes,
    testing::Values(
        leaves("Dict", P().op(Op::MARK).binunicode("b").binint1(1).binunicode("a").binint1(2).op(Op::DICT),
               "[Dict({'b': Int(1), 'a': Int(2)})]"),
        leaves("DictKeepsRepeatedKeys",
               P().op(Op::MARK).binunicode("a").binint1(1).binunicode("a").binint1(2).op(Op::DICT),
               "[Dict({'a': Int(1), 'a': Int(2)})]"),
        leaves("DictWithoutAMarkIsEmpty", P().op(Op::NONE).op(Op::DICT), "[None, Dict({})]"),
        fails("OddDict", P().op(Op::MARK).binunicode("a").op(Op::DICT), "odd dict"),
        fails("OddDictBeforeItsKeys", P().ops({Op::MARK, Op::NONE, Op::NONE, Op::NONE, Op::DICT}),
              "odd dict"),
        rejects("DictWithANumberAsKey", P().op(Op::MARK).binint1(1).binint1(2).op(Op::DICT),
                "non-string dict key"),
        rejects("DictWithBytesAsSecondKey",
                P().op(Op::MARK).binunicode("a").binint1(1).binbytes("b").binint1(2).op(Op::DICT),
                "non-string dict key"),
        leaves("Setitem",
               P().op(Op::EMPTY_DICT)
                   .binunicode("b")
                   .binint1(1)
                   .op(Op::SETITEM)
                   .binunicode("a")
                   .binint1(2)
                   .op(Op::SETITEM),
               "[Dict({'b': Int(1), 'a': Int(2)})]"),
        leaves("SetitemKeepsRepeatedKeys",
               P().op(Op::EMPTY_DICT)
                   .binunicode("a")
                   .binint1(1)
                   .op(Op::SETITEM)
                   .binunicode("a")
                   .binint1(2)
                   .op(Op::SETITEM),
               "[Dict({'a': Int(1), 'a': Int(2)})]"),
        fails("SetitemUnderflow", P().binunicode("a").binint1(1).op(Op::SETITEM), "setitem underflow"),
        fails("SetitemOnATuple", P().op(Op::EMPTY_LIST).binunicode("a").binint1(1).op(Op::SETITEM),
              "setitem on non-dict"),
        rejects("SetitemWithANumberAsKey", P().op(Op::EMPTY_DICT).binint1(1).binint1(1).op(Op::SETITEM),
                "non-string dict key"),
        fails("SetitemLooksAtTheTargetBeforeTheKey",
              P().op(Op::EMPTY_LIST).binint1(1).binint1(1).op(Op::SETITEM), "setitem on non-dict")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Memo, PickleOpcodes,
    testing::Values(
        leaves("MemoizeLeavesTheStack", P().binint1(7).op(Op::MEMOIZE), "[Int(7)]"),
        fails("MemoizeOnAnEmptyStack", P().op(Op::MEMOIZE), "memo index"),
        leaves("BingetCountsFromTheFirstMemoize",
               P().binint1(7).op(Op::MEMOIZE).binint1(8).op(Op::MEMOIZE).binget(0).binget(1),
               "[Int(7), Int(8), Int(7), Int(8)]"),
        fails("BingetOfAnEmptyMemo", P().binget(0), "memo index"),
        fails("BingetOneBeyondTheMemo", P().op(Op::NONE).op(Op::MEMOIZE).binget(1), "memo index"),
        leaves("LongBinget", P().binint1(7).op(Op::MEMOIZE).longBinget(0), "[Int(7), Int(7)]"),
        fails("LongBingetOneBeyondTheMemo", P().op(Op::NONE).op(Op::MEMOIZE).longBinget(1), "memo index"),
        fails("LongBingetHighest", P().op(Op::NONE).op(Op::MEMOIZE).longBinget(0xFFFFFFFF), "memo index"),
        leaves("TheMemoHoldsACopy",
               P().op(Op::EMPTY_LIST)
                   .op(Op::MEMOIZE)
                   .ops({Op::NONE, Op::APPEND})
                   .binget(0)
                   .ops({Op::NEWTRUE, Op::APPEND})
                   .binget(0),
               "[Tuple([None]), Tuple([Int(1)]), Tuple([])]"),
        leaves("TheMemoOutlivesThePop", P().binint1(7).ops({Op::MEMOIZE, Op::POP}).binget(0), "[Int(7)]"),
        rejects("BinputIsUnknown", P().op(Op::NONE).raw(std::string("q\0", 2)), "unknown pickle opcode")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Headers, PickleOpcodes,
    testing::Values(leaves("ProtoOfAnyVersion", P().proto(0).proto(255), "[]"),
                    leaves("ProtoAnywhere", P().op(Op::NONE).proto(2), "[None]"),
                    leaves("FrameOfAnyLength", P().frame(0).frame(0xFFFFFFFFFFFFFFFF), "[]"),
                    rejects("Persid", P().op(Op::PERSID, "1\n"), "persistent id (arbitrary python object)"),
                    rejects("Binpersid", P().op(Op::BINPERSID), "persistent id (arbitrary python object)"),
                    rejects("BinpersidAlsoBehindValues", P().op(Op::NONE).op(Op::BINPERSID),
                            "persistent id (arbitrary python object)")),
    rowName);

}  // namespace
}  // namespace zel
