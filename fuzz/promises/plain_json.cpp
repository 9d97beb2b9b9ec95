#include "promises/plain_json.h"

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace zel::fuzz {
namespace {

using json::Kind;

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  const char* read(PlainJson& out) {
    if (!value(out, 0)) return error_;
    space();
    return atEnd() ? nullptr : "json: trailing data";
  }

 private:
  [[nodiscard]] bool atEnd() const { return pos_ == text_.size(); }
  [[nodiscard]] bool at(char c) const { return !atEnd() && text_[pos_] == c; }
  bool take(char c) {
    if (!at(c)) return false;
    ++pos_;
    return true;
  }
  bool fail(const char* message) {
    error_ = message;
    return false;
  }
  void space() {
    while (at(' ') || at('\t') || at('\n') || at('\r'))
      ++pos_;
  }

  bool value(PlainJson& out, int depth) {
    if (depth > 64) return fail("json: too deep");
    space();
    if (atEnd()) return fail("json: unexpected end");
    const char first = text_[pos_];
    if (first == '"') {
      out.kind = Kind::String;
      return string(out.text);
    }
    if (first == '{') return object(out, depth);
    if (first == '[') return array(out, depth);
    if (first == 't') return literal(out, "true", Kind::Bool);
    if (first == 'f') return literal(out, "false", Kind::Bool);
    if (first == 'n') return literal(out, "null", Kind::Null);
    if (first == '-' || (first >= '0' && first <= '9')) return number(out);
    return fail("json: unexpected char");
  }

  bool literal(PlainJson& out, std::string_view word, Kind kind) {
    if (text_.substr(pos_, word.size()) != word) return fail("json: bad literal");
    pos_ += word.size();
    out.kind = kind;
    out.boolean = word == "true";
    return true;
  }

  void digits(std::size_t& end) const {
    while (end < text_.size() && text_[end] >= '0' && text_[end] <= '9')
      ++end;
  }
  bool number(PlainJson& out) {
    out.kind = Kind::Number;
    const auto is = [&](std::size_t k, char c) { return k < text_.size() && text_[k] == c; };
    std::size_t end = pos_;
    if (is(end, '-')) ++end;
    digits(end);
    if (is(end, '.')) digits(++end);
    if (is(end, 'e') || is(end, 'E')) {
      ++end;
      if (is(end, '+') || is(end, '-')) ++end;
      digits(end);
    }
    if (end - pos_ >= 64) return fail("json: number too long");
    char token[64] = {};
    std::memcpy(token, text_.data() + pos_, end - pos_);
    char* stopped = nullptr;
    out.number = std::strtod(token, &stopped);
    if (std::size_t(stopped - token) != end - pos_) return fail("json: bad number");
    pos_ = end;
    return true;
  }

  static int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }
  bool fourDigits(std::uint32_t& unit) {
    if (text_.size() - pos_ < 4) return false;
    unit = 0;
    for (int k = 0; k < 4; ++k) {
      const int digit = hexDigit(text_[pos_++]);
      if (digit < 0) return false;
      unit = unit << 4 | std::uint32_t(digit);
    }
    return true;
  }
  bool codePoint(std::string& out) {
    std::uint32_t cp = 0;
    if (!fourDigits(cp)) return fail("json: \\u");
    if (cp >= 0xDC00 && cp <= 0xDFFF) return fail("json: lone low surrogate");
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      std::uint32_t low = 0;
      if (!take('\\') || !take('u') || !fourDigits(low) || low < 0xDC00 || low > 0xDFFF) {
        return fail("json: surrogate pair");
      }
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    }
    const auto tail = [&](unsigned shift) { out += char(0x80 | (cp >> shift & 0x3F)); };
    if (cp < 0x80) {
      out += char(cp);
    } else if (cp < 0x800) {
      out += char(0xC0 | cp >> 6);
      tail(0);
    } else if (cp < 0x10000) {
      out += char(0xE0 | cp >> 12);
      tail(6);
      tail(0);
    } else {
      out += char(0xF0 | cp >> 18);
      tail(12);
      tail(6);
      tail(0);
    }
    return true;
  }
  bool string(std::string& out) {
    static constexpr std::string_view kEscapes = "\"\\/bfnrt";
    static constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (!take('"')) return fail("json: string");
    for (;;) {
      if (atEnd()) return fail("json: unterminated string");
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return fail("json: control char");
      if (c != '\\') {
        out += c;
        continue;
      }
      if (atEnd()) return fail("json: escape");
      const char escape = text_[pos_++];
      if (escape == 'u') {
        if (!codePoint(out)) return false;
        continue;
      }
      const std::size_t k = kEscapes.find(escape);
      if (k == std::string_view::npos) return fail("json: bad escape");
      out += kMeanings[k];
    }
  }

  bool object(PlainJson& out, int depth) {
    out.kind = Kind::Object;
    ++pos_;
    space();
    if (take('}')) return true;
    for (;;) {
      space();
      if (!at('"')) return fail("json: object key");
      if (!string(out.keys.emplace_back())) return false;
      space();
      if (!take(':')) return fail("json: colon");
      if (!value(out.values.emplace_back(), depth + 1)) return false;
      space();
      if (take('}')) return true;
      if (!take(',')) return fail("json: comma");
    }
  }
  bool array(PlainJson& out, int depth) {
    out.kind = Kind::Array;
    ++pos_;
    space();
    if (take(']')) return true;
    for (;;) {
      out.items.emplace_back();
      if (!value(out.items.back(), depth + 1)) return false;
      space();
      if (take(']')) return true;
      if (!take(',')) return fail("json: comma");
    }
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  const char* error_ = nullptr;
};

}  // namespace

const char* readPlainJson(std::string_view text, PlainJson& out) { return Reader(text).read(out); }

bool sameTree(const PlainJson& expected, const json::Value& actual) {
  if (expected.kind != actual.kind || expected.values.size() != actual.members.size() ||
      expected.items.size() != actual.items.size()) {
    return false;
  }
  if (actual.isBool() && expected.boolean != actual.boolean) return false;
  if (actual.isNumber() &&
      std::bit_cast<std::uint64_t>(expected.number) != std::bit_cast<std::uint64_t>(actual.number)) {
    return false;
  }
  if (actual.isString() && expected.text != actual.text) return false;
  for (std::size_t k = 0; k < actual.members.size(); ++k) {
    if (expected.keys[k] != actual.members[k].first ||
        !sameTree(expected.values[k], actual.members[k].second)) {
      return false;
    }
  }
  for (std::size_t k = 0; k < actual.items.size(); ++k) {
    if (!sameTree(expected.items[k], actual.items[k])) return false;
  }
  return true;
}

}  // namespace zel::fuzz
