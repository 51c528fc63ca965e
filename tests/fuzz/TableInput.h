#pragma once
// The input of fuzz_shared_table: one flags byte, then the bytes of a table
// file. Shared with the seed maker.
#include "Addrkit/Prefix.h"
#include "Depot/Table.h"
#include "TrieLib/TrieNode.h"

namespace tablefuzz {

// Flag bits of the first byte.
// Recompute the header checksum over the mutated header, so that mutations
// reach the size checks and the slots behind a well-formed header.
constexpr Basis::U8 refreshChecksum = 1;
// The file holds IPv6 node records (else IPv4 node records).
constexpr Basis::U8 ip6Records = 2;

// The trie's own record layouts.
inline Depot::RecordLayout nodeLayout(bool ip6) {
  using Routing::Lattice::TrieNode;
  using Routing::Lattice::TrieNode6;
  if (ip6) {
    return {"Routing::Lattice::TrieNode6", sizeof(TrieNode6), TrieNode6::keyOffset, sizeof(Addrkit::Ip6Prefix)};
  }
  return {"Routing::Lattice::TrieNode", sizeof(TrieNode), TrieNode::keyOffset, sizeof(Addrkit::Prefix)};
}

}  // namespace tablefuzz
