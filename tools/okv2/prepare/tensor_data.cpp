#include "okv2/prepare/tensor_data.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace zel::tool::prepare {
namespace {

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

// Whole elements of every type.
std::size_t pieceFor(const OutputTensor& tensor) {
  constexpr std::uint64_t kSmallest = 16;
  const std::uint64_t bytes =
      tensor.castFrom == nullptr ? tensor.bytes : tensor.bytes / sizeof(float) * tensor.castFrom->bytes;
  return static_cast<std::size_t>(std::clamp<std::uint64_t>(bytes, kSmallest, kPieceBytes));
}

struct Boolean {
  std::uint8_t bits;
  explicit operator float() const noexcept { return bits == 0 ? 0.0F : 1.0F; }
};

template <class T>
T load(const char* from) noexcept {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

// Calls `function` with a zero of the type's own C++ type.
template <class Function>
void asNumbers(const ElementType& type, const Function& function) {
  switch (type.name[0]) {
    case 'F': function(double{}); return;
    case 'B': function(Boolean{}); return;
    case 'I':
      switch (type.bytes) {
        case 1: function(std::int8_t{}); return;
        case 2: function(std::int16_t{}); return;
        case 4: function(std::int32_t{}); return;
        default: function(std::int64_t{}); return;
      }
    default:
      switch (type.bytes) {
        case 1: function(std::uint8_t{}); return;
        case 2: function(std::uint16_t{}); return;
        case 4: function(std::uint32_t{}); return;
        default: function(std::uint64_t{}); return;
      }
  }
}

bool isFloat32(double value) noexcept {
  // What rounds to the largest 32-bit float, or below: half a unit in its last place above it does not.
  constexpr double kTooLarge = 0x1.ffffffp127;
  return !std::isfinite(value) || std::fabs(value) < kTooLarge;
}
bool isFloat32(Boolean) noexcept { return true; }
// The digits between the first and the last that is set must be no more than a float has.
template <class T>
std::enable_if_t<std::is_integral_v<T>, bool> isFloat32(T value) noexcept {
  const auto wide = static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
  const std::uint64_t size = value < 0 ? 0 - wide : wide;
  return size == 0 || size >> std::countr_zero(size) < std::uint64_t{1} << std::numeric_limits<float>::digits;
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

ConvertedBytes::ConvertedBytes(const OutputTensor& tensor)
    : reader_(tensor), castFrom_(tensor.castFrom), gathered_(pieceFor(tensor)) {
  if (castFrom_ != nullptr) cast_.resize(gathered_.size() / castFrom_->bytes * sizeof(float));
}

std::string_view ConvertedBytes::next() {
  const std::size_t n = reader_.next(gathered_.data(), gathered_.size());
  if (castFrom_ == nullptr) return {gathered_.data(), n};
  const std::size_t count = n / castFrom_->bytes;
  castToFloat32(*castFrom_, gathered_.data(), count, cast_.data());
  return {cast_.data(), count * sizeof(float)};
}

bool fitsFloat32(const OutputTensor& tensor) {
  ElementReader reader(tensor);
  std::vector<char> piece(pieceFor(tensor));
  bool fits = true;
  for (std::size_t n; fits && (n = reader.next(piece.data(), piece.size())) > 0;) {
    asNumbers(*tensor.castFrom, [&](auto zero) {
      using T = decltype(zero);
      for (std::size_t k = 0; k < n; k += sizeof(T))
        fits = fits && isFloat32(load<T>(piece.data() + k));
    });
  }
  return fits;
}

void castToFloat32(const ElementType& type, const char* from, std::size_t count, char* to) noexcept {
  asNumbers(type, [&](auto zero) {
    using T = decltype(zero);
    for (std::size_t k = 0; k < count; ++k) {
      const auto narrow = static_cast<float>(load<T>(from + k * sizeof(T)));
      std::memcpy(to + k * sizeof narrow, &narrow, sizeof narrow);
    }
  });
}

}  // namespace zel::tool::prepare
