#pragma once
#include <fmt/format.h>

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Basis/Types.h"

namespace Kiln {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// A named trace handle with levels 0 to 9. Handles are created on first use
// and configured from KILN_TRACE ("DepotTrie/0-9,Other/3,7") and by API.
class TraceHandle {
 public:
  explicit TraceHandle(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  bool enabled(U32 level) const { return (levels_.load(std::memory_order_relaxed) >> level) & 1u; }
  U32 levels() const { return levels_.load(std::memory_order_relaxed); }
  void levelsIs(U32 mask) { levels_.store(mask & 0x3ffu, std::memory_order_relaxed); }
  // Sends "[NAME:LEVEL] text" to the sink.
  void write(U32 level, std::string_view text) const;

 private:
  std::string name_;
  std::atomic<U32> levels_{0};
};

TraceHandle& traceHandle(std::string_view name);

// Applies a KILN_TRACE-style setting: comma-separated "HANDLE/LEVELS" where
// LEVELS is a list of digits and ranges ("0-9", "3,7", "4-6"); a bare HANDLE
// means all levels. A bad setting raises Basis::RangeException naming it.
void traceConfigIs(std::string_view setting);
// The handle names a setting names, each once, in order of name; a bad
// setting raises as traceConfigIs does. Changes nothing.
std::vector<std::string> traceSettingHandles(std::string_view setting);

// Where finished lines go; an empty sink restores stderr.
using TraceSink = std::function<void(std::string_view line)>;
void traceSinkIs(TraceSink sink);
// Appends lines to a file instead of stderr; raises Basis::SystemException
// naming the file when it cannot be opened.
void traceFileIs(const std::string& path);

}  // namespace Kiln

// Builds and writes a message only when its level is on.
#define KILN_TRACE(handle, level, ...)                                       \
  do {                                                                       \
    if ((handle).enabled(level)) [[unlikely]]                                \
      (handle).write((level), ::fmt::format(__VA_ARGS__));                   \
  } while (0)
