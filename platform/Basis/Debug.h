#pragma once
#include <fmt/format.h>

#include <string>
#include <string_view>

#include "Basis/Types.h"

namespace Basis {

// A named debug handler ("DepotTemp", ...) with a verbose flag and levels
// 0 to 9. Handlers are created on first use and live for the process.
// BASIS_DEBUG="DepotTemp/0-3,Other/v" switches them on from the environment
// ("v" sets the verbose flag).
class DebugHandler {
 public:
  explicit DebugHandler(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }

  bool verbose() const { return verbose_; }
  void verboseIs(bool v) { verbose_ = v; }
  bool levelEnabled(U32 level) const { return level < 10 && (levels_ >> level) & 1u; }
  void levelIs(U32 level, bool on);

  // Writes "[NAME:LEVEL] text" to stderr when the level is on.
  void log(U32 level, std::string_view text) const;
  template <class... A>
  void logf(U32 level, fmt::format_string<A...> f, A&&... a) const {
    if (levelEnabled(level)) log(level, fmt::format(f, std::forward<A>(a)...));
  }

 private:
  std::string name_;
  bool verbose_ = false;
  U32 levels_ = 0;
};

DebugHandler& debugHandler(std::string_view name);

}  // namespace Basis
