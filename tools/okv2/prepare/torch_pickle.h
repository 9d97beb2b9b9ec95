// The pickle program of an ordinary torch.save checkpoint, run without running any code.
//
// Opcodes: Lib/pickletools.py of CPython, those that its pickler writes with protocols 2 to 5 (and with
// protocol 2 under Python 2). Globals are looked up in a closed list and never imported; what they build:
// torch/_utils.py and torch/serialization.py of PyTorch. An array of numpy's becomes a tensor like any other
// when its elements are numbers that kElementTypes has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "container/bytes.h"
#include "container/status.h"
#include "okv2/prepare/element_type.h"
#include "okv2/prepare/program_bytes.h"

namespace zel::tool::prepare {

enum class PickleKind : std::uint8_t {
  Unset,  // a memo entry that nothing was put into
  None,
  Boolean,
  Integer,
  LongInteger,  // more than 64 bits: its bytes, little-endian two's complement
  Real,
  Text,
  Bytes,
  Tuple,
  List,
  Dict,
  Global,
  Storage,
  Tensor,
  Inert,  // stands for an object that weights do not need, a numpy scalar say; its content is dropped, unless
          // it is part of an array
};

struct PickleNode;
struct PickleStorage;
struct PickleTensor;
struct PickleGlobal;
struct ArrayPart;

// One value: cheap to copy. Containers are references, as in Python; they belong to the machine, and texts
// are views of the program.
class PickleValue {
 public:
  PickleValue() noexcept = default;
  explicit PickleValue(PickleKind kind, std::int64_t integer = 0) noexcept : kind_(kind), integer_(integer) {}
  explicit PickleValue(double real) noexcept : kind_(PickleKind::Real), real_(real) {}
  PickleValue(PickleKind kind, std::string_view text) noexcept
      : kind_(kind), size_(static_cast<std::uint32_t>(text.size())), text_(text.data()) {}
  PickleValue(PickleKind kind, PickleNode* node) noexcept : kind_(kind), node_(node) {}
  explicit PickleValue(const PickleGlobal* global) noexcept : kind_(PickleKind::Global), global_(global) {}
  explicit PickleValue(const PickleStorage* storage) noexcept
      : kind_(PickleKind::Storage), storage_(storage) {}
  explicit PickleValue(const PickleTensor* tensor) noexcept : kind_(PickleKind::Tensor), tensor_(tensor) {}
  explicit PickleValue(ArrayPart* part) noexcept : kind_(PickleKind::Inert), isPart_(true), part_(part) {}
  // A Text that is a string of bytes, as only Python 2 writes it.
  static PickleValue byteString(std::string_view text) noexcept {
    PickleValue value(PickleKind::Text, text);
    value.isByteString_ = true;
    return value;
  }

  [[nodiscard]] PickleKind kind() const noexcept { return kind_; }
  [[nodiscard]] bool is(PickleKind kind) const noexcept { return kind_ == kind; }
  [[nodiscard]] bool isContainer() const noexcept {
    return is(PickleKind::Tuple) || is(PickleKind::List) || is(PickleKind::Dict);
  }

  // Each only for the kinds that it names.
  [[nodiscard]] std::int64_t integer() const noexcept { return integer_; }         // Boolean, Integer
  [[nodiscard]] double real() const noexcept { return real_; }                     // Real
  [[nodiscard]] std::string_view text() const noexcept { return {text_, size_}; }  // Text, Bytes, LongInteger
  [[nodiscard]] PickleNode& node() const noexcept { return *node_; }               // Tuple, List, Dict
  [[nodiscard]] const PickleGlobal& global() const noexcept { return *global_; }   // Global
  [[nodiscard]] const PickleStorage& storage() const noexcept { return *storage_; }  // Storage
  [[nodiscard]] const PickleTensor& tensor() const noexcept { return *tensor_; }     // Tensor

  [[nodiscard]] bool isByteString() const noexcept { return isByteString_; }
  // Null for what is no part of an array.
  [[nodiscard]] ArrayPart* part() const noexcept { return isPart_ ? part_ : nullptr; }
  // Whether it is an array of which no tensor was made, for its byte order or the type of its elements.
  [[nodiscard]] bool isUnreadArray() const noexcept;

 private:
  PickleKind kind_ = PickleKind::Unset;
  bool isByteString_ = false;
  bool isPart_ = false;
  std::uint32_t size_ = 0;
  union {
    std::int64_t integer_ = 0;
    double real_;
    const char* text_;
    PickleNode* node_;
    const PickleGlobal* global_;
    const PickleStorage* storage_;
    const PickleTensor* tensor_;
    ArrayPart* part_;
  };
};

// An item of a container; of a Dict, a key and its value.
struct PickleItem {
  PickleValue key;
  PickleValue value;
  const PickleItem* next = nullptr;
};

// A Tuple, List or Dict. Repeated keys of a Dict are all kept.
struct PickleNode {
  const PickleItem* first = nullptr;
  PickleItem* last = nullptr;
  std::uint64_t count = 0;
  bool holdsTensor = false;       // among its items, not deeper
  bool holdsTorchTensor = false;  // one of them is torch's own, and no array of numpy's
  bool reachesTensor = false;     // or in containers below, as they were when they were added; or an array
                                  // of which no tensor was made

  // The caller has checked `count`. Walks from the front.
  [[nodiscard]] const PickleValue& at(std::uint64_t k) const noexcept;
  // Whether every item is an Integer of 0 and more.
  [[nodiscard]] bool holdsSizes() const noexcept;
};

// A run of elements, as a tensor refers to it.
struct PickleStorage {
  std::string_view key;  // what the file knows it by
  const ElementType* type = nullptr;
  std::uint64_t elements = 0;             // of the stored run, counted from its start
  std::uint64_t viewBegin = 0;            // where this storage begins in it, in elements
  std::uint64_t viewEnd = 0;              // and ends
  const ProgramBytes* content = nullptr;  // of an array, which has no key and no place in the file
};

// Every tensor keeps its own copy, so a shape that the memo hands out again and again must be short.
inline constexpr std::size_t kMaxTorchExtents = 8;

struct PickleTensor {
  const PickleStorage* storage = nullptr;
  const ElementType* type = nullptr;
  std::uint64_t begin = 0;              // first element in the stored run, counted in elements of `type`
  const PickleNode* shape = nullptr;    // Integers of 0 and more, at most kMaxTorchExtents
  const PickleNode* strides = nullptr;  // in elements; as many
};

// What an Inert value is on the way to an array.
struct ArrayPart {
  enum class Kind : std::uint8_t { NumberType, EncodedText, Array };
  Kind kind = Kind::Array;
  const ElementType* type = nullptr;     // of a NumberType; null for what is no number of ours
  bool isBigEndian = false;              // of a NumberType, and of an Array that is none of ours for it
  std::string_view text;                 // of an EncodedText: UTF-8
  const PickleTensor* tensor = nullptr;  // of an Array, once it is filled
};

// Hands out objects that live as long as the arena and never move.
template <class T>
class PickleArena {
 public:
  T* make() {
    if (used_ == kBlock) {
      blocks_.push_back(std::make_unique<T[]>(kBlock));
      used_ = 0;
    }
    return &blocks_.back()[used_++];
  }

 private:
  static constexpr std::size_t kBlock = 512;
  std::vector<std::unique_ptr<T[]>> blocks_;
  std::size_t used_ = kBlock;
};

// Runs programs one after the other; values of all of them live as long as the machine. Nothing recurses, and
// memory is bounded by kMaxValues, whatever a program does.
class TorchPickle {
 public:
  static constexpr std::uint64_t kMaxProgramBytes = std::uint64_t{64} << 20;
  static constexpr std::uint64_t kMaxValues = std::uint64_t{1}
                                              << 23;  // on the stack, in the memo, in containers

  // Runs the program at the start of `bytes`, up to and with its STOP; `consumed` is how long it was. The
  // bytes are borrowed for the life of the machine. Every failure begins "checkpoint: ":
  //   Corrupted    the program ends early, or its operands do not fit
  //   Unsupported  a global that is not on the list, an opcode that the pickler does not write, too many
  //   values
  Status run(std::string_view bytes, PickleValue& root, std::uint64_t& consumed);

  // Every storage that a program referred to, in its order; those of arrays are not among them.
  [[nodiscard]] const std::vector<const PickleStorage*>& storages() const noexcept { return storages_; }

 private:
  bool fail(Code code, const std::string& text);
  bool corrupt(const char* what);
  bool endsEarly();
  bool reject(const std::string& what);

  bool step(std::uint8_t opcode);

  bool spend(std::uint64_t values);
  bool push(const PickleValue& value);
  bool have(std::size_t count);  // above the last mark
  PickleValue take() noexcept;
  bool pop();
  bool popMark();
  bool duplicate();
  bool mark();

  bool pushInteger(unsigned bytes, bool isSigned);
  bool readLength(unsigned bytes, std::uint64_t& out);
  bool pushText(PickleKind kind, unsigned lengthBytes);
  bool pushByteString(unsigned lengthBytes);
  bool pushLong(unsigned lengthBytes);
  bool pushReal();
  bool pushDecimalLine();
  bool readLine(std::string_view& out);

  bool put(std::uint64_t index);
  bool putOperand(unsigned bytes);
  bool getOperand(unsigned bytes);

  bool newContainer(PickleKind kind);
  bool addItem(PickleNode& node, const PickleValue& key, const PickleValue& value);
  bool tupleOfTop(std::size_t count);
  bool markedTuple();
  bool append();
  bool appends();
  bool setItem();
  bool setItems();
  bool markedInert();

  bool global();
  bool stackGlobal();
  bool pushGlobal(std::string_view module, std::string_view name);
  bool persistentId();
  bool reduce(bool isNewObject);
  bool call(const PickleGlobal& what, const PickleNode& args);
  bool orderedDict(const PickleNode& args);
  bool rebuildTensor(const PickleNode& args, bool typeIsGiven);
  bool acceptMetadata(const PickleValue& metadata);
  bool build();

  // torch_arrays.cpp
  bool pushPart(const ArrayPart& part);
  bool newNumberType(const PickleNode& args);
  bool newArray(const PickleNode& args);
  bool encode(const PickleNode& args);
  bool arrayFromBuffer(const PickleNode& args);
  bool setState(ArrayPart& part, const PickleValue& state);
  bool fill(ArrayPart& array, const PickleValue& state);
  const PickleTensor* makeArray(const PickleValue& shape, const ArrayPart& type, bool firstIsFastest,
                                const PickleValue& raw);
  bool measureContent(const PickleStorage& storage);

  ByteReader in_{std::string_view()};
  std::vector<PickleValue> stack_;
  std::vector<std::size_t> marks_;  // positions in stack_, ascending
  std::vector<PickleValue> memo_;
  PickleArena<PickleItem> items_;
  PickleArena<PickleNode> nodes_;
  PickleArena<PickleStorage> storageArena_;
  PickleArena<PickleTensor> tensors_;
  PickleArena<ArrayPart> parts_;
  PickleArena<ProgramBytes> contents_;
  std::vector<const PickleStorage*> storages_;
  std::uint64_t values_ = 0;
  std::uint64_t arrayBytes_ = 0;  // of all arrays of this program
  bool cut_ = false;              // the bytes were more than a program may have
  Status failure_;
};

}  // namespace zel::tool::prepare
