// fuzz_make_seeds DIR           writes every seed to DIR/<target>/<name>
// fuzz_make_seeds --check DIR   only tells whether they are there, byte for byte, and all has names
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include "seeds.h"

namespace {

bool holds(const std::string& path, const std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  return in && std::string{std::istreambuf_iterator<char>(in), {}} == bytes;
}

// A fuzzer that is started on the corpus itself keeps inputs there under their SHA-1. A finding has a name.
bool hasFuzzersName(const std::string& name) {
  return name.size() == 40 && name.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  const bool check = argc == 3 && std::strcmp(argv[1], "--check") == 0;
  if (argc != 2 && !check) {
    std::fprintf(stderr, "usage: fuzz_make_seeds [--check] DIR\n");
    return 2;
  }
  int failures = 0;
  for (const zel::fuzz::SeedSet& set : zel::fuzz::allSeeds()) {
    const std::string dir = std::string(argv[argc - 1]) + "/" + set.target;
    if (!check) std::filesystem::create_directories(dir);
    for (const zel::fuzz::Seed& seed : set.seeds) {
      const std::string path = dir + "/" + seed.name;
      if (!check) std::ofstream(path, std::ios::binary) << seed.bytes;
      if (holds(path, seed.bytes)) continue;
      std::fprintf(stderr, "%s is not the seed of that name: run fuzz_make_seeds\n", path.c_str());
      ++failures;
    }
    std::error_code missing;  // told above
    for (const auto& entry : std::filesystem::directory_iterator(dir, missing)) {
      if (!check || !hasFuzzersName(entry.path().filename().native())) continue;
      std::fprintf(stderr, "%s has no name that says what it is\n", entry.path().c_str());
      ++failures;
    }
  }
  return failures == 0 ? 0 : 1;
}
