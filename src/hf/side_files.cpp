// The optional side files: kept as raw text, two settings taken out of tokenizer_config.json.
#include "hf/hf_importer.h"
#include "hf/read_file.h"

namespace zel {
namespace {

struct SideFile {
  const char* name;
  std::string HfImporter::*field;
};
constexpr SideFile kSideFiles[] = {
    {"tokenizer_config.json", &HfImporter::tokenizerConfig},
    {"special_tokens_map.json", &HfImporter::specialTokensMap},
    {"generation_config.json", &HfImporter::generationConfig},
};

}  // namespace

void HfImporter::parseExtras(const std::string& dir) {
  for (const SideFile& file : kSideFiles) {
    std::vector<std::uint8_t> bytes;
    if (readFile(dir + "/" + file.name, bytes)) (this->*file.field).assign(bytes.begin(), bytes.end());
  }
  if (tokenizerConfig.empty()) return;

  json::Value root;
  // Bad JSON is no failure: the raw text travels on all the same.
  if (!json::parse(tokenizerConfig.data(), tokenizerConfig.size(), root).ok()) return;
  // A template that config.json gave wins; an array of named templates is not a text.
  const json::Value* chat = root.get("chat_template");
  if (chat != nullptr && chat->isString() && tokenizer.chatTemplate.empty()) {
    tokenizer.chatTemplate = chat->text;
  }
  if (const json::Value* bos = root.get("add_bos_token"); bos != nullptr) {
    if (bos->isBool()) addBos = bos->boolean ? 1 : 0;
    if (bos->isNumber()) addBos = bos->number > 0.0 ? 1 : 0;
  }
}

}  // namespace zel
