// Writes checkpoints as torch.save does (torch/serialization.py of PyTorch), from the opcodes that Python's
// pickletools documents: valid ones by default, and able to lie about one field at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/safetensors_builder.h"
#include "support/zip_builder.h"

namespace zel::test {

// The opcodes of pickle protocols 2 to 5 that the builder writes, by the names of pickletools.
namespace pickle_op {
inline constexpr char kMark = '(', kStop = '.', kPop = '0', kPopMark = '1', kDup = '2', kBinBytes = 'B',
                      kShortBinBytes = 'C', kBinFloat = 'G', kInt = 'I', kBinInt = 'J', kBinInt1 = 'K',
                      kBinInt2 = 'M', kNone = 'N', kBinPersId = 'Q', kReduce = 'R', kBinString = 'T',
                      kShortBinString = 'U', kBinUnicode = 'X', kEmptyList = ']', kAppend = 'a', kBuild = 'b',
                      kGlobal = 'c', kAppends = 'e', kBinGet = 'h', kLongBinGet = 'j', kBinPut = 'q',
                      kLongBinPut = 'r', kSetItem = 's', kTuple = 't', kEmptyTuple = ')', kSetItems = 'u',
                      kEmptyDict = '}', kProto = '\x80', kNewObj = '\x81', kTuple1 = '\x85', kTuple2 = '\x86',
                      kTuple3 = '\x87', kNewTrue = '\x88', kNewFalse = '\x89', kLong1 = '\x8a',
                      kLong4 = '\x8b', kShortBinUnicode = '\x8c', kBinUnicode8 = '\x8d', kBinBytes8 = '\x8e',
                      kEmptySet = '\x8f', kAddItems = '\x90', kFrozenSet = '\x91', kStackGlobal = '\x93',
                      kMemoize = '\x94', kFrame = '\x95', kByteArray8 = '\x96';
}  // namespace pickle_op

inline std::string littleEndian(std::uint64_t value, unsigned width) {
  std::string out;
  for (unsigned k = 0; k < width; ++k)
    out += char(static_cast<unsigned char>(value >> (8 * k)));
  return out;
}

// The elements of a storage.
template <class T>
std::string bytesOf(const std::vector<T>& values) {
  std::string out(values.size() * sizeof(T), '\0');
  if (!values.empty()) std::memcpy(out.data(), values.data(), out.size());
  return out;
}

struct SavedTensor {
  std::string name;
  std::vector<std::uint64_t> shape;
  std::vector<std::uint64_t> strides;
  std::string key = "0";
  std::uint64_t elements = 0;  // of the storage
  std::string storageClass = "FloatStorage";
  std::uint64_t offset = 0;  // in elements
};

// `bytes` as the UTF-8 of the code points of their numbers.
inline std::string latin1Text(std::string_view bytes) {
  std::string out;
  for (const char byte : bytes) {
    const auto code = static_cast<unsigned char>(byte);
    if (code < 0x80) {
      out += byte;
    } else {
      out += code < 0xc0 ? '\xc2' : '\xc3';
      out += char(0x80 | (code & 0x3f));
    }
  }
  return out;
}

// An array of numpy's, as it is reduced for protocol 2.
struct SavedArray {
  std::vector<std::uint64_t> shape;
  std::string bytes;
  std::string code = "f4";
  bool firstIsFastest = false;
  std::string byteOrder = "<";
};

// A pickle program, opcode by opcode.
class SavedPickle {
 public:
  explicit SavedPickle(int protocol = 2) { op(pickle_op::kProto, littleEndian(protocol, 1)); }
  // Without the opcode PROTO.
  static SavedPickle bare() {
    SavedPickle out;
    out.stream_.clear();
    return out;
  }

  SavedPickle& op(char opcode, std::string_view operand = {}) {
    stream_ += opcode;
    stream_ += operand;
    return *this;
  }
  SavedPickle& raw(std::string_view bytes) {
    stream_ += bytes;
    return *this;
  }
  SavedPickle& repeat(std::size_t times, std::string_view bytes) {
    stream_.reserve(stream_.size() + times * bytes.size());
    for (std::size_t k = 0; k < times; ++k)
      stream_ += bytes;
    return *this;
  }
  SavedPickle& text(std::string_view text) {
    return op(pickle_op::kBinUnicode, littleEndian(text.size(), 4)).raw(text);
  }
  // 64 bits, as a pickler writes what exceeds 32.
  SavedPickle& number(std::uint64_t value) {
    return op(pickle_op::kLong1, littleEndian(8, 1)).raw(littleEndian(value, 8));
  }
  SavedPickle& global(std::string_view module, std::string_view name) {
    return op(pickle_op::kGlobal).raw(module).raw("\n").raw(name).raw("\n");
  }
  SavedPickle& tuple(const std::vector<std::uint64_t>& values) {
    op(pickle_op::kMark);
    for (const std::uint64_t value : values)
      number(value);
    return op(pickle_op::kTuple);
  }
  SavedPickle& storage(std::string_view storageClass, std::string_view key, std::uint64_t elements,
                       bool legacy = false) {
    op(pickle_op::kMark).text("storage").global("torch", storageClass).text(key).text("cpu").number(elements);
    if (legacy) op(pickle_op::kNone);
    return op(pickle_op::kTuple).op(pickle_op::kBinPersId);
  }
  SavedPickle& orderedDict() {
    return global("collections", "OrderedDict").op(pickle_op::kEmptyTuple).op(pickle_op::kReduce);
  }
  SavedPickle& tensor(const SavedTensor& tensor, bool legacy = false) {
    global("torch._utils", "_rebuild_tensor_v2").op(pickle_op::kMark);
    storage(tensor.storageClass, tensor.key, tensor.elements, legacy).number(tensor.offset);
    tuple(tensor.shape).tuple(tensor.strides);
    return op(pickle_op::kNewFalse).orderedDict().op(pickle_op::kTuple).op(pickle_op::kReduce);
  }
  SavedPickle& stateDict(const std::vector<SavedTensor>& tensors, bool legacy = false) {
    orderedDict().op(pickle_op::kMark);
    for (const SavedTensor& row : tensors)
      text(row.name).tensor(row, legacy);
    return op(pickle_op::kSetItems);
  }

  SavedPickle& numberType(std::string_view code, std::string_view byteOrder = "<") {
    global("numpy", "dtype").text(code).op(pickle_op::kNewFalse).op(pickle_op::kNewTrue);
    op(pickle_op::kTuple3).op(pickle_op::kReduce).op(pickle_op::kMark).op(pickle_op::kBinInt1, "\3");
    text(byteOrder).repeat(3, std::string(1, pickle_op::kNone)).repeat(2, "J\xff\xff\xff\xff");
    op(pickle_op::kBinInt1, std::string(1, '\0')).op(pickle_op::kTuple);
    return op(pickle_op::kBuild);
  }
  SavedPickle& latin1(std::string_view utf8) {
    global("_codecs", "encode").text(utf8).text("latin1");
    return op(pickle_op::kTuple2).op(pickle_op::kReduce);
  }
  // An array that nothing has filled yet.
  SavedPickle& unfilledArray() {
    global("numpy.core.multiarray", "_reconstruct").global("numpy", "ndarray").tuple({0}).latin1("b");
    return op(pickle_op::kTuple3).op(pickle_op::kReduce);
  }
  // What fills it; `type` and `raw` are opcodes that push the type and the bytes.
  SavedPickle& arrayState(const std::vector<std::uint64_t>& shape, const SavedPickle& type,
                          bool firstIsFastest, const SavedPickle& raw) {
    op(pickle_op::kMark).op(pickle_op::kBinInt1, "\1").tuple(shape).raw(type.bytes());
    op(firstIsFastest ? pickle_op::kNewTrue : pickle_op::kNewFalse).raw(raw.bytes());
    return op(pickle_op::kTuple).op(pickle_op::kBuild);
  }
  SavedPickle& array(const SavedArray& array) {
    return unfilledArray().arrayState(array.shape, bare().numberType(array.code, array.byteOrder),
                                      array.firstIsFastest, bare().latin1(latin1Text(array.bytes)));
  }

  [[nodiscard]] const std::string& bytes() const { return stream_; }
  [[nodiscard]] std::string stop() const { return stream_ + pickle_op::kStop; }

 private:
  std::string stream_;
};

// A dictionary without the opcode PROTO; keys and values are opcodes that push them.
inline SavedPickle savedDict(const std::vector<std::pair<SavedPickle, SavedPickle>>& items) {
  SavedPickle out = SavedPickle::bare().op(pickle_op::kEmptyDict).op(pickle_op::kMark);
  for (const auto& [key, value] : items)
    out.raw(key.bytes()).raw(value.bytes());
  return out.op(pickle_op::kSetItems);
}
inline SavedPickle bare() { return SavedPickle::bare(); }
inline SavedPickle savedText(std::string_view text) { return SavedPickle::bare().text(text); }

using SavedStorages = std::vector<std::pair<std::string, std::string>>;  // key and bytes

// `data` as a deflate stream (RFC 1951) of stored blocks.
inline std::string deflateStored(std::string_view data) {
  constexpr std::size_t kBlock = 65535;
  std::string out;
  do {
    const std::string_view block = data.substr(0, kBlock);
    data.remove_prefix(block.size());
    out += data.empty() ? '\1' : '\0';
    out += littleEndian(block.size(), 2) + littleEndian(~block.size(), 2);
    out += block;
  } while (!data.empty());
  return out;
}

inline ZipBuilder& addDeflated(ZipBuilder& zip, const std::string& name, const std::string& data) {
  zip.add(name, deflateStored(data));
  zip.lieLocal(zip_local::kMethod, 8).lieCentral(zip_central::kMethod, 8);
  zip.lieLocal(zip_local::kUncompressedSize, data.size());
  zip.lieCentral(zip_central::kUncompressedSize, data.size());
  return zip.lieLocal(zip_local::kCrc32, zipCrc32(data)).lieCentral(zip_central::kCrc32, zipCrc32(data));
}

// The zip form.
inline ZipBuilder savedZip(const std::string& program, const SavedStorages& storages,
                           const std::string& folder = "archive", bool deflated = false) {
  ZipBuilder zip;
  const auto add = [&](const std::string& name, const std::string& data) {
    deflated ? addDeflated(zip, folder + "/" + name, data) : zip.add(folder + "/" + name, data);
  };
  add("data.pkl", program);
  add("byteorder", "little");
  for (const auto& [key, bytes] : storages)
    add("data/" + key, bytes);
  add("version", "3\n");
  return zip;
}

inline std::string legacyMagic() {
  return SavedPickle().op(pickle_op::kLong1, "\x0a").raw("\x6c\xfc\x9c\x46\xf9\x20\x6a\xa8\x50\x19").stop();
}
inline std::string legacyProtocol(std::uint16_t version = 1001) {
  return SavedPickle().op(pickle_op::kBinInt2, littleEndian(version, 2)).stop();
}
inline std::string legacySystem(bool littleEndianBytes = true) {
  return SavedPickle()
      .op(pickle_op::kEmptyDict)
      .op(pickle_op::kMark)
      .text("protocol_version")
      .number(1001)
      .text("little_endian")
      .op(littleEndianBytes ? pickle_op::kNewTrue : pickle_op::kNewFalse)
      .op(pickle_op::kSetItems)
      .stop();
}
inline std::string legacyKeys(const std::vector<std::string>& keys) {
  SavedPickle pickle;
  pickle.op(pickle_op::kEmptyList).op(pickle_op::kMark);
  for (const std::string& key : keys)
    pickle.text(key);
  return pickle.op(pickle_op::kAppends).stop();
}

struct LegacyStorage {
  std::string key;
  std::uint64_t elements;
  std::string bytes;
};

// The form before zip archives.
inline std::string savedLegacy(const std::string& program, const std::vector<LegacyStorage>& storages) {
  std::vector<std::string> keys;
  for (const LegacyStorage& storage : storages)
    keys.push_back(storage.key);
  std::string out = legacyMagic() + legacyProtocol() + legacySystem() + program + legacyKeys(keys);
  for (const LegacyStorage& storage : storages)
    out += littleEndian(storage.elements, 8) + storage.bytes;
  return out;
}

}  // namespace zel::test
