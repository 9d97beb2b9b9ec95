#include "okv2/prepare/fused_attention.h"

#include <string_view>
#include <utility>

#include "container/bytes.h"

namespace zel::tool::prepare {
namespace {

constexpr std::uint64_t kParts = 3;

// transformers, modeling_gpt_bigcode.py, GPTBigCodeAttention: c_attn is a Linear layer that is split into
// (embed_dim, 2 * kv_dim) with multi_query, and into (head_dim, 2 * head_dim) a head without.
constexpr std::string_view kBigCode[] = {"gpt_bigcode", "GPTBigCode"};

// transformers, modeling_gpt2.py, modeling_openai.py and modeling_imagegpt.py: c_attn is a Conv1D layer,
// whose weight is [in, out]. Heads that are pruned take columns with them, rows never.
constexpr std::string_view kConv1d[] = {"gpt2", "GPT2", "openai-gpt", "OpenAIGPT", "imagegpt", "ImageGPT"};

// Qwen/Qwen-7B, modeling_qwen.py, QWenAttention: c_attn is a Linear layer, whose weight is [out, in].
constexpr std::string_view kLinear[] = {"qwen", "QWenLMHeadModel"};

struct Strides {
  std::uint64_t row;
  std::uint64_t column;
};

// In elements. A bias has rows of one element.
Strides stridesOf(const OutputTensor& tensor) {
  if (tensor.shape.size() == 1) return {tensor.strides.empty() ? 1 : tensor.strides[0], 1};
  if (tensor.strides.empty()) return {tensor.shape[1], 1};
  return {tensor.strides[0], tensor.strides[1]};
}

FusedForm bigCodeForm(const OutputTensor& tensor, const ModelKind& kind) {
  if (tensor.shape.empty() || tensor.shape.size() > 2 || tensor.elementBytes == 0 || kind.heads == 0) {
    return FusedForm::Unknown;
  }
  // With one head of keys and one of values, (heads + 2) heads make the rows; else 3 heads for each.
  const std::uint64_t rows = tensor.shape[0];
  std::uint64_t heads = 0;
  const bool fits =
      kind.multiQuery ? checkedAdd(kind.heads, 2, heads) : checkedMul(kind.heads, kParts, heads);
  if (!fits || rows % heads != 0) return FusedForm::Unknown;
  const std::uint64_t queryRows = rows / heads * kind.heads;  // no more than `rows`
  if (tensor.shape.size() == 2 && tensor.shape[1] != queryRows) return FusedForm::Unknown;
  return kind.multiQuery ? FusedForm::MultiQuery : FusedForm::Interleaved;
}

FusedForm conv1dForm(const OutputTensor& tensor, const ModelKind& kind) {
  const std::vector<std::uint64_t>& shape = tensor.shape;
  if (tensor.elementBytes == 0) return FusedForm::Unknown;  // blocks lie across columns
  if (shape.size() == 1) return shape[0] % kParts == 0 ? FusedForm::EqualRows : FusedForm::Unknown;
  if (shape.size() != 2) return FusedForm::Unknown;
  // A file that somebody has turned to [out, in] has the width in its columns. Without pruned heads it has
  // three times the width in its rows, which are too many for inputs.
  const bool isWhole = shape[0] % kParts == 0 && shape[0] / kParts == shape[1];
  if (kind.width != 0 && isWhole && shape[1] == kind.width) return FusedForm::EqualRows;
  if (shape[1] % kParts != 0) return FusedForm::Unknown;
  const bool isTurned = kind.width != 0 ? shape[0] != kind.width : shape[0] / kParts == shape[1];
  return isTurned ? FusedForm::Unknown : FusedForm::Columns;
}

FusedPart rowsOf(const OutputTensor& fused, std::uint64_t first, std::uint64_t count) {
  FusedPart part{fused, first * stridesOf(fused).row * fused.elementBytes};
  part.tensor.shape[0] = part.tensor.extents[0] = count;
  part.tensor.bytes = fused.bytes / fused.shape[0] * count;
  return part;
}

FusedPart columnsOf(const OutputTensor& fused, std::uint64_t k) {
  const Strides strides = stridesOf(fused);
  const std::uint64_t columns = fused.shape[1] / kParts;
  FusedPart part{fused, k * columns * strides.column * fused.elementBytes};
  part.tensor.shape[1] = part.tensor.extents[1] = columns;
  part.tensor.strides = {strides.row, strides.column};
  part.tensor.bytes = fused.bytes / kParts;
  return part;
}

FusedPart headsOf(const OutputTensor& fused, std::uint64_t heads, std::uint64_t k) {
  const Strides strides = stridesOf(fused);
  const std::uint64_t headRows = fused.shape[0] / kParts / heads;
  FusedPart part{fused, k * headRows * strides.row * fused.elementBytes};
  part.tensor.shape[0] = heads * headRows;
  part.tensor.extents = {heads, headRows};
  part.tensor.strides = {kParts * headRows * strides.row, strides.row};
  if (fused.shape.size() == 2) {
    part.tensor.extents.push_back(fused.shape[1]);
    part.tensor.strides.push_back(strides.column);
  }
  part.tensor.bytes = fused.bytes / kParts;
  return part;
}

}  // namespace

FusedForm fusedFormOf(const OutputTensor& tensor, const ModelKind& kind) {
  if (kind.isOneOf(kBigCode)) return bigCodeForm(tensor, kind);
  if (kind.isOneOf(kConv1d)) return conv1dForm(tensor, kind);
  const std::vector<std::uint64_t>& shape = tensor.shape;
  const bool isMatrix = shape.size() == 2;
  if (isMatrix && shape[1] % kParts == 0 && shape[1] / kParts == shape[0]) {
    return tensor.elementBytes == 0 ? FusedForm::Unknown : FusedForm::Columns;  // blocks lie across columns
  }
  const std::uint64_t unit = tensor.elementBytes == 0 ? kParts * kBlockRows : kParts;
  if (shape.empty() || shape[0] % unit != 0) return FusedForm::Unknown;
  // Of pruned heads both extents may be multiples of three; then only the class tells which one is cut.
  const bool mayBeColumns = isMatrix && tensor.elementBytes != 0 && shape[1] % kParts == 0;
  const bool isSquare = isMatrix && shape[0] / kParts == shape[1];
  return !mayBeColumns || isSquare || kind.isExactly(kLinear) ? FusedForm::EqualRows : FusedForm::Unknown;
}

std::vector<FusedPart> cutFused(const OutputTensor& fused, const std::vector<adapter::Slice>& slices,
                                FusedForm form, const ModelKind& kind) {
  std::vector<FusedPart> parts;
  if (form == FusedForm::MultiQuery) {
    const std::uint64_t headRows = fused.shape[0] / (kind.heads + 2);
    const std::uint64_t queryRows = headRows * kind.heads;
    parts.push_back(rowsOf(fused, 0, queryRows));
    parts.push_back(rowsOf(fused, queryRows, headRows));
    parts.push_back(rowsOf(fused, queryRows + headRows, headRows));
  } else {
    for (std::uint64_t k = 0; k < kParts; ++k)
      parts.push_back(form == FusedForm::Columns ? columnsOf(fused, k) : headsOf(fused, kind.heads, k));
  }
  for (std::size_t k = 0; k < parts.size(); ++k)
    parts[k].tensor.name = slices[k].name;
  return parts;
}

}  // namespace zel::tool::prepare
