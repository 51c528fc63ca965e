#pragma once
// The plain model every trie test compares against: a sorted set of prefixes
// of both families with longest match, successor, covered and covering
// answered by brute force, independent of the trie's records; and the same
// with a value per prefix, as the route table answers.
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Addrkit/Prefix.h"
#include "RouteTable/Internal.h"
#include "RouteTable/RouteTable.h"

namespace testkit {

using Addrkit::IpGenPrefix, Basis::U32;
using depottrie::Prefix, depottrie::Route, depottrie::RouteTable, depottrie::detail::Access;

// p cut to len bits, same family.
inline IpGenPrefix cut(const IpGenPrefix& p, U32 len) {
  if (p.af() == Addrkit::AddressFamily::ipv4) return Addrkit::Prefix::masked(p.v4().addrHost(), len);
  return Addrkit::Ip6Prefix::masked(p.v6().address(), len);
}

inline bool covers(const IpGenPrefix& outer, const IpGenPrefix& inner) {
  return outer.af() == inner.af() && outer.len() <= inner.len() && cut(inner, outer.len()) == outer;
}

// Family, then address as unsigned bytes, then length: the order of the
// trie's successor and of a whole-family walk.
struct Lexical {
  bool operator()(const IpGenPrefix& a, const IpGenPrefix& b) const {
    if (a.af() != b.af()) return a.af() < b.af();
    if (a.af() == Addrkit::AddressFamily::ipv4) {
      if (a.v4().addrHost() != b.v4().addrHost()) return a.v4().addrHost() < b.v4().addrHost();
    } else if (!(a.v6().address() == b.v6().address())) {
      return a.v6().address() < b.v6().address();
    }
    return a.len() < b.len();
  }
};

class Reference {
 public:
  using Set = std::set<IpGenPrefix, Lexical>;
  bool insert(const IpGenPrefix& p) { return set_.insert(p).second; }
  bool erase(const IpGenPrefix& p) { return set_.erase(p) == 1; }
  bool contains(const IpGenPrefix& p) const { return set_.count(p) == 1; }
  size_t size() const { return set_.size(); }
  const Set& all() const { return set_; }
  std::vector<IpGenPrefix> family(Addrkit::AddressFamily af) const {
    std::vector<IpGenPrefix> out;
    for (const auto& p : set_) if (p.af() == af) out.push_back(p);
    return out;
  }
  // The longest stored prefix covering p (p itself included); empty if none.
  IpGenPrefix longestMatch(const IpGenPrefix& p) const {
    for (int len = int(p.len()); len >= 0; --len) {
      if (contains(cut(p, U32(len)))) return cut(p, U32(len));
    }
    return {};
  }
  // Every stored prefix covering p, longest first.
  std::vector<IpGenPrefix> covering(const IpGenPrefix& p) const {
    std::vector<IpGenPrefix> out;
    for (int len = int(p.len()); len >= 0; --len) {
      if (contains(cut(p, U32(len)))) out.push_back(cut(p, U32(len)));
    }
    return out;
  }
  // Every stored prefix inside p, in order.
  std::vector<IpGenPrefix> covered(const IpGenPrefix& p) const {
    std::vector<IpGenPrefix> out;
    for (auto it = set_.lower_bound(p); it != set_.end() && covers(p, *it); ++it) out.push_back(*it);
    return out;
  }
  // The first stored prefix of p's family after p; empty if none.
  IpGenPrefix next(const IpGenPrefix& p) const {
    auto it = set_.upper_bound(p);
    return it != set_.end() && it->af() == p.af() ? *it : IpGenPrefix();
  }
 private:
  Set set_;
};

inline depottrie::Prefix front(const IpGenPrefix& p) { return depottrie::Prefix(p.stringValue()); }

// The reference's prefixes with the values last given to them.
struct Model {
  Reference ref;
  std::map<std::string, std::uint64_t> values;
  void apply(const IpGenPrefix& p, bool insert, std::uint64_t value) {
    insert ? (void)(ref.insert(p), values[p.stringValue()] = value) : (void)ref.erase(p);
  }
  std::optional<depottrie::Route> routeIf(const IpGenPrefix& p) const {
    return p.isEmpty() ? std::nullopt : std::optional(depottrie::Route{front(p), values.at(p.stringValue())});
  }
  template <class Prefixes>
  std::vector<depottrie::Route> routes(const Prefixes& ps) const {
    std::vector<depottrie::Route> out;
    for (const IpGenPrefix& p : ps) out.push_back(*routeIf(p));
    return out;
  }
  std::vector<depottrie::Route> all() const { return routes(ref.all()); }
};

}  // namespace testkit
