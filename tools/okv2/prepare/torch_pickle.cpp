#include "okv2/prepare/torch_pickle.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>

#include "okv2/prepare/torch_globals.h"

namespace zel::tool::prepare {
namespace {

using Kind = PickleKind;

constexpr std::uint8_t kStop = '.';
constexpr std::size_t kShownBytes = 200;  // of a global's name, in a message
constexpr std::size_t kMaxKeyBytes = 256;
constexpr std::uint64_t kMaxMetadataItems = 16;  // the memo may hand out one long dictionary to every tensor

bool isClass(PickleRole role) {
  switch (role) {
    case PickleRole::OrderedDict:
    case PickleRole::Size:
    case PickleRole::ArrayClass:
    case PickleRole::NumberType:
    case PickleRole::BytesClass:
    case PickleRole::Inert: return true;
    case PickleRole::RebuildTensor:
    case PickleRole::RebuildTyped:
    case PickleRole::RebuildParameter:
    case PickleRole::StorageType:
    case PickleRole::ElementTypeObject:
    case PickleRole::ArrayMaker:
    case PickleRole::ArrayFromBuffer:
    case PickleRole::Encode: break;
  }
  return false;
}

// Extents, strides and offsets: an Integer of 0 and more.
bool isSize(const PickleValue& value) { return value.is(Kind::Integer) && value.integer() >= 0; }

// An array is a tensor once it is filled. One that a container takes before is inert there for good: picklers
// fill first.
PickleValue settled(const PickleValue& value) {
  const ArrayPart* const part = value.part();
  return part == nullptr || part->tensor == nullptr ? value : PickleValue(part->tensor);
}

// One more than the last element that a tensor reaches, counted from the start of its run; 0 for a tensor
// without elements. False when it does not fit 64 bits.
bool reachOf(const PickleTensor& tensor, std::uint64_t& reach) {
  std::uint64_t last = tensor.begin;
  bool empty = false;
  bool fits = true;
  const PickleItem* stride = tensor.strides->first;
  for (const PickleItem* extent = tensor.shape->first; extent != nullptr;
       extent = extent->next, stride = stride->next) {
    const auto n = static_cast<std::uint64_t>(extent->value.integer());
    if (n == 0) {
      empty = true;
      continue;
    }
    std::uint64_t step = 0;
    fits = fits && checkedMul(n - 1, static_cast<std::uint64_t>(stride->value.integer()), step) &&
           checkedAdd(last, step, last);
  }
  if (empty) {
    reach = 0;
    return true;
  }
  return fits && checkedAdd(last, 1, reach);
}

}  // namespace

bool PickleNode::holdsSizes() const noexcept {
  for (const PickleItem* item = first; item != nullptr; item = item->next) {
    if (!isSize(item->value)) return false;
  }
  return true;
}

bool PickleValue::isUnreadArray() const noexcept {
  return isPart_ && part_->kind == ArrayPart::Kind::Array && part_->tensor == nullptr;
}

const PickleValue& PickleNode::at(std::uint64_t k) const noexcept {
  const PickleItem* item = first;
  for (; k > 0; --k)
    item = item->next;
  return item->value;
}

Status TorchPickle::run(std::string_view bytes, PickleValue& root, std::uint64_t& consumed) {
  cut_ = bytes.size() > kMaxProgramBytes;
  in_ = ByteReader(bytes.substr(0, kMaxProgramBytes));
  stack_.clear();
  marks_.clear();
  memo_.clear();
  arrayBytes_ = 0;
  failure_ = Status();
  std::uint8_t opcode = 0;
  while (failure_.ok() && opcode != kStop) {
    if (!in_.readU8(opcode)) {
      endsEarly();
    } else if (opcode != kStop) {
      step(opcode);
    }
  }
  if (!failure_.ok()) return failure_;
  if (!marks_.empty() || stack_.size() != 1) {
    return corrupted("checkpoint: the pickle leaves " + std::to_string(stack_.size()) + " values behind");
  }
  root = settled(stack_.back());
  consumed = in_.position();
  return {};
}

bool TorchPickle::fail(Code code, const std::string& text) {
  failure_ = Status(code, "checkpoint: the pickle " + text);
  return false;
}

bool TorchPickle::corrupt(const char* what) {
  return fail(Code::Corrupted, std::string(what) + " at byte " + std::to_string(in_.position()));
}

bool TorchPickle::endsEarly() {
  return cut_ ? reject("is longer than " + std::to_string(kMaxProgramBytes) + " bytes")
              : corrupt("ends early");
}

bool TorchPickle::reject(const std::string& what) { return fail(Code::Unsupported, what); }

bool TorchPickle::step(std::uint8_t opcode) {
  switch (opcode) {
    case '(': return mark();                         // MARK
    case ')': return newContainer(Kind::Tuple);      // EMPTY_TUPLE
    case '0': return pop();                          // POP
    case '1': return popMark();                      // POP_MARK
    case '2': return duplicate();                    // DUP
    case 'B': return pushText(Kind::Bytes, 4);       // BINBYTES
    case 'C': return pushText(Kind::Bytes, 1);       // SHORT_BINBYTES
    case 'G': return pushReal();                     // BINFLOAT
    case 'I': return pushDecimalLine();              // INT: Python 2 writes it past 32 bits
    case 'J': return pushInteger(4, true);           // BININT
    case 'K': return pushInteger(1, false);          // BININT1
    case 'M': return pushInteger(2, false);          // BININT2
    case 'N': return push(PickleValue(Kind::None));  // NONE
    case 'Q': return persistentId();                 // BINPERSID
    case 'R': return reduce(false);                  // REDUCE
    case 'T': return pushByteString(4);              // BINSTRING: Python 2
    case 'U': return pushByteString(1);              // SHORT_BINSTRING: Python 2
    case 'X': return pushText(Kind::Text, 4);        // BINUNICODE
    case ']': return newContainer(Kind::List);       // EMPTY_LIST
    case 'a': return append();                       // APPEND
    case 'b': return build();                        // BUILD
    case 'c': return global();                       // GLOBAL
    case 'e': return appends();                      // APPENDS
    case 'h': return getOperand(1);                  // BINGET
    case 'j': return getOperand(4);                  // LONG_BINGET
    case 'q': return putOperand(1);                  // BINPUT
    case 'r': return putOperand(4);                  // LONG_BINPUT
    case 's': return setItem();                      // SETITEM
    case 't': return markedTuple();                  // TUPLE
    case 'u': return setItems();                     // SETITEMS
    case '}': return newContainer(Kind::Dict);       // EMPTY_DICT
    case 0x80: {                                     // PROTO
      std::uint8_t version;
      if (!in_.readU8(version)) return endsEarly();
      return (version >= 2 && version <= 5) || reject("has protocol " + std::to_string(version));
    }
    case 0x81: return reduce(true);                                       // NEWOBJ
    case 0x85: return tupleOfTop(1);                                      // TUPLE1
    case 0x86: return tupleOfTop(2);                                      // TUPLE2
    case 0x87: return tupleOfTop(3);                                      // TUPLE3
    case 0x88: return push(PickleValue(Kind::Boolean, std::int64_t{1}));  // NEWTRUE
    case 0x89: return push(PickleValue(Kind::Boolean, std::int64_t{0}));  // NEWFALSE
    case 0x8a: return pushLong(1);                                        // LONG1
    case 0x8b: return pushLong(4);                                        // LONG4
    case 0x8c: return pushText(Kind::Text, 1);                            // SHORT_BINUNICODE
    case 0x8d: return pushText(Kind::Text, 8);                            // BINUNICODE8
    case 0x8e: return pushText(Kind::Bytes, 8);                           // BINBYTES8
    case 0x8f: return push(PickleValue(Kind::Inert));                     // EMPTY_SET
    case 0x90: return appends();                                          // ADDITEMS
    case 0x91: return markedInert();                                      // FROZENSET
    case 0x93: return stackGlobal();                                      // STACK_GLOBAL
    case 0x94: return put(memo_.size());                                  // MEMOIZE
    case 0x95: return in_.skip(8) || endsEarly();                         // FRAME
    case 0x96: return pushText(Kind::Bytes, 8);                           // BYTEARRAY8
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      return reject(std::string("has the opcode 0x") + kHex[opcode >> 4] + kHex[opcode & 15] +
                    ", which torch.save does not write");
    }
  }
}

// ---- the stack

bool TorchPickle::spend(std::uint64_t values) {
  values_ += values;
  return values_ <= kMaxValues || reject("makes more than " + std::to_string(kMaxValues) + " values");
}

bool TorchPickle::push(const PickleValue& value) {
  // What is popped again is not given back: a genuine program makes few values that it does not keep.
  if (!spend(1)) return false;
  stack_.push_back(value);
  return true;
}

bool TorchPickle::have(std::size_t count) {
  const std::size_t floor = marks_.empty() ? 0 : marks_.back();
  return stack_.size() - floor >= count || corrupt("takes more from the stack than there is");
}

PickleValue TorchPickle::take() noexcept {
  const PickleValue top = stack_.back();
  stack_.pop_back();
  return top;
}

bool TorchPickle::mark() {
  if (!spend(1)) return false;
  marks_.push_back(stack_.size());
  return true;
}

bool TorchPickle::pop() {
  if (!marks_.empty() && marks_.back() == stack_.size()) {
    marks_.pop_back();
    return true;
  }
  if (!have(1)) return false;
  (void)take();
  return true;
}

bool TorchPickle::popMark() {
  if (marks_.empty()) return corrupt("has no mark");
  stack_.resize(marks_.back());
  marks_.pop_back();
  return true;
}

bool TorchPickle::duplicate() {
  if (!have(1)) return false;
  return push(PickleValue(stack_.back()));
}

// ---- operands in the program

bool TorchPickle::readLength(unsigned bytes, std::uint64_t& out) {
  std::string_view raw;
  if (!in_.readBytes(bytes, raw)) return endsEarly();
  out = 0;
  for (unsigned k = bytes; k-- > 0;)
    out = out << 8 | static_cast<unsigned char>(raw[k]);
  return true;
}

bool TorchPickle::pushInteger(unsigned bytes, bool isSigned) {
  std::uint64_t bits = 0;
  if (!readLength(bytes, bits)) return false;
  const std::int64_t value = isSigned ? static_cast<std::int32_t>(static_cast<std::uint32_t>(bits))
                                      : static_cast<std::int64_t>(bits);
  return push(PickleValue(Kind::Integer, value));
}

bool TorchPickle::pushText(PickleKind kind, unsigned lengthBytes) {
  std::uint64_t length = 0;
  std::string_view text;
  if (!readLength(lengthBytes, length)) return false;
  if (!in_.readBytes(length, text)) return endsEarly();
  return push(PickleValue(kind, text));
}

bool TorchPickle::pushByteString(unsigned lengthBytes) {
  if (!pushText(Kind::Text, lengthBytes)) return false;
  stack_.back() = PickleValue::byteString(stack_.back().text());
  return true;
}

bool TorchPickle::pushLong(unsigned lengthBytes) {
  std::uint64_t length = 0;
  std::string_view raw;
  if (!readLength(lengthBytes, length)) return false;
  if (!in_.readBytes(length, raw)) return endsEarly();
  if (raw.size() > 8) return push(PickleValue(Kind::LongInteger, raw));
  std::uint64_t bits = !raw.empty() && (raw.back() & 0x80) != 0 ? ~std::uint64_t{0} : 0;
  for (std::size_t k = raw.size(); k-- > 0;)
    bits = bits << 8 | static_cast<unsigned char>(raw[k]);
  return push(PickleValue(Kind::Integer, static_cast<std::int64_t>(bits)));
}

bool TorchPickle::pushReal() {
  std::uint64_t bits = 0;
  if (!in_.readU64(bits)) return endsEarly();
  return push(PickleValue(std::bit_cast<double>(__builtin_bswap64(bits))));  // the only big-endian operand
}

bool TorchPickle::readLine(std::string_view& out) {
  const std::size_t end = in_.rest().find('\n');
  if (end == std::string_view::npos) return endsEarly();
  return in_.readBytes(end, out) && in_.skip(1);
}

bool TorchPickle::pushDecimalLine() {
  std::string_view line;
  if (!readLine(line)) return false;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), value);
  if (error != std::errc() || end != line.data() + line.size()) return corrupt("has a bad number");
  return push(PickleValue(Kind::Integer, value));
}

// ---- the memo

bool TorchPickle::put(std::uint64_t index) {
  if (!have(1)) return false;
  // Picklers count up, so an index is never beyond the length of the program.
  if (index > in_.position()) return corrupt("has a memo index out of sequence");
  if (index >= memo_.size()) {
    if (!spend(index + 1 - memo_.size())) return false;
    memo_.resize(index + 1);
  }
  memo_[index] = stack_.back();
  return true;
}

bool TorchPickle::putOperand(unsigned bytes) {
  std::uint64_t index = 0;
  return readLength(bytes, index) && put(index);
}

bool TorchPickle::getOperand(unsigned bytes) {
  std::uint64_t index = 0;
  if (!readLength(bytes, index)) return false;
  if (index >= memo_.size() || memo_[index].is(Kind::Unset)) return corrupt("asks for an empty memo index");
  return push(PickleValue(memo_[index]));
}

// ---- containers

bool TorchPickle::newContainer(PickleKind kind) { return push(PickleValue(kind, nodes_.make())); }

bool TorchPickle::addItem(PickleNode& node, const PickleValue& key, const PickleValue& value) {
  if (!spend(1)) return false;
  PickleItem* const item = items_.make();
  item->key = key;
  item->value = settled(value);
  (node.count++ == 0 ? node.first : node.last->next) = item;
  node.last = item;
  if (item->value.is(Kind::Tensor)) {
    node.holdsTensor = node.reachesTensor = true;
    node.holdsTorchTensor = node.holdsTorchTensor || item->value.tensor().storage->content == nullptr;
  } else if (item->value.isContainer()) {
    node.reachesTensor = node.reachesTensor || item->value.node().reachesTensor;
  } else if (item->value.isUnreadArray()) {
    node.reachesTensor = true;
  }
  return true;
}

bool TorchPickle::tupleOfTop(std::size_t count) {
  if (!have(count)) return false;
  PickleNode* const tuple = nodes_.make();
  for (std::size_t k = stack_.size() - count; k < stack_.size(); ++k) {
    if (!addItem(*tuple, PickleValue(), stack_[k])) return false;
  }
  stack_.resize(stack_.size() - count);
  return push(PickleValue(Kind::Tuple, tuple));
}

bool TorchPickle::markedTuple() {
  if (marks_.empty()) return corrupt("has no mark");
  const std::size_t count = stack_.size() - marks_.back();
  if (!tupleOfTop(count)) return false;
  marks_.pop_back();
  return true;
}

bool TorchPickle::markedInert() { return popMark() && push(PickleValue(Kind::Inert)); }

bool TorchPickle::append() {
  if (!have(2)) return false;
  const PickleValue value = take();
  const PickleValue list = stack_.back();
  if (list.is(Kind::Inert)) return true;
  if (!list.is(Kind::List)) return corrupt("appends to what is no list");
  return addItem(list.node(), PickleValue(), value);
}

bool TorchPickle::appends() {
  if (marks_.empty()) return corrupt("has no mark");
  const std::size_t first = marks_.back();
  marks_.pop_back();
  const std::size_t floor = marks_.empty() ? 0 : marks_.back();
  if (first <= floor) return corrupt("takes more from the stack than there is");
  const PickleValue list = stack_[first - 1];
  if (!list.is(Kind::List) && !list.is(Kind::Inert)) return corrupt("appends to what is no list");
  for (std::size_t k = first; k < stack_.size() && list.is(Kind::List); ++k) {
    if (!addItem(list.node(), PickleValue(), stack_[k])) return false;
  }
  stack_.resize(first);
  return true;
}

bool TorchPickle::setItem() {
  if (!have(3)) return false;
  const PickleValue value = take();
  const PickleValue key = take();
  const PickleValue dict = stack_.back();
  if (dict.is(Kind::Inert)) return true;
  if (!dict.is(Kind::Dict)) return corrupt("sets an item of what is no dictionary");
  return addItem(dict.node(), key, value);
}

bool TorchPickle::setItems() {
  if (marks_.empty()) return corrupt("has no mark");
  const std::size_t first = marks_.back();
  marks_.pop_back();
  const std::size_t floor = marks_.empty() ? 0 : marks_.back();
  if (first <= floor) return corrupt("takes more from the stack than there is");
  const PickleValue dict = stack_[first - 1];
  if (!dict.is(Kind::Dict) && !dict.is(Kind::Inert)) return corrupt("sets an item of what is no dictionary");
  if ((stack_.size() - first) % 2 != 0) return corrupt("has a key without a value");
  for (std::size_t k = first; k < stack_.size() && dict.is(Kind::Dict); k += 2) {
    if (!addItem(dict.node(), stack_[k], stack_[k + 1])) return false;
  }
  stack_.resize(first);
  return true;
}

// ---- globals and what is made by them

bool TorchPickle::pushGlobal(std::string_view module, std::string_view name) {
  const PickleGlobal* const found = findPickleGlobal(module, name);
  if (found == nullptr) {
    return reject("names a global that is not on the list: " + std::string(module.substr(0, kShownBytes)) +
                  "." + std::string(name.substr(0, kShownBytes)));
  }
  return push(PickleValue(found));
}

bool TorchPickle::global() {
  std::string_view module;
  std::string_view name;
  return readLine(module) && readLine(name) && pushGlobal(module, name);
}

bool TorchPickle::stackGlobal() {
  if (!have(2)) return false;
  const PickleValue name = take();
  const PickleValue module = take();
  if (!name.is(Kind::Text) || !module.is(Kind::Text)) return corrupt("names a global by no text");
  return pushGlobal(module.text(), name.text());
}

// ('storage', type, key, device, elements), and in files before the zip form a sixth item: None, or the
// (key, begin, elements) of a view.
bool TorchPickle::persistentId() {
  if (!have(1)) return false;
  const PickleValue id = take();
  if (!id.is(Kind::Tuple) || id.node().count < 5 || id.node().count > 6 || !id.node().at(0).is(Kind::Text)) {
    return reject("has a persistent id that torch.save does not write");
  }
  const PickleNode& node = id.node();
  if (node.at(0).text() != "storage") {
    return reject("has a persistent id of the kind '" +
                  std::string(node.at(0).text().substr(0, kShownBytes)) + "'");
  }
  const PickleValue& type = node.at(1);
  if (!type.is(Kind::Global) || type.global().role != PickleRole::StorageType || !node.at(2).is(Kind::Text) ||
      !isSize(node.at(4))) {
    return corrupt("has a bad persistent id");
  }
  // Keys are looked up for every tensor, and the memo may hand out one long key to all of them.
  if (node.at(2).text().size() > kMaxKeyBytes)
    return reject("has a storage with a key of more than 256 bytes");
  if (!spend(1)) return false;
  PickleStorage* const storage = storageArena_.make();
  storage->key = node.at(2).text();
  storage->type = findElementType(type.global().type);
  storage->elements = static_cast<std::uint64_t>(node.at(4).integer());
  storage->viewEnd = storage->elements;
  if (node.count == 6 && !node.at(5).is(Kind::None)) {
    const PickleValue& view = node.at(5);
    if (!view.is(Kind::Tuple) || view.node().count != 3 || !isSize(view.node().at(1)) ||
        !isSize(view.node().at(2))) {
      return corrupt("has a bad persistent id");
    }
    const auto begin = static_cast<std::uint64_t>(view.node().at(1).integer());
    const auto count = static_cast<std::uint64_t>(view.node().at(2).integer());
    if (begin > storage->elements || count > storage->elements - begin) {
      return corrupt("has a view outside its storage");
    }
    storage->viewBegin = begin;
    storage->viewEnd = begin + count;
  }
  storages_.push_back(storage);
  return push(PickleValue(static_cast<const PickleStorage*>(storage)));
}

bool TorchPickle::reduce(bool isNewObject) {
  if (!have(2)) return false;
  const PickleValue args = take();
  const PickleValue what = take();
  if (!args.is(Kind::Tuple)) return corrupt("calls with what is no tuple");
  if (what.is(Kind::Inert)) return push(PickleValue(Kind::Inert));
  if (!what.is(Kind::Global)) return corrupt("calls what cannot be called");
  const PickleRole role = what.global().role;
  if (isNewObject && !isClass(role)) {
    return corrupt("makes an object of what is no class");
  }
  return call(what.global(), args.node());
}

bool TorchPickle::call(const PickleGlobal& what, const PickleNode& args) {
  switch (what.role) {
    case PickleRole::OrderedDict: return orderedDict(args);
    case PickleRole::RebuildTensor: return rebuildTensor(args, false);
    case PickleRole::RebuildTyped: return rebuildTensor(args, true);
    case PickleRole::RebuildParameter:
      if (args.count < 1 || !args.first->value.is(Kind::Tensor)) return corrupt("has a bad parameter");
      return push(args.first->value);
    case PickleRole::Size:
      if (args.count != 1 || !args.first->value.is(Kind::Tuple)) return corrupt("has a bad torch.Size");
      return push(args.first->value);
    case PickleRole::NumberType: return newNumberType(args);
    case PickleRole::ArrayMaker: return newArray(args);
    case PickleRole::ArrayFromBuffer: return arrayFromBuffer(args);
    case PickleRole::Encode: return encode(args);
    case PickleRole::BytesClass:
      // How protocol 2 writes no bytes at all.
      return push(args.count == 0 ? PickleValue(Kind::Bytes, std::string_view()) : PickleValue(Kind::Inert));
    case PickleRole::ArrayClass:
    case PickleRole::Inert: return push(PickleValue(Kind::Inert));
    case PickleRole::StorageType:
    case PickleRole::ElementTypeObject: break;
  }
  return corrupt("calls what cannot be called");
}

// Without arguments, or with a list of pairs, as Python 2 writes it.
bool TorchPickle::orderedDict(const PickleNode& args) {
  PickleNode* const dict = nodes_.make();
  if (args.count > 1) return corrupt("has a bad OrderedDict");
  if (args.count == 1) {
    const PickleValue& list = args.first->value;
    if (!list.is(Kind::List)) return corrupt("has a bad OrderedDict");
    for (const PickleItem* item = list.node().first; item != nullptr; item = item->next) {
      const PickleValue& pair = item->value;
      if ((!pair.is(Kind::List) && !pair.is(Kind::Tuple)) || pair.node().count != 2) {
        return corrupt("has a bad OrderedDict");
      }
      if (!addItem(*dict, pair.node().at(0), pair.node().at(1))) return false;
    }
  }
  return push(PickleValue(Kind::Dict, dict));
}

bool TorchPickle::rebuildTensor(const PickleNode& args, bool typeIsGiven) {
  constexpr std::uint64_t kTypePosition = 6;
  const std::uint64_t metadataPosition = typeIsGiven ? kTypePosition + 1 : kTypePosition;
  if (args.count < 4 || (typeIsGiven && args.count <= kTypePosition)) return corrupt("has a bad tensor");
  const PickleValue& storage = args.at(0);
  const PickleValue& offset = args.at(1);
  const PickleValue& shape = args.at(2);
  const PickleValue& strides = args.at(3);
  if (!storage.is(Kind::Storage) || !isSize(offset) || !shape.is(Kind::Tuple) || !strides.is(Kind::Tuple) ||
      shape.node().count != strides.node().count) {
    return corrupt("has a bad tensor");
  }
  if (shape.node().count > kMaxTorchExtents)
    return reject("has a tensor of more than " + std::to_string(kMaxTorchExtents) + " extents");
  if (!shape.node().holdsSizes() || !strides.node().holdsSizes()) return corrupt("has a bad tensor");
  if (args.count > metadataPosition && !acceptMetadata(args.at(metadataPosition))) return false;
  if (!spend(1)) return false;
  PickleTensor* const tensor = tensors_.make();
  tensor->storage = &storage.storage();
  tensor->type = tensor->storage->type;
  if (typeIsGiven) {
    const PickleValue& type = args.at(kTypePosition);
    if (!type.is(Kind::Global) || type.global().role != PickleRole::ElementTypeObject) {
      return corrupt("has a bad tensor");
    }
    tensor->type = findElementType(type.global().type);
  }
  tensor->shape = &shape.node();
  tensor->strides = &strides.node();
  // In bytes, because a typed tensor may lie in an untyped storage.
  std::uint64_t viewBytes;
  std::uint64_t endBytes;
  if (!checkedMul(tensor->storage->viewBegin, tensor->storage->type->bytes, viewBytes) ||
      !checkedMul(tensor->storage->viewEnd, tensor->storage->type->bytes, endBytes) ||
      viewBytes % tensor->type->bytes != 0 ||
      !checkedAdd(viewBytes / tensor->type->bytes, static_cast<std::uint64_t>(offset.integer()),
                  tensor->begin)) {
    return corrupt("has a tensor outside its storage");
  }
  std::uint64_t reach;
  if (!reachOf(*tensor, reach) || reach > endBytes / tensor->type->bytes) {
    return corrupt("has a tensor outside its storage");
  }
  if (reach == 0) tensor->begin = 0;  // wherever it says that its no elements are
  return push(PickleValue(static_cast<const PickleTensor*>(tensor)));
}

// None, or notes on a tensor (get_tensor_metadata() of torch/_utils.py). Those of a lazily negated or
// conjugated tensor say that its elements are not what is stored.
bool TorchPickle::acceptMetadata(const PickleValue& metadata) {
  if (metadata.is(Kind::None)) return true;
  if (!metadata.is(Kind::Dict) || metadata.node().count > kMaxMetadataItems) {
    return reject("has a tensor with metadata that torch.save does not write");
  }
  for (const PickleItem* item = metadata.node().first; item != nullptr; item = item->next) {
    const bool isSet = !item->value.is(Kind::Boolean) || item->value.integer() != 0;
    if (!isSet || !item->key.is(Kind::Text)) continue;
    const std::string_view key = item->key.text();
    if (key == "neg" || key == "conj") {
      std::string text = "has a tensor with the ";
      text.append(key).append(" bit, which resolve_").append(key);
      return reject(text.append("() takes away before it is saved"));
    }
  }
  return true;
}

// State of a dictionary is torch's note of versions ("_metadata"); that of other objects is dropped with
// them. Types of numbers and arrays are what their state says.
bool TorchPickle::build() {
  if (!have(2)) return false;
  const PickleValue state = take();
  if (ArrayPart* const part = stack_.back().part(); part != nullptr) return setState(*part, state);
  if (stack_.back().is(Kind::Dict) || stack_.back().is(Kind::Inert)) return true;
  return corrupt("gives state to what has none");
}

}  // namespace zel::tool::prepare
