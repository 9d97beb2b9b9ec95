// Writes programs for the pickle machine of docs/pytorch-dialect.md, opcode by opcode, and whole state dicts.
#pragma once

#include <bit>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zel::test {

// The opcodes that the machine accepts, under the names of Python's pickletools; TUPLE_T alone has no name
// there: it is the byte 'T' (pickletools: BINSTRING), which builds a tuple here.
enum class Op : std::uint8_t {
  MARK = 0x28,
  EMPTY_TUPLE = 0x29,
  STOP = 0x2e,
  POP = 0x30,
  DUP = 0x32,
  BINBYTES = 0x42,
  BINFLOAT = 0x47,
  BININT = 0x4a,
  BININT1 = 0x4b,
  LONG = 0x4c,
  BININT2 = 0x4d,
  NONE = 0x4e,
  PERSID = 0x50,     // known, always refused
  BINPERSID = 0x51,  // known, always refused
  REDUCE = 0x52,
  TUPLE_T = 0x54,
  BINUNICODE = 0x58,
  EMPTY_LIST = 0x5d,
  APPEND = 0x61,
  BUILD = 0x62,
  GLOBAL = 0x63,
  DICT = 0x64,
  APPENDS = 0x65,
  BINGET = 0x68,
  LONG_BINGET = 0x6a,
  LIST = 0x6c,
  SETITEM = 0x73,
  EMPTY_DICT = 0x7d,
  PROTO = 0x80,
  NEWOBJ = 0x81,
  TUPLE1 = 0x85,
  TUPLE2 = 0x86,
  TUPLE3 = 0x87,
  NEWTRUE = 0x88,
  NEWFALSE = 0x89,
  LONG1 = 0x8a,
  LONG4 = 0x8b,
  SHORT_BINUNICODE = 0x8c,
  BINUNICODE8 = 0x8d,
  BINBYTES8 = 0x8e,
  STACK_GLOBAL = 0x93,
  MEMOIZE = 0x94,
  FRAME = 0x95,
};

struct PickleOpcode {
  Op op;
  std::string_view name;
};

inline constexpr PickleOpcode kPickleOpcodes[] = {
    {Op::MARK, "MARK"},
    {Op::EMPTY_TUPLE, "EMPTY_TUPLE"},
    {Op::STOP, "STOP"},
    {Op::POP, "POP"},
    {Op::DUP, "DUP"},
    {Op::BINBYTES, "BINBYTES"},
    {Op::BINFLOAT, "BINFLOAT"},
    {Op::BININT, "BININT"},
    {Op::BININT1, "BININT1"},
    {Op::LONG, "LONG"},
    {Op::BININT2, "BININT2"},
    {Op::NONE, "NONE"},
    {Op::PERSID, "PERSID"},
    {Op::BINPERSID, "BINPERSID"},
    {Op::REDUCE, "REDUCE"},
    {Op::TUPLE_T, "TUPLE_T"},
    {Op::BINUNICODE, "BINUNICODE"},
    {Op::EMPTY_LIST, "EMPTY_LIST"},
    {Op::APPEND, "APPEND"},
    {Op::BUILD, "BUILD"},
    {Op::GLOBAL, "GLOBAL"},
    {Op::DICT, "DICT"},
    {Op::APPENDS, "APPENDS"},
    {Op::BINGET, "BINGET"},
    {Op::LONG_BINGET, "LONG_BINGET"},
    {Op::LIST, "LIST"},
    {Op::SETITEM, "SETITEM"},
    {Op::EMPTY_DICT, "EMPTY_DICT"},
    {Op::PROTO, "PROTO"},
    {Op::NEWOBJ, "NEWOBJ"},
    {Op::TUPLE1, "TUPLE1"},
    {Op::TUPLE2, "TUPLE2"},
    {Op::TUPLE3, "TUPLE3"},
    {Op::NEWTRUE, "NEWTRUE"},
    {Op::NEWFALSE, "NEWFALSE"},
    {Op::LONG1, "LONG1"},
    {Op::LONG4, "LONG4"},
    {Op::SHORT_BINUNICODE, "SHORT_BINUNICODE"},
    {Op::BINUNICODE8, "BINUNICODE8"},
    {Op::BINBYTES8, "BINBYTES8"},
    {Op::STACK_GLOBAL, "STACK_GLOBAL"},
    {Op::MEMOIZE, "MEMOIZE"},
    {Op::FRAME, "FRAME"},
};

inline bool isPickleOpcode(unsigned byte) {
  for (const PickleOpcode& row : kPickleOpcodes) {
    if (static_cast<unsigned>(row.op) == byte) return true;
  }
  return false;
}

// One tensor of a state dict.
struct PickleTensor {
  std::string name;
  std::vector<std::uint64_t> shape;
  std::string storage;  // entry name
  std::string storageClass = "FloatStorage";
  std::uint64_t storageOffset = 0;  // in elements
};

class PickleBuilder {
 public:
  // ---- the stream

  PickleBuilder& raw(std::string_view bytes) {
    stream_ += bytes;
    return *this;
  }
  PickleBuilder& op(Op opcode, std::string_view operand = {}) {
    stream_ += char(opcode);
    return raw(operand);
  }
  PickleBuilder& ops(std::initializer_list<Op> opcodes) {
    for (const Op opcode : opcodes)
      op(opcode);
    return *this;
  }
  PickleBuilder& repeat(std::size_t times, std::string_view bytes) {
    stream_.reserve(stream_.size() + times * bytes.size());
    for (std::size_t k = 0; k < times; ++k)
      stream_ += bytes;
    return *this;
  }
  [[nodiscard]] const std::string& bytes() const { return stream_; }
  // The stream with a STOP at its end.
  [[nodiscard]] std::string stop() const { return stream_ + char(Op::STOP); }

  // ---- values, each by the named opcode

  PickleBuilder& binint(std::int32_t value) { return op(Op::BININT, little(std::uint32_t(value), 4)); }
  PickleBuilder& binint1(std::uint8_t value) { return op(Op::BININT1, little(value, 1)); }
  PickleBuilder& binint2(std::uint16_t value) { return op(Op::BININT2, little(value, 2)); }
  PickleBuilder& long1(std::int8_t value) { return op(Op::LONG1, little(std::uint8_t(value), 1)); }
  PickleBuilder& long4(std::int32_t value) { return op(Op::LONG4, little(std::uint32_t(value), 4)); }
  // Any 64-bit value: its unsigned decimal digits.
  PickleBuilder& longText(std::uint64_t value) { return op(Op::LONG, std::to_string(value) + "L"); }
  PickleBuilder& binfloat(double value) {
    std::string big = little(std::bit_cast<std::uint64_t>(value), 8);
    return op(Op::BINFLOAT, std::string(big.rbegin(), big.rend()));
  }
  PickleBuilder& binunicode(std::string_view text) { return counted(Op::BINUNICODE, 4, text); }
  PickleBuilder& shortBinunicode(std::string_view text) { return counted(Op::SHORT_BINUNICODE, 1, text); }
  PickleBuilder& binunicode8(std::string_view text) { return counted(Op::BINUNICODE8, 8, text); }
  PickleBuilder& binbytes(std::string_view bytes) { return counted(Op::BINBYTES, 4, bytes); }
  PickleBuilder& binbytes8(std::string_view bytes) { return counted(Op::BINBYTES8, 1, bytes); }
  PickleBuilder& global(std::string_view module, std::string_view name) {
    return op(Op::GLOBAL, std::string(module) + "\n" + std::string(name) + "\n");
  }
  PickleBuilder& binget(std::uint8_t index) { return op(Op::BINGET, little(index, 1)); }
  PickleBuilder& longBinget(std::uint32_t index) { return op(Op::LONG_BINGET, little(index, 4)); }
  PickleBuilder& proto(std::uint8_t version) { return op(Op::PROTO, little(version, 1)); }
  PickleBuilder& frame(std::uint64_t length) { return op(Op::FRAME, little(length, 8)); }

  // ---- what the values of a checkpoint are made of

  PickleBuilder& storage(std::string_view storageClass, std::string_view key, std::int32_t elements = 0) {
    return global("torch", storageClass).binunicode(key).binint(elements).ops({Op::TUPLE2, Op::NEWOBJ});
  }
  // A tensor whose stride and further arguments are absent but for one None.
  PickleBuilder& tensor(const PickleTensor& tensor) {
    global("torch._utils", "_rebuild_tensor_v2").op(Op::MARK);
    storage(tensor.storageClass, tensor.storage).longText(tensor.storageOffset).op(Op::MARK);
    for (const std::uint64_t extent : tensor.shape)
      longText(extent);
    return ops({Op::TUPLE_T, Op::NONE, Op::TUPLE_T, Op::REDUCE});
  }

 private:
  static std::string little(std::uint64_t value, unsigned width) {
    std::string out;
    for (unsigned k = 0; k < width; ++k)
      out += char(value >> (8 * k));
    return out;
  }
  PickleBuilder& counted(Op opcode, unsigned lengthWidth, std::string_view content) {
    return op(opcode, little(content.size(), lengthWidth)).raw(content);
  }

  std::string stream_;
};

// The program of a whole checkpoint: a dict of the tensors, in the given order.
inline std::string stateDict(const std::vector<PickleTensor>& tensors) {
  PickleBuilder program;
  program.proto(2).op(Op::EMPTY_DICT);
  for (const PickleTensor& tensor : tensors)
    program.binunicode(tensor.name).tensor(tensor).op(Op::SETITEM);
  return program.stop();
}

}  // namespace zel::test
