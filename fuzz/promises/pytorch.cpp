#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "promises/plain_pickle.h"
#include "promises/promises.h"
#include "readers/pytorch_importer.h"

namespace zel::fuzz {
namespace {

__extension__ using Wide = unsigned __int128;

// ---- the plain reader

struct PlainEntry {
  std::string name;
  std::uint64_t compressed = 0;
  std::uint64_t uncompressed = 0;
  std::uint64_t data = 0;
};

struct PlainCheckpointTensor {
  std::string name;
  std::uint16_t dtype = 0;
  std::vector<std::uint64_t> shape;
  std::string storage;
  std::uint64_t elements = 0;    // at most kHuge
  std::uint64_t byteOffset = 0;  // at most kHuge
};
constexpr std::uint64_t kHuge = std::uint64_t(1) << 62;  // more than any archive can hold

std::uint64_t atMostHuge(Wide value) { return value > kHuge ? kHuge : std::uint64_t(value); }

class PlainArchive {
 public:
  explicit PlainArchive(std::string_view file) : file_(file) {}

  Status readEntries();
  // False in `known` when the reference machine gives up.
  Status readTensors(bool& known);

  [[nodiscard]] const std::vector<PlainEntry>& entries() const { return entries_; }
  [[nodiscard]] const std::vector<PlainCheckpointTensor>& tensors() const { return tensors_; }

 private:
  [[nodiscard]] std::uint64_t number(std::uint64_t at, unsigned bytes) const {
    std::uint64_t out = 0;
    for (unsigned k = bytes; k-- > 0;)
      out = out << 8 | static_cast<unsigned char>(file_[at + k]);
    return out;
  }
  Status readEntry(std::uint64_t& at);
  [[nodiscard]] const PlainEntry* find(std::string_view name) const {
    for (const PlainEntry& entry : entries_) {
      if (entry.name == name) return &entry;
    }
    return nullptr;
  }
  Status addTensor(const std::string& name, const PlainPickle& value);

  std::string_view file_;
  std::vector<PlainEntry> entries_;
  std::vector<PlainCheckpointTensor> tensors_;
};

Status PlainArchive::readEntries() {
  const std::uint64_t size = file_.size();
  if (size < 22) return corrupted("torch: file too small");
  std::uint64_t end = size - 22;
  const std::uint64_t lowest = end < 65536 ? 0 : end - 65536;
  while (number(end, 4) != 0x06054b50) {
    if (end == lowest) return corrupted("torch: no EOCD");
    --end;
  }
  std::uint64_t at = number(end + 16, 4);
  if (at + number(end + 12, 4) > size) return corrupted("torch: bad central directory");
  for (std::uint64_t left = number(end + 10, 2); left > 0; --left)
    ZEL_RETURN_IF_ERROR(readEntry(at));
  return {};
}

Status PlainArchive::readEntry(std::uint64_t& at) {
  const std::uint64_t size = file_.size();
  if (at + 46 > size || number(at, 4) != 0x02014b50) return corrupted("torch: bad central directory entry");
  PlainEntry entry;
  const std::uint64_t nameBytes = number(at + 28, 2);
  if (at + 46 + nameBytes <= size) entry.name = file_.substr(at + 46, nameBytes);
  if (number(at + 10, 2) != 0) {
    return unsupported(
        "torch: zip entry uses compression (deflate); only STORED checkpoints (torch.save "
        "default) are supported");
  }
  entry.compressed = number(at + 20, 4);
  entry.uncompressed = number(at + 24, 4);
  const std::uint64_t local = number(at + 42, 4);
  if (local + 30 > size || number(local, 4) != 0x04034b50) return corrupted("torch: bad local header");
  entry.data = local + 30 + number(local + 26, 2) + number(local + 28, 2);
  if (entry.data + entry.compressed > size) return corrupted("torch: zip payload out of range");
  entries_.push_back(entry);
  at += 46 + nameBytes + number(at + 30, 2) + number(at + 32, 2);
  return {};
}

Status PlainArchive::addTensor(const std::string& name, const PlainPickle& value) {
  if (value.kind != kTensor) {
    return unsupported("torch: state_dict contains a non-tensor python object (rejected for safety)");
  }
  const PlainPickle& storage = value.items[0];
  PlainCheckpointTensor tensor;
  if (storage.module == "FloatStorage") {
    tensor.dtype = 0;
  } else if (storage.module == "HalfStorage") {
    tensor.dtype = 1;
  } else if (storage.module == "BFloat16Storage") {
    tensor.dtype = 2;
  } else {
    return unsupported("torch: unsupported storage dtype '" + storage.module + "'");
  }
  tensor.name = name;
  tensor.storage = storage.s;
  bool empty = false;
  tensor.elements = 1;
  for (const PlainPickle& item : value.items[1].items) {
    const auto extent = std::uint64_t(item.i);
    if (tensor.shape.size() < 4) {
      empty = empty || extent == 0;
      tensor.elements = atMostHuge(Wide(tensor.elements) * extent);
    }
    tensor.shape.push_back(extent);
  }
  if (empty) tensor.elements = 0;
  tensor.byteOffset = atMostHuge(Wide(std::uint64_t(value.items[2].i)) * (tensor.dtype == 0 ? 4 : 2));
  tensors_.push_back(tensor);
  return {};
}

Status PlainArchive::readTensors(bool& known) {
  known = true;
  const PlainEntry* const program = find("data.pkl");
  if (program == nullptr) return invalidFormat("torch: no data.pkl");
  const PlainPickleRun run = runPlainPickle(file_.substr(program->data, program->compressed));
  known = !run.gaveUp;
  if (!known) return {};
  if (!run.status.ok()) return run.status;
  if (run.stack.empty() || run.stack.back().kind != kDict) {
    return corrupted("torch: pickle root is not a dict");
  }
  const PlainPickle& root = run.stack.back();
  for (std::size_t k = 0; k < root.keys.size(); ++k)
    ZEL_RETURN_IF_ERROR(addTensor(root.keys[k], root.values[k]));
  std::stable_sort(
      tensors_.begin(), tensors_.end(),
      [](const PlainCheckpointTensor& a, const PlainCheckpointTensor& b) { return a.name < b.name; });
  for (const PlainCheckpointTensor& tensor : tensors_) {
    const PlainEntry* const storage = find(tensor.storage);
    if (storage == nullptr) return corrupted("torch: missing storage entry '" + tensor.storage + "'");
    if (Wide(tensor.elements) * (tensor.dtype == 0 ? 4 : 2) + tensor.byteOffset > storage->uncompressed) {
      return corrupted("torch: tensor exceeds storage");
    }
  }
  return {};
}

// ---- the promises

void checkEntries(const PyTorchImporter& importer, const std::vector<PlainEntry>& expected,
                  std::string_view file) {
  promise(importer.entries().size() == expected.size(), "as many entries as the reference");
  for (std::size_t k = 0; k < expected.size(); ++k) {
    const ZipEntry& entry = importer.entries()[k];
    promise(entry.name == expected[k].name && entry.method == 0, "entries are the reference's");
    promise(entry.compressedSize == expected[k].compressed &&
                entry.uncompressedSize == expected[k].uncompressed && entry.dataOffset == expected[k].data,
            "sizes and offsets are the reference's");
    promise(entry.dataOffset <= file.size() && entry.compressedSize <= file.size() - entry.dataOffset,
            "every entry lies inside the file");
    const ZipEntry* const found = importer.findEntry(entry.name);
    promise(found != nullptr && found <= &entry && found->name == entry.name,
            "the first entry of a name is found");
  }
}

void checkTensors(const PyTorchImporter& importer, const std::vector<PlainCheckpointTensor>& expected) {
  promise(importer.tensors().size() == expected.size(), "as many tensors as the reference");
  for (std::size_t k = 0; k < expected.size(); ++k) {
    const PtTensorInfo& tensor = importer.tensors()[k];
    const PlainCheckpointTensor& plain = expected[k];
    promise(tensor.name == plain.name && tensor.dtype == plain.dtype && tensor.storage == plain.storage,
            "tensors are the reference's");
    promise(tensor.ndim == std::uint16_t(plain.shape.size()) &&
                std::equal(tensor.shape, tensor.shape + std::min<std::size_t>(4, tensor.ndim),
                           plain.shape.begin()),
            "shapes are the reference's");
    promise(tensor.offset == plain.byteOffset && tensor.nbytes == plain.elements * (plain.dtype == 0 ? 4 : 2),
            "offsets and sizes are the reference's");
  }
}

}  // namespace

void checkPyTorch(std::string_view input) {
  static PyTorchImporter importer;  // one for all inputs: nothing of the last may show in the next
  const Status status = importer.openBytes(input);
  promiseKnownStatus(status, {Code::InvalidFormat, Code::Unsupported, Code::Corrupted}, "torch: ");
  promise(importer.isOpen() == status.ok(), "open after a success, closed after a failure");

  PlainArchive plain(input);
  bool known = true;
  Status expected = plain.readEntries();
  if (expected.ok()) expected = plain.readTensors(known);
  if (known) promiseSame(status, expected);
  if (!status.ok()) {
    promise(importer.tensors().empty() && importer.entries().empty() && importer.bytes().empty(),
            "a failure leaves nothing");
    return;
  }
  checkEntries(importer, plain.entries(), input);
  if (known) checkTensors(importer, plain.tensors());
  for (const PtTensorInfo& tensor : importer.tensors()) {
    const ZipEntry* const storage = importer.findEntry(tensor.storage);
    promise(storage != nullptr && tensor.offset <= storage->uncompressedSize &&
                tensor.nbytes <= storage->uncompressedSize - tensor.offset,
            "every tensor lies inside its storage, as far as the archive tells the truth");
    const PtTensorInfo* const found = importer.findTensor(tensor.name);
    promise(found != nullptr && found->name == tensor.name, "every tensor is found by its name");
  }
  importer.close();
}

}  // namespace zel::fuzz
