// The JSON files of a model directory that describe the model, read once and changed in memory.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "okv2/prepare/json_tree.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/vocabulary.h"

namespace zel::tool::prepare {

// Larger texts are no description of a model: the largest published tokenizer.json files have some tens of
// megabytes. A tree takes up to twenty times the room of its text.
inline constexpr std::uint64_t kMaxTextBytes = std::uint64_t{128} << 20;

struct JsonFile {
  explicit JsonFile(std::string fileName) : name(std::move(fileName)) {}

  std::string name;
  bool exists = false;  // in the directory, or made here
  bool changed = false;
  std::string original;  // as read
  Json root = Json::object();

  // What shall be in the file.
  [[nodiscard]] std::string bytes() const { return changed ? root.dump(2) + "\n" : original; }
  // Sets a top-level member; makes the file when there is none.
  void set(std::string_view key, Json value) {
    setMember(root, key, std::move(value));
    exists = changed = true;
  }
};

struct ModelTexts {
  JsonFile config{"config.json"};
  JsonFile tokenizerConfig{"tokenizer_config.json"};
  JsonFile specialTokensMap{"special_tokens_map.json"};
  JsonFile generationConfig{"generation_config.json"};
};

// The regular file's content. False when there is none, or when it is empty, which counts the same. Throws
// Refused when it is longer than kMaxTextBytes or cannot be read. Never blocks.
[[nodiscard]] bool readText(const std::string& directory, const std::string& name, std::string& out);

// Reads the four files; only config.json must exist. Throws Refused when one is no JSON object.
[[nodiscard]] ModelTexts readModelTexts(const std::string& directory);

// The tokens that tokenizer_config.json ("added_tokens_decoder") adds when a tokenizer is loaded; in the
// order of the file.
[[nodiscard]] std::vector<AddedToken> addedTokensOf(const ModelTexts& texts);

// The description of the text model in config.json: the nested object that holds it, or null when config.json
// itself is the description. `path` gets its JSON path.
[[nodiscard]] const Json* nestedTextConfig(const Json& config, std::string& path);

}  // namespace zel::tool::prepare
