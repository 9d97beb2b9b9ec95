// config.json: nested settings, other spellings, computed sizes and Gemma 4's layers.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "okv2/prepare/config_table.h"
#include "prepare_directory_support.h"

namespace zel::tool::prepare {
namespace {

using test::ModelDirBuilder;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(MendConfig, GivesACompleteConfigurationBackByteForByte) {
  const std::string text = R"( {"model_type" : "x", "hidden_size":8, "num_hidden_layers": 2} )";
  const PreparedDirectory directory(withConfig(text));
  EXPECT_EQ(directory.text("config.json"), text);
  EXPECT_THAT(directory.changes(), IsEmpty());
}

TEST(MendConfig, LiftsTheSettingsOfTheTextModel) {
  const PreparedDirectory directory(withConfig(
      R"({"model_type":"x","text_config":{"hidden_size":8,"num_hidden_layers":2,"num_attention_heads":4,)"
      R"("num_key_value_heads":1,"intermediate_size":16,"vocab_size":4,"max_position_embeddings":32,)"
      R"("rope_theta":5000.0,"rms_norm_eps":0.5},"vision_config":{"hidden_size":99}})"));
  const HfImporter& model = directory.model;
  EXPECT_EQ(model.hiddenSize, 8);
  EXPECT_EQ(model.numLayers, 2);
  EXPECT_EQ(model.numHeads, 4);
  EXPECT_EQ(model.numKvHeads, 1);
  EXPECT_EQ(model.intermediateSize, 16);
  EXPECT_EQ(model.vocabSize, 4);
  EXPECT_EQ(model.contextLength, 32);
  EXPECT_EQ(model.ropeTheta, 5000.0F);
  EXPECT_EQ(model.rmsNormEps, 0.5F);
  EXPECT_THAT(directory.changes(), Contains("config.json | $.hidden_size |  | 8 | config.nested"));
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(MendConfig, KnowsEverySpellingOfTheNestedDescription) {
  for (const NestedRow& row : kNestedRows) {
    const std::string inner = row.inner == nullptr
                                  ? R"({"hidden_size":8})"
                                  : "{\"" + std::string(row.inner) + R"(":{"hidden_size":8}})";
    const PreparedDirectory directory(
        withConfig(R"({"model_type":"x",")" + std::string(row.outer) + "\":" + inner + "}"));
    EXPECT_EQ(directory.model.hiddenSize, 8) << row.outer;
  }
}

TEST(MendConfig, KeepsWhatTheTopLevelGives) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"x","hidden_size":9,"n_embd":7,"text_config":{"hidden_size":8}})"));
  EXPECT_EQ(directory.model.hiddenSize, 9);
  EXPECT_THAT(directory.changes(), IsEmpty());
}

TEST(MendConfig, PrefersTheTextModelsSpellingsToThoseOfTheTopLevel) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"x","n_embd":7,"text_config":{"d_model":8}})"));
  EXPECT_EQ(directory.model.hiddenSize, 8);
}

TEST(MendConfig, ReplacesNullZeroAndTextOfAKeyThatAnotherSpellingGives) {
  for (const char* useless : {"null", "0", "\"8\"", "8.5"}) {
    const PreparedDirectory directory(
        withConfig(R"({"model_type":"x","hidden_size":)" + std::string(useless) + R"(,"n_embd":8})"));
    EXPECT_EQ(directory.model.hiddenSize, 8) << useless;
  }
}

// Sets a member, or a member of a member: "a.b".
void put(Json& object, std::string_view path, const Json& value) {
  const std::size_t dot = path.find('.');
  Json& member = object[std::string(path.substr(0, dot))];
  if (dot == std::string_view::npos) {
    member = value;
  } else {
    put(member, path.substr(dot + 1), value);
  }
}

std::string topLevelOf(const PreparedDirectory& directory, const char* key) {
  const json::Value* value = directory.model.config.get(key);
  return value == nullptr ? "absent" : std::to_string(value->number);
}

TEST(MendConfig, ReadsEveryRowOfTheSynonyms) {
  for (const SynonymRow& row : kSynonymRows) {
    Json config = {{"model_type", row.onlyFor == nullptr ? "x" : row.onlyFor}};
    put(config, row.published, 48);
    if (row.needsTrue != nullptr) put(config, row.needsTrue, true);
    EXPECT_EQ(topLevelOf(PreparedDirectory(withConfig(config.dump())), row.read), "48.000000")
        << row.published;
  }
}

TEST(MendConfig, ReadsASynonymOfOneClassInThatClassOnly) {
  for (const SynonymRow& row : kSynonymRows) {
    if (row.onlyFor == nullptr) continue;
    Json config = {{"model_type", "x"}};
    put(config, row.published, 48);
    EXPECT_EQ(topLevelOf(PreparedDirectory(withConfig(config.dump())), row.read), "absent") << row.published;
  }
}

TEST(MendConfig, TakesNoRopeBaseForAModelWithoutRope) {
  const auto baseOf = [](const std::string& rope) {
    return topLevelOf(PreparedDirectory(withConfig(R"({"model_type":"mpt","attn_config":{"alibi":true,)" +
                                                   rope + R"("rope_theta":10000}})")),
                      "rope_theta");
  };
  EXPECT_EQ(baseOf(R"("rope":true,)"), "10000.000000");
  EXPECT_EQ(baseOf(R"("rope":false,)"), "absent");
  EXPECT_EQ(baseOf(""), "absent");  // MPTConfig has it off
}

TEST(MendConfig, TakesTheFirstRowOfSeveralSynonyms) {
  const PreparedDirectory directory(withConfig(R"({"model_type":"x","n_positions":6144,"seq_length":2048})"));
  EXPECT_EQ(directory.model.contextLength, 2048);
}

TEST(MendConfig, PassesOverSynonymsThatSayNothing) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"x","n_inner":null,"d_ff":12.5,"ffn_dim":16})"));
  EXPECT_EQ(directory.model.intermediateSize, 16);
}

// Makes the condition of a row true.
void meet(const Condition& condition, Json& config) {
  switch (condition.test) {
    case Test::None: break;
    case Test::IsNull: put(config, condition.key, nullptr); break;
    case Test::IsTrue:
    case Test::IsTrueOrAbsent: put(config, condition.key, true); break;
    case Test::IsFalse:
    case Test::IsNotTrue: put(config, condition.key, false); break;
    case Test::IsText: put(config, condition.key, condition.text); break;
  }
}

TEST(MendConfig, ComputesEverySizeThatAClassComputes) {
  for (const RuleRow& row : kDefaultRows) {
    // The last member keeps Falcon's other rule away.
    Json config = {{"model_type", row.modelType}, {"multi_query", false}};
    double expected = double(row.factor);
    for (const char* key : {row.from, row.times}) {
      if (key == nullptr) continue;
      put(config, key, 16);
      expected *= 16;
    }
    meet(row.condition, config);
    meet(row.andCondition, config);
    EXPECT_EQ(topLevelOf(PreparedDirectory(withConfig(config.dump())), row.read), std::to_string(expected))
        << row.modelType << " " << row.read;
  }
}

// The key heads of a configuration with 71 heads and `members`.
std::string keyHeadsOf(const char* modelType, const std::string& members) {
  return topLevelOf(PreparedDirectory(withConfig(R"({"num_attention_heads":71,"model_type":")" +
                                                 std::string(modelType) + "\"" + members + "}")),
                    "num_key_value_heads");
}

TEST(MendFalcon, HasOneKeyHeadWithMultiQueryUnlessItIsOfTheNewKind) {
  EXPECT_EQ(keyHeadsOf("falcon", R"(,"num_kv_heads":71,"multi_query":true,"new_decoder_architecture":false)"),
            "1.000000");
  EXPECT_EQ(keyHeadsOf("falcon", R"(,"num_kv_heads":71)"), "1.000000");  // the class's defaults
  EXPECT_EQ(keyHeadsOf("falcon", R"(,"num_kv_heads":71,"multi_query":false)"), "71.000000");
  EXPECT_EQ(keyHeadsOf("falcon", R"(,"num_kv_heads":8,"multi_query":true,"new_decoder_architecture":true)"),
            "8.000000");
  EXPECT_EQ(keyHeadsOf("falcon", R"(,"new_decoder_architecture":true)"), "71.000000");
}

TEST(MendFalcon, HasOneKeyHeadWithMultiQueryInTheFirstRelease) {
  EXPECT_EQ(keyHeadsOf("RefinedWebModel", R"(,"multi_query":true)"), "1.000000");
  EXPECT_EQ(keyHeadsOf("RefinedWebModel", R"(,"multi_query":false)"), "71.000000");
  EXPECT_EQ(keyHeadsOf("RefinedWebModel", ""), "absent");
}

TEST(MendConfig, GivesGptBigCodeOneKeyHeadWithMultiQuery) {
  EXPECT_EQ(keyHeadsOf("gpt_bigcode", R"(,"multi_query":true)"), "1.000000");
  EXPECT_EQ(keyHeadsOf("gpt_bigcode", ""), "1.000000");
  EXPECT_EQ(keyHeadsOf("gpt_bigcode", R"(,"multi_query":false)"), "71.000000");
}

TEST(MendConfig, TakesAnAbsentNumberOfKeyHeadsForNullOnlyWhereTheClassDoes) {
  for (const char* modelType : {"mistral", "qwen2"}) {
    EXPECT_EQ(keyHeadsOf(modelType, R"(,"num_key_value_heads":null)"), "71.000000") << modelType;
    EXPECT_EQ(keyHeadsOf(modelType, ""), "absent") << modelType;
  }
  EXPECT_EQ(keyHeadsOf("llama", ""), "71.000000");
}

TEST(MendConfig, NamesEverySizeThatIsGivenNowhere) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"x","text_config":{"vocab_size":4},"vision_config":{"depth":3}})"));
  std::vector<std::string> missing;
  for (const explain::Finding& finding : directory.prepared.explanation.findings) {
    if (finding.id == explain::Id::ConfigSizeMissing) missing.push_back(finding.subject);
  }
  EXPECT_THAT(missing, ElementsAre("hidden_size", "num_hidden_layers", "num_attention_heads",
                                   "num_key_value_heads", "intermediate_size"));
  EXPECT_THAT(PreparedDirectory(withConfig(completeConfig())).remaining(), IsEmpty());
}

// ---- the first Qwen, whose class halves the width of its MLP

std::string widthOf(const PreparedDirectory& directory) { return topLevelOf(directory, "intermediate_size"); }

TEST(MendQwen, HalvesTheWidthThatItsClassHalves) {
  for (const char* config : {R"({"model_type":"qwen","intermediate_size":22016})",
                             R"({"architectures":["QWenLMHeadModel"],"intermediate_size":22016})",
                             R"({"model_type":"qwen","ffn_hidden_size":22016})",
                             R"({"model_type":"qwen","intermediate_size":22016,"ffn_hidden_size":22016})"}) {
    EXPECT_EQ(widthOf(PreparedDirectory(withConfig(config))), "11008.000000") << config;
  }
}

TEST(MendQwen, SaysWhatItReplaces) {
  const PreparedDirectory directory(withConfig(R"({"model_type":"qwen","intermediate_size":22016})"));
  EXPECT_THAT(directory.changes(),
              ElementsAre("config.json | $.ffn_hidden_size |  | 22016 | config.key-not-read",
                          "config.json | $.intermediate_size | 22016 | 11008 | config.key-not-read"));
}

TEST(MendQwen, HalvesNothingTwice) {
  const PreparedDirectory first(withConfig(R"({"model_type":"qwen","intermediate_size":22016})"));
  const PreparedDirectory second(withConfig(first.text("config.json")));
  EXPECT_EQ(widthOf(second), "11008.000000");
  EXPECT_THAT(second.changes(), IsEmpty());
}

TEST(MendQwen, HalvesNothingOfItsSuccessors) {
  EXPECT_EQ(widthOf(PreparedDirectory(withConfig(R"({"model_type":"qwen2","intermediate_size":22016})"))),
            "22016.000000");
}

TEST(MendConfig, ComputesNothingForOtherArchitectures) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"x","num_attention_heads":16,"hidden_size":8})"));
  EXPECT_EQ(topLevelOf(directory, "num_key_value_heads"), "absent");
  EXPECT_EQ(topLevelOf(directory, "intermediate_size"), "absent");
}

TEST(MendConfig, ComputesNoSizeThatADoubleCannotHold) {
  const auto sizeFor = [](const char* hidden) {
    return topLevelOf(
        PreparedDirectory(withConfig(R"({"model_type":"gpt2","hidden_size":)" + std::string(hidden) + "}")),
        "intermediate_size");
  };
  EXPECT_EQ(sizeFor("2251799813685248"), "9007199254740992.000000");  // 2^53
  EXPECT_EQ(sizeFor("2251799813685249"), "absent");
  EXPECT_EQ(sizeFor("9223372036854775807"), "absent");
}

TEST(MendConfig, TakesTheModelTypeFromTheTextModelWhenThereIsNoOther) {
  const PreparedDirectory directory(withConfig(R"({"text_config":{"model_type":"llama"}})"));
  EXPECT_EQ(directory.model.arch, "llama");
  EXPECT_EQ(PreparedDirectory(withConfig(R"({"architectures":["Y"],"text_config":{"model_type":"llama"}})"))
                .model.arch,
            "Y");
}

// ---- lists of ids

TEST(MendConfig, MovesAListOfEndIdsToTheGenerationConfiguration) {
  const PreparedDirectory directory(withConfig(completeConfig(R"("eos_token_id":[2,3])")));
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
  EXPECT_EQ(Json::parse(directory.text("generation_config.json")), Json::parse(R"({"eos_token_id":[2,3]})"));
  EXPECT_THAT(directory.changes(),
              ElementsAre("generation_config.json | $.eos_token_id |  | [2,3] | config.eos-list",
                          "config.json | $.eos_token_id | [2,3] | 2 | config.eos-list"));
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(MendConfig, LeavesTheGenerationConfigurationWhenItHasTheSameList) {
  const std::string text = R"({"eos_token_id":[2,3]})";
  const PreparedDirectory directory(
      withConfig(completeConfig(R"("eos_token_id":[2,3])")).file("generation_config.json", text));
  EXPECT_EQ(directory.text("generation_config.json"), text);
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(MendConfig, LeavesAListThatTheGenerationConfigurationContradicts) {
  const PreparedDirectory directory(withConfig(completeConfig(R"("eos_token_id":[2,3])"))
                                        .file("generation_config.json", R"({"eos_token_id":[1]})"));
  EXPECT_THAT(directory.changes(), IsEmpty());
  EXPECT_THAT(directory.remaining(), ElementsAre("config.eos-list"));
}

TEST(MendConfig, TakesTheFirstEndIdThatIsNotNegative) {
  const PreparedDirectory directory(withConfig(completeConfig(R"("eos_token_id":[-1,2])")));
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
  EXPECT_THAT(directory.changes(),
              ElementsAre("generation_config.json | $.eos_token_id |  | [-1,2] | config.eos-list",
                          "config.json | $.eos_token_id | [-1,2] | 2 | config.eos-list"));
}

TEST(MendConfig, LeavesAListThatHasNoEndId) {
  const std::string text = completeConfig(R"("eos_token_id":[-1])");
  const PreparedDirectory directory(withConfig(text));
  EXPECT_EQ(directory.text("config.json"), text);
  EXPECT_FALSE(directory.has("generation_config.json"));
}

TEST(MendConfig, MovesANestedListOfEndIdsToo) {
  const PreparedDirectory directory(withConfig(completeConfig(R"("text_config":{"eos_token_id":[3,1]})")));
  EXPECT_EQ(directory.model.tokenizer.eosId, 3);
  EXPECT_EQ(Json::parse(directory.text("generation_config.json")), Json::parse(R"({"eos_token_id":[3,1]})"));
  EXPECT_THAT(directory.changes(),
              ElementsAre("config.json | $.eos_token_id |  | 3 | tokenizer.special-id-outside",
                          "generation_config.json | $.eos_token_id |  | [3,1] | config.eos-list"));
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(MendConfig, MovesNoNestedListOfTheIdThatIsKept) {
  const PreparedDirectory directory(withConfig(completeConfig(R"("text_config":{"eos_token_id":[3]})")));
  EXPECT_EQ(directory.model.tokenizer.eosId, 3);
  EXPECT_FALSE(directory.has("generation_config.json"));
}

TEST(MendConfig, MovesNoNestedListThatTheTopLevelOverrules) {
  const PreparedDirectory directory(
      withConfig(completeConfig(R"("eos_token_id":2,"text_config":{"eos_token_id":[3,1]})")));
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
  EXPECT_FALSE(directory.has("generation_config.json"));
  EXPECT_THAT(directory.changes(), IsEmpty());
}

TEST(MendConfig, NamesANestedListThatTheGenerationConfigurationContradicts) {
  const auto lossesBeside = [](const std::string& generation) {
    return PreparedDirectory(withConfig(completeConfig(R"("text_config":{"eos_token_id":[3,1]})"))
                                 .file("generation_config.json", generation))
        .losses();
  };
  EXPECT_THAT(lossesBeside(R"({"eos_token_id":[3,2]})"),
              ElementsAre("config.eos-list | text_config.eos_token_id | config.json: "
                          "$.text_config.eos_token_id is [3,1]; generation_config.json has [3,2]"));
  EXPECT_THAT(lossesBeside(R"({"eos_token_id":[1,2,3]})"), IsEmpty());
  EXPECT_THAT(lossesBeside(R"({"eos_token_id":null})"), IsEmpty());
}

// ---- Gemma 4

constexpr char kGemma4[] =
    R"({"model_type":"gemma4","text_config":{"model_type":"gemma4_text","hidden_size":1536,)"
    R"("num_hidden_layers":6,"num_attention_heads":8,"num_key_value_heads":1,"intermediate_size":6144,)"
    R"("vocab_size":262144,"max_position_embeddings":131072,"rms_norm_eps":1e-06,)"
    R"("final_logit_softcapping":30.0,"head_dim":256,"global_head_dim":512,"num_kv_shared_layers":20,)"
    R"("hidden_size_per_layer_input":256,"sliding_window":512,)"
    R"("rope_parameters":{"full_attention":{"rope_theta":1000000.0,"rope_type":"proportional"},)"
    R"("sliding_attention":{"rope_theta":10000.0,"rope_type":"default"}},)"
    R"("layer_types":["sliding_attention","sliding_attention","full_attention",)"
    R"("sliding_attention","sliding_attention","full_attention"]}})";

TEST(MendGemma4, DerivesEverySettingFromThePublishedKeys) {
  const PreparedDirectory directory(withConfig(kGemma4));
  const HfImporter& model = directory.model;
  EXPECT_EQ(model.arch, "gemma4");
  EXPECT_EQ(model.hiddenSize, 1536);
  EXPECT_EQ(model.numLayers, 6);
  EXPECT_EQ(model.headDim, 512);     // of the layers with full attention
  EXPECT_EQ(model.headDimSwa, 256);  // of the sliding-window layers
  EXPECT_EQ(model.sharedKvLayers, 20);
  EXPECT_EQ(model.perLayerInputDim, 256);
  EXPECT_EQ(model.slidingWindow, 512);
  EXPECT_EQ(model.ropeTheta, 1000000.0F);
  EXPECT_EQ(model.logitSoftcap, 30.0F);
  EXPECT_THAT(model.swaPattern, ElementsAre(1, 1, 0, 1, 1, 0));
  EXPECT_THAT(directory.remaining(), ElementsAre("config.rope-scaling"));  // "proportional" has no item
}

TEST(MendGemma4, ReadsTheTextModelAlone) {
  const PreparedDirectory directory(withConfig(
      R"({"model_type":"gemma4_text","head_dim":256,"global_head_dim":512,"layer_types":["full_attention"]})"));
  EXPECT_EQ(directory.model.arch, "gemma4");
  EXPECT_EQ(directory.model.name, "gemma4_text");
  EXPECT_EQ(directory.model.headDim, 512);
  EXPECT_EQ(directory.model.headDimSwa, 256);
  EXPECT_THAT(directory.model.swaPattern, ElementsAre(0));
}

TEST(MendGemma4, KnowsTheModelByEveryNameThatAnImportMaps) {
  for (const char* name : {R"("model_type":"gemma4")", R"("model_type":"Gemma4ForCausalLM")",
                           R"("architectures":["Gemma4ForCausalLM"])", R"("architectures":"gemma4")"}) {
    const PreparedDirectory directory(withConfig("{" + std::string(name) + R"(,"global_head_dim":512})"));
    EXPECT_EQ(directory.model.headDim, 512) << name;
  }
}

TEST(MendGemma4, DerivesThePatternFromItsPeriod) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"gemma4","num_hidden_layers":6,"sliding_window_pattern":3})"));
  EXPECT_THAT(directory.model.swaPattern, ElementsAre(1, 1, 0, 1, 1, 0));
}

TEST(MendGemma4, NamesAListOfLayersThatHasAnotherLengthThanTheModel) {
  const auto directoryWith = [](const std::string& types) {
    return PreparedDirectory(withConfig(R"({"model_type":"gemma4",)" + std::string(kAllSizes) +
                                        R"(,"text_config":{"num_hidden_layers":2,"layer_types":[)" + types +
                                        "]}}"));
  };
  const std::string full = R"("full_attention")";
  const PreparedDirectory whole = directoryWith(full + "," + full);
  EXPECT_THAT(whole.model.swaPattern, ElementsAre(0, 0));
  EXPECT_THAT(whole.remaining(), IsEmpty());
  const std::pair<std::string, const char*> others[] = {{full, "1"}, {full + "," + full + "," + full, "3"}};
  for (const auto& [types, count] : others) {
    const PreparedDirectory directory = directoryWith(types);
    EXPECT_THAT(directory.model.swaPattern, IsEmpty());
    EXPECT_EQ(Json::parse(directory.text("prepare.json"))["remaining"],
              (Json::array({{{"finding", "config.not-carried"},
                             {"subject", "layer_types"},
                             {"detail", std::string("config.json: $.text_config.layer_types names ") + count +
                                            " layers, and $.text_config.num_hidden_layers is 2"}}})));
  }
}

TEST(MendGemma4, DerivesNoPatternThatEndsInASlidingWindow) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"gemma4",)" + std::string(kAllSizes) + R"(,"sliding_window_pattern":3})"));
  EXPECT_THAT(directory.model.swaPattern, IsEmpty());
  EXPECT_THAT(directory.remaining(), ElementsAre("config.not-carried"));
}

TEST(MendGemma4, NamesTheSettingsThatHaveNoItem) {
  const auto remainingWith = [](const std::string& setting) {
    return PreparedDirectory(withConfig(R"({"model_type":"gemma4",)" + std::string(kAllSizes) +
                                        ",\"text_config\":{" + setting + "}}"))
        .remaining();
  };
  for (const char* setting : {R"("num_global_key_value_heads":2)", R"("use_double_wide_mlp":true)",
                              R"("attention_k_eq_v":true)", R"("enable_moe_block":true)"}) {
    EXPECT_THAT(remainingWith(setting), ElementsAre("config.not-carried")) << setting;
  }
  for (const char* setting : {R"("num_global_key_value_heads":null)", R"("use_double_wide_mlp":false)"})
    EXPECT_THAT(remainingWith(setting), IsEmpty()) << setting;
}

TEST(MendGemma4, DerivesNoPatternForMoreLayersThanAModelHas) {
  const auto layersOf = [](const char* layers) {
    return PreparedDirectory(
               withConfig(R"({"model_type":"gemma4","sliding_window_pattern":1,"num_hidden_layers":)" +
                          std::string(layers) + "}"))
        .model.swaPattern.size();
  };
  EXPECT_EQ(layersOf("100000"), 100000U);
  EXPECT_EQ(layersOf("100001"), 0U);
}

TEST(MendGemma4, DerivesNoPatternFromLayersOfAnotherKind) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"gemma4","layer_types":["sliding_attention","linear_attention"]})"));
  EXPECT_THAT(directory.model.swaPattern, IsEmpty());
}

TEST(MendGemma4, KeepsAPatternThatIsGiven) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"gemma4","swa_pattern":[0,1],"layer_types":["full_attention"]})"));
  EXPECT_THAT(directory.model.swaPattern, ElementsAre(0, 1));
}

TEST(MendGemma4, LetsNoOtherCapPassForTheFinalOne) {
  for (
      const char* config :
      {R"({"model_type":"gemma4","final_logit_softcapping":30.0,"attn_logit_softcapping":50.0})",
       R"({"model_type":"gemma4","text_config":{"final_logit_softcapping":30.0,"attn_logit_softcapping":50.0}})"}) {
    EXPECT_EQ(PreparedDirectory(withConfig(config)).model.logitSoftcap, 30.0F) << config;
  }
}

TEST(MendGemma4, NamesARopeBaseThatAnImportWillDeriveOtherwise) {
  struct Place {
    const char* where;
    const char* end;
  };
  for (const Place& place : {Place{R"("rope_local_base_freq":)", ""},
                             Place{R"("rope_parameters":{"sliding_attention":{"rope_theta":)", "}}"}}) {
    const auto directoryFor = [&place](const std::string& sliding) {
      return PreparedDirectory(withConfig(R"({"model_type":"gemma4",)" + std::string(kAllSizes) +
                                          R"(,"rope_theta":1000000.0,"text_config":{)" + place.where +
                                          sliding + place.end + "}}"));
    };
    EXPECT_THAT(directoryFor("10000.0").remaining(), IsEmpty()) << place.where;
    const PreparedDirectory other = directoryFor("20000.0");
    EXPECT_THAT(other.changes(), IsEmpty()) << place.where;
    EXPECT_THAT(other.remaining(), ElementsAre("config.swa-rope")) << place.where;
  }
}

TEST(MendConfig, DerivesNothingOfGemma4ForOthers) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"gemma3","global_head_dim":512,"layer_types":["full_attention"]})"));
  EXPECT_THAT(directory.changes(), IsEmpty());
}

// ---- damaged files

TEST(MendConfig, RefusesFilesThatAreNoJsonObject) {
  EXPECT_EQ(refusalOfDirectory(withConfig("{")),
            (Refusal{7, "config.bad-json", "config.json: byte 1: json: object key",
                     "Mend config.json, or fetch it again."}));
  EXPECT_EQ(refusalOfDirectory(withConfig("[]")),
            (Refusal{7, "config.not-object", "config.json: $ is no object",
                     "Mend config.json, or fetch it again."}));
  EXPECT_EQ(refusalOfDirectory(withConfig("{}").file("generation_config.json", "[1,]")),
            (Refusal{7, "side.bad-json", "generation_config.json: byte 3: json: unexpected char",
                     "Mend generation_config.json, or fetch it again."}));
  EXPECT_EQ(refusalOfDirectory(ModelDirBuilder().without("config.json")),
            (Refusal{2, "config.missing", "config.json: there is none that can be read",
                     "Put the model's config.json into the directory."}));
}

}  // namespace
}  // namespace zel::tool::prepare
