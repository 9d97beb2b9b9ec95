#include "container/name_order.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <string>

namespace zel {
namespace {

using namespace std::string_literals;
using Names = std::vector<std::string>;
using Order = std::vector<std::uint32_t>;

Order order(const Names& names) {
  return orderByName(names.size(), [&](std::size_t k) { return std::string_view(names[k]); });
}

TEST(NameOrder, OfNothingIsEmpty) { EXPECT_EQ(order({}), Order()); }

TEST(NameOrder, OfOneNameIsItself) { EXPECT_EQ(order({"a"}), Order({0})); }

TEST(NameOrder, ComparesBehindTheCommonBeginning) {
  EXPECT_EQ(order({"model.layers.2.w", "model.layers.10.w", "model.layers.1.w"}), Order({2, 1, 0}));
}

TEST(NameOrder, PutsAPrefixBeforeWhatItBegins) {
  EXPECT_EQ(order({"model.norm.weight", "model.norm", "model"}), Order({2, 1, 0}));
}

TEST(NameOrder, PutsTheEmptyNameFirst) { EXPECT_EQ(order({"a", "", "b"}), Order({1, 0, 2})); }

TEST(NameOrder, KeepsTheOrderOfEqualNames) { EXPECT_EQ(order({"b", "a", "b", "a"}), Order({1, 3, 0, 2})); }

TEST(NameOrder, ComparesBytesWithoutSign) { EXPECT_EQ(order({"x\x80", "x\x7F", "xA"}), Order({2, 1, 0})); }

TEST(NameOrder, TellsATrailingNulFromTheEnd) { EXPECT_EQ(order({"a\0"s, "a"s, "a\0\0"s}), Order({1, 0, 2})); }

TEST(NameOrder, GoesOnBehindSixteenEqualBytes) {
  EXPECT_EQ(
      order({"x123456789abcdefb", "x123456789abcdefa", "x123456789abcdef", "x12345678", "x1234567", "y"}),
      Order({4, 3, 2, 1, 0, 5}));
}

Order stableOrder(const Names& names) {
  Order order(names.size());
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return names[a] < names[b]; });
  return order;
}

TEST(NameOrder, IsThatOfAStableSort) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    Names names(random() % 60);
    const std::string common(random() % 12, 'p');
    for (std::string& name : names) {
      name = common;
      for (std::size_t n = random() % 24; n > 0; --n)
        name += "\0\x01yz\xFF"[random() % 5];
    }
    ASSERT_EQ(order(names), stableOrder(names)) << "round " << round;
  }
}

// Enough names for every way of sorting them, alike for long, and some that are equal or end among zeros.
TEST(NameOrder, OfThousandsOfNamesIsThatOfAStableSort) {
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    Names names(250 + random() % 2000);
    for (std::string& name : names) {
      for (std::size_t n = random() % 6; n > 0; --n)
        name += random() % 2 == 0 ? "layers.0" : "layers.\xFF";
      for (std::size_t n = random() % 4; n > 0; --n)
        name += "\0ab"[random() % 3];
    }
    ASSERT_EQ(order(names), stableOrder(names)) << "round " << round;
  }
}

TEST(NameOrder, OfManyEqualNamesIsTheirOwn) {
  Order expected(1000);
  std::iota(expected.begin(), expected.end(), 0U);
  EXPECT_EQ(order(Names(1000, "model.layers.0.weight")), expected);
}

// Every eight bytes another name leaves the others, so nothing but the limit ends the nesting.
TEST(NameOrder, OfNamesThatBranchEverywhereIsLongestFirst) {
  constexpr std::size_t kNames = 200;
  Names names;
  for (std::size_t k = 0; k < kNames; ++k)
    names.push_back(std::string(8 * k, 'x') + "yyyyyyyy");
  const Order found = order(names);
  for (std::size_t k = 0; k < kNames; ++k)
    ASSERT_EQ(found[k], kNames - 1 - k);
}

// A mapped file that is written to meanwhile: any order will do, but each position once, and no access
// outside.
TEST(NameOrder, OfNamesThatChangeMeanwhileIsSomePermutation) {
  std::mt19937 random(7);
  for (const std::size_t count : {2U, 16U, 17U, 255U, 256U, 3000U}) {
    for (int round = 0; round < 20; ++round) {
      Names names(count, std::string(20, 'n'));
      const auto nameAt = [&](std::size_t k) {
        names[k][random() % 20] = char('m' + random() % 3);
        return std::string_view(names[k]);
      };
      Order found = orderByName(count, nameAt);
      std::sort(found.begin(), found.end());
      Order expected(count);
      std::iota(expected.begin(), expected.end(), 0U);
      ASSERT_EQ(found, expected);
    }
  }
}

// What the converter's names are in the order of a file's: near to their places.
TEST(NameOrder, OfGroupsThatAreEachOutOfOrderIsThatOfAStableSort) {
  for (const std::size_t groupSize : {2U, 4U, 9U, 10U, 60U}) {
    Names names;
    for (std::size_t k = 0; k < 3000; ++k) {
      const std::size_t group = k / groupSize;
      names.push_back("blk." + std::to_string(100'000 + group) + char('z' - (k % groupSize) / 2));
    }
    ASSERT_EQ(order(names), stableOrder(names)) << groupSize;
  }
}

// Few names are far from their places, or one, or all are.
TEST(NameOrder, OfNamesFarFromTheirPlacesIsThatOfAStableSort) {
  for (const std::size_t count : {200U, 256U, 3000U}) {
    Names inOrder;
    for (std::size_t k = 0; k < count; ++k)
      inOrder.push_back("layers." + std::to_string(10'000 + k / 2));
    for (std::size_t from : {std::size_t{1}, count / 2, count - 1}) {
      Names names = inOrder;
      std::rotate(names.begin(), names.begin() + std::ptrdiff_t(from), names.end());
      ASSERT_EQ(order(names), stableOrder(names)) << count << " from " << from;
    }
    Names names(inOrder.rbegin(), inOrder.rend());
    ASSERT_EQ(order(names), stableOrder(names)) << count;
  }
}

// To give up in the middle of moving a key must not lose it: 4 steps a key are spent at every place in turn.
TEST(NameOrder, IsCompleteWhereverMovingNearbyEnds) {
  for (std::size_t far = 1; far < 300; ++far) {
    Names names;
    for (std::size_t k = 0; k < 300; ++k)
      names.push_back("layers." + std::to_string(10'000 + (k + far) % 300));
    ASSERT_EQ(order(names), stableOrder(names)) << far;
  }
}

// Few and many words, near their places and far from them.
TEST(SortByWord, KeepsTheOrderOfEqualWords) {
  std::mt19937 random(7);
  for (const std::size_t count : {100U, 255U, 256U, 3000U}) {
    for (const std::uint64_t spread : {3U, 1000U}) {
      std::vector<detail::NameKey> keys(count);
      std::vector<detail::NameKey> scratch(count);
      for (std::size_t k = 0; k < count; ++k)
        keys[k] = {k / 3 + random() % spread, std::uint32_t(k)};
      std::vector<detail::NameKey> expected = keys;
      std::stable_sort(expected.begin(), expected.end(),
                       [](const detail::NameKey& a, const detail::NameKey& b) { return a.word < b.word; });
      detail::sortByWord(keys.data(), scratch.data(), count);
      for (std::size_t k = 0; k < count; ++k)
        ASSERT_EQ(keys[k].position, expected[k].position) << count << " words, spread " << spread;
    }
  }
}

TEST(NameOrder, OfNumberedLayersIsByDigits) {
  Names names;
  for (int layer = 0; layer < 1200; ++layer) {
    for (const char* part : {"self_attn.q_proj", "self_attn.k_proj", "mlp.up_proj"})
      names.push_back("model.layers." + std::to_string(layer) + "." + part + ".weight");
  }
  names.push_back("lm_head.weight");
  const Order found = order(names);
  EXPECT_EQ(found, stableOrder(names));
  EXPECT_EQ(names[found[0]], "lm_head.weight");
  EXPECT_EQ(names[found[1]], "model.layers.0.mlp.up_proj.weight");
  EXPECT_EQ(names[found[4]], "model.layers.1.mlp.up_proj.weight");
  EXPECT_EQ(names[found[7]], "model.layers.10.mlp.up_proj.weight");
}

}  // namespace
}  // namespace zel
