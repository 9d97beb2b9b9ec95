// The steps of explainDirectory(), one for each concern. Each adds to the explanation.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>

#include "okv2/explain/disguise.h"
#include "okv2/explain/explanation.h"
#include "okv2/explain/tokenizer_walk.h"
#include "okv2/plan/import_plan.h"

namespace zel::explain {

// The directory, and how its entries look.
struct Directory {
  std::string path;
  std::map<std::string, FileLook> files;  // by name; folders included

  [[nodiscard]] bool has(const std::string& name) const { return files.count(name) != 0; }
  // Whether any name ends in ".safetensors": an import then looks at no other weights.
  [[nodiscard]] bool hasSafetensors() const;
  [[nodiscard]] std::string pathOf(const std::string& name) const { return path + "/" + name; }
};

void explainConfig(const Directory& directory, const plan::ImportPlan& plan, Explanation& out);
void explainTokenizer(const Directory& directory, const plan::ImportPlan& plan, Explanation& out);
// Of the tokenizer whose tokens are `data`'s; `walk` is null when it is not a tokenizer.json.
void explainAddedTokens(const Directory& directory, const TokenizerData& data, const TokenizerJsonWalk* walk,
                        Explanation& out);
// `modelUnk` is what the tokenizer.json itself names as the unknown token, or empty.
void explainSpecialTokens(const Directory& directory, const HfImporter& model, const std::string& modelUnk,
                          Explanation& out);
void explainTemplate(const Directory& directory, const plan::ImportPlan& plan, Explanation& out);
void explainFiles(const Directory& directory, const plan::ImportPlan& plan, Explanation& out);
void explainWeights(const Directory& directory, const plan::ImportPlan& plan, Explanation& out);

// What the weight files hold, those that could be opened.
struct OpenedWeights {
  std::set<std::string> files;
  std::unordered_set<std::string> tensors;  // by the names in the files
};

// Compares what an index file says with the shards that are there.
void explainIndex(const Directory& directory, const std::string& indexName, const OpenedWeights& opened,
                  Explanation& out);

// The file's bytes; none when an import would count it as absent.
[[nodiscard]] std::string contentOf(const std::string& path);

// A JSON value as one line of at most about `maxBytes` bytes.
[[nodiscard]] std::string shortJson(const json::Value& value, std::size_t maxBytes = 60);

// "a text", "an array" and so on.
[[nodiscard]] const char* kindName(json::Kind kind);

}  // namespace zel::explain
