// What two containers do not have in common: what diff and verify --against share.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "okv2/container_reader.h"

namespace zel::tool {

struct Difference {
  const char* part;  // "header", "metadata", "tokenizer", "graph", "chat template" or "tensor"
  std::string name;  // of the field, item or tensor, escaped; may be empty
  std::string text;  // escaped
};
using Differences = std::vector<Difference>;

// How a difference is told: what stands between the first's value and the second's, and what is said of
// something that one of them lacks.
struct DifferenceWords {
  const char* between;
  const char* onlyInFirst;
  const char* onlyInSecond;
};
inline constexpr DifferenceWords kOfTwoContainers = {" and ", "only in the first", "only in the second"};
inline constexpr DifferenceWords kFromExpected = {", expected ", "not expected", "missing"};

// "tensor NAME: TEXT"
[[nodiscard]] std::string lineOf(const Difference& difference);

// Appends what differs in the header's numbers, metadata, tokenizer, graph and chat template. Metadata items
// of one key answer to each other in their order; the order of different keys is not compared.
void compareDescriptions(const ContainerView& a, const ContainerView& b, const DifferenceWords& words,
                         Differences& out);

// Appends what differs in the tensors. Those of one name answer to each other in their order.
void compareTensors(const ContainerView& a, const ContainerView& b, const DifferenceWords& words,
                    Differences& out);

// Two different texts, quoted, escaped and cut so that what is shown is not the same: around the first byte
// that differs when that lies far inside.
[[nodiscard]] std::pair<std::string, std::string> shownApart(std::string_view a, std::string_view b);

}  // namespace zel::tool
