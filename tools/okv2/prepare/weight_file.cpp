#include "okv2/prepare/weight_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "container/bytes.h"
#include "container/dtype.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/disguise.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/safetensors_header.h"
#include "okv2/prepare/source_guard.h"
#include "okv2/prepare/weight_refusals.h"
#include "readers/pytorch_importer.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

// Tensors may share elements, so a small file can ask for any amount of output. Genuine ones grow by the tied
// embeddings and a few expanded buffers.
constexpr std::uint64_t kMaxGrowth = 16;
constexpr std::uint64_t kGrowthAllowance = std::uint64_t{16} << 20;
// A deflated storage is checked by a sum of all of it. That is worth reading the rest while the rest is not
// very much more than what is used.
constexpr std::uint64_t kMaxUnusedRatio = 16;
constexpr std::uint64_t kUnusedAllowance = std::uint64_t{64} << 20;
constexpr std::uint64_t kUnboundedTree = std::uint64_t{16} << 20;  // of JSON

constexpr std::string_view kPlainTypes[] = {"F32", "F16", "BF16"};  // rows of DType

// False when the product does not fit 64 bits.
bool bytesOf(const std::vector<std::uint64_t>& shape, std::uint64_t elementBytes, std::uint64_t& bytes) {
  bytes = elementBytes;
  for (const std::uint64_t extent : shape) {
    if (extent == 0) {
      bytes = 0;
      return true;
    }
  }
  for (const std::uint64_t extent : shape) {
    if (!checkedMul(bytes, extent, bytes)) return false;
  }
  return true;
}

// Bytes from the tensor's first element to the end of its last one. Every element lies in a file, so that
// nothing wraps.
std::uint64_t reachOf(const SourceTensor& tensor) {
  if (tensor.strides.empty() || tensor.bytes == 0) return tensor.bytes;
  std::uint64_t last = 0;
  for (std::size_t k = 0; k < tensor.shape.size(); ++k)
    last += (tensor.shape[k] - 1) * tensor.strides[k];
  return (last + 1) * tensor.known->bytes;
}

// A file without a name.
int openScratch(const std::string& directory) {
  const int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT)) return fd;
  std::string pattern = directory + "/.okv2-prepare-XXXXXX";
  const int named = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (named >= 0) ::unlink(pattern.c_str());
  return named;
}

[[noreturn]] void cannotUnpack(const std::string& directory) {
  throw Refused(kExitIoError, "", directory + ": cannot be written: " + std::strerror(errno),
                "Make room, or choose another OUT.");
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

void WeightFile::open(const std::string& dir, const std::string& name, bool safetensors) {
  name_ = name;
  map(dir + "/" + name);
  readGuarded(file_, [&] { readTensors(safetensors); });
}

void WeightFile::readTensors(bool safetensors) {
  if (safetensors) {
    openSafetensors();
  } else if (!openDialect()) {
    openTorch();
  }
  refuseGrowth();
}

void WeightFile::map(const std::string& path) {
  switch (mapping_.open(path.c_str(), 1)) {
    case MapResult::Ok: break;
    case MapResult::StatFailed: refuseWeights(kExitCorrupted, Id::FileEmpty, name_, "it is empty");
    case MapResult::OpenFailed:
    case MapResult::MapFailed:
      refuseWeights(kExitIoError, Id::WeightsRefused, name_,
                    std::string("it cannot be opened: ") + std::strerror(errno));
  }
  descriptor_.reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat info {};
  if (!descriptor_.isOpen() || ::fstat(descriptor_.get(), &info) != 0 ||
      FileId{info.st_dev, info.st_ino} != mapping_.id()) {
    refuseWeights(kExitIoError, Id::WeightsRefused, name_, "it changed while it was opened");
  }
  file_ = {path, descriptor_.get(), mapping_.bytes()};
}

void WeightFile::refuse(const Status& status) const {
  explain::FileLook look;
  // The tree that endsEarly() builds of a header is many times its size.
  const bool bounded = form_ != WeightForm::Safetensors || file_.bytes.size() < 8 ||
                       loadU64(file_.bytes.data()) <= kUnboundedTree;
  if (status.code() == Code::Corrupted && bounded && explain::lookAt(file_.path, look) &&
      explain::endsEarly(file_.path, look)) {
    refuseWeights(kExitCorrupted, Id::WeightsPartial, name_, "it ends in the middle: " + status.message());
  }
  if (status.code() == Code::Unsupported && form_ != WeightForm::Safetensors) {
    refuseWeights(kExitUnsupported, Id::PytorchPickle, name_, status.message(),
                  "Load it in a program that trusts its author, and save the tensors alone, as a dictionary "
                  "by name.");
  }
  refuseWeights(exitCodeOf(status), Id::WeightsRefused, name_, status.message());
}

void WeightFile::openSafetensors() {
  std::vector<HeaderTensor> header;
  if (const Status status = readSafetensorsHeader(file_.bytes, header); !status.ok()) refuse(status);
  for (HeaderTensor& tensor : header) {
    SourceTensor& out = tensors_.emplace_back();
    out.name = std::move(tensor.name);
    out.type = std::move(tensor.type);
    out.known = findElementType(out.type);
    out.shape = std::move(tensor.shape);
    out.bytes = tensor.bytes;
    out.offset = tensor.offset;
  }
}

// What the plug-in reads as it is must not be read as an ordinary checkpoint: the dialect has other opcodes.
bool WeightFile::openDialect() {
  PyTorchImporter importer;
  if (!importer.openBytes(file_.bytes).ok()) return false;
  form_ = WeightForm::TorchDialect;
  for (const PtTensorInfo& tensor : importer.tensors()) {
    std::uint64_t offset;
    std::uint64_t end;
    if (!checkedAdd(tensor.dataOffset, tensor.offset, offset) || !checkedAdd(offset, tensor.nbytes, end) ||
        end > file_.bytes.size() || tensor.dtype >= std::size(kPlainTypes) ||
        tensor.ndim > std::size(tensor.shape)) {
      tensors_.clear();
      return false;
    }
    SourceTensor& out = tensors_.emplace_back();
    out.name = tensor.name;
    out.type = kPlainTypes[tensor.dtype];
    out.known = findElementType(out.type);
    out.shape.assign(tensor.shape, tensor.shape + tensor.ndim);
    out.bytes = tensor.nbytes;
    out.offset = offset;
  }
  return true;
}

void WeightFile::openTorch() {
  form_ = WeightForm::TorchLegacy;
  const Status status = torch_.parse(file_.bytes);
  if (torch_.isZip()) form_ = WeightForm::TorchZip;
  if (!status.ok()) refuse(status);
  for (const TorchTensor& tensor : torch_.tensors())
    addTorchTensor(tensor);
}

void WeightFile::addTorchTensor(const TorchTensor& tensor) {
  const TorchStorage& storage = torch_.storages()[tensor.storage];
  SourceTensor& out = tensors_.emplace_back();
  out.name = tensor.name;
  out.type = tensor.type->name;
  out.known = tensor.type;
  out.shape = tensor.shape;
  if (!isContiguous(tensor.shape, tensor.strides)) out.strides = tensor.strides;
  out.storage = tensor.storage;
  out.packed = storage.isPacked();
  out.offset = out.packed ? tensor.begin : storage.fileOffset + tensor.begin;
  if (!bytesOf(out.shape, tensor.type->bytes, out.bytes)) {
    refuseWeights(kExitCorrupted, Id::WeightsRefused, name_,
                  "tensor '" + tensor.name + "' has a shape of more than 2^64 bytes");
  }
}

void WeightFile::refuseGrowth() const {
  std::uint64_t have = file_.bytes.size();
  for (const TorchStorage& storage : torch_.storages()) {
    if (storage.isPacked()) have += storage.bytes;
  }
  std::uint64_t want = 0;
  bool fits = true;
  for (const SourceTensor& tensor : tensors_)
    fits = fits && checkedAdd(want, tensor.bytes, want);
  if (fits && (want <= kGrowthAllowance || (want - kGrowthAllowance) / kMaxGrowth <= have)) return;
  refuseWeights(kExitUnsupported, Id::WeightsRefused, name_,
                "its tensors share elements, and written one by one take more than 16 times its bytes");
}

bool WeightFile::isDeflated() const noexcept {
  for (const TorchStorage& storage : torch_.storages()) {
    if (storage.deflated) return true;
  }
  return false;
}

void WeightFile::unpack(const std::vector<std::size_t>& tensors, const std::string& out) {
  std::vector<std::uint64_t> used(torch_.storages().size(), 0);  // bytes from the start of each storage
  for (const std::size_t position : tensors) {
    const SourceTensor& tensor = tensors_[position];
    if (!tensor.packed || tensor.bytes == 0) continue;
    used[tensor.storage] = std::max(used[tensor.storage], tensor.offset + reachOf(tensor));
  }
  unpackedAt_.assign(used.size(), 0);
  std::uint64_t at = 0;
  for (std::size_t k = 0; k < used.size(); ++k) {
    if (used[k] == 0) continue;
    unpackStorage(torch_.storages()[k], used[k], out);
    unpackedAt_[k] = at;
    at += used[k];
  }
  if (at == 0) return;
  if (unpackedMapping_.open(("/proc/self/fd/" + std::to_string(unpackedDescriptor_.get())).c_str(), at) !=
      MapResult::Ok) {
    cannotUnpack(out);
  }
  unpacked_ = {file_.path, unpackedDescriptor_.get(), unpackedMapping_.bytes()};
}

void WeightFile::unpackStorage(const TorchStorage& storage, std::uint64_t used, const std::string& out) {
  if (!unpackedDescriptor_.isOpen()) unpackedDescriptor_.reset(openScratch(out));
  if (!unpackedDescriptor_.isOpen()) cannotUnpack(out);
  const std::uint64_t unused = storage.bytes - used;
  const bool toTheEnd = unused <= kUnusedAllowance || unused / kMaxUnusedRatio <= used;
  std::uint64_t left = used;
  bool written = true;
  Status status;
  readGuarded(file_, [&] {
    status = torch_.inflate(storage, [&](std::string_view piece) {
      piece = piece.substr(0, left);
      written = writeAll(unpackedDescriptor_.get(), piece);
      left -= piece.size();
      return written && (left > 0 || toTheEnd);
    });
  });
  refuseShorter(file_);
  if (!written) cannotUnpack(out);
  if (!status.ok()) refuse(status);
}

const DataFile& WeightFile::dataOf(const SourceTensor& tensor) const noexcept {
  return tensor.packed ? unpacked_ : file_;
}

std::uint64_t WeightFile::offsetOf(const SourceTensor& tensor) const {
  return tensor.packed ? unpackedAt_[tensor.storage] + tensor.offset : tensor.offset;
}

}  // namespace zel::tool::prepare
