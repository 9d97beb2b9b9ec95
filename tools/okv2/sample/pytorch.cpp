#include <fmt/format.h>

#include <array>
#include <string_view>

#include "okv2/sample/output.h"
#include "okv2/sample/weights.h"

namespace zel::sample {
namespace {

template <typename T>
void put(std::string& out, T value) {
  for (std::size_t k = 0; k < sizeof(T); ++k) {
    out += static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * k) & 0xFF);
  }
}

// ---- the pickle program; opcode names as in Python's pickletools

void putText(std::string& out, std::string_view text) {
  out += 'X';  // BINUNICODE
  put(out, static_cast<std::uint32_t>(text.size()));
  out += text;
}

void putInt(std::string& out, std::uint64_t value) {
  out += 'J';  // BININT; the file's size limit keeps every value below 2^31
  put(out, static_cast<std::uint32_t>(value));
}

void putGlobal(std::string& out, std::string_view module, std::string_view name) {
  out += fmt::format("c{}\n{}\n", module, name);
}

// At most three items, which is what samples have.
void putTuple(std::string& out, const std::vector<std::uint64_t>& values) {
  for (const std::uint64_t value : values)
    putInt(out, value);
  out += values.empty() ? ')' : static_cast<char>(0x84 + values.size());  // TUPLE1..TUPLE3
}

std::vector<std::uint64_t> stridesOf(const std::vector<std::uint64_t>& shape) {
  std::vector<std::uint64_t> strides(shape.size());
  std::uint64_t stride = 1;
  for (std::size_t k = shape.size(); k-- > 0; stride *= shape[k])
    strides[k] = stride;
  return strides;
}

const char* storageClass(DType dtype) {
  return dtype == DType::F32 ? "FloatStorage" : dtype == DType::F16 ? "HalfStorage" : "BFloat16Storage";
}

void putStorage(std::string& out, const PlannedTensor& tensor, std::string_view key) {
  putGlobal(out, "torch", storageClass(tensor.dtype));
  putText(out, key);
  putInt(out, tensor.bytes / kBlockGeometry[static_cast<std::size_t>(tensor.dtype)].blockBytes);
  out += "\x86\x81";  // TUPLE2, NEWOBJ
}

void putTensor(std::string& out, const PlannedTensor& tensor, std::string_view key) {
  putGlobal(out, "torch._utils", "_rebuild_tensor_v2");
  out += '(';  // MARK
  putStorage(out, tensor, key);
  putInt(out, 0);  // offset in the storage
  putTuple(out, tensor.shape);
  putTuple(out, stridesOf(tensor.shape));
  out += '\x89';  // NEWFALSE: requires no gradient
  out += "lR";    // LIST, REDUCE: the dialect has no TUPLE, its lists serve
}

std::string storageKey(std::size_t tensor) { return std::to_string(tensor); }

std::string pickleOf(const Plan& plan) {
  std::string out("\x80\x02(", 3);  // PROTO 2, MARK
  for (std::size_t k = 0; k < plan.tensors.size(); ++k) {
    putText(out, plan.tensors[k].name);
    putTensor(out, plan.tensors[k], storageKey(k));
  }
  return out + "d.";  // DICT, STOP
}

// ---- the archive (APPNOTE.TXT): stored entries without folders

constexpr std::array<std::uint32_t, 256> kCrcTable = [] {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t n = 0; n < 256; ++n) {
    std::uint32_t crc = n;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
    table[n] = crc;
  }
  return table;
}();

class Crc32 {
 public:
  void add(std::string_view bytes) {
    for (const char byte : bytes)
      crc_ = crc_ >> 8 ^ kCrcTable[(crc_ ^ static_cast<unsigned char>(byte)) & 0xFF];
  }
  [[nodiscard]] std::uint32_t value() const { return ~crc_; }

 private:
  std::uint32_t crc_ = 0xFFFFFFFF;
};

constexpr std::uint64_t kLocalHeaderBytes = 30, kLocalCrcOfs = 14, kCentralHeaderBytes = 46, kEndBytes = 22;
constexpr std::uint16_t kVersionNeeded = 10, kVersionMadeBy = 20, kDosDate1980 = 0x21;

// The fields that local and central headers share, from "version needed" to "extra field length".
void putCommonFields(std::string& out, std::string_view name, std::uint32_t crc, std::uint32_t size) {
  put(out, kVersionNeeded);
  put(out, std::uint16_t{0});  // flags
  put(out, std::uint16_t{0});  // method: stored
  put(out, std::uint16_t{0});  // time
  put(out, kDosDate1980);
  put(out, crc);
  put(out, size);
  put(out, size);
  put(out, static_cast<std::uint16_t>(name.size()));
  put(out, std::uint16_t{0});  // extra field length
}

class ZipFile {
 public:
  explicit ZipFile(const std::string& path) : file_(path) {}

  void begin(std::string_view name, std::uint64_t size) {
    name_ = name;
    localOffset_ = file_.size();
    crc_ = Crc32();
    size_ = static_cast<std::uint32_t>(size);
    std::string header = "PK\x03\x04";
    putCommonFields(header, name, 0, size_);
    file_.write(header + name_);
  }
  void data(std::string_view bytes) {
    crc_.add(bytes);
    file_.write(bytes);
  }
  // The checksum is known only now: it goes into the local header, which precedes the data.
  void end() {
    std::string crc;
    put(crc, crc_.value());
    file_.patch(localOffset_ + kLocalCrcOfs, crc);
    directory_ += "PK\x01\x02";
    put(directory_, kVersionMadeBy);
    putCommonFields(directory_, name_, crc_.value(), size_);
    put(directory_, std::uint16_t{0});  // comment length
    put(directory_, std::uint16_t{0});  // disk
    put(directory_, std::uint16_t{0});  // internal attributes
    put(directory_, std::uint32_t{0});  // external attributes
    put(directory_, static_cast<std::uint32_t>(localOffset_));
    directory_ += name_;
    ++entries_;
  }
  void add(std::string_view name, std::string_view bytes) {
    begin(name, bytes.size());
    data(bytes);
    end();
  }
  bool finish(std::string& error) {
    std::string tail = "PK\x05\x06";
    put(tail, std::uint16_t{0});  // this disk
    put(tail, std::uint16_t{0});  // disk of the directory
    put(tail, entries_);
    put(tail, entries_);
    put(tail, static_cast<std::uint32_t>(directory_.size()));
    put(tail, static_cast<std::uint32_t>(file_.size()));
    put(tail, std::uint16_t{0});  // comment length
    file_.write(directory_ + tail);
    return file_.finish(error);
  }

 private:
  OutputFile file_;
  std::string name_;
  std::uint64_t localOffset_ = 0;
  std::uint32_t size_ = 0;
  Crc32 crc_;
  std::string directory_;
  std::uint16_t entries_ = 0;
};

constexpr std::string_view kPickleName = "data.pkl", kVersionName = "version", kVersionText = "3\n";

}  // namespace

std::uint64_t pytorchFileBytes(const Plan& plan) {
  const auto entryBytes = [](std::size_t nameBytes, std::uint64_t size) {
    return kLocalHeaderBytes + nameBytes + size + kCentralHeaderBytes + nameBytes;
  };
  std::uint64_t sum = kEndBytes + entryBytes(kPickleName.size(), pickleOf(plan).size()) +
                      entryBytes(kVersionName.size(), kVersionText.size());
  for (std::size_t k = 0; k < plan.tensors.size(); ++k) {
    sum += entryBytes(storageKey(k).size(), plan.tensors[k].bytes);
  }
  return sum;
}

bool writePyTorch(const std::string& directory, const Plan& plan, std::string& error) {
  ZipFile zip(directory + "/pytorch_model.bin");
  zip.add(kPickleName, pickleOf(plan));
  zip.add(kVersionName, kVersionText);
  for (std::size_t k = 0; k < plan.tensors.size(); ++k) {
    zip.begin(storageKey(k), plan.tensors[k].bytes);
    Filler filler(plan.tensors[k]);
    for (std::string_view piece; filler.next(piece);)
      zip.data(piece);
    zip.end();
  }
  return zip.finish(error);
}

}  // namespace zel::sample
