// depottrie bench: timed longest-prefix matches from a reader.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <random>

#include "Commands.h"
#include "Progress.h"
#include "TrieLib/ConsistentRead.h"

namespace DepotTrieTool {
namespace {

using Addrkit::IpGenPrefix;

class CollectingWalk : public Routing::Lattice::TrieWalkCallback {
 public:
  Routing::Lattice::WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    prefixes.push_back(p);
    return Routing::Lattice::continueWalk;
  }
  std::vector<IpGenPrefix> prefixes;
};

// The bits of word k that lie beyond a prefix of length len.
U32 hostBits(U32 len, U32 k) {
  const U32 inWord = std::min(std::max(len, 32 * k) - 32 * k, 32u);
  return inWord == 32 ? 0u : 0xFFFFFFFFu >> inWord;
}

// A random host address inside p.
IpGenPrefix addressInside(const IpGenPrefix& p, std::mt19937_64& rng) {
  if (p.af() == Addrkit::AddressFamily::ipv4) {
    const U32 addr = p.v4().addrHost() | (U32(rng()) & hostBits(p.len(), 0));
    return IpGenPrefix(Addrkit::Prefix(Addrkit::Ip4Address::fromHost(addr), 32));
  }
  Addrkit::Ip6Address a = p.v6().address();
  for (U32 k = 0; k < 4; ++k) a.wordIs(k, a.word(k) | (U32(rng()) & hostBits(p.len(), k)));
  return IpGenPrefix(Addrkit::Ip6Prefix(a, 128));
}

template <class Lookup>
void timeLookups(const std::vector<IpGenPrefix>& queries, const char* family, const char* operation, size_t stored,
                 Progress& progress, Lookup&& lookup) {
  progress.stepIs(fmt::format("{} {}", family, operation));
  U64 unanswered = 0;
  auto start = std::chrono::steady_clock::now();
  for (const IpGenPrefix& q : queries) unanswered += lookup(q).isEmpty() ? 1 : 0;
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double count = double(queries.size());
  progress.print(stdout, fmt::format("{} {}: {} lookups in {:.3f} s, {:.2f} M lookups/s ({} prefixes stored, {} without an answer)\n",
                                     family, operation, queries.size(), seconds, seconds > 0 ? count / seconds / 1e6 : 0.0,
                                     stored, unanswered));
}

void benchFamily(Routing::Lattice::ConsistentReader& reader, const IpGenPrefix& familyRoot, const char* family,
                 U64 count, std::mt19937_64& rng, Progress& progress) {
  progress.stepIs(fmt::format("{} queries", family));
  Basis::Ptr<CollectingWalk> walk(new CollectingWalk);
  reader.preOrderWalk(walk, familyRoot);
  const std::vector<IpGenPrefix>& stored = walk->prefixes;
  if (stored.empty()) {
    progress.print(stdout, fmt::format("{}: no prefixes stored, nothing to look up\n", family));
    return;
  }
  std::vector<IpGenPrefix> queries;
  queries.reserve(count);
  for (U64 i = 0; i < count; ++i) queries.push_back(addressInside(stored[rng() % stored.size()], rng));

  timeLookups(queries, family, "lpm", stored.size(), progress, [&reader](const IpGenPrefix& q) { return reader.lpm(q); });
  timeLookups(queries, family, "longestMatch", stored.size(), progress,
              [&reader](const IpGenPrefix& q) { return reader.longestMatch(q); });
}

}  // namespace

int benchCommand(const Target& target, U64 count, U64 seed) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  Routing::Lattice::ConsistentReader reader(*trie);
  std::mt19937_64 rng(seed);
  Progress progress("bench", {});
  benchFamily(reader, IpGenPrefix(Routing::Lattice::rootPrefix), "IPv4", count, rng, progress);
  benchFamily(reader, IpGenPrefix(Routing::Lattice::rootPrefix6), "IPv6", count, rng, progress);
  return 0;
}

}  // namespace DepotTrieTool
