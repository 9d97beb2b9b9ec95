// The JSON grammar as a walk that the caller drives: one grammar, several sinks. The tree of json.h is one of
// them; the vocabulary of tokenizer.json and the entries of a safetensors header are filled without a tree.
//
// What runs once for every value of a large file is inline here; everything else is in json.cpp.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "container/bytes.h"
#include "container/page_advice.h"
#include "container/status.h"
#include "hf/json.h"

namespace zel::json::detail {

// Reading state of one parse. Every method returns false after the first failure, which status() then names;
// a caller just passes false on, so that the one Status is built once, at the end.
//
// peek() tells the kind of the next value, and exactly one of the reading methods consumes it. Every value is
// read at its nesting depth, 0 for the root; the callbacks of members() and elements() read theirs one deeper
// than the container. Values deeper than kMaxDepth fail.
class Parser {
 public:
  static constexpr std::size_t kMaxDepth = 64;

  Parser(const char* data, std::size_t size) noexcept : pos_(data), end_(data + size) {}

  // Any value, into a tree.
  bool value(Value& out, std::size_t depth);
  // Any value, held to the same grammar and dropped without an allocation.
  bool skip(std::size_t depth);

  // Skips whitespace and tells what kind of value starts here; fails when none can.
  bool peek(Kind& kind, std::size_t depth);

  // Each consumes a value of the kind that peek() gave.
  bool literal(Kind kind, bool& boolean);  // Null or Bool
  bool number(double& out);
  // As number(), for numbers that should be integral: empty when this one is not, or exceeds 64 bits.
  bool integer(std::optional<std::int64_t>& out);
  bool string(std::string& out);                                 // replaces `out`
  bool stringView(std::string_view& out, std::string& scratch);  // borrows the input, or `scratch` if escaped
  // Calls member(std::string_view key) for each member; it reads the value. The key dies with the call.
  template <class OnMember>
  bool object(OnMember&& member);
  // As object(), for keys that are kept: readKey() consumes the key with string() or stringView(), then
  // member() reads the value.
  template <class ReadKey, class OnMember>
  bool members(ReadKey&& readKey, OnMember&& member);
  // Calls element() for each element; it reads the value.
  template <class OnElement>
  bool elements(OnElement&& element);

  // The common kinds of a long list, which are most of a tokenizer.json, faster. Where the next value is a
  // string, or the next key is to be read: consumes elements that are strings without an escape,
  // or members whose value is a whole number of up to seven digits, with nothing before the comma and at most
  // one space before the number, and calls onElement(std::string_view text, std::size_t left) or
  // onMember(std::string_view key, std::size_t left, std::int64_t value) for each; `left` are the bytes that
  // were not yet read when it began. Stops before whatever is of another kind, before the last of the list,
  // and at the end of the text, each to be read in the general way: again a string is next. From the start of
  // each text kShortText bytes can be read.
  static constexpr std::size_t kShortText = 15;  // what std::string holds without an allocation
  template <class OnElement>
  void plainElements(OnElement&& onElement);
  template <class OnMember>
  void plainMembers(OnMember&& onMember);

  // For values that all writers spell alike. Each consumes what it names, if that is what comes next, down to
  // the last byte; otherwise it returns false, which is no failure: the caller goes back to a copy of the
  // parser that it has made before, and reads in the general way.
  bool literally(std::string_view text) noexcept;
  bool plainText(std::string_view& out) noexcept;  // behind an opening quote, and its closing quote
  // Whole numbers of up to 15 digits with commas between them, up to a closing bracket: the first `most` and
  // how many there are.
  bool shortIntegers(std::uint64_t* out, std::size_t most, std::size_t& count) noexcept;

  // Nothing but whitespace may be left.
  bool finish();

  // The failure, or OK when there was none.
  [[nodiscard]] Status status() const;

  // Where the walk stands, for estimates: bytes not yet read.
  [[nodiscard]] std::size_t remaining() const noexcept { return std::size_t(end_ - pos_); }

 private:
  bool fail(const char* text) noexcept {
    error_ = text;
    return false;
  }
  void skipSpace() noexcept { pos_ = behindSpace(pos_, end_); }
  static const char* behindSpace(const char* p, const char* end) noexcept {
    // Most values follow without a space: one comparison tells.
    while (p != end && static_cast<unsigned char>(*p) <= ' ' && isSpace(*p))
      ++p;
    return p;
  }
  static bool isSpace(char c) noexcept { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
  static bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
  // True when the closing bracket of the container comes next; consumes it.
  bool closes(char bracket) noexcept {
    skipSpace();
    if (pos_ == end_ || *pos_ != bracket) return false;
    ++pos_;
    return true;
  }
  bool comma() noexcept {
    if (pos_ == end_ || *pos_ != ',') return fail("json: comma");
    ++pos_;
    return true;
  }
  bool keyQuote() noexcept {
    skipSpace();
    return (pos_ != end_ && *pos_ == '"') || fail("json: object key");
  }
  bool colon() noexcept {
    skipSpace();
    if (pos_ == end_ || *pos_ != ':') return fail("json: colon");
    ++pos_;
    return true;
  }
  static const char* endOfPlainRun(const char* p, const char* end) noexcept;
  void assignRun(std::string& out, const char* run, std::size_t size) const;
  bool shortInteger(std::int64_t& out) noexcept;
  static bool fewDigits(const char*& p, std::int64_t& integer) noexcept;
  bool wholeNumberToken(double& out);
  template <class ReadBehind, class OnText>
  void plainTexts(ReadBehind&& readBehind, OnText&& onText);
  template <class ReadBehind, class OnText>
  std::size_t runOfPlainTexts(ReadBehind& readBehind, OnText& onText);
  template <class Out>
  bool stringRest(const char* run, const char* at, Out& out);
  bool escape(const char*& at, char*& out);
  bool codeUnit(const char*& at, unsigned& unit) noexcept;

  const char* pos_;
  const char* end_;
  const char* error_ = nullptr;  // static text
  unsigned plainPause_ = 0;      // texts that plainTexts() leaves to the general way
};

inline bool Parser::peek(Kind& kind, std::size_t depth) {
  if (depth > kMaxDepth) return fail("json: too deep");
  skipSpace();
  if (pos_ == end_) return fail("json: unexpected end");
  switch (*pos_) {
    case '"': kind = Kind::String; return true;
    case '{': kind = Kind::Object; return true;
    case '[': kind = Kind::Array; return true;
    case 't':
    case 'f': kind = Kind::Bool; return true;
    case 'n': kind = Kind::Null; return true;
    default:
      if (!isDigit(*pos_) && *pos_ != '-') return fail("json: unexpected char");
      kind = Kind::Number;
      return true;
  }
}

// Consumes a number that is up to 15 digits and nothing else; otherwise false, with nothing consumed. Such
// integers are exact doubles and need no floating-point parsing. A minus sign is left to the general case,
// which knows a negative zero.
inline bool Parser::shortInteger(std::int64_t& out) noexcept {
  constexpr std::ptrdiff_t kExactDigits = 15;
  const char* p = pos_;
  std::int64_t integer = 0;
  if (end_ - p < 8 || !fewDigits(p, integer)) {
    while (p != end_ && isDigit(*p)) {
      if (p - pos_ == kExactDigits) return false;
      integer = integer * 10 + (*p++ - '0');
    }
  }
  if (p == pos_ || (p != end_ && (*p == '.' || *p == 'e' || *p == 'E'))) return false;
  out = integer;
  pos_ = p;
  return true;
}

// Up to 7 digits at once, and `p` moved behind them; false for more. Eight bytes can be read. A loop takes a
// branch for each digit and mispredicts the last.
inline bool Parser::fewDigits(const char*& p, std::int64_t& integer) noexcept {
  constexpr std::uint64_t kEach = 0x0101010101010101;
  const std::uint64_t values = loadU64(p) ^ kEach * '0';
  // The high bit of every byte from the first on that is above 9; a carry only reaches bytes behind it.
  const std::uint64_t others = ((values + kEach * (0x80 - 10)) | values) & kEach * 0x80;
  if (others == 0) return false;
  const unsigned digits = unsigned(__builtin_ctzll(others)) / 8;
  if (digits == 0) return true;
  // The first digit is the lowest byte: with zeros before it, pairs, fours and eights are put together.
  const std::uint64_t bytes = values << (64 - 8 * digits);
  const std::uint64_t pairs = bytes * 10 + (bytes >> 8);
  constexpr std::uint64_t kPairs = 0x000000FF000000FF;
  const std::uint64_t high = (pairs & kPairs) * (100 + (std::uint64_t{1'000'000} << 32));
  const std::uint64_t low = (pairs >> 16 & kPairs) * (1 + (std::uint64_t{10'000} << 32));
  integer = std::int64_t((high + low) >> 32);
  p += digits;
  return true;
}

inline bool Parser::number(double& out) {
  std::int64_t integer;
  if (!shortInteger(integer)) return wholeNumberToken(out);
  out = double(integer);
  return true;
}

inline bool Parser::integer(std::optional<std::int64_t>& out) {
  std::int64_t integer;
  if (!shortInteger(integer)) {
    double number;
    if (!wholeNumberToken(number)) return false;
    if (!toInt64(number, integer)) {
      out.reset();
      return true;
    }
  }
  out = integer;
  return true;
}

inline bool endsRun(char c) noexcept { return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20; }

inline std::uint64_t endsOfRuns16ByteByByte(const char* p) noexcept {
  std::uint64_t ends = 0;
  for (unsigned k = 0; k < 16; ++k)
    ends |= std::uint64_t(endsRun(p[k])) << k;
  return ends;
}

// A bit for each of 16 bytes: whether it ends a run of plain string bytes, as a quote, a backslash or a
// control byte below 0x20.
inline std::uint64_t endsOfRuns16(const char* p) noexcept {
#ifdef __SSE2__
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i control = _mm_set1_epi8(0x1F);
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i isControl = _mm_cmpeq_epi8(_mm_min_epu8(bytes, control), bytes);
  const __m128i special = _mm_or_si128(_mm_cmpeq_epi8(bytes, quote), _mm_cmpeq_epi8(bytes, backslash));
  return unsigned(_mm_movemask_epi8(_mm_or_si128(special, isControl)));
#else
  return endsOfRuns16ByteByByte(p);
#endif
}

inline std::uint64_t endsOfRuns64(const char* p) noexcept {
  return endsOfRuns16(p) | endsOfRuns16(p + 16) << 16 | endsOfRuns16(p + 32) << 32 |
         endsOfRuns16(p + 48) << 48;
}

// The first byte at or after `p` that ends a run of plain string bytes. Sixteen bytes at a time, since most
// strings then end in the first step and the branch behind it is easy to predict.
inline const char* Parser::endOfPlainRun(const char* p, const char* end) noexcept {
  for (; end - p >= 16; p += 16) {
    if (const std::uint64_t ends = endsOfRuns16(p); ends != 0) return p + __builtin_ctzll(ends);
  }
  while (p != end && !endsRun(*p))
    ++p;
  return p;
}

// Replaces `out`. A copy of known size is two moves; one of unknown size is a call and branches on the size
// that are hard to predict. So short texts are copied with what follows them, and cut.
inline void Parser::assignRun(std::string& out, const char* run, std::size_t size) const {
  if (size <= kShortText && std::size_t(end_ - run) >= kShortText) {
    out.assign(run, kShortText);
    out.resize(size);
  } else {
    out.assign(run, size);
  }
}

inline bool Parser::string(std::string& out) {
  const char* const run = pos_ + 1;
  const char* const at = endOfPlainRun(run, end_);
  if (at != end_ && *at == '"') {
    assignRun(out, run, std::size_t(at - run));
    pos_ = at + 1;
    return true;
  }
  out.clear();
  return stringRest(run, at, out);
}

inline bool Parser::stringView(std::string_view& out, std::string& scratch) {
  const char* const run = pos_ + 1;
  const char* const at = endOfPlainRun(run, end_);
  if (at != end_ && *at == '"') {
    out = {run, std::size_t(at - run)};
    pos_ = at + 1;
    return true;
  }
  scratch.clear();
  if (!stringRest(run, at, scratch)) return false;
  out = scratch;
  return true;
}

// Finds the quotes of 64 bytes at once: to look for each behind the one before would wait for its place every
// time. Returns how many texts it has read. `readBehind` consumes what stands between the closing quote and
// the comma, and tells whether it could; it may read 16 bytes.
template <class ReadBehind, class OnText>
std::size_t Parser::runOfPlainTexts(ReadBehind& readBehind, OnText& onText) {
  constexpr std::ptrdiff_t kBlock = 64;
  // Locals: what `onText` writes might change the members, for all that the compiler knows.
  const char* const end = end_;
  const char* opening = pos_;
  const char* block = opening;
  if (end - block < kBlock) return 0;
  std::uint64_t ends = endsOfRuns64(block);
  for (std::size_t count = 0;; ++count) {
    const char* const run = opening + 1;
    const char* closing = run;
    std::uint64_t ahead = closing - block < kBlock ? ends >> (closing - block) : 0;
    while (ahead == 0) {
      closing = std::max(block + kBlock, run);
      if (end - closing < kBlock) return count;
      block = closing;
      ahead = ends = endsOfRuns64(block);
    }
    closing += __builtin_ctzll(ahead);
    if (end - closing < kBlock || *closing != '"') return count;
    const char* next = closing + 1;
    if (!readBehind(next) || *next != ',') return count;
    next = behindSpace(next + 1, end);
    if (next == end || *next != '"') return count;
    pos_ = opening = next;
    onText(std::string_view(run, std::size_t(closing - run)), std::size_t(end - run));
  }
}

// Where escapes are frequent, to look for plain texts behind each would cost more than they gain.
template <class ReadBehind, class OnText>
void Parser::plainTexts(ReadBehind&& readBehind, OnText&& onText) {
  constexpr std::size_t kWorthwhile = 8;
  constexpr unsigned kPause = 16;
  if (plainPause_ != 0) {
    --plainPause_;
  } else if (runOfPlainTexts(readBehind, onText) < kWorthwhile) {
    plainPause_ = kPause;
  }
}

template <class OnElement>
void Parser::plainElements(OnElement&& onElement) {
  plainTexts([](const char*&) { return true; }, std::forward<OnElement>(onElement));
}

template <class OnMember>
void Parser::plainMembers(OnMember&& onMember) {
  std::int64_t value = 0;
  plainTexts(
      [&value](const char*& at) {
        if (*at != ':') return false;
        ++at;
        if (*at == ' ') ++at;
        const char* const digits = at;
        return fewDigits(at, value) && at != digits;
      },
      [&](std::string_view key, std::size_t left) { onMember(key, left, value); });
}

inline bool Parser::literally(std::string_view text) noexcept {
  if (remaining() < text.size() || std::memcmp(pos_, text.data(), text.size()) != 0) return false;
  pos_ += text.size();
  return true;
}

inline bool Parser::plainText(std::string_view& out) noexcept {
  const char* const at = endOfPlainRun(pos_, end_);
  if (at == end_ || *at != '"') return false;
  out = {pos_, std::size_t(at - pos_)};
  pos_ = at + 1;
  return true;
}

inline bool Parser::shortIntegers(std::uint64_t* out, std::size_t most, std::size_t& count) noexcept {
  count = 0;
  if (literally("]")) return true;
  for (;;) {
    std::int64_t integer;
    if (!shortInteger(integer) || pos_ == end_) return false;
    if (count < most) out[count] = std::uint64_t(integer);
    ++count;
    const char behind = *pos_++;
    if (behind == ']') return true;
    if (behind != ',') return false;
  }
}

template <class ReadKey, class OnMember>
bool Parser::members(ReadKey&& readKey, OnMember&& member) {
  ++pos_;  // the brace
  if (closes('}')) return true;
  for (;;) {
    if (!keyQuote() || !readKey() || !colon() || !member()) return false;
    if (closes('}')) return true;
    if (!comma()) return false;
  }
}

template <class OnMember>
bool Parser::object(OnMember&& member) {
  std::string_view key;
  std::string scratch;
  return members([&] { return stringView(key, scratch); }, [&] { return member(key); });
}

template <class OnElement>
bool Parser::elements(OnElement&& element) {
  ++pos_;  // the bracket
  if (closes(']')) return true;
  for (;;) {
    if (!element()) return false;
    if (closes(']')) return true;
    if (!comma()) return false;
  }
}

// Room that a list may have at once when there is one of its kind in a file. What stays unused takes
// addresses, but no memory.
inline constexpr std::size_t kOneListBytes = 128 << 20;

// What reserveEstimated() does when the room is used up, which is seldom.
template <class T>
[[gnu::noinline]] void growEstimated(std::vector<T>& out, std::size_t bytesBefore, std::size_t bytesLeft,
                                     std::size_t atOnceBytes) {
  constexpr std::size_t kLong = 1024;
  constexpr std::size_t kMaxFactor = 8;
  constexpr std::size_t kLargeBytes = 1 << 20;
  const std::size_t size = out.size();
  if (size >= kLong) {
    const std::size_t bytesEach = (bytesBefore - bytesLeft) / size;
    const std::size_t estimate = size + bytesLeft / std::max<std::size_t>(bytesEach, 1) + 1;
    const std::size_t most = std::max(kMaxFactor * size, atOnceBytes / sizeof(T));
    const std::size_t count = std::clamp(estimate, 2 * size, most);
    try {
      // A large page is filled at once, so a text of many lists must have filled as much to get one.
      if (atOnceBytes > 0 || size * sizeof(T) >= kLargeBytes) {
        reserveOnLargePages(out, count);
      } else {
        out.reserve(count);
      }
    } catch (const std::bad_alloc&) {  // most of it may not be needed
      out.reserve(2 * size);
    }
  } else {
    out.reserve(std::max<std::size_t>(1, 2 * size));  // a text of a million lists of one element has many
  }
}

// Room for one more element. A long vector grows by what its elements so far say about the rest of the input,
// instead of by doubling: `bytesBefore` is what was left to read when the first element began. Never by more
// than eight times at once or to `atOnceBytes`: a text of many lists cannot ask for much that it does not
// fill.
template <class T>
void reserveEstimated(std::vector<T>& out, std::size_t bytesBefore, std::size_t bytesLeft,
                      std::size_t atOnceBytes = 0) {
  if (out.size() == out.capacity()) growEstimated(out, bytesBefore, bytesLeft, atOnceBytes);
}

template <class T>
T& appendEstimated(std::vector<T>& out, std::size_t bytesBefore, std::size_t bytesLeft,
                   std::size_t atOnceBytes = 0) {
  reserveEstimated(out, bytesBefore, bytesLeft, atOnceBytes);
  return out.emplace_back();
}

}  // namespace zel::json::detail
