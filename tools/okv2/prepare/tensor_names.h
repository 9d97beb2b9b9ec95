// Tensor names: from public spellings to those that the plug-in's name mapping (convert/name_mapping.h)
// knows.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/prepare/model_kind.h"

namespace zel::tool::prepare {

// Whether the mapping gives the name a meaning of its own, and does not just pass it, or its end, unchanged.
[[nodiscard]] bool mappingKnows(const std::string& name);

// Whether a name in the container is one that it has a meaning for, and not just what was published.
[[nodiscard]] bool isContainerName(std::string_view stored);

// Whether the name is that of a fused projection, of attention or feed-forward, that no import cuts.
[[nodiscard]] bool isFusedName(std::string_view name);

enum class NameReason : std::uint8_t {
  Same,     // it is as published
  Known,    // the mapping knows it
  Group,    // names of its group are known by the same change of prefix
  Wrapper,  // it lost the prefix of a wrapper, and is not known
  Own,      // it is the container's own, because the mapping would give it that of another tensor
};

struct KnownName {
  std::string name;
  NameReason reason = NameReason::Same;
};

// The names as they should be, position by position. Wrappers' prefixes go where every name has them; others
// are changed where that makes the mapping know a name of the group. Then come the spellings of tensors that
// `kind` has.
[[nodiscard]] std::vector<KnownName> bringToKnownNames(const std::vector<std::string>& published,
                                                       const ModelKind& kind);

// One sentence about a reason other than Same.
[[nodiscard]] const char* nameReasonText(NameReason reason) noexcept;

// Whether the tensor belongs to something beside the text model: a vision or audio tower, or what connects
// it.
[[nodiscard]] bool isOtherTower(std::string_view published);

// A name of at most 63 bytes that keeps the beginning of `name` and tells it from others by a hash of all of
// it.
[[nodiscard]] std::string shortenedName(const std::string& name);

}  // namespace zel::tool::prepare
