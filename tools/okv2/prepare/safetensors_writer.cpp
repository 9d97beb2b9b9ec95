#include "okv2/prepare/safetensors_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "container/descriptor.h"
#include "container/page_advice.h"
#include "okv2/exit_codes.h"
#include "okv2/pending_file.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/safetensors_header.h"
#include "okv2/prepare/source_guard.h"

namespace zel::tool::prepare {
namespace {

constexpr std::size_t kAlignment = 8;  // of the data region; the library aligns it so too

[[noreturn]] void cannotWrite(const std::string& path, const std::string& reason) {
  throw Refused(kExitIoError, "", path + ": cannot be written: " + reason,
                "Make room, or choose another OUT.");
}

// JSON text with everything escaped that RFC 8259 wants escaped.
std::string jsonText(std::string_view text) {
  std::string out = "\"";
  out.reserve(text.size() + 2);
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

  // `size` bytes of `from`: the kernel takes them from the mapping, piece by piece while they are in the
  // processor's cache. That is faster than copy_file_range(), and a file that shrinks is a failed write.
  void copy(const DataFile& from, std::uint64_t offset, std::uint64_t size) {
    if (offset > from.bytes.size() || size > from.bytes.size() - offset)
      refuseUnreadable(from.path, kShorter);
    for (std::uint64_t done = 0; done < size;) {
      const std::size_t n = std::min<std::uint64_t>(kPieceBytes, size - done);
      const char* const piece = from.bytes.data() + offset + done;
      populatePages(piece, n);
      writePiece(from, piece, n);
      releasePages(piece, n);
      done += n;
    }
  }

  void close() {
    if (!file_.close()) cannotWrite(path_, std::strerror(errno));
  }

 private:
  void writePiece(const DataFile& from, const char* data, std::size_t size) {
    while (size > 0) {
      const ssize_t n = ::write(file_.get(), data, size);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EFAULT) refuseUnreadable(from.path, kShorter);
      if (n <= 0) cannotWrite(path_, std::strerror(errno));
      data += n;
      size -= static_cast<std::size_t>(n);
    }
  }

  std::string path_;
  Descriptor file_;
};

void writeElements(const OutputTensor& tensor, ShardFile& file) {
  ConvertedBytes source(tensor);
  std::string_view piece;
  do {
    readGuarded(*tensor.data, [&] { piece = source.next(); });
    file.write(piece.data(), piece.size());
  } while (!piece.empty());
}

void writeTensor(const OutputTensor& tensor, ShardFile& file) {
  if (isWrittenAsItLies(tensor)) {
    file.copy(*tensor.data, tensor.offset, tensor.bytes);
  } else {
    writeElements(tensor, file);
  }
  refuseShorter(*tensor.data);
}

}  // namespace

std::string safetensorsHeader(const std::vector<OutputTensor>& tensors) {
  std::string json = R"({"__metadata__":{"format":"pt"})";
  std::uint64_t offset = 0;
  for (const OutputTensor& tensor : tensors) {
    json += fmt::format(",{}:{{\"dtype\":{},\"shape\":[{}],\"data_offsets\":[{},{}]}}", jsonText(tensor.name),
                        jsonText(tensor.type), fmt::join(tensor.shape, ","), offset, offset + tensor.bytes);
    offset += tensor.bytes;
  }
  json += '}';
  json.resize((json.size() + kAlignment - 1) / kAlignment * kAlignment, ' ');
  std::string out;
  for (unsigned k = 0; k < kHeaderLengthBytes; ++k)
    out += static_cast<char>(static_cast<std::uint64_t>(json.size()) >> (8 * k));
  return out + json;
}

bool safetensorsHeaderFits(const std::vector<OutputTensor>& tensors, std::uint64_t most) {
  return safetensorsHeader(tensors).size() - kHeaderLengthBytes <= most;
}

void writeSafetensors(const std::string& path, const std::vector<OutputTensor>& tensors) {
  PendingFile pending;
  std::string reason;
  if (!pending.create(path, reason)) cannotWrite(path, reason);
  ShardFile file(path, ::open(pending.path().c_str(), O_WRONLY | O_CLOEXEC));
  const std::string header = safetensorsHeader(tensors);
  file.write(header.data(), header.size());
  for (const OutputTensor& tensor : tensors)
    writeTensor(tensor, file);
  file.close();
  if (!pending.commit(false, reason)) cannotWrite(path, reason);
}

}  // namespace zel::tool::prepare
