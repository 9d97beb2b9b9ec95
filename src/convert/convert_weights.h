// Hands every tensor of a weight file to the container writer under its container name.
#pragma once

#include <cstdint>
#include <string>

#include "container/okv2_writer.h"
#include "container/status.h"
#include "convert/weight_source.h"

namespace zel {

// Totals over all weight files of one import. The caller zeroes them, conversion only adds.
struct WeightStats {
  std::uint64_t tensors = 0;  // handed to the writer
  std::uint64_t bytes = 0;    // their sizes
};

// Adds every tensor of `src`, in its order. No data are copied: the writer borrows pointers into `src`,
// which must live until write() has returned. Stops at the first failure; what was added stays added.
//   Corrupted      "convert: cannot read tensor": its bytes do not lie inside the file
//   InvalidFormat  "convert: cannot map tensor '...'": it has no name; or the writer refuses it
// `stats` may be null.
Status convertWeights(WeightSource& src, const std::string& arch, OKV2Writer& writer, WeightStats* stats);

// One .safetensors file into one container, with no model directory around it: architecture "generic", no
// tokenizer, no other metadata. `stats` may be null.
Status convertSafetensorsFile(const std::string& srcPath, const std::string& dstPath, WeightStats* stats);

}  // namespace zel
