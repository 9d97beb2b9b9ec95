#include "convert/name_mapping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace zel::test {
namespace {

using adapter::MappedName;
using adapter::Slice;
using adapter::toOkvName;

void expectRename(const std::string& arch, const std::string& source, const std::string& expected) {
  const MappedName mapped = toOkvName(arch, source);
  EXPECT_TRUE(mapped.ok) << arch << ": " << source;
  EXPECT_EQ(mapped.name, expected) << arch << ": " << source;
  EXPECT_TRUE(mapped.slices.empty()) << arch << ": " << source;
}

void expectSlices(const std::string& arch, const std::string& source,
                  const std::vector<std::string>& expected) {
  const MappedName mapped = toOkvName(arch, source);
  EXPECT_TRUE(mapped.ok) << source;
  EXPECT_EQ(mapped.name, "") << source;
  ASSERT_EQ(mapped.slices.size(), expected.size()) << source;
  for (std::size_t k = 0; k < expected.size(); ++k) {
    EXPECT_EQ(mapped.slices[k].name, expected[k]);
    EXPECT_EQ(mapped.slices[k].offset, 0u);
    EXPECT_EQ(mapped.slices[k].length, std::numeric_limits<std::uint64_t>::max());
  }
}

// ---- whole names

struct WholeName {
  const char* source;
  const char* expected;
};

class WholeNameRule : public testing::TestWithParam<WholeName> {};

TEST_P(WholeNameRule, HoldsForEveryArchitecture) {
  for (const char* arch : {"", "llama", "qwen2", "gemma4", "generic"}) {
    expectRename(arch, GetParam().source, GetParam().expected);
  }
}

TEST_P(WholeNameRule, NeedsTheWholeName) {
  const std::string source = GetParam().source;
  for (const std::string& near : {source + "x", "x" + source, source.substr(0, source.size() - 1),
                                  "M" + source.substr(1), source + std::string(1, '\0')}) {
    expectRename("llama", near, near);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, WholeNameRule,
    testing::Values(WholeName{"model.embed_tokens.weight", "token_embd.weight"},
                    WholeName{"transformer.wte.weight", "token_embd.weight"},
                    WholeName{"lm_head.weight", "output.weight"},
                    WholeName{"transformer.lm_head.weight", "output.weight"},
                    WholeName{"model.norm.weight", "output_norm.weight"},
                    WholeName{"transformer.ln_f.weight", "output_norm.weight"},
                    WholeName{"model.rope_freqs.weight", "rope_freqs.weight"},
                    WholeName{"model.per_layer_token_embd.weight", "per_layer_token_embd.weight"},
                    WholeName{"model.per_layer_model_proj.weight", "per_layer_model_proj.weight"},
                    WholeName{"model.per_layer_proj_norm.weight", "per_layer_proj_norm.weight"}));

// ---- suffixes inside a layer

struct SuffixRow {
  const char* source;
  const char* expected;
  const char* expectedGemma;  // null where the architecture makes no difference
};

constexpr SuffixRow kSuffixRows[] = {
    {"self_attn.q_proj.weight", "attn_q.weight", nullptr},
    {"self_attn.k_proj.weight", "attn_k.weight", nullptr},
    {"self_attn.v_proj.weight", "attn_v.weight", nullptr},
    {"self_attn.o_proj.weight", "attn_output.weight", nullptr},
    {"self_attn.q_norm.weight", "attn_q_norm.weight", nullptr},
    {"self_attn.k_norm.weight", "attn_k_norm.weight", nullptr},
    {"self_attn.c_proj.weight", "attn_output.weight", nullptr},
    {"mlp.gate_proj.weight", "ffn_gate.weight", nullptr},
    {"mlp.w1.weight", "ffn_gate.weight", nullptr},
    {"mlp.up_proj.weight", "ffn_up.weight", nullptr},
    {"mlp.w3.weight", "ffn_up.weight", nullptr},
    {"mlp.down_proj.weight", "ffn_down.weight", nullptr},
    {"mlp.w2.weight", "ffn_down.weight", nullptr},
    {"input_layernorm.weight", "attn_norm.weight", nullptr},
    {"ln_1.weight", "attn_norm.weight", nullptr},
    {"post_attention_layernorm.weight", "ffn_norm.weight", "post_attention_norm.weight"},
    {"ln_2.weight", "ffn_norm.weight", "post_attention_norm.weight"},
    {"mlp.post_attention_layernorm.weight", "ffn_norm.weight", nullptr},
    {"pre_feedforward_layernorm.weight", "ffn_norm.weight", nullptr},
    {"post_feedforward_layernorm.weight", "post_ffw_norm.weight", nullptr},
    {"post_ffw_norm.weight", "post_ffw_norm.weight", nullptr},
    {"post_norm.weight", "post_norm.weight", nullptr},
    {"inp_gate.weight", "inp_gate.weight", nullptr},
    {"inp_gate_proj.weight", "inp_gate.weight", nullptr},
    {"proj.weight", "proj.weight", nullptr},
    {"layer_output_scale.weight", "layer_output_scale.weight", nullptr},
    // Not in the table: unchanged behind the layer prefix.
    {"self_attn.q_proj.bias", "self_attn.q_proj.bias", nullptr},
    {"self_attn.c_proj.bias", "self_attn.c_proj.bias", nullptr},
    {"attn.c_proj.weight", "attn.c_proj.weight", nullptr},
    {"mlp.c_fc.weight", "mlp.c_fc.weight", nullptr},
    {"some_new.weight", "some_new.weight", nullptr},
    {"Self_attn.q_proj.weight", "Self_attn.q_proj.weight", nullptr},
    {"self_attn.q_proj.weight.", "self_attn.q_proj.weight.", nullptr},
    {".self_attn.q_proj.weight", ".self_attn.q_proj.weight", nullptr},
    {"ln_1.bias", "ln_1.bias", nullptr},
    {"post_attention_norm.weight", "post_attention_norm.weight", nullptr},
    {"model.embed_tokens.weight", "model.embed_tokens.weight", nullptr},
    {"", "", nullptr},
};

class LayerSuffix : public testing::TestWithParam<SuffixRow> {};

TEST_P(LayerSuffix, IsMappedBehindBothPrefixes) {
  for (const char* prefix : {"model.layers.", "transformer.h."}) {
    for (const char* arch : {"", "llama", "qwen2", "generic", "gemm", "Gemma4", " gemma4", "xgemma"}) {
      expectRename(arch, std::string(prefix) + "3." + GetParam().source,
                   std::string("blk.3.") + GetParam().expected);
    }
  }
}

TEST_P(LayerSuffix, IsMappedForTheGemmaFamily) {
  const char* const expected = GetParam().expectedGemma ? GetParam().expectedGemma : GetParam().expected;
  for (const char* prefix : {"model.layers.", "transformer.h."}) {
    for (const char* arch : {"gemma", "gemma2", "gemma4", "gemmaXYZ"}) {
      expectRename(arch, std::string(prefix) + "3." + GetParam().source, std::string("blk.3.") + expected);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, LayerSuffix, testing::ValuesIn(kSuffixRows));

class FusedSuffix : public testing::TestWithParam<const char*> {};

TEST_P(FusedSuffix, GivesQueryKeyAndValueInThisOrder) {
  const std::string source = GetParam();
  const std::string kind = source.substr(source.rfind('.'));
  for (const char* arch : {"gpt2", "gemma4"}) {
    for (const char* prefix : {"model.layers.", "transformer.h."}) {
      expectSlices(arch, prefix + ("11." + source),
                   {"blk.11.attn_q" + kind, "blk.11.attn_k" + kind, "blk.11.attn_v" + kind});
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, FusedSuffix,
                         testing::Values("self_attn.c_attn.weight", "attn.c_attn.weight",
                                         "self_attn.c_attn.bias", "attn.c_attn.bias"));

// ---- the layer index

struct IndexRow {
  const char* digits;
  const char* expected;
};

class LayerIndex : public testing::TestWithParam<IndexRow> {};

TEST_P(LayerIndex, IsReadAsADecimalNumber) {
  expectRename("llama", "model.layers." + std::string(GetParam().digits) + ".mlp.w2.weight",
               "blk." + std::string(GetParam().expected) + ".ffn_down.weight");
}

INSTANTIATE_TEST_SUITE_P(Rows, LayerIndex,
                         testing::Values(IndexRow{"0", "0"}, IndexRow{"00", "0"}, IndexRow{"07", "7"},
                                         IndexRow{"007", "7"}, IndexRow{"10", "10"},
                                         IndexRow{"4294967296", "4294967296"},
                                         IndexRow{"18446744073709551615", "18446744073709551615"},
                                         // The arithmetic is modulo 2^64.
                                         IndexRow{"18446744073709551616", "0"},
                                         IndexRow{"18446744073709551623", "7"},
                                         // 10^20 = 5 * 2^64 + 7766279631452241920
                                         IndexRow{"100000000000000000000", "7766279631452241920"},
                                         IndexRow{"000000000000000000000000000000000000012", "12"}));

class NotALayer : public testing::TestWithParam<const char*> {};

TEST_P(NotALayer, IsReturnedUnchanged) {
  for (const char* arch : {"llama", "gemma4"})
    expectRename(arch, GetParam(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Names, NotALayer,
                         testing::Values("model.layers.x.mlp.w2.weight", "model.layers..mlp.w2.weight",
                                         "model.layers.3", "model.layers.", "model.layers", "transformer.h.",
                                         "transformer.h.3", "model.layers.+1.mlp.w2.weight",
                                         "model.layers.-1.mlp.w2.weight", "model.layers. 1.mlp.w2.weight",
                                         "model.layers.1 .mlp.w2.weight", "model.layers.1x.mlp.w2.weight",
                                         "model.layers.0x1.mlp.w2.weight", "model.layers.1e1.mlp.w2.weight",
                                         "model.layers.\xD9\xA1.mlp.w2.weight",
                                         "Model.layers.1.mlp.w2.weight", "xmodel.layers.1.mlp.w2.weight",
                                         "layers.1.mlp.w2.weight", "transformer.h1.mlp.w2.weight",
                                         "model.layer.1.mlp.w2.weight", "model.embed_tokens.bias",
                                         "fc1.weight", ".", "w"));

TEST(NameMapping, RefusesOnlyTheEmptyName) {
  const MappedName mapped = toOkvName("llama", "");
  EXPECT_FALSE(mapped.ok);
  EXPECT_EQ(mapped.name, "");
  EXPECT_TRUE(mapped.slices.empty());
}

TEST(NameMapping, KeepsNulBytesOfAnUnknownName) {
  const std::string name("a\0b", 3);
  expectRename("llama", name, name);
}

TEST(NameMapping, ComparesASuffixWithANulBehindItAsAnother) {
  const std::string nul(1, '\0');
  expectRename("llama", "model.layers.1.mlp.w2.weight" + nul, "blk.1.mlp.w2.weight" + nul);
}

TEST(NameMapping, TakesTheIndexUpToTheFirstDotOnly) {
  expectRename("llama", "model.layers.1.2.mlp.w2.weight", "blk.1.2.mlp.w2.weight");
}

}  // namespace
}  // namespace zel::test
