// The JSON documents that commands print.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace zel::tool {

using Json = nlohmann::ordered_json;

// Grows when a member changes its meaning or goes; new members do not count.
inline constexpr int kJsonSchema = 1;

// {"schema": 1, "command": ...}
[[nodiscard]] Json newDocument(const char* command);

// In ASCII, with a newline at the end; bytes that are no UTF-8 become U+FFFD.
[[nodiscard]] std::string textOf(const Json& document);

// The one document of this process, on standard output.
void print(const Json& document);

}  // namespace zel::tool
