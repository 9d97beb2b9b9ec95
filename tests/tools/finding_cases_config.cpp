// What config.json can hold.
#include <string>
#include <vector>

#include "tools/finding_cases.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;

ModelDirBuilder goodModelWith(const std::string& config) { return goodModel().config(config); }
ModelDirBuilder gemma4With(const std::string& members) {
  return goodModelWith(R"({"model_type":"gemma4",)" + members + "}");
}

}  // namespace

std::vector<FindingCase> configCases() {
  return {
      {Id::ConfigMissing, "Absent", goodModel().without("config.json"),
       R"(fatal config.missing: config.json
  There is no readable config.json.
  Why: Every import begins with this file, and an empty file counts as unreadable.
  Do:  Put the model's config.json into the directory.
)",
       goodModel()},
      {Id::ConfigMissing,
       "Empty",
       goodModelWith(""),
       R"(fatal config.missing: config.json
  There is no readable config.json.
  Why: Every import begins with this file, and an empty file counts as unreadable.
  Do:  Put the model's config.json into the directory.
)",
       goodModelWith("7"),
       {"file.empty"}},
      {Id::ConfigBadJson, "TrailingComma", goodModelWith(R"({"model_type":"llama",})"),
       R"(fatal config.bad-json: config.json
  byte 22: json: object key
  config.json is not JSON.
  Why: The file is parsed by RFC 8259, without comments or trailing commas.
  Do:  Mend the file at the byte that is named, or fetch it again.
)",
       goodModelWith(R"({"model_type":"llama"})")},
      {Id::ConfigNotObject, "Array", goodModelWith("[]"),
       R"(fatal config.not-object: config.json
  $ is an array
  config.json holds something other than a JSON object.
  Why: The settings are looked up as members of an object.
  Do:  Put the model's own config.json there.
)",
       goodModelWith("{}")},
      {Id::ConfigNoModelType, "NoArchitecture", goodModelWith(R"({"architectures":[]})"),
       R"(fatal config.no-model-type: config.json
  config.json names no architecture.
  Why: It needs a text "model_type", or a text as the first entry of "architectures".
  Do:  Add "model_type" to config.json.
)",
       goodModelWith(R"({"architectures":["x"]})")},
      {Id::ConfigNoModelType, "EmptyModelType", goodModelWith(R"({"model_type":"","architectures":["x"]})"),
       R"(fatal config.no-model-type: config.json
  config.json names no architecture.
  Why: It needs a text "model_type", or a text as the first entry of "architectures".
  Do:  Add "model_type" to config.json.
)",
       goodModelWith(R"({"model_type":7,"architectures":["x"]})")},
      {Id::ConfigKeyNotRead, "OtherSpelling", llamaWith(R"("n_embd":8)"),
       R"(loss config.key-not-read: n_embd
  config.json: $.n_embd is 8; $.hidden_size is read, and stays 0
  A size is given under a key that is not read.
  Why: Only one spelling of each key is known, so the field stays 0 and its metadata item is left out; vocab_size alone becomes the number of tokens.
  Do:  Run okv2 prepare DIR OUT: it brings the value to the key that is read.
)",
       llamaWith(R"("n_embd":8,"hidden_size":9)")},
      {Id::ConfigKeyNotRead, "VocabularyPadded", llamaWith(R"("padded_vocab_size":5)"),
       R"(loss config.key-not-read: padded_vocab_size
  config.json: $.padded_vocab_size is 5; $.vocab_size is read, and becomes the number of tokens, 4
  A size is given under a key that is not read.
  Why: Only one spelling of each key is known, so the field stays 0 and its metadata item is left out; vocab_size alone becomes the number of tokens.
  Do:  Run okv2 prepare DIR OUT: it brings the value to the key that is read.
)",
       llamaWith(R"("padded_vocab_size":4)")},
      {Id::ConfigKeyNotRead,
       "VocabularyWithoutTokens",
       llamaWith(R"("n_vocab":4)").without("tokenizer.json"),
       R"(loss config.key-not-read: n_vocab
  config.json: $.n_vocab is 4; $.vocab_size is read, and stays 0
  A size is given under a key that is not read.
  Why: Only one spelling of each key is known, so the field stays 0 and its metadata item is left out; vocab_size alone becomes the number of tokens.
  Do:  Run okv2 prepare DIR OUT: it brings the value to the key that is read.
)",
       llamaWith(R"("n_vocab":4)"),
       {"tokenizer.none", "tokenizer.empty"}},
      {Id::ConfigNested, "Vocabulary", llamaWith(R"("text_config":{"vocab_size":5})"),
       R"(loss config.nested: text_config
  config.json: $.text_config.vocab_size is 5
  Settings lie in a nested object.
  Why: Only the top level of config.json is read, so the fields stay 0; vocab_size alone becomes the number of tokens.
  Do:  Run okv2 prepare DIR OUT: it brings the settings to the top level.
)",
       llamaWith(R"("text_config":{"vocab_size":4})")},
      {Id::ConfigNested, "TextConfig", llamaWith(R"("text_config":{"hidden_size":9})"),
       R"(loss config.nested: text_config
  config.json: $.text_config.hidden_size is 9
  Settings lie in a nested object.
  Why: Only the top level of config.json is read, so the fields stay 0; vocab_size alone becomes the number of tokens.
  Do:  Run okv2 prepare DIR OUT: it brings the settings to the top level.
)",
       llamaWith(R"("text_config":{"hidden_size":9},"hidden_size":9)")},
      {Id::ConfigNested, "BaseOfRotaryPositions",
       llamaWith(R"("text_config":{"rope_parameters":{"rope_theta":1000000,"rope_type":"default"}})"),
       R"(loss config.nested: text_config
  config.json: $.text_config.rope_parameters.rope_theta is 1000000
  Settings lie in a nested object.
  Why: Only the top level of config.json is read, so the fields stay 0; vocab_size alone becomes the number of tokens.
  Do:  Run okv2 prepare DIR OUT: it brings the settings to the top level.
)",
       llamaWith(
           R"("rope_theta":1000000,"text_config":{"rope_parameters":{"rope_theta":1000000,"rope_type":"default"}})")},
      {Id::ConfigRopeScaling, "Nested", llamaWith(R"("text_config":{"rope_scaling":{"factor":2}})"),
       R"(loss config.rope-scaling: text_config.rope_scaling
  config.json: $.text_config.rope_scaling is {"factor": 2}
  The scaling of rotary positions is not read.
  Why: The container has no item for it, and a model that needs it will be wrong at long contexts.
  Do:  Configure it in the consumer of the container.
)",
       llamaWith(R"("text_config":{"rope_scaling":null})")},
      {Id::ConfigQuantization, "Nested", llamaWith(R"("text_config":{"quantization_config":{"bits":4}})"),
       R"(loss config.quantization: text_config.quantization_config
  config.json: $.text_config.quantization_config is {"bits": 4}
  The quantisation settings are not read.
  Why: Packed weights pass through as plain tensors without what is needed to unpack them.
  Do:  Import the model before quantisation.
)",
       llamaWith(R"("vision_config":{"quantization_config":{"bits":4}})")},
      {Id::ConfigEosList, "Nested", llamaWith(R"("text_config":{"eos_token_id":[1,2]})"),
       R"(loss config.eos-list: text_config.eos_token_id
  config.json: $.text_config.eos_token_id is [1, 2]
  Of several end-of-sequence ids at most the first is kept.
  Why: The container has room for one id.
  Do:  Run okv2 prepare DIR OUT: it moves the list to generation_config.json, which is kept as text.
)",
       llamaWith(R"("eos_token_id":1,"text_config":{"eos_token_id":[1,2]})")},
      {Id::ConfigRopeScaling, "Given", llamaWith(R"("rope_scaling":{"type":"linear","factor":2.5})"),
       R"(loss config.rope-scaling: rope_scaling
  config.json: $.rope_scaling is {"type": "linear", "factor": 2.5}
  The scaling of rotary positions is not read.
  Why: The container has no item for it, and a model that needs it will be wrong at long contexts.
  Do:  Configure it in the consumer of the container.
)",
       llamaWith(R"("rope_scaling":null)")},
      {Id::ConfigQuantization, "Given", llamaWith(R"("quantization_config":{"bits":4})"),
       R"(loss config.quantization: quantization_config
  config.json: $.quantization_config is {"bits": 4}
  The quantisation settings are not read.
  Why: Packed weights pass through as plain tensors without what is needed to unpack them.
  Do:  Import the model before quantisation.
)",
       llamaWith(R"("quantization_config":null)")},
      {Id::ConfigWrongKind, "Fraction", llamaWith(R"("hidden_size":8.5)"),
       R"(loss config.wrong-kind: hidden_size
  config.json: $.hidden_size is 8.5
  A key that is read holds a value of the wrong kind.
  Why: Integers must be whole numbers of at most 64 bits and other settings must be of their kind; anything else is not taken.
  Do:  Correct the value in config.json.
)",
       llamaWith(R"("hidden_size":8.0)")},
      {Id::ConfigWrongKind, "SpecialIdAsText", llamaWith(R"("pad_token_id":"3")"),
       R"(loss config.wrong-kind: pad_token_id
  config.json: $.pad_token_id is "3"
  A key that is read holds a value of the wrong kind.
  Why: Integers must be whole numbers of at most 64 bits and other settings must be of their kind; anything else is not taken.
  Do:  Correct the value in config.json.
)",
       llamaWith(R"("pad_token_id":3)")},
      {Id::ConfigValueChanged, "Negative", llamaWith(R"("hidden_size":-1)"),
       R"(loss config.value-changed: hidden_size
  config.json: $.hidden_size is -1, and model.hidden_size is written as 18446744073709551615
  A number of config.json does not reach the container as it is.
  Why: Items hold unsigned numbers of 64 or 32 bits, single-precision floats above 0, or lists of bytes; what does not fit is cut or left out.
  Do:  Correct the value in config.json.
)",
       llamaWith(R"("hidden_size":0)")},
      {Id::ConfigIdNotKept, "BesideATokenizerModel",
       llamaWith(R"("bos_token_id":0)")
           .without("tokenizer.json")
           .file("tokenizer.model", goodTokenizerModel()),
       R"(loss config.id-not-kept: bos_token_id
  config.json: $.bos_token_id is 0, the container gets -1
  A special id of config.json is not the one that is stored.
  Why: Only a tokenizer.json takes these ids, with 32 bits; tokenizer.model brings its own.
  Do:  Set it in the consumer of the container.
)",
       llamaWith(R"("bos_token_id":-1)")
           .without("tokenizer.json")
           .file("tokenizer.model", goodTokenizerModel())},
      {Id::ConfigIdNotKept, "OfThirtyThreeBits", llamaWith(R"("bos_token_id":4294967297)"),
       R"(loss config.id-not-kept: bos_token_id
  config.json: $.bos_token_id is 4294967297, the container gets 1
  A special id of config.json is not the one that is stored.
  Why: Only a tokenizer.json takes these ids, with 32 bits; tokenizer.model brings its own.
  Do:  Set it in the consumer of the container.
)",
       llamaWith(R"("bos_token_id":1)")},
      {Id::ConfigSizeMissing, "Heads",
       goodModelWith(R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2,"num_key_value_heads":1,)"
                     R"("intermediate_size":16})"),
       R"(loss config.size-missing: num_attention_heads
  config.json: $.num_attention_heads gives no number, and stays 0
  A size is given nowhere.
  Why: Configurations leave out what is their class's default, and the metadata item is left out with it.
  Do:  Add it to config.json, as the model's class or its tensors have it.
)",
       goodModel()},
      {Id::ConfigSettingMissing, "RopeBase",
       goodModelWith(R"({"model_type":"llama","max_position_embeddings":64,"rms_norm_eps":1e-05})"),
       R"(note config.setting-missing: rope_theta
  config.json: $.rope_theta gives no number, and model.rope_theta is left out
  A setting beside the sizes is given nowhere.
  Why: The directory has no value that could be lost: the default of the model's class holds, and is never filled in, or the model has no such setting; a consumer that assumes another value computes wrongly.
  Do:  Look the default of the model's class up, and add it to config.json.
)",
       goodModel()},
      {Id::ConfigSwaRope, "NoHundredth",
       gemma4With(R"("rope_theta":1000000.0,"rope_local_base_freq":20000.0)"),
       R"(loss config.swa-rope: rope_local_base_freq
  config.json: rope_local_base_freq is 20000, and 10000 is written
  The rope base of the sliding-window layers is not carried.
  Why: A hundredth of rope_theta is written for it, and the published one differs.
  Do:  Set it in the consumer of the container.
)",
       gemma4With(R"("rope_theta":1000000.0,"rope_local_base_freq":10000.0)")},
      {Id::ConfigNotCarried, "KeysAreValues", gemma4With(R"("attention_k_eq_v":true)"),
       R"(loss config.not-carried: attention_k_eq_v
  config.json: attention_k_eq_v is true
  A setting of Gemma 4 has no item in the container.
  Why: Its layers differ in what the container says once for all of them.
  Do:  Set it in the consumer of the container.
)",
       gemma4With(R"("attention_k_eq_v":false)")},
      {Id::ConfigSoftcapOverwritten, "Different",
       gemma4With(R"("final_logit_softcapping":30,"attn_logit_softcapping":50)"),
       R"(loss config.softcap-overwritten: final_logit_softcapping
  config.json: $.final_logit_softcapping is 30, and $.attn_logit_softcapping replaces it by 50
  Two soft caps are given and one is kept.
  Why: Both keys fill the same field, and attn_logit_softcapping is read last.
  Do:  Set the other cap in the consumer of the container.
)",
       gemma4With(R"("final_logit_softcapping":30,"attn_logit_softcapping":30)")},
      {Id::ConfigHeadDimOverwritten, "Different", gemma4With(R"("head_dim":64,"key_length":128)"),
       R"(note config.head-dim-overwritten: head_dim
  config.json: $.head_dim is 64, and $.key_length replaces it by 128
  key_length replaces head_dim.
  Why: Both keys fill the same field, and key_length is read last.
  Do:  Remove the key that does not apply.
)",
       gemma4With(R"("head_dim":128,"key_length":128)")},
      {Id::ConfigReadNotWritten, "OtherArchitecture", llamaWith(R"("head_dim":64)"),
       R"(loss config.read-not-written: head_dim
  config.json: $.head_dim is 64
  A setting is read and then left out of the container.
  Why: Its metadata item is written for the architecture gemma4 only.
  Do:  Set it in the consumer of the container.
)",
       gemma4With(R"("head_dim":64)")},
      {Id::ConfigEosList, "Two", llamaWith(R"("eos_token_id":[1,2])"),
       R"(loss config.eos-list: eos_token_id
  config.json: $.eos_token_id is [1, 2]
  Of several end-of-sequence ids at most the first is kept.
  Why: The container has room for one id.
  Do:  Run okv2 prepare DIR OUT: it moves the list to generation_config.json, which is kept as text.
)",
       llamaWith(R"("eos_token_id":[1])")},
  };
}

}  // namespace zel::explain
