#include "convert/name_mapping.h"

#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

namespace zel::adapter {
namespace {

struct Rename {
  std::string_view from;
  std::string_view to;
};

// None of them is also a name of a layer, of which most names are.
constexpr Rename kWholeNames[] = {
    {"model.embed_tokens.weight", "token_embd.weight"},
    {"transformer.wte.weight", "token_embd.weight"},
    {"lm_head.weight", "output.weight"},
    {"transformer.lm_head.weight", "output.weight"},
    {"model.norm.weight", "output_norm.weight"},
    {"transformer.ln_f.weight", "output_norm.weight"},
    {"model.rope_freqs.weight", "rope_freqs.weight"},
    {"model.per_layer_token_embd.weight", "per_layer_token_embd.weight"},
    {"model.per_layer_model_proj.weight", "per_layer_model_proj.weight"},
    {"model.per_layer_proj_norm.weight", "per_layer_proj_norm.weight"},
};

constexpr std::string_view kLayerPrefixes[] = {"model.layers.", "transformer.h."};

// What follows the layer index. Suffixes that map to themselves need no row.
constexpr Rename kSuffixes[] = {
    {"self_attn.q_proj.weight", "attn_q.weight"},
    {"self_attn.k_proj.weight", "attn_k.weight"},
    {"self_attn.v_proj.weight", "attn_v.weight"},
    {"self_attn.o_proj.weight", "attn_output.weight"},
    {"self_attn.q_norm.weight", "attn_q_norm.weight"},
    {"self_attn.k_norm.weight", "attn_k_norm.weight"},
    {"self_attn.c_proj.weight", "attn_output.weight"},
    {"mlp.gate_proj.weight", "ffn_gate.weight"},
    {"mlp.w1.weight", "ffn_gate.weight"},
    {"mlp.up_proj.weight", "ffn_up.weight"},
    {"mlp.w3.weight", "ffn_up.weight"},  // w1 is the gate and w3 the up projection
    {"mlp.down_proj.weight", "ffn_down.weight"},
    {"mlp.w2.weight", "ffn_down.weight"},
    {"input_layernorm.weight", "attn_norm.weight"},
    {"ln_1.weight", "attn_norm.weight"},
    {"post_attention_layernorm.weight", "ffn_norm.weight"},
    {"ln_2.weight", "ffn_norm.weight"},
    {"mlp.post_attention_layernorm.weight", "ffn_norm.weight"},
    {"pre_feedforward_layernorm.weight", "ffn_norm.weight"},
    {"post_feedforward_layernorm.weight", "post_ffw_norm.weight"},
    {"inp_gate_proj.weight", "inp_gate.weight"},
};

// Gemma models normalise once more behind attention, so these mean something else there. The spelling
// without "post" follows the same rule on purpose.
constexpr Rename kGemmaSuffixes[] = {
    {"post_attention_layernorm.weight", "post_attention_norm.weight"},
    {"ln_2.weight", "post_attention_norm.weight"},
};

struct Fused {
  std::string_view from;
  std::string_view parts[3];  // query, key, value
};
constexpr Fused kFused[] = {
    {"self_attn.c_attn.weight", {"attn_q.weight", "attn_k.weight", "attn_v.weight"}},
    {"attn.c_attn.weight", {"attn_q.weight", "attn_k.weight", "attn_v.weight"}},
    {"self_attn.c_attn.bias", {"attn_q.bias", "attn_k.bias", "attn_v.bias"}},
    {"attn.c_attn.bias", {"attn_q.bias", "attn_k.bias", "attn_v.bias"}},
};

bool isGemmaFamily(std::string_view arch) {
  constexpr std::string_view kFamily = "gemma";
  return arch.substr(0, kFamily.size()) == kFamily;
}

template <std::size_t N>
std::optional<std::string_view> findRename(const Rename (&table)[N], std::string_view name) {
  for (const Rename& row : table) {
    if (row.from == name) return row.to;
  }
  return std::nullopt;
}

struct LayerName {
  std::string prefix;  // "blk.N."
  std::string_view suffix;
};

// Nothing unless `name` is a layer prefix, decimal digits, a full stop and a rest.
std::optional<LayerName> splitLayerName(std::string_view name) {
  for (const std::string_view prefix : kLayerPrefixes) {
    if (name.substr(0, prefix.size()) != prefix) continue;
    const std::string_view rest = name.substr(prefix.size());
    const std::size_t dot = rest.find('.');
    if (dot == std::string_view::npos || dot == 0) return std::nullopt;
    std::uint64_t index = 0;  // wraps for numbers that no model has
    for (const char digit : rest.substr(0, dot)) {
      if (digit < '0' || digit > '9') return std::nullopt;
      index = index * 10 + std::uint64_t(digit - '0');
    }
    LayerName layer;
    char digits[20];
    layer.prefix.append("blk.")
        .append(digits, std::to_chars(digits, std::end(digits), index).ptr)
        .push_back('.');
    layer.suffix = rest.substr(dot + 1);
    return layer;
  }
  return std::nullopt;
}

}  // namespace

MappedName toOkvName(const std::string& arch, const std::string& srcName) {
  MappedName mapped;
  mapped.ok = !srcName.empty();
  std::optional<LayerName> layer = splitLayerName(srcName);
  if (!layer) {
    mapped.name = findRename(kWholeNames, srcName).value_or(srcName);
    return mapped;
  }
  for (const Fused& row : kFused) {
    if (row.from != layer->suffix) continue;
    for (const std::string_view part : row.parts) {
      mapped.slices.emplace_back().name = layer->prefix + std::string(part);
    }
    return mapped;
  }
  std::optional<std::string_view> suffix;
  if (isGemmaFamily(arch)) suffix = findRename(kGemmaSuffixes, layer->suffix);
  if (!suffix) suffix = findRename(kSuffixes, layer->suffix);
  mapped.name = std::move(layer->prefix);
  mapped.name += suffix.value_or(layer->suffix);
  return mapped;
}

}  // namespace zel::adapter
