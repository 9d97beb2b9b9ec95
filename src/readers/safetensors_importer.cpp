#include "readers/safetensors_importer.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <optional>
#include <utility>

#include "container/bytes.h"
#include "container/name_order.h"
#include "container/okv2_format.h"
#include "hf/json_parser.h"

namespace zel {
namespace {

using json::Kind;
using json::detail::Parser;

constexpr std::uint64_t kLengthBytes = 8;
constexpr std::uint64_t kMaxHeaderBytes = 1U << 30;
using okv2::kMaxDims;
constexpr std::uint64_t kTooLarge = std::numeric_limits<std::uint64_t>::max();

struct DtypeName {
  const char* text;
  DType dtype;
};
constexpr DtypeName kDtypeNames[] = {
    {"F32", DType::F32},   {"F16", DType::F16},   {"BF16", DType::BF16},
    {"Q4_K", DType::Q4_K}, {"Q5_K", DType::Q5_K}, {"Q6_K", DType::Q6_K},
};

// The product of the extents from `first` on, or all ones when it does not fit 64 bits.
std::uint64_t productFrom(const StTensorInfo& tensor, unsigned first) {
  std::uint64_t product = 1;
  for (unsigned k = first; k < tensor.ndim; ++k) {
    if (tensor.dims[k] == 0) return 0;  // whatever the other extents would overflow to
  }
  for (unsigned k = first; k < tensor.ndim; ++k) {
    if (!checkedMul(product, tensor.dims[k], product)) return kTooLarge;
  }
  return product;
}

// Bytes that the shape asks for, or all ones when they do not fit 64 bits.
std::uint64_t expectedBytes(const StTensorInfo& tensor) {
  const BlockGeometry& geometry = kBlockGeometry[std::size_t(tensor.dtype)];
  std::uint64_t units = 1;  // blocks, or elements of a plain float
  std::uint64_t rest;
  if (geometry.blockElements == 1) {
    rest = productFrom(tensor, 0);
  } else {
    // Blocks run along the first dimension; 64-bit JSON integers leave room for the rounding.
    units = (tensor.dims[0] + geometry.blockElements - 1) / geometry.blockElements;
    rest = productFrom(tensor, 1);
  }
  if (rest == 0) return 0;
  std::uint64_t bytes;
  if (rest == kTooLarge || !checkedMul(units, geometry.blockBytes, bytes) ||
      !checkedMul(bytes, rest, bytes)) {
    return kTooLarge;
  }
  return bytes;
}

// An array of integers, as far as the caller needs it.
struct IntegerList {
  std::uint64_t values[kMaxDims] = {};
  std::size_t count = 0;    // of all elements, also those not stored
  bool allIntegral = true;  // and not negative
};

// One header member as it stands; judged when it has been read whole.
struct RawEntry {
  enum class Field : std::uint8_t { Absent, WrongKind, Present };
  Field dtype = Field::Absent;
  Field shape = Field::Absent;
  Field dataOffsets = Field::Absent;
  std::string dtypeText;
  IntegerList shapeItems;
  IntegerList offsets;
};

// Fills the entries straight from the parser. What is wrong with an entry is kept, not reported, until the
// whole header has been parsed: a syntax error further on outranks it.
class HeaderReader {
 public:
  HeaderReader(std::string_view header, std::uint64_t dataBytes, std::vector<StTensorInfo>& out)
      : parser_(header.data(), header.size()),
        headerBytes_(header.size()),
        dataBytes_(dataBytes),
        out_(out) {}

  Status read();

 private:
  bool readMember(std::string_view name);
  bool readEntry(RawEntry& entry);
  bool readIntegers(IntegerList& out);
  template <class Read>
  bool readField(RawEntry::Field& field, Kind kind, Read read);
  Status addTensor(std::string_view name, const RawEntry& entry);

  Parser parser_;
  std::size_t headerBytes_;
  std::uint64_t dataBytes_;
  std::vector<StTensorInfo>& out_;
  Status firstFailure_;
};

// The first occurrence of a key counts, whatever its kind.
template <class Read>
bool HeaderReader::readField(RawEntry::Field& field, Kind kind, Read read) {
  if (field != RawEntry::Field::Absent) return parser_.skip(2);
  Kind actual;
  if (!parser_.peek(actual, 2)) return false;
  field = actual == kind ? RawEntry::Field::Present : RawEntry::Field::WrongKind;
  return actual == kind ? read() : parser_.skip(2);
}

bool HeaderReader::readIntegers(IntegerList& out) {
  return parser_.elements([&] {
    Kind kind;
    if (!parser_.peek(kind, 3)) return false;
    std::optional<std::int64_t> integer;
    if (!(kind == Kind::Number ? parser_.integer(integer) : parser_.skip(3))) return false;
    if (!integer || *integer < 0) out.allIntegral = false;
    if (out.count < kMaxDims) out.values[out.count] = std::uint64_t(integer.value_or(0));
    ++out.count;
    return true;
  });
}

bool HeaderReader::readEntry(RawEntry& entry) {
  return parser_.object([&](std::string_view key) {
    if (key == "dtype") {
      return readField(entry.dtype, Kind::String, [&] { return parser_.string(entry.dtypeText); });
    }
    if (key == "shape") {
      return readField(entry.shape, Kind::Array, [&] { return readIntegers(entry.shapeItems); });
    }
    if (key == "data_offsets") {
      return readField(entry.dataOffsets, Kind::Array, [&] { return readIntegers(entry.offsets); });
    }
    return parser_.skip(2);
  });
}

bool HeaderReader::readMember(std::string_view name) {
  if (name == "__metadata__") return parser_.skip(1);
  Kind kind;
  if (!parser_.peek(kind, 1)) return false;
  RawEntry entry;
  if (kind == Kind::Object) {
    if (!readEntry(entry)) return false;
  } else if (!parser_.skip(1)) {
    return false;
  }
  if (firstFailure_.ok()) firstFailure_ = addTensor(name, entry);
  return true;
}

Status HeaderReader::addTensor(std::string_view name, const RawEntry& entry) {
  const auto quoted = [&](const char* text) { return text + (" '" + std::string(name)) + "'"; };
  using Field = RawEntry::Field;
  if (entry.dtype != Field::Present || entry.shape != Field::Present || entry.dataOffsets != Field::Present ||
      entry.offsets.count != 2) {
    return corrupted(quoted("safetensors: bad tensor entry"));
  }
  StTensorInfo& tensor = json::detail::appendEstimated(out_, headerBytes_, parser_.remaining());
  ZEL_RETURN_IF_ERROR(SafetensorsImporter::mapDtype(entry.dtypeText, tensor.dtype, tensor.quant));
  if (entry.shapeItems.count > kMaxDims) return corrupted("safetensors: ndim > 4");
  if (!entry.shapeItems.allIntegral) return corrupted("safetensors: bad shape");
  tensor.ndim = unsigned(entry.shapeItems.count);
  std::copy_n(entry.shapeItems.values, tensor.ndim, tensor.dims);
  tensor.dataBegin = entry.offsets.values[0];
  tensor.dataEnd = entry.offsets.values[1];
  if (!entry.offsets.allIntegral || tensor.dataBegin > tensor.dataEnd) {
    return corrupted("safetensors: bad offsets");
  }
  if (tensor.dataEnd > dataBytes_) return corrupted(quoted("safetensors: offset out of range"));
  tensor.size = tensor.dataEnd - tensor.dataBegin;
  // A scalar has no first dimension, so a block type has no rows in it.
  if (tensor.quant.blockElements != 0 && tensor.dims[0] == 0) return corrupted("safetensors: zero rows");
  if (const std::uint64_t expected = expectedBytes(tensor); expected != tensor.size) {
    return corrupted(quoted("safetensors: size mismatch") + " (expected " + std::to_string(expected) +
                     " got " + std::to_string(tensor.size) + ")");
  }
  tensor.name = name;
  return {};
}

Status HeaderReader::read() {
  Kind kind;
  bool ok = parser_.peek(kind, 0);
  if (ok && kind == Kind::Object) {
    ok = parser_.object([this](std::string_view name) { return readMember(name); });
  } else if (ok) {
    ok = parser_.skip(0);
  }
  if (!ok || !parser_.finish()) return corrupted("safetensors: header JSON");
  if (kind != Kind::Object) return corrupted("safetensors: header not an object");
  return firstFailure_;
}

}  // namespace

Status SafetensorsImporter::mapDtype(const std::string& s, DType& out, QuantInfo& q) {
  for (const DtypeName& row : kDtypeNames) {
    if (s != row.text) continue;
    out = row.dtype;
    q = QuantInfo();
    const BlockGeometry& geometry = kBlockGeometry[std::size_t(row.dtype)];
    if (geometry.blockElements > 1) {
      q.dtype = std::uint16_t(row.dtype);
      q.blockElements = geometry.blockElements;
      q.blockBytes = geometry.blockBytes;
      // The first layout value stays 0 on purpose; the container writer stores its own.
      q.layout[1] = geometry.layout[1];
      q.layout[2] = geometry.layout[2];
    }
    return {};
  }
  return unsupported("safetensors: unsupported dtype '" + s + "'");
}

Status SafetensorsImporter::open(const char* path) {
  close();
  if (path == nullptr) return invalidFormat("safetensors: null path");
  switch (file_.open(path, kLengthBytes)) {
    case MapResult::OpenFailed: return ioError("safetensors: open failed");
    case MapResult::StatFailed: return corrupted("safetensors: file too small");
    case MapResult::MapFailed: return ioError("safetensors: mmap failed");
    case MapResult::Ok: break;
  }
  return parse(file_.bytes());
}

Status SafetensorsImporter::openBytes(std::string_view file) {
  close();
  if (file.size() < kLengthBytes) return corrupted("safetensors: file too small");
  return parse(file);
}

Status SafetensorsImporter::parse(std::string_view file) {
  // A failed allocation leaves the importer closed too.
  struct CloseUnlessOpen {
    SafetensorsImporter& importer;
    ~CloseUnlessOpen() {
      if (!importer.open_) importer.close();
    }
  } const closeUnlessOpen{*this};
  const std::uint64_t headerBytes = loadU64(file.data());
  if (headerBytes > kMaxHeaderBytes || headerBytes > file.size() - kLengthBytes) {
    return corrupted("safetensors: bad header length");
  }
  dataRegion_ = file.substr(kLengthBytes + headerBytes);
  ZEL_RETURN_IF_ERROR(
      HeaderReader(file.substr(kLengthBytes, headerBytes), dataRegion_.size(), tensors_).read());
  const auto byName = [](const StTensorInfo& a, const StTensorInfo& b) { return a.name < b.name; };
  if (!std::is_sorted(tensors_.begin(), tensors_.end(), byName)) {
    const auto nameAt = [this](std::size_t k) { return std::string_view(tensors_[k].name); };
    arrange(tensors_, orderByName(tensors_.size(), nameAt));
  }
  open_ = true;
  return {};
}

void SafetensorsImporter::close() noexcept {
  file_.close();
  dataRegion_ = {};
  tensors_.clear();
  open_ = false;
}

const StTensorInfo* SafetensorsImporter::findTensor(const std::string& name) const {
  if (!open_) return nullptr;
  const auto found =
      std::lower_bound(tensors_.begin(), tensors_.end(), name,
                       [](const StTensorInfo& tensor, const std::string& key) { return tensor.name < key; });
  return found != tensors_.end() && found->name == name ? &*found : nullptr;
}

void SafetensorsImporter::dump() const {
  using Long = unsigned long long;
  std::printf("safetensors: %zu tensors, data %llu bytes\n", tensors_.size(), Long(dataRegion_.size()));
  for (const StTensorInfo& tensor : tensors_) {
    std::printf("  %-40s dtype=%d ndim=%u shape=[", tensor.name.c_str(), int(tensor.dtype), tensor.ndim);
    for (unsigned k = 0; k < tensor.ndim; ++k)
      std::printf("%s%llu", k == 0 ? "" : ",", Long(tensor.dims[k]));
    std::printf("] off=[%llu,%llu) size=%llu\n", Long(tensor.dataBegin), Long(tensor.dataEnd),
                Long(tensor.size));
  }
}

}  // namespace zel
