#pragma once
// A walk callback that records what it is given and answers as told.
#include <map>
#include <string>
#include <vector>

#include "TrieLib/DepotTrie.h"

namespace testkit {

class Collector : public Routing::Lattice::TrieWalkCallback {
 public:
  Routing::Lattice::WalkAction handleWalkCallback(const Addrkit::IpGenPrefix& p) override {
    seen.push_back(p);
    auto it = answers.find(p.stringValue());
    return it == answers.end() ? Routing::Lattice::continueWalk : it->second;
  }
  std::vector<Addrkit::IpGenPrefix> seen;
  std::map<std::string, Routing::Lattice::WalkAction> answers;  // by prefix text
};

// What walk(trie, from) delivers, as one space-separated line.
template <class Walker>
std::string walkText(Walker& trie, const Addrkit::IpGenPrefix& from,
                     const std::map<std::string, Routing::Lattice::WalkAction>& answers = {}) {
  Basis::Ptr<Collector> c(new Collector);
  c->answers = answers;
  trie.preOrderWalk(c, from);
  std::string out;
  for (const auto& p : c->seen) {
    if (!out.empty()) out += ' ';
    out += p.stringValue();
  }
  return out;
}

// Every prefix of one family in walk order.
template <class Walker>
std::vector<Addrkit::IpGenPrefix> walkFamily(Walker& trie, bool v6) {
  Basis::Ptr<Collector> c(new Collector);
  trie.preOrderWalk(c, v6 ? Addrkit::IpGenPrefix(Routing::Lattice::rootPrefix6)
                          : Addrkit::IpGenPrefix(Routing::Lattice::rootPrefix));
  return c->seen;
}

}  // namespace testkit
