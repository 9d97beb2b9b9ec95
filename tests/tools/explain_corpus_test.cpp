// Every loss that the tables of the real-data corpus name is found, and named the same way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "okv2/explain/explanation.h"
#include "support/corpus.h"
#include "support/temp_dir.h"

namespace zel::explain {
namespace {

namespace fs = std::filesystem;
using test::CorpusRow;
using test::TempDir;

const Finding* find(const Explanation& explanation, Id id, const std::string& subject = "") {
  for (const Finding& finding : explanation.findings) {
    if (finding.id == id && (subject.empty() || finding.subject == subject)) return &finding;
  }
  return nullptr;
}

std::string namesOf(const Explanation& explanation) {
  std::string out;
  for (const Finding& finding : explanation.findings)
    out += std::string(rowOf(finding.id).name) + " " + finding.subject + ": " + finding.detail + "\n";
  return out;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// One entry of the column "what_is_lost_silently".
bool names(const Explanation& explanation, const std::string& loss) {
  const std::string key = loss.substr(0, loss.find(' '));
  if (endsWith(loss, " not read")) return find(explanation, Id::ConfigKeyNotRead, key) != nullptr;
  if (loss == "quantization_config ignored") return find(explanation, Id::ConfigQuantization, key) != nullptr;
  if (loss == "rope_scaling ignored") return find(explanation, Id::ConfigRopeScaling, key) != nullptr;
  if (loss == "text_config ignored") return find(explanation, Id::ConfigNested, key) != nullptr;
  if (loss == "eos_token_id list, only first kept")
    return find(explanation, Id::ConfigEosList, key) != nullptr;
  if (key == "tokenizer.model") return find(explanation, Id::TokenizerModelFieldNumbers, key) != nullptr;
  constexpr char kRejected[] = "tokenizer.json rejected silently: ";
  if (loss.rfind(kRejected, 0) == 0) {
    const std::string message = "[" + loss.substr(sizeof kRejected - 1) + "]";
    for (const Finding& finding : explanation.findings) {
      if (finding.subject == "tokenizer.json" && finding.detail.find(message) != std::string::npos)
        return true;
    }
  }
  return false;
}

std::vector<std::string> split(const std::string& list) {
  std::vector<std::string> out;
  for (std::size_t begin = 0; begin < list.size();) {
    const std::size_t end = std::min(list.find("; ", begin), list.size());
    out.push_back(list.substr(begin, end - begin));
    begin = end + 2;
  }
  return out;
}

// Returns the number of losses that the table names.
std::size_t checkTable(const std::string& folder) {
  std::size_t losses = 0;
  for (const CorpusRow& row : test::readCorpusTable(folder + "/" + folder + ".tsv")) {
    const std::string& dir = row.at("dir");
    const Explanation explanation = explainDirectory(test::corpusPath(folder + "/" + dir));
    EXPECT_EQ(std::to_string(explanation.importCode), row.at("import_code")) << dir;
    EXPECT_EQ(explanation.importMessage, row.at("import_message")) << dir;
    EXPECT_EQ(explanation.count(Severity::Fatal) > 0, explanation.importCode != 0) << namesOf(explanation);
    for (const std::string& loss : split(row.at("what_is_lost_silently"))) {
      EXPECT_TRUE(names(explanation, loss)) << dir << ": " << loss << "\n" << namesOf(explanation);
      ++losses;
    }
  }
  return losses;
}

TEST(ExplainCorpus, NamesEveryLossOfTheModelDirectories) {
  OKV2_REQUIRE_CORPUS();
  EXPECT_EQ(checkTable("model-dirs"), 10U);
}

TEST(ExplainCorpus, NamesEveryLossOfTheConfigurations) {
  OKV2_REQUIRE_CORPUS();
  EXPECT_EQ(checkTable("configs"), 11U);
}

struct Named {
  const char* dir;
  Id id;
  const char* subject;
  const char* detail;
};

// What EXPECT.md says of single directories.
constexpr Named kNamed[] = {
    {"phi-3-mini-clone-without-lfs", Id::TokenizerSpecialIdOutside, "pad", "pad id 32000 with 32000 tokens"},
    {"phi-3-mini-clone-without-lfs", Id::TokenizerAddedOutside, "tokenizer.json",
     "11 of 14 added tokens lie outside the 32000 tokens of $.model.vocab, the first is \"<|endoftext|>\" "
     "with id "
     "32000"},
    {"phi-3-mini-clone-without-lfs", Id::WeightsLfsPointer, "model-00002-of-00002.safetensors",
     "135 bytes, the content has 2669692552"},
    {"deepseek-r1-distill-qwen-32b-clone-without-lfs", Id::TemplateDropped, "tokenizer_config.json",
     "$.chat_template of 2237 bytes"},
    {"deepseek-r1-distill-qwen-32b-clone-without-lfs", Id::WeightsIndexMissing,
     "model-00003-of-000008.safetensors", "model.safetensors.index.json names it for 108 tensors"},
    {"falcon-40b-clone-without-lfs", Id::WeightsShardedBin, "pytorch_model-00001-of-00009.bin",
     "2 files of this kind"},
    {"rtp-llama-sentencepiece-link-text-bin", Id::WeightsLinkText, "pytorch_model.bin",
     "../../../../../../../test-data/rtp_llm/test/model_test/fake_test/testdata/llama/fake/hf_source/"
     "pytorch_model.bin"},
    {"rtp-llama-sentencepiece-link-text-bin", Id::TokenizerModelFieldNumbers, "tokenizer.model",
     "32000 pieces in field 1 give 1 token, the first is \"identity\""},
    {"hf2q-bad-config", Id::ConfigBadJson, "config.json", "byte 2: json: object key"},
    {"hf2q-tiny", Id::TokenizerEmpty, "tokenizer.json", "it has no token"},
    {"paged-infer-tiny-llama", Id::TokenizerNone, "tokenizer.json", ""},
    {"deepseek-r1-distill-qwen-32b-clone-without-lfs", Id::TokenizerEmpty, "tokenizer.json",
     "neither tokenizer.json nor tokenizer.model could be read"},
    {"pythia-410m-clone-without-lfs", Id::TokenizerEmpty, "tokenizer.json",
     "neither tokenizer.json nor tokenizer.model could be read"},
    {"minimind-tokenizer-only", Id::ConfigMissing, "config.json", ""},
    {"gemma2-no-tokenizer", Id::ConfigSoftcapOverwritten, "final_logit_softcapping",
     "config.json: $.final_logit_softcapping is 30, and $.attn_logit_softcapping replaces it by 50"},
};

TEST(ExplainCorpus, NamesWhatIsKnownOfSingleDirectories) {
  OKV2_REQUIRE_CORPUS();
  for (const Named& row : kNamed) {
    const Explanation explanation = explainDirectory(test::corpusPath(std::string("model-dirs/") + row.dir));
    const Finding* finding = find(explanation, row.id, row.subject);
    ASSERT_NE(finding, nullptr) << row.dir << "\n" << namesOf(explanation);
    EXPECT_EQ(finding->detail, row.detail) << row.dir;
  }
}

bool isWeightName(const std::string& name) {
  return endsWith(name, ".safetensors") || endsWith(name, ".bin");
}

TEST(ExplainCorpus, NamesEveryGitLfsPointerAmongTheWeights) {
  OKV2_REQUIRE_CORPUS();
  std::size_t pointers = 0;
  for (const CorpusRow& row : test::readCorpusTable("model-dirs/model-dirs.tsv")) {
    const std::string dir = test::corpusPath("model-dirs/" + row.at("dir"));
    const Explanation explanation = explainDirectory(dir);
    for (const auto& entry : fs::directory_iterator(dir)) {
      const std::string name = entry.path().filename();
      const bool isPointer =
          isWeightName(name) && test::readWholeFile(entry.path()).rfind("version https://git-lfs", 0) == 0;
      const Id id = endsWith(name, ".bin") ? Id::FileLfsPointer : Id::WeightsLfsPointer;
      EXPECT_EQ(find(explanation, id, name) != nullptr, isPointer) << row.at("dir") << "/" << name;
      pointers += isPointer;
    }
  }
  EXPECT_EQ(pointers, 8U);
}

struct Nested {
  const char* dir;
  const char* member;
};

TEST(ExplainCorpus, NamesTheSizesOfNestedConfigurations) {
  OKV2_REQUIRE_CORPUS();
  // Of config.json, as written in it.
  for (const Nested& row : {Nested{"clip-nested-text_config", "$.text_config.hidden_size is 768, "},
                            Nested{"qwen3_5-nested-text_config", "$.text_config.hidden_size is 5120, "}}) {
    const Explanation explanation = explainDirectory(test::corpusPath(std::string("configs/") + row.dir));
    const Finding* finding = find(explanation, Id::ConfigNested, "text_config");
    ASSERT_NE(finding, nullptr) << row.dir << "\n" << namesOf(explanation);
    EXPECT_NE(finding->detail.find(row.member), std::string::npos) << finding->detail;
  }
}

TEST(ExplainCorpus, NamesRotaryPositionsOfANestedConfiguration) {
  OKV2_REQUIRE_CORPUS();
  const Explanation explanation = explainDirectory(test::corpusPath("configs/qwen3_5-nested-text_config"));
  const Finding* base = find(explanation, Id::ConfigNested, "text_config");
  ASSERT_NE(base, nullptr) << namesOf(explanation);
  EXPECT_NE(base->detail.find("$.text_config.rope_parameters.rope_theta is 10000000"), std::string::npos)
      << base->detail;
  EXPECT_NE(find(explanation, Id::ConfigRopeScaling, "text_config.rope_parameters"), nullptr)
      << namesOf(explanation);
}

// A directory with `file` of the corpus under the name by which the plug-in meets it.
std::string placed(const TempDir& dir, const std::string& file, const std::string& name) {
  fs::copy_file(test::corpusPath(file), dir.path() + "/" + name);
  dir.write("config.json", R"({"model_type":"test"})");
  return dir.path();
}

TEST(ExplainCorpus, CountsAndRefusesEveryTokenizerLikeTheTable) {
  OKV2_REQUIRE_CORPUS();
  for (const CorpusRow& row : test::readCorpusTable("tokenizers/tokenizers.tsv")) {
    const TempDir dir;
    const Explanation explanation =
        explainDirectory(placed(dir, "tokenizers/" + row.at("file"), "tokenizer.json"));
    if (!row.at("message").empty()) {
      EXPECT_TRUE(names(explanation, "tokenizer.json rejected silently: " + row.at("message")))
          << row.at("file") << "\n"
          << namesOf(explanation);
      EXPECT_EQ(explanation.tokenizer.winner, "");
      EXPECT_NE(find(explanation, Id::TokenizerEmpty), nullptr);
      continue;
    }
    const TokenizerUse& use = explanation.tokenizer;
    EXPECT_EQ(use.winner, "tokenizer.json");
    EXPECT_EQ(std::to_string(use.tokens), row.at("tokens")) << row.at("file");
    EXPECT_EQ(std::to_string(use.merges), row.at("merges")) << row.at("file");
    EXPECT_EQ(std::to_string(use.special), row.at("types_3")) << row.at("file");
    EXPECT_EQ(std::to_string(use.addedOutside), row.at("added_tokens_outside_vocab")) << row.at("file");
    EXPECT_EQ(find(explanation, Id::TokenizerAddedOutside) != nullptr, use.addedOutside > 0)
        << row.at("file");
  }
}

TEST(ExplainCorpus, NamesTheFieldNumbersOfEverySentencePieceFile) {
  OKV2_REQUIRE_CORPUS();
  for (const CorpusRow& row : test::readCorpusTable("sentencepiece/sentencepiece.tsv")) {
    const TempDir dir;
    const Explanation explanation =
        explainDirectory(placed(dir, "sentencepiece/" + row.at("file"), "tokenizer.model"));
    const bool readable = row.at("status") == "OK";
    EXPECT_EQ(find(explanation, Id::TokenizerModelFieldNumbers) != nullptr, readable) << row.at("file");
    EXPECT_EQ(find(explanation, Id::TokenizerModelTiktoken) != nullptr, !readable) << row.at("file");
  }
}

TEST(ExplainCorpus, TellsWhatKeepsEveryCheckpointFromOpening) {
  OKV2_REQUIRE_CORPUS();
  for (const CorpusRow& row : test::readCorpusTable("torch/torch.tsv")) {
    const TempDir dir;
    const Explanation explanation =
        explainDirectory(placed(dir, "torch/" + row.at("file"), "pytorch_model.bin"));
    EXPECT_EQ(explanation.importMessage, row.at("as_checkpoint_message")) << row.at("file");
    const std::string& message = row.at("as_checkpoint_message");
    const Id expected = message == "torch: no data.pkl"      ? Id::PytorchFolder
                        : message == "torch: no EOCD"        ? Id::PytorchLegacy
                        : message == "torch: file too small" ? Id::WeightsRefused
                                                             : Id::PytorchDeflated;
    EXPECT_NE(find(explanation, expected, "pytorch_model.bin"), nullptr)
        << row.at("file") << " " << message << "\n"
        << namesOf(explanation);
  }
}

TEST(ExplainCorpus, TellsWhatKeepsEverySafetensorsFileFromOpening) {
  OKV2_REQUIRE_CORPUS();
  for (const CorpusRow& row : test::readCorpusTable("safetensors/safetensors.tsv")) {
    if (row.at("status") == "OK") continue;
    const TempDir dir;
    const Explanation explanation = explainDirectory(placed(dir, row.at("file"), "model.safetensors"));
    EXPECT_EQ(explanation.importMessage, row.at("message")) << row.at("file");
    const Id expected = row.at("status") == "Unsupported"                       ? Id::WeightsType
                        : row.at("file").find("link-text") != std::string::npos ? Id::WeightsLinkText
                                                                                : Id::WeightsLfsPointer;
    EXPECT_NE(find(explanation, expected, "model.safetensors"), nullptr) << row.at("file") << "\n"
                                                                         << namesOf(explanation);
  }
}

}  // namespace
}  // namespace zel::explain
