#include "convert/st_source.h"

#include <algorithm>

#if defined(__SANITIZE_ADDRESS__)
#define ZEL_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEL_LEAK_CHECKED 1
#endif
#endif
#ifdef ZEL_LEAK_CHECKED
#include <sanitizer/lsan_interface.h>
#endif

namespace zel {
namespace {

// The one place that tells leak checkers about the importers that live until the process ends.
void keepForever([[maybe_unused]] const SafetensorsImporter* importer) {
#ifdef ZEL_LEAK_CHECKED
  __lsan_ignore_object(importer);
#endif
}

}  // namespace

Status StSource::open(const char* path) {
  if (importer_ != nullptr) {
    importer_->close();
    delete importer_;
    importer_ = nullptr;
  }
  importer_ = new SafetensorsImporter;
  keepForever(importer_);
  return importer_->open(path);
}

FileId StSource::fileId() const { return importer_ == nullptr ? FileId() : importer_->fileId(); }

std::string_view StSource::mapping() const {
  return importer_ == nullptr ? std::string_view() : importer_->mapping();
}

std::size_t StSource::count() const { return importer_ == nullptr ? 0 : importer_->tensors().size(); }

const std::string* StSource::nameAt(std::size_t i) const {
  return i < count() ? &importer_->tensors()[i].name : nullptr;
}

bool StSource::tensorAt(std::size_t i, WeightTensor& out) const {
  if (i >= count()) return false;
  const StTensorInfo& tensor = importer_->tensors()[i];
  const std::string_view region = importer_->dataRegion();
  out.name = tensor.name;
  out.dtype = tensor.dtype;
  out.ndim = std::uint16_t(tensor.ndim);
  std::copy_n(tensor.dims, tensor.ndim, out.dims);
  out.data = tensor.dataEnd > region.size() ? nullptr : region.data() + tensor.dataBegin;
  out.nbytes = tensor.size;
  return out.data != nullptr;
}

}  // namespace zel
