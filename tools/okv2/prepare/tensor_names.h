// Tensor names: from public spellings to those that the plug-in's name mapping (convert/name_mapping.h)
// knows.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zel::tool::prepare {

// Whether the mapping gives the name a meaning of its own, and does not just pass it, or its end, unchanged.
[[nodiscard]] bool mappingKnows(const std::string& name);

// The names as they should be, position by position. Wrappers' prefixes go where every name has them; others
// are changed where that makes the mapping know a name of the group.
[[nodiscard]] std::vector<std::string> bringToKnownNames(const std::vector<std::string>& published);

// Whether the tensor belongs to something beside the text model: a vision or audio tower, or what connects
// it.
[[nodiscard]] bool isOtherTower(std::string_view published);

// A name of at most 63 bytes that keeps the beginning of `name` and tells it from others by a hash of all of
// it.
[[nodiscard]] std::string shortenedName(const std::string& name);

}  // namespace zel::tool::prepare
