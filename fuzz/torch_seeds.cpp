// Checkpoints of torch.save, whole, and the programs alone that the harnesses put into one.
#include "torch_seeds.h"

#include <cstdint>
#include <vector>

#include "support/torch_builder.h"

namespace zel::fuzz {
namespace {

using test::SavedArray;
using test::SavedPickle;
using test::SavedTensor;
namespace op = test::pickle_op;

const std::string kElements(64, 'e');

SavedTensor plain() { return {"w", {2, 2}, {2, 1}, "0", 16}; }

std::string wrapped() {
  return SavedPickle()
      .op(op::kEmptyDict)
      .op(op::kMark)
      .text("epoch")
      .op(op::kBinInt1, "\3")
      .text("state_dict")
      .stateDict({plain()})
      .op(op::kSetItems)
      .stop();
}

std::string protocol4() {
  return SavedPickle(4)
      .op(op::kFrame, test::littleEndian(64, 8))
      .op(op::kShortBinUnicode, "\x0b")
      .raw("collections")
      .op(op::kMemoize)
      .op(op::kShortBinUnicode, "\x0b")
      .raw("OrderedDict")
      .op(op::kStackGlobal)
      .op(op::kEmptyTuple)
      .op(op::kReduce)
      .op(op::kShortBinUnicode, "\1")
      .raw("w")
      .tensor(plain())
      .op(op::kSetItem)
      .stop();
}

std::string inert() {
  return SavedPickle()
      .stateDict({plain()})
      .text("array")
      .global("numpy.core.multiarray", "_reconstruct")
      .global("numpy", "ndarray")
      .op(op::kTuple1)
      .op(op::kReduce)
      .op(op::kNone)
      .op(op::kBuild)
      .op(op::kSetItem)
      .stop();
}

// A tensor, and an array.
std::string withArray(const SavedArray& array) {
  return SavedPickle().stateDict({plain()}).text("array").array(array).op(op::kSetItem).stop();
}

// Two arrays over one text and one type.
std::string sharingArrays() {
  const SavedPickle type = SavedPickle::bare().op(op::kBinGet, "\2");
  const SavedPickle raw = SavedPickle::bare().op(op::kBinGet, "\1");
  SavedPickle program;
  program.latin1(test::latin1Text("ab\x80\xff")).op(op::kBinPut, "\1").op(op::kPop);
  program.numberType("f2").op(op::kBinPut, "\2").op(op::kPop).op(op::kEmptyDict);
  program.text("a").unfilledArray().arrayState({2, 1}, type, true, raw).op(op::kSetItem);
  return program.text("b").unfilledArray().arrayState({2}, type, false, raw).op(op::kSetItem).stop();
}

std::string bufferArray() {
  return SavedPickle(5)
      .op(op::kEmptyDict)
      .text("array")
      .global("numpy._core.numeric", "_frombuffer")
      .op(op::kMark)
      .op(op::kByteArray8, test::littleEndian(4, 8))
      .raw("ab\x80\xff")
      .numberType("u1", "|")
      .tuple({2, 2})
      .text("F")
      .op(op::kTuple)
      .op(op::kReduce)
      .op(op::kSetItem)
      .stop();
}

std::string typed() {
  return SavedPickle()
      .orderedDict()
      .text("w")
      .global("torch._utils", "_rebuild_tensor_v3")
      .op(op::kMark)
      .storage("UntypedStorage", "0", 64)
      .op(op::kBinInt1, "\1")
      .op(op::kBinInt1, "\3")
      .op(op::kTuple1)
      .op(op::kBinInt1, "\2")
      .op(op::kTuple1)
      .op(op::kNewFalse)
      .op(op::kNone)
      .global("torch", "float8_e4m3fn")
      .op(op::kTuple)
      .op(op::kReduce)
      .op(op::kSetItem)
      .stop();
}

std::string negated() {
  return SavedPickle()
      .orderedDict()
      .text("w")
      .global("torch._utils", "_rebuild_tensor_v2")
      .op(op::kMark)
      .storage("FloatStorage", "0", 16)
      .number(0)
      .tuple({2})
      .tuple({1})
      .op(op::kNewFalse)
      .orderedDict()
      .op(op::kEmptyDict)
      .text("neg")
      .op(op::kNewTrue)
      .op(op::kSetItem)
      .op(op::kTuple)
      .op(op::kReduce)
      .op(op::kSetItem)
      .stop();
}

// What the harness adds storages "0" and "1" of 64 bytes to.
std::vector<Seed> programs() {
  return {
      {"state_dict", SavedPickle().stateDict({plain()}).stop(), kNoMutants},
      {"transposed", SavedPickle().stateDict({{"w", {2, 3}, {1, 2}, "0", 16}}).stop(), kNoMutants},
      {"expanded", SavedPickle().stateDict({{"w", {2, 3}, {0, 1}, "0", 16}}).stop(), kNoMutants},
      {"shared", SavedPickle().stateDict({plain(), {"v", {4}, {2}, "0", 16, "FloatStorage", 3}}).stop(),
       kNoMutants},
      {"scalar", SavedPickle().stateDict({{"w", {}, {}, "1", 8, "LongStorage"}}).stop(), kNoMutants},
      {"wrapped", wrapped(), kNoMutants},
      {"protocol_4", protocol4(), kNoMutants},
      {"inert_object", inert(), kNoMutants},
      {"array", withArray({{2, 3}, "abcdefghi\x80\x90\xff", "f2"}), kNoMutants},
      {"array_transposed", withArray({{2, 3}, "abcdefghi\x80\x90\xff", "i2", true}), kNoMutants},
      {"array_scalar", withArray({{}, "abcdefgh", "f8"}), kNoMutants},
      {"array_of_bytes_only", withArray({{2, 2}, "abcd", "V1", false, "|"}), kNoMutants},
      {"array_big_endian", withArray({{1}, "abcd", "f4", false, ">"}), kNoMutants},
      {"array_too_long", withArray({{2}, "abc", "b1", false, "|"}), kNoMutants},
      {"arrays_sharing", sharingArrays(), kNoMutants},
      {"array_buffer", bufferArray(), kNoMutants},
      {"typed", typed(), kNoMutants},
      {"negated", negated(), kNoMutants},
      {"foreign_global", SavedPickle().global("os", "system").stop()},
      {"memo_bomb", SavedPickle().op(op::kNone).op(op::kLongBinPut, "\xff\xff\xff\xff").stop()},
      {"forks", SavedPickle().op(op::kNone).repeat(40, "2\x86").stop()},
      {"no_names", SavedPickle().tensor(plain()).stop(), kNoMutants},
  };
}

}  // namespace

SeedSet torchZipSeeds() {
  SeedSet set{"torch_zip", programs()};
  const std::string program = SavedPickle().stateDict({plain()}).stop();
  const auto add = [&](const char* name, const std::string& bytes, bool mutants) {
    set.seeds.push_back({name, bytes, mutants});
  };
  add("archive", test::ZipBuilder().add("a/data.pkl", program).add("a/data/0", kElements).build(), true);
  add("torch_save", test::savedZip(program, {{"0", kElements}}).build(), kNoMutants);
  add("deflated", test::savedZip(program, {{"0", kElements}}, "archive", true).build(), kNoMutants);
  test::ZipBuilder overlapping;
  overlapping.add("a/data.pkl", program).add("a/data/0", "");
  overlapping.lieCentral(test::zip_central::kUncompressedSize, 64)
      .lieCentral(test::zip_central::kCompressedSize, 64)
      .lieCentral(test::zip_central::kLocalOffset, 0);
  add("overlapping", overlapping.build(), kNoMutants);
  add("short_storage", test::savedZip(program, {{"0", kElements.substr(1)}}).build(), kNoMutants);
  add("big_endian", test::ZipBuilder().add("a/data.pkl", program).add("a/byteorder", "big").build(),
      kNoMutants);
  return set;
}

SeedSet torchLegacySeeds() {
  SeedSet set{"torch_legacy", {}};
  const std::string program = SavedPickle().stateDict({plain()}, true).stop();
  const std::string tail = test::legacyKeys({"0"}) + test::littleEndian(16, 8) + kElements;
  set.seeds.push_back({"whole", test::savedLegacy(program, {{"0", 16, kElements}}), kNoMutants});
  set.seeds.push_back({"object_on", program + tail});
  set.seeds.push_back(
      {"wrapping_count",
       program + test::legacyKeys({"0"}) + test::littleEndian(std::uint64_t{1} << 62, 8) + kElements,
       kNoMutants});
  set.seeds.push_back(
      {"storage_twice",
       program + test::legacyKeys({"0", "0"}) + test::littleEndian(0, 8) + test::littleEndian(0, 8),
       kNoMutants});
  set.seeds.push_back({"no_keys", program, kNoMutants});
  set.seeds.push_back(
      {"big_endian", test::legacyMagic() + test::legacyProtocol() + test::legacySystem(false), kNoMutants});
  for (Seed& seed : programs()) {
    seed.bytes += tail;
    seed.mutants = kNoMutants;
    set.seeds.push_back(std::move(seed));
  }
  return set;
}

}  // namespace zel::fuzz
