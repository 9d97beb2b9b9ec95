// Result of every operation that can fail: a small code and a complete message, returned by value.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace zel {

// The numbers index the plug-in's table of host result codes: append, never reorder.
enum class Code : std::uint8_t {
  OK = 0,
  InvalidFormat = 1,  // bad input or a missing required file; also every failure of the container writer
  Unsupported = 2,    // well-formed, but refused
  Corrupted = 3,      // present, but damaged
  IOError = 4,        // the operating system refused
};

// Success carries no message; a failure carries the whole text that the user will read, prefixed by the
// component that raised it ("json: ", "safetensors: ", ...). Owns its message; moves never throw.
class [[nodiscard]] Status {
 public:
  Status() noexcept = default;
  // cppcheck-suppress passedByValue  ; moved from
  Status(Code code, std::string message) noexcept : code_(code), message_(std::move(message)) {}

  [[nodiscard]] bool ok() const noexcept { return code_ == Code::OK; }
  [[nodiscard]] Code code() const noexcept { return code_; }
  [[nodiscard]] const std::string& message() const noexcept { return message_; }

  // Static text: the enumerator's name, "Unknown" for any value above 4.
  [[nodiscard]] const char* codeName() const noexcept {
    switch (code_) {
      case Code::OK: return "OK";
      case Code::InvalidFormat: return "InvalidFormat";
      case Code::Unsupported: return "Unsupported";
      case Code::Corrupted: return "Corrupted";
      case Code::IOError: return "IOError";
    }
    return "Unknown";
  }

 private:
  Code code_ = Code::OK;
  std::string message_;
};

[[nodiscard]] inline Status invalidFormat(std::string message) {
  return {Code::InvalidFormat, std::move(message)};
}
[[nodiscard]] inline Status unsupported(std::string message) {
  return {Code::Unsupported, std::move(message)};
}
[[nodiscard]] inline Status corrupted(std::string message) { return {Code::Corrupted, std::move(message)}; }
[[nodiscard]] inline Status ioError(std::string message) { return {Code::IOError, std::move(message)}; }

}  // namespace zel

// Passes a failure on unchanged. Where anything else happens on failure, write the `if` out.
#define ZEL_RETURN_IF_ERROR(expr)                \
  do {                                           \
    if (::zel::Status st_ = (expr); !st_.ok()) { \
      return st_;                                \
    }                                            \
  } while (false)
