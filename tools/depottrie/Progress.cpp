#include "Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace DepotTrieTool {
namespace {

constexpr int barWidth = 30;

}  // namespace

Progress::Progress(U64 totalBytes)
    : enabled_(::isatty(STDERR_FILENO) == 1),
      total_(totalBytes),
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {}

Progress::~Progress() {
  // An interrupted run (an exception) must not leave the cursor mid-line.
  if (enabled_ && !finished_) fmt::print(stderr, "\n");
}

void Progress::finish(U64 doneBytes, U64 items) {
  if (!enabled_ || finished_) return;
  redraw(doneBytes, items, true);
  fmt::print(stderr, "\n");
  finished_ = true;
}

void Progress::redraw(U64 doneBytes, U64 items, bool force) {
  auto now = std::chrono::steady_clock::now();
  if (!force && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  double seconds = std::chrono::duration<double>(now - start_).count();
  double rate = seconds > 0 ? double(items) / seconds : 0.0;
  std::string line;
  if (total_ > 0) {
    double fraction = std::min(1.0, double(doneBytes) / double(total_));
    int filled = int(fraction * barWidth);
    line = fmt::format("[{}{}] {:3.0f}%  ", std::string(size_t(filled), '#'), std::string(size_t(barWidth - filled), '.'),
                       fraction * 100.0);
  }
  line += fmt::format("{} prefixes  {:.2f} M/s", items, rate / 1e6);
  fmt::print(stderr, "\r{}\x1b[K", line);
  std::fflush(stderr);
}

}  // namespace DepotTrieTool
