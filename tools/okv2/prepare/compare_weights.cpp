#include "okv2/prepare/compare_weights.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "container/dtype.h"
#include "convert/name_mapping.h"
#include "okv2/escape.h"
#include "okv2/prepare/fused_attention.h"
#include "okv2/prepare/source_guard.h"
#include "okv2/prepare/weights_plan.h"

namespace zel::tool::prepare {
namespace {

constexpr std::size_t kMaxDifferences = 100;

struct TypeCode {
  const char* type;
  DType code;
};
constexpr TypeCode kTypeCodes[] = {{"F32", DType::F32},   {"F16", DType::F16},   {"BF16", DType::BF16},
                                   {"Q4_K", DType::Q4_K}, {"Q5_K", DType::Q5_K}, {"Q6_K", DType::Q6_K}};

// Planned tensors have one of these.
DType codeOf(const std::string& type) {
  const auto* const found = std::find_if(std::begin(kTypeCodes), std::end(kTypeCodes),
                                         [&](const TypeCode& row) { return row.type == type; });
  return found == std::end(kTypeCodes) ? DType::F32 : found->code;
}

// The tensor's bytes as they are prepared, piece after piece.
class PreparedBytes {
 public:
  explicit PreparedBytes(const OutputTensor& tensor) : tensor_(tensor) {
    if (!isWrittenAsItLies(tensor)) converted_.emplace(tensor);
  }

  // Empty at the end.
  std::string_view next() {
    if (converted_) return converted_->next();
    const std::uint64_t n = std::min<std::uint64_t>(kPieceBytes, tensor_.bytes - done_);
    const std::string_view piece = tensor_.data->bytes.substr(tensor_.offset + done_, n);
    done_ += n;
    return piece;
  }

 private:
  const OutputTensor& tensor_;
  std::optional<ConvertedBytes> converted_;
  std::uint64_t done_ = 0;
};

class Comparison {
 public:
  Comparison(const ContainerView& view, const std::string& architecture)
      : view_(view), architecture_(architecture) {
    for (const TensorView& tensor : view.tensors)
      unseen_.emplace(tensor.name, &tensor);
  }

  void compare(const OutputTensor& tensor) {
    const adapter::MappedName mapped = adapter::toOkvName(architecture_, tensor.name);
    std::vector<const TensorView*> parts;
    std::vector<std::string> names;
    for (const adapter::Slice& slice : mapped.slices)
      names.push_back(slice.name);
    if (names.empty()) names.push_back(mapped.name);
    for (const std::string& name : names) {
      const auto found = unseen_.find(name);
      if (found == unseen_.end()) {
        differ(name, fmt::format("is missing, made of '{}'", escaped(tensor.name)));
        return;
      }
      parts.push_back(found->second);
      unseen_.erase(found);
    }
    if (compareForm(tensor, parts)) compareBytes(tensor, parts);
  }

  std::vector<std::string> finish() {
    for (const TensorView& tensor : view_.tensors) {
      if (unseen_.count(tensor.name) != 0) differ(tensor.name, "is made of no tensor of the directory");
    }
    return std::move(out_);
  }

 private:
  void differ(std::string_view name, const std::string& what) {
    if (out_.size() < kMaxDifferences) out_.push_back(fmt::format("tensor '{}' {}", escaped(name), what));
  }

  bool compareForm(const OutputTensor& tensor, const std::vector<const TensorView*>& parts) {
    const BlockGeometry& geometry = kBlockGeometry[static_cast<std::size_t>(codeOf(tensor.type))];
    std::vector<std::uint64_t> shape = tensor.shape;
    shape[0] /= parts.size();
    std::uint64_t bytes = tensor.bytes;
    if (parts.size() > 1) {
      const std::uint64_t rows = geometry.blockElements > 1 ? shape[0] / kBlockRows : shape[0];
      bytes = rows * (shape.size() > 1 ? shape[1] : 1) * geometry.splitUnit;
    }
    for (const TensorView* part : parts) {
      if (part->dtype != geometry.containerCode) {
        differ(part->name, fmt::format("has type {}, expected {}", part->dtype, geometry.containerCode));
      } else if (part->ndim != shape.size() || !std::equal(shape.begin(), shape.end(), part->dims)) {
        differ(part->name, fmt::format("has another shape than [{}]", fmt::join(shape, ", ")));
      } else if (part->size != bytes || view_.tensorData(*part).size() != bytes) {
        differ(part->name, fmt::format("has {} bytes, expected {}", part->size, bytes));
      } else {
        continue;
      }
      return false;
    }
    return true;
  }

  // The parts' bytes follow one another in the tensor; what an import drops at the end is not compared.
  void compareBytes(const OutputTensor& tensor, const std::vector<const TensorView*>& parts) {
    PreparedBytes source(tensor);
    std::string_view piece = source.next();
    for (const TensorView* part : parts) {
      const std::string_view all = view_.tensorData(*part);
      for (std::string_view left = all; !left.empty();) {
        if (piece.empty()) piece = source.next();
        const std::size_t n = std::min(left.size(), piece.size());
        if (n == 0 || std::memcmp(left.data(), piece.data(), n) != 0) {
          const std::size_t same = static_cast<std::size_t>(
              std::mismatch(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(n), piece.begin())
                  .first -
              left.begin());
          differ(part->name, fmt::format("differs from byte {}", all.size() - left.size() + same));
          return;
        }
        left.remove_prefix(n);
        piece.remove_prefix(n);
      }
    }
  }

  const ContainerView& view_;
  const std::string& architecture_;
  std::map<std::string_view, const TensorView*> unseen_;
  std::vector<std::string> out_;
};

}  // namespace

std::vector<std::string> compareWeights(const ContainerView& view, const std::string& dir,
                                        const WeightOptions& options) {
  Changes changes;
  WeightsPlan plan;
  plan.open(dir, dir, options, changes);
  Comparison comparison(view, plan.architecture());
  for (PlannedShard& shard : plan.shards()) {
    WeightsPlan::place(shard, std::filesystem::temp_directory_path().native());
    for (const PlannedOutput& output : shard.tensors)
      readGuarded(*output.tensor.data, [&] { comparison.compare(output.tensor); });
  }
  return comparison.finish();
}

}  // namespace zel::tool::prepare
