#include "promises/plain_pickle.h"

#include <bit>
#include <iterator>

namespace zel::fuzz {
namespace {

constexpr std::size_t kMaxProgramBytes = 2048;
constexpr std::size_t kCopyBudget = 1000;  // values, over the whole run

std::size_t countValues(const PlainPickle& value) {
  std::size_t count = 1;
  for (const PlainPickle& item : value.items)
    count += countValues(item);
  for (const PlainPickle& each : value.values)
    count += countValues(each);
  return count;
}

class Machine {
 public:
  explicit Machine(std::string_view program) : data_(program) {}

  PlainPickleRun run() {
    PlainPickleRun out;
    while (!ended_)
      step();
    out.gaveUp = gaveUp_;
    out.status = Status(code_, message_.empty() ? "" : "torch: pickle " + message_);
    out.stack = std::move(stack_);
    return out;
  }

 private:
  using Items = std::vector<PlainPickle>;

  void end(Code code, std::string message) {
    if (ended_) return;
    ended_ = true;
    code_ = code;
    message_ = std::move(message);
  }
  void fail(std::string what) { end(Code::Corrupted, std::move(what)); }
  void reject(std::string what) { end(Code::Unsupported, std::move(what)); }
  // True when at least `values` are there; else the run has ended.
  bool have(std::size_t values, const char* otherwise) {
    if (stack_.size() >= values) return true;
    fail(otherwise);
    return false;
  }

  void push(PlainPickle value) {
    if (!ended_) stack_.push_back(std::move(value));
  }
  void pushCopy(const PlainPickle& value, std::vector<PlainPickle>& to) {
    copied_ += countValues(value);
    if (copied_ > kCopyBudget) {
      gaveUp_ = true;
      return end(Code::OK, "");
    }
    to.push_back(PlainPickle(value));  // copied before `to`, which may hold it, grows
  }
  PlainPickle pop() {
    PlainPickle top = std::move(stack_.back());
    stack_.pop_back();
    return top;
  }
  static PlainPickle make(unsigned kind) {
    PlainPickle out;
    out.kind = kind;
    return out;
  }
  void pushInt(std::int64_t i) {
    PlainPickle out = make(kInt);
    out.i = i;
    push(std::move(out));
  }
  void pushText(unsigned kind, std::string_view s) {
    PlainPickle out = make(kind);
    out.s = s;
    push(std::move(out));
  }
  void pushTuple(Items items) {
    PlainPickle out = make(kTuple);
    out.items = std::move(items);
    push(std::move(out));
  }

  std::string_view take(std::uint64_t n, const std::string& otherwise) {
    if (n > data_.size() - pos_) {
      fail(otherwise);
      return {};
    }
    pos_ += n;
    return data_.substr(pos_ - n, n);
  }
  // Little-endian; 0 after a failure.
  std::uint64_t number(unsigned bytes, const std::string& otherwise) {
    const std::string_view raw = take(bytes, otherwise);
    std::uint64_t out = 0;
    for (std::size_t k = raw.size(); k-- > 0;)
      out = out << 8 | static_cast<unsigned char>(raw[k]);
    return out;
  }
  std::uint8_t byte() { return std::uint8_t(number(1, "unterminated pickle")); }
  void counted(unsigned kind, unsigned lengthBytes, const std::string& what) {
    const std::uint64_t length = lengthBytes == 1 ? byte() : number(lengthBytes, "truncated " + what);
    if (!ended_) pushText(kind, take(length, what + " too long"));
  }

  static bool isMark(const PlainPickle& value) { return value.kind == kNone && value.s == "\x01mark"; }
  Items collectMark() {
    for (std::size_t k = stack_.size(); k-- > 0;) {
      if (!isMark(stack_[k])) continue;
      const auto first = stack_.begin() + std::ptrdiff_t(k);
      Items out(std::make_move_iterator(first + 1), std::make_move_iterator(stack_.end()));
      stack_.erase(first, stack_.end());
      return out;
    }
    return {};
  }

  void step() {
    const std::uint8_t opcode = byte();
    if (ended_) return;
    switch (opcode) {
      case 0x28: return pushText(kNone, "\x01mark");
      case 0x29:
      case 0x5d: return push(make(kTuple));
      case 0x2e: return end(Code::OK, "");
      case 0x30: return have(1, "pop underflow") ? void(pop()) : void();
      case 0x32: return have(1, "dup underflow") ? copyOf(stack_.back()) : void();
      case 0x42: return counted(kBytes, 4, "bytes");
      case 0x47: return binfloat();
      case 0x4a: return pushInt(std::int32_t(std::uint32_t(number(4, "truncated int"))));
      case 0x4b: return pushInt(byte());
      case 0x4c: return decimal();
      case 0x4d: return pushInt(std::int64_t(number(2, "truncated int")));
      case 0x4e: return push(make(kNone));
      case 0x50:
      case 0x51: return reject("persistent id (arbitrary python object)");
      case 0x52: return reduce();
      case 0x54:
      case 0x6c: return pushTuple(collectMark());
      case 0x58: return counted(kStr, 4, "unicode");
      case 0x61: return append();
      case 0x62: return build();
      case 0x63: return global();
      case 0x64: return dict();
      case 0x65: return appends();
      case 0x68: return get(number(1, "truncated BINGET"));
      case 0x6a: return get(number(4, "truncated LONG_BINGET"));
      case 0x73: return setItem();
      case 0x7d: return push(make(kDict));
      case 0x80: return void(take(1, "truncated proto"));
      case 0x81: return newObject();
      case 0x85:
      case 0x86:
      case 0x87: return tuple(opcode - 0x84U);
      case 0x88: return pushInt(1);
      case 0x89: return pushInt(0);
      case 0x8a: return pushInt(std::int8_t(byte()));
      case 0x8b: return pushInt(std::int32_t(std::uint32_t(number(4, "truncated LONG4"))));
      case 0x8c: return counted(kStr, 1, "unicode");
      case 0x8d: return counted(kStr, 8, "unicode");
      case 0x8e: return counted(kBytes, 1, "bytes");
      case 0x93: return stackGlobal();
      case 0x94: return have(1, "memo index") ? pushCopy(stack_.back(), memo_) : void();
      case 0x95: return void(take(8, "truncated frame"));
      default: return reject("unknown pickle opcode");
    }
  }

  void copyOf(const PlainPickle& value) { pushCopy(value, stack_); }
  void get(std::uint64_t index) {
    if (ended_) return;
    if (index >= memo_.size()) return fail("memo index");
    copyOf(memo_[index]);
  }
  void binfloat() {
    std::uint64_t bits = 0;
    for (const char c : take(8, "truncated float"))
      bits = bits << 8 | static_cast<unsigned char>(c);
    PlainPickle out = make(kFloat);
    out.f = std::bit_cast<double>(bits);
    push(std::move(out));
  }
  void decimal() {
    const std::size_t stop = data_.find('L', pos_);
    if (stop == std::string_view::npos) return fail("bad LONG");
    std::uint64_t value = 0;
    for (; pos_ < stop; ++pos_) {
      if (data_[pos_] < '0' || data_[pos_] > '9') return fail("bad LONG digits");
      value = value * 10 + std::uint64_t(data_[pos_] - '0');
    }
    ++pos_;
    pushInt(std::int64_t(value));
  }
  void global() {
    PlainPickle out = make(kGlobal);
    for (std::string* line : {&out.module, &out.name}) {
      const std::size_t newline = data_.find('\n', pos_);
      if (newline == std::string_view::npos) return fail("bad GLOBAL");
      *line = data_.substr(pos_, newline - pos_);
      pos_ = newline + 1;
    }
    push(std::move(out));
  }
  void stackGlobal() {
    const std::size_t n = stack_.size();
    if (n < 2 || stack_[n - 1].kind != kStr || stack_[n - 2].kind != kStr) return fail("bad STACK_GLOBAL");
    PlainPickle out = make(kGlobal);
    out.name = pop().s;
    out.module = pop().s;
    push(std::move(out));
  }

  void tuple(std::size_t n) {
    if (!have(n, "tuple stack underflow")) return;
    const auto first = stack_.end() - std::ptrdiff_t(n);
    Items items(std::make_move_iterator(first), std::make_move_iterator(stack_.end()));
    stack_.erase(first, stack_.end());
    pushTuple(std::move(items));
  }
  void append() {
    if (!have(2, "append underflow")) return;
    PlainPickle item = pop();
    stack_.back().items.push_back(std::move(item));
  }
  void appends() {
    Items items = collectMark();
    if (stack_.empty() || stack_.back().kind != kTuple) return fail("appends on non-list");
    for (PlainPickle& item : items)
      stack_.back().items.push_back(std::move(item));
  }
  void dict() {
    Items items = collectMark();
    if (items.size() % 2 != 0) return fail("odd dict");
    PlainPickle out = make(kDict);
    for (std::size_t k = 0; k < items.size(); k += 2) {
      if (items[k].kind != kStr) return reject("non-string dict key");
      out.keys.push_back(items[k].s);
      out.values.push_back(std::move(items[k + 1]));
    }
    push(std::move(out));
  }
  void setItem() {
    if (!have(3, "setitem underflow")) return;
    PlainPickle value = pop();
    const PlainPickle key = pop();
    if (stack_.back().kind != kDict) return fail("setitem on non-dict");
    if (key.kind != kStr) return reject("non-string dict key");
    stack_.back().keys.push_back(key.s);
    stack_.back().values.push_back(std::move(value));
  }

  void build() {
    if (!have(2, "build underflow")) return;
    pop();
    if (stack_.back().kind != kStorage && stack_.back().kind != kTensor) {
      reject("BUILD on unsupported object");
    }
  }
  void reduce() {
    if (!have(2, "reduce underflow")) return;
    PlainPickle args = pop();
    const PlainPickle callable = pop();
    Items& a = args.items;
    if (args.kind != kTuple) return reject("reduce args not a tuple");
    if (callable.kind != kGlobal) return reject("REDUCE on non-global");
    if (callable.module == "torch._utils" && callable.name == "_rebuild_tensor_v2") {
      if (a.size() < 4) return fail("_rebuild_tensor_v2 args");
      if (a[0].kind != kStorage || a[1].kind != kInt || a[2].kind != kTuple) return fail("bad tensor args");
      PlainPickle out = make(kTensor);
      out.items = {a[0], a[2], a[1]};
      return push(std::move(out));
    }
    if (callable.module == "_codecs" && callable.name == "encode") {
      if (a.empty() || a[0].kind != kBytes) return fail("_codecs.encode args");
      return push(std::move(a[0]));
    }
    reject("REDUCE on foreign object");
  }
  void newObject() {
    if (!have(2, "newobj underflow")) return;
    const PlainPickle args = pop();
    const PlainPickle type = pop();
    const Items& a = args.items;
    if (args.kind != kTuple) return reject("newobj args not a tuple");
    if (type.kind != kGlobal) return reject("NEWOBJ on non-global");
    if (type.module != "torch") return reject("NEWOBJ on foreign class");
    if (a.size() < 2 || a[0].kind != kStr || a[1].kind != kInt) return fail("bad storage args");
    PlainPickle out = make(kStorage);
    out.s = a[0].s;
    out.i = a[1].i;
    out.module = type.name;
    push(std::move(out));
  }

  std::string_view data_;
  std::size_t pos_ = 0;
  Items stack_;
  Items memo_;
  std::size_t copied_ = 0;
  bool ended_ = false;
  bool gaveUp_ = false;
  Code code_ = Code::OK;
  std::string message_;
};

}  // namespace

PlainPickleRun runPlainPickle(std::string_view program) {
  if (program.size() <= kMaxProgramBytes) return Machine(program).run();
  PlainPickleRun out;
  out.gaveUp = true;
  return out;
}

}  // namespace zel::fuzz
