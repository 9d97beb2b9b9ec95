// The smallest model directory for each finding, what is said about it, and its neighbour that lacks it.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "okv2/explain/explanation.h"
#include "support/model_dir_builder.h"
#include "support/proto_builder.h"

namespace zel::explain {

struct FindingCase {
  Id id;
  const char* label;            // tells the cases of one id apart; letters and digits
  test::ModelDirBuilder has;    // has the finding once
  std::string told;             // the finding as the command prints it, "DIR" for the directory's path
  test::ModelDirBuilder lacks;  // the other side of the edge
  // The ids of what cannot but be found beside it in `has`, in the order of the explanation. Sizes and
  // settings that its config.json lacks are not among them: most cases' are as short as can be.
  std::vector<std::string> company = {};
};

// For GoogleTest's messages.
inline void PrintTo(const FindingCase& row, std::ostream* out) {
  *out << rowOf(row.id).name << " " << row.label;
}

std::vector<FindingCase> configCases();
std::vector<FindingCase> tokenizerCases();
std::vector<FindingCase> templateCases();
std::vector<FindingCase> fileCases();
std::vector<FindingCase> weightCases();
std::vector<FindingCase> checkpointCases();
std::vector<FindingCase> tensorCases();

// A directory about which there is nothing to say: the cases differ from it in one thing.
inline test::ModelDirBuilder goodModel() {
  return test::ModelDirBuilder()
      .config(R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2,)"
              R"("num_key_value_heads":1,"intermediate_size":16,"max_position_embeddings":64,)"
              R"("rope_theta":10000.0,"rms_norm_eps":1e-05})")
      .tokenizer();
}

// The same with a configuration of the model type and one more member.
inline test::ModelDirBuilder llamaWith(const std::string& member) {
  return goodModel().config(R"({"model_type":"llama",)" + member + "}");
}

// A tokenizer.model of one token under the field numbers that are read (docs/compatibility.md).
inline std::string goodTokenizerModel() {
  return test::ProtoBuilder().message(3, test::ProtoBuilder().bytes(1, "a").number(2, -1)).str();
}

}  // namespace zel::explain
