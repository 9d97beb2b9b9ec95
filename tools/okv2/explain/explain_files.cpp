// Every entry of the directory: read or ignored, and whether it is what its name says.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

#include "okv2/explain/steps.h"
#include "okv2/plan/weight_files.h"

namespace zel::explain {
namespace {

struct KnownFile {
  std::string_view name;
  const char* use;
};
constexpr KnownFile kDescriptionFiles[] = {
    {"config.json", "the model's shape and architecture"},
    {"tokenizer.json", "the tokenizer"},
    {"tokenizer.model", "the tokenizer, when tokenizer.json cannot be read"},
    {"tokenizer_config.json", "kept as text; chat template and add_bos_token are taken from it"},
    {"special_tokens_map.json", "kept as text"},
    {"generation_config.json", "kept as text"},
};
constexpr KnownFile kIgnoredFiles[] = {
    {"chat_template.jinja", "a chat template is taken from config.json or tokenizer_config.json only"},
    {"model.safetensors.index.json", "the shards are what the directory holds"},
    {"pytorch_model.bin.index.json", "sharded PyTorch checkpoints are not read"},
};
constexpr std::string_view kOtherTokenizerFiles[] = {
    "vocab.json",         "merges.txt",    "vocab.txt",
    "added_tokens.json",  "spiece.model",  "sentencepiece.bpe.model",
    "tokenizer.tiktoken", "qwen.tiktoken", "tekken.json",
    "source.spm",         "target.spm",
};
constexpr std::string_view kOtherWeightSuffixes[] = {
    ".pth", ".pt", ".ckpt", ".h5", ".msgpack", ".onnx", ".npz", ".tflite", ".bin",
};

bool isShardOfPyTorch(std::string_view name) {
  return name.substr(0, 14) == "pytorch_model-" && name.ends_with(".bin");
}

// Files that were meant to be read, other than weights.
bool isDescription(std::string_view name) {
  return std::any_of(std::begin(kDescriptionFiles), std::end(kDescriptionFiles),
                     [&](const KnownFile& known) { return known.name == name; });
}

void reportDisguise(const std::string& name, const FileLook& look, bool isWeights, Explanation& out) {
  const std::string size = fmt::format("{} bytes", look.bytes);
  switch (look.disguise) {
    case Disguise::None: return;
    case Disguise::Empty: out.add(Id::FileEmpty, name); return;
    case Disguise::NotRegular:
      out.add(!look.isDenied ? Id::FileNotRegular
              : isWeights    ? Id::WeightsNoPermission
                             : Id::FileNoPermission,
              name);
      return;
    case Disguise::LfsPointer: {
      const std::size_t at = look.head.find("\nsize ");
      const std::string real =
          at == std::string::npos
              ? ""
              : ", the content has " + look.head.substr(at + 6, look.head.find('\n', at + 6) - at - 6);
      out.add(isWeights ? Id::WeightsLfsPointer : Id::FileLfsPointer, name, size + real);
      return;
    }
    case Disguise::LinkText:
      out.add(isWeights ? Id::WeightsLinkText : Id::FileLinkText, name, look.head);
      return;
    case Disguise::WebPage: out.add(isWeights ? Id::WeightsWebPage : Id::FileWebPage, name, size); return;
  }
}

// Files that only this command reads, to compare them with the shards.
bool isIndexInUse(std::string_view name, bool haveSafetensors) {
  return name == "model.safetensors.index.json" ||
         (name == "pytorch_model.bin.index.json" && !haveSafetensors);
}

// A side file that is kept as text, whatever it says.
void reportBrokenText(const Directory& directory, const std::string& name, Explanation& out) {
  const char* item = name == "special_tokens_map.json"  ? "hf.special_tokens_map"
                     : name == "generation_config.json" ? "hf.generation_config"
                                                        : nullptr;
  if (item == nullptr) return;
  const std::string text = contentOf(directory.pathOf(name));
  if (text.empty()) return;
  const JsonFault fault = jsonFaultOf(text);
  if (fault.message.empty()) return;
  out.add(Id::SideTextNotJson, name,
          fmt::format("byte {}: {}; {} holds the text as it is", fault.offset, fault.message, item));
  if (fault.cutShort) out.add(Id::FilePartial, name, "the text ends in the middle");
}

FileUse describe(const std::string& name, const FileLook& look, bool isWeights, bool hasConfig,
                 const TokenizerUse& tokenizer) {
  FileUse use{name, look.bytes, false, "not read"};
  if (look.isDenied) {
    use.use = "not read: permission is denied";
    return use;
  }
  if (!hasConfig && name != "config.json" && (isWeights || isDescription(name))) {
    use.use = "not read: an import ends at config.json";
    return use;
  }
  if (isWeights) {
    use.read = true;
    use.use = "weights";
    return use;
  }
  for (const KnownFile& known : kDescriptionFiles) {
    if (known.name != name) continue;
    use.read = look.disguise != Disguise::Empty && look.disguise != Disguise::NotRegular;
    use.use = known.use;
    if (name == "tokenizer.model" && tokenizer.winner == "tokenizer.json") {
      use.read = false;
      use.use = "tokenizer.json comes first";
    }
    return use;
  }
  for (const KnownFile& known : kIgnoredFiles) {
    if (known.name == name) use.use = known.use;
  }
  if (look.disguise == Disguise::NotRegular) use.use = "not a regular file";
  return use;
}

void reportIgnored(const Directory& directory, bool haveSafetensors, Explanation& out) {
  std::string tokenizers;
  for (const auto& [name, look] : directory.files) {
    if (std::find(std::begin(kOtherTokenizerFiles), std::end(kOtherTokenizerFiles), name) !=
        std::end(kOtherTokenizerFiles)) {
      tokenizers += (tokenizers.empty() ? "" : ", ") + name;
    } else if (isPartName(name)) {
      out.add(Id::FilePartialBeside, name, fmt::format("{} bytes", look.bytes));
    } else if (!plan::isSafetensorsName(name) && plan::isSafetensorsName(lowerCase(name))) {
      out.add(Id::WeightsSuffixCase, name);
    } else if (name == "pytorch_model.bin") {
      if (haveSafetensors) out.add(Id::WeightsBinIgnored, name);
    } else if (isShardOfPyTorch(name)) {
      continue;  // reported once, for all shards
    } else if (std::any_of(std::begin(kOtherWeightSuffixes), std::end(kOtherWeightSuffixes),
                           [&file = name](std::string_view suffix) { return file.ends_with(suffix); }) &&
               name != "training_args.bin" && look.disguise != Disguise::NotRegular) {
      out.add(Id::WeightsOtherFormat, name, fmt::format("{} bytes", look.bytes));
    }
  }
  if (!tokenizers.empty()) out.add(Id::TokenizerFilesIgnored, "tokenizer files", tokenizers);
}

}  // namespace

void explainFiles(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  const bool haveSafetensors = directory.hasSafetensors();
  for (const auto& [name, look] : directory.files) {
    const bool isWeights =
        plan::isSafetensorsName(name) || (!haveSafetensors && name == "pytorch_model.bin" &&
                                          (look.disguise != Disguise::NotRegular || look.isDenied));
    const bool isCheckpoint = name == "pytorch_model.bin" || isShardOfPyTorch(name);
    const bool isPassedOver = name == "tokenizer.model" && out.tokenizer.winner == "tokenizer.json";
    if (isWeights || (isDescription(name) && !isPassedOver) || (isCheckpoint && !haveSafetensors) ||
        isIndexInUse(name, haveSafetensors)) {
      reportDisguise(name, look, isWeights, out);
    }
    if (look.disguise == Disguise::None && plan.model.hasConfig) reportBrokenText(directory, name, out);
    out.files.push_back(describe(name, look, isWeights, plan.model.hasConfig, out.tokenizer));
  }
  reportIgnored(directory, haveSafetensors, out);
}

}  // namespace zel::explain
