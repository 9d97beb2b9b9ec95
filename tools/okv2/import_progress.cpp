#include "okv2/import_progress.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "okv2/escape.h"

namespace zel::tool {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(200);
constexpr std::size_t kSamples = 25;  // five seconds
constexpr std::size_t kMaxBarColumns = 100;

double secondsNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::size_t terminalColumns() {
  struct winsize size {};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string clockText(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::llround(seconds));
  if (whole >= 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

void say(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stderr); }

}  // namespace

std::string humanBytes(double bytes) {
  static constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB"};
  std::size_t unit = 0;
  while (bytes >= 999.5 && unit + 1 < std::size(kUnits)) {
    bytes /= 1000;
    ++unit;
  }
  return unit == 0 || bytes >= 99.95 ? fmt::format("{:.0f} {}", bytes, kUnits[unit])
                                     : fmt::format("{:.1f} {}", bytes, kUnits[unit]);
}

std::vector<ShardMilestone> milestonesOf(const plan::ImportPlan& plan) {
  std::vector<ShardMilestone> out;
  for (const plan::InputFile& file : plan.weights)
    out.push_back({file.name, 0, 0, 0});
  for (const plan::PlannedTensor& tensor : plan.tensors) {
    ShardMilestone& shard = out[tensor.file];
    shard.bytes += tensor.size;
    shard.tensors += 1;
    shard.doneAt = std::max(shard.doneAt, plan.sections.back().offset + tensor.dataOffset + tensor.size);
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const ShardMilestone& a, const ShardMilestone& b) { return a.doneAt < b.doneAt; });
  return out;
}

std::string progressBar(std::uint64_t written, std::uint64_t total, double bytesPerSecond,
                        std::size_t columns) {
  const double part =
      total == 0 ? 1 : std::min(1.0, static_cast<double>(written) / static_cast<double>(total));
  std::string text = fmt::format(" {:5.1f}%  {} of {}", part * 100, humanBytes(static_cast<double>(written)),
                                 humanBytes(static_cast<double>(total)));
  if (bytesPerSecond > 0) {
    const double left = static_cast<double>(total - std::min(written, total)) / bytesPerSecond;
    text += fmt::format("  {}/s  {} left", humanBytes(bytesPerSecond), clockText(left));
  }
  if (columns < text.size() + 8) return text.substr(0, columns);
  const std::size_t cells = std::min(columns, kMaxBarColumns) - std::min(text.size() + 3, columns);
  const auto full = std::min(cells, static_cast<std::size_t>(part * static_cast<double>(cells)));
  return "[" + std::string(full, '#') + std::string(cells - full, '-') + "]" + text;
}

ImportProgress::ImportProgress(std::string path, std::uint64_t total, std::vector<ShardMilestone> milestones,
                               Style style)
    : path_(std::move(path)), total_(total), milestones_(std::move(milestones)), style_(style) {
  const AllSignalsBlocked blocked;  // the thread inherits the mask: signals are the main thread's to take
  thread_ = std::thread([this] { watch(); });
}

ImportProgress::~ImportProgress() { stop(); }

void ImportProgress::stop() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
  if (style_ == Style::Bar) say("\r\x1B[K");
}

void ImportProgress::finish() {
  stop();
  if (style_ == Style::Lines) show(total_);
}

void ImportProgress::watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, kInterval, [this] { return stopping_; })) {
    struct stat status;
    if (::stat(path_.c_str(), &status) == 0) show(static_cast<std::uint64_t>(status.st_size));
  }
}

void ImportProgress::show(std::uint64_t written) {
  if (style_ == Style::Lines) {
    for (; reached_ < milestones_.size() && milestones_[reached_].doneAt <= written; ++reached_) {
      const ShardMilestone& shard = milestones_[reached_];
      say(fmt::format("{} of {}: {}: {} tensors, {} bytes\n", reached_ + 1, milestones_.size(),
                      escaped(shard.name), shard.tensors, shard.bytes));
    }
    return;
  }
  samples_.emplace_back(secondsNow(), written);
  if (samples_.size() > kSamples) samples_.erase(samples_.begin());
  const double seconds = samples_.back().first - samples_.front().first;
  const double grown = static_cast<double>(written) - static_cast<double>(samples_.front().second);
  say("\r" +
      progressBar(written, total_, seconds > 0 && grown > 0 ? grown / seconds : 0, terminalColumns() - 1) +
      "\x1B[K");
}

}  // namespace zel::tool
