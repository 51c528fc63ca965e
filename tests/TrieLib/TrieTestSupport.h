#pragma once
// Helpers shared by the single-process trie tests.
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Trace.h"
#include "TrieLib/DepotTrie.h"

namespace trietest {

// Collects the trie's trace lines, every level on, while alive.
class TraceCapture {
 public:
  TraceCapture() {
    Kiln::traceSinkIs([this](std::string_view line) { lines.emplace_back(line); });
    Kiln::traceConfigIs("DepotTrie/0-9");
  }
  ~TraceCapture() {
    Kiln::traceHandle("DepotTrie").levelsIs(0);
    Kiln::traceSinkIs({});
  }
  std::string all() const {
    std::string s;
    for (auto& l : lines) s += l + "\n";
    return s;
  }
  bool has(std::string_view text) const { return all().find(text) != std::string::npos; }
  std::vector<std::string> lines;
};

// Records what a walk delivers and answers as told for chosen prefixes.
class Collector : public Routing::Lattice::TrieWalkCallback {
 public:
  Routing::Lattice::WalkAction handleWalkCallback(const Addrkit::IpGenPrefix& p) override {
    seen.push_back(p.stringValue());
    auto it = answers.find(seen.back());
    return it == answers.end() ? Routing::Lattice::continueWalk : it->second;
  }
  std::vector<std::string> seen;
  std::map<std::string, Routing::Lattice::WalkAction> answers;
};

}  // namespace trietest
