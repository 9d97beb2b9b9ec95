// How much the files of weights may say, each limit on both sides, and what is unpacked of a deflated one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/prepare/safetensors_header.h"
#include "okv2/prepare/safetensors_writer.h"
#include "okv2/prepare/weight_file.h"
#include "prepare_weights.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bytesOf;
using test::IsOk;
using test::SafetensorsBuilder;
using test::SavedPickle;
using test::SavedTensor;
using test::StatusIs;
namespace fs = std::filesystem;

constexpr char kIndex[] = "model.safetensors.index.json";

// A shard of `count` tensors that share their bytes.
std::string shardOf(std::size_t count) {
  SafetensorsBuilder shard;
  for (std::size_t k = 0; k < count; ++k)
    shard.member(std::to_string(k), R"({"dtype":"F32","shape":[1],"data_offsets":[0,4]})");
  return shard.dataBytes(4).bytes();
}

// ---- the index file

std::string indexOf(std::size_t tensors) {
  std::string text = R"({"weight_map":{"w":"model.safetensors")";
  for (std::size_t k = 1; k < tensors; ++k)
    text += ",\"" + std::to_string(k) + R"(":"model.safetensors")";
  return text + "}}";
}

TEST_F(WeightsTest, ReadsAnIndexOf32MiBAndNoMore) {
  constexpr std::size_t kMost = std::size_t{32} << 20;
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {1}).bytes());
  std::string text = indexOf(1);
  text.resize(kMost, ' ');
  write(kIndex, text);
  EXPECT_EQ(refusal().code, 0);
  fs::remove(out() + "/model.safetensors");
  write(kIndex, text + " ");
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.refused");
  EXPECT_EQ(refused.message, "model.safetensors.index.json: it has more than 33554432 bytes");
  EXPECT_EQ(refused.remedy, "Use the index file that was published with the shards.");
}

TEST_F(WeightsTest, ReadsAnIndexOf262144TensorsAndNoMore) {
  write("model.safetensors", SafetensorsBuilder().tensor("w", "F32", {1}).bytes());
  write(kIndex, indexOf(262'144));
  EXPECT_EQ(refusal().finding, "weights.partial");  // read, and the shard lacks all but one
  write(kIndex, indexOf(262'145));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.message, "model.safetensors.index.json: it has more than 262144 tensors");
}

// ---- the number of tensors

TEST(SafetensorsHeader, HasAtMost131072Tensors) {
  std::vector<HeaderTensor> tensors;
  EXPECT_THAT(readSafetensorsHeader(shardOf(131'072), tensors), IsOk());
  EXPECT_EQ(tensors.size(), 131'072u);
  EXPECT_THAT(readSafetensorsHeader(shardOf(131'073), tensors),
              StatusIs(Code::Unsupported, "safetensors: the header has more than 131072 tensors"));
}

TEST_F(WeightsTest, TakesAtMost262144TensorsOfAllFiles) {
  const std::string shard = write("1.safetensors", shardOf(131'072));
  fs::create_hard_link(shard, in() + "/2.safetensors");
  EXPECT_EQ(refusal().finding, "tensor.duplicate");  // as many are taken, and looked at
  write("3.safetensors", shardOf(1));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.refused");
  EXPECT_EQ(refused.message, "3.safetensors: with it there are more than 262144 tensors");
  EXPECT_EQ(refused.remedy, "Move away the files that are not the model's.");
}

// ---- the header that is written

// A scalar, which is written anew, with a name of `zeros` zeros.
std::string longNamed(std::size_t zeros) {
  return SafetensorsBuilder()
      .member("model.layers." + std::string(zeros, '0') + ".w",
              R"({"dtype":"F32","shape":[],"data_offsets":[0,4]})")
      .dataBytes(4)
      .bytes();
}

// What is written besides the zeros.
constexpr std::string_view kRest =
    R"({"__metadata__":{"format":"pt"},"model.layers..w":{"dtype":"F32","shape":[1],"data_offsets":[0,4]}})";

TEST(SafetensorsHeader, FitsUpToItsLastByte) {
  // Padded to a multiple of 8 bytes.
  OutputTensor tensor;
  tensor.type = "F32";
  tensor.shape = {1};
  tensor.bytes = 4;
  tensor.name = "model.layers." + std::string(160 - kRest.size(), '0') + ".w";
  EXPECT_TRUE(safetensorsHeaderFits({tensor}, 160));
  EXPECT_FALSE(safetensorsHeaderFits({tensor}, 159));
  tensor.name += 'w';
  EXPECT_TRUE(safetensorsHeaderFits({tensor}, 168));
  EXPECT_FALSE(safetensorsHeaderFits({tensor}, 167));
}

TEST_F(WeightsTest, RefusesToWriteAHeaderOfMoreThan100MB) {
  write("model.safetensors", longNamed(100'000'000 - kRest.size() + 1));
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(refused.finding, "weights.refused");
  EXPECT_EQ(refused.message,
            "model.safetensors: written anew, its header would be longer than 100000000 bytes");
  EXPECT_EQ(refused.remedy, "Give its tensors shorter names.");
}

// ---- deflated storages

class BitWriter {
 public:
  void bit(unsigned value) {
    if (used_ % 8 == 0) bytes_ += '\0';
    bytes_.back() = char(static_cast<unsigned char>(bytes_.back()) | (value << (used_++ % 8)));
  }
  // A Huffman code, its first bit first.
  void code(unsigned value, unsigned bits) {
    while (bits-- > 0)
      bit(value >> bits & 1);
  }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
  std::uint64_t used_ = 0;
};

// `literals`, which are zeros, and 258 zeros `repeats` times, in one block of fixed codes (RFC 1951, 3.2.6).
std::string deflatedZeros(std::size_t literals, std::size_t repeats) {
  BitWriter out;
  out.bit(1);  // the last block
  out.bit(1);  // of fixed codes
  out.bit(0);
  for (std::size_t k = 0; k < literals; ++k)
    out.code(0x30, 8);
  for (std::size_t k = 0; k < repeats; ++k) {
    out.code(0xC5, 8);  // length 258
    out.code(0, 5);     // distance 1
  }
  out.code(0, 7);
  return out.bytes();
}

// A checkpoint with one deflated storage of zeros, whose check sum is wrong.
std::string damagedZip(const std::vector<SavedTensor>& tensors, std::size_t literals, std::size_t repeats) {
  const std::uint64_t bytes = literals + 258 * repeats;
  test::ZipBuilder zip;
  zip.add("archive/data.pkl", SavedPickle().stateDict(tensors).stop());
  zip.add("archive/data/0", deflatedZeros(literals, repeats));
  zip.lieLocal(test::zip_local::kMethod, 8).lieCentral(test::zip_central::kMethod, 8);
  zip.lieLocal(test::zip_local::kUncompressedSize, bytes)
      .lieCentral(test::zip_central::kUncompressedSize, bytes);
  return zip.lieLocal(test::zip_local::kCrc32, 1).lieCentral(test::zip_central::kCrc32, 1).build();
}

constexpr std::size_t kAllowance = std::size_t{64} << 20;  // of bytes that are read for their sum alone

// 1000 bytes are used, and 64 MiB are not; `more` is put on top.
std::string damagedAllowance(std::size_t more) {
  constexpr std::size_t kBytes = kAllowance + 1000;
  return damagedZip({{"w", {250}, {1}, "0", 250}}, kBytes % 258 + more, kBytes / 258);
}

TEST_F(WeightsTest, ChecksTheSumOfAStorageThatIsLittleLongerThanWhatIsUsed) {
  write("pytorch_model.bin", damagedAllowance(0));
  Changes changes;
  try {
    prepareWeights(in(), out(), {}, changes);
    FAIL() << "taken with a wrong sum";
  } catch (const Refused& refused) {
    EXPECT_EQ(refused.exitCode(), 7);
    EXPECT_EQ(refused.finding(), "weights.refused");
    EXPECT_STREQ(refused.what(),
                 "pytorch_model.bin: checkpoint: the archive's entry 'archive/data/0' cannot be read");
  }
}

TEST_F(WeightsTest, LooksNoFurtherIntoAStorageThatIsMuchLonger) {
  write("pytorch_model.bin", damagedAllowance(1));
  prepare();
  EXPECT_EQ(dataOf("model.safetensors", "w"), std::string(1000, '\0'));
}

TEST_F(WeightsTest, ChecksTheSumOfALongStorageThatIsUsedInPart) {
  // A seventeenth of it is used.
  constexpr std::size_t kBytes = std::size_t{17} * 129 * 40'000;
  const std::size_t used = kBytes / 17 / 4;
  write("pytorch_model.bin", damagedZip({{"w", {used}, {1}, "0", used}}, 258, kBytes / 258 - 1));
  EXPECT_EQ(refusal().finding, "weights.refused");
  write("pytorch_model.bin", damagedZip({{"w", {used - 1}, {1}, "0", used}}, 258, kBytes / 258 - 1));
  EXPECT_EQ(refusal().code, 0);
}

// How many bytes are unpacked for the tensors at these positions.
std::size_t unpackedBytes(const std::string& dir, const std::string& out,
                          const std::vector<std::size_t>& positions) {
  WeightFile file;
  file.open(dir, "pytorch_model.bin", false);
  file.unpack(positions, out);
  return file.dataOf(file.tensors()[positions.front()]).bytes.size();
}

TEST_F(WeightsTest, UnpacksAStorageUpToTheLastElementThatIsUsed) {
  std::vector<float> values(100);
  for (int k = 0; k < 100; ++k)
    values[std::size_t(k)] = float(k);
  write("pytorch_model.bin",
        test::savedZip(SavedPickle()
                           .stateDict({{"a", {2}, {1}, "0", 100},
                                       {"b", {2, 2}, {10, 3}, "0", 100, "FloatStorage", 5},
                                       {"c", {3}, {1}, "1", 100, "FloatStorage", 7}})
                           .stop(),
                       {{"0", bytesOf(values)}, {"1", bytesOf(values)}}, "archive", true)
            .build());
  EXPECT_EQ(unpackedBytes(in(), out(), {0}), 4 * 2u);
  EXPECT_EQ(unpackedBytes(in(), out(), {1}), 4 * (5 + 10 + 3 + 1u));
  EXPECT_EQ(unpackedBytes(in(), out(), {1, 0, 2}), 4 * (5 + 10 + 3 + 1u) + 4 * (7 + 3u));
  prepare();
  EXPECT_EQ(dataOf("model.safetensors", "a"), bytesOf<float>({0, 1}));
  EXPECT_EQ(dataOf("model.safetensors", "b"), bytesOf<float>({5, 8, 15, 18}));
  EXPECT_EQ(dataOf("model.safetensors", "c"), bytesOf<float>({7, 8, 9}));
}

}  // namespace
}  // namespace zel::tool::prepare
