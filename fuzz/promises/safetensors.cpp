#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "hf/json.h"
#include "promises/promises.h"
#include "readers/safetensors_importer.h"

namespace zel::fuzz {
namespace {

// ---- the plain reader

struct PlainTensor {
  std::string name;
  int dtype = 0;
  std::vector<std::uint64_t> dims;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

struct PlainType {
  std::string_view name;
  int dtype;
  std::uint64_t rowsOfABlock;
  std::uint64_t bytes;
};
constexpr PlainType kTypes[] = {{"F32", 0, 1, 4},      {"F16", 1, 1, 2},      {"BF16", 2, 1, 2},
                                {"Q4_K", 5, 256, 144}, {"Q5_K", 6, 256, 176}, {"Q6_K", 7, 256, 210}};

// A whole number from 0 up to, but not including, 2^63.
bool isCount(const json::Value& value, std::uint64_t& out) {
  if (!value.isNumber() || !(value.number >= 0 && value.number < 0x1p63)) return false;
  out = std::uint64_t(value.number);
  return double(out) == value.number;
}

// All ones for what needs more than 64 bits, as long as no factor is 0.
std::uint64_t product(const std::vector<std::uint64_t>& factors) {
  std::uint64_t out = 1;
  for (const std::uint64_t factor : factors) {
    if (factor == 0) return 0;
  }
  for (const std::uint64_t factor : factors) {
    if (out > std::numeric_limits<std::uint64_t>::max() / factor) {
      return std::numeric_limits<std::uint64_t>::max();
    }
    out *= factor;
  }
  return out;
}

Status readPlainTensor(const std::string& name, const json::Value& entry, std::uint64_t dataBytes,
                       PlainTensor& out) {
  const json::Value* const dtype = entry.get("dtype");
  const json::Value* const shape = entry.get("shape");
  const json::Value* const offsets = entry.get("data_offsets");
  if (dtype == nullptr || !dtype->isString() || shape == nullptr || !shape->isArray() || offsets == nullptr ||
      !offsets->isArray() || offsets->items.size() != 2) {
    return corrupted("safetensors: bad tensor entry '" + name + "'");
  }
  const auto* const type = std::find_if(std::begin(kTypes), std::end(kTypes),
                                        [&](const PlainType& row) { return row.name == dtype->text; });
  if (type == std::end(kTypes)) return unsupported("safetensors: unsupported dtype '" + dtype->text + "'");
  if (shape->items.size() > 4) return corrupted("safetensors: ndim > 4");
  for (const json::Value& item : shape->items) {
    std::uint64_t extent = 0;
    if (!isCount(item, extent)) return corrupted("safetensors: bad shape");
    out.dims.push_back(extent);
  }
  if (!isCount(offsets->items[0], out.begin) || !isCount(offsets->items[1], out.end) || out.begin > out.end) {
    return corrupted("safetensors: bad offsets");
  }
  if (out.end > dataBytes) return corrupted("safetensors: offset out of range '" + name + "'");
  std::vector<std::uint64_t> factors = out.dims;
  if (type->rowsOfABlock > 1) {
    if (factors.empty() || factors[0] == 0) return corrupted("safetensors: zero rows");
    factors[0] = (factors[0] - 1) / type->rowsOfABlock + 1;
  }
  factors.push_back(type->bytes);
  if (const std::uint64_t expected = product(factors); expected != out.end - out.begin) {
    return corrupted("safetensors: size mismatch '" + name + "' (expected " + std::to_string(expected) +
                     " got " + std::to_string(out.end - out.begin) + ")");
  }
  out.name = name;
  out.dtype = type->dtype;
  return {};
}

Status readPlainly(std::string_view file, std::vector<PlainTensor>& out) {
  if (file.size() < 8) return corrupted("safetensors: file too small");
  std::uint64_t headerBytes = 0;
  for (std::size_t k = 8; k-- > 0;)
    headerBytes = headerBytes << 8 | static_cast<unsigned char>(file[k]);
  if (headerBytes > 1073741824 || file.size() < headerBytes + 8) {
    return corrupted("safetensors: bad header length");
  }
  json::Value root;
  if (!json::parse(file.data() + 8, headerBytes, root).ok()) return corrupted("safetensors: header JSON");
  if (!root.isObject()) return corrupted("safetensors: header not an object");
  for (const auto& [name, entry] : root.members) {
    if (name == "__metadata__") continue;
    ZEL_RETURN_IF_ERROR(readPlainTensor(name, entry, file.size() - 8 - headerBytes, out.emplace_back()));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const PlainTensor& a, const PlainTensor& b) { return a.name < b.name; });
  return {};
}

// ---- the promises

void checkTensor(const StTensorInfo& tensor, const PlainTensor& plain, const SafetensorsImporter& importer) {
  promise(tensor.name == plain.name, "names are the reference's");
  promise(int(tensor.dtype) == plain.dtype, "types are the reference's");
  promise(tensor.ndim == plain.dims.size() && std::equal(plain.dims.begin(), plain.dims.end(), tensor.dims),
          "shapes are the reference's");
  promise(std::all_of(tensor.dims + tensor.ndim, tensor.dims + 4, [](std::uint64_t d) { return d == 0; }),
          "unused extents are 0");
  promise(tensor.dataBegin == plain.begin && tensor.dataEnd == plain.end, "offsets are the reference's");
  promise(tensor.size == plain.end - plain.begin, "sizes follow from the offsets");
  promise(tensor.dataBegin <= tensor.dataEnd && tensor.dataEnd <= importer.dataRegion().size(),
          "every tensor lies inside the data region");
  const bool blocks = tensor.quant.blockElements != 0;
  promise(blocks == (plain.dtype >= 5) && tensor.quant.dtype == (blocks ? plain.dtype : 0),
          "the block layout goes with the type");
  const StTensorInfo* const found = importer.findTensor(tensor.name);
  promise(found != nullptr && found->name == tensor.name, "every tensor is found by its name");
}

}  // namespace

void checkSafetensors(std::string_view input) {
  static SafetensorsImporter importer;  // one for all inputs: nothing of the last may show in the next
  std::vector<PlainTensor> expected;
  const Status plain = readPlainly(input, expected);
  const Status status = importer.openBytes(input);
  promiseKnownStatus(status, {Code::Unsupported, Code::Corrupted}, "safetensors: ");
  promiseSame(status, plain);
  promise(importer.isOpen() == status.ok(), "open after a success, closed after a failure");
  if (!status.ok()) {
    promise(importer.tensors().empty() && importer.dataRegion().empty(), "a failure leaves nothing");
    return;
  }
  promise(importer.tensors().size() == expected.size(), "as many tensors as the reference");
  const std::string_view region = importer.dataRegion();
  promise(region.data() >= input.data() && region.data() + region.size() == input.data() + input.size(),
          "the data region ends the input");
  for (std::size_t k = 0; k < expected.size(); ++k)
    checkTensor(importer.tensors()[k], expected[k], importer);
  importer.close();
  promise(expected.empty() || importer.findTensor(expected[0].name) == nullptr, "closed: nothing is found");
}

}  // namespace zel::fuzz
