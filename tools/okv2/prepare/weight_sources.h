// Which files of a directory hold its weights.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

inline constexpr char kTorchFile[] = "pytorch_model.bin";

struct WeightSources {
  bool safetensors = false;        // or else torch checkpoints
  std::vector<std::string> names;  // without the directory, in byte order
  std::string index;               // the index file that names them; empty without one
  std::map<std::string, std::vector<std::string>> indexed;  // file to its tensors, as the index says
};

// The shards that an index file names; or every .safetensors file; or pytorch_model.bin; or its numbered
// shards. .safetensors files come first. A file that the index leaves out is reported in `changes`, and so is
// an index of .safetensors files that are not there, where torch shards are. Throws Refused when there are
// none, when one is missing, also of those that the number in another's name promises, or when one is an LFS
// pointer, a link's text, a web page, empty or not a regular file.
[[nodiscard]] WeightSources findWeightSources(const std::string& dir, Changes& changes);

}  // namespace zel::tool::prepare
