// The search for the end of the archive, cut and damaged archives, large directories, and look-ups by name.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

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
using test::StatusIs;
using test::ZipBuilder;

constexpr char kEndSignature[] = "PK\x05\x06";

// ---- the end record: searched from size - 22 down to size - 22 - 65536

TEST(PyTorchArchiveEnd, IsFoundBehindCommentsOfEveryAllowedLength) {
  for (const std::size_t length : {0, 1, 21, 22, 23, 65534, 65535}) {
    EXPECT_THAT(openStatus(emptyCheckpoint().comment(std::string(length, 'c')).build()), IsOk()) << length;
  }
}

TEST(PyTorchArchiveEnd, IsFoundAlsoBehindOneByteMoreThanACommentCanHave) {
  EXPECT_THAT(openStatus(emptyCheckpoint().comment(std::string(65536, 'c')).build()), IsOk());
}

TEST(PyTorchArchiveEnd, IsNotFoundBehindTwoBytesMoreThanACommentCanHave) {
  EXPECT_THAT(openStatus(emptyCheckpoint().comment(std::string(65537, 'c')).build()),
              StatusIs(Code::Corrupted, "torch: no EOCD"));
}

TEST(PyTorchArchiveEnd, IsFoundAtTheStartOfAFileShorterThanTheSearch) {
  const std::string bytes = ZipBuilder().comment(std::string(100, 'c')).build();
  EXPECT_THAT(openStatus(bytes), StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

TEST(PyTorchArchiveEnd, IsTakenAtItsHighestHit) {
  // Eighteen zeros make the signature an end record of an archive without entries.
  const std::string decoy = kEndSignature + std::string(18, '\0');
  EXPECT_THAT(openStatus(emptyCheckpoint().comment(decoy).build()),
              StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

TEST(PyTorchArchiveEnd, IsNotTakenWhereTheRecordWouldNotFit) {
  const std::string decoy = kEndSignature + std::string(17, '\0');
  EXPECT_THAT(openStatus(emptyCheckpoint().comment(decoy).build()), IsOk());
}

TEST(PyTorchArchiveEnd, IsNotValidatedAndTheSearchDoesNotGoOnBehindABadOne) {
  const std::string decoy = kEndSignature + std::string(18, '\xFF');
  EXPECT_THAT(openStatus(emptyCheckpoint().comment(decoy).build()),
              StatusIs(Code::Corrupted, "torch: bad central directory"));
}

TEST(PyTorchArchiveEnd, IsNotFoundByThreeBytesOfItsSignature) {
  for (unsigned byte = 0; byte < 4; ++byte) {
    ZipBuilder zip = emptyCheckpoint();
    std::string bytes = zip.build();
    bytes[zip.endOffset() + byte] = char(bytes[zip.endOffset() + byte] + 1);
    EXPECT_THAT(openStatus(bytes), StatusIs(Code::Corrupted, "torch: no EOCD")) << byte;
  }
}

// ---- cut and damaged

TEST(PyTorchArchive, RefusesEveryTruncation) {
  const std::string whole = emptyCheckpoint().add("w", "data").build();
  ASSERT_THAT(openStatus(whole), IsOk());
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_THAT(openStatus(whole.substr(0, length)),
                StatusIs(Code::Corrupted, length < 22 ? "torch: file too small" : "torch: no EOCD"))
        << length;
  }
}

TEST(PyTorchArchive, AcceptsEveryTruncationWithinTheComment) {
  const std::string whole = emptyCheckpoint().comment("forty bytes of comment, or nearly so many").build();
  const std::size_t bare = emptyCheckpoint().build().size();
  for (std::size_t length = bare; length <= whole.size(); ++length) {
    EXPECT_THAT(openStatus(whole.substr(0, length)), IsOk()) << length;
  }
}

TEST(PyTorchArchive, KeepsItsPromisesWhateverSingleByteIsDamaged) {
  const test::PickleTensor tensor{"w", {2, 2}, "s"};
  const std::string good = ZipBuilder()
                               .add("data.pkl", test::stateDict({tensor}))
                               .add("s", std::string(16, 'x'))
                               .comment("c")
                               .build();
  ASSERT_THAT(openStatus(good), IsOk());
  testing::internal::CaptureStderr();  // the diagnostic line of a tensor that no longer fits
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      std::string bad = good;
      bad[at] = char(bad[at] ^ flip);
      PyTorchImporter importer;
      const Status status = importer.openBytes(bad);
      if (status.ok()) {
        for (const ZipEntry& entry : importer.entries()) {
          EXPECT_LE(entry.dataOffset + entry.compressedSize, bad.size()) << at;
        }
      } else {
        EXPECT_EQ(status.message().substr(0, 7), "torch: ") << at;
        EXPECT_FALSE(importer.isOpen());
        EXPECT_TRUE(importer.entries().empty());
        EXPECT_TRUE(importer.tensors().empty());
      }
    }
  }
  testing::internal::GetCapturedStderr();
}

// ---- names

TEST(PyTorchArchiveNames, MatchWhollyOrNotAtAll) {
  const std::string bytes = emptyCheckpoint().add("data/0", "x").build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.findEntry("data/0"), &importer.entries()[1]);
  for (const char* name : {"data/", "data/00", "/data/0", "DATA/0", "data\\0", ""}) {
    EXPECT_EQ(importer.findEntry(name), nullptr) << name;
  }
}

TEST(PyTorchArchiveNames, MayHoldAnyByte) {
  const std::string name("a\0b\xFF", 4);
  const std::string bytes = emptyCheckpoint().add(name, "x").add("a", "y").build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.findEntry(name), &importer.entries()[1]);
  EXPECT_EQ(importer.findEntry("a"), &importer.entries()[2]);
}

TEST(PyTorchArchiveNames, OfEqualEntriesTheFirstOfTheDirectoryWins) {
  const std::string bytes = ZipBuilder()
                                .add("w", "first")
                                .add("v", "")
                                .add("w", "second")
                                .add("data.pkl", test::stateDict({}))
                                .add("w", "")
                                .build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.findEntry("w"), &importer.entries()[0]);
}

TEST(PyTorchArchiveNames, OfTwoPicklesTheFirstIsRun) {
  const std::string good = test::stateDict({});
  EXPECT_THAT(openStatus(ZipBuilder().add("data.pkl", good).add("data.pkl", "bad").build()), IsOk());
  EXPECT_THAT(openStatus(ZipBuilder().add("data.pkl", "").add("data.pkl", good).build()),
              StatusIs(Code::Corrupted, "torch: pickle unterminated pickle"));
}

TEST(PyTorchArchiveNames, AreFullNamesSoThatAFolderAroundEverythingHidesThePickle) {
  const std::string bytes =
      ZipBuilder().add("archive/data.pkl", test::stateDict({})).add("archive/data/0", "x").build();
  EXPECT_THAT(openStatus(bytes), StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

TEST(PyTorchArchiveNames, AreNotFoundInAClosedImporter) {
  const std::string bytes = emptyCheckpoint().build();
  PyTorchImporter importer;
  EXPECT_EQ(importer.findEntry("data.pkl"), nullptr);
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  importer.close();
  EXPECT_EQ(importer.findEntry("data.pkl"), nullptr);
}

// ---- size

TEST(PyTorchArchive, ReadsADirectoryOfAsManyEntriesAsItsCountCanSay) {
  constexpr std::size_t kEntries = 65535;
  ZipBuilder zip;
  for (std::size_t k = 0; k + 1 < kEntries; ++k)
    zip.add("data/" + std::to_string(k), "");
  zip.add("data.pkl", test::stateDict({}));
  const std::string bytes = zip.build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  ASSERT_EQ(importer.entries().size(), kEntries);
  for (std::size_t k = 0; k + 1 < kEntries; k += 97) {
    EXPECT_EQ(importer.findEntry("data/" + std::to_string(k)), &importer.entries()[k]);
  }
  EXPECT_EQ(importer.findEntry("data.pkl"), &importer.entries().back());
}

TEST(PyTorchArchive, ReadsAsManyEntriesOfOneNameAndKeepsTheFirst) {
  ZipBuilder zip;
  zip.add("data.pkl", test::stateDict({}));
  for (int k = 1; k < 65535; ++k)
    zip.add("same", "");
  const std::string bytes = zip.build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.entries().size(), 65535u);
  EXPECT_EQ(importer.findEntry("same"), &importer.entries()[1]);
}

}  // namespace
}  // namespace zel
