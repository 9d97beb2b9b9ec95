// What config.json says about a model, as far as the names and parts of its tensors depend on it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zel::tool::prepare {

struct ModelKind {
  std::string architecture;        // as HfImporter names it; empty when the configuration does not tell
  std::vector<std::string> types;  // model types and classes, of the whole and of its text model
  std::uint64_t heads = 0;         // of attention; 0 when not given
  bool multiQuery = true;          // of GPTBigCode, whose GPTBigCodeConfig has this default
  std::uint64_t width = 0;         // of the hidden states; 0 when not given

  bool normsFirst = true;  // of OPT, whose OPTConfig has this default

  // Whether a type begins with one of `families`.
  [[nodiscard]] bool isOneOf(std::span<const std::string_view> families) const;
  // Whether a type is one of `names`, to the letter.
  [[nodiscard]] bool isExactly(std::span<const std::string_view> names) const;
};

// Of the config.json in `dir`; what it does not say, or says in no readable way, keeps its default.
[[nodiscard]] ModelKind readModelKind(const std::string& dir);

}  // namespace zel::tool::prepare
