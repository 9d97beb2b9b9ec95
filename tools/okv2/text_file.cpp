#include "okv2/text_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"

namespace zel::tool {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{1} << 16;

// The number of a path that stands for an open descriptor.
std::optional<int> descriptorOf(std::string_view path) {
  constexpr std::string_view kFolder = "/dev/fd/";
  if (path == "/dev/stdin") return STDIN_FILENO;
  if (path.substr(0, kFolder.size()) != kFolder) return std::nullopt;
  path.remove_prefix(kFolder.size());
  int number = -1;
  const auto [end, error] = std::from_chars(path.data(), path.data() + path.size(), number);
  if (error != std::errc() || end != path.data() + path.size() || number < 0) return std::nullopt;
  return number;
}

class Input {
 public:
  explicit Input(const std::string& path) {
    // A duplicate: to open a pipe by its path once more could wait for a second writer.
    if (const std::optional<int> open = descriptorOf(path)) {
      descriptor_ = ::fcntl(*open, F_DUPFD_CLOEXEC, 0);
      isHandedOver_ = true;
    } else {
      descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    }
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  ~Input() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }

  [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }
  [[nodiscard]] bool mayBeRead() const {
    struct stat status;
    return isHandedOver_ || (::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode));
  }
  // As read(2).
  [[nodiscard]] ssize_t read(char* to, std::size_t size) const {
    ssize_t count;
    do {
      count = ::read(descriptor_, to, size);
    } while (count < 0 && errno == EINTR);
    return count;
  }

 private:
  int descriptor_ = -1;
  bool isHandedOver_ = false;
};

}  // namespace

int readText(bool json, const char* command, const std::string& path, std::string& out) {
  const auto cannotRead = [&](int error) {
    return fail(json, command, kExitIoError,
                fmt::format("cannot read {}: {}", escaped(path), std::strerror(error)));
  };
  const Input in(path);
  if (!in.isOpen()) return cannotRead(errno);
  if (!in.mayBeRead()) return fail(json, command, kExitInvalid, escaped(path) + ": not a regular file");
  out.clear();
  for (;;) {
    const std::size_t end = out.size();
    out.resize(end + kPieceBytes);
    const ssize_t count = in.read(out.data() + end, kPieceBytes);
    if (count < 0) return cannotRead(errno);
    out.resize(end + static_cast<std::size_t>(count));
    if (count == 0) return kExitOk;
    if (out.size() > kMaxTextBytes) {
      return fail(json, command, kExitInvalid,
                  fmt::format("{}: more than {} bytes", escaped(path), kMaxTextBytes));
    }
  }
}

}  // namespace zel::tool
