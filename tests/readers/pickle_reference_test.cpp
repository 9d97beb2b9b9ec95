// The machine against a naive one that owns and copies everything: the same verdict, message and stack for
// any stream.
#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pickle_machine.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using test::Op;
using test::PickleBuilder;
using test::PlainValue;

enum Kind : unsigned { kNone, kInt, kFloat, kStr, kBytes, kTuple, kDict, kGlobal, kStorage, kTensor };

// The end of a run; STOP ends it with an empty message.
struct Verdict {
  Code code;
  std::string message;
};
[[noreturn]] void fail(const std::string& what) { throw Verdict{Code::Corrupted, "torch: pickle " + what}; }
[[noreturn]] void reject(const std::string& what) {
  throw Verdict{Code::Unsupported, "torch: pickle " + what};
}

class NaiveMachine {
 public:
  explicit NaiveMachine(std::string stream) : data_(std::move(stream)) {}

  Verdict run() {
    try {
      for (;;)
        step();
    } catch (const Verdict& verdict) {
      return verdict;
    }
  }
  [[nodiscard]] const std::vector<PlainValue>& stack() const { return stack_; }

 private:
  static PlainValue value(unsigned kind, std::int64_t i = 0) {
    PlainValue out;
    out.kind = kind;
    out.i = i;
    return out;
  }
  static PlainValue text(unsigned kind, std::string s) {
    PlainValue out = value(kind);
    out.s = std::move(s);
    return out;
  }
  static PlainValue list(std::vector<PlainValue> items) {
    PlainValue out = value(kTuple);
    out.items = std::move(items);
    return out;
  }

  void push(PlainValue v) { stack_.push_back(std::move(v)); }
  PlainValue pop() {
    PlainValue top = stack_.back();
    stack_.pop_back();
    return top;
  }
  void need(std::size_t values, const char* what) const {
    if (stack_.size() < values) fail(what);
  }

  std::uint8_t byte(const char* what = "unterminated pickle") { return std::uint8_t(take(1, what)[0]); }
  std::string take(std::uint64_t n, const std::string& what) {
    if (n > data_.size() - pos_) fail(what);
    pos_ += n;
    return data_.substr(pos_ - n, n);
  }
  std::uint64_t number(unsigned bytes, const char* what) {
    std::uint64_t out = 0;
    const std::string raw = take(bytes, what);
    for (unsigned k = bytes; k-- > 0;)
      out = out << 8 | std::uint8_t(raw[k]);
    return out;
  }
  std::string counted(unsigned lengthBytes, const std::string& what) {
    const std::uint64_t length =
        lengthBytes == 1 ? byte() : number(lengthBytes, ("truncated " + what).c_str());
    return take(length, what + " too long");
  }
  std::string line() {
    const std::size_t end = data_.find('\n', pos_);
    if (end == std::string::npos) fail("bad GLOBAL");
    const std::string out = data_.substr(pos_, end - pos_);
    pos_ = end + 1;
    return out;
  }

  static bool isMark(const PlainValue& v) { return v.kind == kNone && v.s == "\x01mark"; }
  std::vector<PlainValue> collectMark() {
    for (std::size_t at = stack_.size(); at-- > 0;) {
      if (!isMark(stack_[at])) continue;
      std::vector<PlainValue> out(stack_.begin() + std::ptrdiff_t(at) + 1, stack_.end());
      stack_.resize(at);
      return out;
    }
    return {};
  }

  void step() {
    switch (Op(byte())) {
      case Op::MARK: return push(text(kNone, "\x01mark"));
      case Op::EMPTY_TUPLE:
      case Op::EMPTY_LIST: return push(value(kTuple));
      case Op::STOP: throw Verdict{Code::OK, ""};
      case Op::POP: return need(1, "pop underflow"), void(pop());
      case Op::DUP: return need(1, "dup underflow"), push(stack_.back());
      case Op::BINBYTES: return push(text(kBytes, counted(4, "bytes")));
      case Op::BINFLOAT: return binfloat();
      case Op::BININT: return push(value(kInt, std::int32_t(number(4, "truncated int"))));
      case Op::BININT1: return push(value(kInt, byte()));
      case Op::LONG: return longText();
      case Op::BININT2: return push(value(kInt, std::int64_t(number(2, "truncated int"))));
      case Op::NONE: return push(value(kNone));
      case Op::PERSID:
      case Op::BINPERSID: reject("persistent id (arbitrary python object)");
      case Op::REDUCE: return reduce();
      case Op::TUPLE_T:
      case Op::LIST: return push(list(collectMark()));
      case Op::BINUNICODE: return push(text(kStr, counted(4, "unicode")));
      case Op::APPEND: return append();
      case Op::BUILD: return build();
      case Op::GLOBAL: return globalText();
      case Op::DICT: return dict();
      case Op::APPENDS: return appends();
      case Op::BINGET: return get(number(1, "truncated BINGET"));
      case Op::LONG_BINGET: return get(number(4, "truncated LONG_BINGET"));
      case Op::SETITEM: return setitem();
      case Op::EMPTY_DICT: return push(value(kDict));
      case Op::PROTO: return void(number(1, "truncated proto"));
      case Op::NEWOBJ: return newobj();
      case Op::TUPLE1: return tuple(1);
      case Op::TUPLE2: return tuple(2);
      case Op::TUPLE3: return tuple(3);
      case Op::NEWTRUE: return push(value(kInt, 1));
      case Op::NEWFALSE: return push(value(kInt, 0));
      case Op::LONG1: return push(value(kInt, std::int8_t(byte())));
      case Op::LONG4: return push(value(kInt, std::int32_t(number(4, "truncated LONG4"))));
      case Op::SHORT_BINUNICODE: return push(text(kStr, counted(1, "unicode")));
      case Op::BINUNICODE8: return push(text(kStr, counted(8, "unicode")));
      case Op::BINBYTES8: return push(text(kBytes, counted(1, "bytes")));
      case Op::STACK_GLOBAL: return stackGlobal();
      case Op::MEMOIZE: return need(1, "memo index"), memo_.push_back(stack_.back());
      case Op::FRAME: return void(number(8, "truncated frame"));
    }
    reject("unknown pickle opcode");
  }

  void binfloat() {
    const std::string raw = take(8, "truncated float");
    std::uint64_t bits = 0;
    for (const char c : raw)
      bits = bits << 8 | std::uint8_t(c);
    PlainValue out = value(kFloat);
    out.f = std::bit_cast<double>(bits);
    push(out);
  }
  void longText() {
    const std::size_t end = data_.find('L', pos_);
    if (end == std::string::npos) fail("bad LONG");
    std::uint64_t out = 0;
    for (; pos_ < end; ++pos_) {
      if (data_[pos_] < '0' || data_[pos_] > '9') fail("bad LONG digits");
      out = out * 10 + std::uint64_t(data_[pos_] - '0');
    }
    ++pos_;
    push(value(kInt, std::int64_t(out)));
  }
  void globalText() {
    const std::string module = line();
    global(module, line());
  }
  void global(std::string module, std::string name) {
    PlainValue out = value(kGlobal);
    out.module = std::move(module);
    out.name = std::move(name);
    push(out);
  }
  void stackGlobal() {
    const std::size_t n = stack_.size();
    if (n < 2 || stack_[n - 1].kind != kStr || stack_[n - 2].kind != kStr) fail("bad STACK_GLOBAL");
    const std::string name = pop().s;
    global(pop().s, name);
  }
  void get(std::uint64_t index) {
    if (index >= memo_.size()) fail("memo index");
    push(memo_[index]);
  }
  void tuple(std::size_t n) {
    need(n, "tuple stack underflow");
    std::vector<PlainValue> items(stack_.end() - std::ptrdiff_t(n), stack_.end());
    stack_.resize(stack_.size() - n);
    push(list(std::move(items)));
  }
  void append() {
    need(2, "append underflow");
    const PlainValue item = pop();
    stack_.back().items.push_back(item);
  }
  void appends() {
    const std::vector<PlainValue> items = collectMark();
    if (stack_.empty() || stack_.back().kind != kTuple) fail("appends on non-list");
    for (const PlainValue& item : items)
      stack_.back().items.push_back(item);
  }
  void dict() {
    const std::vector<PlainValue> items = collectMark();
    if (items.size() % 2 != 0) fail("odd dict");
    PlainValue out = value(kDict);
    for (std::size_t k = 0; k < items.size(); k += 2) {
      if (items[k].kind != kStr) reject("non-string dict key");
      out.dict.push_back({items[k].s, items[k + 1]});
    }
    push(out);
  }
  void setitem() {
    need(3, "setitem underflow");
    const PlainValue item = pop();
    const PlainValue key = pop();
    if (stack_.back().kind != kDict) fail("setitem on non-dict");
    if (key.kind != kStr) reject("non-string dict key");
    stack_.back().dict.push_back({key.s, item});
  }
  void build() {
    need(2, "build underflow");
    pop();
    if (stack_.back().kind != kStorage && stack_.back().kind != kTensor)
      reject("BUILD on unsupported object");
  }
  void reduce() {
    need(2, "reduce underflow");
    const PlainValue args = pop();
    const PlainValue callable = pop();
    const std::vector<PlainValue>& a = args.items;
    if (args.kind != kTuple) reject("reduce args not a tuple");
    if (callable.kind != kGlobal) reject("REDUCE on non-global");
    if (callable.module == "torch._utils" && callable.name == "_rebuild_tensor_v2") {
      if (a.size() < 4) fail("_rebuild_tensor_v2 args");
      if (a[0].kind != kStorage || a[1].kind != kInt || a[2].kind != kTuple) fail("bad tensor args");
      PlainValue out = value(kTensor);
      out.items = {a[0], a[2], a[1]};
      return push(out);
    }
    if (callable.module == "_codecs" && callable.name == "encode") {
      if (a.empty() || a[0].kind != kBytes) fail("_codecs.encode args");
      return push(a[0]);
    }
    reject("REDUCE on foreign object");
  }
  void newobj() {
    need(2, "newobj underflow");
    const PlainValue args = pop();
    const PlainValue type = pop();
    const std::vector<PlainValue>& a = args.items;
    if (args.kind != kTuple) reject("newobj args not a tuple");
    if (type.kind != kGlobal) reject("NEWOBJ on non-global");
    if (type.module != "torch") reject("NEWOBJ on foreign class");
    if (a.size() < 2 || a[0].kind != kStr || a[1].kind != kInt) fail("bad storage args");
    PlainValue out = value(kStorage, a[1].i);
    out.s = a[0].s;
    out.module = type.name;
    push(out);
  }

  std::string data_;
  std::size_t pos_ = 0;
  std::vector<PlainValue> stack_;
  std::vector<PlainValue> memo_;
};

// ---- streams

class StreamMaker {
 public:
  explicit StreamMaker(std::uint32_t seed) : random_(seed) {}

  std::string stream() {
    PickleBuilder program;
    memoized_ = 0;
    const unsigned steps = 1 + below(24);
    for (unsigned k = 0; k < steps; ++k)
      add(program);
    std::string out = below(8) == 0 ? program.bytes() : program.stop();
    if (below(8) == 0 && !out.empty()) out[below(unsigned(out.size()))] = char(below(256));
    if (below(8) == 0 && !out.empty()) out.resize(below(unsigned(out.size())));
    return out;
  }

 private:
  unsigned below(unsigned n) { return unsigned(random_() % n); }
  template <class T>
  T pick(std::initializer_list<T> choices) {
    return *(choices.begin() + below(unsigned(choices.size())));
  }
  std::string word() {
    return pick<const char*>({"", "a", "torch", "_codecs", "encode", "torch._utils", "_rebuild_tensor_v2",
                              "FloatStorage", "\x01mark"});
  }

  // Half of the steps are single opcodes, the others short phrases, so that runs get somewhere.
  void add(PickleBuilder& p) {
    switch (below(16)) {
      case 0: return void(p.binunicode(word()));
      case 1: return void(p.binint(std::int32_t(random_())));
      case 2:
        return void(p.op(Op::EMPTY_DICT)
                        .shortBinunicode(word())
                        .op(pick({Op::NONE, Op::DUP, Op::MARK}))
                        .op(Op::SETITEM));
      case 3: return void(p.storage(word(), word(), std::int32_t(below(9))));
      case 4: return void(p.tensor({"", {below(9), below(9)}, word(), word(), below(9)}));
      case 5: return void(p.global("_codecs", "encode").binbytes(word()).ops({Op::TUPLE1, Op::REDUCE}));
      case 6: return ++memoized_, void(p.op(Op::MEMOIZE));
      case 7: return void(p.binget(std::uint8_t(below(memoized_ + 1))));
      case 8: return void(p.op(Op::MARK));
      case 9: return void(p.op(pick({Op::LIST, Op::TUPLE_T, Op::DICT, Op::APPENDS})));
      case 10:
        return void(p.op(pick({Op::APPEND, Op::TUPLE1, Op::TUPLE2, Op::TUPLE3, Op::BUILD, Op::SETITEM})));
      case 11: return void(p.op(pick({Op::DUP, Op::POP, Op::EMPTY_LIST, Op::NONE})));
      default: return any(p);
    }
  }
  void any(PickleBuilder& p) {
    const Op op = test::kPickleOpcodes[below(unsigned(std::size(test::kPickleOpcodes)))].op;
    switch (op) {
      case Op::STOP:
      case Op::PERSID:
      case Op::BINPERSID: return below(8) == 0 ? void(p.op(op)) : void();
      case Op::BINBYTES: return void(p.binbytes(word()));
      case Op::BINFLOAT: return void(p.binfloat(double(below(3))));
      case Op::BININT: return void(p.binint(-std::int32_t(below(3))));
      case Op::BININT1: return void(p.binint1(std::uint8_t(random_())));
      case Op::LONG: return void(p.longText(std::uint64_t(random_()) << 32));
      case Op::BININT2: return void(p.binint2(std::uint16_t(random_())));
      case Op::BINUNICODE: return void(p.binunicode(word()));
      case Op::GLOBAL: return void(p.global(word(), word()));
      case Op::BINGET: return void(p.binget(std::uint8_t(below(memoized_ + 1))));
      case Op::LONG_BINGET: return void(p.longBinget(below(memoized_ + 1)));
      case Op::PROTO: return void(p.proto(std::uint8_t(random_())));
      case Op::LONG1: return void(p.long1(std::int8_t(random_())));
      case Op::LONG4: return void(p.long4(std::int32_t(random_())));
      case Op::SHORT_BINUNICODE: return void(p.shortBinunicode(word()));
      case Op::BINUNICODE8: return void(p.binunicode8(word()));
      case Op::BINBYTES8: return void(p.binbytes8(word()));
      case Op::FRAME: return void(p.frame(random_()));
      case Op::MEMOIZE: return ++memoized_, void(p.op(op));
      default: return void(p.op(op));
    }
  }

  std::mt19937 random_;
  unsigned memoized_ = 0;
};

void expectSame(const std::string& stream, std::size_t& accepted) {
  NaiveMachine naive(stream);
  const Verdict verdict = naive.run();
  const test::PickleOutcome outcome = test::runPickle(stream);
  ASSERT_THAT(outcome.status, test::StatusIs(verdict.code, verdict.message))
      << testing::PrintToString(stream);
  if (verdict.code != Code::OK) return;
  ++accepted;
  ASSERT_EQ(test::show(outcome.stack), test::show(naive.stack())) << testing::PrintToString(stream);
}

TEST(PickleReference, AgreesOnRandomStreams) {
  constexpr std::size_t kStreams = 40000;
  StreamMaker maker(20240607);
  std::size_t accepted = 0;
  for (std::size_t k = 0; k < kStreams; ++k)
    ASSERT_NO_FATAL_FAILURE(expectSame(maker.stream(), accepted)) << k;
  // Neither verdict may be rare, or the comparison would say little.
  EXPECT_GT(accepted, kStreams / 20);
  EXPECT_LT(accepted, kStreams * 19 / 20);
}

TEST(PickleReference, AgreesOnEveryPairOfBytes) {
  std::size_t accepted = 0;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string stream = {'N', char(first), char(second), 'N', '.'};
      ASSERT_NO_FATAL_FAILURE(expectSame(stream, accepted));
    }
  }
}

// Long programs that never fail, full of what is dropped: the machine then uses its memory again, and must
// not take any that a value on the stack, in a list or in the memo still needs.
class DroppingProgram {
 public:
  explicit DroppingProgram(std::uint32_t seed) : random_(seed) {}

  std::string stream() {
    PickleBuilder program;
    kinds_.clear();
    memo_.clear();
    for (unsigned k = 0; k < 150; ++k)
      add(program);
    return program.stop();
  }

 private:
  unsigned below(unsigned n) { return unsigned(random_() % n); }
  [[nodiscard]] std::size_t depth() const { return kinds_.size(); }
  [[nodiscard]] bool below2Is(char kind) const { return depth() >= 2 && kinds_[depth() - 2] == kind; }

  // Each opcode with the kinds that it leaves: T for a list, D, S for text, X for a tensor, I.
  void add(PickleBuilder& p) {
    const std::string text = "text " + std::to_string(below(1000));
    switch (below(14)) {
      case 0: return p.op(Op::EMPTY_LIST), kinds_.push_back('T');
      case 1: return p.op(Op::EMPTY_DICT), kinds_.push_back('D');
      case 2: return p.binunicode(text), kinds_.push_back('S');
      case 3: return p.binint(std::int32_t(below(1000))), kinds_.push_back('I');
      case 4: return p.tensor({"", {below(9)}, text}), kinds_.push_back('X');
      case 5:
        if (depth() < 2) return;
        return p.op(Op::TUPLE2), kinds_.resize(depth() - 2), kinds_.push_back('T');
      case 6:
        if (depth() < 2) return;
        return p.op(Op::APPEND), kinds_.pop_back();
      case 7:
        if (depth() < 1 || kinds_.back() != 'D' || memo_.empty()) return;
        return void(p.binunicode(text).binget(0).op(Op::SETITEM));
      case 8:
        if (depth() < 1) return;
        return p.op(Op::DUP), kinds_.push_back(kinds_.back());
      case 9:
        if (memo_.size() > 60 || depth() < 1) return;
        return p.op(Op::MEMOIZE), memo_.push_back(kinds_.back());
      case 10: {
        if (memo_.empty()) return;
        const unsigned index = below(unsigned(memo_.size()));
        return p.binget(std::uint8_t(index)), kinds_.push_back(memo_[index]);
      }
      case 11:
        if (!below2Is('X')) return;
        return p.op(Op::BUILD), kinds_.pop_back();
      default:
        if (depth() < 1) return;
        return p.op(Op::POP), kinds_.pop_back();
    }
  }

  std::mt19937 random_;
  std::string kinds_;
  std::string memo_;
};

TEST(PickleReference, AgreesOnLongProgramsThatDropWhatTheyMake) {
  constexpr std::size_t kStreams = 400;
  DroppingProgram program(20261121);
  std::size_t accepted = 0;
  for (std::size_t k = 0; k < kStreams; ++k)
    ASSERT_NO_FATAL_FAILURE(expectSame(program.stream(), accepted)) << k;
  EXPECT_EQ(accepted, kStreams);
}

// Values in more than one block of memory, some of which the memo keeps while the others are dropped.
TEST(PickleReference, AgreesOnThousandsOfValuesDroppedAndMadeAgain) {
  PickleBuilder program;
  for (const char* round : {"first ", "second ", "third "}) {
    for (const int count : {511, 512, 513, 1023, 1024, 1025, 3000}) {
      program.op(Op::EMPTY_LIST);
      for (int k = 0; k < count; ++k)
        program.binunicode(round + std::to_string(k)).op(Op::TUPLE1).op(Op::APPEND);
      if (count == 512 && *round == 'f') program.op(Op::MEMOIZE);  // the first block of texts is full
      program.op(Op::POP);
    }
    program.op(Op::EMPTY_DICT).binunicode(round).binget(0).op(Op::SETITEM);
  }
  std::size_t accepted = 0;
  expectSame(program.stop(), accepted);
  EXPECT_EQ(accepted, 1u);
}

// Copies that share, are changed, and must not change each other.
TEST(PickleReference, AgreesOnForksOfOneMemo) {
  PickleBuilder program;
  program.op(Op::EMPTY_LIST).op(Op::MEMOIZE);
  for (unsigned k = 1; k < 12; ++k) {
    // A copy of an earlier list gets one more item: itself a copy of another.
    program.binget(std::uint8_t(k / 2)).binget(std::uint8_t(k - 1)).op(Op::APPEND).op(Op::MEMOIZE);
    program.op(Op::EMPTY_DICT).shortBinunicode("k").binget(std::uint8_t(k)).op(Op::SETITEM);
    program.op(Op::DUP).shortBinunicode("l").op(Op::NONE).op(Op::SETITEM);
  }
  std::size_t accepted = 0;
  expectSame(program.stop(), accepted);
  EXPECT_EQ(accepted, 1u);
}

}  // namespace
}  // namespace zel
