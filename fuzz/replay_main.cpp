// main() of a harness without libFuzzer.
//
//   fuzz_TARGET PATH...                        checks every file, and every file of every directory
//   fuzz_TARGET --random SECONDS SEED PATH...  then mutates them for a while
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

extern "C" {
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t capacity,
                                    unsigned seed);
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t capacity);

// Of the address and undefined-behaviour sanitizers, when they are there.
[[gnu::weak]] void __sanitizer_set_report_fd(void* fd);
}

namespace {

constexpr std::size_t kMaxInputBytes = 4096;

std::mt19937 random_source;

std::size_t below(std::size_t n) { return random_source() % n; }

// In memory of its own size, so that a read of one byte too many is seen.
bool survives(const std::string& input) {
  const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[input.size()]);
  std::copy(input.begin(), input.end(), exact.get());
  try {
    LLVMFuzzerTestOneInput(exact.get(), input.size());
    return true;
  } catch (const std::exception&) {  // reported by the harness
    return false;
  }
}

std::string readInput(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<std::string> listInputs(const std::vector<std::string>& paths) {
  std::vector<std::string> files;
  for (const std::string& path : paths) {
    if (!std::filesystem::is_directory(path)) {
      files.push_back(path);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(path))
      files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Mutates seeds until the time is over; the input of a failure is left in the current directory.
bool runRandomly(const std::vector<std::string>& seeds, int seconds, std::FILE* report) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::uint64_t runs = 0;
  for (; std::chrono::steady_clock::now() < end; ++runs) {
    std::string input = seeds[below(seeds.size())];
    const std::size_t capacity = std::max(kMaxInputBytes, input.size());
    for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
      const std::size_t size = input.size();
      input.resize(capacity);
      input.resize(LLVMFuzzerCustomMutator(reinterpret_cast<std::uint8_t*>(input.data()), size, capacity,
                                           unsigned(random_source())));
    }
    if (survives(input)) continue;
    std::ofstream("crash-input", std::ios::binary) << input;
    std::fprintf(report, "the input was written to crash-input\n");
    return false;
  }
  std::fprintf(report, "%llu executions\n", static_cast<unsigned long long>(runs));
  return true;
}

}  // namespace

// A few of the classic mutations.
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t capacity) {
  const auto byte = [] { return std::uint8_t(random_source()); };
  if (size == 0) {
    if (capacity == 0) return 0;
    data[0] = byte();
    return 1;
  }
  const std::size_t at = below(size);
  const std::size_t length = std::min(1 + below(8), size - at);
  switch (below(6)) {
    case 0: data[at] = byte(); return size;
    case 1: data[at] = std::uint8_t(data[at] ^ 1U << below(8)); return size;
    case 2: std::fill_n(data + at, length, std::uint8_t(below(2) * 0xFF)); return size;
    case 3: std::memmove(data + at, data + at + length, size - at - length); return size - length;
    case 4:  // repeats a piece
      if (capacity - size < length) return size;
      std::memmove(data + at + length, data + at, size - at);
      return size + length;
    default: std::memmove(data + below(size - length + 1), data + at, length); return size;
  }
}

int main(int argc, char** argv) {
  std::vector<std::string> paths(argv + 1, argv + argc);
  int seconds = 0;
  if (paths.size() > 2 && paths[0] == "--random") {
    seconds = std::atoi(paths[1].c_str());
    random_source.seed(unsigned(std::atoi(paths[2].c_str())));
    paths.erase(paths.begin(), paths.begin() + 3);
  }
  LLVMFuzzerInitialize(&argc, &argv);
  const int reportFd = ::dup(STDERR_FILENO);
  std::FILE* const report = ::fdopen(reportFd, "w");
  if (report == nullptr) return 2;
  std::setvbuf(report, nullptr, _IONBF, 0);
  if (__sanitizer_set_report_fd != nullptr) {
    __sanitizer_set_report_fd(reinterpret_cast<void*>(std::intptr_t(reportFd)));
  }
  if (const int null = ::open("/dev/null", O_WRONLY); null >= 0) (void)::dup2(null, STDERR_FILENO);

  const std::vector<std::string> files = listInputs(paths);
  std::vector<std::string> seeds;
  bool ok = !files.empty();
  for (const std::string& file : files) {
    seeds.push_back(readInput(file));
    if (survives(seeds.back())) continue;
    std::fprintf(report, "broken by %s\n", file.c_str());
    ok = false;
  }
  std::fprintf(report, "%zu inputs\n", files.size());
  if (ok && seconds > 0) ok = runRandomly(seeds, seconds, report);
  return ok ? 0 : 1;
}
