// What the tests of prepareWeights() have in common: a directory to prepare, and what came of it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/prepare/outcome.h"
#include "okv2/prepare/weights.h"
#include "readers/safetensors_importer.h"
#include "support/temp_dir.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {

inline const std::string kSix = test::bytesOf<float>({1, 2, 3, 4, 5, 6});

struct Refusal {
  int code = 0;
  std::string finding, message, remedy;
};

// Directories "in" and "out" of one test.
class WeightsTest : public testing::Test {
 protected:
  WeightsTest() {
    std::filesystem::create_directory(dir_ / "in");
    std::filesystem::create_directory(out());
    write("config.json", R"({"model_type":"llama"})");
  }
  [[nodiscard]] std::string in() const { return dir_ / "in"; }
  [[nodiscard]] std::string out() const { return dir_ / "out"; }
  std::string write(const std::string& name, std::string_view bytes) const {
    return dir_.write("in/" + name, bytes);
  }
  Changes prepare(const WeightOptions& options = {}) const {
    Changes changes;
    prepareWeights(in(), out(), options, changes);
    return changes;
  }
  // What the preparation is refused with; a code of 0 when it is not. Nothing may have been written.
  [[nodiscard]] Refusal refusal(const WeightOptions& options = {}) const {
    try {
      prepare(options);
      return {};
    } catch (const Refused& refused) {
      EXPECT_TRUE(std::filesystem::is_empty(out()));
      return {refused.exitCode(), refused.finding(), refused.what(), refused.remedy()};
    }
  }
  [[nodiscard]] std::vector<std::string> outNames() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(out()))
      names.push_back(entry.path().filename().native());
    std::sort(names.begin(), names.end());
    return names;
  }
  // A shard that was written, as the plug-in's own reader sees it; "NAME TYPE [SHAPE]" a tensor, by name.
  [[nodiscard]] std::vector<std::string> tensorsIn(const std::string& name) const {
    SafetensorsImporter shard;
    const Status status = shard.open((out() + "/" + name).c_str());
    EXPECT_TRUE(status.ok()) << status.message();
    std::vector<std::string> texts;
    for (const StTensorInfo& tensor : shard.tensors()) {
      static constexpr const char* kNames[] = {"F32", "F16", "BF16", "", "", "Q4_K", "Q5_K", "Q6_K"};
      std::string text = tensor.name + " " + kNames[static_cast<int>(tensor.dtype)] + " [";
      for (unsigned k = 0; k < tensor.ndim; ++k)
        text += (k > 0 ? "," : "") + std::to_string(tensor.dims[k]);
      texts.push_back(text + "]");
    }
    return texts;
  }
  [[nodiscard]] std::string dataOf(const std::string& name, const std::string& tensorName) const {
    SafetensorsImporter shard;
    EXPECT_TRUE(shard.open((out() + "/" + name).c_str()).ok());
    const StTensorInfo* tensor = shard.findTensor(tensorName);
    if (tensor == nullptr) return "no tensor " + tensorName;
    return std::string(shard.dataRegion().substr(tensor->dataBegin, tensor->size));
  }

  test::TempDir dir_;
};

// "WHAT: FROM -> TO (FINDING)", for the changes of one file.
inline std::vector<std::string> changeTexts(const Changes& changes) {
  std::vector<std::string> texts;
  for (const Change& change : changes)
    texts.push_back(change.file + ": " + change.what + ": " + change.from + " -> " + change.to + " (" +
                    change.finding + ")");
  return texts;
}

}  // namespace zel::tool::prepare
