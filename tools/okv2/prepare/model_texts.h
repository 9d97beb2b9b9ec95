// The JSON files of a model directory that describe the model, read once; what shall change is kept beside
// them.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "okv2/explain/explanation.h"
#include "okv2/prepare/json_tree.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/vocabulary.h"

namespace zel::tool::prepare {

// Larger texts are no description of a model: the largest published tokenizer.json files have some tens of
// megabytes. A tree takes up to twenty times the room of its text.
inline constexpr std::uint64_t kMaxTextBytes = std::uint64_t{128} << 20;
// The same of every other file here. The largest published ones list the settings of every packed matrix.
inline constexpr std::uint64_t kMaxConfigBytes = std::uint64_t{8} << 20;

// Throws Refused when a text is JSON and has more than kMaxValues values.
void refuseManyValues(const char* file, std::string_view text);

// One file, as read and as it shall be: a list of changed top-level members beside the tree as published.
// What is not changed is written as its own bytes, so numbers that no double holds stay what they are.
class JsonFile {
 public:
  explicit JsonFile(const char* fileName) : name(fileName) {}
  JsonFile(JsonFile&&) = default;  // not copied: the index points into the tree
  JsonFile& operator=(JsonFile&&) = default;

  // Takes the file's content, a JSON text. False, with the reason, when it is none.
  [[nodiscard]] bool read(std::string text, std::string& reason);

  [[nodiscard]] const Json& published() const { return root_; }  // as read; lives as long as this
  // A top-level member as it shall be; null when there is none. Dies with a change of the same key.
  [[nodiscard]] const Json* find(std::string_view key) const;
  // Sets a top-level member; makes the file when there is none.
  void set(std::string_view key, Json value);
  // Removes every top-level member of the key.
  void remove(std::string_view key);
  // What shall be in the file.
  [[nodiscard]] std::string bytes() const;

  const char* name;     // a literal
  bool exists = false;  // in the directory, or made here

 private:
  struct Edit {
    std::string key;
    std::optional<Json> value;  // nothing: removed
  };
  [[nodiscard]] const Edit* editOf(std::string_view key) const;
  void edit(std::string_view key, std::optional<Json> value);

  std::string original_;
  Json root_ = Json::object();
  MemberIndex index_;
  std::deque<Edit> edits_;  // few; those that are there keep their addresses when one is added
};

struct ModelTexts {
  // What could not be mended, where the prepared directory does not show it.
  std::vector<explain::Finding> losses;
  JsonFile config{"config.json"};
  JsonFile tokenizerConfig{"tokenizer_config.json"};
  JsonFile specialTokensMap{"special_tokens_map.json"};
  JsonFile generationConfig{"generation_config.json"};
  JsonFile addedTokens{
      "added_tokens.json"};  // only where tokenizer_config.json does not list them; never written
};

// The regular file's content. False when there is none, or when it is empty, which counts the same. Throws
// Refused when it is longer than `maxBytes` or cannot be read. Never blocks.
[[nodiscard]] bool readText(const std::string& directory, const std::string& name, std::uint64_t maxBytes,
                            std::string& out);

// Reads the files; only config.json must exist. Numbers that only Python writes become null, which `changes`
// tells. Throws Refused when one is no JSON object, or longer than kMaxConfigBytes.
[[nodiscard]] ModelTexts readModelTexts(const std::string& directory, Changes& changes);

// Reads another file of the directory, which need not exist. Throws as readModelTexts() does.
void readSideFile(const std::string& directory, JsonFile& file, Changes& changes);

// A token that tokenizer_config.json or special_tokens_map.json names, by the member "bos_token", say: a
// text, or an object with the text as "content". Null when it is absent.
[[nodiscard]] const std::string* tokenText(const JsonFile& file, std::string_view member);

// The file that names a special token, as the public `transformers` library has it: tokenizer_config.json
// alone where it has "added_tokens_decoder"; else special_tokens_map.json comes first. Null when none names
// it.
[[nodiscard]] const JsonFile* fileThatNames(const ModelTexts& texts, std::string_view member);

// The tokens that are added when a tokenizer is loaded, as the public `transformers` library finds them. In
// the order of the file those with an id: by tokenizer_config.json ("added_tokens_decoder"), or else by
// added_tokens.json, of which those are special that have a part such as "pad_token". Behind them, without
// an id, the texts that have a part; they are added only where the tokenizer does not know them.
// A token whose id is none that any token could have becomes one of the losses, unless its text has a part.
// Throws Refused when there are more than kMaxAddedTokens.
[[nodiscard]] std::vector<AddedToken> addedTokensOf(ModelTexts& texts);

// The description of the text model in config.json: the nested object that holds it, or null when config.json
// itself is the description. `path` gets its JSON path.
[[nodiscard]] const Json* nestedTextConfig(const Json& config, std::string& path);

}  // namespace zel::tool::prepare
