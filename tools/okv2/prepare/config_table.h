// How published configurations spell what an import reads from config.json: one row a fact, with its public
// source. Classes are those of the `transformers` library or of the code beside the model that is named.
#pragma once

#include <cstdint>

namespace zel::tool::prepare {

// Objects of config.json that describe the text model of a model of several parts; the first that is there.
struct NestedRow {
  const char* outer;
  const char* inner;  // an object inside that one; null when it is the description itself
  const char* source;
};
inline constexpr NestedRow kNestedRows[] = {
    {"text_config", nullptr, "CLIPConfig, LlavaConfig, Gemma3Config, Qwen3_5Config"},
    {"llm_config", nullptr, "InternVLChatConfig of OpenGVLab/InternVL2"},
    {"language_config", nullptr, "DeepseekVLV2Config of deepseek-ai/deepseek-vl2"},
    {"thinker_config", "text_config", "Qwen2_5OmniConfig"},
    {"text_config_dict", nullptr, "CLIPConfig before text_config"},
    {"decoder", nullptr, "EncoderDecoderConfig, VisionEncoderDecoderConfig"},
};

enum class ValueKind : std::uint8_t { Whole, Number };

// The keys that an import reads (src/hf/config.cpp) and whose value is of this kind.
struct ReadRow {
  const char* key;
  ValueKind kind;
};
inline constexpr ReadRow kReadRows[] = {
    {"hidden_size", ValueKind::Whole},
    {"num_hidden_layers", ValueKind::Whole},
    {"num_attention_heads", ValueKind::Whole},
    {"num_key_value_heads", ValueKind::Whole},
    {"intermediate_size", ValueKind::Whole},
    {"vocab_size", ValueKind::Whole},
    {"max_position_embeddings", ValueKind::Whole},
    {"rope_theta", ValueKind::Number},
    {"rms_norm_eps", ValueKind::Number},
    {"final_logit_softcapping", ValueKind::Number},
    {"attn_logit_softcapping", ValueKind::Number},
    {"head_dim", ValueKind::Whole},
    {"key_length", ValueKind::Whole},
    {"key_length_swa", ValueKind::Whole},
    {"embedding_length_per_layer_input", ValueKind::Whole},
    {"shared_kv_layers", ValueKind::Whole},
    {"sliding_window", ValueKind::Whole},
};

// Another spelling of a key that is read; of several that a configuration has, the first row counts. A full
// stop leads into an object.
struct SynonymRow {
  const char* read;
  const char* published;
  const char* source;
  const char* onlyFor = nullptr;    // a model type: elsewhere the key means something else
  const char* needsTrue = nullptr;  // a key that must be true, or the value is of no use to the model
};
inline constexpr SynonymRow kSynonymRows[] = {
    {"hidden_size", "n_embd", "GPT2Config, GPTJConfig, QWenConfig of Qwen/Qwen-7B"},
    {"hidden_size", "n_embed", "BloomConfig"},
    {"hidden_size", "d_model", "T5Config, MptConfig, PegasusXConfig"},
    {"hidden_size", "dim", "DistilBertConfig; params.json of Meta's Llama"},
    {"num_hidden_layers", "n_layer", "GPT2Config, BloomConfig, RWConfig of tiiuae/falcon-40b"},
    {"num_hidden_layers", "n_layers", "MptConfig, DistilBertConfig"},
    {"num_hidden_layers", "num_layers", "T5Config, ChatGLMConfig of THUDM/chatglm-6b"},
    {"num_hidden_layers", "encoder_layers", "BartConfig, PegasusXConfig"},
    {"num_attention_heads", "n_head", "GPT2Config, QWenConfig of Qwen/Qwen-7B"},
    {"num_attention_heads", "n_heads", "MptConfig, DistilBertConfig"},
    {"num_attention_heads", "num_heads", "T5Config"},
    {"num_attention_heads", "encoder_attention_heads", "attribute map of BartConfig and PegasusXConfig"},
    {"num_attention_heads", "decoder_attention_heads", "BartConfig without an encoder"},
    {"num_key_value_heads", "n_head_kv", "RWConfig of tiiuae/falcon-40b"},
    {"num_key_value_heads", "num_kv_heads", "FalconConfig"},
    {"num_key_value_heads", "n_kv_heads", "params.json of Meta's Llama"},
    {"num_key_value_heads", "multi_query_group_num", "ChatGLMConfig of THUDM/chatglm2-6b"},
    {"num_key_value_heads", "attn_config.kv_n_heads", "DbrxConfig, MptConfig"},
    {"intermediate_size", "n_inner", "GPT2Config"},
    {"intermediate_size", "d_ff", "T5Config"},
    {"intermediate_size", "ffn_dim", "OPTConfig"},
    {"intermediate_size", "hidden_dim", "DistilBertConfig", "distilbert"},
    {"intermediate_size", "ffn_hidden_size", "FalconConfig, ChatGLMConfig of THUDM/chatglm2-6b"},
    {"intermediate_size", "encoder_ffn_dim", "BartConfig, PegasusXConfig"},
    {"intermediate_size", "decoder_ffn_dim", "BartConfig without an encoder"},
    {"intermediate_size", "inner_hidden_size", "ChatGLMConfig of THUDM/chatglm-6b"},
    {"intermediate_size", "ffn_config.ffn_hidden_size", "DbrxConfig"},
    {"max_position_embeddings", "seq_length",
     "QWenConfig of Qwen/Qwen-7B, ChatGLMConfig of THUDM/chatglm2-6b"},
    {"max_position_embeddings", "max_sequence_length", "LLaMA configurations before transformers 4.28"},
    {"max_position_embeddings", "max_seq_len", "MptConfig, DbrxConfig"},
    {"max_position_embeddings", "n_positions", "GPT2Config, T5Config"},
    {"max_position_embeddings", "n_ctx", "GPT2Config before n_positions"},
    {"vocab_size", "padded_vocab_size", "ChatGLMConfig of THUDM/chatglm2-6b"},
    {"vocab_size", "n_vocab", "HParams of the first GPT-2 release"},
    {"rope_theta", "rope_parameters.rope_theta", "RopeParameters of transformers 5"},
    {"rope_theta", "rope_parameters.full_attention.rope_theta",
     "RopeParameters of transformers 5, for each kind of layer"},
    {"rope_theta", "rotary_emb_base", "GPTNeoXConfig, QWenConfig of Qwen/Qwen-7B"},
    {"rope_theta", "rope_base", "model builders of torchtune"},
    {"rope_theta", "attn_config.rope_theta", "DbrxConfig", "dbrx"},
    {"rope_theta", "attn_config.rope_theta", "MPTConfig of mosaicml/mpt-7b, which has ALiBi without rope",
     nullptr, "attn_config.rope"},
    {"rms_norm_eps", "layer_norm_eps", "BertConfig, PhiConfig: the container has one item for the epsilon"},
    {"rms_norm_eps", "layer_norm_epsilon", "GPT2Config, T5Config, BloomConfig"},
    {"rms_norm_eps", "layernorm_epsilon", "ChatGLMConfig of THUDM/chatglm-6b"},
    {"rms_norm_eps", "norm_epsilon", "Starcoder2Config"},
    {"rms_norm_eps", "norm_eps", "params.json of Meta's Llama"},
};

// A size that a class reads as a multiple of what it uses. `read` takes the quotient, rounded down, of the
// value of `published`, or of its own where that is absent; the value as published stays under `published`.
struct QuotientRow {
  const char* modelType;  // or the class
  const char* read;
  const char* published;
  std::int64_t divisor;
  const char* source;
};
inline constexpr QuotientRow kQuotientRows[] = {
    {"qwen", "intermediate_size", "ffn_hidden_size", 2,
     "QWenMLP of Qwen/Qwen-7B: each of w1 and w2 has half"},
    {"QWenLMHeadModel", "intermediate_size", "ffn_hidden_size", 2,
     "QWenMLP of Qwen/Qwen-7B: each of w1 and w2 has half"},
};

// What a setting must be for a row to apply; the setting is looked for in the text model's description, then
// at the top level.
enum class Test : std::uint8_t {
  None,
  IsNull,  // given as null; absent is something else
  IsTrue,
  IsFalse,
  IsTrueOrAbsent,  // the class's default is true
  IsNotTrue,       // the class's default is false
  IsText,
};
struct Condition {
  const char* key = nullptr;
  Test test = Test::None;
  const char* text = nullptr;
};

// A size that the model's class computes: `factor` times the value of `from`, of which a null stands for 1,
// and times that of `times` where it is not null. The first row that applies counts.
struct RuleRow {
  const char* modelType;  // or the class
  const char* read;
  const char* from;
  std::int64_t factor;
  const char* source;
  Condition condition = {};
  Condition andCondition = {};
  const char* times = nullptr;
};

// Before any other spelling, which the class does not use then.
inline constexpr RuleRow kOverrulingRows[] = {
    {"falcon",
     "num_key_value_heads",
     nullptr,
     1,
     "FalconAttention: multi_query without new_decoder_architecture has one, whatever num_kv_heads is",
     {"multi_query", Test::IsTrueOrAbsent},
     {"new_decoder_architecture", Test::IsNotTrue}},
};

// Where a configuration gives the size in no spelling.
inline constexpr RuleRow kDefaultRows[] = {
    {"gpt2", "intermediate_size", "hidden_size", 4, "GPT2Config: n_inner of None is 4 times n_embd"},
    {"gptj", "intermediate_size", "hidden_size", 4, "GPTJConfig: n_inner of None is 4 times n_embd"},
    {"gpt_neo", "intermediate_size", "hidden_size", 4, "GPTNeoMLP: None is 4 times the hidden size"},
    {"codegen", "intermediate_size", "hidden_size", 4, "CodeGenConfig: n_inner of None is 4 times n_embd"},
    {"gpt_bigcode", "intermediate_size", "hidden_size", 4,
     "GPTBigCodeConfig: n_inner of None is 4 times n_embd"},
    {"bloom", "intermediate_size", "hidden_size", 4, "BloomMLP: 4 times the hidden size"},
    {"falcon", "intermediate_size", "hidden_size", 4, "FalconConfig: ffn_hidden_size of None is 4 times"},
    {"RefinedWeb", "intermediate_size", "hidden_size", 4, "RWConfig of tiiuae/falcon-40b: MLP of 4 times"},
    {"RefinedWebModel", "intermediate_size", "hidden_size", 4,
     "RWConfig of tiiuae/falcon-7b: MLP of 4 times"},
    {"mpt",
     "intermediate_size",
     "hidden_size",
     1,
     "MPTConfig of mosaicml/mpt-7b: MLP of expansion_ratio times",
     {},
     {},
     "expansion_ratio"},
    {"gpt2", "num_key_value_heads", "num_attention_heads", 1, "GPT2Attention: a key for every head"},
    {"gptj", "num_key_value_heads", "num_attention_heads", 1, "GPTJAttention: a key for every head"},
    {"gpt_neo", "num_key_value_heads", "num_attention_heads", 1, "GPTNeoSelfAttention: a key for every head"},
    {"gpt_neox", "num_key_value_heads", "num_attention_heads", 1, "GPTNeoXAttention: a key for every head"},
    {"gpt_bigcode",
     "num_key_value_heads",
     nullptr,
     1,
     "GPTBigCodeAttention: multi_query has one",
     {"multi_query", Test::IsTrueOrAbsent}},
    {"gpt_bigcode",
     "num_key_value_heads",
     "num_attention_heads",
     1,
     "GPTBigCodeAttention: a key for every head without multi_query",
     {"multi_query", Test::IsFalse}},
    {"falcon", "num_key_value_heads", "num_attention_heads", 1,
     "FalconConfig: num_kv_heads of None is num_attention_heads"},
    {"RefinedWebModel",
     "num_key_value_heads",
     nullptr,
     1,
     "Attention of tiiuae/falcon-7b: multi_query has one",
     {"multi_query", Test::IsTrue}},
    {"RefinedWebModel",
     "num_key_value_heads",
     "num_attention_heads",
     1,
     "Attention of tiiuae/falcon-7b: a key for every head without multi_query",
     {"multi_query", Test::IsFalse}},
    {"mpt",
     "num_key_value_heads",
     "num_attention_heads",
     1,
     "MPTConfig of mosaicml/mpt-7b: multihead_attention has a key for every head",
     {"attn_config.attn_type", Test::IsText, "multihead_attention"}},
    {"mpt",
     "num_key_value_heads",
     nullptr,
     1,
     "MPTConfig of mosaicml/mpt-7b: multiquery_attention has one",
     {"attn_config.attn_type", Test::IsText, "multiquery_attention"}},
    {"bloom", "num_key_value_heads", "num_attention_heads", 1, "BloomAttention: a key for every head"},
    {"bert", "num_key_value_heads", "num_attention_heads", 1, "BertSelfAttention: a key for every head"},
    {"distilbert", "num_key_value_heads", "num_attention_heads", 1,
     "MultiHeadSelfAttention of DistilBert: a key for every head"},
    {"opt", "num_key_value_heads", "num_attention_heads", 1, "OPTAttention: a key for every head"},
    {"t5", "num_key_value_heads", "num_attention_heads", 1, "T5Attention: a key for every head"},
    {"pegasus_x", "num_key_value_heads", "num_attention_heads", 1, "PegasusXAttention: a key for every head"},
    {"clip", "num_key_value_heads", "num_attention_heads", 1, "CLIPAttention: a key for every head"},
    {"llama", "num_key_value_heads", "num_attention_heads", 1, "LlamaConfig: None is num_attention_heads"},
    {"mistral",
     "num_key_value_heads",
     "num_attention_heads",
     1,
     "MistralConfig: None is num_attention_heads; an absent one is not None",
     {"num_key_value_heads", Test::IsNull}},
    {"qwen2",
     "num_key_value_heads",
     "num_attention_heads",
     1,
     "Qwen2Config: None is num_attention_heads; an absent one is not None",
     {"num_key_value_heads", Test::IsNull}},
    {"phi", "num_key_value_heads", "num_attention_heads", 1, "PhiConfig: None is num_attention_heads"},
    {"qwen", "num_key_value_heads", "num_attention_heads", 1,
     "QWenAttention of Qwen/Qwen-7B: a key for every head"},
    {"QWenLMHeadModel", "num_key_value_heads", "num_attention_heads", 1,
     "QWenAttention of Qwen/Qwen-7B: a key for every head"},
    {"phi3", "num_key_value_heads", "num_attention_heads", 1, "Phi3Config: None is num_attention_heads"},
};

// Spellings of "model_type" for which an import writes fewer items than the model has.
struct ModelTypeRow {
  const char* published;
  const char* read;
  const char* source;
};
inline constexpr ModelTypeRow kModelTypeRows[] = {
    {"gemma4_text", "gemma4", "Gemma4TextConfig: the text model alone"},
};

// Gemma 4 only: whole numbers that the import reads under its own names. Of two rows for one key the first
// counts.
inline constexpr SynonymRow kGemma4Rows[] = {
    {"key_length", "global_head_dim", "Gemma4TextConfig: of the layers with full attention"},
    {"key_length_swa", "head_dim", "Gemma4TextConfig: of the sliding-window layers"},
    {"shared_kv_layers", "num_kv_shared_layers", "Gemma4TextConfig"},
    {"embedding_length_per_layer_input", "hidden_size_per_layer_input", "Gemma4TextConfig"},
};

}  // namespace zel::tool::prepare
