#include "Kiln/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "Basis/Exception.h"

namespace Kiln {

namespace {

constexpr U32 allLevels = 0x3ffu;

using Masks = std::map<std::string, U32, std::less<>>;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The mask of one level item, a digit or a range "lo-hi" of two digits;
// 0 when the item is neither.
U32 levelMask(std::string_view item) {
  const bool single = item.size() == 1 && isDigit(item[0]);
  const bool range = item.size() == 3 && isDigit(item[0]) && item[1] == '-' && isDigit(item[2]);
  if (!single && !range) return 0;
  U32 mask = 0;
  for (char level = item[0]; level <= item.back(); ++level) mask |= 1u << (level - '0');
  return mask;
}

// Parses "HANDLE/LEVELS,..." into a level mask per handle. Commas separate
// both entries and level items: an item without '/' that starts with a digit
// adds levels to the handle before it; any other item without '/' is a bare
// handle name (all levels). Entries for the same handle add up.
Masks parseSetting(std::string_view setting, std::string_view source) {
  auto bad = [&](const std::string& why) {
    return Basis::RangeException(fmt::format("bad {} '{}': {}", source, setting, why));
  };
  Masks masks;
  if (setting.empty()) return masks;
  Masks::iterator current = masks.end();
  for (size_t start = 0;;) {
    const size_t comma = setting.find(',', start);
    const std::string_view item = setting.substr(start, comma - start);
    if (item.empty()) throw bad(fmt::format("empty entry at position {}", start));
    const size_t slash = item.find('/');
    if (slash != std::string_view::npos) {
      const U32 mask = levelMask(item.substr(slash + 1));
      if (slash == 0) throw bad(fmt::format("no handle name in '{}'", item));
      if (mask == 0) throw bad(fmt::format("bad levels in '{}'", item));
      current = masks.try_emplace(std::string(item.substr(0, slash)), 0).first;
      current->second |= mask;
    } else if (isDigit(item[0])) {
      const U32 mask = levelMask(item);
      if (mask == 0) throw bad(fmt::format("bad levels '{}'", item));
      if (current == masks.end()) throw bad(fmt::format("no handle before levels '{}'", item));
      current->second |= mask;
    } else {
      current = masks.try_emplace(std::string(item), 0).first;
      current->second |= allLevels;
    }
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return masks;
}

// Handles live for the process and are never destroyed, so tracing stays
// usable from other objects' destructors at exit.
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
  // Levels set through traceConfigIs; they override the environment.
  Masks configured;
};

Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

// Where lines go: a sink function, else a file, else stderr. A sink is called
// under the mutex, so it sees one line at a time and must not trace itself.
struct Output {
  std::mutex mutex;
  TraceSink sink;
  std::FILE* file = nullptr;

  void fileClose() {
    if (file) std::fclose(file);
    file = nullptr;
  }
};

Output& output() {
  static Output* o = new Output;
  return *o;
}

}  // namespace

void TraceHandle::write(U32 level, std::string_view text) const {
  const std::string line = fmt::format("[{}:{}] {}", name_, level, text);
  Output& o = output();
  std::lock_guard<std::mutex> lock(o.mutex);
  if (o.sink) {
    o.sink(line);
  } else if (o.file) {
    fmt::print(o.file, "{}\n", line);
    std::fflush(o.file);
  } else {
    fmt::print(stderr, "{}\n", line);
  }
}

TraceHandle& traceHandle(std::string_view name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.handles.find(name);
  if (it != r.handles.end()) return *it->second;
  U32 mask = 0;
  if (const char* env = std::getenv("KILN_TRACE")) {
    const Masks masks = parseSetting(env, "KILN_TRACE setting");
    if (auto m = masks.find(name); m != masks.end()) mask = m->second;
  }
  if (auto m = r.configured.find(name); m != r.configured.end()) mask = m->second;
  auto handle = std::make_unique<TraceHandle>(std::string(name));
  handle->levelsIs(mask);
  return *r.handles.emplace(std::string(name), std::move(handle)).first->second;
}

std::vector<std::string> traceSettingHandles(std::string_view setting) {
  std::vector<std::string> names;
  for (const auto& entry : parseSetting(setting, "trace setting")) names.push_back(entry.first);
  return names;
}

void traceConfigIs(std::string_view setting) {
  const Masks masks = parseSetting(setting, "trace setting");
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (const auto& [name, mask] : masks) {
    r.configured[name] = mask;
    if (auto it = r.handles.find(name); it != r.handles.end()) it->second->levelsIs(mask);
  }
}

void traceSinkIs(TraceSink sink) {
  Output& o = output();
  std::lock_guard<std::mutex> lock(o.mutex);
  o.fileClose();
  o.sink = std::move(sink);
}

void traceFileIs(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "a");
  if (!f) {
    throw Basis::SystemException(fmt::format("cannot open trace file '{}': {}", path, std::strerror(errno)));
  }
  Output& o = output();
  std::lock_guard<std::mutex> lock(o.mutex);
  o.fileClose();
  o.file = f;
  o.sink = nullptr;
}

}  // namespace Kiln
