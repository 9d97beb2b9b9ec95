// An output directory that appears under its own name only when it is complete.
#pragma once

#include <string>

namespace zel::tool {

// Creates an empty directory under a name of its own in the folder of the destination; commit() gives it the
// destination's name in one step. Until then the destructor removes it with everything in it, and so do the
// signals of interruption.h before they end the process. At most one exists at a time.
class PendingDirectory {
 public:
  PendingDirectory() = default;
  PendingDirectory(const PendingDirectory&) = delete;
  PendingDirectory& operator=(const PendingDirectory&) = delete;
  ~PendingDirectory();

  // False with the operating system's reason in `reason`. `destination` does not end in a slash.
  [[nodiscard]] bool create(const std::string& destination, std::string& reason);
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

  // An empty directory of that name gives way; anything else makes commit() fail.
  [[nodiscard]] bool commit(std::string& reason);

 private:
  std::string destination_;
  std::string path_;  // empty when there is nothing to remove
};

}  // namespace zel::tool
