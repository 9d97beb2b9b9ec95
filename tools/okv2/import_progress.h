// What is shown while an import writes its file: the plug-in itself says nothing until it is done, so a
// thread watches the file grow and compares it with the plan.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "okv2/plan/import_plan.h"

namespace zel::tool {

// A weight file, and how long the container is once all its tensors have been written.
struct ShardMilestone {
  std::string name;
  std::uint64_t bytes = 0;  // of its tensors
  std::uint64_t tensors = 0;
  std::uint64_t doneAt = 0;
};

// In the order in which they are reached.
[[nodiscard]] std::vector<ShardMilestone> milestonesOf(const plan::ImportPlan& plan);

// "[####----]  50.0%  2.0 of 4.0 GB  512 MB/s  0:04 left", at most `columns` long.
[[nodiscard]] std::string progressBar(std::uint64_t written, std::uint64_t total, double bytesPerSecond,
                                      std::size_t columns);

// "1.5 GB", in powers of 1000.
[[nodiscard]] std::string humanBytes(double bytes);

class ImportProgress {
 public:
  enum class Style { Bar, Lines };

  // Starts watching `path`.
  ImportProgress(std::string path, std::uint64_t total, std::vector<ShardMilestone> milestones, Style style);
  ImportProgress(const ImportProgress&) = delete;
  ImportProgress& operator=(const ImportProgress&) = delete;
  // Stops; the bar is wiped away.
  ~ImportProgress();

  // The file is complete: reports what has not been reported.
  void finish();

 private:
  void watch();
  void show(std::uint64_t written);
  void stop();

  const std::string path_;
  const std::uint64_t total_;
  const std::vector<ShardMilestone> milestones_;
  const Style style_;
  std::size_t reached_ = 0;
  std::vector<std::pair<double, std::uint64_t>> samples_;  // seconds and bytes, the latest ones
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace zel::tool
