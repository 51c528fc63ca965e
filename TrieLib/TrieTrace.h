#pragma once
// Tracing and assertions of the trie's own code (not installed).
#include "Kiln/Assert.h"
#include "Kiln/Trace.h"

namespace Routing::Lattice {

inline constexpr const char* trieSourcePath = "/src/TrieLib/DepotTrie";

inline Kiln::TraceHandle& trieTrace() {
  static Kiln::TraceHandle& h = Kiln::traceHandle("DepotTrie");
  return h;
}

}  // namespace Routing::Lattice

#define TRIE_TRACE(level, ...) KILN_TRACE(::Routing::Lattice::trieTrace(), level, __VA_ARGS__)
#define TRIE_ASSERT(cond, text, signature) \
  KILN_ASSERT(cond, text, ::Routing::Lattice::trieSourcePath, signature)
