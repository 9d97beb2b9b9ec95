#include "okv2/prepare/unmapped_names.h"

#include <fmt/format.h>

#include <cstddef>
#include <string>

#include "convert/name_mapping.h"
#include "okv2/prepare/tensor_names.h"

namespace zel::tool::prepare {
namespace {

// As many names as `okv2 explain` gives of a group.
constexpr std::size_t kListed = 3;

class Group {
 public:
  void add(const std::string& name, const std::string& stored) {
    if (count_++ >= kListed) return;
    text_ += text_.empty() ? "" : "; ";
    text_ += stored == name ? name : name + " becomes " + stored;
  }
  // `one` and `many` say what the group has one or many of.
  void report(const char* one, const char* many, std::vector<explain::Finding>& out) const {
    if (count_ == 0) return;
    const std::string more = count_ > kListed ? fmt::format("; {} more", count_ - kListed) : "";
    out.push_back(
        {explain::Id::TensorUnmapped, fmt::format("{} {}", count_, count_ == 1 ? one : many), text_ + more});
  }

 private:
  std::size_t count_ = 0;
  std::string text_;
};

}  // namespace

std::vector<explain::Finding> findUnmappedNames(const std::vector<PlannedShard>& shards,
                                                const ModelKind& kind) {
  Group fused, others;
  for (const PlannedShard& shard : shards) {
    for (const PlannedOutput& output : shard.tensors) {
      const std::string& name = output.tensor.name;
      const adapter::MappedName mapped = adapter::toOkvName(kind.architecture, name);
      if (!mapped.slices.empty() || isContainerName(mapped.name)) continue;
      (isFusedName(name) ? fused : others).add(name, mapped.name);
    }
  }
  std::vector<explain::Finding> out;
  fused.report("fused projection, left whole", "fused projections, left whole", out);
  others.report("tensor", "tensors", out);
  return out;
}

}  // namespace zel::tool::prepare
