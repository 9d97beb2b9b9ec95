// The table of docs/metadata.md is what the importer really emits: keys, order, types and Gemma 4 rows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "captured_metadata.h"
#include "hf/hf_importer.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using testing::ElementsAreArray;

struct DocumentRow {
  std::string key;
  std::string type;
  std::string condition;
};

std::string withoutTicks(std::string cell) {
  std::erase(cell, '`');
  return cell;
}

// The rows of the table that begins with "| Key | Type |".
std::vector<DocumentRow> documentRows() {
  std::istringstream text(test::readWholeFile(OKV2_DOCS_DIR "/metadata.md"));
  std::vector<DocumentRow> rows;
  std::string line;
  while (std::getline(text, line) && line.rfind("| Key | Type |", 0) != 0) {
  }
  std::getline(text, line);  // the rule below the head
  while (std::getline(text, line) && line.rfind("| ", 0) == 0) {
    std::vector<std::string> cells;
    for (std::size_t at = 2, bar; (bar = line.find(" |", at)) != std::string::npos; at = bar + 3) {
      cells.push_back(line.substr(at, bar - at));
    }
    EXPECT_EQ(cells.size(), 4U) << line;
    rows.push_back({withoutTicks(cells[0]), cells[1], cells.back()});
  }
  return rows;
}

std::string inWords(const std::string& type) {
  if (type == "str") return "string";
  if (type == "u32[]") return "array of u32";
  return type;
}

// A model for which every item of its architecture is present.
HfImporter withEverySetting(const char* arch) {
  const test::TempDir dir;
  dir.write("config.json", std::string(R"({"model_type":")") + arch + R"(","_name_or_path":"n",
      "hidden_size":1,"num_hidden_layers":2,"num_attention_heads":3,"num_key_value_heads":4,
      "intermediate_size":5,"vocab_size":6,"max_position_embeddings":1000,"rope_theta":1,"rms_norm_eps":1,
      "final_logit_softcapping":1,"head_dim":1,"key_length_swa":1,"embedding_length_per_layer_input":1,
      "shared_kv_layers":1,"sliding_window":1,"swa_pattern":[1]})");
  dir.write("tokenizer_config.json", R"({"add_bos_token":true})");
  dir.write("special_tokens_map.json", "{}");
  dir.write("generation_config.json", "{}");
  HfImporter importer;
  EXPECT_THAT(importer.open(dir.path()), test::IsOk());
  return importer;
}

std::vector<std::string> emittedRows(const char* arch) {
  OKV2Writer writer;
  EXPECT_THAT(withEverySetting(arch).applyMeta(writer), test::IsOk());
  std::vector<std::string> rows;
  for (const test::CapturedItem& item : test::metadataItems(writer)) {
    rows.push_back(item.key + " " + inWords(item.type));
  }
  return rows;
}

TEST(MetadataDocument, ListsWhatAGemma4ModelEmitsInOrderAndWithTheRightTypes) {
  std::vector<std::string> listed;
  for (const DocumentRow& row : documentRows())
    listed.push_back(row.key + " " + row.type);
  EXPECT_EQ(listed.size(), 32U);
  EXPECT_THAT(emittedRows("gemma4"), ElementsAreArray(listed));
}

TEST(MetadataDocument, MarksExactlyTheRowsThatOtherArchitecturesLack) {
  std::vector<std::string> listed;
  for (const DocumentRow& row : documentRows()) {
    if (row.condition.rfind("gemma4", 0) != 0) listed.push_back(row.key + " " + row.type);
  }
  EXPECT_THAT(emittedRows("llama"), ElementsAreArray(listed));
}

TEST(MetadataDocument, MarksAsAlwaysPresentWhatAnEmptyConfigurationEmits) {
  for (const char* arch : {"llama", "gemma4"}) {
    HfImporter importer;
    importer.arch = arch;
    importer.opened = true;
    OKV2Writer writer;
    ASSERT_THAT(importer.applyMeta(writer), test::IsOk());
    std::vector<std::string> emitted;
    for (const test::CapturedItem& item : test::metadataItems(writer))
      emitted.push_back(item.key);
    std::vector<std::string> listed;
    for (const DocumentRow& row : documentRows()) {
      if (row.condition == "always" || row.condition == arch) listed.push_back(row.key);
    }
    EXPECT_THAT(emitted, ElementsAreArray(listed)) << arch;
  }
}

}  // namespace
}  // namespace zel
