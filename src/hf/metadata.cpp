// Everything that is known about the model, as container metadata. The tables are in the order of emission.
#include "hf/hf_importer.h"

namespace zel {
namespace {

struct TextRow {
  const char* key;
  std::string HfImporter::*field;
};
constexpr TextRow kRawFiles[] = {
    {"hf.tokenizer_config", &HfImporter::tokenizerConfig},
    {"hf.special_tokens_map", &HfImporter::specialTokensMap},
    {"hf.generation_config", &HfImporter::generationConfig},
};

enum class When { Always, NotZero };
struct IntegerRow {
  const char* key;
  std::int64_t HfImporter::*field;
  When when;
};
constexpr IntegerRow kModelSizes[] = {
    {"model.hidden_size", &HfImporter::hiddenSize, When::NotZero},
    {"model.num_layers", &HfImporter::numLayers, When::NotZero},
    {"model.num_heads", &HfImporter::numHeads, When::NotZero},
    {"model.num_kv_heads", &HfImporter::numKvHeads, When::NotZero},
    {"model.intermediate_size", &HfImporter::intermediateSize, When::NotZero},
    {"model.vocab_size", &HfImporter::vocabSize, When::NotZero},
    {"model.context_length", &HfImporter::contextLength, When::NotZero},
};
constexpr IntegerRow kGemma4Sizes[] = {
    {"gemma4.block_count", &HfImporter::numLayers, When::Always},
    {"gemma4.embedding_length", &HfImporter::hiddenSize, When::Always},
    {"gemma4.attention.head_count", &HfImporter::numHeads, When::Always},
    {"gemma4.attention.head_count_kv", &HfImporter::numKvHeads, When::Always},
    {"gemma4.feed_forward_length", &HfImporter::intermediateSize, When::Always},
    {"gemma4.attention.key_length", &HfImporter::headDim, When::NotZero},
    {"gemma4.attention.key_length_swa", &HfImporter::headDimSwa, When::NotZero},
    {"gemma4.embedding_length_per_layer_input", &HfImporter::perLayerInputDim, When::NotZero},
    {"gemma4.attention.sliding_window", &HfImporter::slidingWindow, When::NotZero},
    {"gemma4.attention.shared_kv_layers", &HfImporter::sharedKvLayers, When::NotZero},
};

struct FloatRow {
  const char* key;
  float HfImporter::*field;
};
constexpr FloatRow kModelFloats[] = {
    {"model.rope_theta", &HfImporter::ropeTheta},
    {"model.rms_norm_eps", &HfImporter::rmsNormEps},
};

// Only contexts longer than this get a Gemma 4 spelling of their length.
constexpr std::uint64_t kGemma4MinContext = 256;
// The rope base of the sliding-window layers has no key in config.json: it is derived from the global one.
constexpr float kSwaRopeFactor = 0.01F;
constexpr float kSwaRopeFallback = 10000.0F;

bool applies(const IntegerRow& row, const HfImporter& importer) {
  return row.when == When::Always || importer.*row.field != 0;
}

Status addPositive(OKV2Writer& writer, const char* key, float value) {
  return value > 0 ? writer.addMetaF32(key, value) : Status();
}

Status applyGemma4(const HfImporter& importer, OKV2Writer& writer) {
  for (const IntegerRow& row : kGemma4Sizes) {
    if (applies(row, importer)) {
      ZEL_RETURN_IF_ERROR(writer.addMetaU32(row.key, std::uint32_t(importer.*row.field)));
    }
  }
  // Compared unsigned: a negative length counts as a long one.
  if (std::uint64_t(importer.contextLength) > kGemma4MinContext) {
    ZEL_RETURN_IF_ERROR(writer.addMetaU32("gemma4.context_length", std::uint32_t(importer.contextLength)));
  }
  ZEL_RETURN_IF_ERROR(addPositive(writer, "gemma4.rope.freq_base", importer.ropeTheta));
  const float swaBase = importer.ropeTheta > 0 ? importer.ropeTheta * kSwaRopeFactor : kSwaRopeFallback;
  ZEL_RETURN_IF_ERROR(writer.addMetaF32("gemma4.rope.freq_base_swa", swaBase));
  ZEL_RETURN_IF_ERROR(addPositive(writer, "gemma4.attention.layer_norm_rms_epsilon", importer.rmsNormEps));
  ZEL_RETURN_IF_ERROR(addPositive(writer, "gemma4.final_logit_softcapping", importer.logitSoftcap));
  if (!importer.swaPattern.empty()) {
    const std::vector<std::uint32_t> widened(importer.swaPattern.begin(), importer.swaPattern.end());
    ZEL_RETURN_IF_ERROR(writer.addMetaU32Array("gemma4.swa_pattern", widened.data(), widened.size()));
  }
  return {};
}

}  // namespace

Status HfImporter::applyMeta(OKV2Writer& writer) const {
  if (!opened) return invalidFormat("hf: not opened");
  ZEL_RETURN_IF_ERROR(writer.addMetaStr("general.architecture", arch));
  ZEL_RETURN_IF_ERROR(writer.addMetaStr("hf.source_format", "huggingface"));
  for (const TextRow& row : kRawFiles) {
    const std::string& text = this->*row.field;
    if (!text.empty()) ZEL_RETURN_IF_ERROR(writer.addMetaStr(row.key, text));
  }
  if (addBos >= 0) ZEL_RETURN_IF_ERROR(writer.addMetaU32("model.add_bos", std::uint32_t(addBos)));
  if (!name.empty()) ZEL_RETURN_IF_ERROR(writer.addMetaStr("general.name", name));
  for (const IntegerRow& row : kModelSizes) {
    if (applies(row, *this)) {
      ZEL_RETURN_IF_ERROR(writer.addMetaU64(row.key, std::uint64_t(this->*row.field)));
    }
  }
  for (const FloatRow& row : kModelFloats) {
    ZEL_RETURN_IF_ERROR(addPositive(writer, row.key, this->*row.field));
  }
  // The generic rows above stay: a Gemma 4 container carries both spellings.
  return arch == "gemma4" ? applyGemma4(*this, writer) : Status();
}

}  // namespace zel
