#include "container/okv2_writer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "container/descriptor.h"
#include "container/dtype.h"
#include "container/name_order.h"
#include "container/open_file.h"
#include "container/output_file.h"
#include "container/page_advice.h"

namespace zel {
namespace {

// Every failure of the writer is InvalidFormat on purpose, those of the output file too: no IOError here.
Status failed(const char* text) { return invalidFormat(text); }

bool validDescriptor(const char* name, std::uint16_t ndim, std::uint64_t size) {
  return name != nullptr && ndim >= 1 && ndim <= okv2::kMaxDims && size != 0;
}

void putStrings(ByteVector& out, const std::vector<std::string>& strings) {
  putU32(out, std::uint32_t(strings.size()));
  for (const std::string& text : strings)
    putStr(out, text);
}

// One entry of a table: fields one behind the other, and zeros up to its end. Made where it stays.
template <std::size_t N>
class TableEntry {
 public:
  explicit TableEntry(ByteVector& out) {
    out.resize(out.size() + N);
    at_ = out.data() + (out.size() - N);
  }
  void bytes(std::string_view text) noexcept {
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
  }
  void u16(std::uint16_t value) noexcept { put<2>(value); }
  void u32(std::uint32_t value) noexcept { put<4>(value); }
  void u64(std::uint64_t value) noexcept { put<8>(value); }
  void skip(std::size_t bytes) noexcept { at_ += bytes; }

 private:
  template <std::size_t Bytes>
  void put(std::uint64_t value) noexcept {
    storeLittleEndian<Bytes>(at_, value);
    at_ += Bytes;
  }

  std::uint8_t* at_;
};

void putIndexEntry(ByteVector& out, const TensorMeta& tensor, std::uint64_t dataOffset) {
  const std::string_view name = tensor.name.substr(0, okv2::kTensorNameBytes - 1);
  TableEntry<okv2::kTensorEntryBytes> entry(out);
  entry.bytes(name);
  entry.skip(okv2::kTensorNameBytes - name.size());
  entry.u16(std::uint16_t(tensor.name.size()));  // the length before cutting, modulo 65536
  entry.u16(tensor.dtype);
  entry.u16(tensor.ndim);
  entry.u16(0);
  for (const std::uint64_t extent : tensor.dims)
    entry.u64(extent);
  entry.u64(dataOffset);
  entry.u64(tensor.size);
}

void putLayoutEntry(ByteVector& out, std::uint16_t dtype, const BlockGeometry& geometry) {
  TableEntry<okv2::kLayoutEntryBytes> entry(out);
  entry.u16(dtype);
  entry.u16(geometry.blockElements);
  entry.u32(geometry.blockBytes);
  for (const std::uint32_t value : geometry.layout)
    entry.u32(value);
}

std::size_t paddingAfter(std::uint64_t size) { return std::size_t(okv2::align(size) - size); }

struct Section {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

// The seven sections by type; row n describes type n + 1.
class SectionTable {
 public:
  Section& operator[](okv2::SectionType type) { return sections_[std::size_t(type) - 1]; }

  // Gives every section the next multiple of 64 after the one that lies before it in the file.
  void layOut() {
    std::uint64_t end = okv2::kFirstSectionOffset;
    for (const okv2::SectionType type : okv2::kFileOrder) {
      (*this)[type].offset = okv2::align(end);
      end = (*this)[type].offset + (*this)[type].size;
    }
  }

  [[nodiscard]] ByteVector serialise() const {
    ByteVector out;
    out.reserve(okv2::kSectionTableBytes);
    for (std::size_t k = 0; k < okv2::kSectionCount; ++k) {
      putU32(out, std::uint32_t(k + 1));
      putU32(out, 0);
      putU64(out, sections_[k].offset);
      putU64(out, sections_[k].size);
    }
    return out;
  }

 private:
  Section sections_[okv2::kSectionCount];
};

// Appends a section and its padding; the bytes must stay until they are flushed.
bool appendSection(OutputFile& out, const ByteVector& bytes) {
  return out.append(bytes.data(), bytes.size(), "OKV2: write section failed") &&
         out.appendZeros(paddingAfter(bytes.size()), "OKV2: write section failed");
}

// Appends a section of `count` entries, each built by putEntry(bytes, k), without ever holding more than one
// write's worth of it. The last entries stay in `batch` until they are flushed.
template <class PutEntry>
bool appendTable(OutputFile& out, std::size_t count, std::size_t entryBytes, ByteVector& batch,
                 PutEntry putEntry) {
  for (std::size_t k = 0; k < count; ++k) {
    if (batch.size() + entryBytes > OutputFile::kPieceBytes) {
      if (!out.append(batch.data(), batch.size(), "OKV2: write section failed") || !out.flush()) return false;
      batch.clear();
    }
    putEntry(batch, k);
  }
  static_assert(OutputFile::kPieceBytes % okv2::kAlignment == 0 &&
                OutputFile::kPieceBytes % okv2::kTensorEntryBytes == 0 &&
                OutputFile::kPieceBytes % okv2::kLayoutEntryBytes == 0);
  return appendSection(out, batch);  // what went before it needs no padding
}

// Writes the data of one tensor that lies in a file, through `buffer`.
Status copyFromFile(OutputFile& out, const TensorMeta& tensor, std::vector<unsigned char>& buffer) {
  constexpr std::size_t kCopyBufferBytes = 1 << 20;
  buffer.resize(kCopyBufferBytes);
  // What is queued goes first: its failure is older than any failure of the source.
  if (!out.flush()) return failed(out.failure());
  if (fseeko(tensor.file, off_t(tensor.fileOffset), SEEK_SET) != 0) return failed("OKV2: seek source failed");
  for (std::uint64_t left = tensor.size; left > 0;) {
    const std::size_t n = std::size_t(std::min<std::uint64_t>(left, buffer.size()));
    if (std::fread(buffer.data(), 1, n, tensor.file) != n) return failed("OKV2: read source failed");
    if (!out.append(buffer.data(), n, "OKV2: write weights failed")) return failed(out.failure());
    if (!out.flush()) return failed(out.failure());  // the buffer is used again
    left -= n;
  }
  return {};
}

// Appends the data of a tensor. A long one goes in pieces that end on multiples of the piece size in the
// output file, so that all but the first and last cover whole pages of it, and leaves nothing queued;
// `release` lets go of its pages behind the copy.
bool appendInPieces(OutputFile& out, const void* data, std::uint64_t size, bool release) {
  constexpr std::uint64_t kReleaseBytes = 8 << 20;
  if (size < OutputFile::kPieceBytes)
    return out.append(data, std::size_t(size), "OKV2: write weights failed");
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t written = 0;
  std::uint64_t released = 0;
  while (written < size) {
    const std::uint64_t room = OutputFile::kPieceBytes - out.appended() % OutputFile::kPieceBytes;
    const auto n = std::size_t(std::min(size - written, room));
    populatePages(bytes + written, n);
    if (!out.append(bytes + written, n, "OKV2: write weights failed") || !out.flush()) return false;
    written += n;
    const bool atEnd = written == size;
    if (release && (atEnd || written - released >= kReleaseBytes)) {
      releasePages(bytes + released, std::size_t(written - released));
      released = written;
    }
  }
  return true;
}

// Files behind borrowed mappings, opened again one at a time: a model may have more shards than a process may
// have open files.
class MappedSource {
 public:
  // The open file that `mapping` maps; negative when the path leads elsewhere by now.
  int descriptorOf(const BorrowedMapping& mapping) noexcept {
    if (&mapping == mapping_) return file_.get();
    mapping_ = &mapping;
    file_.reset(openFile(mapping.path.c_str(), O_RDONLY));  // what is there by now may be a FIFO
    struct stat info {};
    if (file_.isOpen() &&
        (::fstat(file_.get(), &info) != 0 || !(FileId{info.st_dev, info.st_ino} == mapping.file))) {
      (void)file_.close();
    }
    return file_.get();
  }

  // Whether the file is shorter than when it was mapped: the mapping then ends in zeros, up to the end of a
  // page.
  bool isCut(const BorrowedMapping& mapping) noexcept {
    const int file = descriptorOf(mapping);
    struct stat info {};
    return file >= 0 && ::fstat(file, &info) == 0 && S_ISREG(info.st_mode) &&
           std::uint64_t(info.st_size) < mapping.bytes.size();
  }

 private:
  const BorrowedMapping* mapping_ = nullptr;
  Descriptor file_;
};

// Brings in the pages of borrowed tensors that are too short for a call each. A page that is missing breaks
// off the kernel's copy in the middle of a gathered write, and it goes on by single pages. Linux maps what
// the file cache holds around a page that is asked for, 64 KB at once, so one page in each such window will
// do.
class ShortTensorPages {
 public:
  void populate(const void* data, std::uint64_t size) noexcept {
    constexpr std::uintptr_t kWindowBytes = 64 << 10;
    const auto begin = reinterpret_cast<std::uintptr_t>(data);
    for (std::uintptr_t at = begin; at < begin + size; at = (at / kWindowBytes + 1) * kWindowBytes) {
      const std::uintptr_t window = at / kWindowBytes;
      if (std::exchange(asked_[window % kWindows], window) != window) {
        populatePages(reinterpret_cast<const void*>(at), 1);
      }
    }
  }

 private:
  // In the order of their names tensors come back to a window again and again, "layers.10" before "layers.2":
  // as many windows are remembered as 256 MiB have.
  static constexpr std::size_t kWindows = 4096;
  std::uintptr_t asked_[kWindows] = {};  // counted from address 0, where nothing lies
};

// What is written goes through the processor's caches, so entries are no longer there when their turn comes:
// asks for the one that is soon the next.
void prefetchTensor(const std::vector<TensorMeta>& tensors, const std::vector<std::uint32_t>& order,
                    std::size_t now) noexcept {
  constexpr std::size_t kAhead = 16;
  if (now + kAhead >= order.size()) return;
  const auto* tensor = reinterpret_cast<const char*>(&tensors[order[now + kAhead]]);
  __builtin_prefetch(tensor);  // an entry lies in two or three cache lines
  __builtin_prefetch(tensor + sizeof(TensorMeta) / 2);
  __builtin_prefetch(tensor + sizeof(TensorMeta) - 1);
}

// In the order of their names short tensors lie here and there: the kernel's copy would wait for the first
// bytes of each, behind which the processor fetches ahead by itself.
void prefetchStart(const char* data, std::uint64_t size) noexcept {
  constexpr std::uint64_t kStartBytes = 256;
  constexpr std::uint64_t kCacheLineBytes = 64;
  for (std::uint64_t k = 0; k < std::min(size, kStartBytes); k += kCacheLineBytes)
    __builtin_prefetch(data + k);
}

// Appends a tensor in borrowed memory; `mapping` is the one that it lies in, or null.
bool appendBorrowed(OutputFile& out, const TensorMeta& tensor, const BorrowedMapping* mapping,
                    MappedSource& source, ShortTensorPages& pages) {
  const auto* data = static_cast<const char*>(tensor.memory);
  if (tensor.size < OutputFile::kPieceBytes) {
    pages.populate(data, tensor.size);
    prefetchStart(data, tensor.size);
  }
  std::uint64_t copied = 0;
  if (mapping != nullptr && tensor.size >= OutputFile::kCopyBytes) {
    if (const int file = source.descriptorOf(*mapping); file >= 0) {
      if (!out.flush()) return false;
      copied = out.copyFrom(file, std::uint64_t(data - mapping->bytes.data()), tensor.size);
    }
  }
  return appendInPieces(out, data + copied, tensor.size - copied, mapping != nullptr);
}

}  // namespace

void OKV2Writer::setModelInfo(std::uint32_t archId, std::uint64_t hiddenSize, std::uint32_t numLayers,
                              std::uint32_t vocabSize) {
  archId_ = archId;
  hiddenSize_ = hiddenSize;
  numLayers_ = numLayers;
  vocabSize_ = vocabSize;
}

Status OKV2Writer::addMetaU32(const char* key, std::uint32_t value) {
  MetaItem& item = addMeta(key, okv2::MetaType::U32);
  item.u32 = value;
  return {};
}

Status OKV2Writer::addMetaI32(const char* key, std::int32_t value) {
  MetaItem& item = addMeta(key, okv2::MetaType::I32);
  item.i32 = value;
  return {};
}

Status OKV2Writer::addMetaF32(const char* key, float value) {
  MetaItem& item = addMeta(key, okv2::MetaType::F32);
  item.f32 = value;
  return {};
}

Status OKV2Writer::addMetaU64(const char* key, std::uint64_t value) {
  MetaItem& item = addMeta(key, okv2::MetaType::U64);
  item.u64 = value;
  return {};
}

Status OKV2Writer::addMetaStr(const char* key, const std::string& value) {
  MetaItem& item = addMeta(key, okv2::MetaType::Str);
  item.str = value;
  return {};
}

Status OKV2Writer::addMetaU32Array(const char* key, const std::uint32_t* values, std::size_t count) {
  MetaItem& item = addMeta(key, okv2::MetaType::U32Array);
  item.array.assign(values, values + count);
  return {};
}

MetaItem& OKV2Writer::addMeta(const char* key, okv2::MetaType type) {
  MetaItem& item = meta_.emplace_back();
  item.key = key;
  item.type = std::uint8_t(type);
  return item;
}

void OKV2Writer::reserveTensors(std::size_t count) {
  const std::size_t needed = tensors_.size() + count;
  // Never by less than doubling: a thousand files in turn would move everything a thousand times.
  if (needed > tensors_.capacity()) reserveOnLargePages(tensors_, std::max(needed, 2 * tensors_.capacity()));
}

TensorMeta& OKV2Writer::addTensorMeta(const char* name, std::uint16_t dtype, const std::uint64_t* dims,
                                      std::uint16_t ndim, std::uint64_t size) {
  const std::string_view kept = names_.keep(name);
  TensorMeta& tensor = tensors_.emplace_back();
  tensor.name = kept;
  tensor.dtype = dtype;
  tensor.ndim = ndim;
  std::copy_n(dims, ndim, tensor.dims);
  tensor.size = size;
  return tensor;
}

Status OKV2Writer::addTensor(const char* name, std::uint16_t dtype, const std::uint64_t* dims,
                             std::uint16_t ndim, const void* data, std::size_t size) {
  if (data == nullptr || !validDescriptor(name, ndim, size)) return failed("OKV2: bad tensor descriptor");
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  ByteVector owned(bytes, bytes + size);
  addTensorMeta(name, dtype, dims, ndim, size).owned = std::move(owned);
  return {};
}

Status OKV2Writer::addTensorFrom(std::FILE* file, const char* name, std::uint16_t dtype,
                                 const std::uint64_t* dims, std::uint16_t ndim, std::uint64_t offset,
                                 std::uint64_t size) {
  if (file == nullptr || !validDescriptor(name, ndim, size)) return failed("OKV2: bad tensor source");
  TensorMeta& tensor = addTensorMeta(name, dtype, dims, ndim, size);
  tensor.file = file;
  tensor.fileOffset = offset;
  return {};
}

Status OKV2Writer::addTensorFromMem(const void* data, const char* name, std::uint16_t dtype,
                                    const std::uint64_t* dims, std::uint16_t ndim, std::size_t size) {
  if (data == nullptr || !validDescriptor(name, ndim, size)) {
    return failed("OKV2: bad tensor memory source");
  }
  addTensorMeta(name, dtype, dims, ndim, size).memory = data;
  return {};
}

void OKV2Writer::setGraphBytes(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  graph_.assign(bytes, bytes + size);
}

void OKV2Writer::setChatTemplate(const std::string& text) { chatTemplate_ = text; }

void OKV2Writer::setTokenizer(TokenizerData tokenizer) { tokenizer_ = std::move(tokenizer); }

void OKV2Writer::protectInput(FileId file) { protected_.push_back(file); }

Status OKV2Writer::buildMetadata(ByteVector& out) const {
  putU32(out, std::uint32_t(meta_.size()));
  for (const MetaItem& item : meta_) {
    putU16(out, std::uint16_t(item.key.size()));
    putBytes(out, item.key);
    putU8(out, item.type);
    switch (okv2::MetaType(item.type)) {
      case okv2::MetaType::U32: putU32(out, item.u32); break;
      case okv2::MetaType::I32: putU32(out, std::uint32_t(item.i32)); break;
      case okv2::MetaType::F32: putF32(out, item.f32); break;
      case okv2::MetaType::U64: putU64(out, item.u64); break;
      case okv2::MetaType::Str: putStr(out, item.str); break;
      case okv2::MetaType::U32Array:
        putU32(out, std::uint32_t(item.array.size()));
        for (const std::uint32_t element : item.array)
          putU32(out, element);
        break;
      default: return failed("OKV2: bad meta type");
    }
  }
  return {};
}

void OKV2Writer::buildTokenizer(ByteVector& out) const {
  putBytes(out, okv2::kTknz);
  // The tokenizer's own template is stored here and the container's in its section: both are kept.
  putStr(out, tokenizer_.chatTemplate);
  putStrings(out, tokenizer_.tokens);
  putU32(out, std::uint32_t(tokenizer_.scores.size()));
  for (const float score : tokenizer_.scores)
    putF32(out, score);
  putU32(out, std::uint32_t(tokenizer_.types.size()));
  for (const std::int32_t type : tokenizer_.types)
    putU32(out, std::uint32_t(type));
  putStrings(out, tokenizer_.merges);
  for (const std::int32_t id : {tokenizer_.bosId, tokenizer_.eosId, tokenizer_.unkId, tokenizer_.padId}) {
    putU32(out, std::uint32_t(id));
  }
  putU8(out, tokenizer_.addBos ? 1 : 0);
}

// Equal names stay in their order of addition, so that equal inputs give equal bytes.
std::vector<std::uint32_t> OKV2Writer::tensorsByName() const {
  return orderByName(tensors_.size(), [this](std::size_t k) { return tensors_[k].name; });
}

void OKV2Writer::borrowMapping(std::string_view mapping, FileId file, std::string path) {
  mappings_.push_back({mapping, file, std::move(path)});
}

// Null for memory of any other kind.
const BorrowedMapping* OKV2Writer::mappingOf(const void* data) const {
  const auto* byte = static_cast<const char*>(data);
  const auto found = std::find_if(mappings_.begin(), mappings_.end(), [byte](const BorrowedMapping& mapping) {
    const std::string_view bytes = mapping.bytes;
    return !std::less<>()(byte, bytes.data()) && std::less<>()(byte, bytes.data() + bytes.size());
  });
  return found == mappings_.end() ? nullptr : &*found;
}

bool OKV2Writer::isProtected(FileId file) const {
  return std::find(protected_.begin(), protected_.end(), file) != protected_.end();
}

ByteVector OKV2Writer::buildHeader(std::uint64_t checksum) const {
  ByteVector out;
  out.reserve(okv2::kHeaderBytes);
  putBytes(out, okv2::kMagic);
  putU32(out, okv2::kVersion);
  putU32(out, okv2::kByteOrderMark);
  putU32(out, std::uint32_t(okv2::kSectionCount));
  putU32(out, archId_);
  putU32(out, 0);
  putU64(out, hiddenSize_);
  putU32(out, numLayers_);
  putU32(out, vocabSize_);
  putU64(out, tensors_.size());
  putU64(out, 0);
  putU64(out, checksum);
  return out;
}

Status OKV2Writer::writeWeights(OutputFile& out, const std::vector<std::uint32_t>& order) const {
  std::vector<unsigned char> copyBuffer;  // allocated for the first file-backed tensor only
  MappedSource source;
  ShortTensorPages pages;
  for (std::size_t k = 0; k < order.size(); ++k) {
    prefetchTensor(tensors_, order, k);
    const TensorMeta& tensor = tensors_[order[k]];
    if (!tensor.owned.empty()) {
      if (!appendInPieces(out, tensor.owned.data(), tensor.size, false)) return failed(out.failure());
    } else if (tensor.memory != nullptr) {
      const BorrowedMapping* mapping =
          tensor.size >= OutputFile::kPieceBytes ? mappingOf(tensor.memory) : nullptr;
      if (!appendBorrowed(out, tensor, mapping, source, pages)) return failed(out.failure());
    } else if (tensor.file != nullptr) {
      ZEL_RETURN_IF_ERROR(copyFromFile(out, tensor, copyBuffer));
    } else {
      return failed("OKV2: missing tensor source");
    }
    if (!out.appendZeros(paddingAfter(tensor.size), "OKV2: pad weights failed")) return failed(out.failure());
  }
  if (!out.flush()) return failed(out.failure());
  const auto isCut = [&source](const BorrowedMapping& mapping) { return source.isCut(mapping); };
  if (std::any_of(mappings_.begin(), mappings_.end(), isCut)) return failed("OKV2: write weights failed");
  return {};
}

Status OKV2Writer::sumWeights(std::uint64_t& bytes) const {
  bytes = 0;
  for (const TensorMeta& tensor : tensors_) {
    if (findBlockGeometry(tensor.dtype) == nullptr) return failed("OKV2: unsupported dtype");
    bytes += okv2::align(tensor.size);
  }
  return {};
}

Status OKV2Writer::write(const char* path) const {
  using okv2::SectionType;
  // A null path gets the same text on purpose.
  if (path == nullptr || tensors_.empty()) return failed("OKV2: no tensors to write");

  ByteVector metadata;
  ZEL_RETURN_IF_ERROR(buildMetadata(metadata));
  ByteVector tokenizer;
  buildTokenizer(tokenizer);
  const std::vector<std::uint32_t> order = tensorsByName();
  std::uint64_t weightBytes;
  ZEL_RETURN_IF_ERROR(sumWeights(weightBytes));
  ByteVector chatTemplate;
  putU64(chatTemplate, chatTemplate_.size());
  putBytes(chatTemplate, chatTemplate_);

  SectionTable table;
  table[SectionType::Metadata].size = metadata.size();
  table[SectionType::Tokenizer].size = tokenizer.size();
  table[SectionType::Graph].size = graph_.size();
  table[SectionType::TensorIndex].size = order.size() * okv2::kTensorEntryBytes;
  table[SectionType::TensorLayout].size = order.size() * okv2::kLayoutEntryBytes;
  table[SectionType::ChatTemplate].size = chatTemplate.size();
  table[SectionType::Weights].size = weightBytes;
  table.layOut();

  // What the tables take is there before a file is touched.
  ByteVector index;
  ByteVector layout;
  std::vector<std::uint16_t> dtypes;
  index.reserve(std::min(order.size() * okv2::kTensorEntryBytes, OutputFile::kPieceBytes));
  layout.reserve(std::min(order.size() * okv2::kLayoutEntryBytes, OutputFile::kPieceBytes));
  dtypes.reserve(order.size());

  OutputFile out;
  // Not truncated before it is known not to be one of the files that the tensors are borrowed from.
  if (!out.open(path) || isProtected(out.id()) || !out.truncate()) {
    return failed("OKV2: cannot open output file");
  }
  out.expect(table[SectionType::Weights].offset + weightBytes);
  const ByteVector header = buildHeader(0);
  const ByteVector tableBytes = table.serialise();
  if (!out.append(header.data(), header.size(), "OKV2: write header failed") ||
      !out.append(tableBytes.data(), tableBytes.size(), "OKV2: write section table failed")) {
    return failed(out.failure());
  }
  // A pipe has no position, so nothing is written to one.
  std::uint64_t position = 0;
  if (!out.position(position) || position > okv2::kFirstSectionOffset) return failed("OKV2: layout error");
  if (!out.appendZeros(std::size_t(okv2::kFirstSectionOffset - position), "OKV2: pad failed")) {
    return failed(out.failure());
  }
  std::uint64_t dataOffset = 0;
  const auto putIndex = [&](ByteVector& bytes, std::size_t k) {
    prefetchTensor(tensors_, order, k);
    const TensorMeta& tensor = tensors_[order[k]];
    putIndexEntry(bytes, tensor, dataOffset);
    dtypes.push_back(tensor.dtype);
    dataOffset += okv2::align(tensor.size);
  };
  const auto putLayout = [&](ByteVector& bytes, std::size_t k) {
    putLayoutEntry(bytes, dtypes[k], *findBlockGeometry(dtypes[k]));
  };
  // In the order of the file; the weights follow.
  if (!appendSection(out, metadata) || !appendSection(out, tokenizer) || !appendSection(out, graph_) ||
      !appendTable(out, order.size(), okv2::kTensorEntryBytes, index, putIndex) ||
      !appendTable(out, order.size(), okv2::kLayoutEntryBytes, layout, putLayout) ||
      !appendSection(out, chatTemplate)) {
    return failed(out.failure());
  }
  ZEL_RETURN_IF_ERROR(writeWeights(out, order));

  std::uint64_t checksum = okv2::crc64(header.data(), okv2::kHeaderChecksumOffset);
  checksum = okv2::crc64(tableBytes.data(), tableBytes.size(), checksum);
  const ByteVector finalHeader = buildHeader(checksum);
  if (!out.rewriteStart(finalHeader.data(), finalHeader.size())) return failed("OKV2: patch header failed");
  if (!out.close()) return failed("OKV2: close failed");
  return {};
}

}  // namespace zel
