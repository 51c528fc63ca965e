#include "Basis/Debug.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "Basis/Assert.h"

namespace Basis {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Applies one level item ("3", "0-3", "v", or several run together such as
// "0-3v"); characters that fit none of these are ignored.
void applyLevelItem(DebugHandler& handler, std::string_view item) {
  for (size_t i = 0; i < item.size(); ++i) {
    const char c = item[i];
    if (c == 'v') {
      handler.verboseIs(true);
    } else if (isDigit(c)) {
      U32 lo = U32(c - '0');
      U32 hi = lo;
      if (i + 2 < item.size() && item[i + 1] == '-' && isDigit(item[i + 2])) {
        hi = U32(item[i + 2] - '0');
        i += 2;
      }
      for (U32 level = lo; level <= hi; ++level) handler.levelIs(level, true);
    }
  }
}

// Applies the settings for this handler's name from a BASIS_DEBUG value:
// "Name/items[,items...][,Other/items...]". An entry without '/' continues
// the level list of the entry before it.
void configure(DebugHandler& handler, std::string_view setting) {
  bool current = false;
  while (!setting.empty()) {
    const size_t comma = setting.find(',');
    const std::string_view entry = setting.substr(0, comma);
    setting = comma == std::string_view::npos ? std::string_view() : setting.substr(comma + 1);
    const size_t slash = entry.find('/');
    if (slash != std::string_view::npos) {
      current = entry.substr(0, slash) == handler.name();
      if (current) applyLevelItem(handler, entry.substr(slash + 1));
    } else if (current) {
      applyLevelItem(handler, entry);
    }
  }
}

}  // namespace

void DebugHandler::levelIs(U32 level, bool on) {
  BASIS_ASSERT(level < 10, "/src/Basis/Debug");
  if (on) {
    levels_ |= 1u << level;
  } else {
    levels_ &= ~(1u << level);
  }
}

void DebugHandler::log(U32 level, std::string_view text) const {
  if (!levelEnabled(level)) return;
  fmt::print(stderr, "[{}:{}] {}\n", name_, level, text);
}

DebugHandler& debugHandler(std::string_view name) {
  // Handlers live for the process: they are never destroyed, so a handler
  // may still be used from other objects' destructors at exit.
  static std::mutex* mutex = new std::mutex;
  static auto* handlers = new std::map<std::string, std::unique_ptr<DebugHandler>, std::less<>>;
  std::lock_guard<std::mutex> lock(*mutex);
  auto it = handlers->find(name);
  if (it == handlers->end()) {
    auto handler = std::make_unique<DebugHandler>(std::string(name));
    if (const char* setting = std::getenv("BASIS_DEBUG")) configure(*handler, setting);
    it = handlers->emplace(std::string(name), std::move(handler)).first;
  }
  return *it->second;
}

}  // namespace Basis
