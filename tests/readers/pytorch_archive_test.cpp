// The zip directory of a PyTorch checkpoint: one record after the other, and where an entry's bytes lie.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/zip_builder.h"
#include "torch_archives.h"

namespace zel {
namespace {

using test::emptyCheckpoint;
using test::IsOk;
using test::openStatus;
using test::PickleBuilder;
using test::StatusIs;
using test::ZipBuilder;
using test::ZipField;

constexpr char kCompressed[] =
    "torch: zip entry uses compression (deflate); only STORED checkpoints (torch.save default) are supported";

// A program that leaves an empty dict: a checkpoint without tensors.
std::string emptyDict() { return test::stateDict({}); }

TEST(PyTorchArchive, ListsEveryEntryInTheOrderOfTheDirectory) {
  ZipBuilder zip = emptyCheckpoint().add("w", "0123456789").add("a", "");
  const std::string bytes = zip.build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_TRUE(importer.isOpen());
  EXPECT_EQ(importer.bytes(), bytes);
  ASSERT_EQ(importer.entries().size(), 3u);
  EXPECT_EQ(importer.entries()[0].name, "data.pkl");
  EXPECT_EQ(importer.entries()[1].name, "w");
  EXPECT_EQ(importer.entries()[1].method, 0);
  EXPECT_EQ(importer.entries()[1].crc32, 0xA684C7C6u);  // of "0123456789", from any CRC-32 calculator
  EXPECT_EQ(importer.entries()[1].compressedSize, 10u);
  EXPECT_EQ(importer.entries()[1].uncompressedSize, 10u);
  EXPECT_EQ(importer.entries()[1].dataOffset, zip.dataOffset(1));
  EXPECT_EQ(bytes.substr(importer.entries()[1].dataOffset, 10), "0123456789");
  EXPECT_EQ(importer.entries()[2].name, "a");
  EXPECT_EQ(importer.entries()[2].compressedSize, 0u);
}

TEST(PyTorchArchive, RefusesTwentyOneBytes) {
  EXPECT_THAT(openStatus(std::string(21, '\0')), StatusIs(Code::Corrupted, "torch: file too small"));
}

TEST(PyTorchArchive, RefusesNoBytes) {
  EXPECT_THAT(openStatus(""), StatusIs(Code::Corrupted, "torch: file too small"));
}

TEST(PyTorchArchive, RefusesTwentyTwoZeros) {
  EXPECT_THAT(openStatus(std::string(22, '\0')), StatusIs(Code::Corrupted, "torch: no EOCD"));
}

TEST(PyTorchArchive, TakesAnArchiveOfNothingButItsEndAndMissesThePickle) {
  const std::string bytes = ZipBuilder().build();
  ASSERT_EQ(bytes.size(), 22u);
  EXPECT_THAT(openStatus(bytes), StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

// ---- the place of the directory

TEST(PyTorchArchive, AcceptsADirectorySizeThatReachesTheEndOfTheFile) {
  ZipBuilder zip = emptyCheckpoint();
  const std::uint64_t size = zip.build().size();
  zip.lieEnd(test::zip_end::kDirectorySize, size - zip.centralOffset(0));
  EXPECT_THAT(openStatus(zip.build()), IsOk());
}

TEST(PyTorchArchive, RefusesADirectorySizeOneByteBeyondTheEndOfTheFile) {
  ZipBuilder zip = emptyCheckpoint();
  const std::uint64_t size = zip.build().size();
  zip.lieEnd(test::zip_end::kDirectorySize, size - zip.centralOffset(0) + 1);
  EXPECT_THAT(openStatus(zip.build()), StatusIs(Code::Corrupted, "torch: bad central directory"));
}

TEST(PyTorchArchive, AddsDirectoryOffsetAndSizeIn64Bits) {
  // In 32 bits the sum would be the offset of the directory minus one.
  ZipBuilder zip = emptyCheckpoint();
  zip.lieEnd(test::zip_end::kDirectorySize, 0xFFFFFFFF);
  EXPECT_THAT(openStatus(zip.build()), StatusIs(Code::Corrupted, "torch: bad central directory"));
}

TEST(PyTorchArchive, UsesTheDirectorySizeForNothingElse) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieEnd(test::zip_end::kDirectorySize, 0).build()), IsOk());
}

TEST(PyTorchArchive, RefusesADirectoryOffsetThatLeadsToNoRecord) {
  ZipBuilder zip = emptyCheckpoint();
  zip.lieEnd(test::zip_end::kDirectoryOffset, zip.centralOffset(0) - 1);
  EXPECT_THAT(openStatus(zip.build()), StatusIs(Code::Corrupted, "torch: bad central directory entry"));
}

// ---- the records of the directory

TEST(PyTorchArchive, RefusesACountLargerThanTheRecords) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieEnd(test::zip_end::kEntries, 2).build()),
              StatusIs(Code::Corrupted, "torch: bad central directory entry"));
  // The same when there is room for one more record behind the directory.
  EXPECT_THAT(
      openStatus(emptyCheckpoint().lieEnd(test::zip_end::kEntries, 2).comment(std::string(99, 'c')).build()),
      StatusIs(Code::Corrupted, "torch: bad central directory entry"));
}

TEST(PyTorchArchive, ReadsNoMoreRecordsThanTheCountSays) {
  const std::string bytes = emptyCheckpoint()
                                .add("deflated", "")
                                .lieCentral(test::zip_central::kMethod, 8)
                                .lieEnd(test::zip_end::kEntries, 1)
                                .build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries().size(), 1u);
}

TEST(PyTorchArchive, TakesTheTotalCountAndNotTheOneOfThisDisk) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieEnd(test::zip_end::kDiskEntries, 7).build()), IsOk());
}

TEST(PyTorchArchive, RefusesARecordWithAnotherSignature) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieCentral(test::zip_central::kSignature, 0x02014b51).build()),
              StatusIs(Code::Corrupted, "torch: bad central directory entry"));
}

// The directory, moved behind the end record, so that its last record can end with the file.
std::string withDirectoryAtTheEnd(std::size_t cut) {
  ZipBuilder zip = emptyCheckpoint();
  const std::string record = zip.build().substr(zip.centralOffset(0), test::zip_central::kBytes + 8);
  zip.comment(record.substr(0, record.size() - cut));
  zip.lieEnd(test::zip_end::kDirectoryOffset, zip.endOffset() + test::zip_end::kBytes);
  zip.lieEnd(test::zip_end::kDirectorySize, 0);
  return zip.build();
}

TEST(PyTorchArchive, AcceptsARecordWhoseNameEndsWithTheFile) {
  EXPECT_THAT(openStatus(withDirectoryAtTheEnd(0)), IsOk());
}

TEST(PyTorchArchive, LeavesTheNameEmptyWhenItsLastByteIsMissing) {
  EXPECT_THAT(openStatus(withDirectoryAtTheEnd(1)), StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

TEST(PyTorchArchive, AcceptsARecordWhoseFixedPartEndsWithTheFile) {
  EXPECT_THAT(openStatus(withDirectoryAtTheEnd(8)), StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

TEST(PyTorchArchive, RefusesARecordWhoseFixedPartLacksItsLastByte) {
  EXPECT_THAT(openStatus(withDirectoryAtTheEnd(9)),
              StatusIs(Code::Corrupted, "torch: bad central directory entry"));
}

TEST(PyTorchArchive, AcceptsWithAnEmptyNameAnEntryWhoseNameRunsPastTheEnd) {
  ZipBuilder zip = emptyCheckpoint().add("long", "data");
  zip.lieCentral(test::zip_central::kNameLength, 0xFFFF);
  const std::string bytes = zip.build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  ASSERT_EQ(importer.entries().size(), 2u);
  EXPECT_EQ(importer.entries()[1].name, "");
  EXPECT_EQ(importer.entries()[1].dataOffset, zip.dataOffset(1));
  EXPECT_EQ(importer.entries()[1].compressedSize, 4u);
  EXPECT_EQ(importer.findEntry(""), &importer.entries()[1]);
  EXPECT_EQ(importer.findEntry("long"), nullptr);
}

TEST(PyTorchArchive, TakesANameThatReachesTheLastByteOfTheFileAndNoneThatGoesFurther) {
  ZipBuilder zip = emptyCheckpoint().add("n", "");
  const std::uint64_t room = zip.build().size() - zip.centralOffset(1) - test::zip_central::kBytes;
  ZipBuilder further = zip;
  const std::string fits = zip.lieCentral(test::zip_central::kNameLength, room).build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(fits), IsOk());
  EXPECT_EQ(importer.entries()[1].name, fits.substr(fits.size() - room));

  const std::string tooLong = further.lieCentral(test::zip_central::kNameLength, room + 1).build();
  ASSERT_THAT(importer.openBytes(tooLong), IsOk());
  EXPECT_EQ(importer.entries()[1].name, "");
}

TEST(PyTorchArchive, AcceptsAnEntryWithoutAName) {
  const std::string bytes = emptyCheckpoint().add("", "data").build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.findEntry(""), &importer.entries()[1]);
}

TEST(PyTorchArchive, StepsOverExtraFieldsAndCommentsOfRecords) {
  const std::string bytes = ZipBuilder()
                                .add("w", "data")
                                .centralExtra(std::string(300, 'x'))
                                .entryComment("a comment")
                                .add("data.pkl", emptyDict())
                                .build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries()[1].name, "data.pkl");
}

TEST(PyTorchArchive, RefusesWhatFollowsAWrongExtraOrCommentLength) {
  for (const ZipField field : {test::zip_central::kExtraLength, test::zip_central::kCommentLength}) {
    ZipBuilder zip = ZipBuilder().add("w", "data").lieCentral(field, 1).add("data.pkl", emptyDict());
    EXPECT_THAT(openStatus(zip.build()), StatusIs(Code::Corrupted, "torch: bad central directory entry"));
  }
}

// ---- compression

TEST(PyTorchArchive, RefusesEveryCompressionMethodAsDeflate) {
  for (const std::uint64_t method : {1, 8, 12, 93, 256, 65535}) {
    EXPECT_THAT(openStatus(emptyCheckpoint().lieCentral(test::zip_central::kMethod, method).build()),
                StatusIs(Code::Unsupported, kCompressed))
        << method;
  }
}

TEST(PyTorchArchive, RefusesCompressionBeforeItLooksAtTheLocalHeader) {
  ZipBuilder zip = emptyCheckpoint().lieCentral(test::zip_central::kMethod, 8);
  EXPECT_THAT(openStatus(ZipBuilder(zip).lieLocal(test::zip_local::kSignature, 0).build()),
              StatusIs(Code::Unsupported, kCompressed));
  EXPECT_THAT(openStatus(ZipBuilder(zip).lieCentral(test::zip_central::kLocalOffset, 0xFFFFFFFF).build()),
              StatusIs(Code::Unsupported, kCompressed));
}

TEST(PyTorchArchive, RefusesCompressionAlsoOfAnEntryWhoseNameRunsPastTheEnd) {
  ZipBuilder zip = emptyCheckpoint().lieCentral(test::zip_central::kNameLength, 0xFFFF);
  EXPECT_THAT(openStatus(zip.lieCentral(test::zip_central::kMethod, 8).build()),
              StatusIs(Code::Unsupported, kCompressed));
}

TEST(PyTorchArchive, RefusesADamagedRecordBeforeALaterCompressedOne) {
  ZipBuilder zip = emptyCheckpoint().lieLocal(test::zip_local::kSignature, 0);
  zip.add("w", "").lieCentral(test::zip_central::kMethod, 8);
  EXPECT_THAT(openStatus(zip.build()), StatusIs(Code::Corrupted, "torch: bad local header"));
}

TEST(PyTorchArchive, IgnoresTheMethodInTheLocalHeader) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieLocal(test::zip_local::kMethod, 8).build()), IsOk());
}

// ---- local headers and payloads

TEST(PyTorchArchive, RefusesALocalHeaderWithAnotherSignature) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieLocal(test::zip_local::kSignature, 0x04034b51).build()),
              StatusIs(Code::Corrupted, "torch: bad local header"));
}

// A second entry whose local header is the last thing in the file.
std::string withLocalHeaderAtTheEnd(std::size_t cut) {
  ZipBuilder zip = emptyCheckpoint().add("w", "");
  const std::string header = ZipBuilder().add("", "").build().substr(0, test::zip_local::kBytes);
  zip.lieCentral(test::zip_central::kLocalOffset, zip.endOffset() + test::zip_end::kBytes);
  return zip.comment(header.substr(0, header.size() - cut)).build();
}

TEST(PyTorchArchive, AcceptsALocalHeaderThatEndsWithTheFile) {
  const std::string bytes = withLocalHeaderAtTheEnd(0);
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries()[1].dataOffset, bytes.size());
}

TEST(PyTorchArchive, RefusesALocalHeaderThatLacksItsLastByte) {
  EXPECT_THAT(openStatus(withLocalHeaderAtTheEnd(1)), StatusIs(Code::Corrupted, "torch: bad local header"));
}

TEST(PyTorchArchive, RefusesTheHighestLocalHeaderOffset) {
  EXPECT_THAT(openStatus(emptyCheckpoint().lieCentral(test::zip_central::kLocalOffset, 0xFFFFFFFF).build()),
              StatusIs(Code::Corrupted, "torch: bad local header"));
}

TEST(PyTorchArchive, FindsTheDataByTheLengthsInTheLocalHeader) {
  ZipBuilder zip =
      ZipBuilder().add("data.pkl", emptyDict()).localName("other name").localExtra(std::string(50, 'Z'));
  const std::string bytes = zip.build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries()[0].name, "data.pkl");
  EXPECT_EQ(importer.entries()[0].dataOffset, 30u + 10 + 50);
}

TEST(PyTorchArchive, AcceptsAPayloadThatReachesTheLastByteOfTheFile) {
  ZipBuilder zip = emptyCheckpoint().add("w", "data");
  const std::string honest = zip.build();
  zip.lieCentral(test::zip_central::kCompressedSize, honest.size() - zip.dataOffset(1));
  EXPECT_THAT(openStatus(zip.build()), IsOk());
}

TEST(PyTorchArchive, RefusesAPayloadThatEndsOneByteAfterTheFile) {
  ZipBuilder zip = emptyCheckpoint().add("w", "data");
  const std::string honest = zip.build();
  zip.lieCentral(test::zip_central::kCompressedSize, honest.size() - zip.dataOffset(1) + 1);
  EXPECT_THAT(openStatus(zip.build()), StatusIs(Code::Corrupted, "torch: zip payload out of range"));
}

TEST(PyTorchArchive, RefusesAnEmptyPayloadThatBeginsAfterTheFile) {
  ZipBuilder zip = emptyCheckpoint().add("w", "");
  const std::string honest = zip.build();
  const std::uint64_t room = honest.size() - zip.localOffset(1) - test::zip_local::kBytes - 1;
  EXPECT_THAT(openStatus(ZipBuilder(zip).lieLocal(test::zip_local::kExtraLength, room).build()), IsOk());
  EXPECT_THAT(openStatus(ZipBuilder(zip).lieLocal(test::zip_local::kExtraLength, room + 1).build()),
              StatusIs(Code::Corrupted, "torch: zip payload out of range"));
}

TEST(PyTorchArchive, RefusesTheHighestPayloadSize) {
  EXPECT_THAT(
      openStatus(emptyCheckpoint().lieCentral(test::zip_central::kCompressedSize, 0xFFFFFFFF).build()),
      StatusIs(Code::Corrupted, "torch: zip payload out of range"));
}

TEST(PyTorchArchive, AcceptsAnyUncompressedSize) {
  const std::string bytes =
      emptyCheckpoint().add("w", "data").lieCentral(test::zip_central::kUncompressedSize, 0xFFFFFFFF).build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries()[1].uncompressedSize, 0xFFFFFFFFu);
  EXPECT_EQ(importer.entries()[1].compressedSize, 4u);
}

TEST(PyTorchArchive, NeverComparesTheCrc) {
  const std::string bytes = emptyCheckpoint().lieCentral(test::zip_central::kCrc32, 0x12345678).build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries()[0].crc32, 0x12345678u);
}

// ---- fields that mean nothing here

TEST(PyTorchArchive, IgnoresEveryOtherFieldOfTheDirectory) {
  namespace f = test::zip_central;
  for (const ZipField field : {f::kMadeBy, f::kVersion, f::kFlags, f::kTime, f::kDate, f::kCrc32, f::kDisk,
                               f::kInternalAttributes, f::kExternalAttributes, f::kUncompressedSize}) {
    EXPECT_THAT(openStatus(emptyCheckpoint().lieCentral(field, 0xFFFFFFFF).build()), IsOk()) << field.offset;
  }
}

TEST(PyTorchArchive, IgnoresEveryOtherFieldOfTheLocalHeader) {
  namespace f = test::zip_local;
  for (const ZipField field : {f::kVersion, f::kFlags, f::kMethod, f::kTime, f::kDate, f::kCrc32,
                               f::kCompressedSize, f::kUncompressedSize}) {
    EXPECT_THAT(openStatus(emptyCheckpoint().lieLocal(field, 0xFFFFFFFF).build()), IsOk()) << field.offset;
  }
}

TEST(PyTorchArchive, IgnoresEveryOtherFieldOfTheEndRecord) {
  namespace f = test::zip_end;
  for (const ZipField field : {f::kDisk, f::kDirectoryDisk, f::kDiskEntries, f::kCommentLength}) {
    EXPECT_THAT(openStatus(emptyCheckpoint().lieEnd(field, 0xFFFF).build()), IsOk()) << field.offset;
  }
}

TEST(PyTorchArchive, AcceptsBytesBeforeTheFirstEntryWhenTheOffsetsCountThem) {
  EXPECT_THAT(openStatus(emptyCheckpoint().prefix(std::string(1000, '#')).build()), IsOk());
}

TEST(PyTorchArchive, RefusesBytesBeforeTheFirstEntryWhenTheOffsetsDoNotCountThem) {
  EXPECT_THAT(openStatus("#" + emptyCheckpoint().build()),
              StatusIs(Code::Corrupted, "torch: bad central directory entry"));
}

}  // namespace
}  // namespace zel
