#include "TrieLib/TrieCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <string_view>
#include <deque>

#include "TrieLib/TrieFamily.h"

namespace Routing::Lattice {
namespace {

// "5, 7" for the lengths whose bits are set in word w of a black set.
std::string lengthList(U32 bits, U32 w) {
  std::string out;
  for (U32 i = 0; i < 32; ++i) {
    if (bits & (0x80000000u >> i)) out += fmt::format("{}{}", out.empty() ? "" : ", ", 32 * w + i + 1);
  }
  return out;
}

const char* slotName(U32 slot) {
  static const char* const names[] = {"child00", "child01", "child10", "child11"};
  return names[slot];
}

// The children a node check finds sound enough to descend into.
template <class Key>
struct Children {
  std::array<Key, 4> keys;
  U32 count = 0;
  void push_back(const Key& k) { keys[count++] = k; }
  const Key* begin() const { return keys.data(); }
  const Key* end() const { return keys.data() + count; }
};

// The family traits with the checks of each family's node shape.
struct Check4 : Family4 {
  static bool isDefaultRoute(const Record& r) {
    TrieNode expected(prefix032);
    expected.blackIs(0x00000001u);
    return r == expected;
  }

  // The root record uses child00 only and marks nothing.
  template <class Report>
  static Key checkRoot(const Record& r, Report&& report) {
    for (U32 slot = 1; slot < 4; ++slot) {
      if (r.child(slot) != nullPrefix) report(fmt::format("IPv4 root record: {} is {}; only child00 is used",
                                                          slotName(slot), r.child(slot)));
    }
    if (r.black() != 0) report(fmt::format("IPv4 root record: black is 0x{:08x}, expected 0", r.black()));
    return r.root();
  }

  // Checks the node against its parent's key length; returns the children
  // that are sound enough to descend into.
  template <class Report>
  static Children<Key> checkNode(const Record& n, U32 parentLen, Report&& report) {
    const Key& key = n.key();
    const U32 len = key.len();
    if (len % 2) report(fmt::format("IPv4 node {}: key length {} is odd", key, len));
    if (U32 outside = n.black() & ~(lengthsUpTo(len) & ~lengthsUpTo(parentLen))) {
      report(fmt::format("IPv4 node {}: black 0x{:08x} marks lengths off its edge ({}..{}): {}", key, n.black(),
                         parentLen + 1, len, lengthList(outside, 0)));
    }
    Children<Key> children;
    for (U32 slot = 0; slot < 4; ++slot) {
      const Key& c = n.child(slot);
      if (c == nullPrefix) continue;
      if (!c.validAsPrefix()) {
        report(fmt::format("IPv4 node {}: {} holds an invalid prefix", key, slotName(slot)));
      } else if (c.len() <= len || commonLen(c, key) < len) {
        report(fmt::format("IPv4 node {}: {} {} does not lie below the node", key, slotName(slot), c));
      } else {
        if (len < 32) {
          U32 want = (c.addrHost() >> (30 - len)) & 3u;
          if (want != slot) {
            report(fmt::format("IPv4 node {}: child {} sits in {}, its key selects {}", key, c, slotName(slot),
                               slotName(want)));
          }
        }
        children.push_back(c);
      }
    }
    return children;
  }
};

struct Check6 : Family6 {
  static bool isDefaultRoute(const Record& r) {
    TrieNode6 expected(prefix0128);
    expected.black3Is(0x00000001u);
    return r == expected;
  }

  template <class Report>
  static Key checkRoot(const Record& r, Report&& report) {
    if (r.rightChild() != nullPrefix6) {
      report(fmt::format("IPv6 root record: rightChild is {}; only leftChild is used", r.rightChild()));
    }
    if (blackCount(r) != 0) report("IPv6 root record: black words are not all 0");
    return r.leftChild();
  }

  template <class Report>
  static Children<Key> checkNode(const Record& n, U32 parentLen, Report&& report) {
    const Key& key = n.key();
    const U32 len = key.len();
    if (key == prefix0128) report("IPv6 record ::/128 (the default route) is linked into the tree");
    for (U32 w = 0; w < 4; ++w) {
      if (U32 outside = n.black(w) & ~(lengthsUpTo(w, len) & ~lengthsUpTo(w, parentLen))) {
        report(fmt::format("IPv6 node {}: black{} 0x{:08x} marks lengths off its edge ({}..{}): {}", key, w,
                           n.black(w), parentLen + 1, len, lengthList(outside, w)));
      }
    }
    const bool hasLeft = n.leftChild() != nullPrefix6;
    const bool hasRight = n.rightChild() != nullPrefix6;
    if (hasLeft != hasRight) report(fmt::format("IPv6 node {}: has one child; a node has two or none", key));
    Children<Key> children;
    for (U32 side = 0; side < 2; ++side) {
      const Key& c = side ? n.rightChild() : n.leftChild();
      const char* field = side ? "rightChild" : "leftChild";
      if (c == nullPrefix6) continue;
      if (!c.validAsPrefix()) {
        report(fmt::format("IPv6 node {}: {} holds an invalid prefix", key, field));
      } else if (c.len() <= len || commonLen(c, key) < len) {
        report(fmt::format("IPv6 node {}: {} {} does not lie below the node", key, field, c));
      } else {
        if (c.address().bit(len) != side) {
          report(fmt::format("IPv6 node {}: child {} is the {}, but bit {} of its key is {}", key, c, field, len,
                             1 - side));
        }
        children.push_back(c);
      }
    }
    return children;
  }
};

// Walks one family's records from its root record, reporting problems (when
// asked to) and filling the family's statistics.
//
// The walk goes breadth first, so the records it reads next are known well
// before their turn and are fetched (index entry, then record) a few nodes
// ahead; it marks each record it reaches by its slot, so a record reached
// twice, and one never reached (found by the sweep over every slot), cost a
// bit each rather than a set of keys.
template <class F>
class Walker {
 public:
  using Key = typename F::Key;
  using Record = typename F::Record;

  Walker(const Trie& trie, std::vector<std::string>* problems, TrieStats::Family& stats)
      : table_(F::map(trie).table()), problems_(problems), stats_(stats) {}

  void run() {
    U64 slot = 0;
    std::optional<Record> root = read(F::rootKey(), slot);
    if (!root) {
      report(fmt::format("{} root record {} is missing", F::name, F::rootKey()));
    } else {
      mark(slot);
      Key top = F::checkRoot(*root, [this](std::string m) { report(std::move(m)); });
      if (top != F::nullKey()) {
        if (top.validAsPrefix()) {
          pending_.push_back({top, F::rootKey(), 0, true});
          walk();
        } else {
          report(fmt::format("{} root record names an invalid top node", F::name));
        }
      }
    }
    sweep();
  }

 private:
  // A node to read: its key, the record that names it (the root record
  // when fromRoot) and its depth below the top node.
  struct Pending {
    Key key;
    Key parent;
    U32 depth;
    bool fromRoot;
  };

  static const U8* bytesOf(const Key& k) { return reinterpret_cast<const U8*>(&k); }

  void report(std::string message) {
    if (problems_) problems_->push_back(std::move(message));
  }

  // The record under key and its slot; nothing when absent or unreadable (reported).
  std::optional<Record> read(const Key& key, U64& slot) {
    Record r;
    try {
      if (table_.iterFrom(bytesOf(key), slot, reinterpret_cast<U8*>(&r))) return r;
    } catch (const Basis::Exception& e) {
      report(fmt::format("{} record {}: unreadable: {}", F::name, key, e.what()));
    }
    return std::nullopt;
  }

  // Marks the record at slot reached; false when it was already.
  bool mark(U64 slot) {
    if (slot / 64 >= reached_.size()) reached_.resize(slot / 64 + 1 + reached_.size() / 2);
    U64& word = reached_[slot / 64];
    const U64 bit = U64(1) << (slot % 64);
    if (word & bit) return false;
    word |= bit;
    return true;
  }
  bool wasReached(U64 slot) const { return slot / 64 < reached_.size() && (reached_[slot / 64] >> (slot % 64)) & 1; }

  void walk() {
    constexpr size_t recordAhead = 8, indexAhead = 16;
    while (!pending_.empty()) {
      if (pending_.size() > indexAhead) table_.prefetch(bytesOf(pending_[indexAhead].key));
      if (pending_.size() > recordAhead) table_.prefetchRecord(bytesOf(pending_[recordAhead].key));
      const Pending p = pending_.front();
      pending_.pop_front();
      visit(p);
    }
  }

  std::string parentOf(const Pending& p) const {
    return p.fromRoot ? fmt::format("{} root record", F::name) : fmt::format("{} node {}", F::name, p.parent);
  }

  void visit(const Pending& p) {
    const Key& key = p.key;
    U64 slot = 0;
    std::optional<Record> n = read(key, slot);
    if (!n) {
      report(fmt::format("{}: child {} is not stored", parentOf(p), key));
      return;
    }
    if (!mark(slot)) {
      report(fmt::format("{} node {} is reached a second time, from {}", F::name, key, parentOf(p)));
      return;
    }
    if (n->key() != key) report(fmt::format("{} record stored under {} holds the key {}", F::name, key, n->key()));
    if (p.depth > F::maxDescents) {
      report(fmt::format("{} node {} lies {} levels below the top node; the limit is {}", F::name, key, p.depth,
                         F::maxDescents));
      return;
    }
    ++stats_.nodes;
    stats_.prefixes += F::blackCount(*n);
    if (stats_.depthCount.size() <= p.depth) stats_.depthCount.resize(p.depth + 1);
    ++stats_.depthCount[p.depth];
    const U32 parentLen = p.fromRoot ? 0 : p.parent.len();
    for (const Key& c : F::checkNode(*n, parentLen, [this](std::string m) { report(std::move(m)); }))
      pending_.push_back({c, key, p.depth + 1, false});
  }

  // Every record the walk did not reach, but the lone default route, is lost.
  void sweep() {
    try {
      Record r;
      U8* out = reinterpret_cast<U8*>(&r);
      U64 slot = 0;
      for (bool more = table_.iterFirst(slot, out); more; more = table_.iterNext(slot, out)) {
        ++stats_.records;
        if (wasReached(slot)) continue;
        const Key& key = r.key();
        if (key == F::defaultRouteKey()) {
          if (F::isDefaultRoute(r)) {
            ++stats_.prefixes;
          } else {
            report(fmt::format("{} record {} is not in the tree and is not a default-route record", F::name, key));
          }
        } else {
          report(fmt::format("{} record {} is not reachable from the root record", F::name, key));
        }
      }
    } catch (const Basis::Exception& e) {
      report(fmt::format("{} collection cannot be iterated: {}", F::name, e.what()));
    }
  }

  const Depot::Table& table_;
  std::vector<std::string>* problems_;
  TrieStats::Family& stats_;
  std::deque<Pending> pending_;
  std::vector<U64> reached_;
};

}  // namespace

std::vector<std::string> checkTrie(const Trie& trie) {
  std::vector<std::string> problems;
  TrieStats stats;
  Walker<Check4>(trie, &problems, stats.v4).run();
  Walker<Check6>(trie, &problems, stats.v6).run();
  return problems;
}

TrieStats trieStats(const Trie& trie) {
  TrieStats stats;
  Walker<Check4>(trie, nullptr, stats.v4).run();
  Walker<Check6>(trie, nullptr, stats.v6).run();
  return stats;
}

}  // namespace Routing::Lattice
