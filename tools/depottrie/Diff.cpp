// depottrie diff: the shared trie against a route file.
#include <fmt/format.h>

#include <algorithm>

#include "Commands.h"
#include "Progress.h"
#include "RouteFiles.h"
#include "TrieLib/ConsistentRead.h"

namespace DepotTrieTool {
namespace {

using Addrkit::IpGenPrefix;

class Collector : public Routing::Lattice::TrieWalkCallback {
 public:
  explicit Collector(std::vector<Route>& routes) : routes_(routes) {}
  Routing::Lattice::WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    routes_.push_back({p});
    return Routing::Lattice::continueWalk;
  }

 private:
  std::vector<Route>& routes_;
};

bool routeLess(const Route& a, const Route& b) { return prefixLess(a.prefix, b.prefix); }

// "+ PREFIX" for a route only the trie holds, "- PREFIX" for one only the
// file holds.
void printDiffLine(char sign, const Route& route) { fmt::print("{} {}\n", sign, route.prefix); }

}  // namespace

int diffCommand(const Target& target, const std::string& file) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  std::vector<Route> listed, stored;
  RouteFileCounts counts;
  {
    Progress progress("reading the file", {.totalBytes = routeFilesSize({file}), .items = "prefixes"});
    counts = readRouteFiles({file}, progress, [&listed](const Route& route) {
      listed.push_back(route);
      return listed.size();
    });
    if (counts.failedFiles > 0) return 2;
    progress.stepIs("reading the trie");
    Routing::Lattice::ConsistentReader reader(*trie);
    Basis::Ptr<Collector> collector(new Collector(stored));
    reader.preOrderWalk(collector, IpGenPrefix(Routing::Lattice::rootPrefix));
    reader.preOrderWalk(collector, IpGenPrefix(Routing::Lattice::rootPrefix6));
  }
  // A prefix listed twice is one route of the file.
  std::sort(listed.begin(), listed.end(), routeLess);
  listed.erase(std::unique(listed.begin(), listed.end(),
                           [](const Route& a, const Route& b) { return a.prefix == b.prefix; }),
               listed.end());
  std::sort(stored.begin(), stored.end(), routeLess);

  bool differ = false;
  auto s = stored.begin(), l = listed.begin();
  while (s != stored.end() || l != listed.end()) {
    if (l == listed.end() || (s != stored.end() && routeLess(*s, *l))) {
      printDiffLine('+', *s++);
    } else if (s == stored.end() || routeLess(*l, *s)) {
      printDiffLine('-', *l++);
    } else {
      ++s, ++l;
      continue;
    }
    differ = true;
  }
  std::fflush(stdout);
  if (counts.badLines > 0) {
    fmt::print(stderr, "depottrie: {} bad line{} of {} left out of the comparison\n", counts.badLines,
               counts.badLines == 1 ? "" : "s", file == "-" ? "<stdin>" : file);
    return 2;
  }
  return differ ? 1 : 0;
}

}  // namespace DepotTrieTool
