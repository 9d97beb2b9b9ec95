// Rules that hold for the text of every source file under src/.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/temp_dir.h"

namespace zel::test {
namespace {

constexpr std::string_view kFloors[] = {"container", "hf", "readers", "convert", "plugin"};

int floorOf(std::string_view folder) {
  const auto* const found = std::find(std::begin(kFloors), std::end(kFloors), folder);
  return found == std::end(kFloors) ? -1 : int(found - std::begin(kFloors));
}

struct Source {
  std::string path;  // below src/
  std::string text;
};

std::vector<Source> allSources() {
  const std::filesystem::path root = OKV2_SOURCE_DIR "/src";
  std::vector<Source> out;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string extension = entry.path().extension().string();
    if (extension != ".h" && extension != ".cpp") continue;
    out.push_back({entry.path().lexically_relative(root).string(), readWholeFile(entry.path().string())});
  }
  return out;
}

// Comments and the content of literals blanked out, newlines kept.
std::string codeOnly(const std::string& text) {
  std::string out;
  for (std::size_t k = 0; k < text.size(); ++k) {
    const std::string_view two = std::string_view(text).substr(k, 2);
    if (two == "//") {
      while (k < text.size() && text[k] != '\n')
        ++k;
      out += '\n';
    } else if (two == "/*") {
      const std::size_t end = std::min(text.find("*/", k + 2), text.size());
      out.append(
          std::size_t(std::count(text.begin() + std::ptrdiff_t(k), text.begin() + std::ptrdiff_t(end), '\n')),
          '\n');
      k = end + 1;
    } else if (text[k] == '"' ||
               (text[k] == '\'' && (k == 0 || !std::isalnum(static_cast<unsigned char>(text[k - 1]))))) {
      const char quote = text[k];
      for (++k; k < text.size() && text[k] != quote; ++k) {
        if (text[k] == '\\') ++k;
      }
      out += "\"\"";
    } else {
      out += text[k];
    }
  }
  return out;
}

// The function whose definition begins with `head`, up to the closing brace in the first column.
std::string bodyOf(const std::string& code, const std::string& head) {
  const std::size_t begin = code.find(head);
  if (begin == std::string::npos) return "";
  return code.substr(begin, code.find("\n}", begin) - begin);
}

// How often each identifier, keyword or number occurs.
std::map<std::string, std::size_t> countWords(const std::string& code) {
  std::map<std::string, std::size_t> out;
  std::string word;
  for (const char c : code + ' ') {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
      word += c;
    } else if (!word.empty()) {
      ++out[word];
      word.clear();
    }
  }
  return out;
}

TEST(SourceRules, EveryFloorHasSources) {
  const std::vector<Source> sources = allSources();
  for (const std::string_view floor : kFloors) {
    EXPECT_TRUE(std::any_of(sources.begin(), sources.end(), [&](const Source& each) {
      return each.path.substr(0, each.path.find('/')) == floor;
    })) << floor;
  }
}

TEST(SourceRules, IncludesNeverPointUp) {
  const std::regex include(R"re(^\s*#\s*include\s*"([^"]*)")re");
  std::size_t seen = 0;
  for (const Source& source : allSources()) {
    const int own = floorOf(source.path.substr(0, source.path.find('/')));
    ASSERT_GE(own, 0) << source.path << " lies on no floor";
    std::istringstream lines(source.text);
    for (std::string line; std::getline(lines, line);) {
      std::smatch match;
      if (!std::regex_search(line, match, include)) continue;
      ++seen;
      const std::string target = match[1];
      const int other = floorOf(target.substr(0, target.find('/')));
      EXPECT_GE(other, 0) << source.path << " includes \"" << target << "\", which names no floor";
      EXPECT_LE(other, own) << source.path << " includes \"" << target << "\" from above";
    }
  }
  EXPECT_GT(seen, 30u);
}

TEST(SourceRules, NothingTouchesWhatBelongsToTheHost) {
  const char* const kForbidden[] = {
      "getenv",    "secure_getenv", "setenv",         "putenv",  "setlocale", "uselocale", "signal",
      "sigaction", "raise",         "alarm",          "chdir",   "fchdir",    "umask",     "exit",
      "_exit",     "quick_exit",    "abort",          "system",  "popen",     "fork",      "execv",
      "rename",    "unlink",        "remove",         "cout",    "cerr",      "clog",      "puts",
      "putchar",   "fputs",         "perror",         "vprintf", "vfprintf",  "syslog",    "thread",
      "jthread",   "async",         "pthread_create", "atexit",  "srand",     "rand",      "strtok",
      "localtime"};
  for (const Source& source : allSources()) {
    std::map<std::string, std::size_t> words = countWords(codeOnly(source.text));
    for (const char* word : kForbidden)
      EXPECT_EQ(words[word], 0u) << source.path << " uses " << word;
  }
}

TEST(SourceRules, OnlyTheDumpOfSafetensorsPrints) {
  std::size_t printing = 0;
  for (const Source& source : allSources()) {
    const std::string code = codeOnly(source.text);
    const std::size_t all = countWords(code)["printf"];
    const std::size_t inDump = countWords(bodyOf(code, "void SafetensorsImporter::dump()"))["printf"];
    EXPECT_EQ(all, inDump) << source.path;
    printing += inDump;
  }
  EXPECT_GT(printing, 0u) << "dump() was not found: the rule above proves nothing";
}

TEST(SourceRules, StandardErrorSeesOneLineOnly) {
  std::size_t places = 0;
  for (const Source& source : allSources()) {
    std::map<std::string, std::size_t> words = countWords(codeOnly(source.text));
    EXPECT_EQ(words["stdout"], 0u) << source.path;
    EXPECT_EQ(words["fprintf"], words["stderr"]) << source.path;
    if (words["stderr"] == 0) continue;
    // A tensor that exceeds its storage is described there: a fixed part of the PyTorch reader's behaviour.
    EXPECT_EQ(source.path.rfind("readers/pytorch", 0), 0u) << source.path;
    places += words["stderr"];
  }
  EXPECT_EQ(places, 1u);
}

}  // namespace
}  // namespace zel::test
