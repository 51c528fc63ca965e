// depottrie stats, check and drop.
#include <fmt/format.h>

#include <algorithm>

#include "Commands.h"
#include "Json.h"
#include "Progress.h"
#include "Depot/SharedTable.h"
#include "TrieLib/TrieCheck.h"

namespace DepotTrieTool {
namespace {

// What the header of one of the trie's tables says: kept by its writer, the
// same for every process that reads it.
struct TableFigures {
  const char* family;
  Depot::SharedTableStats header;
  U64 bytes;
};

TableFigures tableFigures(const char* family, const Depot::Table& t) {
  const auto* shared = dynamic_cast<const Depot::SharedTable*>(&t);
  return {family, shared ? shared->stats() : Depot::SharedTableStats{.capacity = t.capacity(), .occupancy = t.occupancy()},
          t.bytes()};
}

std::string writerText(const Depot::SharedTableStats& s) {
  if (s.writerPid == 0) return "none";
  return s.writerAlive ? fmt::format("{}", s.writerPid) : fmt::format("{} (gone)", s.writerPid);
}

std::string jsonNumbers(const std::vector<U64>& values) {
  std::vector<std::string> texts;
  for (U64 v : values) texts.push_back(fmt::format("{}", v));
  return jsonArray(texts);
}

// One document: the tables' headers by family, the trie's shape by family.
void printStatsJson(const Target& target, const TableFigures (&tables)[2], const Routing::Lattice::TrieStats& s) {
  auto table = [](const TableFigures& t) {
    const Depot::SharedTableStats& h = t.header;
    const std::string writer = h.writerPid == 0 ? "null"
                                                : jsonObject({{"pid", fmt::format("{}", h.writerPid)},
                                                              {"alive", h.writerAlive ? "true" : "false"}});
    return jsonObject({{"records", fmt::format("{}", h.occupancy)}, {"capacity", fmt::format("{}", h.capacity)},
                       {"bytes", fmt::format("{}", t.bytes)}, {"generation", fmt::format("{}", h.generation)},
                       {"update_counter", fmt::format("{}", h.updateCounter)}, {"writer", writer}});
  };
  auto shape = [](const Routing::Lattice::TrieStats::Family& f) {
    return jsonObject({{"prefixes", fmt::format("{}", f.prefixes)}, {"nodes", fmt::format("{}", f.nodes)},
                       {"depth_histogram", jsonNumbers(f.depthCount)}});
  };
  fmt::print("{}\n", jsonObject({{"trie", jsonString(target.name)}, {"root", jsonString(target.mount.root)},
                                 {"tables", jsonObject({{"ipv4", table(tables[0])}, {"ipv6", table(tables[1])}})},
                                 {"shape", jsonObject({{"ipv4", shape(s.v4)}, {"ipv6", shape(s.v6)}})}}));
}

}  // namespace

int statsCommand(const Target& target, bool json) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  const TableFigures tables[] = {tableFigures("IPv4", trie->trieNodeMap().table()),
                                 tableFigures("IPv6", trie->trieNode6Map().table())};
  Routing::Lattice::TrieStats s;
  {
    Progress progress("walking the trie's nodes", {});
    s = Routing::Lattice::trieStats(*trie);
  }
  if (json) {
    printStatsJson(target, tables, s);
    return 0;
  }

  fmt::print("trie {} under {}\n", target.name, target.mount.root);
  fmt::print("  {:<8} {:>12} {:>12} {:>10} {:>14} {:>11} {:>15}  {}\n", "family", "records", "capacity", "occupancy",
             "bytes", "generation", "update counter", "writer");
  for (const TableFigures& t : tables) {
    const Depot::SharedTableStats& h = t.header;
    const double used = h.capacity > 0 ? 100.0 * double(h.occupancy) / double(h.capacity) : 0.0;
    fmt::print("  {:<8} {:>12} {:>12} {:>9.1f}% {:>14} {:>11} {:>15}  {}\n", t.family, h.occupancy, h.capacity, used,
               t.bytes, h.generation, h.updateCounter, writerText(h));
  }
  fmt::print("  shared memory: {} bytes\n", tables[0].bytes + tables[1].bytes);
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
  return 0;
}

int checkCommand(const Target& target, bool json) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  std::vector<std::string> problems;
  {
    Progress progress("checking the trie's structure", {});
    problems = Routing::Lattice::checkTrie(*trie);
    // What the next writer would refuse or repair in the files, which the records alone do not show.
    progress.stepIs("checking the table files");
    for (const Depot::Table* t : {&trie->trieNodeMap().table(), &trie->trieNode6Map().table()})
      for (std::string& p : Depot::sharedTableProblems(t->layout(), t->rootPath())) problems.push_back(std::move(p));
  }
  const U64 r4 = trie->trieNodeMap().table().occupancy();
  const U64 r6 = trie->trieNode6Map().table().occupancy();
  if (json) {
    std::vector<std::string> texts;
    for (const std::string& p : problems) texts.push_back(jsonString(p));
    fmt::print("{}\n", jsonObject({{"trie", jsonString(target.name)},
                                   {"records", jsonObject({{"ipv4", fmt::format("{}", r4)}, {"ipv6", fmt::format("{}", r6)}})},
                                   {"problems", jsonArray(texts)}}));
    return problems.empty() ? 0 : 1;
  }
  for (const std::string& p : problems) fmt::print("{}\n", p);
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
  depottrie::RouteTable::drop(target.name, target.options());
  fmt::print("dropped trie {} under {}\n", target.name, target.mount.root);
  return 0;
}

}  // namespace DepotTrieTool
