// depottrie lookup, list, next and batch.
#include <fmt/format.h>

#include <cstdio>
#include <iostream>

#include "Batch.h"
#include "Commands.h"
#include "Progress.h"
#include "TrieLib/ConsistentRead.h"

namespace DepotTrieTool {
namespace {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;
using Routing::Lattice::WalkAction;

std::string answerText(const IpGenPrefix& p) { return p.isEmpty() ? "none" : p.stringValue(); }

// Prints the delivered prefixes covered by `under` (all when it is empty),
// skipping the subtrees that lie beside it.
class ListingWalk : public Routing::Lattice::TrieWalkCallback {
 public:
  ListingWalk(const IpGenPrefix& under, Progress& progress) : under_(under), progress_(progress) {}

  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    if (under_.isEmpty() || covers(under_, p)) {
      fmt::print("{}\n", p);
      progress_.update(0, ++listed_);
      return Routing::Lattice::continueWalk;
    }
    // A prefix above `under` leads towards it; one beside it holds nothing
    // below `under` in its subtree.
    return covers(p, under_) ? Routing::Lattice::continueWalk : Routing::Lattice::skipSubtree;
  }

 private:
  IpGenPrefix under_;
  Progress& progress_;
  U64 listed_ = 0;
};

}  // namespace

int lookupCommand(const Target& target, const std::vector<std::string>& queries) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  Routing::Lattice::ConsistentReader reader(*trie);
  int status = 0;
  for (const std::string& q : queries) {
    try {
      fmt::print("{} {}\n", q, answerText(reader.longestMatch(prefixFromText(q))));
    } catch (const Basis::Exception& e) {
      std::fflush(stdout);
      fmt::print(stderr, "depottrie: {}\n", e.what());
      status = 1;
    }
  }
  return status;
}

int listCommand(const Target& target, const std::string& under, int family) {
  IpGenPrefix root;
  if (!under.empty()) {
    root = prefixFromText(under);
    const int rootFamily = root.af() == AddressFamily::ipv4 ? 4 : 6;
    if (family != 0 && family != rootFamily) {
      throw UsageError(fmt::format("--under {} is not an IPv{} prefix", under, family));
    }
    family = rootFamily;
  }
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  Routing::Lattice::ConsistentReader reader(*trie);
  Progress progress("listing", {.items = "prefixes", .streamsToStdout = true});
  Basis::Ptr<ListingWalk> walk(new ListingWalk(root, progress));
  if (family != 6) reader.preOrderWalk(walk, IpGenPrefix(Routing::Lattice::rootPrefix));
  if (family != 4) reader.preOrderWalk(walk, IpGenPrefix(Routing::Lattice::rootPrefix6));
  return 0;
}

int nextCommand(const Target& target, const std::string& prefix) {
  IpGenPrefix p = prefixFromText(prefix);
  if (defaultRouteKey(p)) {
    throw UsageError(fmt::format("{} is where the default route is stored; it cannot start a search", p));
  }
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  fmt::print("{}\n", answerText(Routing::Lattice::ConsistentReader(*trie).getNext(p)));
  return 0;
}

int batchCommand(const Target& target, bool local) {
  Basis::Ptr<Routing::Lattice::Trie> trie = local ? Routing::Lattice::trieFactory("batch")
                                                  : Routing::Lattice::trieWriterNew(target.name, target.mount);
  std::ios::sync_with_stdio(false);
  return runBatch(*trie, std::cin, stdout, stderr);
}

}  // namespace DepotTrieTool
