#include "TrieLib/ConsistentRead.h"

#include <fmt/format.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "TrieLib/TrieWalk.h"

namespace Routing::Lattice {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;

// Collects a walk: every prefix, and for each the end of its node's subtree,
// which is where a skipSubtree answer for it goes on.
class ConsistentReader::Recorder final : public WalkVisitor {
 public:
  explicit Recorder(ConsistentReader& reader) : entries_(reader.walkEntries_), open_(reader.openNodes_) {
    entries_.clear();
    open_.clear();
  }

  // A prefix outside every node (the default route) skips nothing but itself.
  WalkAction visit(const IpGenPrefix& prefix) override {
    entries_.push_back({prefix, entries_.size() + 1});
    if (!open_.empty()) ++open_.back().own;
    return continueWalk;
  }
  void nodeBegin() override { open_.push_back({entries_.size(), 0}); }
  void nodeEnd() override {
    const OpenNode node = open_.back();
    open_.pop_back();
    for (size_t i = node.first; i < node.first + node.own; ++i) entries_[i].subtreeEnd = entries_.size();
  }

 private:
  std::vector<WalkEntry>& entries_;
  std::vector<OpenNode>& open_;
};

ConsistentReader::ConsistentReader(const Trie& trie, const ConsistentReadOptions& options)
    : trie_(trie), options_(options) {}

const KilnDepot::CollectionBinding& ConsistentReader::tableOf(AddressFamily af) const {
  if (af == AddressFamily::ipv4) return trie_.trieNodeMap();
  return trie_.trieNode6Map();
}

// The table's update counter once no update is open. A writer that keeps one
// update open longer than stuckAfterMs has stopped (or hangs) in the middle
// of it; waiting longer would wait for ever.
U64 ConsistentReader::settledCounter(AddressFamily af) const {
  const KilnDepot::CollectionBinding& table = tableOf(af);
  U64 counter = table.updateCounter();
  if (!(counter & 1)) return counter;
  using Clock = std::chrono::steady_clock;
  U64 openCounter = counter;
  Clock::time_point openSince = Clock::now();
  for (U32 wait = 0;; ++wait) {
    if (wait < 64) sched_yield();
    else std::this_thread::sleep_for(std::chrono::microseconds(std::min<U32>(wait, 1000)));
    // A reader still on a table that the writer has since grown or shrunk
    // moves over to the new one with its next read.
    if (af == AddressFamily::ipv4) trie_.trieNode(rootPrefix);
    else trie_.trieNode6(rootPrefix6);
    counter = table.updateCounter();
    if (!(counter & 1)) return counter;
    const Clock::time_point now = Clock::now();
    if (counter != openCounter) {
      openCounter = counter;
      openSince = now;
      continue;
    }
    const auto open = std::chrono::duration_cast<std::chrono::milliseconds>(now - openSince).count();
    if (open > options_.stuckAfterMs)
      throw ConsistentReadException(
          fmt::format("trie {}: the writer of {} appears stuck mid-update (update counter {} has stayed odd for {} ms)",
                      trie_.name(), table.name(), counter, open));
  }
}

IpGenPrefix ConsistentReader::lpm(const IpGenPrefix& prefix) {
  if (prefix.af() == AddressFamily::none) return trie_.lpm(prefix);
  return read(prefix.af(), [&] { return trie_.lpm(prefix); });
}

IpGenPrefix ConsistentReader::longestMatch(const IpGenPrefix& prefix) {
  if (prefix.af() == AddressFamily::none) return trie_.longestMatch(prefix);
  return read(prefix.af(), [&] { return trie_.longestMatch(prefix); });
}

// Groups of one family are answered together and checked against that
// family's counter; a group small enough that a busy writer rarely
// overlaps it.
void ConsistentReader::longestMatch(std::span<const IpGenPrefix> queries, std::span<IpGenPrefix> answers) {
  if (answers.size() < queries.size())
    throw Basis::RangeException(fmt::format("longestMatch: {} answers for {} queries", answers.size(), queries.size()));
  constexpr size_t group = 64;
  for (size_t i = 0; i < queries.size();) {
    const AddressFamily af = queries[i].af();
    size_t end = i + 1;
    while (end < queries.size() && end - i < group && queries[end].af() == af) ++end;
    const auto in = queries.subspan(i, end - i);
    const auto out = answers.subspan(i, end - i);
    if (af == AddressFamily::none) trie_.longestMatch(in, out);
    else read(af, [&] {
      trie_.longestMatch(in, out);
      return true;
    });
    i = end;
  }
}

IpGenPrefix ConsistentReader::getNext(const IpGenPrefix& prefix) {
  if (prefix.af() == AddressFamily::none) return trie_.getNext(prefix);
  return read(prefix.af(), [&] { return trie_.getNext(prefix); });
}

void ConsistentReader::preOrderWalk(const Basis::Ptr<TrieWalkCallback>& callback, const IpGenPrefix& subtreeRoot) {
  if (subtreeRoot.af() == AddressFamily::none) return;
  read(subtreeRoot.af(), [&] {
    Recorder recorder(*this);
    if (subtreeRoot.af() == AddressFamily::ipv4) walkFamily4(&trie_, recorder, subtreeRoot.v4());
    else walkFamily6(&trie_, recorder, subtreeRoot.v6());
    return true;
  });
  // Delivered from a buffer of its own, so that a callback may start another
  // walk on this reader.
  std::vector<WalkEntry> entries = std::move(walkEntries_);
  for (size_t i = 0; i < entries.size();) {
    const WalkAction action = callback->handleWalkCallback(entries[i].prefix);
    if (action == abortWalk) break;
    i = action == skipSubtree ? entries[i].subtreeEnd : i + 1;
  }
  walkEntries_ = std::move(entries);
}

}  // namespace Routing::Lattice
