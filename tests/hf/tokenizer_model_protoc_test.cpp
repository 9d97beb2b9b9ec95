// Messages that the protocol-buffers compiler encoded, from a text in which no byte is ours.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <unistd.h>

#include "support/proto_builder.h"
#include "support/temp_dir.h"
#include "tokenizer_support.h"

namespace zel {
namespace {

using test::IsOk;
using test::ProtoBuilder;
using test::TempDir;
using testing::ElementsAre;

// The layout that is read, and fields around it that are not.
constexpr const char* kSchema = R"(syntax = "proto2";
message Settings {
  optional string comment = 1;
  optional fixed64 stamp = 2;
  optional int32 bos = 5;
  optional int32 eos = 6;
  optional int32 unk = 7;
  optional int64 pad = 8;
  repeated sint32 extra = 9 [packed = true];
}
message Piece {
  optional string text = 1;
  optional float score = 2;
  optional int32 type = 3;
  optional double weight = 4;
}
message Model {
  optional Settings settings = 1;
  optional bytes normaliser = 2;
  repeated Piece pieces = 3;
  optional uint64 version = 4;
  optional fixed32 checksum = 5;
  map<string, int32> names = 16;
}
)";

class TokenizerModelByProtoc : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(OKV2_PROTOC).empty() || access(OKV2_PROTOC, X_OK) != 0) {
      GTEST_SKIP() << "needs protoc (Debian: protobuf-compiler), which was not there at configure time";
    }
    dir.write("model.proto", kSchema);
  }

  // What protoc makes of a message in its text format.
  std::string encode(const std::string& text) const {
    dir.write("in.txt", text);
    const std::string command = std::string(OKV2_PROTOC) + " --encode=Model -I'" + dir.path() +
                                "' model.proto <'" + dir / "in.txt" + "' >'" + dir / "out.bin" + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return test::readWholeFile(dir / "out.bin");
  }
  TokenizerData readEncoded(const std::string& text) const {
    TokenizerData out;
    EXPECT_THAT(readTokenizerModel(encode(text), json::Value(), out), IsOk()) << text;
    return out;
  }

  TempDir dir;
};

TEST_F(TokenizerModelByProtoc, GivesThePiecesAndTheIds) {
  const TokenizerData data = readEncoded(R"(
      settings { comment: "no id" stamp: 77 bos: 1 eos: 2 unk: 0 extra: [-1, 2, 3] }
      normaliser: "\001\002\377"
      pieces { text: "<unk>" score: 0 type: 2 weight: 2.5 }
      pieces { text: "\342\226\201the" score: -3.25 }
      pieces { type: 6 text: "" }
      pieces { }
      version: 18446744073709551615
      checksum: 4294967295
      names { key: "a" value: 1 })");
  EXPECT_THAT(data.tokens, ElementsAre("<unk>", "\xE2\x96\x81the", "", ""));
  EXPECT_THAT(data.scores, ElementsAre(0.0F, -3.25F, 0.0F, 0.0F));
  EXPECT_THAT(data.types, ElementsAre(2, 1, 6, 1));
  EXPECT_EQ(data.bosId, 1);
  EXPECT_EQ(data.eosId, 2);
  EXPECT_EQ(data.unkId, 0);
  EXPECT_EQ(data.padId, -1);
}

TEST_F(TokenizerModelByProtoc, GivesNegativeAndLargeIds) {
  const TokenizerData data =
      readEncoded("settings { bos: -1 eos: -2147483648 unk: 2147483647 pad: 4294967301 }");
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.eosId, -2147483647 - 1);
  EXPECT_EQ(data.unkId, 2147483647);
  EXPECT_EQ(data.padId, 5);
}

TEST_F(TokenizerModelByProtoc, GivesAThousandPieces) {
  std::string text;
  for (int k = 0; k < 1000; ++k) {
    text += "pieces { text: \"" + std::string(std::size_t(k % 200), 'x') + "\" score: " + std::to_string(-k) +
            " }\n";
  }
  const TokenizerData data = readEncoded(text);
  ASSERT_EQ(data.tokens.size(), 1000U);
  for (int k = 0; k < 1000; ++k) {
    EXPECT_EQ(data.tokens[std::size_t(k)].size(), std::size_t(k % 200));
    EXPECT_EQ(data.scores[std::size_t(k)], float(-k));
  }
}

TEST_F(TokenizerModelByProtoc, EncodesAsTheTestsOwnBuilderDoes) {
  EXPECT_EQ(
      encode(
          R"(settings { bos: 300 eos: -1 } pieces { text: "ab" score: 1.5 type: 3 weight: 1 } checksum: 7)"),
      ProtoBuilder()
          .message(1, ProtoBuilder().varint(5, 300).negative(6, -1))
          .message(3,
                   ProtoBuilder().bytes(1, "ab").number(2, 1.5F).varint(3, 3).fixed64(4, 0x3FF0000000000000))
          .fixed32(5, 7)
          .str());
}

}  // namespace
}  // namespace zel
