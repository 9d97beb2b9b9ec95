// The pickle program of a checkpoint: a machine for the dialect of docs/pytorch-dialect.md and the gate that
// lets only a flat dict of tensors through. Opcode names: Lib/pickletools.py of CPython.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include "container/bytes.h"
#include "container/page_advice.h"
#include "readers/pytorch_importer.h"

namespace zel {
namespace {

enum class PickleKind : std::uint8_t {
  None = 0,  // also the mark
  Int = 1,   // booleans are 1 and 0
  Float = 2,
  Str = 3,
  Bytes = 4,
  Tuple = 5,  // tuples and lists alike
  Dict = 6,
  Global = 7,
  Storage = 8,
  Tensor = 9,  // items: Storage, size Tuple, storage offset Int
  Key = 10,    // only below a Dict
};

// Hands out objects that never move. They live until the arena is rewound to before them, or ends.
template <class T>
class Arena {
 public:
  template <class... Args>
  const T* make(Args&&... args) {
    if (blocks_.empty() || blocks_[last_].size() == blocks_[last_].capacity()) addBlock();
    blocks_[last_].push_back(T{std::forward<Args>(args)...});
    ++size_;
    return &blocks_[last_].back();
  }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  // Gives up all but the first `size` objects; their memory is used again.
  void rewind(std::size_t size) noexcept {
    while (size_ > size) {
      std::vector<T>& block = blocks_[last_];
      const std::size_t given = std::min(size_ - size, block.size());
      block.erase(block.end() - std::ptrdiff_t(given), block.end());
      size_ -= given;
      if (block.empty() && last_ > 0) --last_;
    }
  }

 private:
  // Small programs take little, and large ones large pages.
  void addBlock() {
    constexpr std::size_t kFirst = 512;
    constexpr std::size_t kMost = (7 << 20) / sizeof(T);  // four large pages with what the allocator keeps
    if (last_ + 1 < blocks_.size()) {
      ++last_;
      return;
    }
    std::vector<T> block;
    reserveOnLargePages(block, blocks_.empty() ? kFirst : std::min(2 * blocks_.back().capacity(), kMost));
    blocks_.push_back(std::move(block));
    last_ = blocks_.size() - 1;
  }

  std::vector<std::vector<T>> blocks_;  // full before last_, empty behind it
  std::size_t last_ = 0;
  std::size_t size_ = 0;
};

struct PickleCell;

// One value, held by value but cheap to copy: everything below it is shared and never changes, and lives in
// the arenas of the machine. So copies cost nothing, memory grows by at most one cell for each byte of the
// program, however often it duplicates, and no depth of nesting makes anything recurse.
class PickleValue {
 public:
  PickleValue() noexcept : PickleValue(PickleKind::None) {}
  // An empty one of what has items or pairs.
  explicit PickleValue(PickleKind kind) noexcept : kindAndCount_(std::uint64_t(kind)) {}
  static PickleValue integer(std::int64_t i) noexcept {
    PickleValue value(PickleKind::Int);
    value.integer_ = i;
    return value;
  }
  static PickleValue real(double f) noexcept {
    PickleValue value(PickleKind::Float);
    value.real_ = f;
    return value;
  }
  // Of a Str, Bytes or Key, or the mark.
  static PickleValue text(PickleKind kind, const std::string_view* text) noexcept {
    PickleValue value(kind);
    value.text_ = text;
    return value;
  }
  // Of a Global: the cells of module and name. Of a Storage: those of key, class name and element count.
  static PickleValue object(PickleKind kind, const PickleCell* last) noexcept {
    PickleValue value(kind);
    value.parts_ = last;
    return value;
  }

  [[nodiscard]] PickleKind kind() const noexcept { return PickleKind(kindAndCount_ % kOne); }
  [[nodiscard]] bool is(PickleKind kind) const noexcept { return this->kind() == kind; }
  [[nodiscard]] std::int64_t i() const noexcept;
  [[nodiscard]] double f() const noexcept { return is(PickleKind::Float) ? real_ : 0; }
  // Null where there is none.
  [[nodiscard]] const std::string_view* text() const noexcept { return hasText() ? text_ : nullptr; }
  [[nodiscard]] std::string_view s() const noexcept;       // a text, or the key of a storage
  [[nodiscard]] std::string_view module() const noexcept;  // of a global, or the class name of a storage
  [[nodiscard]] std::string_view name() const noexcept;    // of a global
  // The last part; only of a Global or Storage.
  [[nodiscard]] const PickleCell* parts() const noexcept { return parts_; }
  // Only the mark is of kind None with a text.
  [[nodiscard]] bool isMark() const noexcept { return is(PickleKind::None) && text_ != nullptr; }

  // The last item or pair; each leads to the one before it. A value of any kind may have been given some.
  [[nodiscard]] const PickleCell* children() const noexcept { return children_; }
  void append(const PickleCell* last) noexcept {
    children_ = last;
    kindAndCount_ += kOne;
    if (itemCount() == kEarlyItems && (is(PickleKind::Tuple) || is(PickleKind::Tensor))) early_ = last;
  }

  // Of a Tuple or Tensor, which hold nothing but items.
  [[nodiscard]] std::uint64_t itemCount() const noexcept { return kindAndCount_ / kOne; }
  // Item k of the first four; the caller has checked itemCount().
  [[nodiscard]] const PickleValue& item(std::uint64_t k) const noexcept;

  // The pairs in order of insertion; repeated keys are all kept.
  [[nodiscard]] std::vector<std::pair<std::string_view, PickleValue>> dict() const;

  static constexpr std::uint64_t kEarlyItems = 4;

 private:
  [[nodiscard]] bool hasText() const noexcept {
    return is(PickleKind::Str) || is(PickleKind::Bytes) || is(PickleKind::Key) || isMark();
  }
  static constexpr std::uint64_t kOne = 256;

  std::uint64_t kindAndCount_;  // the kind, and kOne for each item or pair
  union {                       // by kind
    const std::string_view* text_ = nullptr;
    std::int64_t integer_;
    double real_;
    const PickleCell* parts_;
    const PickleCell* early_;  // the fourth item, so that the first four are near
  };
  const PickleCell* children_ = nullptr;
};

// One item or part, or the key or the value of a pair. Lists grow at their end by a new cell that leads to
// the old end, so any number of values may share a beginning.
struct PickleCell {
  const PickleCell* previous = nullptr;
  PickleValue value;

  // The key that this is the value of; null for an item.
  [[nodiscard]] const PickleCell* key() const noexcept {
    return previous != nullptr && previous->value.is(PickleKind::Key) ? previous : nullptr;
  }
  // The item or pair before this one.
  [[nodiscard]] const PickleCell* before() const noexcept {
    return key() != nullptr ? key()->previous : previous;
  }
};

static_assert(sizeof(PickleCell) <= 32);  // a checkpoint of many tensors is mostly these

std::int64_t PickleValue::i() const noexcept {
  if (is(PickleKind::Int)) return integer_;
  return is(PickleKind::Storage) ? parts_->value.i() : 0;
}

std::string_view PickleValue::s() const noexcept {
  if (hasText()) return *text_;
  return is(PickleKind::Storage) ? parts_->previous->previous->value.s() : std::string_view();
}

std::string_view PickleValue::module() const noexcept {
  const bool known = is(PickleKind::Global) || is(PickleKind::Storage);
  return known ? parts_->previous->value.s() : std::string_view();
}

std::string_view PickleValue::name() const noexcept {
  return is(PickleKind::Global) ? parts_->value.s() : std::string_view();
}

const PickleValue& PickleValue::item(std::uint64_t k) const noexcept {
  const PickleCell* cell = itemCount() > kEarlyItems ? early_ : children_;
  for (std::uint64_t last = std::min(itemCount(), kEarlyItems) - 1; last > k; --last)
    cell = cell->previous;
  return cell->value;
}

std::vector<std::pair<std::string_view, PickleValue>> PickleValue::dict() const {
  std::vector<std::pair<std::string_view, PickleValue>> out;
  for (const PickleCell* cell = children_; cell != nullptr; cell = cell->before()) {
    if (cell->key() != nullptr) out.emplace_back(cell->key()->value.s(), cell->value);
  }
  std::reverse(out.begin(), out.end());
  return out;
}

// Runs one program from its first byte to STOP. Steps return false after a failure, which value() reports.
class PickleVM {
 public:
  // The program's bytes are borrowed for the life of the machine.
  explicit PickleVM(std::string_view program) noexcept : in_(program) {}

  // OK leaves the result on top of the stack. Every other Status begins "torch: pickle ":
  //   Corrupted    truncated, or operands that do not fit
  //   Unsupported  well-formed, but refused: foreign objects, opcodes outside the dialect
  Status value();

  [[nodiscard]] const std::vector<PickleValue>& stack() const noexcept { return stack_; }

 private:
  bool fail(const char* what) noexcept { return end(Code::Corrupted, what); }
  bool reject(const char* what) noexcept { return end(Code::Unsupported, what); }
  bool end(Code code, const char* what) noexcept {
    failureCode_ = code;
    failure_ = what;
    return false;
  }

  bool step(std::uint8_t opcode);

  // How much of the arenas is in use.
  struct Extent {
    std::size_t texts = 0;
    std::size_t cells = 0;
  };
  [[nodiscard]] Extent used() const noexcept { return {texts_.size(), cells_.size()}; }

  bool push(const PickleValue& value);
  PickleValue pop() noexcept;
  void drop() noexcept;
  bool pushText(PickleKind kind, std::string_view text);

  bool pop1();
  bool dup();
  bool pushInt4(const char* truncated);
  bool pushInt2();
  bool pushUnsignedByte();
  bool pushSignedByte();
  bool pushFloat();
  bool pushDecimal();
  bool pushText1(PickleKind kind, const char* tooLong);
  bool pushText4(PickleKind kind, const char* truncated, const char* tooLong);
  bool pushText8(PickleKind kind, const char* truncated, const char* tooLong);
  bool pushRest(PickleKind kind, std::uint64_t length, const char* tooLong);
  bool skipBytes(std::uint64_t n, const char* truncated);
  PickleValue globalOf(const std::string_view* module, const std::string_view* name);
  bool pushGlobal();
  bool stackGlobal();
  bool memoize();
  bool pushMemo(std::uint64_t index);
  bool pushMemo1();
  bool pushMemo4();

  void append(PickleValue& list, const PickleValue& item);
  void appendPair(PickleValue& dict, const PickleValue& key, const PickleValue& value);
  std::size_t collectMark(std::vector<PickleValue>& out);
  PickleValue listOf(PickleKind kind, const PickleValue* first, std::size_t count);
  bool markedTuple();
  bool markedDict();
  bool shortTuple(std::size_t count);
  bool appendOne();
  bool appendAll();
  bool setItem();
  bool build();
  bool reduce();
  bool rebuildTensor(const PickleValue& args);
  bool codecsEncode(const PickleValue& args);
  bool newObject();

  ByteReader in_;
  std::vector<PickleValue> stack_;
  std::vector<std::size_t> marks_;  // positions of marks in stack_, ascending
  // For each position of stack_ what was used when something came to lie there. What lies below it, and
  // stays, leads to nothing that was made since: values change only at the top of the stack.
  std::vector<Extent> usedBefore_;
  std::vector<PickleValue> memo_;
  Extent usedByMemo_;                   // at most
  std::vector<PickleValue> collected_;  // scratch of the opcodes that take everything above a mark
  Arena<std::string_view> texts_;
  Arena<PickleCell> cells_;
  Code failureCode_ = Code::OK;
  const char* failure_ = "";
};

Status PickleVM::value() {
  constexpr std::uint8_t kStop = 0x2e;
  std::uint8_t opcode = 0;
  while (failureCode_ == Code::OK && opcode != kStop) {
    if (!in_.readU8(opcode)) {
      fail("unterminated pickle");
    } else if (opcode != kStop) {
      const Extent before = used();
      step(opcode);
      usedBefore_.resize(stack_.size(), before);
    }
  }
  if (failureCode_ == Code::OK) return {};
  return {failureCode_, std::string("torch: pickle ") + failure_};
}

// The dialect. Opcodes that are not listed are refused, BINPUT and TUPLE among them, on purpose.
bool PickleVM::step(std::uint8_t opcode) {
  static constexpr std::string_view kMark = "\x01mark";
  using Kind = PickleKind;
  switch (opcode) {
    case 0x28: return push(PickleValue::text(Kind::None, &kMark));                  // MARK
    case 0x29: return push(PickleValue(Kind::Tuple));                               // EMPTY_TUPLE
    case 0x30: return pop1();                                                       // POP
    case 0x32: return dup();                                                        // DUP
    case 0x42: return pushText4(Kind::Bytes, "truncated bytes", "bytes too long");  // BINBYTES
    case 0x47: return pushFloat();                                                  // BINFLOAT
    case 0x4a: return pushInt4("truncated int");                                    // BININT
    case 0x4b: return pushUnsignedByte();                                           // BININT1
    case 0x4c: return pushDecimal();                                                // LONG
    case 0x4d: return pushInt2();                                                   // BININT2
    case 0x4e: return push(PickleValue());                                          // NONE
    case 0x50: return reject("persistent id (arbitrary python object)");            // PERSID
    case 0x51: return reject("persistent id (arbitrary python object)");            // BINPERSID
    case 0x52: return reduce();                                                     // REDUCE
    case 0x54: return markedTuple();  // 'T': the dialect's tuple, instead of a byte string of protocol 1
    case 0x58: return pushText4(Kind::Str, "truncated unicode", "unicode too long");  // BINUNICODE
    case 0x5d: return push(PickleValue(Kind::Tuple));                                 // EMPTY_LIST
    case 0x61: return appendOne();                                                    // APPEND
    case 0x62: return build();                                                        // BUILD
    case 0x63: return pushGlobal();                                                   // GLOBAL
    case 0x64: return markedDict();                                                   // DICT
    case 0x65: return appendAll();                                                    // APPENDS
    case 0x68: return pushMemo1();                                                    // BINGET
    case 0x6a: return pushMemo4();                                                    // LONG_BINGET
    case 0x6c: return markedTuple();                                                  // LIST
    case 0x73: return setItem();                                                      // SETITEM
    case 0x7d: return push(PickleValue(Kind::Dict));                                  // EMPTY_DICT
    case 0x80: return skipBytes(1, "truncated proto");                                // PROTO
    case 0x81: return newObject();                                                    // NEWOBJ
    case 0x85: return shortTuple(1);                                                  // TUPLE1
    case 0x86: return shortTuple(2);                                                  // TUPLE2
    case 0x87: return shortTuple(3);                                                  // TUPLE3
    case 0x88: return push(PickleValue::integer(1));                                  // NEWTRUE
    case 0x89: return push(PickleValue::integer(0));                                  // NEWFALSE
    case 0x8a: return pushSignedByte();                          // LONG1: the byte is the value
    case 0x8b: return pushInt4("truncated LONG4");               // LONG4: the four bytes are the value
    case 0x8c: return pushText1(Kind::Str, "unicode too long");  // SHORT_BINUNICODE
    case 0x8d: return pushText8(Kind::Str, "truncated unicode", "unicode too long");  // BINUNICODE8
    case 0x8e: return pushText1(Kind::Bytes, "bytes too long");  // BINBYTES8: here with a one-byte length
    case 0x93: return stackGlobal();                             // STACK_GLOBAL
    case 0x94: return memoize();                                 // MEMOIZE
    case 0x95: return skipBytes(8, "truncated frame");           // FRAME
    default: return reject("unknown pickle opcode");
  }
}

// ---- the stack

bool PickleVM::push(const PickleValue& value) {
  if (value.isMark()) marks_.push_back(stack_.size());
  stack_.push_back(value);
  return true;
}

PickleValue PickleVM::pop() noexcept {
  const PickleValue top = stack_.back();
  stack_.pop_back();
  if (!marks_.empty() && marks_.back() == stack_.size()) marks_.pop_back();
  return top;
}

// Pops a value that nothing takes over, and what was made for it alone.
void PickleVM::drop() noexcept {
  (void)pop();
  const Extent& before = usedBefore_[stack_.size()];
  texts_.rewind(std::max(before.texts, usedByMemo_.texts));
  cells_.rewind(std::max(before.cells, usedByMemo_.cells));
}

bool PickleVM::pop1() {
  if (stack_.empty()) return fail("pop underflow");
  drop();
  return true;
}

bool PickleVM::dup() {
  if (stack_.empty()) return fail("dup underflow");
  return push(PickleValue(stack_.back()));
}

bool PickleVM::memoize() {
  if (stack_.empty()) return fail("memo index");
  memo_.push_back(stack_.back());
  usedByMemo_ = used();
  return true;
}

bool PickleVM::pushMemo(std::uint64_t index) {
  if (index >= memo_.size()) return fail("memo index");
  return push(memo_[index]);
}

bool PickleVM::pushMemo1() {
  std::uint8_t index;
  return in_.readU8(index) ? pushMemo(index) : fail("truncated BINGET");
}

bool PickleVM::pushMemo4() {
  std::uint32_t index;
  return in_.readU32(index) ? pushMemo(index) : fail("truncated LONG_BINGET");
}

// ---- operands in the program

bool PickleVM::pushInt4(const char* truncated) {
  std::uint32_t raw;
  if (!in_.readU32(raw)) return fail(truncated);
  return push(PickleValue::integer(std::int32_t(raw)));
}

bool PickleVM::pushInt2() {
  std::uint16_t raw;
  if (!in_.readU16(raw)) return fail("truncated int");
  return push(PickleValue::integer(raw));
}

bool PickleVM::pushUnsignedByte() {
  std::uint8_t raw;
  if (!in_.readU8(raw)) return fail("unterminated pickle");
  return push(PickleValue::integer(raw));
}

bool PickleVM::pushSignedByte() {
  std::uint8_t raw;
  if (!in_.readU8(raw)) return fail("unterminated pickle");
  return push(PickleValue::integer(std::int8_t(raw)));
}

bool PickleVM::pushFloat() {
  std::uint64_t raw;
  if (!in_.readU64(raw)) return fail("truncated float");
  return push(
      PickleValue::real(std::bit_cast<double>(__builtin_bswap64(raw))));  // the only big-endian operand
}

// Digits up to an 'L', which stands in for the newline of the text protocol; no sign, wrapping.
bool PickleVM::pushDecimal() {
  const std::string_view rest = in_.rest();
  const std::size_t length = rest.find('L');
  if (length == std::string_view::npos) return fail("bad LONG");
  std::uint64_t number = 0;
  for (const char digit : rest.substr(0, length)) {
    if (digit < '0' || digit > '9') return fail("bad LONG digits");
    number = number * 10 + std::uint64_t(digit - '0');
  }
  return push(PickleValue::integer(std::int64_t(number))) && in_.skip(length + 1);
}

bool PickleVM::pushText(PickleKind kind, std::string_view text) {
  return push(PickleValue::text(kind, texts_.make(text)));
}

bool PickleVM::pushRest(PickleKind kind, std::uint64_t length, const char* tooLong) {
  std::string_view text;
  return in_.readBytes(length, text) ? pushText(kind, text) : fail(tooLong);
}

bool PickleVM::pushText1(PickleKind kind, const char* tooLong) {
  std::uint8_t length;
  return in_.readU8(length) ? pushRest(kind, length, tooLong) : fail("unterminated pickle");
}

bool PickleVM::pushText4(PickleKind kind, const char* truncated, const char* tooLong) {
  std::uint32_t length;
  return in_.readU32(length) ? pushRest(kind, length, tooLong) : fail(truncated);
}

bool PickleVM::pushText8(PickleKind kind, const char* truncated, const char* tooLong) {
  std::uint64_t length;
  return in_.readU64(length) ? pushRest(kind, length, tooLong) : fail(truncated);
}

bool PickleVM::skipBytes(std::uint64_t n, const char* truncated) { return in_.skip(n) || fail(truncated); }

PickleValue PickleVM::globalOf(const std::string_view* module, const std::string_view* name) {
  const PickleCell* const first = cells_.make(nullptr, PickleValue::text(PickleKind::Str, module));
  return PickleValue::object(PickleKind::Global,
                             cells_.make(first, PickleValue::text(PickleKind::Str, name)));
}

bool PickleVM::pushGlobal() {
  std::string_view lines[2];
  for (std::string_view& line : lines) {
    const std::size_t length = in_.rest().find('\n');
    if (length == std::string_view::npos) return fail("bad GLOBAL");
    line = in_.rest().substr(0, length);
    if (!in_.skip(length + 1)) return fail("bad GLOBAL");
  }
  return push(globalOf(texts_.make(lines[0]), texts_.make(lines[1])));
}

bool PickleVM::stackGlobal() {
  const std::size_t n = stack_.size();
  if (n < 2 || !stack_[n - 1].is(PickleKind::Str) || !stack_[n - 2].is(PickleKind::Str)) {
    return fail("bad STACK_GLOBAL");
  }
  const PickleValue name = pop();
  const PickleValue module = pop();
  return push(globalOf(module.text(), name.text()));
}

// ---- tuples and dicts

void PickleVM::append(PickleValue& list, const PickleValue& item) {
  list.append(cells_.make(list.children(), item));
}

// The key is a Str.
void PickleVM::appendPair(PickleValue& dict, const PickleValue& key, const PickleValue& value) {
  const PickleCell* const keyCell =
      cells_.make(dict.children(), PickleValue::text(PickleKind::Key, key.text()));
  dict.append(cells_.make(keyCell, value));
}

// Takes the values above the topmost mark, and the mark, off the stack. Without a mark it takes nothing:
// an opcode that wants a mark then acts on zero items.
std::size_t PickleVM::collectMark(std::vector<PickleValue>& out) {
  out.clear();
  if (marks_.empty()) return 0;
  const std::size_t mark = marks_.back();
  out.assign(stack_.begin() + std::ptrdiff_t(mark) + 1, stack_.end());
  stack_.resize(mark);
  marks_.pop_back();
  return out.size();
}

PickleValue PickleVM::listOf(PickleKind kind, const PickleValue* first, std::size_t count) {
  PickleValue list(kind);
  for (std::size_t k = 0; k < count; ++k)
    append(list, first[k]);
  return list;
}

bool PickleVM::markedTuple() {
  collectMark(collected_);
  return push(listOf(PickleKind::Tuple, collected_.data(), collected_.size()));
}

bool PickleVM::markedDict() {
  if (collectMark(collected_) % 2 != 0) return fail("odd dict");
  PickleValue dict(PickleKind::Dict);
  for (std::size_t k = 0; k < collected_.size(); k += 2) {
    if (!collected_[k].is(PickleKind::Str)) return reject("non-string dict key");
    appendPair(dict, collected_[k], collected_[k + 1]);
  }
  return push(dict);
}

bool PickleVM::shortTuple(std::size_t count) {
  if (stack_.size() < count) return fail("tuple stack underflow");
  const PickleValue tuple = listOf(PickleKind::Tuple, stack_.data() + stack_.size() - count, count);
  for (std::size_t k = 0; k < count; ++k)
    (void)pop();
  return push(tuple);
}

bool PickleVM::appendOne() {
  if (stack_.size() < 2) return fail("append underflow");
  const PickleValue item = pop();
  append(stack_.back(), item);  // whatever its kind
  return true;
}

bool PickleVM::appendAll() {
  collectMark(collected_);
  if (stack_.empty() || !stack_.back().is(PickleKind::Tuple)) return fail("appends on non-list");
  for (const PickleValue& item : collected_)
    append(stack_.back(), item);
  return true;
}

bool PickleVM::setItem() {
  if (stack_.size() < 3) return fail("setitem underflow");
  const PickleValue value = pop();
  const PickleValue key = pop();
  PickleValue& dict = stack_.back();
  if (!dict.is(PickleKind::Dict)) return fail("setitem on non-dict");
  if (!key.is(PickleKind::Str)) return reject("non-string dict key");
  appendPair(dict, key, value);
  return true;
}

// ---- objects

bool PickleVM::build() {
  if (stack_.size() < 2) return fail("build underflow");
  drop();  // the state
  const PickleValue& object = stack_.back();
  const bool known = object.is(PickleKind::Storage) || object.is(PickleKind::Tensor);
  return known || reject("BUILD on unsupported object");
}

bool PickleVM::reduce() {
  if (stack_.size() < 2) return fail("reduce underflow");
  const PickleValue args = pop();
  const PickleValue callable = pop();
  if (!args.is(PickleKind::Tuple)) return reject("reduce args not a tuple");
  if (!callable.is(PickleKind::Global)) return reject("REDUCE on non-global");
  const auto calls = [&](std::string_view module, std::string_view name) {
    return callable.module() == module && callable.name() == name;
  };
  if (calls("torch._utils", "_rebuild_tensor_v2")) return rebuildTensor(args);
  if (calls("_codecs", "encode")) return codecsEncode(args);
  return reject("REDUCE on foreign object");
}

// args: storage, storage offset, size, stride, ...; what follows the size is ignored unchecked.
bool PickleVM::rebuildTensor(const PickleValue& args) {
  if (args.itemCount() < 4) return fail("_rebuild_tensor_v2 args");
  const PickleValue parts[] = {args.item(0), args.item(2), args.item(1)};
  if (!parts[0].is(PickleKind::Storage) || !parts[1].is(PickleKind::Tuple) || !parts[2].is(PickleKind::Int)) {
    return fail("bad tensor args");
  }
  return push(listOf(PickleKind::Tensor, parts, std::size(parts)));
}

// args: bytes, encoding; the bytes stay as they are.
bool PickleVM::codecsEncode(const PickleValue& args) {
  if (args.itemCount() < 1 || !args.item(0).is(PickleKind::Bytes)) return fail("_codecs.encode args");
  return push(args.item(0));
}

bool PickleVM::newObject() {
  if (stack_.size() < 2) return fail("newobj underflow");
  const PickleValue args = pop();
  const PickleValue type = pop();
  if (!args.is(PickleKind::Tuple)) return reject("newobj args not a tuple");
  if (!type.is(PickleKind::Global)) return reject("NEWOBJ on non-global");
  if (type.module() != "torch") return reject("NEWOBJ on foreign class");
  // args: storage key, element count. Which class names are storages is settled by the tensor records.
  if (args.itemCount() < 2 || !args.item(0).is(PickleKind::Str) || !args.item(1).is(PickleKind::Int)) {
    return fail("bad storage args");
  }
  const PickleCell* parts = nullptr;
  for (const PickleValue& part : {args.item(0), type.parts()->value, args.item(1)})
    parts = cells_.make(parts, part);
  return push(PickleValue::object(PickleKind::Storage, parts));
}

// ---- tensor records

struct StorageClass {
  std::string_view name;
  DType dtype;
};
constexpr StorageClass kStorageClasses[] = {
    {"FloatStorage", DType::F32},
    {"HalfStorage", DType::F16},
    {"BFloat16Storage", DType::BF16},
};

// One tensor as the program describes it.
struct TensorRecord {
  std::string_view name;
  DType dtype = DType::F32;
  std::uint16_t ndim = 0;
  std::uint64_t shape[4] = {};
  std::string_view storage;
  std::uint64_t numel = 1;       // wrapping
  std::uint64_t byteOffset = 0;  // wrapping
  bool fits64 = true;            // numel and byteOffset did not wrap
  const ZipEntry* entry = nullptr;
};

std::uint64_t elementSize(DType dtype) { return kBlockGeometry[std::size_t(dtype)].blockBytes; }

Status readRecord(std::string_view name, const PickleValue& value, TensorRecord& out) {
  if (!value.is(PickleKind::Tensor)) {
    return unsupported("torch: state_dict contains a non-tensor python object (rejected for safety)");
  }
  const PickleValue& storage = value.item(0);
  const PickleValue& size = value.item(1);
  const std::string_view className = storage.module();
  const auto* known = std::find_if(std::begin(kStorageClasses), std::end(kStorageClasses),
                                   [&](const StorageClass& row) { return row.name == className; });
  if (known == std::end(kStorageClasses)) {
    return unsupported("torch: unsupported storage dtype '" + std::string(className) + "'");
  }
  out.name = name;
  out.dtype = known->dtype;
  out.storage = storage.s();
  out.ndim = std::uint16_t(size.itemCount());
  // Strides play no part: a tensor is taken as contiguous in its storage.
  bool empty = false;
  for (std::uint64_t k = 0; k < std::min<std::uint64_t>(out.ndim, std::size(out.shape)); ++k) {
    out.shape[k] = std::uint64_t(size.item(k).i());  // whatever its kind
    std::uint64_t product;
    if (!checkedMul(out.numel, out.shape[k], product)) out.fits64 = false;
    empty = empty || out.shape[k] == 0;
    out.numel *= out.shape[k];
  }
  if (empty) out.fits64 = true;
  const auto offset = std::uint64_t(value.item(2).i());
  std::uint64_t ignored;
  if (!checkedMul(offset, elementSize(out.dtype), ignored)) out.fits64 = false;
  out.byteOffset = offset * elementSize(out.dtype);
  return {};
}

// Measured exactly, also where the stored values wrap.
bool liesInside(const TensorRecord& record, std::uint64_t storageBytes) {
  std::uint64_t bytes;
  return record.fits64 && checkedMul(record.numel, elementSize(record.dtype), bytes) &&
         checkedAdd(bytes, record.byteOffset, bytes) && bytes <= storageBytes;
}

bool nameLess(const TensorRecord& a, const TensorRecord& b) {
  // A key that the program pushed again from its memo is the same text at the same place.
  const bool same = a.name.data() == b.name.data() && a.name.size() == b.name.size();
  return !same && a.name < b.name;
}

// Looks storages up by name, each place of the program that spells one only once: a program may name one
// storage a million times.
class StorageEntries {
 public:
  explicit StorageEntries(const PyTorchImporter& importer) : importer_(importer) {}

  const ZipEntry* find(std::string_view storage) {
    const auto [known, isNew] = entries_.try_emplace(storage.data(), nullptr);
    if (isNew) known->second = importer_.findEntry(storage);
    return known->second;
  }

 private:
  const PyTorchImporter& importer_;
  std::unordered_map<const char*, const ZipEntry*> entries_;  // by where the program spells the name
};

}  // namespace

Status PyTorchImporter::parsePickle() {
  const ZipEntry* program = findEntry("data.pkl");
  if (program == nullptr) return invalidFormat("torch: no data.pkl");
  hasConstants_ = findEntry("constants.pkl") != nullptr;

  PickleVM vm(file_.substr(program->dataOffset, program->compressedSize));
  ZEL_RETURN_IF_ERROR(vm.value());
  if (vm.stack().empty() || !vm.stack().back().is(PickleKind::Dict)) {
    return corrupted("torch: pickle root is not a dict");
  }

  std::vector<TensorRecord> records;
  for (const auto& [key, value] : vm.stack().back().dict()) {
    ZEL_RETURN_IF_ERROR(readRecord(key, value, records.emplace_back()));
  }
  // Names that the program spells out cannot be longer than itself. One long name taken from the memo a
  // million times would be, here and in everything that compares or copies names later: time and memory out
  // of all proportion to the file are answered as the failed allocation that they would end in.
  constexpr std::uint64_t kFreeNameBytes = 1 << 24;
  std::uint64_t nameBytes = 0;
  for (const TensorRecord& record : records)
    nameBytes += record.name.size();
  if (nameBytes > program->compressedSize + kFreeNameBytes) throw std::bad_alloc();
  std::stable_sort(records.begin(), records.end(), nameLess);

  StorageEntries storages(*this);
  for (TensorRecord& record : records) {
    record.entry = storages.find(record.storage);
    if (record.entry == nullptr) {
      return corrupted("torch: missing storage entry '" + std::string(record.storage) + "'");
    }
    if (!liesInside(record, record.entry->uncompressedSize)) {
      using Long = unsigned long long;
      std::fprintf(stderr, "  DBG: %s numel=%llu es=%llu bo=%llu usize=%llu\n",
                   std::string(record.name).c_str(), Long(record.numel), Long(elementSize(record.dtype)),
                   Long(record.byteOffset), Long(record.entry->uncompressedSize));
      return corrupted("torch: tensor exceeds storage");
    }
  }

  tensors_.reserve(records.size());
  for (const TensorRecord& record : records) {
    PtTensorInfo& tensor = tensors_.emplace_back();
    tensor.name = record.name;
    tensor.dtype = std::uint16_t(record.dtype);
    tensor.ndim = record.ndim;
    std::copy(std::begin(record.shape), std::end(record.shape), tensor.shape);
    tensor.storage = record.entry->name;
    tensor.dataOffset = record.entry->dataOffset;
    tensor.offset = record.byteOffset;
    tensor.nbytes = record.numel * elementSize(record.dtype);
  }
  return {};
}

}  // namespace zel
