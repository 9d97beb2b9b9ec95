// Programs made to exhaust a stack, the memory or the time of whoever runs them.
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pickle_machine.h"
#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/test_conditions.h"
#include "support/zip_builder.h"

// ---- every byte that this executable allocates

namespace {
std::atomic<std::size_t> liveBytes{0};
std::atomic<std::size_t> peakBytes{0};

void* countedAllocation(std::size_t size) noexcept {
  void* const p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) return nullptr;
  const std::size_t live = liveBytes += malloc_usable_size(p);
  std::size_t peak = peakBytes;
  while (live > peak && !peakBytes.compare_exchange_weak(peak, live)) {
  }
  return p;
}
void countedRelease(void* p) noexcept {
  if (p != nullptr) liveBytes -= malloc_usable_size(p);
  std::free(p);
}
}  // namespace

void* operator new(std::size_t size) {
  if (void* const p = countedAllocation(size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return countedAllocation(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return countedAllocation(size); }
void operator delete(void* p) noexcept { countedRelease(p); }
void operator delete[](void* p) noexcept { countedRelease(p); }
void operator delete(void* p, std::size_t) noexcept { countedRelease(p); }
void operator delete[](void* p, std::size_t) noexcept { countedRelease(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedRelease(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedRelease(p); }

namespace zel {
namespace {

using test::IsOk;
using test::Op;
using test::PickleBuilder;
using test::StatusIs;

// Instrumented code is several times larger and slower; the promises are the same.
constexpr std::size_t kShrink = test::kSanitized ? 20 : 1;

// Runs `work` to its end on a thread with a stack of 256 KiB.
void onASmallStack(const std::function<void()>& work) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
  pthread_t thread;
  const auto call = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  std::function<void()> copy = work;
  ASSERT_EQ(pthread_create(&thread, &attributes, call, &copy), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  ASSERT_EQ(pthread_attr_destroy(&attributes), 0);
}

// Copies of the top value by every road, one of them changed, and all thrown away by the machine's end.
PickleBuilder copied(PickleBuilder program, std::uint8_t memoIndex = 0) {
  program.op(Op::MEMOIZE)
      .binget(memoIndex)
      .op(Op::DUP)
      .longBinget(memoIndex)
      .ops({Op::NONE, Op::APPEND, Op::POP});
  return program;
}

constexpr std::size_t kDepth = 10'000'000 / kShrink;

void expectHarmless(const PickleBuilder& program, std::size_t stackSize) {
  const std::string stream = program.stop();
  onASmallStack([&] {
    const test::PickleVerdict verdict = test::judgePickle(stream);
    EXPECT_THAT(verdict.status, IsOk());
    EXPECT_EQ(verdict.stackSize, stackSize);
  });
}

TEST(PickleDepth, OfTuplesIsBuiltCopiedAndDestroyedOnASmallStack) {
  PickleBuilder program;
  program.op(Op::NONE).repeat(kDepth, std::string(1, char(Op::TUPLE1)));
  expectHarmless(copied(program), 3);
}

TEST(PickleDepth, OfAppendedListsIsBuiltCopiedAndDestroyedOnASmallStack) {
  PickleBuilder program;
  program.repeat(kDepth + 1, std::string(1, char(Op::EMPTY_LIST)))
      .repeat(kDepth, std::string(1, char(Op::APPEND)));
  expectHarmless(copied(program), 3);
}

TEST(PickleDepth, OfDictsIsBuiltCopiedAndDestroyedOnASmallStack) {
  PickleBuilder program;
  const std::string dictAndKey = PickleBuilder().op(Op::EMPTY_DICT).binget(0).bytes();
  program.shortBinunicode("key")
      .ops({Op::MEMOIZE, Op::POP})
      .repeat(kDepth, dictAndKey)
      .op(Op::EMPTY_DICT)
      .repeat(kDepth, std::string(1, char(Op::SETITEM)));
  expectHarmless(copied(program, 1), 3);
}

TEST(PickleDepth, OfMarksIsClosedOnASmallStack) {
  PickleBuilder program;
  program.repeat(kDepth / 10, std::string(1, char(Op::MARK)))
      .repeat(kDepth / 10, std::string(1, char(Op::LIST)));
  expectHarmless(program, 1);
}

TEST(PickleDepth, IsHarmlessInAProgramThatFails) {
  PickleBuilder program;
  program.op(Op::NONE).repeat(kDepth / 10, std::string(1, char(Op::TUPLE1))).raw("t");
  onASmallStack([&] {
    EXPECT_THAT(test::judgePickle(program.bytes()).status,
                StatusIs(Code::Unsupported, "torch: pickle unknown pickle opcode"));
  });
}

// ---- memory and time in proportion to the program

struct Bomb {
  const char* name;
  std::string head;    // run once
  std::string period;  // repeated to the wanted length
};

void PrintTo(const Bomb& bomb, std::ostream* os) { *os << bomb.name; }

std::string streamOf(const Bomb& bomb, std::size_t bytes) {
  PickleBuilder program;
  return program.raw(bomb.head).repeat(bytes / bomb.period.size(), bomb.period).stop();
}

class PickleBombs : public testing::TestWithParam<Bomb> {};

constexpr std::size_t kLong = 1'000'000 / kShrink;
constexpr std::size_t kShort = kLong / 50;

// What one byte of program may cost: a list cell and its share of growing vectors.
constexpr std::size_t kBytesPerByte = 160;
// Anything quadratic costs fifty times as much a byte in fifty times the length. Fresh memory, which only the
// long program needs, costs up to six times as much on a busy machine.
constexpr double kTolerance = 20;

TEST_P(PickleBombs, CostMemoryInProportionToTheProgram) {
  const std::string stream = streamOf(GetParam(), kLong);
  const std::size_t before = liveBytes;
  peakBytes = before;
  EXPECT_THAT(test::judgePickle(stream).status, IsOk());
  EXPECT_LE(peakBytes - before, stream.size() * kBytesPerByte + (1 << 20));
  EXPECT_EQ(liveBytes, before);
}

// Processor time of this thread.
template <class Work>
double secondsOf(const Work& work) {
  timespec begin{}, end{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
  work();
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
  return double(end.tv_sec - begin.tv_sec) + 1e-9 * double(end.tv_nsec - begin.tv_nsec);
}

void mustBeRead(const std::string& stream) {
  const Status status = test::judgePickle(stream).status;
  if (!status.ok()) throw std::runtime_error(status.message());
}

double secondsPerByte(const std::string& stream, int runs) {
  double best = 1e9;
  for (int k = 0; k < runs; ++k)
    best = std::min(best, secondsOf([&stream] { mustBeRead(stream); }));
  return best / double(stream.size());
}

void expectLinearTime(const std::string& shortStream, const std::string& longStream) {
  double ratio = 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    ratio = secondsPerByte(longStream, 1) / secondsPerByte(shortStream, 2);
    if (ratio < kTolerance) break;
  }
  EXPECT_LT(ratio, kTolerance);
}

TEST_P(PickleBombs, CostTimeInProportionToTheProgram) {
  expectLinearTime(streamOf(GetParam(), kShort), streamOf(GetParam(), kLong));
}

std::string ops(std::initializer_list<Op> opcodes) { return PickleBuilder().ops(opcodes).bytes(); }

std::vector<Bomb> bombs() {
  using P = PickleBuilder;
  const std::string longText = P().binunicode(std::string(50000 / kShrink, 'x')).op(Op::MEMOIZE).bytes();
  const std::string longList =
      P().op(Op::EMPTY_LIST).repeat(50000 / kShrink, ops({Op::NONE, Op::APPEND})).op(Op::MEMOIZE).bytes();
  return {
      {"DoublingTuples", ops({Op::NONE}), ops({Op::DUP, Op::TUPLE2})},
      {"DoublingThroughTheMemo", ops({Op::NONE}), ops({Op::MEMOIZE, Op::DUP, Op::TUPLE2})},
      {"CopiesOfALongText", longText, ops({Op::DUP})},
      {"CopiesOfALongTextFromTheMemo", longText, P().binget(0).bytes()},
      {"CopiesOfALongList", longList, P().binget(0).bytes()},
      {"MemoizingALongList", longList, ops({Op::MEMOIZE})},
      {"AppendingAfterEveryMemoize", ops({Op::EMPTY_LIST}), ops({Op::MEMOIZE, Op::NONE, Op::APPEND})},
      {"AppendingToEveryDuplicate", ops({Op::EMPTY_LIST}), ops({Op::DUP, Op::NONE, Op::APPEND})},
      {"AppendingAListToItself", ops({Op::EMPTY_LIST}), ops({Op::DUP, Op::APPEND})},
      {"ForkingALongList", longList, P().binget(0).ops({Op::NONE, Op::APPEND}).bytes()},
      {"ForkingALongListByAppends", longList, P().binget(0).ops({Op::MARK, Op::NONE, Op::APPENDS}).bytes()},
      {"ForkingALongText", longText, P().binget(0).ops({Op::NONE, Op::APPEND}).bytes()},
      {"ForkingADict",
       P().op(Op::EMPTY_DICT)
           .binunicode(std::string(50000 / kShrink, 'x'))
           .ops({Op::NONE, Op::SETITEM, Op::MEMOIZE})
           .bytes(),
       P().binget(0).shortBinunicode("k").ops({Op::NONE, Op::SETITEM}).bytes()},
      {"OneLongKeyForManyPairs", P().raw(longText).op(Op::EMPTY_DICT).bytes(),
       P().binget(0).ops({Op::NONE, Op::SETITEM}).bytes()},
      {"StoragesOfOneLongKey", longText,
       P().global("torch", "C").binget(0).binint1(1).ops({Op::TUPLE2, Op::NEWOBJ}).bytes()},
      {"LookingForAMarkThatIsNotThere", std::string(100000 / kShrink, char(Op::NONE)), ops({Op::LIST})},
      {"LookingForAMarkFarBelow", ops({Op::MARK}), ops({Op::NONE, Op::MARK, Op::LIST})},
      {"MarksAndLists", "", ops({Op::MARK, Op::MARK, Op::LIST, Op::LIST})},
      {"CopiesOfAMark", ops({Op::MARK, Op::MEMOIZE}), P().binget(0).op(Op::LIST).bytes()},
      {"ManySmallTexts", "", P().shortBinunicode("").bytes()},
      {"ManyNumbersInDigits", "", ops({Op::LONG}) + "L"},
      {"ManyGlobals", "", P().global("", "").bytes()},
      {"FramesAndProtocols", "", P().frame(1).proto(2).bytes()},
  };
}

INSTANTIATE_TEST_SUITE_P(All, PickleBombs, testing::ValuesIn(bombs()),
                         [](const testing::TestParamInfo<Bomb>& row) { return row.param.name; });

// All of them in turn, each behind what the others left, in pieces of a thousand bytes.
std::string everyBomb(std::size_t bytes) {
  std::string stream;
  while (stream.size() < bytes) {
    for (const Bomb& bomb : bombs()) {
      if (stream.size() < bytes / 2 && stream.size() % 7 == 0) stream += char(Op::MARK);
      if (bomb.head.size() > 100) continue;  // the memo indices of these count from an empty memo
      stream += streamOf(bomb, 1000);
      stream.pop_back();
    }
  }
  return stream + char(Op::STOP);
}

TEST(PickleBomb, OfTenMegabytesOfEveryKindCostsTimeAndMemoryInProportion) {
  const std::string stream = everyBomb(10'000'000 / kShrink);
  const std::size_t before = liveBytes;
  peakBytes = before;
  EXPECT_THAT(test::judgePickle(stream).status, IsOk());
  EXPECT_LE(peakBytes - before, stream.size() * kBytesPerByte + (1 << 20));
  expectLinearTime(everyBomb(200'000 / kShrink), stream);
}

// Wherever a block of the machine's memory ends: what lies behind it is used again.
TEST(PickleMemory, OfDroppedTextsIsUsedAgain) {
  const std::string text = PickleBuilder().shortBinunicode("").bytes();
  const std::string round = text + PickleBuilder().repeat(40, text + ops({Op::POP})).bytes();
  const std::string stream = PickleBuilder().repeat(600, round).stop();
  const std::size_t before = liveBytes;
  peakBytes = before;
  EXPECT_THAT(test::judgePickle(stream).status, IsOk());
  EXPECT_LE(peakBytes - before, std::size_t{1} << 20);
}

// What `rounds` of a program that keeps all it makes hold at most, without the program.
std::size_t peakOf(const PickleBuilder& head, const std::string& round, std::size_t rounds) {
  PickleBuilder program = head;
  const std::string stream = program.repeat(rounds, round).stop();
  const std::size_t before = liveBytes;
  peakBytes = before;
  EXPECT_THAT(test::judgePickle(stream).status, IsOk());
  return peakBytes - before;
}

// Memory comes in blocks of up to 8 MB, one of which may be all but empty.
constexpr std::size_t kBlock = 8 << 20;

TEST(PickleMemory, OfAnItemIs32Bytes) {
  const std::string round = PickleBuilder().binint1(7).op(Op::APPEND).bytes();
  EXPECT_LE(peakOf(PickleBuilder().op(Op::EMPTY_LIST), round, kLong), kLong * 32 + kBlock);
}

TEST(PickleMemory, OfAPairIs64BytesAnd16OfItsKeysText) {
  const std::string round = PickleBuilder().shortBinunicode("").ops({Op::NEWTRUE, Op::SETITEM}).bytes();
  EXPECT_LE(peakOf(PickleBuilder().op(Op::EMPTY_DICT), round, kLong), kLong * (64 + 16) + 2 * kBlock);
}

// ---- whole checkpoints

TEST(PyTorchBomb, OfManyTensorsOverOneLongStorageKeyCostsNoCopiesOfTheKey) {
  const std::string key(60000, 's');
  PickleBuilder program;
  program.binunicode("n").op(Op::MEMOIZE).tensor({"", {1}, key}).op(Op::MEMOIZE).op(Op::EMPTY_DICT);
  program.repeat(20000 / kShrink, PickleBuilder().binget(0).binget(1).op(Op::SETITEM).bytes());
  const std::string bytes = test::ZipBuilder().add("data.pkl", program.stop()).add(key, "1234").build();
  const std::size_t before = liveBytes;
  peakBytes = before;
  PyTorchImporter importer;
  EXPECT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.tensors().size(), 20000 / kShrink);
  EXPECT_LE(peakBytes - before, bytes.size() * kBytesPerByte + (1 << 20));
}

TEST(PyTorchBomb, OfOneLongNameForManyTensorsIsRefusedBeforeAnyIsCopied) {
  const std::string name(60000, 'n');
  PickleBuilder program;
  program.binunicode(name).op(Op::MEMOIZE).tensor({"", {1}, "s"}).op(Op::MEMOIZE).op(Op::EMPTY_DICT);
  program.repeat(20000, PickleBuilder().binget(0).binget(1).op(Op::SETITEM).bytes());
  const std::string bytes = test::ZipBuilder().add("data.pkl", program.stop()).add("s", "1234").build();
  const std::size_t before = liveBytes;
  peakBytes = before;
  PyTorchImporter importer;
  EXPECT_THROW((void)importer.openBytes(bytes), std::bad_alloc);
  EXPECT_LE(peakBytes - before, bytes.size() * kBytesPerByte + (1 << 20));
}

// Work on a checkpoint against that of the machine over its program alone, which is linear. Both are much
// smaller than the tolerance apart; what goes through a list for every tensor is hundreds of times as slow.
template <class Open>
void expectTimeOfTheProgram(const std::string& program, const Open& open) {
  double ratio = 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    ratio = secondsOf(open) / secondsOf([&program] { mustBeRead(program); });
    if (ratio < kTolerance) break;
  }
  EXPECT_LT(ratio, kTolerance);
}

// To order such names means to compare all of their bytes each time.
TEST(PyTorchBomb, OfTwoLongNamesThatDifferInTheirLastByteIsRefusedBeforeTheyAreCompared) {
  const std::string name(800'000 / kShrink, 'n');
  PickleBuilder builder;
  builder.binunicode(name + 'a').op(Op::MEMOIZE).binunicode(name + 'b').op(Op::MEMOIZE);
  builder.tensor({"", {1}, "s"}).op(Op::MEMOIZE).op(Op::EMPTY_DICT);
  builder.repeat(
      40'000 / kShrink,
      PickleBuilder().binget(0).binget(2).op(Op::SETITEM).binget(1).binget(2).op(Op::SETITEM).bytes());
  const std::string program = builder.stop();
  const std::string bytes = test::ZipBuilder().add("data.pkl", program).add("s", "1234").build();
  expectTimeOfTheProgram(program, [&bytes] {
    PyTorchImporter importer;
    EXPECT_THROW((void)importer.openBytes(bytes), std::bad_alloc);
  });
}

TEST(PyTorchDirectory, Of65535EntriesAnd100000TensorsIsReadInTimeThatGrowsWithTheirSum) {
  const std::size_t entries = 65'535 / kShrink;
  const std::size_t tensors = 100'000 / kShrink;
  PickleBuilder builder;
  builder.op(Op::EMPTY_DICT);
  for (std::size_t k = 0; k < tensors; ++k) {
    const std::string number = std::to_string(k);
    builder.binunicode("blk." + number).tensor({"", {1}, std::to_string(k % (entries - 1))}).op(Op::SETITEM);
  }
  const std::string program = builder.stop();
  test::ZipBuilder zip;
  for (std::size_t k = 0; k + 1 < entries; ++k)
    zip.add(std::to_string(k), "1234");
  const std::string bytes = zip.add("data.pkl", program).build();
  expectTimeOfTheProgram(program, [&bytes, entries, tensors] {
    PyTorchImporter importer;
    EXPECT_THAT(importer.openBytes(bytes), IsOk());
    EXPECT_EQ(importer.entries().size(), entries);
    EXPECT_EQ(importer.tensors().size(), tensors);
  });
}

}  // namespace
}  // namespace zel
