// From the state dict that the pickle program leaves to the list of tensors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/zip_builder.h"
#include "torch_archives.h"

namespace zel {
namespace {

using test::IsOk;
using test::Op;
using test::openStatus;
using test::PickleBuilder;
using test::PickleTensor;
using test::StatusIs;
using test::ZipBuilder;

constexpr char kNotATensor[] = "torch: state_dict contains a non-tensor python object (rejected for safety)";
constexpr char kNotADict[] = "torch: pickle root is not a dict";
constexpr char kExceeds[] = "torch: tensor exceeds storage";

ZipBuilder archive(const std::string& program) { return ZipBuilder().add("data.pkl", program); }

// One storage entry "s" of so many bytes beside the program.
std::string archiveWithStorage(const std::string& program, std::size_t storageBytes) {
  return archive(program).add("s", std::string(storageBytes, 'x')).build();
}

std::vector<std::string> tensorNames(const std::string& bytes) {
  PyTorchImporter importer;
  EXPECT_THAT(importer.openBytes(bytes), IsOk());
  std::vector<std::string> names;
  for (const PtTensorInfo& tensor : importer.tensors())
    names.push_back(tensor.name);
  return names;
}

// ---- the two entries with a meaning of their own

TEST(PyTorchRecords, NeedAnEntryDataPkl) {
  EXPECT_THAT(openStatus(ZipBuilder().add("DATA.PKL", ".").add("data.pkl2", ".").build()),
              StatusIs(Code::InvalidFormat, "torch: no data.pkl"));
}

TEST(PyTorchRecords, RunTheProgramOverTheCompressedSizeOfItsEntry) {
  const std::string program = test::stateDict({});
  EXPECT_THAT(openStatus(archive(program).lieCentral(test::zip_central::kUncompressedSize, 1).build()),
              IsOk());
  EXPECT_THAT(
      openStatus(archive(program).lieCentral(test::zip_central::kCompressedSize, program.size() - 1).build()),
      StatusIs(Code::Corrupted, "torch: pickle unterminated pickle"));
}

TEST(PyTorchRecords, PassOnTheMachinesFailureUnchanged) {
  EXPECT_THAT(openStatus(archive("").build()),
              StatusIs(Code::Corrupted, "torch: pickle unterminated pickle"));
  EXPECT_THAT(openStatus(archive("t").build()),
              StatusIs(Code::Unsupported, "torch: pickle unknown pickle opcode"));
}

TEST(PyTorchRecords, NoticeAnEntryConstantsPklWithoutReadingIt) {
  const std::string with = archive(test::stateDict({})).add("constants.pkl", "no pickle at all").build();
  const std::string without = archive(test::stateDict({})).add("archive/constants.pkl", "").build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(with), IsOk());
  EXPECT_TRUE(importer.hasConstants());
  ASSERT_THAT(importer.openBytes(without), IsOk());
  EXPECT_FALSE(importer.hasConstants());
}

// ---- the root

TEST(PyTorchRecords, AcceptADictWithoutTensors) {
  EXPECT_TRUE(tensorNames(archive(test::stateDict({})).build()).empty());
}

TEST(PyTorchRecords, RefuseAnEmptyStack) {
  EXPECT_THAT(openStatus(archive(PickleBuilder().stop()).build()), StatusIs(Code::Corrupted, kNotADict));
  EXPECT_THAT(openStatus(archive(PickleBuilder().ops({Op::EMPTY_DICT, Op::POP}).stop()).build()),
              StatusIs(Code::Corrupted, kNotADict));
}

TEST(PyTorchRecords, RefuseARootOfAnyOtherKind) {
  const std::pair<const char*, PickleBuilder> roots[] = {
      {"None", PickleBuilder().op(Op::NONE)},
      {"mark", PickleBuilder().op(Op::MARK)},
      {"Int", PickleBuilder().binint1(1)},
      {"Float", PickleBuilder().binfloat(1)},
      {"Str", PickleBuilder().binunicode("x")},
      {"Bytes", PickleBuilder().binbytes("x")},
      {"Tuple", PickleBuilder().op(Op::EMPTY_TUPLE)},
      {"list", PickleBuilder().op(Op::EMPTY_LIST)},
      {"Global", PickleBuilder().global("collections", "OrderedDict")},
      {"Storage", PickleBuilder().storage("FloatStorage", "s")},
      {"Tensor", PickleBuilder().tensor({"", {1}, "s"})},
  };
  for (const auto& [kind, program] : roots) {
    EXPECT_THAT(openStatus(archive(program.stop()).build()), StatusIs(Code::Corrupted, kNotADict)) << kind;
  }
}

TEST(PyTorchRecords, TakeTheTopOfTheStackAndNothingBelowIt) {
  const std::string top = PickleBuilder().ops({Op::NONE, Op::EMPTY_DICT}).stop();
  EXPECT_THAT(openStatus(archive(top).build()), IsOk());
  const std::string below = PickleBuilder().ops({Op::EMPTY_DICT, Op::NONE}).stop();
  EXPECT_THAT(openStatus(archive(below).build()), StatusIs(Code::Corrupted, kNotADict));
}

TEST(PyTorchRecords, TakeADictBuiltByDict) {
  PickleBuilder program;
  program.op(Op::MARK).binunicode("w").tensor({"", {1}, "s"}).op(Op::DICT);
  EXPECT_EQ(tensorNames(archiveWithStorage(program.stop(), 4)), std::vector<std::string>{"w"});
}

// ---- what a value may be

TEST(PyTorchRecords, RefuseAValueOfAnyKindButTensor) {
  const std::pair<const char*, PickleBuilder> values[] = {
      {"None", PickleBuilder().op(Op::NONE)},
      {"Int", PickleBuilder().binint1(1)},
      {"Float", PickleBuilder().binfloat(1)},
      {"Str", PickleBuilder().binunicode("x")},
      {"Bytes", PickleBuilder().binbytes("x")},
      {"Tuple", PickleBuilder().tensor({"", {1}, "s"}).op(Op::TUPLE1)},
      {"Dict", PickleBuilder().op(Op::EMPTY_DICT).binunicode("w").tensor({"", {1}, "s"}).op(Op::SETITEM)},
      {"Global", PickleBuilder().global("torch", "FloatStorage")},
      {"Storage", PickleBuilder().storage("FloatStorage", "s")},
  };
  for (const auto& [kind, value] : values) {
    PickleBuilder program;
    program.op(Op::EMPTY_DICT).binunicode("v").raw(value.bytes()).op(Op::SETITEM);
    EXPECT_THAT(openStatus(archiveWithStorage(program.stop(), 4)), StatusIs(Code::Unsupported, kNotATensor))
        << kind;
  }
}

TEST(PyTorchRecords, RefuseTheWholeDictForOneIntAfterValidTensors) {
  PickleBuilder program;
  program.op(Op::EMPTY_DICT).binunicode("w").tensor({"", {1}, "s"}).op(Op::SETITEM);
  program.binunicode("step").binint1(1).op(Op::SETITEM);
  EXPECT_THAT(openStatus(archiveWithStorage(program.stop(), 4)), StatusIs(Code::Unsupported, kNotATensor));
}

// ---- element types

TEST(PyTorchRecords, KnowThreeStorageClasses) {
  struct Row {
    const char* storageClass;
    std::uint16_t dtype;
    std::uint64_t elementBytes;
  };
  for (const Row& row : {Row{"FloatStorage", 0, 4}, Row{"HalfStorage", 1, 2}, Row{"BFloat16Storage", 2, 2}}) {
    const std::string program = test::stateDict({{"w", {3}, "s", row.storageClass, 5}});
    const std::string bytes = archiveWithStorage(program, 8 * row.elementBytes);
    PyTorchImporter importer;
    ASSERT_THAT(importer.openBytes(bytes), IsOk()) << row.storageClass;
    ASSERT_EQ(importer.tensors().size(), 1u);
    EXPECT_EQ(importer.tensors()[0].dtype, row.dtype);
    EXPECT_EQ(importer.tensors()[0].offset, 5 * row.elementBytes);
    EXPECT_EQ(importer.tensors()[0].nbytes, 3 * row.elementBytes);
    testing::internal::CaptureStderr();
    EXPECT_THAT(openStatus(archiveWithStorage(program, 8 * row.elementBytes - 1)),
                StatusIs(Code::Corrupted, kExceeds));
    testing::internal::GetCapturedStderr();
  }
}

TEST(PyTorchRecords, RefuseEveryOtherStorageClassByName) {
  for (const std::string name : {"DoubleStorage", "LongStorage", "floatStorage", "FloatStorage ",
                                 "FloatStorag", "FloatStorage2", "", "it's"}) {
    EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"w", {1}, "s", name}}), 8)),
                StatusIs(Code::Unsupported, "torch: unsupported storage dtype '" + name + "'"));
  }
}

// ---- shapes

TEST(PyTorchRecords, KeepTheShapeAndCountTheElements) {
  struct Row {
    std::vector<std::uint64_t> shape;
    std::uint64_t elements;
  };
  for (const Row& row :
       {Row{{}, 1}, Row{{7}, 7}, Row{{2, 3}, 6}, Row{{2, 3, 5}, 30}, Row{{2, 3, 5, 7}, 210}}) {
    const std::string bytes = archiveWithStorage(test::stateDict({{"w", row.shape, "s"}}), row.elements * 4);
    PyTorchImporter importer;
    ASSERT_THAT(importer.openBytes(bytes), IsOk()) << row.elements;
    const PtTensorInfo& tensor = importer.tensors()[0];
    EXPECT_EQ(tensor.ndim, row.shape.size());
    for (std::size_t k = 0; k < row.shape.size(); ++k)
      EXPECT_EQ(tensor.shape[k], row.shape[k]);
    EXPECT_EQ(tensor.nbytes, row.elements * 4);
    EXPECT_EQ(tensor.offset, 0u);
    EXPECT_EQ(tensor.storage, "s");
  }
}

TEST(PyTorchRecords, CountOneElementForAnEmptyShape) {
  const std::string program = test::stateDict({{"w", {}, "s"}});
  EXPECT_THAT(openStatus(archiveWithStorage(program, 4)), IsOk());
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archiveWithStorage(program, 3)), StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: w numel=1 es=4 bo=0 usize=3\n");
}

TEST(PyTorchRecords, AcceptATensorWithoutElementsUpToTheEndOfItsStorage) {
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"w", {0, 9}, "s", "FloatStorage", 2}}), 8)),
              IsOk());
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"w", {0, 9}, "s", "FloatStorage", 2}}), 7)),
              StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: w numel=0 es=4 bo=8 usize=7\n");
}

TEST(PyTorchRecords, CountMoreThanFourDimensionsButMultiplyOnlyFour) {
  const std::string bytes = archiveWithStorage(test::stateDict({{"w", {2, 1, 3, 1, 1000, 0}, "s"}}), 24);
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  const PtTensorInfo& tensor = importer.tensors()[0];
  EXPECT_EQ(tensor.ndim, 6);
  EXPECT_EQ(std::vector<std::uint64_t>(tensor.shape, tensor.shape + 4),
            (std::vector<std::uint64_t>{2, 1, 3, 1}));
  EXPECT_EQ(tensor.nbytes, 24u);
}

// A program with one tensor whose size tuple holds whatever `sizes` pushes.
std::string tensorOfSizes(const PickleBuilder& sizes) {
  PickleBuilder program;
  program.op(Op::EMPTY_DICT).binunicode("w").global("torch._utils", "_rebuild_tensor_v2").op(Op::MARK);
  program.storage("FloatStorage", "s").binint1(0).op(Op::MARK).raw(sizes.bytes());
  return program.ops({Op::TUPLE_T, Op::NONE, Op::TUPLE_T, Op::REDUCE, Op::SETITEM}).stop();
}

TEST(PyTorchRecords, CountDimensionsIn16Bits) {
  for (const auto& [dimensions, kept] : {std::pair(65535u, 65535u), {65536u, 0u}, {65537u, 1u}}) {
    PickleBuilder sizes;
    sizes.repeat(dimensions, std::string{char(Op::BININT1), 1});
    const std::string bytes = archiveWithStorage(tensorOfSizes(sizes), 4);
    PyTorchImporter importer;
    ASSERT_THAT(importer.openBytes(bytes), IsOk());
    EXPECT_EQ(importer.tensors()[0].ndim, kept);
    EXPECT_EQ(importer.tensors()[0].nbytes, 4u);
  }
}

TEST(PyTorchRecords, TakeTheIntegerPayloadOfSizesOfAnyKind) {
  struct Row {
    const char* kind;
    PickleBuilder size;
    std::uint64_t extent;
  };
  const Row rows[] = {
      {"true", PickleBuilder().op(Op::NEWTRUE), 1},
      {"None", PickleBuilder().op(Op::NONE), 0},
      {"Float", PickleBuilder().binfloat(3), 0},
      {"Str", PickleBuilder().binunicode("3"), 0},
      {"Bytes", PickleBuilder().binbytes("3"), 0},
      {"Tuple", PickleBuilder().binint1(3).op(Op::TUPLE1), 0},
      {"Dict", PickleBuilder().op(Op::EMPTY_DICT), 0},
      {"Global", PickleBuilder().global("m", "n"), 0},
      {"Storage", PickleBuilder().storage("FloatStorage", "s", 3), 3},
  };
  for (const Row& row : rows) {
    const std::string bytes = archiveWithStorage(tensorOfSizes(row.size), 12);
    PyTorchImporter importer;
    ASSERT_THAT(importer.openBytes(bytes), IsOk()) << row.kind;
    EXPECT_EQ(importer.tensors()[0].shape[0], row.extent) << row.kind;
    EXPECT_EQ(importer.tensors()[0].nbytes, 4 * row.extent) << row.kind;
  }
}

// ---- ranges

TEST(PyTorchRecords, AcceptATensorThatEndsWithItsStorage) {
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"w", {2, 3}, "s", "FloatStorage", 2}}), 32)),
              IsOk());
}

TEST(PyTorchRecords, RefuseATensorThatEndsOneByteAfterItsStorageAndSayWhy) {
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"w", {2, 3}, "s", "FloatStorage", 2}}), 31)),
              StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: w numel=6 es=4 bo=8 usize=31\n");
}

TEST(PyTorchRecords, PrintTheNameOfATensorAsItIs) {
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"100%s%n", {2}, "s", "HalfStorage"}}), 3)),
              StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: 100%s%n numel=2 es=2 bo=0 usize=3\n");
}

TEST(PyTorchRecords, SayNothingOnStandardErrorInAnyOtherCase) {
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({{"w", {1}, "s"}}), 4)), IsOk());
  EXPECT_FALSE(openStatus(archiveWithStorage(test::stateDict({{"w", {1}, "none"}}), 4)).ok());
  EXPECT_FALSE(openStatus(archiveWithStorage(test::stateDict({{"w", {1}, "s", "IntStorage"}}), 4)).ok());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(PyTorchRecords, MeasureAgainstTheUncompressedSize) {
  const std::string program = test::stateDict({{"w", {2}, "s"}});
  const auto withSizes = [&](std::uint64_t compressed, std::uint64_t uncompressed) {
    return archive(program)
        .add("s", "12345678")
        .lieCentral(test::zip_central::kCompressedSize, compressed)
        .lieCentral(test::zip_central::kUncompressedSize, uncompressed)
        .build();
  };
  EXPECT_THAT(openStatus(withSizes(0, 8)), IsOk());
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(withSizes(8, 7)), StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: w numel=2 es=4 bo=0 usize=7\n");
}

TEST(PyTorchRecords, ConsultNeitherTheStoragesElementCountNorTheStride) {
  PickleBuilder program;
  program.op(Op::EMPTY_DICT).binunicode("w").global("torch._utils", "_rebuild_tensor_v2").op(Op::MARK);
  program.storage("FloatStorage", "s", 1).binint1(0).binint1(2).binint1(3).op(Op::TUPLE2);
  // The stride of a transposed tensor, then requires_grad and hooks.
  program.binint1(1).binint1(2).ops({Op::TUPLE2, Op::NEWFALSE, Op::EMPTY_DICT});
  program.ops({Op::TUPLE_T, Op::REDUCE, Op::SETITEM});
  EXPECT_THAT(openStatus(archiveWithStorage(program.stop(), 24)), IsOk());
}

TEST(PyTorchRecords, UseTheFirstThreePartsOfATensorThatHasMore) {
  PickleBuilder program;
  program.op(Op::EMPTY_DICT).binunicode("w").tensor({"", {2}, "s"});
  program.op(Op::NONE).op(Op::APPEND).op(Op::NONE).op(Op::BUILD).op(Op::SETITEM);
  EXPECT_EQ(tensorNames(archiveWithStorage(program.stop(), 8)), std::vector<std::string>{"w"});
}

// ---- storages

TEST(PyTorchRecords, TakeTheStorageKeyAsTheWholeNameOfAnEntry) {
  const std::string program = test::stateDict({{"w", {1}, "archive/data/0"}});
  EXPECT_THAT(openStatus(archive(program).add("archive/data/0", "1234").build()), IsOk());
  EXPECT_THAT(openStatus(archive(program).add("data/0", "1234").add("0", "1234").build()),
              StatusIs(Code::Corrupted, "torch: missing storage entry 'archive/data/0'"));
}

TEST(PyTorchRecords, FindNoStorageByItsPlainNumberInsideAFolder) {
  EXPECT_THAT(openStatus(archive(test::stateDict({{"w", {1}, "0"}})).add("archive/data/0", "1234").build()),
              StatusIs(Code::Corrupted, "torch: missing storage entry '0'"));
}

TEST(PyTorchRecords, MatchAnEmptyStorageKeyWithAnEmptyEntryName) {
  const std::string program = test::stateDict({{"w", {1}, ""}});
  EXPECT_THAT(openStatus(archive(program).add("", "1234").build()), IsOk());
  EXPECT_THAT(openStatus(archive(program).build()),
              StatusIs(Code::Corrupted, "torch: missing storage entry ''"));
}

TEST(PyTorchRecords, MeasureAgainstTheFirstOfEqualEntries) {
  const std::string program = test::stateDict({{"w", {2}, "s"}});
  EXPECT_THAT(openStatus(archive(program).add("s", "12345678").add("s", "").build()), IsOk());
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archive(program).add("s", "").add("s", "12345678").build()),
              StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: w numel=2 es=4 bo=0 usize=0\n");
}

TEST(PyTorchRecords, MayUseTheProgramsOwnEntryAsAStorage) {
  EXPECT_THAT(openStatus(archive(test::stateDict({{"w", {1}, "data.pkl"}})).build()), IsOk());
}

// ---- order

TEST(PyTorchRecords, AreSortedByTheBytesOfTheirNames) {
  const std::vector<std::string> sorted = {
      "", "A", "a", std::string("a\0", 2), "a.b", "aa", "b", "z", "\x7F", "\xC3\xA9", "\xFF"};
  std::vector<PickleTensor> tensors;
  for (auto name = sorted.rbegin(); name != sorted.rend(); ++name)
    tensors.push_back({*name, {1}, "s"});
  EXPECT_EQ(tensorNames(archiveWithStorage(test::stateDict(tensors), 4)), sorted);
}

TEST(PyTorchRecords, OfOneNameKeepTheOrderOfTheProgram) {
  std::vector<PickleTensor> tensors;
  for (std::uint64_t k = 0; k < 100; ++k)
    tensors.push_back({k % 2 == 0 ? "w" : "v", {1}, "s", "FloatStorage", k});
  const std::string bytes = archiveWithStorage(test::stateDict(tensors), 400);
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  ASSERT_EQ(importer.tensors().size(), 100u);
  for (std::uint64_t k = 0; k < 50; ++k) {
    EXPECT_EQ(importer.tensors()[k].name, "v");
    EXPECT_EQ(importer.tensors()[k].offset, 4 * (2 * k + 1));
    EXPECT_EQ(importer.tensors()[50 + k].name, "w");
    EXPECT_EQ(importer.tensors()[50 + k].offset, 4 * (2 * k));
  }
}

// ---- which failure comes first

TEST(PyTorchRecords, AreRefusedInTheOrderOfTheProgramForTheirKindAndElementType) {
  PickleBuilder typeFirst;
  typeFirst.op(Op::EMPTY_DICT).binunicode("z").tensor({"", {1}, "s", "IntStorage"}).op(Op::SETITEM);
  typeFirst.binunicode("a").op(Op::NONE).op(Op::SETITEM);
  EXPECT_THAT(openStatus(archiveWithStorage(typeFirst.stop(), 4)),
              StatusIs(Code::Unsupported, "torch: unsupported storage dtype 'IntStorage'"));

  PickleBuilder kindFirst;
  kindFirst.op(Op::EMPTY_DICT).binunicode("z").op(Op::NONE).op(Op::SETITEM);
  kindFirst.binunicode("a").tensor({"", {1}, "s", "IntStorage"}).op(Op::SETITEM);
  EXPECT_THAT(openStatus(archiveWithStorage(kindFirst.stop(), 4)), StatusIs(Code::Unsupported, kNotATensor));
}

TEST(PyTorchRecords, AreAllLookedAtBeforeAnyStorageIs) {
  PickleBuilder program;
  program.op(Op::EMPTY_DICT).binunicode("a").tensor({"", {1}, "none"}).op(Op::SETITEM);
  program.binunicode("b").op(Op::NONE).op(Op::SETITEM);
  EXPECT_THAT(openStatus(archiveWithStorage(program.stop(), 4)), StatusIs(Code::Unsupported, kNotATensor));
}

TEST(PyTorchRecords, AreRefusedInTheOrderOfTheirNamesForTheirStorages) {
  const PickleTensor a{"a", {1}, "none"};
  const PickleTensor b{"b", {9}, "s"};
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({b, a}), 4)),
              StatusIs(Code::Corrupted, "torch: missing storage entry 'none'"));
  const PickleTensor c{"c", {1}, "none"};
  testing::internal::CaptureStderr();
  EXPECT_THAT(openStatus(archiveWithStorage(test::stateDict({c, b}), 4)),
              StatusIs(Code::Corrupted, kExceeds));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: b numel=9 es=4 bo=0 usize=4\n");
}

}  // namespace
}  // namespace zel
