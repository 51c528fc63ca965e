#pragma once
// The hashed index of one generation: open addressing with linear probing
// from the home entry of the key's hash, wrapping at the end, one 32-bit
// entry per position (see SharedTableFile.h for the encoding).
//
// What a reader may assume: while a generation lives, an entry never moves.
// An empty entry ends every probe sequence that reaches it; a tombstone (a
// removed key) ends none. So a key present throughout a reader's probe is
// found, and an empty entry proves the key absent.
//
// What the writer guarantees: it fills an entry only after the slot it names
// holds the record; it turns an entry into a tombstone, or into empty only
// when the entry after it is empty (with the tombstones just before it, back
// to front), so no probe sequence that goes past it is cut short. Tombstones
// go when the next generation is built, whose index is filled front to back
// in the order of the home entries before anyone can read it.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "Depot/SharedTableFile.h"

// Hidden from the library that links Depot in: calls between these files
// bind inside it, so they are direct and may be inlined.
#pragma GCC visibility push(hidden)
namespace Depot::sharedfile {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// The last n (< 8) bytes of a key as a little-endian word, read without a
// round trip through memory (which would stall on store forwarding).
template <U32 n>
U64 keyTail(const U8* p) {
  U64 v = 0;
  U32 at = 0;
  if constexpr (n & 4) {
    U32 w;
    std::memcpy(&w, p, 4);
    v = w;
    at = 4;
  }
  if constexpr (n & 2) {
    U16 w;
    std::memcpy(&w, p + at, 2);
    v |= U64(w) << (8 * at);
    at += 2;
  }
  if constexpr (n & 1) v |= U64(p[at]) << (8 * at);
  return v;
}

// Depot::keyHash with the key length known at compile time (the same values:
// readers and writers of a file must agree on them).
template <U32 N>
U64 fixedKeyHash(const U8* key) {
  U64 h = 0x9E3779B97F4A7C15ull ^ N;
  U32 at = 0;
  for (; at + 8 <= N; at += 8) {
    U64 v;
    std::memcpy(&v, key + at, 8);
    h = (h ^ v) * 0xbf58476d1ce4e5b9ull;
    h ^= h >> 31;
  }
  h = (h ^ keyTail<N % 8>(key + at)) * 0x94d049bb133111ebull;
  h ^= h >> 29;
  h *= 0xbf58476d1ce4e5b9ull;
  return h ^ (h >> 32);
}

// The keys of one record layout: where a record's key lies, its hash and
// comparison. The node records' key sizes get code with the size built in.
class Keys {
 public:
  explicit Keys(const RecordLayout& layout) : offset_(layout.keyOffset), size_(layout.keySize) {}
  U32 size() const { return size_; }
  const U8* of(const U8* record) const { return record + offset_; }
  U64 hash(const U8* key) const {
    switch (size_) {
      case 5: return fixedKeyHash<5>(key);
      case 17: return fixedKeyHash<17>(key);
      default: return keyHash(key, size_);
    }
  }
  // A hash for the writer's slot cache, which checks every hit against the
  // key: its values need only spread the keys, not match the index's, so it
  // is a few independent multiplications rather than keyHash's chain.
  U64 quickHash(const U8* key) const {
    U64 v;
    switch (size_) {
      case 5: v = keyTail<5>(key) * 0x9E3779B97F4A7C15ull; break;
      case 17: {
        U64 a, b;
        std::memcpy(&a, key, 8);
        std::memcpy(&b, key + 8, 8);
        v = a * 0x9E3779B97F4A7C15ull ^ b * 0xbf58476d1ce4e5b9ull ^ U64(key[16]) * 0x94d049bb133111ebull;
        break;
      }
      default: return hash(key);
    }
    return v ^ (v >> 29);
  }
  bool same(const U8* a, const U8* b) const {
    switch (size_) {
      case 5: return std::memcmp(a, b, 5) == 0;
      case 17: return std::memcmp(a, b, 17) == 0;
      default: return std::memcmp(a, b, size_) == 0;
    }
  }

 private:
  U32 offset_;
  U32 size_;
};

inline U32 slotMaskOf(const Geometry& g) { return (U32(1) << g.slotBits) - 1; }
inline U32 tagOf(const Geometry& g, U64 hash) { return U32(hash) << g.slotBits; }
inline U32 entryFor(const Geometry& g, U64 hash, U64 slot) { return tagOf(g, hash) | U32(slot + 1); }
inline U64 nextPosition(const Geometry& g, U64 pos) { return pos + 1 == g.indexEntries ? 0 : pos + 1; }

// What no consistent index holds.
enum class Problem { none, slotOutside, freeSlot, endless };
std::string describe(Problem problem, U64 position, U64 slot, const Geometry& g);
[[noreturn]] void throwDamage(const std::string& path, Problem problem, U64 position, U64 slot, const Geometry& g);

// Where the writer finds a key: its slot and index position, or (absent)
// the position where it would go, the first tombstone of its probe sequence
// or else the empty entry that ends it.
struct Spot {
  bool found;
  U64 slot;
  U64 position;
};

// The writer's probe: nobody else changes the table, so it compares keys in
// place. Raises CorruptionException (naming path) on damage.
inline Spot locate(const Mapping& m, const Keys& keys, const U8* key, U64 hash, const std::string& path) {
  const Geometry& g = m.geometry();
  const U32 slotMask = slotMaskOf(g);
  const U32 tag = tagOf(g, hash);
  const U32 tombstone = tombstoneEntry(g.slotBits);
  U64 pos = homeEntry(hash, g.indexEntries);
  U64 firstTombstone = g.indexEntries;
  for (U64 n = 0; n < g.indexEntries; ++n, pos = nextPosition(g, pos)) {
    const U32 e = loadRelaxed(m.indexEntry(pos));
    if (e == 0) return {false, 0, firstTombstone < g.indexEntries ? firstTombstone : pos};
    if (e == tombstone) {
      firstTombstone = std::min(firstTombstone, pos);
      continue;
    }
    if ((e & ~slotMask) != tag) continue;
    const U64 slot = U64(e & slotMask) - 1;
    Problem problem = Problem::none;
    if ((e & slotMask) == 0 || slot >= g.capacity) problem = Problem::slotOutside;
    else if (!(m.seqWord(slot) & seqLive)) problem = Problem::freeSlot;
    else if (keys.same(keys.of(m.slot(slot)), key)) return {true, slot, pos};
    else continue;
    throwDamage(path, problem, pos, slot, g);
  }
  throwDamage(path, Problem::endless, pos, 0, g);
}

// Clears the entry at position: a tombstone, or empty when that cuts no
// probe sequence short. Keeps tombstones (the index's count) up to date.
void deleteEntry(Mapping& m, U64 position, U64& tombstones);
// Indexes the live slots below top of a new generation m, reading them from
// `slots`: m itself, or the generation they were just copied from (whose
// pages are mapped already). A second record under a key already indexed
// loses its slot in m, which dropped is told. Returns the records kept.
U64 buildIndex(Mapping& m, const Mapping& slots, const Keys& keys, U64 top, U64 expected,
               const std::function<void(U64 slot)>& dropped);

}  // namespace Depot::sharedfile
#pragma GCC visibility pop
