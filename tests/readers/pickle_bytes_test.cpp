// The machine byte by byte: what is an opcode, and where a stream may end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "pickle_machine.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using test::IsOk;
using test::judgePickle;
using test::Op;
using test::PickleBuilder;
using test::StatusIs;

constexpr char kUnterminated[] = "torch: pickle unterminated pickle";
constexpr char kUnknown[] = "torch: pickle unknown pickle opcode";

TEST(PickleStream, IsUnterminatedWhenEmpty) {
  EXPECT_THAT(judgePickle("").status, StatusIs(Code::Corrupted, kUnterminated));
}

TEST(PickleStream, IsUnterminatedWithoutAStop) {
  EXPECT_THAT(judgePickle("N").status, StatusIs(Code::Corrupted, kUnterminated));
}

TEST(PickleStream, HasFortyThreeKnownOpcodes) {
  std::vector<unsigned> known;
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (test::isPickleOpcode(byte)) known.push_back(byte);
  }
  EXPECT_EQ(known.size(), 43u);
  EXPECT_EQ(std::size(test::kPickleOpcodes), 43u);
}

// Values that satisfy any opcode: none may be refused for what lies on the stack.
PickleBuilder fullStack() {
  return PickleBuilder().op(Op::NONE).op(Op::MARK).binunicode("a").binunicode("b").binunicode("c");
}

TEST(PickleStream, RefusesEveryOtherByteWhateverLiesOnTheStack) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (test::isPickleOpcode(byte)) continue;
    const std::string opcode(1, char(byte));
    EXPECT_THAT(judgePickle(opcode + ".").status, StatusIs(Code::Unsupported, kUnknown)) << byte;
    EXPECT_THAT(judgePickle(opcode).status, StatusIs(Code::Unsupported, kUnknown)) << byte;
    EXPECT_THAT(judgePickle(fullStack().raw(opcode).stop()).status, StatusIs(Code::Unsupported, kUnknown))
        << byte;
  }
}

TEST(PickleStream, RefusesNoKnownByteAsUnknown) {
  for (const test::PickleOpcode& row : test::kPickleOpcodes) {
    EXPECT_NE(judgePickle(fullStack().op(row.op).bytes()).status.message(), kUnknown) << row.name;
  }
}

// One complete use of an opcode: cutting its operand after k bytes must fail with cut(k).
struct Use {
  Op op;
  std::string operand;
  std::function<std::string(std::size_t)> cut;  // unset when there is no operand
  PickleBuilder before = {};                    // what it needs on the stack
};

auto always(const char* message) {
  return [message](std::size_t) { return std::string(message); };
}
auto until(std::size_t lengthBytes, const char* inLength, const char* inContent) {
  return [=](std::size_t k) { return std::string(k < lengthBytes ? inLength : inContent); };
}

std::vector<Use> uses() {
  using P = PickleBuilder;
  const auto operand = [](const P& program) { return program.bytes().substr(1); };
  return {
      {Op::MARK, "", {}},
      {Op::EMPTY_TUPLE, "", {}},
      {Op::STOP, "", {}},
      {Op::POP, "", {}, P().op(Op::NONE)},
      {Op::DUP, "", {}, P().op(Op::NONE)},
      {Op::BINBYTES, operand(P().binbytes("abc")), until(4, "truncated bytes", "bytes too long")},
      {Op::BINFLOAT, operand(P().binfloat(1)), always("truncated float")},
      {Op::BININT, operand(P().binint(1)), always("truncated int")},
      {Op::BININT1, operand(P().binint1(1)), always("unterminated pickle")},
      {Op::LONG, "12L", always("bad LONG")},
      {Op::BININT2, operand(P().binint2(1)), always("truncated int")},
      {Op::NONE, "", {}},
      {Op::REDUCE, "", {}, P().global("_codecs", "encode").binbytes("").op(Op::TUPLE1)},
      {Op::TUPLE_T, "", {}},
      {Op::BINUNICODE, operand(P().binunicode("abc")), until(4, "truncated unicode", "unicode too long")},
      {Op::EMPTY_LIST, "", {}},
      {Op::APPEND, "", {}, P().ops({Op::NONE, Op::NONE})},
      {Op::BUILD, "", {}, P().storage("C", "k").op(Op::NONE)},
      {Op::GLOBAL, "m\nn\n", always("bad GLOBAL")},
      {Op::DICT, "", {}},
      {Op::APPENDS, "", {}, P().op(Op::EMPTY_LIST)},
      {Op::BINGET, operand(P().binget(0)), always("truncated BINGET"), P().ops({Op::NONE, Op::MEMOIZE})},
      {Op::LONG_BINGET, operand(P().longBinget(0)), always("truncated LONG_BINGET"),
       P().ops({Op::NONE, Op::MEMOIZE})},
      {Op::LIST, "", {}},
      {Op::SETITEM, "", {}, P().op(Op::EMPTY_DICT).binunicode("k").op(Op::NONE)},
      {Op::EMPTY_DICT, "", {}},
      {Op::PROTO, operand(P().proto(2)), always("truncated proto")},
      {Op::NEWOBJ, "", {}, P().global("torch", "C").binunicode("k").binint1(1).op(Op::TUPLE2)},
      {Op::TUPLE1, "", {}, P().ops({Op::NONE})},
      {Op::TUPLE2, "", {}, P().ops({Op::NONE, Op::NONE})},
      {Op::TUPLE3, "", {}, P().ops({Op::NONE, Op::NONE, Op::NONE})},
      {Op::NEWTRUE, "", {}},
      {Op::NEWFALSE, "", {}},
      {Op::LONG1, operand(P().long1(1)), always("unterminated pickle")},
      {Op::LONG4, operand(P().long4(1)), always("truncated LONG4")},
      {Op::SHORT_BINUNICODE, operand(P().shortBinunicode("abc")),
       until(1, "unterminated pickle", "unicode too long")},
      {Op::BINUNICODE8, operand(P().binunicode8("abc")), until(8, "truncated unicode", "unicode too long")},
      {Op::BINBYTES8, operand(P().binbytes8("abc")), until(1, "unterminated pickle", "bytes too long")},
      {Op::STACK_GLOBAL, "", {}, P().binunicode("m").binunicode("n")},
      {Op::MEMOIZE, "", {}, P().op(Op::NONE)},
      {Op::FRAME, operand(P().frame(1)), always("truncated frame")},
  };
}

TEST(PickleTruncation, CoversEveryOpcodeThatIsNotAlwaysRefused) {
  std::vector<Op> covered = {Op::PERSID, Op::BINPERSID};
  for (const Use& use : uses())
    covered.push_back(use.op);
  for (const test::PickleOpcode& row : test::kPickleOpcodes) {
    EXPECT_EQ(std::count(covered.begin(), covered.end(), row.op), 1) << row.name;
  }
}

TEST(PickleTruncation, LeavesACompleteUseOfEveryOpcodeAccepted) {
  for (const Use& use : uses()) {
    EXPECT_THAT(judgePickle(PickleBuilder(use.before).op(use.op, use.operand).stop()).status, IsOk())
        << unsigned(use.op);
  }
}

TEST(PickleTruncation, OfEveryOperandIsRefusedAtEveryLength) {
  for (const Use& use : uses()) {
    for (std::size_t length = 0; length < use.operand.size(); ++length) {
      const std::string stream = PickleBuilder(use.before).op(use.op, use.operand.substr(0, length)).bytes();
      EXPECT_THAT(judgePickle(stream).status, StatusIs(Code::Corrupted, "torch: pickle " + use.cut(length)))
          << unsigned(use.op) << " after " << length;
    }
  }
}

TEST(PickleTruncation, BehindEveryOpcodeButStopIsUnterminated) {
  for (const Use& use : uses()) {
    if (use.op == Op::STOP) continue;
    const std::string stream = PickleBuilder(use.before).op(use.op, use.operand).bytes();
    EXPECT_THAT(judgePickle(stream).status, StatusIs(Code::Corrupted, kUnterminated)) << unsigned(use.op);
  }
}

TEST(PickleTruncation, OfAWholeStateDictIsRefusedAtEveryLength) {
  const std::string whole =
      test::stateDict({{"a.weight", {2, 3}, "archive/data/0", "HalfStorage", 7}, {"b", {}, "s"}});
  ASSERT_THAT(judgePickle(whole).status, IsOk());
  for (std::size_t length = 0; length < whole.size(); ++length) {
    // Cut from a copy of its own, so that a sanitizer sees every read behind the end.
    const std::vector<char> cut(whole.begin(), whole.begin() + std::ptrdiff_t(length));
    const Status status = judgePickle({cut.data(), cut.size()}).status;
    EXPECT_EQ(status.code(), Code::Corrupted) << length;
    EXPECT_EQ(status.message().substr(0, 14), "torch: pickle ") << length;
  }
}

}  // namespace
}  // namespace zel
