// A small, strict JSON reader (grammar: RFC 8259, with the number leniencies listed in
// docs/compatibility.md). parse() builds a tree of Values; the large inputs (a vocabulary, a safetensors
// header) are walked with the same grammar by json_parser.h and never become a tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "container/status.h"

namespace zel::json {

// The numbers are compared by callers: never reorder.
enum class Kind : std::uint8_t { Null = 0, Bool = 1, Number = 2, String = 3, Object = 4, Array = 5 };

// One node of the tree; owns its children. Only the field that `kind` names is meaningful. Members keep
// document order and duplicates; get() finds the first.
struct Value {
  using Member = std::pair<std::string, Value>;

  Kind kind = Kind::Null;
  bool boolean = false;
  double number = 0;
  std::string text;  // decoded UTF-8, not validated; may hold NUL bytes
  std::vector<Member> members;
  std::vector<Value> items;

  static const std::string kEmpty;

  Value() noexcept = default;
  Value(Value&&) noexcept = default;
  Value& operator=(Value&&) noexcept = default;
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
  ~Value() = default;  // recursive, but never deeper than the parser's nesting limit

  // The first member whose key is exactly `key`; null when there is none or this is not an Object.
  [[nodiscard]] const Value* get(const char* key) const noexcept;

  [[nodiscard]] bool isBool() const noexcept { return kind == Kind::Bool; }
  [[nodiscard]] bool isNumber() const noexcept { return kind == Kind::Number; }
  [[nodiscard]] bool isString() const noexcept { return kind == Kind::String; }
  [[nodiscard]] bool isObject() const noexcept { return kind == Kind::Object; }
  [[nodiscard]] bool isArray() const noexcept { return kind == Kind::Array; }

  // The text of a String, otherwise kEmpty: callers need not test the kind first.
  [[nodiscard]] const std::string& str() const noexcept { return isString() ? text : kEmpty; }
};

// Parses the `size` bytes at `data` (no terminator needed), which the caller keeps for the call.
// Replaces `out`. Every failure is InvalidFormat with a text that begins "json: "; `out` then holds nothing
// of use.
Status parse(const char* data, std::size_t size, Value& out);

// True, with `out` set, when `number` converted to a signed 64-bit integer and back is the same number:
// false for fractions, NaN, infinities and anything outside the 64-bit range.
[[nodiscard]] bool toInt64(double number, std::int64_t& out) noexcept;

}  // namespace zel::json
