// Collects the content of one OKV2 container in memory and writes it in one pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "container/bytes.h"
#include "container/file_id.h"
#include "container/okv2_format.h"
#include "container/status.h"
#include "container/text_arena.h"
#include "container/tokenizer_data.h"

namespace zel {

class OutputFile;

// One metadata key and value; only the slot that `type` names is used.
struct MetaItem {
  std::string key;
  std::uint8_t type = 0;  // okv2::MetaType
  std::uint32_t u32 = 0;
  std::int32_t i32 = 0;
  float f32 = 0;
  std::uint64_t u64 = 0;
  std::string str;
  std::vector<std::uint32_t> array;
};

// One tensor and the one source of its data: `owned`, `memory` or `file`, tried in this order.
struct TensorMeta {
  std::string_view name;    // the writer keeps it
  std::uint16_t dtype = 0;  // DType value, checked only by write()
  std::uint16_t ndim = 0;   // 1 to 4
  std::uint64_t dims[okv2::kMaxDims] = {};
  std::uint64_t size = 0;  // bytes
  ByteVector owned;
  std::FILE* file = nullptr;  // borrowed
  std::uint64_t fileOffset = 0;
  const void* memory = nullptr;  // borrowed
};

// A read-only mapping that tensors borrow, and the file that it maps.
struct BorrowedMapping {
  std::string_view bytes;
  FileId file;
  std::string path;
};

// Filled by any number of set (replace) and add (append) calls, then written; write() changes nothing and
// may be called again. Failures carry Code::InvalidFormat and a text that begins "OKV2: "; only failed
// allocation throws. Not thread-safe; separate writers are independent.
class OKV2Writer {
 public:
  OKV2Writer() = default;
  // Copies would share borrowed pointers whose lifetime only one owner can know.
  OKV2Writer(const OKV2Writer&) = delete;
  OKV2Writer& operator=(const OKV2Writer&) = delete;

  // The four values of the header at offsets 16, 24, 32 and 36. The directory import gives the architecture
  // id, the hidden size, the number of layers and the vocabulary size.
  void setModelInfo(std::uint32_t archId, std::uint64_t hiddenSize, std::uint32_t numLayers,
                    std::uint32_t vocabSize);

  // Each appends one item with a copy of the value and always succeeds. Keys may repeat: all are kept, in
  // order. A key longer than 65535 bytes is stored with its length cut to 16 bits: keep keys short.
  Status addMetaU32(const char* key, std::uint32_t value);
  Status addMetaI32(const char* key, std::int32_t value);
  Status addMetaF32(const char* key, float value);
  Status addMetaU64(const char* key, std::uint64_t value);
  Status addMetaStr(const char* key, const std::string& value);
  Status addMetaU32Array(const char* key, const std::uint32_t* values, std::size_t count);

  // Makes room for `count` more tensors. Only for speed: any number may be added.
  void reserveTensors(std::size_t count);

  // Each adds one tensor of `size` bytes and copies `ndim` extents from `dims`. Names may repeat; tensors of
  // equal name stay in their order of addition. The name ends at its first NUL byte.
  // Refused when a pointer that is named below is null, `ndim` is 0 or above 4, or `size` is 0.
  //
  // Copies the data now. "OKV2: bad tensor descriptor" (name, data)
  Status addTensor(const char* name, std::uint16_t dtype, const std::uint64_t* dims, std::uint16_t ndim,
                   const void* data, std::size_t size);
  // Reads the data from `offset` of `file` during write(); the file stays the caller's and must stay open.
  // "OKV2: bad tensor source" (file, name)
  Status addTensorFrom(std::FILE* file, const char* name, std::uint16_t dtype, const std::uint64_t* dims,
                       std::uint16_t ndim, std::uint64_t offset, std::uint64_t size);
  // Borrows the data, which must stay valid until write() has returned. They may lie in a file mapping:
  // write() hands them to the kernel without touching them.
  // "OKV2: bad tensor memory source" (data, name)
  Status addTensorFromMem(const void* data, const char* name, std::uint16_t dtype, const std::uint64_t* dims,
                          std::uint16_t ndim, std::size_t size);

  void setGraphBytes(const void* data, std::size_t size);
  void setChatTemplate(const std::string& text);
  void setTokenizer(TokenizerData tokenizer);  // by value: pass std::move() where the original is done with

  // Makes write() refuse this file as its destination, before anything is truncated: a file whose mapping
  // the tensors borrow must not be overwritten by them.
  void protectInput(FileId file);

  // Tells that borrowed tensors lie in this read-only mapping of the whole file at `path`. write() then opens
  // the file again to copy long tensors from file to file, which is faster; of others it lets go of the pages
  // behind the copy, so that memory in use does not grow with the model. The bytes stay readable. Where
  // another file is at `path` by then, or none, the mapping is written; a file that has been cut short is a
  // failed write.
  void borrowMapping(std::string_view mapping, FileId file, std::string path);

  // Creates or truncates `path` and writes the container. A failure leaves the partly written file on disk.
  Status write(const char* path) const;

 private:
  MetaItem& addMeta(const char* key, okv2::MetaType type);
  TensorMeta& addTensorMeta(const char* name, std::uint16_t dtype, const std::uint64_t* dims,
                            std::uint16_t ndim, std::uint64_t size);
  Status buildMetadata(ByteVector& out) const;
  void buildTokenizer(ByteVector& out) const;
  // The size of the weights section.
  Status sumWeights(std::uint64_t& bytes) const;
  [[nodiscard]] ByteVector buildHeader(std::uint64_t checksum) const;
  [[nodiscard]] std::vector<std::uint32_t> tensorsByName() const;
  Status writeWeights(OutputFile& out, const std::vector<std::uint32_t>& order) const;
  [[nodiscard]] bool isProtected(FileId file) const;
  [[nodiscard]] const BorrowedMapping* mappingOf(const void* data) const;

  std::uint32_t archId_ = 0;
  std::uint64_t hiddenSize_ = 0;
  std::uint32_t numLayers_ = 0;
  std::uint32_t vocabSize_ = 0;
  std::vector<MetaItem> meta_;
  std::vector<TensorMeta> tensors_;
  TextArena names_;
  TokenizerData tokenizer_;
  ByteVector graph_;
  std::string chatTemplate_;
  std::vector<FileId> protected_;
  std::vector<BorrowedMapping> mappings_;
};

}  // namespace zel
