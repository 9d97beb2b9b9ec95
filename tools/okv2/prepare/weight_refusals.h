// Refusals of weights, under the findings of `okv2 explain`.
#pragma once

#include <string>

#include "container/status.h"
#include "okv2/explain/finding_table.h"

namespace zel::tool::prepare {

// Throws Refused with "SUBJECT: MESSAGE" and the finding's own advice about the subject.
[[noreturn]] void refuseWeights(int exitCode, explain::Id finding, const std::string& subject,
                                const std::string& message);
// With other advice.
[[noreturn]] void refuseWeights(int exitCode, explain::Id finding, const std::string& subject,
                                const std::string& message, const std::string& remedy);

// The exit code that stands for a Status.
[[nodiscard]] int exitCodeOf(const Status& status) noexcept;

// A list of names for a message: the first few, and how many more.
class NameList {
 public:
  void add(const std::string& name) {
    if (count_++ >= kNamed) return;
    text_ += text_.empty() ? "" : ", ";
    text_ += name.size() > kShownBytes ? name.substr(0, kShownBytes) + "..." : name;
  }
  [[nodiscard]] std::size_t count() const noexcept { return count_; }
  [[nodiscard]] std::string text() const {
    return count_ > kNamed ? text_ + " and " + std::to_string(count_ - kNamed) + " more" : text_;
  }

 private:
  static constexpr std::size_t kNamed = 8;
  static constexpr std::size_t kShownBytes = 300;
  std::size_t count_ = 0;
  std::string text_;
};

}  // namespace zel::tool::prepare
