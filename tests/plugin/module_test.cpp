// What the built module shows to the dynamic loader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace zel::test {
namespace {

// The lines that a command prints.
std::vector<std::string> linesOf(const std::string& command) {
  const auto closePipe = [](std::FILE* pipe) { pclose(pipe); };
  const std::unique_ptr<std::FILE, decltype(closePipe)> pipe(popen(command.c_str(), "r"), closePipe);
  std::string text;
  std::array<char, 4096> buffer;
  while (const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe.get()))
    text.append(buffer.data(), n);
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

TEST(Module, ExportsExactlyTwoSymbols) {
  std::vector<std::string> names;
  for (const std::string& line : linesOf("nm -D --defined-only '" OKV2_MODULE "'")) {
    names.push_back(line.substr(line.rfind(' ') + 1));
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("okv_plugin_init", "okv_plugin_importers"));
}

TEST(Module, IsNamedWithoutALibPrefix) {
  const std::string path = OKV2_MODULE;
  EXPECT_EQ(path.substr(path.rfind('/') + 1), "importer_hf.so");
}

TEST(Module, NeedsNoLibrariesButTheRuntimesOfCAndCxx) {
  if (std::string_view(OKV2_SANITIZERS) != "") {
    GTEST_SKIP() << "a build with sanitizers (" OKV2_SANITIZERS ") needs their runtimes too";
  }
  std::vector<std::string> needed;
  for (const std::string& line : linesOf("readelf -d '" OKV2_MODULE "'")) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    const std::size_t open = line.find('[');
    needed.push_back(line.substr(open + 1, line.find(']') - open - 1));
  }
  EXPECT_FALSE(needed.empty());
  for (const std::string& name : needed) {
    EXPECT_THAT(name.substr(0, name.find(".so")), testing::AnyOf("libc", "libm", "libstdc++", "libgcc_s",
                                                                 "ld-linux-x86-64", "ld-linux-aarch64"));
  }
}

TEST(Module, HasNoSearchPathOfItsOwn) {
  for (const std::string& line : linesOf("readelf -d '" OKV2_MODULE "'")) {
    EXPECT_EQ(line.find("(RPATH)"), std::string::npos) << line;
    EXPECT_EQ(line.find("(RUNPATH)"), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace zel::test
