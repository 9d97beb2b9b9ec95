// The worked example of docs/container-format.md is a container that the writer really writes.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "bitwise_crc64.h"
#include "container/bytes.h"
#include "container/dtype.h"
#include "support/hexdump.h"
#include "writer_fixture.h"

namespace zel {
namespace {

std::string document() { return test::readWholeFile(OKV2_DOCS_DIR "/container-format.md"); }

// What lies between the one fence that is marked as a dump and its end.
std::string workedDump() {
  const std::string text = document();
  const std::string fence = "```okv2\n";
  const std::size_t begin = text.find(fence);
  if (begin == std::string::npos) return {};
  return text.substr(begin + fence.size(), text.find("```", begin + fence.size()) - begin - fence.size());
}

// The container that the page describes in words.
void fillWorkedExample(OKV2Writer& writer) {
  writer.setModelInfo(0, 2, 1, 2);
  test::addOk(writer.addMetaStr("general.architecture", "llama"));
  TokenizerData tokenizer;
  tokenizer.tokens = {"<s>", "\xE2\x96\x81"};
  tokenizer.types = {3, 1};
  tokenizer.bosId = 0;
  writer.setTokenizer(tokenizer);
  writer.setChatTemplate("{{m}}");
  const std::uint64_t embdDims[] = {2, 34};
  const std::string embd = std::string(68, '\x11') + std::string(68, '\x22');
  test::addOk(writer.addTensor("token_embd.weight", std::uint16_t(DType::F16), embdDims, 2, embd.data(),
                               embd.size()));
  const std::uint64_t normDims[] = {2};
  const float norm[] = {1.0F, 1.0F};
  test::addOk(
      writer.addTensor("output_norm.weight", std::uint16_t(DType::F32), normDims, 1, norm, sizeof norm));
}

TEST(ContainerFormatDocument, ItsWorkedDumpIsTheContainerThatTheWriterWrites) {
  OKV2Writer writer;
  fillWorkedExample(writer);
  EXPECT_EQ(test::hexLines(test::bytesOfDump(workedDump())), test::hexLines(test::containerOf(writer)));
}

TEST(ContainerFormatDocument, ItsWorkedDumpHasTheChecksumThatItDescribes) {
  const std::string bytes = test::bytesOfDump(workedDump());
  ASSERT_EQ(bytes.size(), 1024U);
  EXPECT_EQ(loadU64(bytes.data() + 56), test::headerChecksum(bytes));
}

TEST(ContainerFormatDocument, ItsTableOfElementTypesHasEveryRow) {
  const std::string text = document();
  for (std::size_t dtype = 0; dtype < kDTypeCount; ++dtype) {
    const BlockGeometry& row = kBlockGeometry[dtype];
    const std::string tail = " | " + std::to_string(row.blockElements) + " | " +
                             std::to_string(row.blockBytes) + " | " + std::to_string(row.layout[0]) + ", " +
                             std::to_string(row.layout[1]) + ", " + std::to_string(row.layout[2]) + " |\n";
    const std::size_t at =
        text.find("\n| " + std::to_string(dtype) + " | ", text.find("| Element type | Name |"));
    ASSERT_NE(at, std::string::npos) << dtype;
    const std::string line = text.substr(at + 1, text.find('\n', at + 1) - at);
    EXPECT_TRUE(line.size() > tail.size() && line.substr(line.size() - tail.size()) == tail) << line;
  }
}

}  // namespace
}  // namespace zel
