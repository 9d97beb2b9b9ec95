// The real-data corpus beside the repository: present on the developers' machines, absent elsewhere.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// First line of every test that needs the corpus: skipped, out loud, without it.
#define OKV2_REQUIRE_CORPUS()                                                         \
  do {                                                                                \
    if (!std::filesystem::is_directory(OKV2_CORPUS_DIR))                              \
      GTEST_SKIP() << "needs the real-data corpus, which is not at " OKV2_CORPUS_DIR; \
  } while (false)

namespace zel::test {

inline std::string corpusPath(std::string_view relative) {
  return std::string(OKV2_CORPUS_DIR) + "/" + std::string(relative);
}

// Turns the tables' escapes (\\, \t, \n, \xNN) back into bytes.
inline std::string unescapeCell(std::string_view cell) {
  std::string out;
  for (std::size_t i = 0; i < cell.size(); ++i) {
    if (cell[i] != '\\' || i + 1 == cell.size()) {
      out += cell[i];
    } else if (const char next = cell[++i]; next == 't') {
      out += '\t';
    } else if (next == 'n') {
      out += '\n';
    } else if (next == 'x') {
      out += char(std::stoi(std::string(cell.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      out += next;
    }
  }
  return out;
}

// One table: a row maps column names to cells, escapes undone.
using CorpusRow = std::map<std::string, std::string>;

inline std::vector<CorpusRow> readCorpusTable(std::string_view relative) {
  std::ifstream in(corpusPath(relative));
  if (!in) throw std::runtime_error("no corpus table " + std::string(relative));
  const auto split = [](const std::string& line) {
    std::vector<std::string> cells;
    std::size_t begin = 0;
    for (std::size_t tab; (tab = line.find('\t', begin)) != std::string::npos; begin = tab + 1) {
      cells.push_back(line.substr(begin, tab - begin));
    }
    cells.push_back(line.substr(begin));
    return cells;
  };
  std::string line;
  std::getline(in, line);
  const std::vector<std::string> header = split(line);
  std::vector<CorpusRow> rows;
  while (std::getline(in, line)) {
    const std::vector<std::string> cells = split(line);
    CorpusRow row;
    for (std::size_t k = 0; k < header.size(); ++k) {
      row[header[k]] = k < cells.size() ? unescapeCell(cells[k]) : "";
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace zel::test
