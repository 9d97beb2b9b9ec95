// How a command that can answer in JSON fails.
#pragma once

#include <string>

namespace zel::tool {

// Complains on standard error and, with `json`, prints the document {"schema", "command", "exit_code",
// "error"}. Returns `code`. `message` has been escaped.
int fail(bool json, const char* command, int code, const std::string& message);

// The same without the complaint: it has been made.
int failDocument(bool json, const char* command, int code, const std::string& message);

// Whether this process has printed its document, so that no second one follows.
[[nodiscard]] bool documentWasPrinted() noexcept;

}  // namespace zel::tool
