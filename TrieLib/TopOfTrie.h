#pragma once
// Where a longest-match descent stands after the top of the trie (not
// installed). Every node on a query's path whose decisions depend only on
// the query's first `bits` bits (IPv4: 16, nodes of length 14 or less;
// IPv6: 32, nodes shorter than 32) leads every query that shares those bits
// the same way, so a reader keeps, per such leading bits, the node its
// descent goes on from, the longest match above it and the depth there.
//
// An entry holds for the state of the table under one even update counter
// and counts only while the table's counter still reads the same; it is
// filled only when the counter read before the descent still reads the same
// once the entry is complete. So it answers exactly as the descent would,
// and the cache needs no word from the writer. It is local to the reading
// process (the shared tables stay read-only), and serves one thread, as the
// trie does.
#include <memory>
#include <vector>

#include "TrieLib/DepotTrie.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

template <class Key>
struct TopEntry {
  U64 stamp = 0;      // update counter + 1 of the state recorded; 0 when empty
  U32 lead = 0;       // the leading bits (IPv6: the entry is shared by hash)
  Key start;          // the node to read next
  Key best;           // the longest match above it, when found
  U8 depth = 0;       // nodes read above it
  bool found = false;
  bool ended = false;  // the descent ends above: best (or the default route) answers
};

// The entries of one family, allocated on first use and emptied when
// another table takes the family's place (its counter is another count).
template <class Key>
class TopEntries {
 public:
  static constexpr U32 size = 1u << 16;
  std::vector<TopEntry<Key>>* of(const KilnDepot::CollectionBinding& table) {
    if (entries_.empty() || tableSerial_ != table.tableSerial()) {
      entries_.assign(size, TopEntry<Key>());
      tableSerial_ = table.tableSerial();
    }
    return &entries_;
  }

 private:
  U64 tableSerial_ = 0;
  std::vector<TopEntry<Key>> entries_;
};

struct Trie::TopOfTrie {
  TopEntries<Addrkit::Prefix> v4;
  TopEntries<Addrkit::Ip6Prefix> v6;
};

}  // namespace Routing::Lattice
