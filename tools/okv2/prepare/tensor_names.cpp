#include "okv2/prepare/tensor_names.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

#include "container/okv2_format.h"
#include "convert/name_mapping.h"

namespace zel::tool::prepare {
namespace {

struct Wrapper {
  std::string_view prefix;
  std::string_view source;
};
constexpr Wrapper kWrappers[] = {
    {"module.", "torch.nn.DataParallel and DistributedDataParallel, attribute `module`"},
    {"_orig_mod.", "torch/_dynamo/eval_frame.py, OptimizedModule"},
    {"base_model.model.", "PEFT, docs: checkpoint format"},
};

struct PrefixChange {
  std::string_view from;
  std::string_view to;
};
// The first change decides: the rule holds where it makes the mapping know a name. All of its changes are
// then made.
struct PrefixRule {
  PrefixChange changes[3];
  std::string_view source;
};
constexpr PrefixRule kPrefixRules[] = {
    {{{"model.language_model.", "model."}, {}, {}},
     "transformers, modeling_gemma3.py, modeling_llava.py: Model.language_model inside "
     "ForConditionalGeneration"},
    {{{"language_model.model.", "model."}, {"language_model.lm_head.", "lm_head."}, {}},
     "llava-hf and Gemma 3 checkpoints; transformers, modeling_llava.py, _checkpoint_conversion_mapping"},
    {{{"model.text_model.", "model."}, {}, {}},
     "transformers, modeling_idefics3.py: Idefics3Model.text_model"},
    {{{"thinker.model.", "model."}, {"thinker.lm_head.", "lm_head."}, {}},
     "transformers, modeling_qwen2_5_omni.py: thinker"},
    {{{"model.model.", "model."}, {"model.lm_head.", "lm_head."}, {}},
     "PyTorch Lightning: a LightningModule that keeps the network as `model`"},
    {{{"h.", "transformer.h."}, {"wte.", "transformer.wte."}, {"ln_f.", "transformer.ln_f."}},
     "transformers, modeling_gpt2.py: GPT2Model saved without its head"},
    {{{"layers.", "model.layers."}, {"embed_tokens.", "model.embed_tokens."}, {"norm.", "model.norm."}},
     "transformers, modeling_llama.py: LlamaModel saved without its head"},
};

// As published, and behind "model." as newer checkpoints have them.
constexpr std::string_view kOtherTowers[] = {
    "vision_tower.",           // transformers, modeling_llava.py, modeling_gemma3.py
    "vision_model.",           // transformers, modeling_mllama.py, modeling_idefics3.py
    "vision_embed_tokens.",    // Phi-3-vision
    "visual.",                 // transformers, modeling_qwen2_vl.py
    "multi_modal_projector.",  // transformers, modeling_llava.py
    "mm_projector.",           // LLaVA's own checkpoints
    "image_newline",           // transformers, modeling_llava_next.py
    "connector.",              // transformers, modeling_idefics3.py
    "embed_vision.",           // transformers, modeling_gemma3n.py
    "embed_audio.",            // transformers, modeling_gemma3n.py
    "audio_tower.",            // transformers, modeling_qwen2_audio.py, modeling_gemma3n.py
    "audio_projector.",        // transformers, modeling_phi4_multimodal.py
    "vqmodel.",                // transformers, modeling_chameleon.py
    "talker.",                 // transformers, modeling_qwen2_5_omni.py
    "token2wav.",              // transformers, modeling_qwen2_5_omni.py
};
constexpr std::string_view kInnerPrefixes[] = {"", "model.", "thinker.", "model.model."};

// Suffixes of layer tensors that are the container's own already (convert/name_mapping.cpp).
constexpr std::string_view kSameSuffixes[] = {"post_norm.weight", "inp_gate.weight", "proj.weight",
                                              "layer_output_scale.weight"};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}
bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string replaced(const std::string& name, const PrefixChange& change) {
  return std::string(change.to) + name.substr(change.from.size());
}

void removeWrappers(std::vector<std::string>& names) {
  for (bool again = !names.empty(); again;) {
    again = false;
    for (const Wrapper& row : kWrappers) {
      const bool all = std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return startsWith(name, row.prefix) && name.size() > row.prefix.size();
      });
      if (!all) continue;
      for (std::string& name : names)
        name.erase(0, row.prefix.size());
      again = true;
    }
  }
}

bool ruleHolds(const PrefixRule& rule, const std::vector<std::string>& names) {
  const PrefixChange& first = rule.changes[0];
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return startsWith(name, first.from) && !mappingKnows(name) && mappingKnows(replaced(name, first));
  });
}

}  // namespace

bool mappingKnows(const std::string& name) {
  const adapter::MappedName mapped = adapter::toOkvName("", name);
  if (!mapped.slices.empty()) return true;
  if (mapped.name == name) return false;
  constexpr std::string_view kLayer = "blk.";
  if (!startsWith(mapped.name, kLayer)) return true;
  const std::string_view suffix =
      std::string_view(mapped.name).substr(mapped.name.find('.', kLayer.size()) + 1);
  if (!endsWith(name, "." + std::string(suffix))) return true;
  return std::find(std::begin(kSameSuffixes), std::end(kSameSuffixes), suffix) != std::end(kSameSuffixes);
}

std::vector<std::string> bringToKnownNames(const std::vector<std::string>& published) {
  std::vector<std::string> names = published;
  removeWrappers(names);
  for (const PrefixRule& rule : kPrefixRules) {
    if (!ruleHolds(rule, names)) continue;
    for (std::string& name : names) {
      for (const PrefixChange& change : rule.changes) {
        if (change.from.empty() || !startsWith(name, change.from)) continue;
        name = replaced(name, change);
        break;
      }
    }
  }
  return names;
}

bool isOtherTower(std::string_view published) {
  for (const Wrapper& row : kWrappers) {
    if (startsWith(published, row.prefix)) published.remove_prefix(row.prefix.size());
  }
  for (const std::string_view inner : kInnerPrefixes) {
    if (!startsWith(published, inner)) continue;
    const std::string_view rest = published.substr(inner.size());
    for (const std::string_view tower : kOtherTowers) {
      if (startsWith(rest, tower)) return true;
    }
  }
  return false;
}

std::string shortenedName(const std::string& name) {
  // FNV-1a: the same on every machine.
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : name)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  char tail[18];
  std::snprintf(tail, sizeof tail, "~%016llx", static_cast<unsigned long long>(hash));
  std::size_t keep = okv2::kTensorNameBytes - 1 - 17;
  // Not in the middle of a character.
  while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80)
    --keep;
  return name.substr(0, keep) + tail;
}

}  // namespace zel::tool::prepare
