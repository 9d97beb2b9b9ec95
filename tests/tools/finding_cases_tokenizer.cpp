// What the tokenizer files can hold.
#include <string>
#include <vector>

#include "tools/finding_cases.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;
using test::ProtoBuilder;

ModelDirBuilder onlyTokenizer(const std::string& json) { return ModelDirBuilder().tokenizer(json); }
// A bad tokenizer.json beside a tokenizer.model that takes its place, so that its fault stands alone.
ModelDirBuilder besideAModel(const std::string& json) {
  return onlyTokenizer(json).file("tokenizer.model", goodTokenizerModel());
}
ModelDirBuilder withModel(const std::string& bytes) {
  return ModelDirBuilder().file("tokenizer.model", bytes);
}

// Field numbers of sentencepiece_model.proto: pieces are field 1 and the normaliser's settings field 3.
std::string usualModel() {
  return ProtoBuilder()
      .message(1, ProtoBuilder().bytes(1, "a").number(2, -1))
      .message(1, ProtoBuilder().bytes(1, "b").number(2, -2))
      .message(3, ProtoBuilder().bytes(1, "identity"))
      .str();
}

std::vector<FindingCase> jsonCases() {
  return {
      {Id::TokenizerJsonBadJson, "NoValue", besideAModel(R"({"model":})"),
       R"(loss tokenizer.json-bad-json: tokenizer.json
  tokenizer.json: byte 9: json: unexpected char [hf: bad tokenizer.json]
  tokenizer.json is not JSON.
  Why: The file is parsed by RFC 8259; its failure is silent and tokenizer.model is tried instead.
  Do:  Mend the file at the byte that is named, or fetch it again.
)",
       besideAModel(R"({"model":1})")},
      {Id::TokenizerJsonNoModel, "Number", besideAModel(R"({"model":1})"),
       R"(loss tokenizer.json-no-model: tokenizer.json
  tokenizer.json: $.model is a number, 1 (byte 9) [hf: tokenizer.json has no model object]
  tokenizer.json has no "model" object.
  Why: The vocabulary is looked up there; the failure is silent and tokenizer.model is tried instead.
  Do:  Put a complete tokenizer.json there.
)",
       besideAModel(R"({"model":{}})")},
      {Id::TokenizerJsonNoVocab, "Absent", besideAModel(R"({"model":{}})"),
       R"(loss tokenizer.json-no-vocab: tokenizer.json
  tokenizer.json: $.model.vocab is absent [hf: tokenizer.json has no vocab]
  tokenizer.json has no vocabulary of the kind that is read.
  Why: The vocabulary must be an object of token to id; Unigram models hold an array, and the failure is silent.
  Do:  Run okv2 prepare DIR OUT: it turns the list of a Unigram model into an object and scores.
)",
       besideAModel(R"({"model":{"vocab":{"a":0}}})")},
      {Id::TokenizerJsonBadId, "Negative", besideAModel(R"({"model":{"vocab":{"a":-1}}})"),
       R"(loss tokenizer.json-bad-id: tokenizer.json
  tokenizer.json: $.model.vocab["a"] is a number, -1 (byte 23) [hf: bad vocab id]
  A token id in tokenizer.json is not a whole number of at least 0.
  Why: One bad id refuses the whole file silently.
  Do:  Correct the id.
)",
       besideAModel(R"({"model":{"vocab":{"a":0}}})")},
      {Id::TokenizerJsonIdGap, "FromOne", besideAModel(R"({"model":{"vocab":{"a":1}}})"),
       R"(loss tokenizer.json-id-gap: tokenizer.json
  tokenizer.json: $.model.vocab: id 0 is missing, the next one is 1 [hf: vocab ids not contiguous]
  The token ids in tokenizer.json have a gap or a repetition.
  Why: They must be 0, 1, 2 and so on, each once; otherwise the file is refused silently.
  Do:  Run okv2 prepare DIR OUT: it fills gaps with reserved names. Give tokens that share an id one each by hand.
)",
       besideAModel(R"({"model":{"vocab":{"a":0}}})")},
      {Id::TokenizerJsonBadMerges, "Object", besideAModel(R"({"model":{"vocab":{"a":0},"merges":{}}})"),
       R"(loss tokenizer.json-bad-merges: tokenizer.json
  tokenizer.json: $.model.merges is an object, {} (byte 35) [hf: bad merges]
  "merges" in tokenizer.json is not an array of texts.
  Why: Any other form refuses the whole file silently.
  Do:  Write each merge as one text, the two parts with a space between them.
)",
       besideAModel(R"({"model":{"vocab":{"a":0},"merges":[]}})")},
      {Id::TokenizerJsonMergePairs, "Pair",
       besideAModel(R"({"model":{"vocab":{"a":0},"merges":[["a","a"]]}})"),
       R"(loss tokenizer.json-merge-pairs: tokenizer.json
  tokenizer.json: $.model.merges[0] is an array, ["a","a"] (byte 36) [hf: bad merge entry]
  The merges in tokenizer.json are pairs.
  Why: Only the older form, one text with a space, is read; pairs refuse the whole file silently.
  Do:  Run okv2 prepare DIR OUT: it writes each pair as one text.
)",
       besideAModel(R"({"model":{"vocab":{"a":0},"merges":["a a"]}})")},
      {Id::TokenizerJsonBadAddedTokens, "Object",
       besideAModel(R"({"model":{"vocab":{"a":0}},"added_tokens":{}})"),
       R"(loss tokenizer.json-bad-added-tokens: tokenizer.json
  tokenizer.json: $.added_tokens is an object, {} (byte 42) [hf: bad added_tokens]
  "added_tokens" in tokenizer.json is not an array.
  Why: Any other kind refuses the whole file silently.
  Do:  Make it an array.
)",
       besideAModel(R"({"model":{"vocab":{"a":0}},"added_tokens":[]})")},
      {Id::TokenizerJsonPartsIgnored, "TwoOfFour",
       onlyTokenizer(R"({"normalizer":{"type":"NFC"},"pre_tokenizer":null,"decoder":{},)"
                     R"("model":{"vocab":{"a":0}}})"),
       R"(note tokenizer.json-parts-ignored: tokenizer.json
  normalizer, decoder
  Parts of tokenizer.json are not read.
  Why: Vocabulary, merges, scores and added tokens are taken; normaliser, pre-tokeniser, post-processor and decoder are not.
  Do:  Configure them in the consumer of the container.
)",
       onlyTokenizer(R"({"normalizer":null,"model":{"vocab":{"a":0}}})")},
  };
}

std::vector<FindingCase> modelCases() {
  const std::string good = goodTokenizerModel();
  return {
      {Id::TokenizerModelRefused,
       "LastByteMissing",
       withModel(good.substr(0, good.size() - 1)),
       R"(loss tokenizer.model-refused: tokenizer.model
  tokenizer.model: hf: bad tokenizer.model (proto parse)
  tokenizer.model is not a message that can be walked.
  Why: It must be in the protocol-buffers wire format; the failure is silent.
  Do:  Put a tokenizer.json there.
)",
       withModel(good),
       {"tokenizer.empty"}},
      {Id::TokenizerModelTiktoken,
       "OneRank",
       withModel("IQ== 0\n"),
       R"(loss tokenizer.model-tiktoken: tokenizer.model
  tokenizer.model: hf: bad tokenizer.model (proto parse)
  tokenizer.model is a list of base64 tokens and ranks.
  Why: The name is that of another format, which is a protocol-buffers message; the failure is silent.
  Do:  Convert it to a tokenizer.json.
)",
       withModel("IQ= 0\n"),  // no base64: three characters
       {"tokenizer.empty"}},
      // 'I' is the key of eight bytes in field 9, "Q== 0\nIg"; '=' that of four in field 7, "= 1\n".
      {Id::TokenizerModelTiktoken,
       "ThatCanBeWalked",
       withModel("IQ== 0\nIg== 1\n"),
       R"(loss tokenizer.model-tiktoken: tokenizer.model
  tokenizer.model: it can be walked and gives no token
  tokenizer.model is a list of base64 tokens and ranks.
  Why: The name is that of another format, which is a protocol-buffers message; the failure is silent.
  Do:  Convert it to a tokenizer.json.
)",
       withModel("IQ= 0\nxIg== 1\n"),
       {"tokenizer.empty"}},
      {Id::TokenizerModelRefused,
       "AnswerOfAServer",
       withModel("Unauthorized"),
       R"(loss tokenizer.model-refused: tokenizer.model
  tokenizer.model: hf: bad tokenizer.model (proto parse)
  tokenizer.model is not a message that can be walked.
  Why: It must be in the protocol-buffers wire format; the failure is silent.
  Do:  Put a tokenizer.json there.
)",
       withModel("AAAAAAAAAAAA 0"),
       {"tokenizer.empty"}},
      {Id::TokenizerModelFieldNumbers, "TwoPieces", withModel(usualModel()),
       R"(loss tokenizer.model-field-numbers: tokenizer.model
  2 pieces in field 1 give 1 token, the first is "identity"
  tokenizer.model numbers its fields in the usual way, which is not the way they are read.
  Why: Pieces are read from field 3 and ids from field 1, so the normaliser's name becomes the only token.
  Do:  Run okv2 prepare DIR OUT: it numbers the fields in the way that is read.
)",
       withModel(good)},
      {Id::TokenizerModelIgnored, "BesideJson", goodModel().file("tokenizer.model", good),
       R"(note tokenizer.model-ignored: tokenizer.model
  tokenizer.model is not read.
  Why: tokenizer.json could be read and comes first.
  Do:  Nothing.
)",
       besideAModel("{}")},
  };
}

std::vector<FindingCase> vocabularyCases() {
  return {
      {Id::TokenizerNone,
       "Neither",
       ModelDirBuilder(),
       R"(loss tokenizer.none: tokenizer.json
  There is no tokenizer file that is read.
  Why: Only tokenizer.json and tokenizer.model are looked for, and without them the container carries an empty tokenizer.
  Do:  Put tokenizer.json into the directory.
)",
       withModel(goodTokenizerModel()),
       {"tokenizer.empty"}},
      {Id::TokenizerFilesIgnored, "Two", goodModel().file("merges.txt", "").file("vocab.json", "{}"),
       R"(note tokenizer.files-ignored: tokenizer files
  merges.txt, vocab.json
  Other tokenizer files are not read.
  Why: Only tokenizer.json and tokenizer.model are looked for.
  Do:  Nothing, if one of those two is complete.
)",
       goodModel().file("merges.md", "")},
      {Id::TokenizerVocabSize, "OneMore", llamaWith(R"("vocab_size":5)"),
       R"(note tokenizer.vocab-size: vocab_size
  vocab_size is 5, the vocabulary has 4 tokens
  The vocabulary and vocab_size differ.
  Why: Both are stored as they are; models often round vocab_size up.
  Do:  Nothing, if the embedding has vocab_size rows.
)",
       llamaWith(R"("vocab_size":4)")},
      {Id::TokenizerVocabSize,
       "Negative",
       llamaWith(R"("vocab_size":-4)"),
       R"(note tokenizer.vocab-size: vocab_size
  vocab_size is -4, the vocabulary has 4 tokens
  The vocabulary and vocab_size differ.
  Why: Both are stored as they are; models often round vocab_size up.
  Do:  Nothing, if the embedding has vocab_size rows.
)",
       llamaWith(R"("vocab_size":0)"),  // counts as not given
       {"config.value-changed"}},
      {Id::TokenizerAddedOutside, "FirstIdBeyond",
       onlyTokenizer(R"({"model":{"vocab":{"a":0}},"added_tokens":[{"id":1,"content":"<x>"}]})"),
       R"(loss tokenizer.added-outside: tokenizer.json
  1 of 1 added tokens lie outside the 1 tokens of $.model.vocab, the first is "<x>" with id 1
  Added tokens lie beyond the vocabulary.
  Why: They are never appended to it, so their texts do not reach the container.
  Do:  Run okv2 prepare DIR OUT: it moves them into the vocabulary. Give one that it leaves a whole number of at least 0 as its id.
)",
       onlyTokenizer(R"({"model":{"vocab":{"a":0}},"added_tokens":[{"id":0,"content":"<x>"}]})")},
      {Id::TokenizerAddedElsewhere, "OtherText",
       goodModel().file("tokenizer_config.json", R"({"added_tokens_decoder":{"1":{"content":"<x>"}}})"),
       R"(loss tokenizer.added-elsewhere: tokenizer_config.json
  1 of 1 added tokens, the first is "<x>" with id 1, which is "a"
  An added token has the id of another token.
  Why: The vocabulary's own text stays at that id, and the public tokenizer would put the added one there.
  Do:  Look which of the two the model was trained with, and name it in the tokenizer file.
)",
       goodModel().file("tokenizer_config.json", R"({"added_tokens_decoder":{"1":{"content":"a"}}})")},
      {Id::TokenizerAddedOutside, "OfTokenizerConfig",
       goodModel().file("tokenizer_config.json", R"({"added_tokens_decoder":{"4":{"content":"<x>"}}})"),
       R"(loss tokenizer.added-outside: tokenizer_config.json
  1 of 1 added tokens lie outside the 4 tokens of the vocabulary, the first is "<x>" with id 4
  Added tokens lie beyond the vocabulary.
  Why: They are never appended to it, so their texts do not reach the container.
  Do:  Run okv2 prepare DIR OUT: it moves them into the vocabulary. Give one that it leaves a whole number of at least 0 as its id.
)",
       goodModel().file("tokenizer_config.json", R"({"added_tokens_decoder":{"3":{"content":"ab"}}})")},
      {Id::TokenizerAddedElsewhere, "OfTokenizerJson",
       onlyTokenizer(R"({"model":{"vocab":{"a":0}},"added_tokens":[{"id":0,"content":"<tool>"}]})"),
       R"(loss tokenizer.added-elsewhere: tokenizer.json
  1 of 1 added tokens, the first is "<tool>" with id 0, which is "a"
  An added token has the id of another token.
  Why: The vocabulary's own text stays at that id, and the public tokenizer would put the added one there.
  Do:  Look which of the two the model was trained with, and name it in the tokenizer file.
)",
       onlyTokenizer(R"({"model":{"vocab":{"a":0}},"added_tokens":[{"id":0,"content":"a"}]})")},
      {Id::TokenizerSpecialNotRead, "EndOfText",
       goodModel().file("tokenizer_config.json", R"({"eos_token":"ab"})"),
       R"(loss tokenizer.special-not-read: eos_token
  tokenizer_config.json: $.eos_token is "ab", the container gets -1
  A special token is named by its text where only ids are read.
  Why: Ids come from config.json, from tokens added under a few usual names, or from tokenizer.model itself; texts are never looked up in the vocabulary.
  Do:  Run okv2 prepare DIR OUT: it looks the text up, puts one that the vocabulary lacks behind the last token, and writes the id where it is read.
)",
       goodModel().file("tokenizer_config.json", R"({"bos_token":"<s>"})")},
      {Id::TokenizerSpecialIdOutside, "FirstIdBeyond", llamaWith(R"("pad_token_id":4)"),
       R"(loss tokenizer.special-id-outside: pad
  pad id 4 with 4 tokens
  A special id points outside the vocabulary.
  Why: Ids are taken as they are given, also where no such token is stored.
  Do:  Run okv2 prepare DIR OUT: it moves added tokens into the vocabulary, and settles an id below 0 by the texts that the tokenizer's files name. One that no token has stays: correct it in config.json.
)",
       llamaWith(R"("pad_token_id":3)")},
      {Id::TokenizerSpecialIdOutside, "BelowNone", llamaWith(R"("bos_token_id":-2)"),
       R"(loss tokenizer.special-id-outside: bos
  bos id -2 with 4 tokens
  A special id points outside the vocabulary.
  Why: Ids are taken as they are given, also where no such token is stored.
  Do:  Run okv2 prepare DIR OUT: it moves added tokens into the vocabulary, and settles an id below 0 by the texts that the tokenizer's files name. One that no token has stays: correct it in config.json.
)",
       llamaWith(R"("bos_token_id":-1)")},
      {Id::TokenizerScoreCount, "OneOfTwo",
       onlyTokenizer(R"({"model":{"vocab":{"a":0,"b":1},"scores":[0.5]}})"),
       R"(note tokenizer.score-count: tokenizer.json
  1 scores, 2 tokens
  The number of scores is not the number of tokens.
  Why: Scores are stored as they are read, tied to nothing.
  Do:  Correct "scores" in tokenizer.json.
)",
       onlyTokenizer(R"({"model":{"vocab":{"a":0,"b":1},"scores":[0.5,0.5]}})")},
      {Id::TokenizerEmpty, "NoToken", onlyTokenizer(R"({"model":{"vocab":{}}})"),
       R"(loss tokenizer.empty: tokenizer.json
  it has no token
  The container will carry an empty tokenizer.
  Why: Without a single token neither the special ids nor the chat template are handed over.
  Do:  Mend the tokenizer file as the other findings say.
)",
       onlyTokenizer(R"({"model":{"vocab":{"a":0}}})")},
  };
}

}  // namespace

std::vector<FindingCase> tokenizerCases() {
  std::vector<FindingCase> out = jsonCases();
  for (const auto& cases : {modelCases(), vocabularyCases()})
    out.insert(out.end(), cases.begin(), cases.end());
  return out;
}

}  // namespace zel::explain
