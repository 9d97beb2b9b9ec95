// Fused projections of query, key and value that lie otherwise than as three equal blocks of rows, which is
// how an import cuts them (convert/name_mapping.h).
#pragma once

#include <cstdint>
#include <vector>

#include "convert/name_mapping.h"
#include "okv2/prepare/model_kind.h"
#include "okv2/prepare/tensor_data.h"

namespace zel::tool::prepare {

// An import cuts fused tensors by rows, those in blocks by whole blocks of so many rows
// (docs/compatibility.md).
inline constexpr std::uint64_t kBlockRows = 256;

enum class FusedForm : std::uint8_t {
  EqualRows,    // an import cuts it rightly
  Columns,      // [in, out]: the parts lie side by side
  MultiQuery,   // rows of the queries of all heads, then one key head and one value head
  Interleaved,  // rows of query, key and value of the first head, then of the second
  Unknown,      // no cut is known to be right
};

// The form of `tensor`, which an import would cut. Its name is not looked at.
[[nodiscard]] FusedForm fusedFormOf(const OutputTensor& tensor, const ModelKind& kind);

struct FusedPart {
  OutputTensor tensor;
  std::uint64_t skip = 0;  // bytes from the fused tensor's first element
};

// Query, key and value of a tensor that has the form Columns, MultiQuery or Interleaved, under the names of
// the three `slices`. Each keeps the orientation that is published.
[[nodiscard]] std::vector<FusedPart> cutFused(const OutputTensor& fused,
                                              const std::vector<adapter::Slice>& slices, FusedForm form,
                                              const ModelKind& kind);

}  // namespace zel::tool::prepare
