#include "Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

namespace DepotTrieTool {
namespace {

constexpr int barWidth = 30;
constexpr auto redrawEvery = std::chrono::milliseconds(200);

bool wanted(bool streamsToStdout) {
  if (::isatty(STDERR_FILENO) != 1) return false;
  return !streamsToStdout || ::isatty(STDOUT_FILENO) != 1;
}

}  // namespace

Progress::Progress(std::string_view step, const Options& options)
    : enabled_(wanted(options.streamsToStdout)),
      options_(options),
      start_(std::chrono::steady_clock::now()),
      step_(step) {
  if (enabled_) thread_ = std::thread([this] { run(); });
}

Progress::~Progress() {
  if (!enabled_) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_one();
  thread_.join();
  if (drawn_) fmt::print(stderr, "\r\x1b[K");
  std::fflush(stderr);
}

void Progress::stepIs(std::string_view step) {
  if (!enabled_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  step_ = step;
}

void Progress::print(std::FILE* to, std::string_view line) {
  if (!enabled_) {
    fmt::print(to, "{}", line);
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (drawn_) fmt::print(stderr, "\r\x1b[K");
  std::fflush(stderr);
  drawn_ = false;
  fmt::print(to, "{}", line);
  std::fflush(to);
}

// The first drawing waits a moment: a command done within it shows nothing.
void Progress::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, redrawEvery, [this] { return stop_; })) drawLocked();
}

void Progress::drawLocked() {
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  std::string line = step_;
  if (options_.totalBytes > 0) {
    const double fraction = std::min(1.0, double(doneBytes_.load(std::memory_order_relaxed)) / double(options_.totalBytes));
    const int filled = int(fraction * barWidth);
    line += fmt::format(" [{}{}] {:3.0f}%", std::string(size_t(filled), '#'), std::string(size_t(barWidth - filled), '.'),
                        fraction * 100.0);
  }
  if (options_.items) {
    const U64 items = items_.load(std::memory_order_relaxed);
    line += fmt::format("  {} {}  {:.2f} M/s", items, options_.items, seconds > 0 ? double(items) / seconds / 1e6 : 0.0);
  }
  line += fmt::format("  {:.1f} s", seconds);
  fmt::print(stderr, "\r{}\x1b[K", line);
  std::fflush(stderr);
  drawn_ = true;
}

}  // namespace DepotTrieTool
