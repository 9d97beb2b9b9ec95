#include "hf/read_file.h"

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container/descriptor.h"
#include "container/open_file.h"

namespace zel {

bool readFile(const std::string& path, std::vector<std::uint8_t>& out) {
  const Descriptor file(openFile(path.c_str(), O_RDONLY));
  struct stat info {};
  if (!file.isOpen() || ::fstat(file.get(), &info) != 0) return false;
  if (!S_ISREG(info.st_mode) || info.st_size <= 0) return false;
  out.resize(std::size_t(info.st_size));
  std::size_t have = 0;
  while (have < out.size()) {
    const ssize_t n = ::read(file.get(), out.data() + have, out.size() - have);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    have += std::size_t(n);
  }
  return true;
}

}  // namespace zel
