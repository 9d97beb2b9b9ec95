// What `okv2 explain` says about a model directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "okv2/explain/finding_table.h"

namespace zel::explain {

struct Finding {
  Id id = Id::ConfigMissing;
  std::string subject;  // the file, key or tensor; bytes as they are in the input
  std::string detail;   // where exactly and which value; may be empty
};

struct FileUse {
  std::string name;
  std::uint64_t bytes = 0;
  bool read = false;
  std::string use;  // what for, or why not
};

struct ConfigUse {
  std::string key;
  std::string value;  // as JSON, cut when long
  std::string field;  // what it becomes
};

struct TokenizerUse {
  std::string winner;  // "tokenizer.json", "tokenizer.model" or empty
  std::uint64_t tokens = 0, scores = 0, merges = 0, special = 0;
  std::uint64_t addedTokens = 0, addedOutside = 0;  // of tokenizer.json
  std::int32_t bos = -1, eos = -1, unk = -1, pad = -1;
};

struct TemplateUse {
  std::string source;  // "config.json", "tokenizer_config.json" or empty
  std::uint64_t bytes = 0;
  bool stored = false;
};

struct TypeUse {
  std::string type;  // in the weight files
  std::uint64_t tensors = 0;
  std::uint16_t code = 0;  // in the container
};

struct Explanation {
  std::string directory;
  std::vector<FileUse> files;  // by name
  std::string architecture;    // empty when config.json is of no use
  std::int64_t vocabSize = 0;  // as config.json gives it, or else the number of tokens
  std::vector<ConfigUse> config;
  TokenizerUse tokenizer;
  TemplateUse chatTemplate;
  std::vector<TypeUse> types;
  std::vector<Finding> findings;  // fatal ones first, then losses, then notes
  int importCode = 0;             // what an import would answer
  std::string importMessage;      // empty when it would succeed
  std::uint64_t tensors = 0;      // that it would write
  std::uint64_t bytes = 0;

  void add(Id id, std::string subject, std::string detail = "") {
    findings.push_back({id, std::move(subject), std::move(detail)});
  }
  [[nodiscard]] std::uint64_t count(Severity severity) const {
    std::uint64_t n = 0;
    for (const Finding& finding : findings)
      n += rowOf(finding.id).severity == severity;
    return n;
  }
};

// Reads everything that an import would read, headers only of weight files. Never fails: what is wrong
// becomes a finding.
[[nodiscard]] Explanation explainDirectory(const std::string& path);

// The row's advice with the subject, quoted for a shell, in its place.
[[nodiscard]] std::string adviceFor(const Finding& finding);

// docs/findings.md.
[[nodiscard]] std::string findingsMarkdown();

}  // namespace zel::explain
