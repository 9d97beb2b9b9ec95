#include "hf/json.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <system_error>

#include "hf/json_parser.h"

namespace zel::json {
namespace {

// Takes the decoded bytes of a string that nobody wants.
struct Discard {
  void append(const char*, std::size_t) noexcept {}
};

// Row n is the value of the hexadecimal digit n, -1 for every other byte.
struct HexTable {
  std::int16_t values[256];
  constexpr HexTable() : values() {
    for (std::int16_t& value : values)
      value = -1;
    for (int digit = 0; digit < 10; ++digit)
      values['0' + digit] = static_cast<std::int16_t>(digit);
    for (int digit = 10; digit < 16; ++digit) {
      values['a' + digit - 10] = static_cast<std::int16_t>(digit);
      values['A' + digit - 10] = static_cast<std::int16_t>(digit);
    }
  }
};
constexpr HexTable kHex;

// UTF-8 of a code point that is not a surrogate; returns the number of bytes.
std::size_t encodeUtf8(unsigned cp, char* out) noexcept {
  if (cp < 0x80) {
    out[0] = char(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = char(0xC0 | cp >> 6);
    out[1] = char(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = char(0xE0 | cp >> 12);
    out[1] = char(0x80 | (cp >> 6 & 0x3F));
    out[2] = char(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = char(0xF0 | cp >> 18);
  out[1] = char(0x80 | (cp >> 12 & 0x3F));
  out[2] = char(0x80 | (cp >> 6 & 0x3F));
  out[3] = char(0x80 | (cp & 0x3F));
  return 4;
}

}  // namespace

const std::string Value::kEmpty;

const Value* Value::get(const char* key) const noexcept {
  if (!isObject()) return nullptr;
  const std::string_view wanted(key);
  for (const Member& member : members) {
    if (member.first == wanted) return &member.second;
  }
  return nullptr;
}

Status parse(const char* data, std::size_t size, Value& out) {
  if (data == nullptr) return invalidFormat("json: null input");
  out = Value();
  detail::Parser parser(data, size);
  if (parser.value(out, 0)) parser.finish();
  return parser.status();
}

bool toInt64(double number, std::int64_t& out) noexcept {
  // Both limits are exact doubles; outside them, and for NaN, the cast would be undefined.
  // cppcheck-suppress incorrectLogicOperator  ; it reads a hexadecimal floating-point constant as an integer
  if (!(number >= -0x1p63 && number < 0x1p63)) return false;
  const auto integer = static_cast<std::int64_t>(number);
  if (static_cast<double>(integer) != number) return false;
  out = integer;
  return true;
}

namespace detail {

Status Parser::status() const { return error_ == nullptr ? Status() : invalidFormat(error_); }

bool Parser::finish() {
  skipSpace();
  return pos_ == end_ || fail("json: trailing data");
}

bool Parser::value(Value& out, std::size_t depth) {
  if (!peek(out.kind, depth)) return false;
  const std::size_t before = remaining();
  switch (out.kind) {
    case Kind::Null:
    case Kind::Bool: return literal(out.kind, out.boolean);
    case Kind::Number: return number(out.number);
    case Kind::String: return string(out.text);
    case Kind::Object:
      return members([&] { return string(appendEstimated(out.members, before, remaining()).first); },
                     [&] { return value(out.members.back().second, depth + 1); });
    case Kind::Array:
      return elements([&] { return value(appendEstimated(out.items, before, remaining()), depth + 1); });
  }
  return false;
}

bool Parser::skip(std::size_t depth) {
  Kind kind;
  if (!peek(kind, depth)) return false;
  const auto skipString = [this] {
    Discard nothing;
    return stringRest(pos_ + 1, endOfPlainRun(pos_ + 1, end_), nothing);
  };
  const auto skipValue = [&] { return skip(depth + 1); };
  bool boolean;
  double ignored;
  switch (kind) {
    case Kind::Null:
    case Kind::Bool: return literal(kind, boolean);
    case Kind::Number: return number(ignored);
    case Kind::String: return skipString();
    case Kind::Object: return members(skipString, skipValue);
    case Kind::Array: return elements(skipValue);
  }
  return false;
}

bool Parser::literal(Kind kind, bool& boolean) {
  boolean = *pos_ == 't';
  const std::string_view text = kind == Kind::Null ? "null" : boolean ? "true" : "false";
  // The byte behind the literal is not looked at: "truex" leaves the x for whoever reads on.
  if (std::string_view(pos_, std::size_t(end_ - pos_)).substr(0, text.size()) != text) {
    return fail("json: bad literal");
  }
  pos_ += text.size();
  return true;
}

bool Parser::wholeNumberToken(double& out) {
  constexpr std::ptrdiff_t kMaxTokenBytes = 63;
  const char* p = pos_;
  const auto digits = [&] {
    while (p != end_ && isDigit(*p))
      ++p;
  };
  if (*p == '-') ++p;
  digits();  // leading zeros are accepted, and so is no digit at all in front of a full stop
  if (p != end_ && *p == '.') {
    ++p;
    digits();
  }
  bool negativeExponent = false;
  if (p != end_ && (*p == 'e' || *p == 'E')) {
    ++p;
    if (p != end_ && (*p == '+' || *p == '-')) negativeExponent = *p++ == '-';
    digits();
  }
  if (p - pos_ > kMaxTokenBytes) return fail("json: number too long");
  // Reads what strtod() would read in the C locale, whatever locale the host has set.
  double number = 0;
  const auto [used, error] = std::from_chars(pos_, p, number);
  if (used != p || error == std::errc::invalid_argument) return fail("json: bad number");
  if (error == std::errc::result_out_of_range) {
    // 63 characters can only leave the range of a double by an exponent, so its sign tells the direction.
    number = negativeExponent ? 0.0 : std::numeric_limits<double>::infinity();
    if (*pos_ == '-') number = -number;
  }
  out = number;
  pos_ = p;
  return true;
}

// Appends the rest of a string up to its closing quote; plain bytes from `run` to `at` are known already.
// Escaped text is decoded into a buffer first: a token of \u escapes then costs one append, not one each.
template <class Out>
bool Parser::stringRest(const char* run, const char* at, Out& out) {
  constexpr std::size_t kLongestCodePoint = 4;
  constexpr std::size_t kLongestCopy = 16;  // longer plain runs are appended straight from the input
  char buffer[256];
  char* const limit = buffer + sizeof buffer - kLongestCopy - kLongestCodePoint;
  char* fill = buffer;
  const auto flush = [&] {
    out.append(buffer, std::size_t(fill - buffer));
    fill = buffer;
  };
  for (;;) {
    const auto plain = std::size_t(at - run);
    if (plain <= kLongestCopy && std::size_t(end_ - run) >= kLongestCopy) {
      std::memcpy(fill, run, kLongestCopy);  // of known size: two moves
      fill += plain;
    } else {
      flush();
      out.append(run, plain);
    }
    if (at == end_) return fail("json: unterminated string");
    if (*at == '"') {
      flush();
      pos_ = at + 1;
      return true;
    }
    if (*at != '\\') return fail("json: control char");
    do {
      if (fill > limit) flush();
      if (!escape(at, fill)) return false;
    } while (at != end_ && *at == '\\');
    if (fill > limit) flush();
    run = at;
    at = endOfPlainRun(run, end_);
  }
}

template bool Parser::stringRest(const char* run, const char* at, std::string& out);

// Decodes the escape whose backslash is at `at` to at most four bytes and moves both behind it.
bool Parser::escape(const char*& at, char*& out) {
  ++at;
  if (at == end_) return fail("json: escape");
  switch (*at++) {
    case '"': *out++ = '"'; return true;
    case '\\': *out++ = '\\'; return true;
    case '/': *out++ = '/'; return true;
    case 'b': *out++ = '\b'; return true;
    case 'f': *out++ = '\f'; return true;
    case 'n': *out++ = '\n'; return true;
    case 'r': *out++ = '\r'; return true;
    case 't': *out++ = '\t'; return true;
    case 'u': break;
    default: return fail("json: bad escape");
  }
  unsigned cp;
  if (!codeUnit(at, cp)) return fail("json: \\u");
  if (cp >= 0xDC00 && cp <= 0xDFFF) return fail("json: lone low surrogate");
  if (cp >= 0xD800 && cp <= 0xDBFF) {
    unsigned low;
    if (end_ - at < 6 || at[0] != '\\' || at[1] != 'u') return fail("json: surrogate pair");
    at += 2;
    if (!codeUnit(at, low) || low < 0xDC00 || low > 0xDFFF) return fail("json: surrogate pair");
    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
  }
  out += encodeUtf8(cp, out);
  return true;
}

// Four hexadecimal digits.
bool Parser::codeUnit(const char*& at, unsigned& unit) noexcept {
  if (end_ - at < 4) return false;
  int value = 0;
  int invalid = 0;  // negative as soon as one digit is not hexadecimal
  for (int k = 0; k < 4; ++k) {
    const int digit = kHex.values[static_cast<unsigned char>(at[k])];
    invalid |= digit;
    value = value * 16 + digit;
  }
  if (invalid < 0) return false;
  at += 4;
  unit = unsigned(value);
  return true;
}

}  // namespace detail
}  // namespace zel::json
