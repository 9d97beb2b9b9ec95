// An output file that appears under its own name only when it is complete.
#pragma once

#include <string>

namespace zel::tool {

// Creates an empty file under a name of its own in the folder of the destination; commit() gives it the
// destination's name in one step. Until then the destructor removes it, and so do the signals of
// interruption.h before they end the process. At most one exists at a time.
class PendingFile {
 public:
  PendingFile() = default;
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;
  ~PendingFile();

  // False with the operating system's reason in `reason`.
  [[nodiscard]] bool create(const std::string& destination, std::string& reason);
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

  // With `replace` whatever is there gives way, without it an existing file makes commit() fail.
  [[nodiscard]] bool commit(bool replace, std::string& reason);

 private:
  std::string destination_;
  std::string path_;  // empty when there is nothing to remove
};

}  // namespace zel::tool
