// depottrie stats, check and drop.
#include <fmt/format.h>

#include <algorithm>

#include "Commands.h"
#include "Depot/SharedTable.h"
#include "TrieLib/TrieCheck.h"

namespace DepotTrieTool {
namespace {

void printTable(const std::string& label, const Depot::Table& t) {
  const double used = t.capacity() > 0 ? 100.0 * double(t.occupancy()) / double(t.capacity()) : 0.0;
  fmt::print("  {:<8} {:>12} {:>12} {:>9.1f}% {:>14}\n", label, t.occupancy(), t.capacity(), used, t.bytes());
}

}  // namespace

int statsCommand(const Target& target) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  const Depot::Table& t4 = trie->trieNodeMap().table();
  const Depot::Table& t6 = trie->trieNode6Map().table();
  const Routing::Lattice::TrieStats s = Routing::Lattice::trieStats(*trie);

  fmt::print("trie {} under {}\n", target.name, target.mount.root);
  fmt::print("  {:<8} {:>12} {:>12} {:>10} {:>14}\n", "family", "records", "capacity", "occupancy", "bytes");
  printTable("IPv4", t4);
  printTable("IPv6", t6);
  fmt::print("  shared memory: {} bytes\n", t4.bytes() + t6.bytes());
  fmt::print("prefixes: {} IPv4, {} IPv6; trie nodes: {} IPv4, {} IPv6\n", s.v4.prefixes, s.v6.prefixes, s.v4.nodes,
             s.v6.nodes);

  // Deep IPv6 tries are summarised in bands of eight levels.
  const size_t depths = std::max(s.v4.depthCount.size(), s.v6.depthCount.size());
  const size_t band = depths > 34 ? 8 : 1;
  fmt::print("depth histogram (levels below the top node)\n");
  fmt::print("  {:>7} {:>12} {:>12}\n", "depth", "IPv4 nodes", "IPv6 nodes");
  auto sum = [](const std::vector<U64>& counts, size_t from, size_t to) {
    U64 n = 0;
    for (size_t d = from; d < to && d < counts.size(); ++d) n += counts[d];
    return n;
  };
  for (size_t d = 0; d < depths; d += band) {
    const U64 n4 = sum(s.v4.depthCount, d, d + band);
    const U64 n6 = sum(s.v6.depthCount, d, d + band);
    if (n4 == 0 && n6 == 0) continue;
    const std::string label = band == 1 ? fmt::format("{}", d) : fmt::format("{}-{}", d, d + band - 1);
    fmt::print("  {:>7} {:>12} {:>12}\n", label, n4, n6);
  }

  fmt::print("write-path counters (this process)\n");
  for (const Beat::Counter* c : trie->counters().counters()) fmt::print("  {:<16} {:>12}\n", c->name(), c->value());
  return 0;
}

int checkCommand(const Target& target) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  std::vector<std::string> problems = Routing::Lattice::checkTrie(*trie);
  // What the next writer would refuse or repair in the files, which the records alone do not show.
  for (const Depot::Table* t : {&trie->trieNodeMap().table(), &trie->trieNode6Map().table()})
    for (std::string& p : Depot::sharedTableProblems(t->layout(), t->rootPath())) problems.push_back(std::move(p));
  for (const std::string& p : problems) fmt::print("{}\n", p);
  const U64 r4 = trie->trieNodeMap().table().occupancy();
  const U64 r6 = trie->trieNode6Map().table().occupancy();
  if (problems.empty()) {
    fmt::print("trie {}: {} IPv4 and {} IPv6 records, no problems found\n", target.name, r4, r6);
    return 0;
  }
  fmt::print("trie {}: {} problem{} found\n", target.name, problems.size(), problems.size() == 1 ? "" : "s");
  return 1;
}

int dropCommand(const Target& target) {
  if (!Routing::Lattice::trieExists(target.name, target.mount)) {
    throw Basis::Exception(fmt::format("no trie named {} under {}", target.name, target.mount.root));
  }
  Routing::Lattice::trieDrop(target.name, target.mount);
  fmt::print("dropped trie {} under {}\n", target.name, target.mount.root);
  return 0;
}

}  // namespace DepotTrieTool
