// A promise that does not hold ends the input: under libFuzzer nobody catches the exception, which is a crash
// with a stack trace; tests catch it and say which input it was.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

#include "container/status.h"

namespace zel::fuzz {

class BrokenPromise : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

[[noreturn]] void breakPromise(const std::string& what);

inline void promise(bool kept, const char* what) {
  if (!kept) breakPromise(what);
}

// A failure has one of the component's codes and a text with one of its prefixes; a success has no text.
inline void promiseKnownStatus(const Status& status, std::initializer_list<Code> codes,
                               std::string_view prefix) {
  if (status.ok()) return promise(status.message().empty(), "a success carries no message");
  promise(std::find(codes.begin(), codes.end(), status.code()) != codes.end(), "a failure has a known code");
  promise(status.message().size() > prefix.size() && status.message().compare(0, prefix.size(), prefix) == 0,
          "a failure's message begins with its component");
}

inline std::string describe(const Status& status) {
  return std::string(status.codeName()) + " \"" + status.message() + '"';
}

inline void promiseSame(const Status& actual, const Status& expected) {
  if (actual.code() == expected.code() && actual.message() == expected.message()) return;
  breakPromise(describe(actual) + ", by the reference " + describe(expected));
}

}  // namespace zel::fuzz
