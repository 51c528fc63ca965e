#include "TrieLib/TrieCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_set>

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
  static std::vector<Key> checkNode(const Record& n, U32 parentLen, Report&& report) {
    const Key& key = n.key();
    const U32 len = key.len();
    if (len % 2) report(fmt::format("IPv4 node {}: key length {} is odd", key, len));
    if (U32 outside = n.black() & ~(lengthsUpTo(len) & ~lengthsUpTo(parentLen))) {
      report(fmt::format("IPv4 node {}: black 0x{:08x} marks lengths off its edge ({}..{}): {}", key, n.black(),
                         parentLen + 1, len, lengthList(outside, 0)));
    }
    std::vector<Key> children;
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
  static std::vector<Key> checkNode(const Record& n, U32 parentLen, Report&& report) {
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
    std::vector<Key> children;
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

template <size_t N>
struct BytesHash {
  size_t operator()(const std::array<U8, N>& a) const {
    return std::hash<std::string_view>()(std::string_view(reinterpret_cast<const char*>(a.data()), N));
  }
};

// Walks one family's records from its root record, reporting problems (when
// asked to) and filling the family's statistics.
template <class F>
class Walker {
 public:
  using Key = typename F::Key;
  using Record = typename F::Record;

  Walker(const Trie& trie, std::vector<std::string>* problems, TrieStats::Family& stats)
      : trie_(trie), table_(F::map(trie).table()), problems_(problems), stats_(stats) {}

  void run() {
    std::optional<Record> root = read(F::rootKey());
    if (!root) {
      report(fmt::format("{} root record {} is missing", F::name, F::rootKey()));
    } else {
      visited_.insert(bytesOf(F::rootKey()));
      Key top = F::checkRoot(*root, [this](std::string m) { report(std::move(m)); });
      if (top != F::nullKey()) {
        if (top.validAsPrefix()) {
          visit(top, fmt::format("{} root record", F::name), 0, 0);
        } else {
          report(fmt::format("{} root record names an invalid top node", F::name));
        }
      }
    }
    sweep();
  }

 private:
  using Bytes = std::array<U8, sizeof(Key)>;
  static Bytes bytesOf(const Key& k) {
    Bytes b;
    std::memcpy(b.data(), &k, sizeof k);
    return b;
  }

  void report(std::string message) {
    if (problems_) problems_->push_back(std::move(message));
  }

  // The record under key; nothing when absent or unreadable (reported).
  std::optional<Record> read(const Key& key) {
    Record r;
    try {
      if (table_.find(reinterpret_cast<const U8*>(&key), reinterpret_cast<U8*>(&r))) return r;
    } catch (const Basis::Exception& e) {
      report(fmt::format("{} record {}: unreadable: {}", F::name, key, e.what()));
    }
    return std::nullopt;
  }

  void visit(const Key& key, const std::string& parent, U32 parentLen, U32 depth) {
    std::optional<Record> n = read(key);
    if (!n) {
      report(fmt::format("{}: child {} is not stored", parent, key));
      return;
    }
    if (!visited_.insert(bytesOf(key)).second) {
      report(fmt::format("{} node {} is reached a second time, from {}", F::name, key, parent));
      return;
    }
    if (n->key() != key) report(fmt::format("{} record stored under {} holds the key {}", F::name, key, n->key()));
    if (depth > F::maxDescents) {
      report(fmt::format("{} node {} lies {} levels below the top node; the limit is {}", F::name, key, depth,
                         F::maxDescents));
      return;
    }
    ++stats_.nodes;
    stats_.prefixes += F::blackCount(*n);
    if (stats_.depthCount.size() <= depth) stats_.depthCount.resize(depth + 1);
    ++stats_.depthCount[depth];
    const std::string self = fmt::format("{} node {}", F::name, key);
    for (const Key& c : F::checkNode(*n, parentLen, [this](std::string m) { report(std::move(m)); })) {
      visit(c, self, key.len(), depth + 1);
    }
  }

  // Every record the walk did not reach, but the lone default route, is lost.
  void sweep() {
    try {
      for (auto it = F::map(trie_).begin(); it.valid(); it.advance()) {
        ++stats_.records;
        const Key& key = it->key();
        if (visited_.count(bytesOf(key))) continue;
        if (key == F::defaultRouteKey()) {
          if (F::isDefaultRoute(*it)) {
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

  const Trie& trie_;
  const Depot::Table& table_;
  std::vector<std::string>* problems_;
  TrieStats::Family& stats_;
  std::unordered_set<Bytes, BytesHash<sizeof(Key)>> visited_;
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
