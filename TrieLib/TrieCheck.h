#pragma once
// Structural checks and shape statistics over a trie's node records. Both
// read the records directly, not through the trie algorithms, so that a
// damaged table is described rather than followed into an assertion.
#include <string>
#include <vector>

#include "TrieLib/DepotTrie.h"
#include "TrieLib/Export.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Every structural problem of both families, one line each; empty for a sound
// trie. Checked: both root records exist; every child key names a stored
// record whose key lies under its parent's and is longer; IPv4 children sit
// in the slot their key selects and node keys have even length; IPv6 nodes
// have two children or none, on the side their key selects; black bits lie
// on the node's own edge; no node is reached twice or deeper than the
// family's limit; no record but the default-route record is unreachable.
DEPOTTRIE_API std::vector<std::string> checkTrie(const Trie& trie);

struct TrieStats {
  struct Family {
    U64 records = 0;   // every record of the collection, root record included
    U64 nodes = 0;     // trie nodes reachable from the root record
    U64 prefixes = 0;  // stored prefixes, the default route included
    // depthCount[d]: reachable nodes d levels below the top node.
    std::vector<U64> depthCount;
  };
  Family v4;
  Family v6;
};

DEPOTTRIE_API TrieStats trieStats(const Trie& trie);

}  // namespace Routing::Lattice
