// Rows of the tables of programs: what the machine must make of each.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>

#include "container/status.h"
#include "pickle_machine.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"

namespace zel::test {

struct PickleRow {
  std::string name;
  PickleBuilder program;  // without its STOP
  std::string stack;      // after a success
  Code code = Code::OK;
  std::string message;  // of a failure, without its prefix
};

inline void PrintTo(const PickleRow& row, std::ostream* os) { *os << row.name; }
inline std::string rowName(const testing::TestParamInfo<PickleRow>& info) { return info.param.name; }

inline PickleRow leaves(std::string name, const PickleBuilder& program, std::string stack) {
  return {std::move(name), program, std::move(stack), Code::OK, ""};
}
inline PickleRow fails(std::string name, const PickleBuilder& program, std::string message) {
  return {std::move(name), program, "", Code::Corrupted, std::move(message)};
}
inline PickleRow rejects(std::string name, const PickleBuilder& program, std::string message) {
  return {std::move(name), program, "", Code::Unsupported, std::move(message)};
}

inline void expectRow(const PickleRow& row) {
  const std::string stream = row.program.stop();
  const PickleOutcome outcome = runPickle(stream);
  if (row.code == Code::OK) {
    EXPECT_THAT(outcome.status, IsOk());
    EXPECT_EQ(show(outcome.stack), row.stack);
  } else {
    EXPECT_THAT(outcome.status, StatusIs(row.code, "torch: pickle " + row.message));
  }
}

}  // namespace zel::test
