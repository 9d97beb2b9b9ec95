// JSON texts of a model directory as trees that can be changed and written again.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zel::tool::prepare {

using Json = nlohmann::ordered_json;

// A tree takes some sixty bytes a value, whatever its text takes. The largest published tokenizer.json has
// two million values.
inline constexpr std::size_t kMaxValues = std::size_t{1} << 22;

// How many values `text` has when it is JSON, empty arrays and objects counted twice. Costs one pass.
[[nodiscard]] std::size_t countValues(std::string_view text);

// Parses `text`. Members keep their order and their repetitions, and find() gives the first of a key, as in
// the plug-in's reader; a text that this reader refuses (nested deeper than its limit, say) is refused here
// too, before anything is built. False with the reason, and where, in `reason`.
[[nodiscard]] bool parseTree(std::string_view text, Json& out, std::string& reason);

// A number that Python's json module writes and JSON does not have.
struct LiftedNumber {
  std::size_t offset = 0;  // in the text as published
  std::string_view literal;
};

// Puts null in the place of NaN, Infinity and -Infinity outside of texts, and tells where. A text with more
// than kMaxLiftedNumbers of them stays as it is.
inline constexpr std::size_t kMaxLiftedNumbers = 1000;
[[nodiscard]] std::vector<LiftedNumber> liftPythonNumbers(std::string& text);

// As a file's content: compact, in UTF-8. Trees of parseTree() hold nothing that cannot be written.
[[nodiscard]] std::string textOfTree(const Json& tree);

// The first member of the key; null when there is none, or `object` is none.
[[nodiscard]] const Json* findMember(const Json& object, std::string_view key);
[[nodiscard]] Json* findMember(Json& object, std::string_view key);

// The members of an object by key, for many look-ups in an object of any size: the first of each key. Empty
// when `object` is none. Borrows the object, which must not change; it may be moved.
class MemberIndex {
 public:
  MemberIndex() = default;
  explicit MemberIndex(const Json& object);

  [[nodiscard]] const Json* find(std::string_view key) const;

 private:
  std::vector<const Json::object_t::value_type*> sorted_;
};

// Adds a member behind the others without looking for an equal key, which costs a pass over all of them.
Json& appendMember(Json& object, std::string key, Json value);

// Replaces the first member of the key, or adds one.
void setMember(Json& object, std::string_view key, Json value);

// The value as a 64-bit integer; nothing for other kinds, fractions and numbers out of that range.
[[nodiscard]] std::optional<std::int64_t> wholeNumber(const Json& value);
[[nodiscard]] std::optional<std::int64_t> wholeMember(const Json& object, std::string_view key);

// The first of a list that can be a token's id, a whole number of at least 0; null when there is none, or
// `list` is none.
[[nodiscard]] const Json* firstTokenId(const Json& list);

// The text of a member; null when it is absent or no text.
[[nodiscard]] const std::string* textMember(const Json& object, std::string_view key);

}  // namespace zel::tool::prepare
