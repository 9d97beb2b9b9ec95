// JSON texts of a model directory as trees that can be changed and written again.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace zel::tool::prepare {

using Json = nlohmann::ordered_json;

// Parses `text`. Members keep their order and their repetitions, and find() gives the first of a key, as in
// the plug-in's reader; a text that this reader refuses (nested deeper than its limit, say) is refused here
// too, before anything is built. False with the reason, and where, in `reason`.
[[nodiscard]] bool parseTree(std::string_view text, Json& out, std::string& reason);

// As a file's content: compact, in UTF-8. Trees of parseTree() hold nothing that cannot be written.
[[nodiscard]] std::string textOfTree(const Json& tree);

// The first member of the key; null when there is none, or `object` is none.
[[nodiscard]] const Json* findMember(const Json& object, std::string_view key);
[[nodiscard]] Json* findMember(Json& object, std::string_view key);

// Adds a member behind the others without looking for an equal key, which costs a pass over all of them.
Json& appendMember(Json& object, std::string key, Json value);

// Replaces the first member of the key, or adds one.
void setMember(Json& object, std::string_view key, Json value);

// Removes every member of the key.
void removeMember(Json& object, std::string_view key);

// The value as a 64-bit integer; nothing for other kinds, fractions and numbers out of that range.
[[nodiscard]] std::optional<std::int64_t> wholeNumber(const Json& value);
[[nodiscard]] std::optional<std::int64_t> wholeMember(const Json& object, std::string_view key);

// The text of a member; null when it is absent or no text.
[[nodiscard]] const std::string* textMember(const Json& object, std::string_view key);

}  // namespace zel::tool::prepare
