// The index's upkeep by the writer: tombstones in place while a generation
// lives, and the whole index of a new generation built at once. The rules a
// reader relies on are at the top of SharedTableIndex.h.
#include "Depot/SharedTableIndex.h"

#include "Depot/FaultInjection.h"

#include <fmt/format.h>

#include <bit>
#include <utility>
#include <vector>

namespace Depot::sharedfile {
namespace {

// Sorts (home << 32 | entry) items by home, 11 bits a pass.
void sortByHome(std::vector<U64>& items, U64 indexEntries) {
  std::vector<U64> spare(items.size());
  for (U32 shift = 32; shift < 32 + std::bit_width(indexEntries); shift += 11) {
    U64 counts[2048] = {};
    for (U64 v : items) ++counts[(v >> shift) & 2047];
    U64 at = 0;
    for (U64& c : counts) at += std::exchange(c, at);
    for (U64 v : items) spare[counts[(v >> shift) & 2047]++] = v;
    items.swap(spare);
  }
}

}  // namespace

std::string describe(Problem problem, U64 position, U64 slot, const Geometry& g) {
  switch (problem) {
    case Problem::slotOutside:
      return fmt::format("index entry {} names slot {} of a table of {}", position, slot, g.capacity);
    case Problem::freeSlot: return fmt::format("index entry {} names the free slot {}", position, slot);
    default: return fmt::format("a probe sequence of {} entries does not end", g.indexEntries);
  }
}

void throwDamage(const std::string& path, Problem problem, U64 position, U64 slot, const Geometry& g) {
  throw CorruptionException(fmt::format("{}: {}", path, describe(problem, position, slot, g)));
}

// A removed key leaves a tombstone, so that no entry moves under a reader;
// a tombstone followed by an empty entry ends no probe sequence that goes
// on past it, and it becomes empty with the tombstones before it.
void deleteEntry(Mapping& m, U64 position, U64& tombstones) {
  const Geometry& g = m.geometry();
  const U64 n = g.indexEntries;
  const U32 tombstone = tombstoneEntry(g.slotBits);
  if (loadRelaxed(m.indexEntry(nextPosition(g, position))) != 0) {
    storeRelease(m.indexEntry(position), tombstone);
    ++tombstones;
    return;
  }
  storeRelease(m.indexEntry(position), 0);
  for (U64 pos = position, k = 0; k < n; ++k) {
    pos = pos == 0 ? n - 1 : pos - 1;
    if (loadRelaxed(m.indexEntry(pos)) != tombstone) break;
    storeRelease(m.indexEntry(pos), 0);
    --tombstones;
  }
}

// The entries go in the order of their home entries, so that the index fills
// from front to back.
U64 buildIndex(Mapping& m, const Mapping& slots, const Keys& keys, U64 top, U64 expected,
               const std::function<void(U64 slot)>& dropped) {
  const Geometry& g = m.geometry();
  if (injectedFailure(ENOMEM)) throw std::bad_alloc();
  std::vector<U64> items;
  items.reserve(expected);
  for (U64 s = 0; s < top; ++s) {
    if (!(slots.seqWord(s) & seqLive)) continue;
    const U64 hash = keys.hash(keys.of(slots.slot(s)));
    items.push_back(homeEntry(hash, g.indexEntries) << 32 | entryFor(g, hash, s));
  }
  sortByHome(items, g.indexEntries);
  const U32 slotMask = slotMaskOf(g);
  U64 next = 0, kept = 0;
  std::vector<U32> wrapped;
  for (size_t i = 0; i < items.size(); ++i) {
    const U64 home = items[i] >> 32;
    const U32 entry = U32(items[i]);
    const U64 slot = (entry & slotMask) - 1;
    bool again = false;
    for (size_t j = i; j-- > 0 && items[j] >> 32 == home && !again;)
      again = U32(items[j]) >> g.slotBits == entry >> g.slotBits &&
              keys.same(keys.of(slots.slot((U32(items[j]) & slotMask) - 1)), keys.of(slots.slot(slot)));
    if (again) {
      m.seqWord(slot) &= ~seqLive;
      dropped(slot);
      continue;
    }
    ++kept;
    const U64 pos = std::max(home, next);
    if (pos >= g.indexEntries) {
      wrapped.push_back(entry);
      continue;
    }
    m.indexEntry(pos) = entry;
    next = pos + 1;
  }
  // Probes that run past the end go on at the front.
  U64 pos = 0;
  for (U32 entry : wrapped) {
    while (m.indexEntry(pos) != 0) ++pos;
    m.indexEntry(pos) = entry;
  }
  return kept;
}

}  // namespace Depot::sharedfile
