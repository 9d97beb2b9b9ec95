// Checkpoints in both forms of torch.save: what is found in them, and what is refused.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "okv2/prepare/torch_archive.h"
#include "support/status_matchers.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bytesOf;
using test::IsOk;
using test::littleEndian;
using test::SavedArray;
using test::savedLegacy;
using test::SavedPickle;
using test::SavedTensor;
using test::savedZip;
using test::StatusIs;
using test::ZipBuilder;
namespace op = test::pickle_op;

struct Parsed {
  explicit Parsed(std::string file) : bytes(std::move(file)) { status = checkpoint.parse(bytes); }
  // The tensor's first bytes, where they are said to lie.
  [[nodiscard]] std::string at(const TorchTensor& tensor, std::size_t size) const {
    return bytes.substr(checkpoint.storages()[tensor.storage].fileOffset + tensor.begin, size);
  }
  std::string bytes;
  TorchCheckpoint checkpoint;
  Status status;
};

const std::vector<SavedTensor> kTwoTensors = {{"a", {2, 2}, {2, 1}, "0", 4},
                                              {"b", {2}, {1}, "1", 3, "HalfStorage", 1}};
const std::string kFloats = bytesOf<float>({1, 2, 3, 4});
const std::string kHalves = "ABCDEF";

std::string twoTensors() { return SavedPickle().stateDict(kTwoTensors).stop(); }
ZipBuilder goodZip() { return savedZip(twoTensors(), {{"0", kFloats}, {"1", kHalves}}); }

// ---- the zip form

TEST(TorchZip, FindsEveryTensorWhereItLies) {
  const Parsed parsed(goodZip().build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 2u);
  const TorchTensor& a = parsed.checkpoint.tensors()[0];
  const TorchTensor& b = parsed.checkpoint.tensors()[1];
  EXPECT_EQ(a.name, "a");
  EXPECT_EQ(a.type->name, "F32");
  EXPECT_EQ(a.shape, (std::vector<std::uint64_t>{2, 2}));
  EXPECT_EQ(parsed.at(a, 16), kFloats);
  EXPECT_EQ(b.name, "b");
  EXPECT_EQ(b.type->name, "F16");
  EXPECT_EQ(parsed.at(b, 4), "CDEF");
}

TEST(TorchZip, TakesAnyFolderAndNone) {
  EXPECT_THAT(Parsed(savedZip(twoTensors(), {{"0", kFloats}, {"1", kHalves}}, "any name").build()).status,
              IsOk());
  ZipBuilder flat;
  flat.add("data.pkl", twoTensors()).add("data/0", kFloats).add("data/1", kHalves);
  EXPECT_THAT(Parsed(flat.build()).status, IsOk());
}

TEST(TorchZip, UnpacksDeflatedEntriesToTheirBytes) {
  Parsed parsed(savedZip(twoTensors(), {{"0", kFloats}, {"1", kHalves}}, "archive", true).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_TRUE(parsed.checkpoint.storages()[1].deflated);
  std::string out;
  EXPECT_THAT(parsed.checkpoint.inflate(parsed.checkpoint.storages()[1],
                                        [&](std::string_view piece) {
                                          out += piece;
                                          return true;
                                        }),
              IsOk());
  EXPECT_EQ(out, kHalves);
}

TEST(TorchZip, TellsADeflatedEntryWithAWrongSum) {
  ZipBuilder zip;
  zip.add("archive/data.pkl", SavedPickle().stateDict({{"a", {4}, {1}, "0", 4}}).stop());
  test::addDeflated(zip, "archive/data/0", kFloats).lieCentral(test::zip_central::kCrc32, 1);
  Parsed parsed(zip.build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_THAT(
      parsed.checkpoint.inflate(parsed.checkpoint.storages()[0], [](std::string_view) { return true; }),
      StatusIs(Code::Corrupted, "checkpoint: the archive's entry 'archive/data/0' cannot be read"));
}

TEST(TorchZip, TellsADeflatedEntryWithMoreThanItDeclares) {
  ZipBuilder zip;
  zip.add("archive/data.pkl", SavedPickle().stateDict({{"a", {3}, {1}, "0", 3}}).stop());
  test::addDeflated(zip, "archive/data/0", kFloats).lieCentral(test::zip_central::kUncompressedSize, 12);
  Parsed parsed(zip.build());
  ASSERT_THAT(parsed.status, IsOk());
  std::uint64_t handed = 0;
  EXPECT_THAT(parsed.checkpoint.inflate(parsed.checkpoint.storages()[0],
                                        [&](std::string_view piece) {
                                          handed += piece.size();
                                          return true;
                                        }),
              StatusIs(Code::Corrupted, "checkpoint: the archive's entry 'archive/data/0' cannot be read"));
  EXPECT_EQ(handed, 12u);
}

TEST(TorchZip, RefusesADeclarationThatDeflateCannotHold) {
  ZipBuilder zip;
  zip.add("archive/data.pkl", twoTensors());
  test::addDeflated(zip, "archive/data/0", kFloats)
      .lieCentral(test::zip_central::kUncompressedSize, 21 * 1032 + 1);
  EXPECT_THAT(Parsed(zip.build()).status,
              StatusIs(Code::Corrupted,
                       "checkpoint: the archive's entry 'archive/data/0' declares 21673 bytes, "
                       "which do not fit in it"));
}

TEST(TorchZip, RefusesEntriesThatOverlapToSayMoreThanTheFile) {
  // Every storage is the same deflated entry.
  std::vector<SavedTensor> tensors;
  const std::string big(3000, 'x');
  for (int k = 0; k < 40; ++k)
    tensors.push_back({"t" + std::to_string(k), {1}, {1}, std::to_string(k), 750});
  ZipBuilder zip;
  zip.add("archive/data.pkl", SavedPickle().stateDict(tensors).stop());
  test::addDeflated(zip, "archive/data/0", big);
  const std::uint64_t first = zip.localOffset(1);
  for (int k = 1; k < 40; ++k) {
    zip.add("archive/data/" + std::to_string(k), "");
    namespace c = test::zip_central;
    zip.lieCentral(c::kMethod, 8).lieCentral(c::kCompressedSize, test::deflateStored(big).size());
    zip.lieCentral(c::kUncompressedSize, big.size()).lieCentral(c::kLocalOffset, first);
  }
  EXPECT_THAT(Parsed(zip.build()).status,
              StatusIs(Code::Corrupted, "checkpoint: the archive's entries overlap"));
}

TEST(TorchZip, RefusesAStorageThatIsOneByteTooShort) {
  EXPECT_THAT(Parsed(savedZip(twoTensors(), {{"0", kFloats}, {"1", "ABCDE"}}).build()).status,
              StatusIs(Code::Corrupted, "checkpoint: storage '1' has 5 bytes, 6 are declared"));
}

TEST(TorchZip, MeasuresEveryDeclarationOfAStorage) {
  const std::string program =
      SavedPickle().stateDict({{"a", {4}, {1}, "0", 4}, {"b", {5}, {1}, "0", 5}}).stop();
  EXPECT_THAT(Parsed(savedZip(program, {{"0", kFloats}}).build()).status,
              StatusIs(Code::Corrupted, "checkpoint: storage '0' has 16 bytes, 20 are declared"));
}

TEST(TorchZip, RefusesAMissingStorage) {
  EXPECT_THAT(Parsed(savedZip(twoTensors(), {{"0", kFloats}}).build()).status,
              StatusIs(Code::Corrupted, "checkpoint: the archive has no entry 'archive/data/1'"));
}

TEST(TorchZip, RefusesAnArchiveWithoutAProgram) {
  EXPECT_THAT(Parsed(ZipBuilder().add("archive/version", "3\n").build()).status,
              StatusIs(Code::Corrupted, "checkpoint: the archive has no entry 'archive/data.pkl'"));
}

TEST(TorchZip, RefusesAnEmptyArchive) {
  EXPECT_THAT(Parsed(ZipBuilder().build()).status,
              StatusIs(Code::Corrupted, "checkpoint: the archive is empty"));
}

TEST(TorchZip, RefusesBigEndianBytes) {
  ZipBuilder zip;
  zip.add("archive/data.pkl", twoTensors()).add("archive/byteorder", "big");
  EXPECT_THAT(Parsed(zip.build()).status,
              StatusIs(Code::Unsupported, "checkpoint: its byte order is not little-endian"));
}

TEST(TorchZip, RefusesOtherCompression) {
  ZipBuilder zip;
  zip.add("archive/data.pkl", twoTensors()).lieCentral(test::zip_central::kMethod, 12);
  EXPECT_THAT(Parsed(zip.build()).status,
              StatusIs(Code::Unsupported,
                       "checkpoint: the archive's entry 'archive/data.pkl' is compressed by "
                       "method 12"));
}

TEST(TorchZip, RefusesEncryption) {
  ZipBuilder zip;
  zip.add("archive/data.pkl", twoTensors()).lieCentral(test::zip_central::kFlags, 1);
  EXPECT_THAT(Parsed(zip.build()).status,
              StatusIs(Code::Unsupported, "checkpoint: the archive's entry 'archive/data.pkl' is encrypted"));
}

TEST(TorchZip, SurvivesEveryTruncation) {
  const std::string whole = goodZip().build();
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_FALSE(Parsed(whole.substr(0, size)).status.ok()) << size;
}

// An archive of no bytes whose 64-bit records claim `entries` entries (APPNOTE 4.3.14).
std::string zip64Claim(std::uint64_t entries) {
  return "PK\x05\x06" + std::string(18, '\0') + "PK\x06\x06" + littleEndian(44, 8) + littleEndian(45, 2) +
         littleEndian(45, 2) + std::string(8, '\0') + littleEndian(entries, 8) + littleEndian(entries, 8) +
         littleEndian(0, 8) + littleEndian(0, 8) + "PK\x06\x07" + std::string(4, '\0') + littleEndian(22, 8) +
         littleEndian(1, 4) + "PK\x05\x06" + std::string(4, '\0') + std::string(4, '\xff') +
         std::string(8, '\xff') + std::string(2, '\0');
}
TEST(TorchZip, MakesNoRoomForEntriesThatAreNotThere) {
  for (const std::uint64_t entries : {std::uint64_t{1} << 20, std::uint64_t{1} << 40, ~std::uint64_t{0}})
    EXPECT_EQ(Parsed(zip64Claim(entries)).status.code(), Code::Corrupted) << entries;
}

TEST(TorchZip, ReadsSizesAndOffsetsOf64Bits) {
  // Both sizes and the offset of the last entry in its zip64 extra field (APPNOTE 4.5.3).
  ZipBuilder zip;
  zip.add("archive/data.pkl", SavedPickle().stateDict({{"a", {4}, {1}, "0", 4}}).stop());
  const std::uint64_t offset = zip.localOffset(1);
  namespace c = test::zip_central;
  zip.add("archive/data/0", kFloats)
      .centralExtra(littleEndian(1, 2) + littleEndian(24, 2) + littleEndian(16, 8) + littleEndian(16, 8) +
                    littleEndian(offset, 8))
      .lieCentral(c::kUncompressedSize, 0xffffffff)
      .lieCentral(c::kCompressedSize, 0xffffffff)
      .lieCentral(c::kLocalOffset, 0xffffffff);
  const Parsed parsed(zip.build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[0], 16), kFloats);
}

// ---- the form before

std::string legacyTwoTensors() { return SavedPickle().stateDict(kTwoTensors, true).stop(); }

TEST(TorchLegacy, FindsEveryTensorWhereItLies) {
  const Parsed parsed(savedLegacy(legacyTwoTensors(), {{"1", 3, kHalves}, {"0", 4, kFloats}}));
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 2u);
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[0], 16), kFloats);
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[1], 4), "CDEF");
}

std::string viewPickle(std::uint64_t begin, std::uint64_t count, std::uint64_t shape) {
  return SavedPickle()
      .orderedDict()
      .text("a")
      .global("torch._utils", "_rebuild_tensor")
      .op(op::kMark)
      .op(op::kMark)
      .text("storage")
      .global("torch", "FloatStorage")
      .text("0")
      .text("cpu")
      .number(4)
      .op(op::kMark)
      .text("view")
      .number(begin)
      .number(count)
      .op(op::kTuple)
      .op(op::kTuple)
      .op(op::kBinPersId)
      .number(0)
      .tuple({shape})
      .tuple({1})
      .op(op::kTuple)
      .op(op::kReduce)
      .op(op::kSetItem)
      .stop();
}
TEST(TorchLegacy, CountsFromTheBeginningOfAView) {
  const Parsed parsed(savedLegacy(viewPickle(1, 2, 2), {{"0", 4, kFloats}}));
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[0], 8), bytesOf<float>({2, 3}));
}
TEST(TorchLegacy, RefusesATensorThatLeavesItsView) {
  EXPECT_EQ(Parsed(savedLegacy(viewPickle(1, 2, 3), {{"0", 4, kFloats}})).status.code(), Code::Corrupted);
}
TEST(TorchLegacy, RefusesAViewThatLeavesItsStorage) {
  EXPECT_THAT(Parsed(savedLegacy(viewPickle(3, 1, 1), {{"0", 4, kFloats}})).status, IsOk());
  EXPECT_EQ(Parsed(savedLegacy(viewPickle(3, 2, 1), {{"0", 4, kFloats}})).status.code(), Code::Corrupted);
}

TEST(TorchLegacy, RefusesAStorageOfMoreBytesThanCanBeCounted) {
  // The view that the tensor lies in is small, the storage around it is not.
  std::string program = viewPickle(0, 2, 2);
  const std::string four = SavedPickle::bare().number(4).bytes();
  program.replace(program.find(four), four.size(),
                  SavedPickle::bare().number(std::uint64_t{1} << 62).bytes());
  EXPECT_THAT(
      Parsed(savedLegacy(program, {{"0", 4, kFloats}})).status,
      StatusIs(Code::Corrupted, "checkpoint: storage '0' has 16 bytes, 18446744073709551615 are declared"));
}

struct LegacyRow {
  const char* name;
  std::string file;
  Code code;
  const char* message;
};
class TorchLegacyRefusals : public testing::TestWithParam<LegacyRow> {};
TEST_P(TorchLegacyRefusals, HaveTheirMessage) {
  EXPECT_THAT(Parsed(GetParam().file).status,
              StatusIs(GetParam().code, std::string("checkpoint: ") + GetParam().message));
}
std::string legacyHead() { return test::legacyMagic() + test::legacyProtocol() + test::legacySystem(); }
INSTANTIATE_TEST_SUITE_P(
    All, TorchLegacyRefusals,
    testing::Values(
        LegacyRow{"AnotherPickle", SavedPickle().op(op::kNone).stop(), Code::Unsupported,
                  "it is a pickle that torch.save did not write"},
        LegacyRow{"AnotherProtocol", test::legacyMagic() + test::legacyProtocol(1000), Code::Unsupported,
                  "its protocol is not 1001"},
        LegacyRow{"BigEndian", test::legacyMagic() + test::legacyProtocol() + test::legacySystem(false),
                  Code::Unsupported, "its byte order is not little-endian"},
        LegacyRow{"NoSystem",
                  test::legacyMagic() + test::legacyProtocol() + SavedPickle().op(op::kNone).stop(),
                  Code::Corrupted, "it does not say on which system it was written"},
        LegacyRow{"NoKeys", legacyHead() + legacyTwoTensors() + SavedPickle().op(op::kNone).stop(),
                  Code::Corrupted, "it does not list its storages"},
        LegacyRow{"KeyThatIsNoText",
                  legacyHead() + legacyTwoTensors() +
                      SavedPickle().op(op::kEmptyList).op(op::kNone).op(op::kAppend).stop(),
                  Code::Corrupted, "a storage's key is no text"},
        LegacyRow{"StorageOfNobody", savedLegacy(legacyTwoTensors(), {{"7", 0, ""}}), Code::Corrupted,
                  "storage '7' belongs to no tensor"},
        LegacyRow{"StorageTwice", savedLegacy(legacyTwoTensors(), {{"0", 0, ""}, {"0", 0, ""}}),
                  Code::Corrupted, "storage '0' comes twice"},
        LegacyRow{"MissingStorage", savedLegacy(legacyTwoTensors(), {{"0", 4, kFloats}}), Code::Corrupted,
                  "storage '1' is not in the file"},
        LegacyRow{"ShorterStorage",
                  savedLegacy(legacyTwoTensors(), {{"0", 3, kFloats.substr(4)}, {"1", 3, kHalves}}),
                  Code::Corrupted, "storage '0' has 12 bytes, 16 are declared"},
        LegacyRow{"CutStorage", savedLegacy(legacyTwoTensors(), {{"0", 4, kFloats}, {"1", 3, "ABCDE"}}),
                  Code::Corrupted, "storage '1' has 5 bytes, 6 are declared"},
        LegacyRow{"WrappingCount", savedLegacy(legacyTwoTensors(), {{"0", std::uint64_t{1} << 62, kFloats}}),
                  Code::Corrupted, "it ends before storage '0'"}),
    [](const auto& row) { return row.param.name; });

TEST(TorchLegacy, SurvivesEveryTruncation) {
  const std::string whole = savedLegacy(legacyTwoTensors(), {{"0", 4, kFloats}, {"1", 3, kHalves}});
  ASSERT_THAT(Parsed(whole).status, IsOk());
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_FALSE(Parsed(whole.substr(0, size)).status.ok()) << size;
}

// ---- arrays of numpy's, which lie in the program

// Bytes from 0 to 255, again and again.
std::string everyByte(std::size_t size) {
  std::string out;
  for (std::size_t k = 0; k < size; ++k)
    out += static_cast<char>(static_cast<unsigned char>(k));
  return out;
}
std::string unpacked(TorchCheckpoint& checkpoint, const TorchStorage& storage) {
  std::string out;
  EXPECT_THAT(checkpoint.inflate(storage,
                                 [&](std::string_view piece) {
                                   out += piece;
                                   return true;
                                 }),
              IsOk());
  return out;
}
// A tensor "w" of storage "0", then the array "a".
SavedPickle withArray(const SavedArray& array, bool legacy) {
  return SavedPickle().stateDict({{"w", {4}, {1}, "0", 4}}, legacy).text("a").array(array).op(op::kSetItem);
}

TEST(TorchZip, FindsAnArrayBesideATensor) {
  const SavedArray array{{2, 64}, everyByte(256), "f2", true};
  Parsed parsed(savedZip(withArray(array, false).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 2u);
  const TorchTensor& a = parsed.checkpoint.tensors()[1];
  EXPECT_EQ(a.name, "a");
  EXPECT_EQ(a.type->name, "F16");
  EXPECT_EQ(a.shape, (std::vector<std::uint64_t>{2, 64}));
  EXPECT_EQ(a.strides, (std::vector<std::uint64_t>{1, 2}));
  const TorchStorage& storage = parsed.checkpoint.storages().at(a.storage);
  EXPECT_TRUE(storage.isPacked());
  EXPECT_FALSE(storage.deflated);
  EXPECT_EQ(storage.bytes, 256u);
  EXPECT_EQ(unpacked(parsed.checkpoint, storage), everyByte(256));
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[0], 16), kFloats);
}

TEST(TorchZip, DoesNotCallAStorageInTheFilePacked) {
  const Parsed parsed(goodZip().build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_FALSE(parsed.checkpoint.storages().at(0).isPacked());
}

TEST(TorchLegacy, FindsAnArrayThatItsListOfStoragesDoesNotName) {
  const SavedArray array{{256}, everyByte(256), "u1", false, "|"};
  Parsed parsed(savedLegacy(withArray(array, true).stop(), {{"0", 4, kFloats}}));
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 2u);
  const TorchStorage& storage = parsed.checkpoint.storages().at(parsed.checkpoint.tensors()[1].storage);
  EXPECT_EQ(unpacked(parsed.checkpoint, storage), everyByte(256));
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[0], 16), kFloats);
}

TEST(TorchCheckpoint, MayHoldNothingButArrays) {
  const SavedPickle program =
      SavedPickle().op(op::kEmptyDict).text("a").array({{1}, "abcd"}).op(op::kSetItem);
  for (const std::string& file : {savedZip(program.stop(), {}).build(), savedLegacy(program.stop(), {})}) {
    Parsed parsed(file);
    ASSERT_THAT(parsed.status, IsOk());
    ASSERT_EQ(parsed.checkpoint.storages().size(), 1u);
    EXPECT_EQ(unpacked(parsed.checkpoint, parsed.checkpoint.storages()[0]), "abcd");
  }
}

TEST(TorchCheckpoint, KeepsArraysApart) {
  const SavedPickle program = SavedPickle()
                                  .op(op::kEmptyDict)
                                  .text("a")
                                  .array({{1}, "abcd"})
                                  .op(op::kSetItem)
                                  .text("b")
                                  .array({{1}, "efgh"})
                                  .op(op::kSetItem);
  Parsed parsed(savedZip(program.stop(), {}).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.storages().size(), 2u);
  EXPECT_EQ(unpacked(parsed.checkpoint, parsed.checkpoint.storages()[0]), "abcd");
  EXPECT_EQ(unpacked(parsed.checkpoint, parsed.checkpoint.storages()[1]), "efgh");
}

TEST(TorchCheckpoint, HasOneStorageForAnArrayOfTwoNames) {
  const SavedPickle program = SavedPickle()
                                  .op(op::kEmptyDict)
                                  .text("a")
                                  .array({{1}, "abcd"})
                                  .op(op::kBinPut, "\1")
                                  .op(op::kSetItem)
                                  .text("b")
                                  .op(op::kBinGet, "\1")
                                  .op(op::kSetItem);
  const Parsed parsed(savedZip(program.stop(), {}).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 2u);
  EXPECT_EQ(parsed.checkpoint.storages().size(), 1u);
  EXPECT_EQ(parsed.checkpoint.tensors()[1].storage, 0u);
}

// 65536 bytes make a piece.
class TorchArrayPieces : public testing::TestWithParam<bool> {
 protected:
  static std::string file(std::size_t size) {
    SavedPickle raw = SavedPickle::bare();
    if (GetParam()) {
      raw.latin1(test::latin1Text(everyByte(size)));
    } else {
      raw.op(op::kBinBytes, littleEndian(size, 4)).raw(everyByte(size));
    }
    SavedPickle program;
    program.op(op::kEmptyDict).text("a").unfilledArray();
    program.arrayState({size}, SavedPickle::bare().numberType("u1", "|"), false, raw).op(op::kSetItem);
    return savedLegacy(program.stop(), {});
  }
};
TEST_P(TorchArrayPieces, MakeItWhole) {
  for (const std::size_t size : {65535, 65536, 65537, 200000}) {
    Parsed parsed(file(size));
    ASSERT_THAT(parsed.status, IsOk());
    EXPECT_TRUE(unpacked(parsed.checkpoint, parsed.checkpoint.storages()[0]) == everyByte(size)) << size;
  }
}
TEST_P(TorchArrayPieces, EndWhenNoMoreAreWanted) {
  Parsed parsed(file(200000));
  ASSERT_THAT(parsed.status, IsOk());
  std::size_t pieces = 0;
  EXPECT_THAT(parsed.checkpoint.inflate(parsed.checkpoint.storages()[0],
                                        [&](std::string_view piece) {
                                          EXPECT_EQ(piece, everyByte(65536));
                                          return ++pieces < 2;
                                        }),
              IsOk());
  EXPECT_EQ(pieces, 2u);
}
INSTANTIATE_TEST_SUITE_P(All, TorchArrayPieces, testing::Bool(),
                         [](const auto& row) { return row.param ? "Encoded" : "AsTheyAre"; });

// The file changes after its program was run: "\xc3\xbf" becomes `now`.
Status unpackedAfterAChange(std::string_view now, std::uint64_t& handed) {
  SavedPickle program;
  program.op(op::kEmptyDict).text("a").array({{4}, "abc\xff", "u1", false, "|"}).op(op::kSetItem);
  Parsed parsed(savedLegacy(program.stop(), {}));
  EXPECT_THAT(parsed.status, IsOk());
  parsed.bytes.replace(parsed.bytes.find("\xc3\xbf"), 2, now);
  handed = 0;
  return parsed.checkpoint.inflate(parsed.checkpoint.storages().at(0), [&](std::string_view piece) {
    handed += piece.size();
    return true;
  });
}
TEST(TorchLegacy, TellsAnArrayThatIsNoTextAnyMore) {
  std::uint64_t handed;
  EXPECT_THAT(unpackedAfterAChange("\xff\xff", handed),
              StatusIs(Code::Corrupted, "checkpoint: a numpy array cannot be read"));
  EXPECT_EQ(handed, 3u);
}
TEST(TorchLegacy, HandsOutNoMoreOfAnArrayThatBecameLonger) {
  std::uint64_t handed;
  EXPECT_THAT(unpackedAfterAChange("de", handed), IsOk());
  EXPECT_EQ(handed, 4u);
}
TEST(TorchLegacy, TellsAnArrayThatBecameShorter) {
  SavedPickle program;
  program.op(op::kEmptyDict).text("a").array({{4}, "abcd", "u1", false, "|"}).op(op::kSetItem);
  Parsed parsed(savedLegacy(program.stop(), {}));
  ASSERT_THAT(parsed.status, IsOk());
  parsed.bytes.replace(parsed.bytes.find("abcd"), 4, "\xc2\x80\xc2\x80");
  std::uint64_t handed = 0;
  EXPECT_THAT(parsed.checkpoint.inflate(parsed.checkpoint.storages().at(0),
                                        [&](std::string_view piece) {
                                          handed += piece.size();
                                          return true;
                                        }),
              StatusIs(Code::Corrupted, "checkpoint: a numpy array cannot be read"));
  EXPECT_EQ(handed, 2u);
}

// ---- other formats, and what is in the program

TEST(TorchCheckpoint, NamesTheTarForm) {
  std::string tar(512, '\0');
  tar.replace(257, 5, "ustar");
  EXPECT_THAT(Parsed(tar).status,
              StatusIs(Code::Unsupported, "checkpoint: it is a tar archive, the oldest form of torch.save"));
}

TEST(TorchCheckpoint, NamesAnythingElse) {
  EXPECT_THAT(Parsed("none").status,
              StatusIs(Code::Unsupported, "checkpoint: it is neither a zip archive nor a pickle"));
}

Status programStatus(const SavedPickle& program) {
  return Parsed(savedZip(program.stop(), {{"0", kFloats}}).build()).status;
}
const SavedTensor kTensor{"w", {4}, {1}, "0", 4};

TEST(TorchStateDict, CallsTheOnlyTensorTensor) {
  const Parsed parsed(savedZip(SavedPickle().tensor(kTensor).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.naming(), TensorNaming::Single);
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 1u);
  EXPECT_EQ(parsed.checkpoint.tensors()[0].name, "tensor");
  EXPECT_EQ(parsed.at(parsed.checkpoint.tensors()[0], 16), kFloats);
}
TEST(TorchStateDict, CallsTheTensorsOfAListByTheirPositions) {
  SavedPickle program;
  program.op(op::kEmptyList).op(op::kMark).op(op::kNone).tensor(kTensor);
  program.op(op::kEmptyList).tensor(kTensor).op(op::kAppend).tensor(kTensor).op(op::kAppends);
  const Parsed parsed(savedZip(program.stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.naming(), TensorNaming::Positions);
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 2u);
  EXPECT_EQ(parsed.checkpoint.tensors()[0].name, "1");
  EXPECT_EQ(parsed.checkpoint.tensors()[1].name, "3");
  ASSERT_EQ(parsed.checkpoint.others().size(), 2u);
  EXPECT_EQ(parsed.checkpoint.others()[0].name, "0");
  EXPECT_EQ(parsed.checkpoint.others()[0].what, "None");
  EXPECT_FALSE(parsed.checkpoint.others()[0].mayHoldWeights);
  EXPECT_EQ(parsed.checkpoint.others()[1].name, "2");
  EXPECT_EQ(parsed.checkpoint.others()[1].what, "a list");
  EXPECT_TRUE(parsed.checkpoint.others()[1].mayHoldWeights);
}
TEST(TorchStateDict, CallsTheTensorsOfATupleByTheirPositions) {
  const Parsed parsed(
      savedZip(SavedPickle().tensor(kTensor).op(op::kTuple1).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.naming(), TensorNaming::Positions);
  ASSERT_EQ(parsed.checkpoint.tensors().size(), 1u);
  EXPECT_EQ(parsed.checkpoint.tensors()[0].name, "0");
}
TEST(TorchStateDict, KeepsTheNamesOfADictionary) {
  const Parsed parsed(goodZip().build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.naming(), TensorNaming::Own);
}
TEST(TorchStateDict, RefusesAListWithoutTensors) {
  EXPECT_THAT(
      programStatus(SavedPickle().op(op::kEmptyList).op(op::kNone).op(op::kAppend)),
      StatusIs(Code::Unsupported, "checkpoint: it holds a list instead of a dictionary of tensors by name"));
}
TEST(TorchStateDict, TakesAListOfAtMost131072Entries) {
  const auto listOf = [](std::size_t entries) {
    SavedPickle program;
    program.tensor({"", {1}, {1}, "0", 1}).op(op::kBinPut, std::string(1, '\0')).op(op::kPop);
    program.op(op::kEmptyList).op(op::kMark);
    program.repeat(entries, std::string{op::kBinGet, '\0'});
    return savedZip(program.op(op::kAppends).stop(), {{"0", bytesOf<float>({1})}}).build();
  };
  const Parsed most(listOf(131'072));
  ASSERT_THAT(most.status, IsOk());
  EXPECT_EQ(most.checkpoint.tensors().back().name, "131071");
  EXPECT_THAT(Parsed(listOf(131'073)).status,
              StatusIs(Code::Unsupported, "checkpoint: a list has more than 131072 entries"));
}
TEST(TorchStateDict, RefusesADictionaryOfOtherThings) {
  EXPECT_THAT(programStatus(SavedPickle().op(op::kEmptyDict).text("a").op(op::kNone).op(op::kSetItem)),
              StatusIs(Code::Unsupported, "checkpoint: it holds no dictionary of tensors by name"));
}
TEST(TorchStateDict, RefusesAKeyThatIsNoText) {
  EXPECT_THAT(programStatus(SavedPickle().op(op::kEmptyDict).op(op::kNone).tensor(kTensor).op(op::kSetItem)),
              StatusIs(Code::Unsupported, "checkpoint: a key of the dictionary of tensors is None"));
}
TEST(TorchStateDict, RefusesAKeyThatComesTwice) {
  EXPECT_THAT(programStatus(SavedPickle().stateDict({kTensor, kTensor})),
              StatusIs(Code::Unsupported, "checkpoint: the dictionary of tensors has 'w' twice"));
}

SavedPickle wrapped(const std::vector<std::string>& keys) {
  SavedPickle program;
  program.op(op::kEmptyDict).op(op::kMark).text("epoch").number(3);
  for (const std::string& key : keys)
    program.text(key).stateDict({kTensor});
  return program.op(op::kSetItems);
}
// One tensor under as many names.
std::string namedOften(std::size_t names) {
  SavedPickle program;
  program.op(op::kEmptyDict).tensor({"", {1}, {1}, "0", 1}).op(op::kBinPut, std::string(1, '\0'));
  program.op(op::kPop).op(op::kMark);
  for (std::size_t k = 0; k < names; ++k)
    program.text(std::to_string(k)).op(op::kBinGet, std::string(1, '\0'));
  return savedZip(program.op(op::kSetItems).stop(), {{"0", bytesOf<float>({1})}}).build();
}
TEST(TorchStateDict, HasAtMost131072Keys) {
  const Parsed most(namedOften(131'072));
  ASSERT_THAT(most.status, IsOk());
  EXPECT_EQ(most.checkpoint.tensors().size(), 131'072u);
  EXPECT_THAT(Parsed(namedOften(131'073)).status,
              StatusIs(Code::Unsupported, "checkpoint: a dictionary has more than 131072 entries"));
}
TEST(TorchStateDict, HasAtMost131072KeysBesideIt) {
  const auto beside = [](std::size_t keys) {
    SavedPickle program;
    program.op(op::kEmptyDict).op(op::kMark).text("state_dict").stateDict({{"w", {1}, {1}, "0", 1}});
    for (std::size_t k = 0; k < keys; ++k)
      program.text(std::to_string(k)).op(op::kNone);
    return savedZip(program.op(op::kSetItems).stop(), {{"0", bytesOf<float>({1})}}).build();
  };
  EXPECT_THAT(Parsed(beside(131'072)).status, IsOk());
  EXPECT_THAT(Parsed(beside(131'073)).status,
              StatusIs(Code::Unsupported, "checkpoint: a dictionary has more than 131072 entries"));
}

TEST(TorchStateDict, IsTakenFromUnderAKnownKeyBeforeOthers) {
  const Parsed parsed(savedZip(wrapped({"ema", "state_dict"}).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.within(), "state_dict");
  ASSERT_EQ(parsed.checkpoint.others().size(), 2u);
  EXPECT_EQ(parsed.checkpoint.others()[0].name, "epoch");
  EXPECT_EQ(parsed.checkpoint.others()[0].what, "a number");
  EXPECT_EQ(parsed.checkpoint.others()[1].name, "ema");
  EXPECT_FALSE(parsed.checkpoint.others()[1].mayHoldWeights);
}
TEST(TorchStateDict, IsTakenFromUnderAnyKeyWhenThereIsOnlyOne) {
  const Parsed parsed(savedZip(wrapped({"my_model"}).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.within(), "my_model");
}

// ---- arrays of numpy's beside it

const SavedArray kArray{{1}, "abcd"};
SavedPickle arrayDict() {
  return SavedPickle::bare().op(op::kEmptyDict).text("mean").array(kArray).op(op::kSetItem);
}
TEST(TorchStateDict, IsTakenFromBesideABigEndianArray) {
  SavedPickle program = wrapped({"state_dict"}).text("mean");
  program.array({{1}, "abcd", "f4", false, ">"}).op(op::kSetItem);
  const Parsed parsed(savedZip(program.stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.others().size(), 2u);
  EXPECT_EQ(parsed.checkpoint.others()[1].what, "a big-endian numpy array");
  EXPECT_FALSE(parsed.checkpoint.others()[1].mayHoldWeights);
}
TEST(TorchStateDict, RefusesABigEndianArrayAlone) {
  EXPECT_THAT(programStatus(SavedPickle().array({{1}, "abcd", "f4", false, ">"})),
              StatusIs(Code::Unsupported,
                       "checkpoint: it holds a big-endian numpy array instead of a dictionary of tensors by "
                       "name"));
}
TEST(TorchStateDict, MayHoldNothingButArrays) {
  for (const char* key : {"model", "my_model"}) {
    SavedPickle program;
    program.op(op::kEmptyDict).text(key).raw(arrayDict().bytes()).op(op::kSetItem);
    const Parsed parsed(savedZip(program.stop(), {}).build());
    ASSERT_THAT(parsed.status, IsOk()) << key;
    EXPECT_EQ(parsed.checkpoint.within(), key);
    ASSERT_EQ(parsed.checkpoint.tensors().size(), 1u) << key;
    EXPECT_EQ(parsed.checkpoint.tensors()[0].name, "mean") << key;
  }
}
TEST(TorchStateDict, OfArraysIsNotChosenAmongSeveral) {
  SavedPickle program;
  program.op(op::kEmptyDict).text("a").raw(arrayDict().bytes()).op(op::kSetItem);
  program.text("b").raw(arrayDict().bytes()).op(op::kSetItem);
  EXPECT_THAT(
      programStatus(program),
      StatusIs(Code::Unsupported, "checkpoint: it holds more than one dictionary of tensors: 'a', 'b'"));
}

TEST(TorchStateDict, IsNotChosenAmongSeveral) {
  EXPECT_THAT(
      programStatus(wrapped({"a", "b"})),
      StatusIs(Code::Unsupported, "checkpoint: it holds more than one dictionary of tensors: 'a', 'b'"));
}
TEST(TorchStateDict, ShowsTheFirst200BytesOfItsKeysWhereThereAreSeveral) {
  const std::string most(200, 'k');
  EXPECT_THAT(programStatus(wrapped({most, most + "x"})),
              StatusIs(Code::Unsupported, "checkpoint: it holds more than one dictionary of tensors: '" +
                                              most + "', '" + most + "'"));
}
TEST(TorchStateDict, ShowsTheFirst200BytesOfAKeyThatComesTwice) {
  for (const char* rest : {"", "x"}) {
    const SavedTensor tensor{std::string(200, 'k') + rest, {4}, {1}, "0", 4};
    EXPECT_THAT(programStatus(SavedPickle().stateDict({tensor, tensor})),
                StatusIs(Code::Unsupported,
                         "checkpoint: the dictionary of tensors has '" + std::string(200, 'k') + "' twice"))
        << rest;
  }
}
TEST(TorchStateDict, RefusesALongWrapperThatEveryNameWouldCarry) {
  EXPECT_THAT(programStatus(wrapped({std::string(256, 'k')})), IsOk());
  EXPECT_THAT(programStatus(wrapped({std::string(257, 'k')})),
              StatusIs(Code::Unsupported,
                       "checkpoint: the key of the dictionary of tensors has more than 256 bytes"));
}
TEST(TorchStateDict, NamesWhatIsBesideItOnce) {
  SavedPickle program;
  program.op(op::kEmptyDict).op(op::kMark).text("state_dict").stateDict({kTensor});
  for (int k = 0; k < 3; ++k)
    program.text("again").op(op::kNone);
  const Parsed parsed(savedZip(program.op(op::kSetItems).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  EXPECT_EQ(parsed.checkpoint.others().size(), 1u);
}
// A tensor in a tuple in a list in a dictionary.
SavedPickle threeDeep() {
  SavedPickle program = SavedPickle::bare().op(op::kEmptyDict).text("a").op(op::kEmptyList);
  return program.tensor(kTensor).op(op::kTuple1).op(op::kAppend).op(op::kSetItem);
}
TEST(TorchStateDict, SaysWhenTensorsLieSeveralContainersDeeper) {
  SavedPickle dict = SavedPickle().stateDict({kTensor}).text("deep");
  dict.raw(threeDeep().bytes()).op(op::kSetItem);
  SavedPickle list = SavedPickle().op(op::kEmptyList).tensor(kTensor).op(op::kAppend);
  list.raw(threeDeep().bytes()).op(op::kAppend);
  for (const SavedPickle& program : {dict, list}) {
    const Parsed parsed(savedZip(program.stop(), {{"0", kFloats}}).build());
    ASSERT_THAT(parsed.status, IsOk());
    ASSERT_EQ(parsed.checkpoint.others().size(), 1u);
    EXPECT_EQ(parsed.checkpoint.others()[0].what, "a dictionary");
    EXPECT_TRUE(parsed.checkpoint.others()[0].mayHoldWeights);
  }
}
TEST(TorchStateDict, SaysWhenContainersHoldNoTensors) {
  SavedPickle program = SavedPickle().stateDict({kTensor}).text("deep");
  program.op(op::kEmptyList).op(op::kNone).op(op::kTuple1).op(op::kAppend).op(op::kSetItem);
  const Parsed parsed(savedZip(program.stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.others().size(), 1u);
  EXPECT_FALSE(parsed.checkpoint.others()[0].mayHoldWeights);
}
TEST(TorchStateDict, NamesWhatIsBesideItByTheFirst200Bytes) {
  const std::string most(200, 'k');
  SavedPickle program;
  program.op(op::kEmptyDict).op(op::kMark).text("state_dict").stateDict({kTensor});
  for (const std::string& key : {most + "x", most, most + "y", most.substr(1)})
    program.text(key).op(op::kNone);
  const Parsed parsed(savedZip(program.op(op::kSetItems).stop(), {{"0", kFloats}}).build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.others().size(), 2u);
  EXPECT_EQ(parsed.checkpoint.others()[0].name, most);
  EXPECT_EQ(parsed.checkpoint.others()[1].name, most.substr(1));
}
TEST(TorchStateDict, SaysWhenTensorsLieDeeperThanItsOwn) {
  const Parsed parsed(
      savedZip(SavedPickle().stateDict({kTensor}).text("deep").stateDict({kTensor}).op(op::kSetItem).stop(),
               {{"0", kFloats}})
          .build());
  ASSERT_THAT(parsed.status, IsOk());
  ASSERT_EQ(parsed.checkpoint.others().size(), 1u);
  EXPECT_EQ(parsed.checkpoint.others()[0].name, "deep");
  EXPECT_TRUE(parsed.checkpoint.others()[0].mayHoldWeights);
}

}  // namespace
}  // namespace zel::tool::prepare
