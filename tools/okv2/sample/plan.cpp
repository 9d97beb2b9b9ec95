#include "okv2/sample/plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <span>

namespace zel::sample {
namespace {

// Extents by role; the plan gives them numbers.
enum class Dim {
  None,
  One,
  Vocab,
  Hidden,
  Hidden3,
  Query,
  KeyValue,
  HeadDim,
  Intermediate,
  PerLayer,
  Context
};

struct Row {
  const char* name;  // whole for model tensors, after the layer prefix for layer tensors
  DType dtype;
  Dim dims[2];
};

struct Family {
  const char* layerPrefix;
  std::span<const Row> model;
  std::span<const Row> layer;
};

constexpr DType F32 = DType::F32, F16 = DType::F16, BF16 = DType::BF16;

constexpr Row kLlamaModel[] = {
    {"model.embed_tokens.weight", F16, {Dim::Vocab, Dim::Hidden}},
    {"model.norm.weight", F32, {Dim::Hidden}},
    {"lm_head.weight", BF16, {Dim::Vocab, Dim::Hidden}},
};
constexpr Row kLlamaLayer[] = {
    {"input_layernorm.weight", F32, {Dim::Hidden}},
    {"self_attn.q_proj.weight", BF16, {Dim::Query, Dim::Hidden}},
    {"self_attn.k_proj.weight", BF16, {Dim::KeyValue, Dim::Hidden}},
    {"self_attn.v_proj.weight", BF16, {Dim::KeyValue, Dim::Hidden}},
    {"self_attn.o_proj.weight", BF16, {Dim::Hidden, Dim::Query}},
    {"post_attention_layernorm.weight", F32, {Dim::Hidden}},
    {"mlp.gate_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.up_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.down_proj.weight", BF16, {Dim::Hidden, Dim::Intermediate}},
};
constexpr Row kQwen2Layer[] = {
    {"input_layernorm.weight", F32, {Dim::Hidden}},
    {"self_attn.q_proj.weight", BF16, {Dim::Query, Dim::Hidden}},
    {"self_attn.q_proj.bias", F32, {Dim::Query}},
    {"self_attn.k_proj.weight", BF16, {Dim::KeyValue, Dim::Hidden}},
    {"self_attn.k_proj.bias", F32, {Dim::KeyValue}},
    {"self_attn.v_proj.weight", BF16, {Dim::KeyValue, Dim::Hidden}},
    {"self_attn.v_proj.bias", F32, {Dim::KeyValue}},
    {"self_attn.o_proj.weight", BF16, {Dim::Hidden, Dim::Query}},
    {"post_attention_layernorm.weight", F32, {Dim::Hidden}},
    {"mlp.gate_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.up_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.down_proj.weight", BF16, {Dim::Hidden, Dim::Intermediate}},
};
constexpr Row kGemma4Model[] = {
    {"model.embed_tokens.weight", F16, {Dim::Vocab, Dim::Hidden}},
    {"model.norm.weight", F32, {Dim::Hidden}},
    {"model.rope_freqs.weight", F32, {Dim::HeadDim}},
    {"model.per_layer_token_embd.weight", F16, {Dim::Vocab, Dim::PerLayer}},
    {"model.per_layer_model_proj.weight", BF16, {Dim::PerLayer, Dim::Hidden}},
    {"model.per_layer_proj_norm.weight", F32, {Dim::PerLayer}},
};
constexpr Row kGemma4Layer[] = {
    {"input_layernorm.weight", F32, {Dim::Hidden}},
    {"self_attn.q_proj.weight", BF16, {Dim::Query, Dim::Hidden}},
    {"self_attn.k_proj.weight", BF16, {Dim::KeyValue, Dim::Hidden}},
    {"self_attn.v_proj.weight", BF16, {Dim::KeyValue, Dim::Hidden}},
    {"self_attn.o_proj.weight", BF16, {Dim::Hidden, Dim::Query}},
    {"self_attn.q_norm.weight", F32, {Dim::HeadDim}},
    {"self_attn.k_norm.weight", F32, {Dim::HeadDim}},
    {"post_attention_layernorm.weight", F32, {Dim::Hidden}},
    {"pre_feedforward_layernorm.weight", F32, {Dim::Hidden}},
    {"mlp.gate_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.up_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.down_proj.weight", BF16, {Dim::Hidden, Dim::Intermediate}},
    {"post_feedforward_layernorm.weight", F32, {Dim::Hidden}},
    {"inp_gate.weight", BF16, {Dim::PerLayer, Dim::Hidden}},
    {"proj.weight", BF16, {Dim::Hidden, Dim::PerLayer}},
    {"post_norm.weight", F32, {Dim::Hidden}},
    {"layer_output_scale.weight", F32, {Dim::One}},
};
constexpr Row kGpt2Model[] = {
    {"transformer.wte.weight", F16, {Dim::Vocab, Dim::Hidden}},
    {"transformer.wpe.weight", F32, {Dim::Context, Dim::Hidden}},
    {"transformer.ln_f.weight", F32, {Dim::Hidden}},
    {"transformer.ln_f.bias", F32, {Dim::Hidden}},
};
constexpr Row kGpt2Layer[] = {
    {"ln_1.weight", F32, {Dim::Hidden}},
    {"ln_1.bias", F32, {Dim::Hidden}},
    {"attn.c_attn.weight", BF16, {Dim::Hidden3, Dim::Hidden}},  // query, key and value rows in one
    {"attn.c_attn.bias", F32, {Dim::Hidden3}},
    {"attn.c_proj.weight", BF16, {Dim::Hidden, Dim::Hidden}},
    {"attn.c_proj.bias", F32, {Dim::Hidden}},
    {"ln_2.weight", F32, {Dim::Hidden}},
    {"ln_2.bias", F32, {Dim::Hidden}},
    {"mlp.c_fc.weight", BF16, {Dim::Hidden, Dim::Intermediate}},
    {"mlp.c_fc.bias", F32, {Dim::Intermediate}},
    {"mlp.c_proj.weight", BF16, {Dim::Intermediate, Dim::Hidden}},
    {"mlp.c_proj.bias", F32, {Dim::Hidden}},
};

Family familyOf(Arch arch) {
  switch (arch) {
    case Arch::Llama: return {"model.layers.", kLlamaModel, kLlamaLayer};
    case Arch::Qwen2: return {"model.layers.", kLlamaModel, kQwen2Layer};
    case Arch::Gemma4: return {"model.layers.", kGemma4Model, kGemma4Layer};
    case Arch::Gpt2: break;
  }
  return {"transformer.h.", kGpt2Model, kGpt2Layer};
}

std::uint64_t extent(const Plan& plan, Dim dim) {
  switch (dim) {
    case Dim::None: break;
    case Dim::One: return 1;
    case Dim::Vocab: return plan.vocab;
    case Dim::Hidden: return plan.hidden;
    case Dim::Hidden3: return 3 * plan.hidden;
    case Dim::Query: return plan.heads * plan.headDim;
    case Dim::KeyValue: return plan.kvHeads * plan.headDim;
    case Dim::HeadDim: return plan.headDim;
    case Dim::Intermediate: return plan.intermediate;
    case Dim::PerLayer: return plan.perLayerInput;
    case Dim::Context: return plan.context;
  }
  return 1;
}

std::uint64_t rowBytes(const Plan& plan, const Row& row) {
  const std::uint64_t elementBytes = kBlockGeometry[static_cast<std::size_t>(row.dtype)].blockBytes;
  return extent(plan, row.dims[0]) * extent(plan, row.dims[1]) * elementBytes;
}

std::uint64_t rowsBytes(const Plan& plan, std::span<const Row> rows) {
  std::uint64_t sum = 0;
  for (const Row& row : rows)
    sum += rowBytes(plan, row);
  return sum;
}

// Bytes of the first `count` tensors: those of the model, then layer by layer.
std::uint64_t totalBytes(const Plan& plan, const Family& family, std::uint64_t count) {
  if (count <= family.model.size()) return rowsBytes(plan, family.model.first(count));
  count -= family.model.size();
  return rowsBytes(plan, family.model) + count / family.layer.size() * rowsBytes(plan, family.layer) +
         rowsBytes(plan, family.layer.first(count % family.layer.size()));
}

// What goes with a model of so many weight bytes.
struct SizeClass {
  std::uint64_t below;
  std::uint64_t layers;
  std::uint64_t vocab;
};
constexpr std::uint64_t kMega = 1000000, kGiga = 1000 * kMega;
constexpr SizeClass kSizeClasses[] = {
    {8 * kMega, 2, 512},     {64 * kMega, 4, 2048},   {256 * kMega, 8, 8192},          {1 * kGiga, 16, 32000},
    {16 * kGiga, 32, 32000}, {64 * kGiga, 64, 64000}, {~std::uint64_t{0}, 96, 128000},
};

const SizeClass& sizeClassOf(std::uint64_t size) {
  return *std::find_if(std::begin(kSizeClasses), std::end(kSizeClasses) - 1,
                       [size](const SizeClass& c) { return size < c.below; });
}

void setHidden(Plan& plan, std::uint64_t hidden) {
  plan.hidden = hidden;
  plan.headDim = hidden < 256 ? 16 : hidden < 2048 ? 64 : 128;
  plan.heads = hidden / plan.headDim;
  const bool shares = plan.arch != Arch::Gpt2;
  plan.kvHeads = shares && plan.heads % 4 == 0 ? plan.heads / 4 : plan.heads;
  plan.perLayerInput = std::max<std::uint64_t>(16, hidden / 8);
  // Gated networks have three matrices of about 2.75, ungated ones two of 4 times the hidden size.
  plan.intermediate = plan.arch == Arch::Gpt2 ? 4 * hidden : (hidden * 11 / 4 + 15) / 16 * 16;
}

std::uint64_t nextHidden(std::uint64_t hidden) {
  return hidden + (hidden < 256 ? 16 : hidden < 2048 ? 64 : 128);
}

constexpr std::uint64_t kSmallestHidden = 16, kGreatestHidden = 65536, kIntermediateStep = 16;

// The greatest model that does not exceed `size`, then its feed-forward width stretched over what is left.
void fitToSize(Plan& plan, const Family& family, std::uint64_t tensorCount, std::uint64_t size) {
  setHidden(plan, kSmallestHidden);
  for (std::uint64_t next = nextHidden(plan.hidden); next <= kGreatestHidden; next = nextHidden(next)) {
    Plan larger = plan;
    setHidden(larger, next);
    if (totalBytes(larger, family, tensorCount) > size) break;
    plan = larger;
  }
  const std::uint64_t total = totalBytes(plan, family, tensorCount);
  Plan wider = plan;
  wider.intermediate += kIntermediateStep;
  const std::uint64_t step = totalBytes(wider, family, tensorCount) - total;
  if (total < size && step > 0) plan.intermediate += (size - total) / step * kIntermediateStep;
}

PlannedTensor makeTensor(const Plan& plan, const Row& row, std::string name) {
  PlannedTensor tensor;
  tensor.name = std::move(name);
  tensor.dtype = row.dtype;
  for (const Dim dim : row.dims) {
    if (dim != Dim::None) tensor.shape.push_back(extent(plan, dim));
  }
  tensor.bytes = rowBytes(plan, row);
  return tensor;
}

}  // namespace

Plan makePlan(const Options& options) {
  const Family family = familyOf(options.arch);
  const SizeClass& sizeClass = sizeClassOf(options.size);
  const std::uint64_t perModel = family.model.size(), perLayer = family.layer.size();
  Plan plan;
  plan.arch = options.arch;
  plan.layers = sizeClass.layers;
  if (options.tensors != 0) {
    const std::uint64_t inLayers = options.tensors > perModel ? options.tensors - perModel : 0;
    plan.layers = std::max<std::uint64_t>(1, (inLayers + perLayer - 1) / perLayer);
  }
  const std::uint64_t count = options.tensors != 0 ? options.tensors : perModel + plan.layers * perLayer;
  plan.vocab = options.vocab != 0 ? options.vocab : sizeClass.vocab;
  plan.context = options.size < kGiga ? 512 : 4096;
  fitToSize(plan, family, count, options.size);

  plan.tensors.reserve(count);
  for (std::uint64_t k = 0; k < count; ++k) {
    if (k < perModel) {
      plan.tensors.push_back(makeTensor(plan, family.model[k], family.model[k].name));
    } else {
      const Row& row = family.layer[(k - perModel) % perLayer];
      plan.tensors.push_back(makeTensor(
          plan, row, fmt::format("{}{}.{}", family.layerPrefix, (k - perModel) / perLayer, row.name)));
    }
    plan.weightBytes += plan.tensors.back().bytes;
  }
  return plan;
}

}  // namespace zel::sample
