#pragma once
// A one-line progress display on standard error, drawn only when standard
// error is a terminal: what the command is doing, how far it is (a bar when
// the total is known), the items so far with their rate, and the time taken.
// A thread of its own redraws it a few times a second, so that a long step
// inside the library (a check, a walk) still shows time passing, and the
// command's own loop pays no more than two relaxed stores per item.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "Basis/Types.h"

namespace DepotTrieTool {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class Progress {
 public:
  struct Options {
    U64 totalBytes = 0;          // 0: unknown, no bar
    const char* items = nullptr;  // what update() counts ("prefixes"); nullptr: no count
    // The command writes its results to standard output as it goes: when
    // that is the same terminal, the display would tear them, so it stays off.
    bool streamsToStdout = false;
  };
  Progress(std::string_view step, const Options& options);
  // Erases the display.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool enabled() const { return enabled_; }
  void update(U64 doneBytes, U64 items) {
    doneBytes_.store(doneBytes, std::memory_order_relaxed);
    items_.store(items, std::memory_order_relaxed);
  }
  // What the command does now ("checking the table files").
  void stepIs(std::string_view step);
  // Writes a whole line (with its line end) to `to` without tearing the
  // display; the display comes back on its next redraw.
  void print(std::FILE* to, std::string_view line);

 private:
  void run();
  void drawLocked();

  const bool enabled_;
  const Options options_;
  std::atomic<U64> doneBytes_{0};
  std::atomic<U64> items_{0};
  const std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::string step_;
  bool stop_ = false;
  bool drawn_ = false;
  std::thread thread_;
};

}  // namespace DepotTrieTool
