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
    Order expected(names.size());
    std::iota(expected.begin(), expected.end(), 0U);
    std::stable_sort(expected.begin(), expected.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return names[a] < names[b]; });
    ASSERT_EQ(order(names), expected) << "round " << round;
  }
}

TEST(Arrange, MovesEveryElementToItsPlace) {
  std::mt19937 random(7);
  for (std::size_t count = 0; count < 60; ++count) {
    Order order(count);
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), random);
    Names elements(count), expected;
    for (std::size_t k = 0; k < count; ++k)
      elements[k] = "the element with the number " + std::to_string(k);
    for (const std::uint32_t position : order)
      expected.push_back(elements[position]);
    arrange(elements, order);
    ASSERT_EQ(elements, expected) << count << " elements";
  }
}

}  // namespace
}  // namespace zel
