// What kind of build and run this is.
#pragma once

#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OKV2_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OKV2_SANITIZED 1
#endif
#endif
#ifndef OKV2_SANITIZED
#define OKV2_SANITIZED 0
#endif

namespace zel::test {

inline constexpr bool kSanitized = OKV2_SANITIZED != 0;

// The long forms of docs/reliability.md run with OKV2_LONG=1 in the environment.
inline int rounds(int quick, int longForm) {
  const char* wanted = std::getenv("OKV2_LONG");
  return wanted != nullptr && *wanted == '1' ? longForm : quick;
}

}  // namespace zel::test
