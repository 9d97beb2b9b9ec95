// Python's zipfile as an independent pen and an independent eye.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <unistd.h>

#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/run_command.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"
#include "support/zip_builder.h"

namespace zel {
namespace {

using test::IsOk;
using test::StatusIs;
using test::TempDir;
using test::ZipBuilder;

constexpr char kPython[] = "/usr/bin/python3";

#define REQUIRE_PYTHON() \
  if (access(kPython, X_OK) != 0) GTEST_SKIP() << "needs Python's zipfile, but there is no " << kPython

std::string python(const std::string& script, const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {kPython, "-I", "-c", script};
  words.insert(words.end(), arguments.begin(), arguments.end());
  const test::CommandResult result = test::runCommand(words);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.out;
}

// Writes the archive argv[1] from pairs of names and files, with the method and comment of argv[2..3].
constexpr char kWriter[] = R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], 'w', int(sys.argv[2])) as archive:
    archive.comment = sys.argv[3].encode()
    for name, path in zip(sys.argv[4::2], sys.argv[5::2]):
        archive.write(path, name)
)";

// Prints what zipfile finds, after it has checked every CRC.
constexpr char kReader[] = R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as archive:
    assert archive.testzip() is None
    print(archive.comment.decode())
    for info in archive.infolist():
        print(info.filename, info.compress_type, info.header_offset, archive.read(info).hex())
)";

TEST(PyTorchWitness, OpensAnArchiveWrittenByPython) {
  REQUIRE_PYTHON();
  const TempDir dir;
  const std::string program = dir.write("p", test::stateDict({{"w", {2, 2}, "archive/data/0"}}));
  const std::string storage = dir.write("s", "0123456789abcdef");
  const std::string path = dir / "pytorch_model.bin";
  for (const char* comment : {"", "a comment"}) {
    python(kWriter, {path, "0", comment, "data.pkl", program, "archive/data/0", storage});
    PyTorchImporter importer;
    ASSERT_THAT(importer.open(path.c_str()), IsOk());
    ASSERT_EQ(importer.tensors().size(), 1u);
    const ZipEntry* entry = importer.findEntry("archive/data/0");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(importer.bytes().substr(entry->dataOffset, entry->compressedSize), "0123456789abcdef");
    EXPECT_EQ(entry->crc32, test::zipCrc32("0123456789abcdef"));
    EXPECT_EQ(entry->uncompressedSize, 16u);
  }
}

TEST(PyTorchWitness, RefusesAnArchiveThatPythonDeflated) {
  REQUIRE_PYTHON();
  const TempDir dir;
  const std::string program = dir.write("p", test::stateDict({}));
  const std::string path = dir / "pytorch_model.bin";
  python(kWriter, {path, "8", "", "data.pkl", program});
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(path.c_str()),
              StatusIs(Code::Unsupported,
                       "torch: zip entry uses compression (deflate); only STORED checkpoints (torch.save "
                       "default) are supported"));
}

TEST(PyTorchWitness, PythonReadsWhatTheBuilderWrites) {
  REQUIRE_PYTHON();
  const TempDir dir;
  const ZipBuilder zip = ZipBuilder()
                             .add("data.pkl", "N.")
                             .add("archive/data/0", "0123")
                             .localExtra(std::string("\xFE\xCA\x02\x00zz", 6))
                             .centralExtra(std::string("\xFE\xCA\x01\x00z", 5))
                             .entryComment("an entry")
                             .add("empty", "")
                             .comment("the end");
  const std::string path = dir.write("built.zip", zip.build());
  const auto offset = [&](std::size_t entry) { return std::to_string(zip.localOffset(entry)); };
  EXPECT_EQ(python(kReader, {path}),
            "the end\n"
            "data.pkl 0 " +
                offset(0) +
                " 4e2e\n"
                "archive/data/0 0 " +
                offset(1) +
                " 30313233\n"
                "empty 0 " +
                offset(2) + " \n");
}

TEST(PyTorchWitness, PythonReadsWhatTheBuilderWritesBehindAPrefix) {
  REQUIRE_PYTHON();
  const TempDir dir;
  const ZipBuilder zip = ZipBuilder().add("a", "x").prefix("#!/bin/false\n");
  EXPECT_EQ(python(kReader, {dir.write("built.zip", zip.build())}), "\na 0 13 78\n");
}

}  // namespace
}  // namespace zel
