// docs/pytorch-dialect.md against the machine: its table of opcodes and its example.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "pickle_machine.h"
#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"
#include "support/zip_builder.h"

namespace zel {
namespace {

std::vector<std::string> documentLines() {
  std::istringstream in(test::readWholeFile(OKV2_PYTORCH_DIALECT));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// The rows "| `0x28` | MARK | ..." of the document.
std::map<unsigned, std::string> documentedOpcodes() {
  std::map<unsigned, std::string> rows;
  for (const std::string& line : documentLines()) {
    unsigned byte = 0;
    char name[40] = "";
    if (std::sscanf(line.c_str(), "| `0x%2x` | %39[A-Z0-9_] |", &byte, name) != 2) continue;
    EXPECT_EQ(rows.count(byte), 0u) << line;
    rows[byte] = name;
  }
  return rows;
}

TEST(PyTorchDialectDocument, ListsExactlyTheKnownOpcodes) {
  std::map<unsigned, std::string> known;
  for (const test::PickleOpcode& row : test::kPickleOpcodes)
    known[unsigned(row.op)] = row.name;
  EXPECT_EQ(documentedOpcodes(), known);
}

TEST(PyTorchDialectDocument, ListsNoOpcodeThatTheMachineDoesNotKnow) {
  const std::map<unsigned, std::string> rows = documentedOpcodes();
  for (unsigned byte = 0; byte < 256; ++byte) {
    const Status status = test::judgePickle(std::string(1, char(byte))).status;
    EXPECT_EQ(status.message() != "torch: pickle unknown pickle opcode", rows.count(byte) == 1) << byte;
  }
}

// The example of the document: lines "0000  50 4b 03 04 ...  |text|", each of up to sixteen bytes.
std::string documentedBytes() {
  std::string bytes;
  for (const std::string& line : documentLines()) {
    unsigned offset = 0;
    int used = 0;
    if (std::sscanf(line.c_str(), "%4x  %n", &offset, &used) != 1 || used != 6) continue;
    EXPECT_EQ(offset, bytes.size()) << line;
    std::istringstream in(line.substr(6, 3 * 16));
    for (std::string byte; in >> byte;)
      bytes += char(std::stoi(byte, nullptr, 16));
  }
  return bytes;
}

TEST(PyTorchDialectDocument, ShowsAWholeCheckpointByteForByte) {
  const std::string expected =
      test::ZipBuilder()
          .add("data.pkl", test::PickleBuilder()
                               .proto(2)
                               .op(test::Op::EMPTY_DICT)
                               .shortBinunicode("w")
                               .global("torch._utils", "_rebuild_tensor_v2")
                               .op(test::Op::MARK)
                               .global("torch", "HalfStorage")
                               .shortBinunicode("0")
                               .binint1(2)
                               .ops({test::Op::TUPLE2, test::Op::NEWOBJ})
                               .binint1(0)
                               .binint1(2)
                               .op(test::Op::TUPLE1)
                               .op(test::Op::NONE)
                               .ops({test::Op::TUPLE_T, test::Op::REDUCE, test::Op::SETITEM})
                               .stop())
          .add("0", std::string("\x00\x3c\x00\xc0", 4))
          .build();
  EXPECT_EQ(documentedBytes(), expected);
}

TEST(PyTorchDialectDocument, ShowsACheckpointThatOpens) {
  const std::string bytes = documentedBytes();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), test::IsOk());
  ASSERT_EQ(importer.tensors().size(), 1u);
  const PtTensorInfo& tensor = importer.tensors()[0];
  EXPECT_EQ(tensor.name, "w");
  EXPECT_EQ(tensor.dtype, 1);
  EXPECT_EQ(tensor.ndim, 1);
  EXPECT_EQ(tensor.shape[0], 2u);
  EXPECT_EQ(tensor.storage, "0");
  EXPECT_EQ(tensor.nbytes, 4u);
}

}  // namespace
}  // namespace zel
