#include "convert/convert_weights.h"

#include <algorithm>
#include <iterator>

#include "container/bytes.h"
#include "container/dtype.h"
#include "container/okv2_format.h"
#include "convert/name_mapping.h"
#include "convert/st_source.h"

namespace zel {
namespace {

// Fused tensors of block formats are cut by whole blocks of this many rows.
constexpr std::uint64_t kBlockRows = 256;
// Units of this size and more are blocks; smaller ones are elements.
constexpr std::uint64_t kSmallestBlockUnit = 144;

// An element type that the table does not know is declared and cut like F32.
const BlockGeometry& geometryOf(DType dtype) {
  const BlockGeometry* geometry = findBlockGeometry(std::uint16_t(dtype));
  return geometry != nullptr ? *geometry : kBlockGeometry[std::size_t(DType::F32)];
}

struct ByteRange {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

// The bytes of `rows` rows (or row blocks) from `rowStart` on; false when they do not lie inside
// `totalBytes`.
bool sliceRange(std::uint64_t rowStart, std::uint64_t rows, std::uint64_t cols, std::uint64_t unit,
                std::uint64_t totalBytes, ByteRange& out) {
  std::uint64_t rowBytes;
  std::uint64_t end;
  return checkedMul(cols, unit, rowBytes) && checkedMul(rowStart, rowBytes, out.offset) &&
         checkedMul(rows, rowBytes, out.size) && checkedAdd(out.offset, out.size, end) && end <= totalBytes;
}

// Hands tensors to the writer and counts them.
class Adder {
 public:
  Adder(OKV2Writer& writer, WeightStats* stats) : writer_(writer), stats_(stats) {}

  Status add(const WeightTensor& tensor, const std::string& name, const std::uint64_t* dims,
             ByteRange range) {
    const char* data = static_cast<const char*>(tensor.data) + range.offset;
    ZEL_RETURN_IF_ERROR(writer_.addTensorFromMem(data, name.c_str(), geometryOf(tensor.dtype).containerCode,
                                                 dims, tensor.ndim, range.size));
    if (stats_ != nullptr) {
      stats_->tensors += 1;
      stats_->bytes += range.size;
    }
    return {};
  }

 private:
  OKV2Writer& writer_;
  WeightStats* stats_;
};

// Cuts a fused tensor into equal row blocks along its first extent; remainder rows are dropped.
Status addSlices(const WeightTensor& tensor, const std::vector<adapter::Slice>& slices, Adder& adder) {
  const std::uint64_t rows = tensor.dims[0] / slices.size();
  // A third or fourth extent is not multiplied in, on purpose: fused projections have two.
  const std::uint64_t cols = tensor.ndim > 1 ? tensor.dims[1] : 1;
  std::uint64_t dims[okv2::kMaxDims];
  std::copy_n(tensor.dims, std::size(dims), dims);
  dims[0] = rows;
  const std::uint64_t unit = geometryOf(tensor.dtype).splitUnit;
  const std::uint64_t unitRows = unit >= kSmallestBlockUnit ? kBlockRows : 1;
  // What the writer refuses without looking at the data, it may refuse in its own words.
  const bool refused = tensor.ndim == 0 || tensor.ndim > okv2::kMaxDims || rows / unitRows == 0 || cols == 0;
  for (std::size_t k = 0; k < slices.size(); ++k) {
    ByteRange range;
    if (!refused && !sliceRange(k * rows / unitRows, rows / unitRows, cols, unit, tensor.nbytes, range)) {
      return corrupted("convert: cannot read tensor");
    }
    ZEL_RETURN_IF_ERROR(adder.add(tensor, slices[k].name, dims, range));
  }
  return {};
}

}  // namespace

Status convertWeights(WeightSource& src, const std::string& arch, OKV2Writer& writer, WeightStats* stats) {
  Adder adder(writer, stats);
  WeightTensor tensor;
  const std::size_t count = src.count();
  writer.reserveTensors(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (!src.tensorAt(i, tensor) || tensor.data == nullptr) return corrupted("convert: cannot read tensor");
    const adapter::MappedName mapped = adapter::toOkvName(arch, tensor.name);
    if (!mapped.ok) return invalidFormat("convert: cannot map tensor '" + tensor.name + "'");
    if (mapped.slices.size() > 1) {
      ZEL_RETURN_IF_ERROR(addSlices(tensor, mapped.slices, adder));
    } else {
      ZEL_RETURN_IF_ERROR(adder.add(tensor, mapped.name, tensor.dims, {0, tensor.nbytes}));
    }
  }
  return {};
}

Status convertSafetensorsFile(const std::string& srcPath, const std::string& dstPath, WeightStats* stats) {
  StSource source;
  ZEL_RETURN_IF_ERROR(source.open(srcPath.c_str()));
  OKV2Writer writer;
  writer.protectInput(source.fileId());
  writer.borrowMapping(source.mapping(), source.fileId(), srcPath);
  writer.setModelInfo(0, 0, 0, 0);
  ZEL_RETURN_IF_ERROR(writer.addMetaStr("general.architecture", "generic"));
  ZEL_RETURN_IF_ERROR(convertWeights(source, "generic", writer, stats));
  return writer.write(dstPath.c_str());
}

}  // namespace zel
