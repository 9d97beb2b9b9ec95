#include "container/output_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container/okv2_format.h"
#include "container/open_file.h"

namespace zel {
namespace {

constexpr unsigned char kZeros[okv2::kAlignment] = {};

// Calls `io` again for as long as a signal handler of the host interrupts it.
template <class Io>
ssize_t retryInterrupted(Io io) noexcept {
  ssize_t result;
  do {
    result = io();
  } while (result < 0 && errno == EINTR);
  return result;
}

}  // namespace

OutputFile::OutputFile() {
  pieces_.reserve(kMaxPieces);
  texts_.reserve(kMaxPieces);
}

bool OutputFile::open(const char* path) noexcept {
  file_.reset(openFile(path, O_WRONLY | O_CREAT, 0666));  // refuses a FIFO that nobody reads
  if (!file_.isOpen()) return false;
  struct stat info {};
  if (::fstat(file_.get(), &info) != 0) return false;
  id_ = {info.st_dev, info.st_ino};
  hasContent_ = S_ISREG(info.st_mode) && info.st_size > 0;
  return true;
}

bool OutputFile::truncate() noexcept {
  return !hasContent_ || retryInterrupted([this] { return ::ftruncate(file_.get(), 0); }) == 0;
}

bool OutputFile::append(const void* data, std::size_t size, const char* failureText) noexcept {
  // writev() only reads, but its pieces are not declared const.
  auto* bytes = static_cast<char*>(const_cast<void*>(data));
  while (size > 0) {
    const std::size_t n = std::min(size, kFlushBytes - std::size_t(appended_ % kFlushBytes));
    pieces_.push_back({bytes, n});
    texts_.push_back(failureText);
    queuedBytes_ += n;
    appended_ += n;
    bytes += n;
    size -= n;
    const bool due = appended_ % kFlushBytes == 0 || pieces_.size() == kMaxPieces;
    if (due && !flush()) return false;
  }
  return true;
}

bool OutputFile::appendZeros(std::size_t size, const char* failureText) noexcept {
  while (size > 0) {
    const std::size_t n = std::min(size, sizeof kZeros);
    if (!append(kZeros, n, failureText)) return false;
    size -= n;
  }
  return true;
}

// A file system that finds room for megabytes at once takes a quarter less time for the writes: ext4
// otherwise looks for each block of 4 KB by itself. The size of the file stays what was written.
void OutputFile::askForRoom([[maybe_unused]] std::uint64_t end) noexcept {
#ifdef __linux__
  constexpr std::uint64_t kAheadBytes = 8 << 20;
  if (end <= room_ || room_ >= expected_ || expected_ < kCopyBytes) return;
  const std::uint64_t roomEnd = std::min(expected_, end + kAheadBytes);
  const bool got = ::fallocate(file_.get(), FALLOC_FL_KEEP_SIZE, off_t(room_), off_t(roomEnd - room_)) == 0;
  room_ = got ? roomEnd : expected_;
#endif
}

bool OutputFile::flush() noexcept {
  if (!pieces_.empty()) askForRoom(appended_);
  std::size_t first = 0;  // pieces before it are written whole
  while (first < pieces_.size()) {
    const ssize_t result =
        retryInterrupted([&] { return ::writev(file_.get(), &pieces_[first], int(pieces_.size() - first)); });
    if (result <= 0) {
      failure_ = texts_[first];
      return false;
    }
    auto written = std::size_t(result);
    while (first < pieces_.size() && written >= pieces_[first].iov_len) {
      written -= pieces_[first].iov_len;
      ++first;
    }
    if (written > 0) {
      pieces_[first].iov_base = static_cast<char*>(pieces_[first].iov_base) + written;
      pieces_[first].iov_len -= written;
    }
  }
  pieces_.clear();
  texts_.clear();
  queuedBytes_ = 0;
  return true;
}

// A pipe holds 64 KB by default, and each filling costs its way through the files' locks and pages.
bool OutputFile::openPipe() noexcept {
  if (pipeInput_.isOpen()) return true;
#ifdef __linux__
  int ends[2];
  if (std::exchange(pipeTried_, true) || ::pipe2(ends, O_CLOEXEC) != 0) return false;
  pipeOutput_.reset(ends[0]);
  pipeInput_.reset(ends[1]);
  (void)::fcntl(pipeInput_.get(), F_SETPIPE_SZ, int(kCopyBytes));
#endif
  return pipeInput_.isOpen();
}

std::uint64_t OutputFile::copyFrom([[maybe_unused]] int source, [[maybe_unused]] std::uint64_t offset,
                                   [[maybe_unused]] std::uint64_t size) noexcept {
  std::uint64_t copied = 0;
#ifdef __linux__
  auto from = off_t(offset);
  ssize_t held = 0;  // in the pipe
  while (copied < size && held == 0 && openPipe()) {
    const auto most = std::size_t(std::min(size - copied, kCopyBytes));
    askForRoom(appended_ + copied + most);
    held = retryInterrupted([&] { return ::splice(source, &from, pipeInput_.get(), nullptr, most, 0); });
    if (held <= 0) break;
    while (held > 0) {
      const ssize_t result = retryInterrupted(
          [&] { return ::splice(pipeOutput_.get(), nullptr, file_.get(), nullptr, std::size_t(held), 0); });
      if (result <= 0) break;
      held -= result;
      copied += std::uint64_t(result);
    }
  }
  if (held > 0) {  // what is stuck in the pipe must not come before anything else
    (void)pipeInput_.close();
    (void)pipeOutput_.close();
  }
  appended_ += copied;
#endif
  return copied;
}

bool OutputFile::position(std::uint64_t& out) const noexcept {
  const off_t position = ::lseek(file_.get(), 0, SEEK_CUR);
  if (position < 0) return false;
  out = std::uint64_t(position) + queuedBytes_;
  return true;
}

bool OutputFile::rewriteStart(const void* data, std::size_t size) noexcept {
  if (::lseek(file_.get(), 0, SEEK_SET) != 0) return false;
  return retryInterrupted([&] { return ::write(file_.get(), data, size); }) == ssize_t(size);
}

bool OutputFile::close() noexcept { return file_.close(); }

}  // namespace zel
