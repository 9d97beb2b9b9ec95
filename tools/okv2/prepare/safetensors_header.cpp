#include "okv2/prepare/safetensors_header.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "container/bytes.h"
#include "container/dtype.h"
#include "hf/json_parser.h"
#include "okv2/prepare/element_type.h"
#include "okv2/prepare/weight_limits.h"

namespace zel::tool::prepare {
namespace {

using json::Kind;
using json::detail::Parser;

constexpr std::size_t kMaxExtents = 64;  // torch has no more either

struct BlockType {
  std::string_view name;
  DType dtype;
};
constexpr BlockType kBlockTypes[] = {{"Q4_K", DType::Q4_K}, {"Q5_K", DType::Q5_K}, {"Q6_K", DType::Q6_K}};

// Bytes that the shape calls for; false when they do not fit 64 bits. True, with nothing said, when the type
// is not known.
bool agrees(const HeaderTensor& tensor) {
  const ElementType* const type = findElementType(tensor.type);
  if (type == nullptr) return true;
  std::vector<std::uint64_t> extents = tensor.shape;
  std::uint64_t bytes = type->bytes;
  for (const BlockType& row : kBlockTypes) {
    if (row.name != tensor.type) continue;
    // Blocks run along the first extent.
    const BlockGeometry& geometry = kBlockGeometry[static_cast<std::size_t>(row.dtype)];
    if (extents.empty()) return false;
    extents[0] = extents[0] / geometry.blockElements + (extents[0] % geometry.blockElements != 0);
    bytes = geometry.blockBytes;
  }
  if (std::find(extents.begin(), extents.end(), 0) != extents.end()) return tensor.bytes == 0;
  for (const std::uint64_t extent : extents) {
    if (!checkedMul(bytes, extent, bytes)) return false;
  }
  return bytes == tensor.bytes;
}

class EntryReader {
 public:
  EntryReader(std::string_view file, std::uint64_t headerBytes, std::vector<HeaderTensor>& out)
      : parser_(file.data() + kHeaderLengthBytes, headerBytes),
        dataBegin_(kHeaderLengthBytes + headerBytes),
        dataBytes_(file.size() - dataBegin_),
        out_(out) {}

  Status read() {
    Kind kind;
    if (!parser_.peek(kind, 0)) return notJson();
    if (kind != Kind::Object) return corrupted("safetensors: the header is not an object");
    const bool ok = parser_.object([this](std::string_view name) { return readMember(name); });
    if (!failure_.ok()) return failure_;
    return ok && parser_.finish() ? Status() : notJson();
  }

 private:
  static Status notJson() { return corrupted("safetensors: the header is not JSON"); }

  bool fail(const std::string& text) {
    failure_ = corrupted("safetensors: " + text);
    return false;
  }

  bool readMember(std::string_view name) {
    if (name == "__metadata__") return parser_.skip(1);
    Kind kind;
    if (!parser_.peek(kind, 1)) return false;
    if (out_.size() == kMaxFileTensors) {
      failure_ = unsupported("safetensors: the header has more than " + std::to_string(kMaxFileTensors) +
                             " tensors");
      return false;
    }
    HeaderTensor tensor;
    tensor.name = name;
    if (kind != Kind::Object) return fail("bad entry of tensor '" + tensor.name + "'");
    std::vector<std::uint64_t> offsets;
    bool typed = false;
    bool shaped = false;
    const bool ok = parser_.object([&](std::string_view key) {
      Kind field;
      if (!parser_.peek(field, 2)) return false;
      if (key == "dtype" && !typed && field == Kind::String) {
        typed = true;
        return parser_.string(tensor.type);
      }
      if (key == "shape" && !shaped && field == Kind::Array) {
        shaped = true;
        return readIntegers(tensor.name, tensor.shape);
      }
      if (key == "data_offsets" && offsets.empty() && field == Kind::Array) {
        return readIntegers(tensor.name, offsets);
      }
      return parser_.skip(2);
    });
    if (!ok) return false;
    if (!typed || !shaped || offsets.size() != 2) return fail("bad entry of tensor '" + tensor.name + "'");
    if (offsets[0] > offsets[1] || offsets[1] > dataBytes_) {
      return fail("tensor '" + tensor.name + "' does not lie in the file");
    }
    tensor.offset = dataBegin_ + offsets[0];
    tensor.bytes = offsets[1] - offsets[0];
    if (!agrees(tensor)) return fail("tensor '" + tensor.name + "' has not the size of its shape");
    out_.push_back(std::move(tensor));
    return true;
  }

  bool readIntegers(const std::string& name, std::vector<std::uint64_t>& out) {
    return parser_.elements([&] {
      Kind kind;
      if (!parser_.peek(kind, 3)) return false;
      std::optional<std::int64_t> integer;
      if (kind != Kind::Number) return fail("bad entry of tensor '" + name + "'");
      if (!parser_.integer(integer)) return false;
      if (!integer || *integer < 0 || out.size() == kMaxExtents) {
        return fail("bad entry of tensor '" + name + "'");
      }
      out.push_back(static_cast<std::uint64_t>(*integer));
      return true;
    });
  }

  Parser parser_;
  std::uint64_t dataBegin_;
  std::uint64_t dataBytes_;
  std::vector<HeaderTensor>& out_;
  Status failure_;
};

}  // namespace

Status readSafetensorsHeader(std::string_view file, std::vector<HeaderTensor>& out) {
  out.clear();
  if (file.size() < kHeaderLengthBytes) return corrupted("safetensors: the file has no header");
  const std::uint64_t headerBytes = loadU64(file.data());
  if (headerBytes > kMaxSafetensorsHeaderBytes || headerBytes > file.size() - kHeaderLengthBytes) {
    return corrupted("safetensors: a header of " + std::to_string(headerBytes) + " bytes is too long");
  }
  return EntryReader(file, headerBytes, out).read();
}

}  // namespace zel::tool::prepare
