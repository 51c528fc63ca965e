// The structural check names each kind of damage (the shape statistics of
// sound tries show in the tool's stats transcripts).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <type_traits>

#include "TrieLib/TrieCheck.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;
using testing::Contains;
using testing::HasSubstr;

namespace {

// 8.0.0.0/6 (white) splitting into 10.0.0.0/8 and 11.0.0.0/8; 2001:db8::/31
// (white) splitting into 2001:db8::/32 and 2001:db9::/32.
Basis::Ptr<Trie> smallTrie() {
  auto t = trieFactory("check");
  for (const char* p : {"10.0.0.0/8", "11.0.0.0/8", "2001:db8::/32", "2001:db9::/32"}) t->prefixIs(IpGenPrefix(p));
  return t;
}
// Rewrites the record under key through f, of the family f takes.
template <class Edit>
void edit(Trie& t, const char* key, Edit f) {
  if constexpr (std::is_invocable_v<Edit, TrieNode&>) { TrieNode n = t.trieNode(Prefix(key)); f(n), t.trieNodeIs(n); }
  else { TrieNode6 n = t.trieNode6(Ip6Prefix(key)); f(n), t.trieNode6Is(n); }
}

}  // namespace

TEST(TrieCheck, EachKindOfDamageIsNamed) {
  const std::vector<std::pair<std::function<void(Trie&)>, std::vector<const char*>>> cases = {
      {[](Trie& t) { edit(t, "8.0.0.0/6", [](TrieNode& n) { n.child01Is(Prefix("9.0.0.0/8")); }); },
       {"child 9.0.0.0/8 is not stored"}},
      {[](Trie& t) { edit(t, "8.0.0.0/6", [](TrieNode& n) { n.child01Is(n.child10()); n.child10Is(nullPrefix); }); },
       {"child 10.0.0.0/8 sits in child01, its key selects child10"}},
      {[](Trie& t) { edit(t, "10.0.0.0/8", [](TrieNode& n) { n.blackIs(n.black() | 0x10000000u); }); },
       {"IPv4 node 10.0.0.0/8: black 0x11000000 marks lengths off its edge (7..8): 4"}},
      {[](Trie& t) {
         t.trieNodeIs(TrieNode(Prefix("10.0.0.0/7")));
         edit(t, "8.0.0.0/6", [](TrieNode& n) { n.child00Is(Prefix("10.0.0.0/7")); });
       },
       {"IPv4 node 10.0.0.0/7: key length 7 is odd"}},
      {[](Trie& t) {
         edit(t, "10.0.0.0/8", [](TrieNode& n) { n.child00Is(Prefix("8.0.0.0/6")); });
         t.trieNodeIs(TrieNode(Prefix("20.0.0.0/8")));
         edit(t, "255.255.255.255/32", [](TrieNode& n) { n.child01Is(Prefix("10.0.0.0/8")); });
       },
       {"child00 8.0.0.0/6 does not lie below the node", "IPv4 record 20.0.0.0/8 is not reachable",
        "IPv4 root record: child01 is 10.0.0.0/8"}},
      {[](Trie& t) {
         TrieNode stray(prefix032);
         stray.blackIs(2);
         t.trieNodeIs(stray);
       },
       {"0.0.0.0/32 is not in the tree and is not a default-route"}},
      {[](Trie& t) { t.trieNodeDel(rootPrefix); },
       {"IPv4 root record 255.255.255.255/32 is missing", "IPv4 record 8.0.0.0/6 is not reachable"}},
      {[](Trie& t) { edit(t, "2001:db8::/31", [](TrieNode6& n) { n.rightChildIs(nullPrefix6); }); },
       {"IPv6 node 2001:db8::/31: has one child", "IPv6 record 2001:db9::/32 is not reachable"}},
      {[](Trie& t) {
         edit(t, "2001:db8::/31", [](TrieNode6& n) {
           const Ip6Prefix l = n.leftChild();
           n.leftChildIs(n.rightChild());
           n.rightChildIs(l);
         });
       },
       {"child 2001:db9::/32 is the leftChild, but bit 31 of its key is 1"}},
      {[](Trie& t) { edit(t, "2001:db9::/32", [](TrieNode6& n) { n.black1Is(0x80000000u); }); },
       {"black1 0x80000000 marks lengths off its edge (32..32): 33"}},
      {[](Trie& t) { edit(t, "2001:db8::/31", [](TrieNode6& n) { n.rightChildIs(n.leftChild()); }); },
       {"IPv6 node 2001:db8::/32 is reached a second time", "IPv6 record 2001:db9::/32 is not reachable"}},
      {[](Trie& t) {
         t.prefixIs(IpGenPrefix("::/0"));
         edit(t, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", [](TrieNode6& n) { n.leftChildIs(prefix0128); });
       },
       {"::/128 (the default route) is linked into the tree"}},
  };
  for (const auto& [damage, expected] : cases) {
    auto t = smallTrie();
    damage(*t);
    const auto problems = checkTrie(*t);
    for (const char* text : expected) EXPECT_THAT(problems, Contains(HasSubstr(text))) << text;
  }
}
