#pragma once
// Queries that answer from one state of the trie between two updates, for
// readers that share the trie's tables with a writer in another process.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <span>
#include <thread>
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

  // Runs `run` (any reads of the af family's table, and of tables its writer
  // changes only inside that table's updates) until one run overlapped no
  // update, and returns its result. Exceptions of runs that overlapped an
  // update are dropped with them.
  template <class Run>
  auto read(Addrkit::AddressFamily af, Run&& run);

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

  U64 settledCounter(Addrkit::AddressFamily af) const;
  const KilnDepot::CollectionBinding& tableOf(Addrkit::AddressFamily af) const;

  const Trie& trie_;
  ConsistentReadOptions options_;
  U64 lastUpdateCounter_ = 0;
  U32 lastRuns_ = 0;
  std::vector<WalkEntry> walkEntries_;
  std::vector<OpenNode> openNodes_;
};

template <class Run>
auto ConsistentReader::read(Addrkit::AddressFamily af, Run&& run) {
  const KilnDepot::CollectionBinding& table = tableOf(af);
  for (U32 runs = 1;; ++runs) {
    const U64 before = settledCounter(af);
    try {
      auto answer = run();
      std::atomic_thread_fence(std::memory_order_acquire);
      if (table.updateCounter() == before) {
        lastUpdateCounter_ = before;
        lastRuns_ = runs;
        return answer;
      }
    } catch (const Basis::Exception&) {
      // Records read across an update can lead a run astray (a child removed
      // after its parent was read); only a run that met no update says so.
      std::atomic_thread_fence(std::memory_order_acquire);
      if (table.updateCounter() == before) throw;
    }
    if (runs >= options_.maxRuns)
      throw ConsistentReadException(fmt::format("trie {}: no consistent answer from {} after {} runs; it kept changing",
                                                trie_.name(), table.name(), runs));
    // A writer in the middle of a burst of updates gets time to finish it.
    if (runs >= options_.quickRetries) {
      const U32 pause = std::min<U32>(10 * (runs - options_.quickRetries + 1), 1000);
      std::this_thread::sleep_for(std::chrono::microseconds(pause));
    }
  }
}

}  // namespace Routing::Lattice
