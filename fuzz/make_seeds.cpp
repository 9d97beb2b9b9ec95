// fuzz_make_seeds DIR           writes every seed to DIR/<target>/<name>
// fuzz_make_seeds --check DIR   only tells whether they are there, byte for byte
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "seeds.h"

namespace {

bool holds(const std::string& path, const std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  return in && std::string{std::istreambuf_iterator<char>(in), {}} == bytes;
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
  }
  return failures == 0 ? 0 : 1;
}
