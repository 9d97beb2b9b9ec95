// Real files beside the repository, each row of their tables. Skipped, out loud, where they are absent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "captured_metadata.h"
#include "hf/hf_importer.h"
#include "json_support.h"
#include "support/corpus.h"
#include "support/temp_dir.h"
#include "tokenizer_support.h"

namespace zel {
namespace {

using test::corpusPath;
using test::CorpusRow;
using test::IsOk;
using test::readCorpusTable;
using test::StatusIs;

const char* kindName(json::Kind kind) {
  static constexpr const char* kNames[] = {"Null", "Bool", "Number", "String", "Object", "Array"};
  return kNames[static_cast<std::size_t>(kind)];
}

Code codeOf(const std::string& name) {
  for (const Code code : {Code::OK, Code::InvalidFormat, Code::Unsupported, Code::Corrupted, Code::IOError}) {
    if (name == Status(code, "").codeName()) return code;
  }
  ADD_FAILURE() << "unknown code " << name;
  return Code::OK;
}

TEST(JsonCorpus, EveryFileGetsItsVerdictMessageAndRootKind) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = readCorpusTable("jsontestsuite/jsontestsuite.tsv");
  ASSERT_EQ(rows.size(), 318U + 48U);
  for (const CorpusRow& row : rows) {
    json::Value root;
    const Status status =
        test::parseJson(test::readWholeFile(corpusPath("jsontestsuite/" + row.at("file"))), root);
    if (row.at("expect") == "accept") {
      EXPECT_THAT(status, IsOk()) << row.at("file");
      EXPECT_EQ(kindName(root.kind), row.at("root_kind")) << row.at("file");
    } else {
      EXPECT_EQ(row.at("expect"), "refuse") << row.at("file");
      EXPECT_THAT(status, StatusIs(Code::InvalidFormat, row.at("message"))) << row.at("file");
    }
  }
}

TEST(JsonCorpus, EveryFileOfTheSuiteHasARow) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = readCorpusTable("jsontestsuite/jsontestsuite.tsv");
  for (const char* folder : {"test_parsing", "roundtrip"}) {
    for (const auto& entry :
         std::filesystem::directory_iterator(corpusPath("jsontestsuite/" + std::string(folder)))) {
      const std::string file = folder + ("/" + entry.path().filename().string());
      EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [&](const CorpusRow& row) {
        return row.at("file") == file;
      })) << file;
    }
  }
}

// The columns of the tables that hold what open() leaves in the importer.
void expectOpened(const std::string& dir, const CorpusRow& row) {
  SCOPED_TRACE(row.at("dir"));
  HfImporter importer;
  const Status status = importer.open(dir);
  EXPECT_EQ(status.message(), row.at("open_message"));
  if (!status.ok()) return;
  const auto integer = [&row](const char* column) { return std::stoll(row.at(column)); };
  EXPECT_EQ(importer.arch, row.at("arch"));
  EXPECT_EQ(importer.name, row.at("name"));
  EXPECT_EQ(importer.hiddenSize, integer("hidden_size"));
  EXPECT_EQ(importer.numLayers, integer("num_layers"));
  EXPECT_EQ(importer.numHeads, integer("num_heads"));
  EXPECT_EQ(importer.numKvHeads, integer("num_kv_heads"));
  EXPECT_EQ(importer.intermediateSize, integer("intermediate_size"));
  EXPECT_EQ(importer.vocabSize, integer("vocab_size"));
  EXPECT_EQ(importer.contextLength, integer("context_length"));
  EXPECT_EQ(double(importer.ropeTheta), std::stod(row.at("rope_theta")));
  EXPECT_EQ(double(importer.rmsNormEps), std::stod(row.at("rms_norm_eps")));
  EXPECT_EQ(std::int64_t(importer.tokenizer.tokens.size()), integer("tokens"));
  EXPECT_EQ(std::int64_t(importer.tokenizer.merges.size()), integer("merges"));
  EXPECT_EQ(importer.tokenizer.bosId, integer("bos"));
  EXPECT_EQ(importer.tokenizer.eosId, integer("eos"));
  EXPECT_EQ(importer.tokenizer.unkId, integer("unk"));
  EXPECT_EQ(importer.tokenizer.padId, integer("pad"));
  EXPECT_EQ(importer.addBos, integer("add_bos"));
  EXPECT_EQ(std::int64_t(importer.tokenizer.chatTemplate.size()), integer("chat_template_bytes"));
  OKV2Writer writer;
  EXPECT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_EQ(std::int64_t(test::metadataItems(writer).size()), integer("metadata_items"));
}

TEST(ConfigCorpus, EveryConfigurationGivesItsFieldsAndItems) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = readCorpusTable("configs/configs.tsv");
  ASSERT_EQ(rows.size(), 12U);
  for (const CorpusRow& row : rows)
    expectOpened(corpusPath("configs/" + row.at("dir")), row);
}

TEST(ModelDirsCorpus, EveryDirectoryGivesItsFieldsAndItems) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = readCorpusTable("model-dirs/model-dirs.tsv");
  ASSERT_EQ(rows.size(), 15U);
  for (const CorpusRow& row : rows)
    expectOpened(corpusPath("model-dirs/" + row.at("dir")), row);
}

TEST(TokenizerCorpus, EveryTokenizerJsonGivesItsCountsAndIds) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = readCorpusTable("tokenizers/tokenizers.tsv");
  ASSERT_GE(rows.size(), 13U);
  for (const CorpusRow& row : rows) {
    SCOPED_TRACE(row.at("file"));
    const std::string text = test::readWholeFile(corpusPath("tokenizers/" + row.at("file")));
    EXPECT_EQ(std::to_string(text.size()), row.at("bytes"));
    TokenizerData data;
    const Status status = test::tokenizerJson(text, data, R"({"model_type":"any"})");
    EXPECT_THAT(status, StatusIs(codeOf(row.at("status")), row.at("message")));
    if (!status.ok()) continue;
    EXPECT_EQ(std::to_string(data.tokens.size()), row.at("tokens"));
    EXPECT_EQ(std::to_string(data.merges.size()), row.at("merges"));
    EXPECT_EQ(std::to_string(data.scores.size()), row.at("scores"));
    EXPECT_EQ(data.types.size(), data.tokens.size());
    EXPECT_EQ(std::to_string(std::count(data.types.begin(), data.types.end(), 3)), row.at("types_3"));
    EXPECT_EQ(std::to_string(data.bosId), row.at("bos"));
    EXPECT_EQ(std::to_string(data.eosId), row.at("eos"));
    EXPECT_EQ(std::to_string(data.unkId), row.at("unk"));
    EXPECT_EQ(std::to_string(data.padId), row.at("pad"));

    json::Value root;
    ASSERT_THAT(test::parseJson(text, root), IsOk());
    std::size_t outside = 0;
    if (const json::Value* added = root.get("added_tokens"); added != nullptr) {
      for (const json::Value& token : added->items) {
        const json::Value* id = token.get("id");
        if (id != nullptr && id->number >= double(data.tokens.size())) ++outside;
      }
    }
    EXPECT_EQ(std::to_string(outside), row.at("added_tokens_outside_vocab")) << "none of them was appended";
  }
}

TEST(TokenizerCorpus, EveryTokenizerModelGivesItsPiecesAndIds) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = readCorpusTable("sentencepiece/sentencepiece.tsv");
  ASSERT_EQ(rows.size(), 17U);
  for (const CorpusRow& row : rows) {
    SCOPED_TRACE(row.at("file"));
    const std::string bytes = test::readWholeFile(corpusPath("sentencepiece/" + row.at("file")));
    EXPECT_EQ(std::to_string(bytes.size()), row.at("bytes"));
    TokenizerData data;
    const Status status = readTokenizerModel(bytes, json::Value(), data);
    EXPECT_THAT(status, StatusIs(codeOf(row.at("status")), row.at("message")));
    if (!status.ok()) continue;
    EXPECT_EQ(std::to_string(data.tokens.size()), row.at("tokens"));
    ASSERT_EQ(data.tokens.size(), 1U);
    EXPECT_EQ("'" + data.tokens[0] + "'", row.at("first_tokens"));
    EXPECT_EQ(double(data.scores[0]), std::stod(row.at("first_scores")));
    EXPECT_EQ(std::to_string(data.types[0]), row.at("first_types"));
    EXPECT_EQ(std::to_string(data.bosId), row.at("bos"));
    EXPECT_EQ(std::to_string(data.eosId), row.at("eos"));
    EXPECT_EQ(std::to_string(data.unkId), row.at("unk"));
    EXPECT_EQ(std::to_string(data.padId), row.at("pad"));
  }
}

}  // namespace
}  // namespace zel
