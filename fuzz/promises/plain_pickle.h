// A pickle machine that owns and copies everything, written opcode by opcode and for nothing but agreement.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace zel::fuzz {

enum PlainKind : unsigned { kNone, kInt, kFloat, kStr, kBytes, kTuple, kDict, kGlobal, kStorage, kTensor };

struct PlainPickle {
  unsigned kind = kNone;
  std::int64_t i = 0;
  double f = 0;
  std::string s;
  std::vector<PlainPickle> items;
  std::vector<std::string> keys;  // of a dict; values[k] goes with keys[k]
  std::vector<PlainPickle> values;
  std::string module;
  std::string name;
};

struct PlainPickleRun {
  bool gaveUp = false;  // copies grow exponentially with the program: beyond a budget there is no verdict
  Status status;
  std::vector<PlainPickle> stack;
};

PlainPickleRun runPlainPickle(std::string_view program);

}  // namespace zel::fuzz
