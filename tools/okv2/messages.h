// What the command says beside its results.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>

namespace zel::tool {

// On standard error, as it is. Texts from outside must have been escaped. That nobody can be told is no
// failure: an import that has written its container has succeeded.
template <typename... Args>
void say(fmt::format_string<Args...> format, Args&&... args) {
  const std::string text = fmt::format(format, std::forward<Args>(args)...);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

// The same with "okv2: " before it and a newline after it.
template <typename... Args>
void complain(fmt::format_string<Args...> format, Args&&... args) {
  say("okv2: {}\n", fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace zel::tool
