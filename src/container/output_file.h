// The file that a container is written to: gathers pieces and hands them to the kernel where they lie.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <sys/uio.h>

#include "container/descriptor.h"
#include "container/file_id.h"

namespace zel {

// Pieces are borrowed until the next successful flush() and never read in user space: they may lie in a file
// mapping whose file shrinks meanwhile, which then is a failed write and not a signal. Every piece carries
// the text to report if it is the first that could not be written whole, so gathering changes no message.
class OutputFile {
 public:
  // One piece of a large tensor is copied while it is still in the processor's cache; larger writes fault in
  // more than fits there.
  static constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;
  // A flush is due on each multiple of this in the file. File systems keep what one write brings in folios as
  // large as its place and length allow: many small tensors took 3 to 5 % longer in writes of 256 KB.
  static constexpr std::size_t kFlushBytes = std::size_t{1} << 20;

  OutputFile();

  // Creates or opens `path` for writing without truncating it and without ever blocking; false on failure.
  [[nodiscard]] bool open(const char* path) noexcept;
  [[nodiscard]] FileId id() const noexcept { return id_; }
  // Empties an existing regular file.
  [[nodiscard]] bool truncate() noexcept;
  // Tells how many bytes the file will have in all. From then on the file system is asked for room a few
  // megabytes ahead of what is written and never beyond that end; where it has none, writing fails as ever.
  void expect(std::uint64_t bytes) noexcept { expected_ = bytes; }

  // Queues `size` bytes at `data`. False when a flush was due and failed; failure() then says why.
  [[nodiscard]] bool append(const void* data, std::size_t size, const char* failureText) noexcept;
  // As append(), for zeros.
  [[nodiscard]] bool appendZeros(std::size_t size, const char* failureText) noexcept;
  [[nodiscard]] bool flush() noexcept;

  // From this size on copyFrom() is worth its calls.
  static constexpr std::uint64_t kCopyBytes = std::uint64_t{1} << 20;
  // Lets the kernel pass on `size` bytes at `offset` of the open file `source`, through a pipe and without a
  // mapping; flush() first. The bytes copied: fewer where the kernel cannot, the source ends, or the disk is
  // full. What is missing is to be appended from memory, which tells why it cannot be written.
  [[nodiscard]] std::uint64_t copyFrom(int source, std::uint64_t offset, std::uint64_t size) noexcept;

  // Bytes appended so far.
  [[nodiscard]] std::uint64_t appended() const noexcept { return appended_; }
  // The text of the piece that could not be written.
  [[nodiscard]] const char* failure() const noexcept { return failure_; }

  // Where the file will stand once everything appended is written; false when it has no positions (a pipe).
  [[nodiscard]] bool position(std::uint64_t& out) const noexcept;
  // Writes over the first bytes of the file.
  [[nodiscard]] bool rewriteStart(const void* data, std::size_t size) noexcept;
  [[nodiscard]] bool close() noexcept;

 private:
  static constexpr std::size_t kMaxPieces = 1024;  // IOV_MAX on Linux

  void askForRoom(std::uint64_t end) noexcept;
  [[nodiscard]] bool openPipe() noexcept;

  Descriptor file_;
  FileId id_;
  bool hasContent_ = false;
  std::vector<iovec> pieces_;
  std::vector<const char*> texts_;  // same length as pieces_
  std::size_t queuedBytes_ = 0;
  std::uint64_t appended_ = 0;
  std::uint64_t expected_ = 0;
  std::uint64_t room_ = 0;  // the file has room up to here, or is not to be asked again
  const char* failure_ = "";
  Descriptor pipeOutput_;
  Descriptor pipeInput_;
  bool pipeTried_ = false;
};

}  // namespace zel
