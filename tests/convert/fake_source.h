// A weight source whose answers a test writes down, truthful or not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "convert/weight_source.h"

namespace zel::test {

class FakeSource final : public WeightSource {
 public:
  // A tensor over `bytes`, which the source keeps.
  FakeSource& add(std::string name, DType dtype, const std::vector<std::uint64_t>& dims, std::string bytes) {
    bytes_.push_back(std::move(bytes));
    WeightTensor tensor;
    tensor.name = std::move(name);
    tensor.dtype = dtype;
    tensor.ndim = std::uint16_t(dims.size());
    for (std::size_t k = 0; k < dims.size() && k < 4; ++k)
      tensor.dims[k] = dims[k];
    tensor.data = bytes_.back().data();
    tensor.nbytes = bytes_.back().size();
    tensors_.push_back({std::move(tensor), true});
    return *this;
  }
  // The last tensor, to be made a liar of.
  WeightTensor& last() { return tensors_.back().first; }
  // tensorAt() answers false for the last tensor.
  FakeSource& unreadable() {
    tensors_.back().second = false;
    return *this;
  }

  [[nodiscard]] std::size_t count() const override { return tensors_.size(); }
  [[nodiscard]] bool tensorAt(std::size_t i, WeightTensor& out) const override {
    if (i >= tensors_.size()) return false;
    out = tensors_[i].first;
    return tensors_[i].second;
  }
  [[nodiscard]] const std::string* nameAt(std::size_t i) const override {
    return i < tensors_.size() ? &tensors_[i].first.name : nullptr;
  }

 private:
  std::vector<std::pair<WeightTensor, bool>> tensors_;
  std::deque<std::string> bytes_;
};

}  // namespace zel::test
