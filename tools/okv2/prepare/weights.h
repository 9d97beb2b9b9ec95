// Brings the weights of a model directory to safetensors shards that the plug-in takes whole.
#pragma once

#include <string>
#include <vector>

#include "okv2/explain/explanation.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

struct WeightOptions {
  bool cast = false;              // 64-bit floats become 32-bit ones
  std::vector<std::string> drop;  // ECMAScript regular expressions, searched for in published tensor names
  bool textOnly = false;          // towers that are not the text model are left out
  bool castIntegers = false;      // integers and booleans become 32-bit floats
};

// Writes the weights of directory `dir` into directory `out`, which exists and holds no weights. What they
// are the weights of is read from the config.json in `out`, or else from that in `dir`. Shards that are
// already fine become symbolic links to the absolute path of the original; the others are written anew
// in constant memory. Appends what it changed to `changes`, and returns what it found no name for. Throws
// Refused, before it writes anything, when a tensor would be lost or invented without having been asked for.
std::vector<explain::Finding> prepareWeights(const std::string& dir, const std::string& out,
                                             const WeightOptions& options, Changes& changes);

}  // namespace zel::tool::prepare
