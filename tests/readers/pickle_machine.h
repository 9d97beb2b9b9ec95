// A window on the pickle machine, which is private to its source file: run a stream, and read what it left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace zel::test {

struct PlainPair;

// A copy of a machine's value that owns everything below it.
struct PlainValue {
  unsigned kind = 0;
  std::int64_t i = 0;
  double f = 0;
  std::string s;
  std::vector<PlainValue> items;
  std::vector<PlainPair> dict;
  std::string module;
  std::string name;
};

struct PlainPair {
  std::string key;
  PlainValue value;
};

// Every field that belongs to the kind, and every other that is not empty: Int(1), Tuple([Str('a')]), ...
std::string show(const PlainValue& value);
std::string show(const std::vector<PlainValue>& values);

struct PickleOutcome {
  Status status;
  std::vector<PlainValue> stack;  // empty after a failure
};

// Runs `stream` and copies out what lies on the stack; for small values only.
PickleOutcome runPickle(std::string_view stream);

// Runs `stream` and throws the machine away with everything in it; any size, any depth.
struct PickleVerdict {
  Status status;
  std::size_t stackSize = 0;
};
PickleVerdict judgePickle(std::string_view stream);

}  // namespace zel::test
