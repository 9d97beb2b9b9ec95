// Small inputs for every harness, made by the tests' builders.
#pragma once

#include <string>
#include <vector>

namespace zel::fuzz {

inline constexpr bool kNoMutants = false;  // see Seed::mutants

struct Seed {
  std::string name;  // says what it is: the name of its file in the corpus
  std::string bytes;
  bool mutants = true;  // false: too like another seed for all of its mutants to be worth their time
};

struct SeedSet {
  std::string target;
  std::vector<Seed> seeds;
};

std::vector<SeedSet> allSeeds();

}  // namespace zel::fuzz
