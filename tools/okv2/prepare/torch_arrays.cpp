// The part of the machine that makes tensors of numpy's arrays. Facts: array_reduce() and array_setstate() in
// core/src/multiarray/methods.c, arraydescr_reduce() and arraydescr_setstate() in descriptor.c, _frombuffer()
// in core/numeric.py of numpy.
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "okv2/prepare/torch_globals.h"
#include "okv2/prepare/torch_pickle.h"

namespace zel::tool::prepare {
namespace {

using Kind = PickleKind;

struct NumberCode {
  std::string_view code;  // kind and bytes of one element
  std::string_view type;  // a row of kElementTypes
};
constexpr NumberCode kNumberCodes[] = {
    {"f2", "F16"}, {"f4", "F32"},  {"f8", "F64"}, {"i1", "I8"},    {"i2", "I16"},
    {"i4", "I32"}, {"i8", "I64"},  {"u1", "U8"},  {"u2", "U16"},   {"u4", "U32"},
    {"u8", "U64"}, {"b1", "BOOL"}, {"c8", "C64"}, {"c16", "C128"},
};
constexpr bool codesAreKnown() {
  for (const NumberCode& row : kNumberCodes) {
    if (findElementType(row.type) == nullptr) return false;
  }
  return true;
}
static_assert(codesAreKnown());

const ElementType* findNumberType(std::string_view code) {
  for (const NumberCode& row : kNumberCodes) {
    if (row.code == code) return findElementType(row.type);
  }
  return nullptr;
}

// (3, byte order, None, None, None, ...): the three that are None make a type of more than one number.
bool isStateOfNumberType(const PickleValue& state) {
  constexpr std::uint64_t kItems = 8;
  constexpr std::int64_t kVersion = 3;
  if (!state.is(Kind::Tuple) || state.node().count != kItems) return false;
  const PickleNode& node = state.node();
  if (!node.at(0).is(Kind::Integer) || node.at(0).integer() != kVersion || !node.at(1).is(Kind::Text))
    return false;
  const std::string_view order = node.at(1).text();
  return (order == "<" || order == ">" || order == "=" || order == "|") && node.at(2).is(Kind::None) &&
         node.at(3).is(Kind::None) && node.at(4).is(Kind::None);
}

const ArrayPart* asPart(const PickleValue& value, ArrayPart::Kind kind) {
  const ArrayPart* const part = value.part();
  return part != nullptr && part->kind == kind ? part : nullptr;
}

// The type when weights have it, or null.
const ArrayPart* asNumberType(const PickleValue& value) {
  const ArrayPart* const part = asPart(value, ArrayPart::Kind::NumberType);
  return part != nullptr && part->type != nullptr ? part : nullptr;
}

ArrayPart bigEndianArray() {
  ArrayPart part;
  part.isBigEndian = true;
  return part;
}

// False for what does not stand for bytes.
bool contentOf(const PickleValue& raw, ProgramBytes& out) {
  if (const ArrayPart* const encoded = asPart(raw, ArrayPart::Kind::EncodedText); encoded != nullptr) {
    out = {encoded->text, true};
    return true;
  }
  if (!raw.is(Kind::Bytes) && !raw.isByteString()) return false;
  out = {raw.text(), false};
  return true;
}

// False when there are more than 64 bits can count.
bool countElements(const PickleNode& shape, std::uint64_t& elements) {
  elements = 1;
  bool fits = true;
  bool empty = false;
  for (const PickleItem* item = shape.first; item != nullptr; item = item->next) {
    const auto extent = static_cast<std::uint64_t>(item->value.integer());
    empty = empty || extent == 0;
    fits = fits && checkedMul(elements, extent, elements);
  }
  if (empty) elements = 0;
  return fits || empty;
}

using Strides = std::array<std::uint64_t, kMaxTorchExtents>;

// In elements, of an array without gaps; zeros when it has no elements. The shape has at most
// kMaxTorchExtents.
Strides stridesOf(const PickleNode& shape, std::uint64_t elements, bool firstIsFastest) {
  Strides strides{};
  if (elements == 0) return strides;
  std::uint64_t step = 1;  // at most `elements`
  for (std::uint64_t k = 0; k < shape.count; ++k) {
    const std::uint64_t at = firstIsFastest ? k : shape.count - 1 - k;
    strides[at] = step;
    step *= static_cast<std::uint64_t>(shape.at(at).integer());
  }
  return strides;
}

}  // namespace

bool TorchPickle::pushPart(const ArrayPart& part) {
  if (!spend(1)) return false;
  ArrayPart* const made = parts_.make();
  *made = part;
  return push(PickleValue(made));
}

bool TorchPickle::newNumberType(const PickleNode& args) {
  ArrayPart part;
  part.kind = ArrayPart::Kind::NumberType;
  if (args.count > 0 && args.first->value.is(Kind::Text))
    part.type = findNumberType(args.first->value.text());
  return pushPart(part);
}

// The shape and the type that it is made with are placeholders.
bool TorchPickle::newArray(const PickleNode& args) {
  if (args.count == 0 || !args.first->value.is(Kind::Global) ||
      args.first->value.global().role != PickleRole::ArrayClass) {
    return push(PickleValue(Kind::Inert));
  }
  return pushPart({});
}

bool TorchPickle::encode(const PickleNode& args) {
  if (args.count != 2 || !args.at(0).is(Kind::Text) || !args.at(1).is(Kind::Text) ||
      args.at(1).text() != "latin1") {
    return push(PickleValue(Kind::Inert));
  }
  ArrayPart part;
  part.kind = ArrayPart::Kind::EncodedText;
  part.text = args.at(0).text();
  return pushPart(part);
}

// (bytes, type, shape, "C" or "F"): protocol 5 writes arrays without gaps so.
bool TorchPickle::arrayFromBuffer(const PickleNode& args) {
  const ArrayPart* const type = args.count == 4 ? asNumberType(args.at(1)) : nullptr;
  if (type == nullptr) return push(PickleValue(Kind::Inert));
  if (type->isBigEndian) return pushPart(bigEndianArray());
  const PickleValue& order = args.at(3);
  if (!order.is(Kind::Text) || (order.text() != "C" && order.text() != "F")) {
    return corrupt("has a bad numpy array");
  }
  const PickleTensor* const tensor = makeArray(args.at(2), *type, order.text() == "F", args.at(0));
  return tensor != nullptr && push(PickleValue(tensor));
}

bool TorchPickle::setState(ArrayPart& part, const PickleValue& state) {
  switch (part.kind) {
    case ArrayPart::Kind::NumberType:
      if (isStateOfNumberType(state)) {
        part.isBigEndian = state.node().at(1).text() == ">";
      } else {
        part.type = nullptr;
      }
      return true;
    case ArrayPart::Kind::Array: return fill(part, state);
    case ArrayPart::Kind::EncodedText: break;
  }
  return true;
}

// (1, shape, type, whether the first extent is the fastest, bytes). An array of anything but numbers of this
// byte order stays what it is: it may lie beside the weights.
bool TorchPickle::fill(ArrayPart& array, const PickleValue& state) {
  constexpr std::uint64_t kItems = 5;
  constexpr std::int64_t kVersion = 1;
  if (array.tensor != nullptr) return corrupt("fills a numpy array twice");
  if (!state.is(Kind::Tuple) || state.node().count != kItems) return true;
  const PickleNode& node = state.node();
  const ArrayPart* const type = asNumberType(node.at(2));
  if (!node.at(0).is(Kind::Integer) || node.at(0).integer() != kVersion || type == nullptr) return true;
  if (type->isBigEndian) {
    array = bigEndianArray();
    return true;
  }
  const PickleValue& order = node.at(3);
  if (!order.is(Kind::Boolean) && !order.is(Kind::Integer)) return corrupt("has a bad numpy array");
  array.tensor = makeArray(node.at(1), *type, order.integer() != 0, node.at(4));
  return array.tensor != nullptr;
}

// Null, with the failure set, when its items do not fit.
const PickleTensor* TorchPickle::makeArray(const PickleValue& shape, const ArrayPart& type,
                                           bool firstIsFastest, const PickleValue& raw) {
  ProgramBytes content;
  if (!shape.is(Kind::Tuple) || !contentOf(raw, content)) {
    corrupt("has a bad numpy array");
    return nullptr;
  }
  const std::uint64_t extents = shape.node().count;
  if (extents > kMaxTorchExtents) {
    reject("has a tensor of more than " + std::to_string(kMaxTorchExtents) + " extents");
    return nullptr;
  }
  if (!shape.node().holdsSizes()) {
    corrupt("has a bad numpy array");
    return nullptr;
  }
  constexpr std::uint64_t kMade = 4;  // content, storage, strides, tensor
  if (!spend(kMade)) return nullptr;
  PickleStorage* const storage = storageArena_.make();
  storage->type = type.type;
  ProgramBytes* const kept = contents_.make();
  *kept = content;
  storage->content = kept;
  if (!countElements(shape.node(), storage->elements)) {
    corrupt("has a numpy array of another size than its bytes");
    return nullptr;
  }
  storage->viewEnd = storage->elements;
  if (!measureContent(*storage)) return nullptr;

  PickleNode* const strides = nodes_.make();
  const Strides steps = stridesOf(shape.node(), storage->elements, firstIsFastest);
  for (std::uint64_t k = 0; k < extents; ++k) {
    const PickleValue stride(Kind::Integer, static_cast<std::int64_t>(steps[k]));
    if (!addItem(*strides, PickleValue(), stride)) return nullptr;
  }
  PickleTensor* const tensor = tensors_.make();
  tensor->storage = storage;
  tensor->type = type.type;
  tensor->shape = &shape.node();
  tensor->strides = strides;
  return tensor;
}

// The memo can hand out one text to any number of arrays. Picklers write the bytes of each, so that together
// they are never longer than the program so far; that bounds what is read here as well as what will be
// unpacked.
bool TorchPickle::measureContent(const PickleStorage& storage) {
  const ProgramBytes& content = *storage.content;
  std::uint64_t bytes;
  if (!checkedMul(storage.elements, storage.type->bytes, bytes) || bytes > content.text.size() ||
      bytes < (content.text.size() + 1) / 2) {  // a byte is one character of UTF-8, or two
    return corrupt("has a numpy array of another size than its bytes");
  }
  arrayBytes_ += bytes;
  if (arrayBytes_ > in_.position()) return reject("has numpy arrays that are longer than itself");
  const std::optional<std::uint64_t> counted = countBytes(content);
  if (!counted.has_value()) return corrupt("has a numpy array of characters that latin1 lacks");
  return *counted == bytes || corrupt("has a numpy array of another size than its bytes");
}

}  // namespace zel::tool::prepare
