#include "readers/safetensors_importer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <utility>

#include "container/bytes.h"
#include "container/name_order.h"
#include "container/okv2_format.h"
#include "container/page_advice.h"
#include "hf/json_parser.h"

namespace zel {
namespace {

using json::Kind;
using json::detail::appendEstimated;
using json::detail::kOneListBytes;
using json::detail::Parser;

constexpr std::uint64_t kLengthBytes = 8;
constexpr std::uint64_t kMaxHeaderBytes = 1U << 30;
using okv2::kMaxDims;
constexpr std::uint64_t kTooLarge = std::numeric_limits<std::uint64_t>::max();

QuantInfo quantOf(DType dtype) {
  QuantInfo quant;
  const BlockGeometry& geometry = kBlockGeometry[std::size_t(dtype)];
  if (geometry.blockElements > 1) {
    quant.dtype = std::uint16_t(dtype);
    quant.blockElements = geometry.blockElements;
    quant.blockBytes = geometry.blockBytes;
    // The first layout value stays 0 on purpose; the container writer stores its own.
    quant.layout[1] = geometry.layout[1];
    quant.layout[2] = geometry.layout[2];
  }
  return quant;
}

struct DtypeName {
  std::string_view text;
  DType dtype;
};
constexpr DtypeName kDtypeNames[] = {
    {"F32", DType::F32},   {"F16", DType::F16},   {"BF16", DType::BF16},
    {"Q4_K", DType::Q4_K}, {"Q5_K", DType::Q5_K}, {"Q6_K", DType::Q6_K},
};

// One tensor of the header, before the tensors have their order: what StTensorInfo takes, but for the name
// and what follows from the rest.
struct HeaderEntry {
  std::string_view name;
  DType dtype = DType::F32;
  std::uint8_t ndim = 0;
  std::uint64_t dims[kMaxDims] = {};
  std::uint64_t dataBegin = 0;
  std::uint64_t dataEnd = 0;
};

// The product of the extents from `first` on, or all ones when it does not fit 64 bits.
std::uint64_t productFrom(const HeaderEntry& tensor, unsigned first) {
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
std::uint64_t expectedBytes(const HeaderEntry& tensor) {
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

// A comparison with a constant is a few instructions; one through the library's operator is a call.
template <std::size_t N>
bool isText(std::string_view text, const char (&constant)[N]) noexcept {
  return text.size() == N - 1 && std::memcmp(text.data(), constant, N - 1) == 0;
}

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
  HeaderReader(std::string_view header, std::uint64_t dataBytes)
      : parser_(header.data(), header.size()), header_(header), dataBytes_(dataBytes) {}

  Status read();
  // What read() has found, in the order of names.
  void fill(std::vector<StTensorInfo>& out) const;

 private:
  bool readMember(std::string_view name);
  bool readUsualEntry(RawEntry& entry);
  bool readEntry(RawEntry& entry);
  bool readIntegers(IntegerList& out);
  template <class Read>
  bool readField(RawEntry::Field& field, Kind kind, Read read);
  Status addTensor(std::string_view name, const RawEntry& entry);

  std::string_view keep(std::string_view name);

  Parser parser_;
  std::string_view header_;
  std::uint64_t dataBytes_;
  std::vector<HeaderEntry> entries_;
  std::deque<std::string> unescapedNames_;
  Status firstFailure_;
};

// The name as long as this reader lives: most stand in the header as they are.
std::string_view HeaderReader::keep(std::string_view name) {
  const std::less<> before;
  const bool inHeader =
      !before(name.data(), header_.data()) && before(name.data(), header_.data() + header_.size());
  return inHeader ? name : unescapedNames_.emplace_back(name);
}

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

// As the format's own writer spells every entry. Whatever it does not know is left for readEntry().
bool HeaderReader::readUsualEntry(RawEntry& entry) {
  const Parser before = parser_;
  std::string_view dtype;
  if (parser_.literally("{\"dtype\":\"") && parser_.plainText(dtype) && parser_.literally(",\"shape\":[") &&
      parser_.shortIntegers(entry.shapeItems.values, kMaxDims, entry.shapeItems.count) &&
      parser_.literally(",\"data_offsets\":[") &&
      parser_.shortIntegers(entry.offsets.values, kMaxDims, entry.offsets.count) && parser_.literally("}")) {
    entry.dtypeText = dtype;
    entry.dtype = entry.shape = entry.dataOffsets = RawEntry::Field::Present;
    return true;
  }
  parser_ = before;
  entry = RawEntry();
  return false;
}

bool HeaderReader::readEntry(RawEntry& entry) {
  return parser_.object([&](std::string_view key) {
    if (isText(key, "dtype")) {
      return readField(entry.dtype, Kind::String, [&] { return parser_.string(entry.dtypeText); });
    }
    if (isText(key, "shape")) {
      return readField(entry.shape, Kind::Array, [&] { return readIntegers(entry.shapeItems); });
    }
    if (isText(key, "data_offsets")) {
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
    if (!readUsualEntry(entry) && !readEntry(entry)) return false;
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
  HeaderEntry& tensor = appendEstimated(entries_, header_.size(), parser_.remaining(), kOneListBytes);
  QuantInfo quant;
  ZEL_RETURN_IF_ERROR(SafetensorsImporter::mapDtype(entry.dtypeText, tensor.dtype, quant));
  if (entry.shapeItems.count > kMaxDims) return corrupted("safetensors: ndim > 4");
  if (!entry.shapeItems.allIntegral) return corrupted("safetensors: bad shape");
  tensor.ndim = std::uint8_t(entry.shapeItems.count);
  std::copy_n(entry.shapeItems.values, tensor.ndim, tensor.dims);
  tensor.dataBegin = entry.offsets.values[0];
  tensor.dataEnd = entry.offsets.values[1];
  if (!entry.offsets.allIntegral || tensor.dataBegin > tensor.dataEnd) {
    return corrupted("safetensors: bad offsets");
  }
  if (tensor.dataEnd > dataBytes_) return corrupted(quoted("safetensors: offset out of range"));
  const std::uint64_t size = tensor.dataEnd - tensor.dataBegin;
  // A scalar has no first dimension, so a block type has no rows in it.
  if (quant.blockElements != 0 && tensor.dims[0] == 0) return corrupted("safetensors: zero rows");
  if (const std::uint64_t expected = expectedBytes(tensor); expected != size) {
    return corrupted(quoted("safetensors: size mismatch") + " (expected " + std::to_string(expected) +
                     " got " + std::to_string(size) + ")");
  }
  tensor.name = keep(name);
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

void HeaderReader::fill(std::vector<StTensorInfo>& out) const {
  const auto nameAt = [this](std::size_t k) { return entries_[k].name; };
  const std::vector<std::uint32_t> order = orderByName(entries_.size(), nameAt);
  reserveOnLargePages(out, entries_.size());
  // Neither an entry nor its name lies behind the one before: the processor is told early what comes.
  constexpr std::size_t kEntryAhead = 16;
  constexpr std::size_t kNameAhead = 8;
  for (std::size_t k = 0; k < order.size(); ++k) {
    if (k + kEntryAhead < order.size()) __builtin_prefetch(&entries_[order[k + kEntryAhead]]);
    if (k + kNameAhead < order.size()) __builtin_prefetch(entries_[order[k + kNameAhead]].name.data());
    const HeaderEntry& entry = entries_[order[k]];
    StTensorInfo& tensor = out.emplace_back();
    tensor.name = entry.name;
    tensor.dtype = entry.dtype;
    tensor.quant = quantOf(entry.dtype);
    tensor.ndim = entry.ndim;
    std::copy_n(entry.dims, entry.ndim, tensor.dims);
    tensor.dataBegin = entry.dataBegin;
    tensor.dataEnd = entry.dataEnd;
    tensor.size = entry.dataEnd - entry.dataBegin;
  }
}

}  // namespace

Status SafetensorsImporter::mapDtype(const std::string& s, DType& out, QuantInfo& q) {
  for (const DtypeName& row : kDtypeNames) {
    if (s != row.text) continue;
    out = row.dtype;
    q = quantOf(out);
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
  HeaderReader reader(file.substr(kLengthBytes, headerBytes), dataRegion_.size());
  ZEL_RETURN_IF_ERROR(reader.read());
  reader.fill(tensors_);
  open_ = true;
  return {};
}

void SafetensorsImporter::close() noexcept {
  file_.close();
  dataRegion_ = {};
  tensors_ =
      std::vector<StTensorInfo>();  // clear() would keep the memory, and importers that failed are kept
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
