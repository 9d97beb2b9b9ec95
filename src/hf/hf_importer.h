// Reads the description of a HuggingFace model directory: config.json, the tokenizer and the side files.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/okv2_writer.h"
#include "container/status.h"
#include "container/tokenizer_data.h"
#include "hf/json.h"

namespace zel {

// Opened once, then read through its fields. Missing configuration keys leave 0; what 0 means is the
// consumer's to decide. Not thread-safe; separate importers are independent.
class HfImporter {
 public:
  std::string tokenizerConfig;   // raw text of tokenizer_config.json
  std::string specialTokensMap;  // raw text of special_tokens_map.json
  std::string generationConfig;  // raw text of generation_config.json
  std::int32_t addBos = -1;      // "add_bos_token" as 1 or 0; -1 when not given; open() does not reset it
  std::string arch;              // after mapping class names and spellings to short names
  std::string name;
  std::int64_t hiddenSize = 0;
  std::int64_t numLayers = 0;
  std::int64_t numHeads = 0;
  std::int64_t numKvHeads = 0;
  std::int64_t intermediateSize = 0;
  std::int64_t vocabSize = 0;  // "vocab_size", or else the number of tokens
  std::int64_t contextLength = 0;
  float ropeTheta = 0;
  float rmsNormEps = 0;
  float logitSoftcap = 0;
  std::int64_t headDim = 0;
  std::int64_t headDimSwa = 0;
  std::int64_t perLayerInputDim = 0;
  std::int64_t sharedKvLayers = 0;
  std::int64_t slidingWindow = 0;
  std::vector<std::uint8_t> swaPattern;
  bool hasConfig = false;
  TokenizerData tokenizer;
  json::Value config;  // the whole of config.json
  bool opened = false;

  // Reads the directory `dir` (file names are appended after a "/"). Only config.json is required: a
  // missing or bad tokenizer leaves `tokenizer` empty, and side files are optional.
  //   InvalidFormat  config.json is missing, unreadable or empty, or names no model type
  //   Corrupted      config.json is not JSON, or not an object
  Status open(const std::string& dir);

  // Adds every metadata item to `writer`, in the order of docs/metadata.md.
  //   InvalidFormat "hf: not opened"  before a successful open()
  Status applyMeta(OKV2Writer& writer) const;

  // The steps of open(), public so that each can be tested alone. The tokenizer readers leave `tokenizer`
  // as it was when they fail, and read special ids and the chat template from `config`.
  Status parseConfig(const std::string& dir);
  Status parseTokenizerJson(const std::string& path);
  Status parseTokenizerModel(const std::string& path);
  void parseExtras(const std::string& dir);
};

// The tokenizer readers as functions of bytes; `config` is the root of config.json (any kind of value).
// Messages: "hf: bad tokenizer.json", "hf: bad tokenizer.model (proto parse)" and the like, all Corrupted.
Status readTokenizerJson(std::string_view text, const json::Value& config, TokenizerData& out);
Status readTokenizerModel(std::string_view bytes, const json::Value& config, TokenizerData& out);

}  // namespace zel
