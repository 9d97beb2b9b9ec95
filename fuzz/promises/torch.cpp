#include <cstdint>
#include <string>

#include "container/bytes.h"
#include "okv2/prepare/tensor_data.h"
#include "okv2/prepare/torch_archive.h"
#include "promises/promises.h"
#include "support/torch_builder.h"

namespace zel::fuzz {
namespace {

using tool::prepare::TorchCheckpoint;
using tool::prepare::TorchStorage;
using tool::prepare::TorchTensor;

constexpr std::uint64_t kMaxGathered = 4096;  // elements; tensors may be expanded without bound

// Where an element lies, counted in its storage; the sum cannot wrap, or the tensor would have been refused.
std::uint64_t positionOf(const TorchTensor& tensor, std::uint64_t element) {
  std::uint64_t at = 0;
  for (std::size_t k = tensor.shape.size(); k-- > 0;) {
    at += element % tensor.shape[k] * tensor.strides[k];
    element /= tensor.shape[k];
  }
  return at;
}

// How many elements the tensor has, or anything above kMaxGathered.
std::uint64_t elementCount(const TorchTensor& tensor) {
  std::uint64_t count = 1;
  for (const std::uint64_t extent : tensor.shape) {
    if (extent == 0) return 0;
  }
  for (const std::uint64_t extent : tensor.shape) {
    if (count > kMaxGathered || !checkedMul(count, extent, count)) return ~std::uint64_t{0};
  }
  return count;
}

// The last element, and with it every other, lies inside the storage.
void promiseInside(const TorchTensor& tensor, const TorchStorage& storage) {
  promise(tensor.type != nullptr && tensor.type->bytes > 0, "a tensor has a type of a known size");
  promise(tensor.shape.size() == tensor.strides.size(), "a tensor has as many strides as extents");
  promise(tensor.begin <= storage.bytes, "a tensor begins inside its storage");
  if (elementCount(tensor) == 0) return;
  std::uint64_t last = 0;
  for (std::size_t k = 0; k < tensor.shape.size(); ++k) {
    std::uint64_t step;
    promise(checkedMul(tensor.shape[k] - 1, tensor.strides[k], step) && checkedAdd(last, step, last),
            "a tensor's reach does not wrap");
  }
  std::uint64_t end;
  promise(checkedAdd(last, 1, end) && checkedMul(end, tensor.type->bytes, end) &&
              checkedAdd(end, tensor.begin, end) && end <= storage.bytes,
          "a tensor ends inside its storage");
}

// What the element reader gathers is what one finds element by element.
void promiseGathered(const TorchTensor& tensor, std::string_view storage) {
  const std::uint64_t count = elementCount(tensor);
  if (count > kMaxGathered) return;
  const tool::prepare::DataFile data{"", -1, storage};
  tool::prepare::OutputTensor output;
  output.data = &data;
  output.offset = tensor.begin;
  output.elementBytes = tensor.type->bytes;
  output.extents = tensor.shape;
  if (!tool::prepare::isContiguous(tensor.shape, tensor.strides)) output.strides = tensor.strides;
  std::string gathered(count * tensor.type->bytes, '\0');
  tool::prepare::ElementReader reader(output);
  std::size_t have = 0;
  constexpr std::size_t kRoom = 48;  // small, so that pieces begin and end anywhere
  for (std::size_t n; have < gathered.size() &&
                      (n = reader.next(&gathered[have], std::min(kRoom, gathered.size() - have))) > 0;)
    have += n;
  promise(have == gathered.size(), "every element is gathered");
  for (std::uint64_t k = 0; k < count; ++k) {
    const std::size_t size = tensor.type->bytes;
    promise(gathered.compare(k * size, size, storage, tensor.begin + positionOf(tensor, k) * size, size) == 0,
            "elements are gathered in their order");
  }
}

std::string storageBytes(TorchCheckpoint& checkpoint, const TorchStorage& storage, std::string_view file,
                         Status& status) {
  if (!storage.isPacked()) return std::string(file.substr(storage.fileOffset, storage.bytes));
  std::string out;
  status = checkpoint.inflate(storage, [&](std::string_view piece) {
    promise(piece.size() <= storage.bytes - out.size(), "no more is unpacked than is declared");
    out += piece;
    return true;
  });
  promise(!status.ok() || out.size() == storage.bytes, "what is unpacked is complete");
  promise(status.ok() || storage.deflated, "an array was read when the program was run");
  return out;
}

void promiseSameCheckpoint(const TorchCheckpoint& a, const TorchCheckpoint& b) {
  promise(a.tensors().size() == b.tensors().size() && a.storages().size() == b.storages().size() &&
              a.within() == b.within() && a.others().size() == b.others().size(),
          "equal files give equal checkpoints");
  for (std::size_t k = 0; k < a.tensors().size(); ++k) {
    const TorchTensor& one = a.tensors()[k];
    const TorchTensor& other = b.tensors()[k];
    promise(one.name == other.name && one.type == other.type && one.storage == other.storage &&
                one.begin == other.begin && one.shape == other.shape && one.strides == other.strides,
            "equal files give equal tensors");
  }
}

// Whatever text the memo hands out, it is not worth more bytes than a program may have.
void promiseShortArrays(const TorchCheckpoint& checkpoint) {
  std::uint64_t bytes = 0;
  for (const TorchStorage& storage : checkpoint.storages()) {
    if (!storage.content.has_value()) continue;
    promise(!storage.deflated, "an array lies in the program only");
    promise(checkedAdd(bytes, storage.bytes, bytes), "the bytes of arrays do not wrap");
  }
  promise(bytes <= tool::prepare::TorchPickle::kMaxProgramBytes, "arrays are no longer than a program");
}

void checkCheckpoint(std::string_view file) {
  TorchCheckpoint checkpoint;
  const Status status = checkpoint.parse(file);
  promiseKnownStatus(status, {Code::Unsupported, Code::Corrupted}, "checkpoint: ");
  TorchCheckpoint again;
  promiseSame(again.parse(file), status);
  if (!status.ok()) return;
  promiseSameCheckpoint(checkpoint, again);
  promise(!checkpoint.tensors().empty(), "a checkpoint has tensors");
  for (const TorchStorage& storage : checkpoint.storages()) {
    if (storage.isPacked()) continue;
    promise(storage.fileOffset <= file.size() && storage.bytes <= file.size() - storage.fileOffset,
            "a stored storage lies inside the file");
  }
  promiseShortArrays(checkpoint);
  for (const TorchTensor& tensor : checkpoint.tensors())
    promiseInside(tensor, checkpoint.storages().at(tensor.storage));
  for (std::size_t k = 0; k < checkpoint.storages().size(); ++k) {
    Status unpacked;
    const std::string bytes = storageBytes(checkpoint, checkpoint.storages()[k], file, unpacked);
    promiseKnownStatus(unpacked, {Code::Corrupted}, "checkpoint: ");
    if (!unpacked.ok()) continue;
    for (const TorchTensor& tensor : checkpoint.tensors()) {
      if (tensor.storage == k) promiseGathered(tensor, bytes);
    }
  }
}

}  // namespace

void checkTorchZip(std::string_view input) {
  if (input.substr(0, 2) == "PK") return checkCheckpoint(input);
  const std::string elements(64, '\x3c');
  checkCheckpoint(test::savedZip(std::string(input), {{"0", elements}, {"1", elements}}).build());
}

void checkTorchLegacy(std::string_view input) {
  const std::string head = test::legacyMagic();
  if (input.substr(0, head.size()) == head) return checkCheckpoint(input);
  checkCheckpoint(head + test::legacyProtocol() + test::legacySystem() + std::string(input));
}

}  // namespace zel::fuzz
