// How published checkpoints name tensors that the plug-in's name mapping knows under other names: one row a
// fact, with its public source. Classes are those of the `transformers` library or of the code beside the
// model that is named.
#pragma once

#include <span>
#include <string_view>

namespace zel::tool::prepare {

struct Wrapper {
  std::string_view prefix;
  std::string_view source;
};
inline constexpr Wrapper kWrappers[] = {
    {"module.", "torch.nn.DataParallel and DistributedDataParallel, attribute `module`"},
    {"_orig_mod.", "torch/_dynamo/eval_frame.py, OptimizedModule"},
    {"base_model.model.", "PEFT, docs: checkpoint format"},
};

struct PrefixChange {
  std::string_view from;
  std::string_view to;
};
// The first change decides: the rule holds where it makes the mapping know a name, as the model's class
// spells it. All of its changes are then made.
struct PrefixRule {
  PrefixChange changes[3];
  std::string_view source;
  std::span<const std::string_view> types = {};  // that the model must have one of; empty for any model
};
// transformers, modeling_opt.py. Encoders and decoders in one model have the same prefix.
inline constexpr std::string_view kOptTypes[] = {"opt", "OPTForCausalLM", "OPTModel"};

// transformers, modeling_mpt.py; mosaicml/mpt-7b, modeling_mpt.py.
inline constexpr std::string_view kMptTypes[] = {"mpt", "MPTForCausalLM", "MptForCausalLM"};

inline constexpr PrefixRule kPrefixRules[] = {
    {{{"model.language_model.", "model."}, {}, {}},
     "transformers, modeling_gemma3.py, modeling_llava.py: Model.language_model inside "
     "ForConditionalGeneration"},
    {{{"language_model.model.", "model."},
      {"language_model.lm_head.", "lm_head."},
      {"language_model.output.", "output."}},
     "llava-hf and Gemma 3 checkpoints; transformers, modeling_llava.py, _checkpoint_conversion_mapping; "
     "OpenGVLab/InternVL2 around an InternLM2, whose head is `output`"},
    {{{"model.text_model.", "model."}, {}, {}},
     "transformers, modeling_idefics3.py: Idefics3Model.text_model"},
    {{{"language.model.", "model."}, {"language.lm_head.", "lm_head."}, {}},
     "deepseek-ai/DeepSeek-VL2, modeling_deepseek_vl_v2.py: DeepseekVLV2ForCausalLM.language"},
    {{{"thinker.model.", "model."}, {"thinker.lm_head.", "lm_head."}, {}},
     "transformers, modeling_qwen2_5_omni.py: thinker"},
    {{{"model.model.", "model."}, {"model.lm_head.", "lm_head."}, {}},
     "PyTorch Lightning: a LightningModule that keeps the network as `model`"},
    {{{"gpt_neox.", "model."}, {}, {}}, "transformers, modeling_gpt_neox.py: GPTNeoXForCausalLM.gpt_neox"},
    {{{"model.decoder.", "model."}, {}, {}}, "transformers, modeling_opt.py: OPTModel.decoder", kOptTypes},
    {{{"decoder.", "model."}, {}, {}},
     "transformers, modeling_opt.py: OPTModel saved without its head",
     kOptTypes},
    {{{"language_model.model.decoder.", "model."}, {"language_model.lm_head.", "lm_head."}, {}},
     "transformers, modeling_blip_2.py: Blip2ForConditionalGeneration.language_model",
     kOptTypes},
    {{{"transformer.blocks.", "transformer.h."}, {"transformer.norm_f.", "transformer.ln_f."}, {}},
     "transformers, modeling_mpt.py: MptModel.blocks",
     kMptTypes},
    {{{"h.", "transformer.h."}, {"wte.", "transformer.wte."}, {"ln_f.", "transformer.ln_f."}},
     "transformers, modeling_gpt2.py: GPT2Model saved without its head"},
    {{{"layers.", "model.layers."}, {"embed_tokens.", "model.embed_tokens."}, {"norm.", "model.norm."}},
     "transformers, modeling_llama.py: LlamaModel saved without its head"},
};

// As published, and behind "model." as newer checkpoints have them.
inline constexpr std::string_view kOtherTowers[] = {
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
inline constexpr std::string_view kInnerPrefixes[] = {"", "model.", "thinker.", "model.model."};

// The container's own names (convert/name_mapping.cpp), and those of a layer's tensors behind "blk.N.".
inline constexpr std::string_view kContainerNames[] = {
    "token_embd.weight",           "output.weight",
    "output_norm.weight",          "rope_freqs.weight",
    "per_layer_token_embd.weight", "per_layer_model_proj.weight",
    "per_layer_proj_norm.weight",
};
inline constexpr std::string_view kContainerSuffixes[] = {
    "attn_q.weight",
    "attn_k.weight",
    "attn_v.weight",
    "attn_q.bias",
    "attn_k.bias",
    "attn_v.bias",
    "attn_output.weight",
    "attn_q_norm.weight",
    "attn_k_norm.weight",
    "ffn_gate.weight",
    "ffn_up.weight",
    "ffn_down.weight",
    "attn_norm.weight",
    "ffn_norm.weight",
    "post_attention_norm.weight",
    "post_ffw_norm.weight",
    "post_norm.weight",
    "inp_gate.weight",
    "proj.weight",
    "layer_output_scale.weight",
};
// Those that the mapping knows under the same spelling.
inline constexpr std::string_view kSameSuffixes[] = {"post_norm.weight", "inp_gate.weight", "proj.weight",
                                                     "layer_output_scale.weight"};

// Parts of the names of fused projections that no mapping cuts: each class lays query, key and value, or gate
// and up, in a way of its own.
inline constexpr std::string_view kFusedParts[] = {
    "query_key_value",  // transformers, modeling_gpt_neox.py, modeling_bloom.py, modeling_falcon.py
    "wqkv",             // internlm/internlm2-7b, modeling_internlm2.py
    "Wqkv",             // mosaicml/mpt-7b, attention.py
    "qkv_proj",         // transformers, modeling_phi3.py, modeling_codegen.py
    "gate_up_proj",     // transformers, modeling_phi3.py
};

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
  bool normsFirst = false;  // only where the model's norms stand before what they belong to
};

// transformers, modeling_gemma3n.py: Gemma3nTextModel and Gemma3nTextDecoderLayer; Gemma 4 has the same.
inline constexpr std::string_view kPerLayerInputFamilies[] = {"gemma3n", "Gemma3n", "gemma4", "Gemma4"};
inline constexpr Spelling kPerLayerInputNames[] = {
    {"model.embed_tokens_per_layer.weight", "model.per_layer_token_embd.weight"},
    {"model.per_layer_model_projection.weight", "model.per_layer_model_proj.weight"},
    {"model.per_layer_projection_norm.weight", "model.per_layer_proj_norm.weight"},
};
inline constexpr Spelling kPerLayerInputSuffixes[] = {
    {"per_layer_input_gate.weight", "inp_gate.weight"},
    {"per_layer_projection.weight", "proj.weight"},
    {"post_per_layer_input_norm.weight", "post_norm.weight"},
};

// transformers, modeling_gemma4.py: a buffer of Gemma4TextDecoderLayer, hence without ".weight".
inline constexpr std::string_view kGemma4Families[] = {"gemma4", "Gemma4"};
inline constexpr Spelling kGemma4Suffixes[] = {{"layer_scalar", "layer_output_scale.weight"}};

// Qwen/Qwen-7B, modeling_qwen.py: QWenMLP is c_proj(w1(x) * silu(w2(x))), so that its w2 is the gate, which
// elsewhere is w1. All are Linear layers, those of the attention too. Later ones have types of their own.
inline constexpr std::string_view kQwenTypes[] = {"qwen", "QWenLMHeadModel"};
inline constexpr Spelling kQwenSuffixes[] = {
    {"mlp.w1.weight", "mlp.up_proj.weight"},
    {"mlp.w2.weight", "mlp.gate_proj.weight"},
    {"mlp.c_proj.weight", "mlp.down_proj.weight"},
    {"attn.c_proj.weight", "self_attn.o_proj.weight"},
};

// transformers, modeling_gpt2.py: GPT2Attention and GPT2MLP, of Conv1D layers, which stay [in, out]; and
// modeling_gpt_bigcode.py, of Linear layers.
inline constexpr std::string_view kGpt2Families[] = {"gpt2", "GPT2", "gpt_bigcode", "GPTBigCode"};
inline constexpr Spelling kGpt2Suffixes[] = {
    {"attn.c_proj.weight", "self_attn.o_proj.weight"},
    {"mlp.c_fc.weight", "mlp.up_proj.weight"},
    {"mlp.c_proj.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_gpt_neo.py: GPTNeoSelfAttention and GPTNeoMLP.
inline constexpr std::string_view kGptNeoTypes[] = {"gpt_neo", "GPTNeoForCausalLM", "GPTNeoModel"};
inline constexpr Spelling kGptNeoSuffixes[] = {
    {"attn.attention.q_proj.weight", "self_attn.q_proj.weight"},
    {"attn.attention.k_proj.weight", "self_attn.k_proj.weight"},
    {"attn.attention.v_proj.weight", "self_attn.v_proj.weight"},
    {"attn.attention.out_proj.weight", "self_attn.o_proj.weight"},
    {"mlp.c_fc.weight", "mlp.up_proj.weight"},
    {"mlp.c_proj.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_gptj.py: GPTJAttention and GPTJMLP; modeling_codegen.py has the same, but for query,
// key and value.
inline constexpr std::string_view kGptJFamilies[] = {"gptj", "GPTJ", "codegen", "CodeGen"};
inline constexpr Spelling kGptJSuffixes[] = {
    {"attn.q_proj.weight", "self_attn.q_proj.weight"}, {"attn.k_proj.weight", "self_attn.k_proj.weight"},
    {"attn.v_proj.weight", "self_attn.v_proj.weight"}, {"attn.out_proj.weight", "self_attn.o_proj.weight"},
    {"mlp.fc_in.weight", "mlp.up_proj.weight"},        {"mlp.fc_out.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_gpt_neox.py: GPTNeoXModel, GPTNeoXAttention and GPTNeoXMLP. Its
// post_attention_layernorm is the norm before the feed-forward, as the mapping has it.
inline constexpr std::string_view kGptNeoXTypes[] = {"gpt_neox", "GPTNeoXForCausalLM", "GPTNeoXModel"};
inline constexpr Spelling kGptNeoXNames[] = {
    {"model.embed_in.weight", "model.embed_tokens.weight"},
    {"embed_in.weight", "model.embed_tokens.weight"},
    {"model.final_layer_norm.weight", "model.norm.weight"},
    {"final_layer_norm.weight", "model.norm.weight"},
    {"embed_out.weight", "lm_head.weight"},
};
inline constexpr Spelling kGptNeoXSuffixes[] = {
    {"attention.dense.weight", "self_attn.o_proj.weight"},
    {"mlp.dense_h_to_4h.weight", "mlp.up_proj.weight"},
    {"mlp.dense_4h_to_h.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_bloom.py: BloomModel, BloomAttention and BloomMLP.
inline constexpr std::string_view kBloomFamilies[] = {"bloom", "Bloom"};
inline constexpr Spelling kWordEmbeddings[] = {
    {"transformer.word_embeddings.weight", "transformer.wte.weight"},
    {"word_embeddings.weight", "transformer.wte.weight"},
};
inline constexpr Spelling kBloomSuffixes[] = {
    {"self_attention.dense.weight", "self_attn.o_proj.weight"},
    {"mlp.dense_h_to_4h.weight", "mlp.up_proj.weight"},
    {"mlp.dense_4h_to_h.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_falcon.py: FalconAttention, FalconMLP, and FalconDecoderLayer with two norms;
// tiiuae/falcon-40b, modelling_RW.py.
inline constexpr std::string_view kFalconTypes[] = {"falcon",     "FalconForCausalLM", "FalconModel",
                                                    "RefinedWeb", "RefinedWebModel",   "RWForCausalLM"};
inline constexpr Spelling kFalconSuffixes[] = {
    {"self_attention.dense.weight", "self_attn.o_proj.weight"},
    {"mlp.dense_h_to_4h.weight", "mlp.up_proj.weight"},
    {"mlp.dense_4h_to_h.weight", "mlp.down_proj.weight"},
    {"ln_attn.weight", "input_layernorm.weight"},
    {"ln_mlp.weight", "post_attention_layernorm.weight"},
};

// internlm/internlm2-7b, modeling_internlm2.py: InternLM2MLP is w2(silu(w1(x)) * w3(x)).
inline constexpr std::string_view kInternLm2Families[] = {"internlm2", "InternLM2"};
inline constexpr Spelling kInternLm2Names[] = {
    {"model.tok_embeddings.weight", "model.embed_tokens.weight"},
    {"output.weight", "lm_head.weight"},
};
inline constexpr Spelling kInternLm2Suffixes[] = {
    {"attention.wo.weight", "self_attn.o_proj.weight"},
    {"attention_norm.weight", "input_layernorm.weight"},
    {"ffn_norm.weight", "post_attention_layernorm.weight"},
    {"feed_forward.w1.weight", "mlp.gate_proj.weight"},
    {"feed_forward.w2.weight", "mlp.down_proj.weight"},
    {"feed_forward.w3.weight", "mlp.up_proj.weight"},
};

// transformers, modeling_phi.py: PhiModel, PhiAttention and PhiMLP.
inline constexpr std::string_view kPhiTypes[] = {"phi", "PhiForCausalLM", "PhiModel"};
inline constexpr Spelling kPhiNames[] = {{"model.final_layernorm.weight", "model.norm.weight"}};
inline constexpr Spelling kPhiSuffixes[] = {
    {"self_attn.dense.weight", "self_attn.o_proj.weight"},
    {"mlp.fc1.weight", "mlp.up_proj.weight"},
    {"mlp.fc2.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_opt.py: OPTAttention and OPTDecoderLayer. Where do_layer_norm_before is false, as
// for facebook/opt-350m, the same names are norms behind attention and feed-forward, and the last one is
// absent.
inline constexpr Spelling kOptSuffixes[] = {
    {"self_attn.out_proj.weight", "self_attn.o_proj.weight"},
    {"fc1.weight", "mlp.up_proj.weight"},
    {"fc2.weight", "mlp.down_proj.weight"},
};
inline constexpr Spelling kOptNormNames[] = {{"model.final_layer_norm.weight", "model.norm.weight"}};
inline constexpr Spelling kOptNormSuffixes[] = {
    {"self_attn_layer_norm.weight", "input_layernorm.weight"},
    {"final_layer_norm.weight", "post_attention_layernorm.weight"},
};

// transformers, modeling_mpt.py: MptBlock, MptAttention and MptMLP; mosaicml/mpt-7b, blocks.py, has the same.
inline constexpr Spelling kMptSuffixes[] = {
    {"norm_1.weight", "input_layernorm.weight"},          {"attn.out_proj.weight", "self_attn.o_proj.weight"},
    {"norm_2.weight", "post_attention_layernorm.weight"}, {"ffn.up_proj.weight", "mlp.up_proj.weight"},
    {"ffn.down_proj.weight", "mlp.down_proj.weight"},
};

// transformers, modeling_starcoder2.py: Starcoder2MLP.
inline constexpr std::string_view kStarcoder2Families[] = {"starcoder2", "Starcoder2"};
inline constexpr Spelling kStarcoder2Suffixes[] = {
    {"mlp.c_fc.weight", "mlp.up_proj.weight"},
    {"mlp.c_proj.weight", "mlp.down_proj.weight"},
};

// baichuan-inc/Baichuan2-7B-Base, modeling_baichuan.py: Attention.W_pack is three equal blocks of rows, as
// the mapping cuts c_attn.
inline constexpr std::string_view kBaichuanFamilies[] = {"baichuan", "Baichuan", "BaiChuan"};
inline constexpr Spelling kBaichuanSuffixes[] = {{"self_attn.W_pack.weight", "self_attn.c_attn.weight"}};

inline constexpr SpellingTable kSpellings[] = {
    {kPerLayerInputFamilies, {}, kPerLayerInputNames, kPerLayerInputSuffixes},
    {kGemma4Families, {}, {}, kGemma4Suffixes},
    {{}, kQwenTypes, {}, kQwenSuffixes},
    {kGpt2Families, {}, {}, kGpt2Suffixes},
    {{}, kGptNeoTypes, {}, kGptNeoSuffixes},
    {kGptJFamilies, {}, {}, kGptJSuffixes},
    {{}, kGptNeoXTypes, kGptNeoXNames, kGptNeoXSuffixes},
    {kBloomFamilies, {}, kWordEmbeddings, kBloomSuffixes},
    {{}, kFalconTypes, kWordEmbeddings, kFalconSuffixes},
    {kInternLm2Families, {}, kInternLm2Names, kInternLm2Suffixes},
    {{}, kPhiTypes, kPhiNames, kPhiSuffixes},
    {{}, kOptTypes, {}, kOptSuffixes},
    {{}, kOptTypes, kOptNormNames, kOptNormSuffixes, true},
    {{}, kMptTypes, {}, kMptSuffixes},
    {kStarcoder2Families, {}, {}, kStarcoder2Suffixes},
    {kBaichuanFamilies, {}, {}, kBaichuanSuffixes},
};

}  // namespace zel::tool::prepare
