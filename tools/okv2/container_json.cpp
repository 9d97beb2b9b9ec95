#include "okv2/container_json.h"

#include <algorithm>
#include <cmath>

#include "okv2/container_text.h"

namespace zel::tool {
namespace {

using okv2::MetaType;

Json valueOf(const MetaView& item) {
  switch (item.type) {
    case MetaType::U32: return item.u32();
    case MetaType::I32: return item.i32();
    // JSON has no word for infinities and not-a-number.
    case MetaType::F32:
      return std::isfinite(item.f32()) ? Json(item.f32()) : Json(std::to_string(item.f32()));
    case MetaType::U64: return item.u64();
    case MetaType::Str: return item.value;
    case MetaType::U32Array: {
      Json out = Json::array();
      for (std::size_t k = 0; k < item.arraySize(); ++k)
        out.push_back(item.arrayItem(k));
      return out;
    }
  }
  return nullptr;
}

Json textsOf(const std::vector<std::string_view>& texts) {
  Json out = Json::array();
  for (const std::string_view text : texts)
    out.push_back(text);
  return out;
}

Json tokenizerJson(const TokenizerView& tokenizer) {
  return {{"tokens", textsOf(tokenizer.tokens)}, {"scores", tokenizer.scoreCount()},
          {"types", tokenizer.typeCount()},      {"merges", textsOf(tokenizer.merges)},
          {"bos", tokenizer.specialIds[0]},      {"eos", tokenizer.specialIds[1]},
          {"unk", tokenizer.specialIds[2]},      {"pad", tokenizer.specialIds[3]},
          {"add_bos", tokenizer.addBos != 0}};
}

}  // namespace

Json metaJson(const MetaView& item) {
  return {{"key", item.key}, {"type", describe(item).first}, {"value", valueOf(item)}};
}

Json tensorJson(const ContainerView& view, const TensorView& tensor) {
  Json shape = Json::array();
  for (std::uint16_t k = 0; k < std::min<std::uint16_t>(tensor.ndim, okv2::kMaxDims); ++k)
    shape.push_back(tensor.dims[k]);
  return {{"name", tensor.name},
          {"name_bytes", tensor.fullNameBytes},
          {"type", dtypeName(tensor.dtype)},
          {"shape", std::move(shape)},
          {"bytes", tensor.size},
          {"offset", view.section(okv2::SectionType::Weights).offset + tensor.dataOffset}};
}

Json containerJson(const ContainerView& view, const JsonParts& parts) {
  Json out = newDocument("list");
  if (parts.head) {
    out["bytes"] = view.file.size();
    out["model"] = {{"architecture_id", view.archId},
                    {"hidden_size", view.hiddenSize},
                    {"layers", view.numLayers},
                    {"vocab_size", view.vocabSize}};
    out["sections"] = Json::array();
    for (const okv2::SectionType type : okv2::kFileOrder) {
      const SectionView& section = view.section(type);
      out["sections"].push_back(
          {{"name", sectionName(type)}, {"offset", section.offset}, {"size", section.size}});
    }
    out["chat_template"] = view.chatTemplate;
  }
  if (parts.metadata) {
    out["metadata"] = Json::array();
    for (const MetaView& item : view.metadata)
      out["metadata"].push_back(metaJson(item));
  }
  if (parts.tokenizer) out["tokenizer"] = tokenizerJson(view.tokenizer);
  if (parts.tensors) {
    out["tensors"] = Json::array();
    for (const TensorView& tensor : view.tensors)
      out["tensors"].push_back(tensorJson(view, tensor));
  }
  return out;
}

Json findingsJson(const Findings& findings) {
  Json out = Json::array();
  for (const Finding& finding : findings.items()) {
    out.push_back({{"severity", finding.isError ? "error" : "note"},
                   {"offset", finding.offset},
                   {"text", finding.text}});
  }
  return out;
}

}  // namespace zel::tool
