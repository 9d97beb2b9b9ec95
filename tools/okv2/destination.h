// Which output files an import may create or replace.
#pragma once

#include <string>

namespace zel::tool {

// Empty when `file` may be written by an import of `directory`, else a sentence that says why not. An
// existing regular file or symbolic link may only be replaced with `force`; a directory, a FIFO or another
// special file, and a file that the import reads, never, nor a link to one of them.
[[nodiscard]] std::string whyRefused(const std::string& directory, const std::string& file, bool force);

// Whether two paths lead to one file or, where there is none yet, name the same entry of one directory.
[[nodiscard]] bool isSameFile(const std::string& a, const std::string& b);

}  // namespace zel::tool
