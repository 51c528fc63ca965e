#pragma once
// A one-line progress display on standard error, drawn only when standard
// error is a terminal.
#include <chrono>

#include "Basis/Types.h"

namespace DepotTrieTool {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class Progress {
 public:
  // totalBytes 0: the size is unknown and only counts are shown.
  explicit Progress(U64 totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool enabled() const { return enabled_; }
  // Cheap enough to call for every line; redraws a few times a second.
  void update(U64 doneBytes, U64 items) {
    if (enabled_ && (++calls_ & 0xFFF) == 0) redraw(doneBytes, items, false);
  }
  // Draws the final state and ends the line.
  void finish(U64 doneBytes, U64 items);

 private:
  void redraw(U64 doneBytes, U64 items, bool force);

  bool enabled_;
  bool finished_ = false;
  U64 total_;
  U64 calls_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

}  // namespace DepotTrieTool
