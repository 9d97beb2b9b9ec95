// GoogleMock matchers for Status: a test asserts the code and the whole message.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "container/status.h"

namespace zel {

inline void PrintTo(const Status& status, std::ostream* os) {
  *os << status.codeName() << " \"" << status.message() << '"';
}

}  // namespace zel

namespace zel::test {

MATCHER(IsOk, "is OK with an empty message") { return arg.ok() && arg.message().empty(); }

MATCHER_P2(StatusIs, code, message,
           std::string(Status(code, "").codeName()) + " \"" + std::string(message) + '"') {
  return arg.code() == code && arg.message() == message;
}

}  // namespace zel::test
