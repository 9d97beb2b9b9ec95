// Writes model directories: a valid small one by default, any file replaceable, removable or made special.
#pragma once

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "support/safetensors_builder.h"
#include "support/temp_dir.h"

namespace zel::test {

// Four byte-pair tokens: ids 0 to 3, one merge, <s> special.
inline constexpr std::string_view kSmallTokenizerJson =
    R"({"model":{"type":"BPE","vocab":{"<s>":0,"a":1,"b":2,"ab":3},"merges":["a b"]},)"
    R"("added_tokens":[{"id":0,"content":"<s>","special":true}]})";

class ModelDirBuilder {
 public:
  // A llama configuration; write() adds a "model.safetensors" of one tensor unless weights were given.
  ModelDirBuilder() { config(R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2})"); }

  ModelDirBuilder& config(std::string_view json) { return file("config.json", json); }
  ModelDirBuilder& modelType(std::string_view name) {
    return config("{\"model_type\":" + jsonQuote(name) + "}");
  }
  ModelDirBuilder& tokenizer(std::string_view json = kSmallTokenizerJson) {
    return file("tokenizer.json", json);
  }
  ModelDirBuilder& shard(std::string_view name, const SafetensorsBuilder& tensors) {
    defaultWeights_ = false;
    return file(name, tensors.bytes());
  }
  // Without the default weight file; use it also when the weights are no regular file.
  ModelDirBuilder& noWeights() {
    defaultWeights_ = false;
    return *this;
  }
  ModelDirBuilder& file(std::string_view name, std::string_view bytes) {
    files_[std::string(name)] = std::string(bytes);
    return *this;
  }
  ModelDirBuilder& without(std::string_view name) {
    files_.erase(std::string(name));
    return *this;
  }
  ModelDirBuilder& folder(std::string_view name) {
    folders_.emplace_back(name);
    return *this;
  }
  ModelDirBuilder& fifo(std::string_view name) {
    fifos_.emplace_back(name);
    return *this;
  }
  ModelDirBuilder& symlink(std::string_view name, std::string_view target) {
    symlinks_.emplace_back(name, target);
    return *this;
  }

  // Writes the directory `name` inside `parent` and returns its path.
  std::string write(const TempDir& parent, std::string_view name = "model") const {
    const std::string dir = parent / name;
    std::filesystem::create_directories(dir);
    for (const std::string& each : folders_)
      std::filesystem::create_directories(dir + "/" + each);
    for (const auto& [each, bytes] : files_)
      parent.write(std::string(name) + "/" + each, bytes);
    for (const std::string& each : fifos_) {
      if (mkfifo((dir + "/" + each).c_str(), 0600) != 0) throw std::runtime_error(std::strerror(errno));
    }
    for (const auto& [each, target] : symlinks_)
      std::filesystem::create_symlink(target, dir + "/" + each);
    if (defaultWeights_) {
      parent.write(std::string(name) + "/model.safetensors",
                   SafetensorsBuilder().tensor("model.norm.weight", "F32", {8}).bytes());
    }
    return dir;
  }

 private:
  std::map<std::string, std::string> files_;
  std::vector<std::string> folders_;
  std::vector<std::string> fifos_;
  std::vector<std::pair<std::string, std::string>> symlinks_;
  bool defaultWeights_ = true;
};

}  // namespace zel::test
