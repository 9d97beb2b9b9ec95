// Every directory, configuration, tokenizer and SentencePiece model of the real-data corpus, prepared: the
// whole vocabulary and all sizes arrive, and what cannot be mended is named.
//
// What is expected was read from the files by hand, or computed by a Python program with the `json` and
// `sentencepiece` modules that knows the rules but none of this code.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "../convert/sha256.h"
#include "prepare_directory_support.h"
#include "support/corpus.h"

namespace zel::tool::prepare {
namespace {

namespace fs = std::filesystem;
using test::ModelDirBuilder;
using test::TempDir;
using testing::ElementsAreArray;

std::string lengthPrefixed(std::string_view bytes) {
  std::string out;
  for (unsigned k = 0; k < 4; ++k)
    out += char(bytes.size() >> (8 * k) & 0xFF);
  return out.append(bytes);
}

std::string digestOf(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts)
    all += lengthPrefixed(text);
  return test::sha256Hex(all);
}

template <class Number>
std::string digestOf(const std::vector<Number>& numbers) {
  std::string all(numbers.size() * sizeof(Number), '\0');
  if (!numbers.empty()) std::memcpy(all.data(), numbers.data(), all.size());
  return test::sha256Hex(lengthPrefixed(all));
}

// Of the tokens, the merges, the types and the scores, each text behind its length of 32 bits.
std::string digestOf(const TokenizerData& data) {
  return test::sha256Hex(digestOf(data.tokens) + digestOf(data.merges) + digestOf(data.types) +
                         digestOf(data.scores));
}

// The corpus's folder without weights, most of which are pointers, and with one small tensor instead.
ModelDirBuilder textsOf(const std::string& folder, const std::set<std::string>& leftOut = {}) {
  ModelDirBuilder builder;
  builder.config(R"({"model_type":"test"})");
  for (const auto& entry : fs::directory_iterator(test::corpusPath(folder))) {
    const std::string name = entry.path().filename();
    if (name.ends_with(".index.json")) continue;  // it would miss the weights
    const bool isText = entry.path().extension() == ".json" || entry.path().extension() == ".model";
    if (isText && leftOut.count(name) == 0) builder.file(name, test::readWholeFile(entry.path()));
  }
  return builder;
}

// A folder that more than one test looks at, prepared once. Its tokenizer.model is left out where it is a Git
// LFS pointer beside a tokenizer.json.
const PreparedDirectory& preparedFolder(const std::string& folder) {
  static std::map<std::string, PreparedDirectory> known;
  const auto at = known.find(folder);
  if (at != known.end()) return at->second;
  const bool isPointer = folder.find("phi-3-mini") != folder.npos;
  const std::set<std::string> leftOut =
      isPointer ? std::set<std::string>{"tokenizer.model"} : std::set<std::string>{};
  return known.try_emplace(folder, textsOf(folder, leftOut)).first->second;
}

// ---- tokenizer.json

struct TokenizerRow {
  const char* folder;
  std::size_t tokens, merges;
  std::size_t filled;  // ids that had no token
  const char* digest;
};
constexpr TokenizerRow kTokenizers[] = {
    {"model-dirs/falcon-40b-clone-without-lfs", 65024, 64784, 0,
     "75bd1c8b00e550b3623a36e8018c867f4614d964595f59d0ace1e28fc579333a"},
    {"model-dirs/gpt2", 50257, 50000, 0, "23b004b319801ddbb728cd3307dae29545ce865278edd13db6311dccd786a833"},
    // Two tokens of each that tokenizer_config.json names are in neither vocabulary.
    {"model-dirs/hf2q-tiny", 2, 0, 0, "6483f017fa069e01261ccc90180b2eab153fcc1bf12bbfa8126b442109acf2c1"},
    {"model-dirs/minimind-tokenizer-only", 6400, 6108, 0,
     "30b457e72897c7949cf560135de69cad08f3be1bd8636e3e08e33a0f67efb2ac"},
    {"model-dirs/phi-3-mini-clone-without-lfs", 32011, 61249, 0,
     "20136ab41a18c9c827515cf66ebb254e30e0c9642ec2e717a8e2ad60291adfd8"},
    {"model-dirs/pythia-410m-clone-without-lfs", 50278, 50009, 0,
     "ca85ecd6d06340a9652757c12c2e6ee5d4caf3b45e9e53bf5368029ef7032a5b"},
    {"model-dirs/torchtitan-tokenizer-only", 2020, 0, 0,
     "0b6a33d76272d5607f939667b9395544c48ddd77a9acc254a085ef0cfc1d40d1"},
    {"model-dirs/torchtune-assets-no-config", 2002, 2610, 0,
     "0b40780d6c866d0d734896ad508070abca56aa1892d7219d4b22267435fb5011"},
    {"tokenizers/djl-null-padding", 9, 0, 0,
     "d91b005dd864fa43b37b5003d4126728e4820dc2ab849b86aff8f5e2a14a6576"},
    {"tokenizers/genai-multimodal", 12, 0, 0,
     "a9a10e137cbcffd4ed4308efcf9749fcb00e5b571dd299c2ef1ca7e38540d0f2"},
    {"tokenizers/ort-added-tokens", 32011, 0, 31996,
     "7d81adc7d5eeba5088312ad4b36e2929485351fb750d3e2d99bf12ecb1d68f20"},
    {"tokenizers/ort-llama2", 32000, 61249, 0,
     "a96673e6fb8a9521e03dd3c29a0ceb5c4cf4d3e3e42e731c4dea93e8b3c27fb2"},
    {"tokenizers/ort-phi-2", 50295, 50000, 0,
     "5cab9b588e406f92ef5aadf179c4ef4f89648854daea42a817d12fc1ab0f98ef"},
    {"tokenizers/ort-phi-3", 32011, 61249, 0,
     "53d537e3dc73caa46ee26c971f65c8ab432f18aa13b3aeb0ef51839bfa8e307e"},
    {"tokenizers/ort-roberta-base", 50265, 50000, 0,
     "c252d2944edaa6d9e1493cea6f58ca7dc94131a75444e89072ea6d77528a52b2"},
    {"tokenizers/ort-t5-small", 32100, 0, 0,
     "dc8754ad0d76312c42c1638f93443dde0bac34d8d08559c54a00d9b2533f28f6"},
    {"tokenizers/pytorch-tokenizers", 14, 20, 0,
     "817faab6ac1316a688f705bbcad72373b4626f30f70363c35249507b1a4b9f01"},
    {"tokenizers/rwkv-midi", 20096, 0, 0, "d06d10e3414efa0888630bb534ef817ad66140b6fa670d64938d1684f0ddb728"},
    {"tokenizers/swift-offline", 7, 5, 0, "8d9a5674c961a31e48eacd884d207759e6bd87ad5d3454b1f1133de3aeb26b98"},
    {"tokenizers/tl-fixture", 4, 0, 0, "2e3281e262b181c28980e3dd7cd8beb53d95b77f4f74554fd4f1611ca155caac"},
    {"tokenizers/torchtune-gemma-cropped", 87, 60, 0,
     "cb26d7edba04809713acd9877b9ce68e08d1adae95581adcda9e34664a810378"},
};

TEST(PrepareCorpus, EveryTokenizerArrivesWhole) {
  OKV2_REQUIRE_CORPUS();
  for (const TokenizerRow& row : kTokenizers) {
    SCOPED_TRACE(row.folder);
    const PreparedDirectory& directory = preparedFolder(row.folder);
    const TokenizerData& data = directory.model.tokenizer;
    EXPECT_EQ(data.tokens.size(), row.tokens);
    EXPECT_EQ(data.merges.size(), row.merges);
    EXPECT_EQ(digestOf(data), row.digest);
    EXPECT_EQ(std::size_t(
                  std::count_if(data.tokens.begin(), data.tokens.end(),
                                [](const std::string& token) { return token.rfind("<|reserved_", 0) == 0; })),
              row.filled);
    // Its special tokens are texts that its vocabulary, a cut one, does not have.
    const bool lacksTexts = row.folder == std::string("model-dirs/torchtune-assets-no-config");
    for (const std::string& finding : directory.remaining()) {
      if (lacksTexts && finding == "tokenizer.special-not-read") continue;
      EXPECT_FALSE(finding.rfind("tokenizer.", 0) == 0 && row.tokens > 0) << finding;
    }
  }
}

// How many tokens an import of the directory takes.
std::size_t tokensOf(const std::string& directory) {
  HfImporter model;
  EXPECT_EQ(model.open(directory).message(), "") << directory;
  return model.tokenizer.tokens.size();
}

std::size_t numberIn(const std::string& cell) { return cell.empty() ? 0 : std::stoul(cell); }

TEST(PrepareCorpus, TokenizersHaveAsManyTokensBeforeAsTheTableSays) {
  OKV2_REQUIRE_CORPUS();
  std::size_t gained = 0;
  for (const auto& row : test::readCorpusTable("tokenizers/tokenizers.tsv")) {
    const std::string folder = "tokenizers/" + row.at("file").substr(0, row.at("file").find('/'));
    const PreparedDirectory& directory = preparedFolder(folder);
    EXPECT_EQ(tokensOf(directory.source), numberIn(row.at("tokens"))) << folder;
    gained += directory.model.tokenizer.tokens.size() > numberIn(row.at("tokens"));
  }
  EXPECT_EQ(gained, 7U);  // the others were whole
}

TEST(PrepareCorpus, EveryTokenizerOfTheTableHasItsRow) {
  OKV2_REQUIRE_CORPUS();
  std::set<std::string> known;
  for (const TokenizerRow& row : kTokenizers)
    known.insert(std::string(row.folder) + "/tokenizer.json");
  for (const auto& row : test::readCorpusTable("tokenizers/tokenizers.tsv"))
    EXPECT_EQ(known.count("tokenizers/" + row.at("file")), 1U) << row.at("file");
  for (const auto& row : test::readCorpusTable("model-dirs/model-dirs.tsv")) {
    const std::string file = "model-dirs/" + row.at("dir") + "/tokenizer.json";
    EXPECT_EQ(known.count(file), std::size_t(fs::exists(test::corpusPath(file)))) << file;
  }
}

// ---- tokenizer.model

struct ModelRow {
  const char* file;
  std::size_t tokens;
  int bos, eos, unk, pad;
  const char* digest;
};
constexpr ModelRow kModels[] = {
    {"keras-albert.model", 12, 2, 3, 1, 0,
     "000c869c996ffc9d07cc687fa17656e537b9acd11e931ef1eeea01d2e7a24f51"},
    {"keras-gemma.model", 11, 1, 2, 3, 0, "88044af4637a929406a27c557e3f555df1ebec7a5d9cbc49acf62be5dac0e6ad"},
    {"keras-gemma3.model", 16, 1, 2, 3, 0,
     "0b4f76550b4d4819c937ceee7b4000ddfb5ff404ae2b566ada150d2803c18087"},
    {"keras-gemma3n.model", 21, 1, 2, 3, 0,
     "7de86141874f3a0a5b90e012e62d474e8a93c8b28dd0b6ab05dbc9f83b266f65"},
    {"keras-gemma4.model", 22, 1, 2, 3, 0,
     "c2a682683a4f7f3ce980fc4fd0573718c0cb6028c66217d551a9c06eb4ad9ccf"},
    {"keras-gemma_export.model", 290, 2, 1, 3, 0,
     "cc8c0cca93159f9318c706a7abd89fe9430049bc64e4afc92d414781f1e98e17"},
    {"keras-llama.model", 10, 1, 2, 0, -1,
     "1608ac2b6644a943c9adb355b3f20eee78f46430e3f486c0a8208aedd9d3ec10"},
    {"keras-no_special_token.model", 5, -1, -1, 0, -1,
     "69fcf1e4795fa03a92cbbb6d135d330dbb855dce484256800124cf37175bda16"},
    {"keras-t5.model", 11, -1, 1, 2, 0, "5dc453a3b30f09c006ad8b520020b982bd44935ce341ce9b5bffefd2dd3c6f96"},
    {"llama2.model", 32000, 1, 2, 0, -1, "34c0863e9d926193f8435559928cf3e0142c857e2b0aecba9c50f61ab410460c"},
    {"mistral-v1.model", 32000, 1, 2, 0, -1,
     "3d881ca3f7e44c7217fb863b2d7aca3c13913cc9a79e1da02d7cd3f221d8ab72"},
    {"seqio.model", 26, -1, 1, 2, 0, "2f8932a0b968576df79fd994777559001b33dba7f756bfbb89bfaa89196ff645"},
    {"sp-test_model.model", 1000, 1, 2, 0, -1,
     "ad1e52d0889c47a06c681a4801cb9315ca111338c88a9abd6d06b9fb4aa07fe0"},
    {"torchtune-m.model", 2000, 1, 2, 0, -1,
     "63d274150010aeaee9ea735a863684f418b6dfb7eae29d073cb221e43a998370"},
};

TEST(PrepareCorpus, EverySentencePieceModelArrivesWhole) {
  OKV2_REQUIRE_CORPUS();
  for (const ModelRow& row : kModels) {
    SCOPED_TRACE(row.file);
    const PreparedDirectory directory(
        ModelDirBuilder()
            .config(completeConfig())
            .file("tokenizer.model",
                  test::readWholeFile(test::corpusPath(std::string("sentencepiece/") + row.file))));
    const TokenizerData& data = directory.model.tokenizer;
    EXPECT_EQ(tokensOf(directory.source), 1U);  // before: the normaliser's name
    EXPECT_EQ(data.tokens.size(), row.tokens);
    EXPECT_EQ(data.bosId, row.bos);
    EXPECT_EQ(data.eosId, row.eos);
    EXPECT_EQ(data.unkId, row.unk);
    EXPECT_EQ(data.padId, row.pad);
    EXPECT_EQ(digestOf(data), row.digest);
    EXPECT_TRUE(directory.remaining().empty());
  }
}

TEST(PrepareCorpus, EveryOtherFileOfThatNameIsRefused) {
  OKV2_REQUIRE_CORPUS();
  std::set<std::string> known;
  for (const ModelRow& row : kModels)
    known.insert(row.file);
  std::size_t refused = 0;
  for (const auto& row : test::readCorpusTable("sentencepiece/sentencepiece.tsv")) {
    if (known.count(row.at("file")) != 0) continue;
    ++refused;
    EXPECT_EQ(
        refusalOfDirectory(ModelDirBuilder().file(
            "tokenizer.model", test::readWholeFile(test::corpusPath("sentencepiece/" + row.at("file"))))),
        (Refusal{3, "tokenizer.model-tiktoken", "tokenizer.model: it is a list of base64 tokens and ranks",
                 "Put a tokenizer.json there, or the SentencePiece model of that name."}))
        << row.at("file");
  }
  EXPECT_EQ(refused, 3U);
}

// ---- whole directories

struct DirectoryRow {
  const char* folder;
  std::int64_t hidden, layers, heads, keyHeads, intermediate, vocab, context;
  float ropeTheta, epsilon;
  // What cannot be mended: the container has no item for the setting, or there is no tokenizer to take.
  std::vector<std::string> remaining;
};

const std::string kNotWritten = "config.read-not-written";
const std::string kSizeMissing = "config.size-missing";
const std::vector<std::string> kNoTokenizer = {"tokenizer.none", "tokenizer.empty"};
const std::vector<std::string> kTemplateAlone = {"tokenizer.none", "tokenizer.empty", "template.dropped"};

std::vector<std::string> operator+(std::vector<std::string> first, const std::vector<std::string>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// 0: the configuration gives no such setting, in any spelling.
const DirectoryRow kDirectories[] = {
    {"configs/bert-igbert", 1024, 30, 16, 16, 4096, 30, 40000, 0, 1e-12F, kNoTokenizer},
    {"configs/bloom", 1024, 24, 16, 16, 4096, 250880, 2048, 0, 1e-5F, kNoTokenizer},
    {"configs/clip-nested-text_config", 768, 12, 12, 12, 3072, 49408, 77, 0, 1e-5F, kNoTokenizer},
    {"configs/glm4-moe", 5120, 92, 96, 8, 12288, 151552, 131072, 1e6F, 1e-5F,
     std::vector{kNotWritten} + kNoTokenizer},
    {"configs/phi-2", 2560, 32, 32, 32, 10240, 51200, 2048, 1e4F, 1e-5F, kNoTokenizer},
    {"configs/phi-3-medium-128k", 5120, 40, 40, 10, 17920, 32064, 131072, 1e4F, 1e-5F,
     std::vector<std::string>{kNotWritten, "config.rope-scaling"} + kNoTokenizer},
    {"configs/qwen-7b", 256, 2, 2, 2, 512, 151936, 2048, 1e4F, 1e-6F, kNoTokenizer},
    {"configs/qwen3_5-nested-text_config", 5120, 64, 24, 4, 17408, 248320, 262144, 1e7F, 1e-6F,
     std::vector<std::string>{kNotWritten, "config.rope-scaling"} + kNoTokenizer},
    {"configs/t5-like-summarization", 768, 12, 12, 12, 3072, 96103, 16384, 0, 0, kNoTokenizer},
    {"configs/t5-v1_1-xxl", 4096, 24, 64, 64, 10240, 32128, 0, 0, 1e-6F, kNoTokenizer},
    {"configs/tinyllama", 2048, 22, 32, 4, 5632, 32000, 2048, 1e4F, 1e-5F, kNoTokenizer},
    {"configs/turboquant-tiny", 64, 2, 4, 0, 128, 256, 0, 0, 0,
     std::vector{kNotWritten, kSizeMissing} + kNoTokenizer},
    {"model-dirs/deepseek-r1-distill-qwen-32b-clone-without-lfs", 5120, 64, 40, 8, 27648, 152064, 131072,
     1e6F, 1e-5F, std::vector{kNotWritten} + kTemplateAlone},
    {"model-dirs/falcon-40b-clone-without-lfs", 8192, 60, 128, 8, 32768, 65024, 0, 0, 1e-5F, {}},
    {"model-dirs/gemma2-no-tokenizer", 2304, 26, 8, 4, 9216, 256000, 8192, 1e4F, 1e-6F,
     std::vector<std::string>{kNotWritten, kNotWritten, kNotWritten, kNotWritten,
                              "config.softcap-overwritten"} +
         kTemplateAlone},
    {"model-dirs/gpt2", 768, 12, 12, 12, 3072, 50257, 1024, 0, 1e-5F, {"config.quantization"}},
    {"model-dirs/hf2q-tiny", 8, 2, 2, 2, 16, 32, 0, 0, 1e-6F, {}},
    {"model-dirs/mixtral-no-weights", 4096, 32, 32, 8, 14336, 32002, 32768, 1e6F, 1e-5F, kTemplateAlone},
    {"model-dirs/paged-infer-tiny-llama", 96, 2, 4, 2, 192, 112, 0, 1e4F, 1e-5F, kNoTokenizer},
    {"model-dirs/phi-3-mini-clone-without-lfs",
     3072,
     32,
     32,
     32,
     8192,
     32064,
     131072,
     1e4F,
     1e-5F,
     {kNotWritten, "config.rope-scaling"}},
    {"model-dirs/pythia-410m-clone-without-lfs", 1024, 24, 16, 16, 4096, 50304, 2048, 1e4F, 1e-5F, {}},
    {"model-dirs/rtp-llama-sentencepiece-link-text-bin", 256, 1, 2, 2, 640, 32000, 2048, 0, 1e-6F, {}},
    {"model-dirs/rugpt3xl-no-weights", 2048, 24, 16, 0, 8192, 50264, 2048, 0, 1e-5F,
     std::vector{kSizeMissing} + kTemplateAlone},
};

TEST(PrepareCorpus, EverySizeArrivesAndTheRestIsNamed) {
  OKV2_REQUIRE_CORPUS();
  for (const DirectoryRow& row : kDirectories) {
    SCOPED_TRACE(row.folder);
    const PreparedDirectory& directory = preparedFolder(row.folder);
    const HfImporter& model = directory.model;
    EXPECT_EQ(model.hiddenSize, row.hidden);
    EXPECT_EQ(model.numLayers, row.layers);
    EXPECT_EQ(model.numHeads, row.heads);
    EXPECT_EQ(model.numKvHeads, row.keyHeads);
    EXPECT_EQ(model.intermediateSize, row.intermediate);
    EXPECT_EQ(model.vocabSize, row.vocab);
    EXPECT_EQ(model.contextLength, row.context);
    EXPECT_EQ(model.ropeTheta, row.ropeTheta);
    EXPECT_EQ(model.rmsNormEps, row.epsilon);
    EXPECT_THAT(directory.remaining(), ElementsAreArray(row.remaining));
  }
}

struct RefusedRow {
  const char* folder;
  Refusal refusal;
};

const RefusedRow kRefused[] = {
    {"model-dirs/hf2q-bad-config",
     {7, "config.bad-json", "config.json: byte 2: json: object key", "Mend config.json, or fetch it again."}},
    {"model-dirs/minimind-tokenizer-only",
     {2, "config.missing", "config.json: there is none that can be read",
      "Put the model's config.json into the directory."}},
    {"model-dirs/torchtitan-tokenizer-only",
     {2, "config.missing", "config.json: there is none that can be read",
      "Put the model's config.json into the directory."}},
    {"model-dirs/torchtune-assets-no-config",
     {2, "config.missing", "config.json: there is none that can be read",
      "Put the model's config.json into the directory."}},
    {"model-dirs/phi-3-mini-clone-without-lfs",
     {7, "weights.lfs-pointer",
      "model-00001-of-00002.safetensors: it is a Git LFS pointer and not its content",
      "git lfs pull --include 'model-00001-of-00002.safetensors'"}},
};

TEST(PrepareCorpus, DirectoriesThatCannotBeMendedAreRefused) {
  OKV2_REQUIRE_CORPUS();
  for (const RefusedRow& row : kRefused) {
    const TempDir out;
    EXPECT_EQ(refusalOf([&] { return prepareDirectory(test::corpusPath(row.folder), out.path(), {}); }),
              row.refusal)
        << row.folder;
  }
}

TEST(PrepareCorpus, EveryDirectoryOfTheTablesHasItsRow) {
  OKV2_REQUIRE_CORPUS();
  std::set<std::string> known;
  for (const DirectoryRow& row : kDirectories)
    known.insert(row.folder);
  for (const RefusedRow& row : kRefused)
    known.insert(row.folder);
  for (const char* group : {"configs", "model-dirs"}) {
    for (const auto& row : test::readCorpusTable(std::string(group) + "/" + group + ".tsv")) {
      EXPECT_EQ(known.count(std::string(group) + "/" + row.at("dir")), 1U) << row.at("dir");
    }
  }
}

}  // namespace
}  // namespace zel::tool::prepare
