#pragma once
// The trie under a route table, for the library's own tools and tests that
// check or watch it (not installed).
#include "RouteTable/RouteTable.h"
#include "TrieLib/DepotTrie.h"

namespace depottrie::detail {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

struct Access {
  static Routing::Lattice::Trie& trie(RouteTable& t);
};

}  // namespace depottrie::detail
