#include "okv2/prepare/tensor_names.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <set>
#include <span>

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
    {{{"language.model.", "model."}, {"language.lm_head.", "lm_head."}, {}},
     "deepseek-ai/DeepSeek-VL2, modeling_deepseek_vl_v2.py: DeepseekVLV2ForCausalLM.language"},
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
    "vision.",                 // DeepSeek-VL2, modeling_deepseek_vl_v2.py
    "projector.",              // DeepSeek-VL2, modeling_deepseek_vl_v2.py
    "view_seperator",          // DeepSeek-VL2, modeling_deepseek_vl_v2.py; spelled so there
    "mlp1.",                   // OpenGVLab/InternVL2, modeling_internvl_chat.py
    "talker.",                 // transformers, modeling_qwen2_5_omni.py
    "token2wav.",              // transformers, modeling_qwen2_5_omni.py
};
constexpr std::string_view kInnerPrefixes[] = {"", "model.", "thinker.", "model.model."};

// Suffixes of layer tensors that are the container's own already (convert/name_mapping.cpp).
constexpr std::string_view kSameSuffixes[] = {"post_norm.weight", "inp_gate.weight", "proj.weight",
                                              "layer_output_scale.weight"};

struct Spelling {
  std::string_view from;
  std::string_view to;
};
// Spellings that the mapping does not know, or knows as something else, in the models whose type begins with
// one of `families`, or is one of `types` to the letter. Whole names are meant without a prefix that stands
// before "model."; suffixes follow the layer's number.
struct SpellingTable {
  std::span<const std::string_view> families;
  std::span<const std::string_view> types;
  std::span<const Spelling> wholeNames;
  std::span<const Spelling> suffixes;
};

// transformers, modeling_gemma3n.py: Gemma3nTextModel and Gemma3nTextDecoderLayer; Gemma 4 has the same.
constexpr std::string_view kPerLayerInputFamilies[] = {"gemma3n", "Gemma3n", "gemma4", "Gemma4"};
constexpr Spelling kPerLayerInputNames[] = {
    {"model.embed_tokens_per_layer.weight", "model.per_layer_token_embd.weight"},
    {"model.per_layer_model_projection.weight", "model.per_layer_model_proj.weight"},
    {"model.per_layer_projection_norm.weight", "model.per_layer_proj_norm.weight"},
};
constexpr Spelling kPerLayerInputSuffixes[] = {
    {"per_layer_input_gate.weight", "inp_gate.weight"},
    {"per_layer_projection.weight", "proj.weight"},
    {"post_per_layer_input_norm.weight", "post_norm.weight"},
};

// transformers, modeling_gemma4.py: a buffer of Gemma4TextDecoderLayer, hence without ".weight".
constexpr std::string_view kGemma4Families[] = {"gemma4", "Gemma4"};
constexpr Spelling kGemma4Suffixes[] = {{"layer_scalar", "layer_output_scale.weight"}};

// Qwen/Qwen-7B, modeling_qwen.py: QWenMLP is c_proj(w1(x) * silu(w2(x))), so that its w2 is the gate, which
// elsewhere is w1. All are Linear layers, those of the attention too. Later ones have types of their own.
constexpr std::string_view kQwenTypes[] = {"qwen", "QWenLMHeadModel"};
constexpr Spelling kQwenSuffixes[] = {
    {"mlp.w1.weight", "mlp.up_proj.weight"},
    {"mlp.w2.weight", "mlp.gate_proj.weight"},
    {"mlp.c_proj.weight", "mlp.down_proj.weight"},
    {"attn.c_proj.weight", "self_attn.o_proj.weight"},
};

constexpr SpellingTable kSpellings[] = {
    {kPerLayerInputFamilies, {}, kPerLayerInputNames, kPerLayerInputSuffixes},
    {kGemma4Families, {}, {}, kGemma4Suffixes},
    {{}, kQwenTypes, {}, kQwenSuffixes},
};

constexpr std::string_view kLayerPrefixes[] = {"model.layers.", "transformer.h."};

// Gemma's layers since Gemma 2 have a norm behind attention and another before the feed-forward
// (transformers, modeling_gemma2.py, Gemma2DecoderLayer). The mapping tells them apart for architectures
// whose name begins with "gemma", and models around such a text model have another.
constexpr std::string_view kGemmaFamilies[] = {"gemma", "Gemma"};
constexpr std::string_view kBehindAttention = "post_attention_layernorm.weight";
constexpr std::string_view kBeforeFeedForward = "pre_feedforward_layernorm.weight";

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

// What follows the layer's number; empty for other names.
std::string_view suffixOf(std::string_view name) {
  for (const std::string_view prefix : kLayerPrefixes) {
    if (!startsWith(name, prefix)) continue;
    const std::size_t end = name.find_first_not_of("0123456789", prefix.size());
    if (end == std::string_view::npos || end == prefix.size() || name[end] != '.') return {};
    return name.substr(end + 1);
  }
  return {};
}

bool ruleHolds(const PrefixRule& rule, const std::vector<std::string>& names) {
  const PrefixChange& first = rule.changes[0];
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return startsWith(name, first.from) && !mappingKnows(name) && mappingKnows(replaced(name, first));
  });
}

// Whether each name was changed.
std::vector<bool> changePrefixes(std::vector<std::string>& names) {
  std::vector<bool> changed(names.size(), false);
  for (const PrefixRule& rule : kPrefixRules) {
    if (!ruleHolds(rule, names)) continue;
    for (std::size_t k = 0; k < names.size(); ++k) {
      for (const PrefixChange& change : rule.changes) {
        if (change.from.empty() || !startsWith(names[k], change.from)) continue;
        names[k] = replaced(names[k], change);
        changed[k] = true;
        break;
      }
    }
  }
  return changed;
}

// Null when the table has no row for it.
const Spelling* findSpelling(std::span<const Spelling> table, std::string_view name) {
  const auto row =
      std::find_if(table.begin(), table.end(), [&](const Spelling& s) { return s.from == name; });
  return row == table.end() ? nullptr : &*row;
}

void spellAsKnown(const ModelKind& kind, std::vector<std::string>& names) {
  for (const SpellingTable& table : kSpellings) {
    if (!kind.isOneOf(table.families) && !kind.isExactly(table.types)) continue;
    for (std::string& name : names) {
      const std::string_view suffix = suffixOf(name);
      if (const Spelling* row = findSpelling(table.wholeNames, name); row != nullptr) {
        name = row->to;
      } else if (row = findSpelling(table.suffixes, suffix); row != nullptr) {
        name.replace(name.size() - suffix.size(), suffix.size(), row->to);
      }
    }
  }
}

// Whether each name was changed.
std::vector<bool> nameGemmaNorms(const ModelKind& kind, std::vector<std::string>& names) {
  std::vector<bool> changed(names.size(), false);
  if (!kind.isOneOf(kGemmaFamilies) || startsWith(kind.architecture, "gemma")) return changed;
  std::set<std::string> layers;  // that have both norms
  for (const std::string& name : names) {
    if (suffixOf(name) == kBeforeFeedForward)
      layers.insert(name.substr(0, name.size() - kBeforeFeedForward.size()));
  }
  for (std::size_t k = 0; k < names.size(); ++k) {
    if (suffixOf(names[k]) != kBehindAttention ||
        layers.count(names[k].substr(0, names[k].size() - kBehindAttention.size())) == 0) {
      continue;
    }
    names[k] = adapter::toOkvName("gemma2", names[k]).name;
    changed[k] = true;
  }
  return changed;
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

std::vector<KnownName> bringToKnownNames(const std::vector<std::string>& published, const ModelKind& kind) {
  std::vector<std::string> names = published;
  removeWrappers(names);
  const std::vector<bool> inGroup = changePrefixes(names);
  spellAsKnown(kind, names);
  const std::vector<bool> isOwn = nameGemmaNorms(kind, names);
  std::vector<KnownName> out(names.size());
  for (std::size_t k = 0; k < names.size(); ++k) {
    if (names[k] != published[k]) {
      out[k].reason = isOwn[k]                 ? NameReason::Own
                      : mappingKnows(names[k]) ? NameReason::Known
                      : inGroup[k]             ? NameReason::Group
                                               : NameReason::Wrapper;
    }
    out[k].name = std::move(names[k]);
  }
  return out;
}

const char* nameReasonText(NameReason reason) noexcept {
  switch (reason) {
    case NameReason::Same: break;
    case NameReason::Known: return "The name mapping knows the tensor by this name.";
    case NameReason::Group:
      return "The name mapping knows others by this prefix; this tensor is in no table.";
    case NameReason::Wrapper: return "The prefix is that of a wrapper; the tensor is in no table.";
    case NameReason::Own: return "The name mapping would take the tensor for another norm of its layer.";
  }
  return "It is as published.";
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
