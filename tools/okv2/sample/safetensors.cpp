#include <fmt/format.h>

#include <iterator>
#include <nlohmann/json.hpp>
#include <span>

#include "okv2/sample/output.h"
#include "okv2/sample/weights.h"

namespace zel::sample {
namespace {

const char* dtypeText(DType dtype) {
  return dtype == DType::F32 ? "F32" : dtype == DType::F16 ? "F16" : "BF16";
}

std::string shardName(std::size_t shard, std::size_t shards) {
  return fmt::format("model-{:05}-of-{:05}.safetensors", shard + 1, shards);
}

// Contiguous runs of about equal size, none of them empty.
std::vector<std::span<const PlannedTensor>> cutIntoShards(const Plan& plan, std::size_t shards) {
  const std::span<const PlannedTensor> all = plan.tensors;
  std::vector<std::span<const PlannedTensor>> out;
  std::size_t begin = 0;
  std::uint64_t bytes = 0;
  for (std::size_t k = 0; k < all.size() && out.size() + 1 < shards; ++k) {
    bytes += all[k].bytes;
    const std::size_t shardsAfter = shards - (out.size() + 1);
    const bool full = bytes >= plan.weightBytes / shards * (out.size() + 1);
    const bool restNeedsOneEach = all.size() - (k + 1) == shardsAfter;
    if (full || restNeedsOneEach) {
      out.push_back(all.subspan(begin, k + 1 - begin));
      begin = k + 1;
    }
  }
  out.push_back(all.subspan(begin));
  return out;
}

// Length and JSON text, padded with spaces so that the data begin at a multiple of 8.
std::string headerOf(std::span<const PlannedTensor> tensors) {
  std::string json = R"({"__metadata__":{"format":"pt"})";
  auto out = std::back_inserter(json);
  std::uint64_t offset = 0;
  for (const PlannedTensor& tensor : tensors) {
    fmt::format_to(out, R"(,"{}":{{"dtype":"{}","shape":[{}],"data_offsets":[{},{}]}})", tensor.name,
                   dtypeText(tensor.dtype), fmt::join(tensor.shape, ","), offset, offset + tensor.bytes);
    offset += tensor.bytes;
  }
  json += '}';
  json.resize((json.size() + 7) / 8 * 8, ' ');
  std::string header;
  for (int shift = 0; shift < 64; shift += 8)
    header += static_cast<char>(json.size() >> shift & 0xFF);
  return header + json;
}

bool writeShard(const std::string& path, std::span<const PlannedTensor> tensors, std::string& error) {
  OutputFile file(path);
  file.write(headerOf(tensors));
  for (const PlannedTensor& tensor : tensors) {
    Filler filler(tensor);
    for (std::string_view piece; filler.next(piece);)
      file.write(piece);
  }
  return file.finish(error);
}

std::string indexText(const Plan& plan, std::span<const std::span<const PlannedTensor>> shards) {
  nlohmann::json index;
  index["metadata"]["total_size"] = plan.weightBytes;
  nlohmann::json& map = index["weight_map"];
  for (std::size_t k = 0; k < shards.size(); ++k) {
    for (const PlannedTensor& tensor : shards[k])
      map[tensor.name] = shardName(k, shards.size());
  }
  return index.dump(2) + "\n";
}

}  // namespace

bool writeSafetensors(const std::string& directory, const Plan& plan, std::uint32_t shards,
                      std::string& error) {
  const std::vector<std::span<const PlannedTensor>> parts = cutIntoShards(plan, shards);
  for (std::size_t k = 0; k < parts.size(); ++k) {
    if (!writeShard(directory + "/" + shardName(k, parts.size()), parts[k], error)) return false;
  }
  if (parts.size() == 1) return true;
  return writeTextFile(directory + "/model.safetensors.index.json", indexText(plan, parts), error);
}

}  // namespace zel::sample
