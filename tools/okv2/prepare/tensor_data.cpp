#include "okv2/prepare/tensor_data.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace zel::tool::prepare {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

std::vector<std::uint64_t> contiguousStrides(const std::vector<std::uint64_t>& extents) {
  std::vector<std::uint64_t> strides(extents.size(), 1);
  for (std::size_t k = extents.size(); k-- > 1;)
    strides[k - 1] = strides[k] * extents[k];
  return strides;
}

// Of a size that the compiler knows, for the inner loop.
template <std::size_t N>
void copyRun(const char* from, std::uint64_t stepBytes, std::uint64_t count, char* to) {
  for (std::uint64_t k = 0; k < count; ++k)
    std::memcpy(to + k * N, from + k * stepBytes, N);
}

void copyElements(const char* from, std::uint64_t stride, std::uint64_t count, std::uint32_t elementBytes,
                  char* to) {
  if (stride == 1) {
    std::memcpy(to, from, count * elementBytes);
    return;
  }
  const std::uint64_t step = stride * elementBytes;
  switch (elementBytes) {
    case 2: copyRun<2>(from, step, count, to); return;
    case 4: copyRun<4>(from, step, count, to); return;
    case 8: copyRun<8>(from, step, count, to); return;
    default:
      for (std::uint64_t k = 0; k < count; ++k)
        std::memcpy(to + k * elementBytes, from + k * step, elementBytes);
  }
}

}  // namespace

bool isContiguous(const std::vector<std::uint64_t>& extents,
                  const std::vector<std::uint64_t>& strides) noexcept {
  if (std::find(extents.begin(), extents.end(), 0) != extents.end()) return true;
  std::uint64_t expected = 1;  // cannot wrap: the elements lie in memory
  for (std::size_t k = extents.size(); k-- > 0;) {
    if (extents[k] == 1) continue;
    if (strides[k] != expected) return false;
    expected *= extents[k];
  }
  return true;
}

ElementReader::ElementReader(const OutputTensor& tensor)
    : base_(tensor.data->bytes.data() + tensor.offset),
      elementBytes_(tensor.elementBytes),
      extents_(tensor.extents),
      strides_(tensor.strides.empty() ? contiguousStrides(tensor.extents) : tensor.strides),
      index_(extents_.size(), 0),
      left_(1) {
  if (extents_.empty()) {
    extents_ = strides_ = {1};
    index_ = {0};
  }
  for (const std::uint64_t extent : extents_)
    left_ *= extent;
}

std::size_t ElementReader::next(char* out, std::size_t room) {
  std::size_t done = 0;
  while (left_ > 0 && room - done >= elementBytes_) {
    const std::uint64_t run =
        std::min<std::uint64_t>(extents_.back() - index_.back(), (room - done) / elementBytes_);
    copyElements(base_ + at_ * elementBytes_, strides_.back(), run, elementBytes_, out + done);
    done += run * elementBytes_;
    left_ -= run;
    index_.back() += run;
    at_ += run * strides_.back();
    if (index_.back() == extents_.back() && left_ > 0) advance();
  }
  return done;
}

// To the first element of the next row.
void ElementReader::advance() {
  std::size_t k = extents_.size() - 1;
  while (index_[k] == extents_[k]) {
    at_ -= index_[k] * strides_[k];
    index_[k] = 0;
    --k;
    ++index_[k];
    at_ += strides_[k];
  }
}

bool fitsFloat32(const OutputTensor& tensor) {
  // What rounds to the largest 32-bit float, or below: half a unit in its last place above it does not.
  constexpr double kTooLarge = 0x1.ffffffp127;
  ElementReader reader(tensor);
  std::vector<char> piece(kPieceBytes);
  for (std::size_t n; (n = reader.next(piece.data(), piece.size())) > 0;) {
    for (std::size_t k = 0; k < n; k += sizeof(double)) {
      double value;
      std::memcpy(&value, piece.data() + k, sizeof value);
      if (std::isfinite(value) && std::fabs(value) >= kTooLarge) return false;
    }
  }
  return true;
}

void castToFloat32(const char* from, std::size_t count, char* to) noexcept {
  for (std::size_t k = 0; k < count; ++k) {
    double wide;
    std::memcpy(&wide, from + k * sizeof wide, sizeof wide);
    const auto narrow = static_cast<float>(wide);
    std::memcpy(to + k * sizeof narrow, &narrow, sizeof narrow);
  }
}

}  // namespace zel::tool::prepare
