// Python's pickletools as an independent reader: the same opcodes at the same places, for programs that keep
// to what both dialects share.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "pickle_machine.h"
#include "support/pickle_builder.h"
#include "support/run_command.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::IsOk;
using test::judgePickle;
using test::Op;
using test::PickleBuilder;
using test::StatusIs;

constexpr char kPython[] = "/usr/bin/python3";

#define REQUIRE_PYTHON() \
  if (access(kPython, X_OK) != 0) GTEST_SKIP() << "needs Python's pickletools, but there is no " << kPython

// Prints "position name" of every opcode of the file, up to the first STOP.
constexpr char kBoundaries[] = R"(
import pickletools, sys
with open(sys.argv[1], 'rb') as program:
    for opcode, argument, position in pickletools.genops(program):
        print(position, opcode.name)
)";

struct Boundary {
  std::size_t position;
  std::string name;

  friend bool operator==(const Boundary&, const Boundary&) = default;
};

void PrintTo(const Boundary& boundary, std::ostream* os) { *os << boundary.position << ' ' << boundary.name; }

std::vector<Boundary> pythonsBoundaries(const std::string& program) {
  const test::TempDir dir;
  const test::CommandResult result =
      test::runCommand({kPython, "-I", "-c", kBoundaries, dir.write("program.pkl", program)});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  std::vector<Boundary> out;
  std::istringstream lines(result.out);
  for (Boundary next; lines >> next.position >> next.name;)
    out.push_back(next);
  return out;
}

// Opcodes whose operands mean the same here as there, each with every kind of operand; none needs a stack.
void addShared(PickleBuilder& program, unsigned choice, unsigned random) {
  const std::string text(random % 300, 'N');  // looks like opcodes to whoever loses step
  switch (choice) {
    case 0: program.op(Op::NONE); break;
    case 1: program.op(Op::NEWTRUE); break;
    case 2: program.op(Op::NEWFALSE); break;
    case 3: program.op(Op::MARK); break;
    case 4: program.op(Op::EMPTY_TUPLE); break;
    case 5: program.op(Op::EMPTY_LIST); break;
    case 6: program.op(Op::EMPTY_DICT); break;
    case 7: program.binint(std::int32_t(random)); break;
    case 8: program.binint1(std::uint8_t(random)); break;
    case 9: program.binint2(std::uint16_t(random)); break;
    case 10: program.binfloat(double(random)); break;
    case 11: program.binunicode(text); break;
    case 12: program.shortBinunicode(text.substr(0, text.size() % 256)); break;
    case 13: program.binunicode8(text); break;
    case 14: program.binbytes(text); break;
    case 15: program.global("module" + std::to_string(random), "name"); break;
    case 16: program.proto(std::uint8_t(random % 6)); break;
    case 17: program.frame(random); break;
    case 18: program.ops({Op::NONE, Op::MEMOIZE}); break;
    case 19: program.ops({Op::NONE, Op::DUP, Op::POP}); break;
    case 20: program.ops({Op::MARK, Op::NONE, Op::LIST}); break;
    case 21: program.ops({Op::NONE, Op::NONE, Op::NONE, Op::TUPLE3}); break;
    case 22: program.ops({Op::NONE, Op::MEMOIZE}).binget(0).longBinget(0); break;
    default: program.storage("FloatStorage", "key", 3).op(Op::NONE).op(Op::BUILD); break;
  }
}

// Where the machine reads its opcodes: the prefixes of the program that end between two of them are
// unterminated, and an unknown byte is noticed there and nowhere else.
std::vector<std::size_t> machinesBoundaries(const std::string& program) {
  std::vector<std::size_t> out;
  for (std::size_t at = 0; at < program.size(); ++at) {
    const Status status = judgePickle(program.substr(0, at) + '\0').status;
    if (status.code() == Code::Unsupported) out.push_back(at);
  }
  return out;
}

TEST(PickleWitness, PythonSeesTheSameOpcodesAtTheSamePlaces) {
  REQUIRE_PYTHON();
  std::mt19937 random(7);
  for (int round = 0; round < 10; ++round) {
    PickleBuilder builder;
    for (unsigned choice = 0; choice < 24; ++choice)
      addShared(builder, choice, unsigned(random()));
    for (int k = 0; k < 20; ++k)
      addShared(builder, unsigned(random() % 24), unsigned(random()));
    const std::string program = builder.stop();
    ASSERT_THAT(judgePickle(program).status, IsOk());
    const std::vector<Boundary> theirs = pythonsBoundaries(program);
    std::vector<Boundary> ours;
    for (const std::size_t at : machinesBoundaries(program)) {
      const auto* row = std::find_if(std::begin(test::kPickleOpcodes), std::end(test::kPickleOpcodes),
                                     [&](const test::PickleOpcode& r) { return char(r.op) == program[at]; });
      ASSERT_NE(row, std::end(test::kPickleOpcodes));
      ours.push_back({at, std::string(row->name)});
    }
    EXPECT_EQ(ours, theirs);
  }
}

TEST(PickleWitness, PythonGivesEveryOpcodeTheSameNameButTheByteT) {
  REQUIRE_PYTHON();
  const test::TempDir dir;
  const test::CommandResult result = test::runCommand(
      {kPython, "-I", "-c", "import pickletools\nfor o in pickletools.opcodes: print(ord(o.code), o.name)"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  std::vector<std::string> names(256);
  std::istringstream lines(result.out);
  std::string name;
  for (std::size_t byte = 0; lines >> byte >> name;)
    names.at(byte) = name;
  for (const test::PickleOpcode& row : test::kPickleOpcodes) {
    if (row.op == Op::TUPLE_T) {
      EXPECT_EQ(names[std::size_t(row.op)], "BINSTRING");
    } else {
      EXPECT_EQ(names[std::size_t(row.op)], row.name);
    }
  }
}

TEST(PickleWitness, WhatPythonPicklesAsAnOrdinaryDictIsRefusedAtItsFirstBinput) {
  REQUIRE_PYTHON();
  const test::TempDir dir;
  for (const char* protocol : {"2", "3"}) {
    const test::CommandResult result = test::runCommand(
        {kPython, "-I", "-c",
         "import pickle, sys\npickle.dump({'a': 1}, open(sys.argv[1], 'wb'), int(sys.argv[2]))",
         dir / "program.pkl", protocol});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_THAT(judgePickle(test::readWholeFile(dir / "program.pkl")).status,
                StatusIs(Code::Unsupported, "torch: pickle unknown pickle opcode"))
        << protocol;
  }
}

TEST(PickleWitness, WhatPythonPicklesWithProtocol4AndOneKeyIsAccepted) {
  REQUIRE_PYTHON();
  const test::TempDir dir;
  const test::CommandResult result = test::runCommand(
      {kPython, "-I", "-c", "import pickle, sys\npickle.dump({'a': [1, 300]}, open(sys.argv[1], 'wb'), 4)",
       dir / "program.pkl"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const test::PickleOutcome outcome = test::runPickle(test::readWholeFile(dir / "program.pkl"));
  EXPECT_THAT(outcome.status, IsOk());
  EXPECT_EQ(test::show(outcome.stack), "[Dict({'a': Tuple([Int(1), Int(300)])})]");
}

}  // namespace
}  // namespace zel
