#include "okv2/prepare/safetensors_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "container/descriptor.h"
#include "okv2/exit_codes.h"
#include "okv2/pending_file.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;
constexpr std::uint64_t kKernelPieceBytes = std::uint64_t{256} << 20;  // between two looks at a signal
constexpr std::size_t kAlignment = 8;  // of the data region; the library aligns it so too

[[noreturn]] void cannotWrite(const std::string& path, const std::string& reason) {
  throw Refused(kExitIoError, "", path + ": cannot be written: " + reason,
                "Make room, or choose another OUT.");
}

[[noreturn]] void cannotRead(const std::string& path, const std::string& reason) {
  throw Refused(kExitIoError, "weights.partial", path + ": cannot be read: " + reason,
                "Leave the directory alone while it is prepared.");
}

// JSON text with everything escaped that RFC 8259 wants escaped.
std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(static_cast<unsigned char>(c)));
    } else {
      out += c;
    }
  }
  return out + '"';
}

class ShardFile {
 public:
  ShardFile(const std::string& path, int descriptor) : path_(path), file_(descriptor) {}

  void write(const char* data, std::size_t size) {
    while (size > 0) {
      const ssize_t n = ::write(file_.get(), data, size);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) cannotWrite(path_, std::strerror(errno));
      data += n;
      size -= static_cast<std::size_t>(n);
    }
  }

  // `size` bytes of `from`, without bringing them into this process.
  void copy(const DataFile& from, std::uint64_t offset, std::uint64_t size) {
    while (size > 0) {
      const ssize_t n = copyPiece(from.descriptor, offset, std::min(size, kKernelPieceBytes));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) cannotWrite(path_, std::strerror(errno));
      if (n == 0) cannotRead(from.path, "it is shorter than it was");
      offset += static_cast<std::uint64_t>(n);
      size -= static_cast<std::uint64_t>(n);
    }
  }

  void close() {
    if (!file_.close()) cannotWrite(path_, std::strerror(errno));
  }

 private:
  ssize_t copyPiece(int from, std::uint64_t offset, std::uint64_t size) {
    auto at = static_cast<off_t>(offset);
    if (useCopyFileRange_) {
      const ssize_t n = ::copy_file_range(from, &at, file_.get(), nullptr, size, 0);
      if (n >= 0 || errno == EINTR || errno == ENOSPC || errno == EIO || errno == EFBIG) return n;
      useCopyFileRange_ = false;  // the two file systems cannot do it together
      at = static_cast<off_t>(offset);
    }
    return ::sendfile(file_.get(), from, &at, size);
  }

  std::string path_;
  Descriptor file_;
  bool useCopyFileRange_ = true;
};

void writeTensor(const OutputTensor& tensor, std::vector<char>& piece, ShardFile& file) {
  if (tensor.strides.empty() && !tensor.cast) {
    file.copy(*tensor.data, tensor.offset, tensor.bytes);
    return;
  }
  ElementReader reader(tensor);
  for (std::size_t n; (n = reader.next(piece.data(), piece.size())) > 0;) {
    if (tensor.cast) {
      castToFloat32(piece.data(), n / sizeof(double), piece.data());
      n = n / sizeof(double) * sizeof(float);
    }
    file.write(piece.data(), n);
  }
}

}  // namespace

std::string safetensorsHeader(const std::vector<OutputTensor>& tensors) {
  std::string json = R"({"__metadata__":{"format":"pt"})";
  std::uint64_t offset = 0;
  for (const OutputTensor& tensor : tensors) {
    json += fmt::format(",{}:{{\"dtype\":{},\"shape\":[{}],\"data_offsets\":[{},{}]}}", quoted(tensor.name),
                        quoted(tensor.type), fmt::join(tensor.shape, ","), offset, offset + tensor.bytes);
    offset += tensor.bytes;
  }
  json += '}';
  json.resize((json.size() + kAlignment - 1) / kAlignment * kAlignment, ' ');
  std::string out;
  for (unsigned k = 0; k < 8; ++k)
    out += static_cast<char>(static_cast<std::uint64_t>(json.size()) >> (8 * k));
  return out + json;
}

void writeSafetensors(const std::string& path, const std::vector<OutputTensor>& tensors) {
  PendingFile pending;
  std::string reason;
  if (!pending.create(path, reason)) cannotWrite(path, reason);
  ShardFile file(path, ::open(pending.path().c_str(), O_WRONLY | O_CLOEXEC));
  const std::string header = safetensorsHeader(tensors);
  file.write(header.data(), header.size());
  std::vector<char> piece(kPieceBytes);
  for (const OutputTensor& tensor : tensors)
    writeTensor(tensor, piece, file);
  file.close();
  if (!pending.commit(false, reason)) cannotWrite(path, reason);
}

}  // namespace zel::tool::prepare
