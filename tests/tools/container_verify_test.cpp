// Every check of verifyContainer() on both sides: the good container passes, one lie is one finding.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "okv2/container_reader.h"
#include "support/container_builder.h"

namespace zel::tool {
namespace {

using test::BuiltContainer;
using test::ContainerBuilder;
using test::fullContainer;
using testing::ElementsAre;
using testing::IsEmpty;

struct Verdict {
  bool good = false;
  std::vector<std::string> findings;  // "error|note OFFSET: text"
};

Verdict verify(const std::string& bytes) {
  ContainerView view;
  Verdict verdict;
  verdict.good = verifyContainer(bytes, view);
  for (const Finding& finding : view.findings.items()) {
    verdict.findings.push_back(std::string(finding.isError ? "error " : "note ") +
                               std::to_string(finding.offset) + ": " + finding.text);
  }
  return verdict;
}

std::string at(std::uint64_t offset) { return std::to_string(offset); }

TEST(ContainerVerify, AGoodContainerHasNoFindings) {
  const Verdict verdict = verify(fullContainer().build().bytes);
  EXPECT_TRUE(verdict.good);
  EXPECT_THAT(verdict.findings, IsEmpty());
}

TEST(ContainerVerify, EmptySectionsAreGood) {
  const BuiltContainer built = ContainerBuilder().tensor("t", 1, {1}, "xx").build();
  ASSERT_EQ(built.size[3], 0U);
  ASSERT_EQ(built.size[7], 8U);
  const Verdict verdict = verify(built.bytes);
  EXPECT_TRUE(verdict.good);
  EXPECT_THAT(verdict.findings, IsEmpty());
}

TEST(ContainerVerify, EveryTruncationIsFound) {
  const std::string good = fullContainer().build().bytes;
  for (std::size_t size = 0; size < good.size(); ++size) {
    // A copy of its own, so that a sanitizer sees every read behind the end.
    const std::string cut(good.data(), size);
    const Verdict verdict = verify(cut);
    EXPECT_FALSE(verdict.good) << size;
    EXPECT_FALSE(verdict.findings.empty()) << size;
  }
}

// No byte of a container is without meaning or check, but for the tensors' data, texts and plain numbers.
TEST(ContainerVerify, NoSingleChangedByteMakesItCrash) {
  const std::string good = fullContainer().build().bytes;
  for (std::size_t k = 0; k < good.size(); ++k) {
    for (const unsigned char flip : {0x01, 0x80, 0xFF}) {
      std::string bytes = good;
      bytes[k] = static_cast<char>(static_cast<unsigned char>(bytes[k]) ^ flip);
      ContainerView view;
      const bool isGood = verifyContainer(bytes, view);
      EXPECT_EQ(isGood, view.findings.errors() == 0) << k;
    }
  }
}

TEST(ContainerVerify, EveryChangedByteUnderTheChecksumIsFound) {
  const std::string good = fullContainer().build().bytes;
  for (std::size_t k = 0; k < 256; ++k) {
    std::string bytes = good;
    bytes[k] = static_cast<char>(bytes[k] ^ 0x10);
    EXPECT_FALSE(verify(bytes).good) << k;
  }
}

struct Lie {
  const char* name;
  std::function<BuiltContainer(const BuiltContainer&)> tell;
  std::function<std::string(const BuiltContainer&)> finding;
};

class ContainerWithOneLie : public testing::TestWithParam<Lie> {};

TEST_P(ContainerWithOneLie, IsFound) {
  const BuiltContainer good = fullContainer().build();
  const Verdict verdict = verify(GetParam().tell(good).bytes);
  const std::string expected = GetParam().finding(good);
  EXPECT_THAT(verdict.findings, ElementsAre(expected));
  EXPECT_EQ(verdict.good, expected.rfind("note ", 0) == 0);
}

void PrintTo(const Lie& row, std::ostream* os) { *os << row.name; }

Lie lie(const char* name, std::function<BuiltContainer(const BuiltContainer&)> tell,
        std::function<std::string(const BuiltContainer&)> finding) {
  return {name, std::move(tell), std::move(finding)};
}

std::string nameOf(const testing::TestParamInfo<Lie>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Header, ContainerWithOneLie,
    testing::Values(lie(
                        "ReservedFieldAt20", [](const auto& c) { return c.with(23, test::u8(1)); },
                        [](const auto&) { return "error 23: reserved header field is not zero"; }),
                    lie(
                        "ReservedFieldAt48", [](const auto& c) { return c.with(55, test::u8(1)); },
                        [](const auto&) { return "error 55: reserved header field is not zero"; }),
                    lie(
                        "ReservedTableField",
                        [](const auto& c) { return c.with(BuiltContainer::tableEntry(7) + 4, test::u8(1)); },
                        [](const auto&) { return "error 212: reserved section table field is not zero"; }),
                    lie(
                        "FirstPaddingByte", [](const auto& c) { return c.with(232, "x"); },
                        [](const auto&) { return "error 232: padding after the section table is not zero"; }),
                    lie(
                        "LastPaddingByte", [](const auto& c) { return c.with(255, "x"); },
                        [](const auto&) {
                          return "error 255: padding after the section table is not zero";
                        })),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Sections, ContainerWithOneLie,
    testing::Values(lie(
                        "PaddingAfterMetadata", [](const auto& c) { return c.with(256 + c.size[1], "x"); },
                        [](const auto& c) {
                          return "error " + at(256 + c.size[1]) +
                                 ": padding after the metadata section is not zero";
                        }),
                    lie(
                        "PaddingBeforeTheWeights", [](const auto& c) { return c.with(c.offset[5] - 1, "x"); },
                        [](const auto& c) {
                          return "error " + at(c.offset[5] - 1) +
                                 ": padding after the chat template section is not zero";
                        }),
                    lie(
                        "BytesAfterTheWeights",
                        [](const auto& c) {
                          BuiltContainer copy = c;
                          copy.bytes += '\0';
                          return copy;
                        },
                        [](const auto& c) {
                          return "error " + at(c.bytes.size()) + ": 1 bytes after the weights section";
                        }),
                    lie(
                        "UnalignedGraph",
                        [](const auto& c) {
                          return c.with(BuiltContainer::tableEntry(3) + 8, test::u64(c.offset[3] + 1));
                        },
                        [](const auto& c) {
                          return "error 112: graph section at " + at(c.offset[3] + 1) +
                                 " is not aligned to 64";
                        })),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Tokenizer, ContainerWithOneLie,
    testing::Values(
        lie(
            "FirstIdBehindTheVocabulary",
            [](const auto& c) { return c.with(c.offset[2] + c.size[2] - 17, test::u32(3)); },
            [](const auto& c) {
              return "note " + at(c.offset[2] + c.size[2] - 17) +
                     ": bos token id 3 is outside the vocabulary of 3 tokens";
            }),
        lie(
            "IdBelowMinusOne",
            [](const auto& c) { return c.with(c.offset[2] + c.size[2] - 5, test::u32(0xFFFFFFFE)); },
            [](const auto& c) {
              return "note " + at(c.offset[2] + c.size[2] - 5) +
                     ": pad token id -2 is outside the vocabulary of 3 tokens";
            }),
        lie(
            "FlagOfTwo", [](const auto& c) { return c.with(c.offset[2] + c.size[2] - 1, test::u8(2)); },
            [](const auto& c) {
              return "error " + at(c.offset[2] + c.size[2] - 1) + ": add-BOS flag 2, expected 0 or 1";
            })),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Index, ContainerWithOneLie,
    testing::Values(
        lie(
            "NameOutOfOrder", [](const auto& c) { return c.with(c.indexEntry(1), "aaaa"); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1)) + ": tensor 1 'aaaa' sorts before its predecessor";
            }),
        lie(
            "NameLength", [](const auto& c) { return c.with(c.indexEntry(1) + 64, test::u16(5)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 64) +
                     ": tensor 1 'beta' has a name of 4 bytes, the index says 5";
            }),
        lie(
            "BytesAfterTheName", [](const auto& c) { return c.with(c.indexEntry(1) + 62, "x"); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 62) +
                     ": tensor 1 'beta': the rest of the name field is not zero";
            }),
        lie(
            "ReservedFieldAt70", [](const auto& c) { return c.with(c.indexEntry(2) + 71, "x"); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(2) + 71) + ": tensor 2 'gamma': reserved field is not zero";
            }),
        lie(
            "ReservedFieldAt120", [](const auto& c) { return c.with(c.indexEntry(2) + 127, "x"); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(2) + 127) + ": tensor 2 'gamma': reserved field is not zero";
            }),
        lie(
            "ExtentPastTheDimensions",
            [](const auto& c) { return c.with(c.indexEntry(1) + 80, test::u64(1)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 80) +
                     ": tensor 1 'beta': an extent past its dimensions is not zero";
            }),
        lie(
            "FiveDimensions", [](const auto& c) { return c.with(c.indexEntry(1) + 68, test::u16(5)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 68) +
                     ": tensor 1 'beta' has 5 dimensions, expected 1 to 4";
            }),
        lie(
            "NoDimensions", [](const auto& c) { return c.with(c.indexEntry(1) + 68, test::u16(0)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 68) +
                     ": tensor 1 'beta' has 0 dimensions, expected 1 to 4";
            }),
        lie(
            "ShapeOfHalfPrecision", [](const auto& c) { return c.with(c.indexEntry(1) + 72, test::u64(6)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 112) +
                     ": tensor 1 'beta' has 10 bytes, its shape calls for 12";
            }),
        // 257 rows are two blocks: 2 x 144 x 2 bytes.
        lie(
            "ShapeOfBlocks", [](const auto& c) { return c.with(c.indexEntry(2) + 72, test::u64(257)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(2) + 112) +
                     ": tensor 2 'gamma' has 288 bytes, its shape calls for 576";
            }),
        // Code 0 also stands for types without a code of their own.
        lie(
            "ShapeOfCodeZeroIsOnlyNoted",
            [](const auto& c) { return c.with(c.indexEntry(0) + 72, test::u64(3)); },
            [](const auto& c) {
              return "note " + at(c.indexEntry(0) + 112) +
                     ": tensor 0 'alpha' has 24 bytes, its shape calls for 36";
            }),
        lie(
            "ShapeBeyond64Bits",
            [](const auto& c) { return c.with(c.indexEntry(1) + 72, test::u64(std::uint64_t{1} << 63)); },
            [](const auto& c) {
              return "error " + at(c.indexEntry(1) + 112) +
                     ": tensor 1 'beta' has a shape of more than 2^64 bytes";
            })),
    nameOf);

INSTANTIATE_TEST_SUITE_P(Data, ContainerWithOneLie,
                         testing::Values(lie(
                                             "PaddingAfterATensor",
                                             [](const auto& c) { return c.with(c.offset[5] + 24, "x"); },
                                             [](const auto& c) {
                                               return "error " + at(c.offset[5] + 24) +
                                                      ": padding after tensor 0 'alpha' is not zero";
                                             }),
                                         lie(
                                             "PaddingAfterTheLastTensor",
                                             [](const auto& c) { return c.with(c.bytes.size() - 1, "x"); },
                                             [](const auto& c) {
                                               return "error " + at(c.bytes.size() - 1) +
                                                      ": padding after tensor 2 'gamma' is not zero";
                                             })),
                         nameOf);

INSTANTIATE_TEST_SUITE_P(
    LayoutTable, ContainerWithOneLie,
    testing::Values(
        lie(
            "OtherType", [](const auto& c) { return c.with(c.layoutEntry(1), test::u16(1)); },
            [](const auto& c) {
              return "error " + at(c.layoutEntry(1)) + ": layout entry 1 has type 1, the index says 2";
            }),
        lie(
            "OtherBlockElements", [](const auto& c) { return c.with(c.layoutEntry(2) + 2, test::u16(255)); },
            [](const auto& c) {
              return "error " + at(c.layoutEntry(2)) + ": layout entry 2 does not describe blocks of Q4_K";
            }),
        lie(
            "OtherBlockBytes", [](const auto& c) { return c.with(c.layoutEntry(2) + 4, test::u32(143)); },
            [](const auto& c) {
              return "error " + at(c.layoutEntry(2)) + ": layout entry 2 does not describe blocks of Q4_K";
            }),
        lie(
            "OtherFirstLayoutValue", [](const auto& c) { return c.with(c.layoutEntry(2) + 8, test::u32(0)); },
            [](const auto& c) {
              return "error " + at(c.layoutEntry(2)) + ": layout entry 2 does not describe blocks of Q4_K";
            }),
        lie(
            "OtherThirdLayoutValue",
            [](const auto& c) { return c.with(c.layoutEntry(2) + 16, test::u32(3)); },
            [](const auto& c) {
              return "error " + at(c.layoutEntry(2)) + ": layout entry 2 does not describe blocks of Q4_K";
            }),
        lie(
            "BytesAfterTheFields", [](const auto& c) { return c.with(c.layoutEntry(0) + 20, "x"); },
            [](const auto& c) {
              return "error " + at(c.layoutEntry(0) + 20) + ": layout entry 0: its rest is not zero";
            })),
    nameOf);

}  // namespace
}  // namespace zel::tool
