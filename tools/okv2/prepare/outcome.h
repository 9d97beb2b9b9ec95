// What preparing a model directory leaves behind: the list of what it changed, or the reason why it refused.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zel::tool::prepare {

// One thing that reads differently in the prepared directory. All texts are as read, not escaped.
struct Change {
  std::string file;     // name in the prepared directory
  std::string what;     // a tensor, a JSON path, a file
  std::string from;     // empty when there was nothing
  std::string to;       // empty when nothing is left
  std::string why;      // one sentence
  std::string finding;  // id of the finding of `okv2 explain` that it mends (explain/finding_table.h)
};

using Changes = std::vector<Change>;

// The directory cannot be prepared without losing or inventing something. what() is one sentence and names
// the file; remedy() says what to do about it.
class Refused : public std::runtime_error {
 public:
  Refused(int exitCode, std::string finding, const std::string& message, std::string remedy)
      : std::runtime_error(message),
        exitCode_(exitCode),
        finding_(std::move(finding)),
        remedy_(std::move(remedy)) {}

  [[nodiscard]] int exitCode() const noexcept { return exitCode_; }  // an ExitCode
  [[nodiscard]] const std::string& finding() const noexcept { return finding_; }
  [[nodiscard]] const std::string& remedy() const noexcept { return remedy_; }

 private:
  int exitCode_;
  std::string finding_;
  std::string remedy_;
};

}  // namespace zel::tool::prepare
