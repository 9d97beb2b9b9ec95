#include "okv2/plan/mapped_weights.h"

#include <algorithm>
#include <iterator>

namespace zel::plan {

Status MappedWeights::open(const std::string& path, Format format) {
  safetensors_.close();
  pytorch_.close();
  format_ = format;
  return format == Format::Safetensors ? safetensors_.open(path.c_str()) : pytorch_.open(path.c_str());
}

std::size_t MappedWeights::count() const {
  return format_ == Format::Safetensors ? safetensors_.tensors().size() : pytorch_.tensors().size();
}

const std::string* MappedWeights::nameAt(std::size_t i) const {
  if (i >= count()) return nullptr;
  return format_ == Format::Safetensors ? &safetensors_.tensors()[i].name : &pytorch_.tensors()[i].name;
}

// An entry's declared size, against which the reader measured the tensor, may be a lie.
const void* MappedWeights::dataOf(const PtTensorInfo& tensor) const {
  const std::string_view data = pytorch_.bytes().substr(tensor.dataOffset);
  if (tensor.offset > data.size() || tensor.nbytes > data.size() - tensor.offset) return nullptr;
  return data.data() + tensor.offset;
}

bool MappedWeights::tensorAt(std::size_t i, WeightTensor& out) const {
  if (i >= count()) return false;
  if (format_ == Format::Safetensors) {
    const StTensorInfo& tensor = safetensors_.tensors()[i];
    out.name = tensor.name;
    out.dtype = tensor.dtype;
    out.ndim = static_cast<std::uint16_t>(tensor.ndim);
    std::copy_n(tensor.dims, tensor.ndim, out.dims);
    out.data = safetensors_.dataRegion().data() + tensor.dataBegin;  // inside: the reader has checked
    out.nbytes = tensor.size;
  } else {
    const PtTensorInfo& tensor = pytorch_.tensors()[i];
    out.name = tensor.name;
    out.dtype = static_cast<DType>(tensor.dtype);
    out.ndim = tensor.ndim;
    std::copy_n(tensor.shape, std::min<std::size_t>(tensor.ndim, std::size(tensor.shape)), out.dims);
    out.data = dataOf(tensor);
    out.nbytes = tensor.nbytes;
  }
  return out.data != nullptr;
}

}  // namespace zel::plan
