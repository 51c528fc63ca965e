#pragma once
// Queries that answer from one state of the trie between two updates, for
// readers that share the trie's tables with a writer in another process.
#include <functional>
#include <span>
#include <vector>

#include "TrieLib/DepotTrie.h"

namespace Routing::Lattice {

// No consistent answer could be had: the writer stopped in the middle of an
// update, or the trie kept changing under every run.
class ConsistentReadException : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

struct ConsistentReadOptions {
  U32 quickRetries = 16;     // runs started again at once after an update overlapped them
  U32 maxRuns = 10000;       // runs before a trie that keeps changing is given up on
  U32 stuckAfterMs = 5000;   // how long one update may stay open before its writer counts as stuck
};

// Runs lpm, longestMatch, getNext and the pre-order walk so that each answer
// reflects a state between two updates of the queried family's table: the
// table's update counter is read before a run (waiting while an update is
// open) and after it, and the run is repeated when the counter moved. A walk
// is collected first and delivered only once the collection is known to be
// consistent: the callback sees each prefix once, and its skipSubtree and
// abortWalk answers act as in Trie::preOrderWalk. Errors met by a run that
// overlapped an update are not reported; the run is repeated.
// One reader serves one thread; the trie must outlive it.
class ConsistentReader {
 public:
  explicit ConsistentReader(const Trie& trie, const ConsistentReadOptions& options = {});

  Addrkit::IpGenPrefix lpm(const Addrkit::IpGenPrefix& prefix);
  Addrkit::IpGenPrefix longestMatch(const Addrkit::IpGenPrefix& prefix);
  // The batched longestMatch of Trie; each answer reflects one state between
  // two updates (queries are answered in groups, each group consistently).
  void longestMatch(std::span<const Addrkit::IpGenPrefix> queries, std::span<Addrkit::IpGenPrefix> answers);
  Addrkit::IpGenPrefix getNext(const Addrkit::IpGenPrefix& prefix);
  void preOrderWalk(const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::IpGenPrefix& subtreeRoot);
  // Runs read, which only reads the family's records (through the trie or
  // its table) and starts afresh each time, again until a run overlapped no
  // update: what it collected then is of one state between two updates.
  void run(Addrkit::AddressFamily af, const std::function<void()>& read);

  // The update counter (even) under which the last answer was read, and the
  // runs it took.
  U64 lastUpdateCounter() const { return lastUpdateCounter_; }
  U32 lastRuns() const { return lastRuns_; }

 private:
  class Recorder;
  struct WalkEntry {
    Addrkit::IpGenPrefix prefix;
    size_t subtreeEnd;  // the entry after the last one of the same node's subtree
  };
  struct OpenNode {
    size_t first;  // the node's first entry
    size_t own;    // entries of the node's own lengths
  };

  template <class Run>
  auto consistently(Addrkit::AddressFamily af, Run&& run);
  U64 settledCounter(Addrkit::AddressFamily af) const;
  const KilnDepot::CollectionBinding& tableOf(Addrkit::AddressFamily af) const;

  const Trie& trie_;
  ConsistentReadOptions options_;
  U64 lastUpdateCounter_ = 0;
  U32 lastRuns_ = 0;
  std::vector<WalkEntry> walkEntries_;
  std::vector<OpenNode> openNodes_;
};

}  // namespace Routing::Lattice
