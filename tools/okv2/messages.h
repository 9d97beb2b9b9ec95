// What the command says beside its results.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>

namespace zel::tool {

// "okv2: ..." and a newline on standard error. Texts from outside must have been escaped.
template <typename... Args>
void complain(fmt::format_string<Args...> format, Args&&... args) {
  const std::string line = "okv2: " + fmt::format(format, std::forward<Args>(args)...) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace zel::tool
