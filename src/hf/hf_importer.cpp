#include "hf/hf_importer.h"

namespace zel {

Status HfImporter::open(const std::string& dir) {
  const std::int32_t keptAddBos = addBos;
  *this = HfImporter();
  addBos = keptAddBos;

  ZEL_RETURN_IF_ERROR(parseConfig(dir));
  // A model without a usable tokenizer is still a model: these failures stay silent.
  if (!parseTokenizerJson(dir + "/tokenizer.json").ok() &&
      !parseTokenizerModel(dir + "/tokenizer.model").ok()) {
    tokenizer = TokenizerData();
  }
  if (vocabSize == 0 && !tokenizer.tokens.empty()) vocabSize = std::int64_t(tokenizer.tokens.size());
  parseExtras(dir);
  opened = true;
  return {};
}

}  // namespace zel
