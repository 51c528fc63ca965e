// A reader's lookups: a probe of the index that copies the slots it meets
// under their sequence words, and the move to a newer generation.
//
// What a reader may assume: entries do not move and records keep their
// slots while a generation lives, so a key present throughout one pass over
// its probe sequence is found. A newer generation is complete before the
// writer announces it in the old header (successor, a release store), and
// the old mapping stays valid while the reader holds it. What it cannot
// assume: that a pass which met a busy slot, or what no consistent table
// holds, saw a settled table; such a pass is tried again under Patience.
#include "Depot/SharedTableReader.h"

#include <fcntl.h>
#include <unistd.h>

namespace Depot::sharedfile {
namespace {

enum class Outcome { found, absent, unsettled, broken };

// The result of one pass over a probe sequence.
struct Probe {
  Outcome outcome;
  U64 slot = 0;
  U64 position = 0;
  Problem problem = Problem::none;
};

// One pass over the key's probe sequence. A pass that meets a slot being
// changed is unsettled; one that meets what no consistent table holds is
// broken (or raced with the writer: the caller tells which). Around an
// update left open by a writer that is gone, a busy slot is not key's: the
// update did not change key, or its journal would have answered.
template <U32 Words = 0>
Probe probe(const Mapping& m, const Keys& keys, const U8* key, U64 hash, U32* words, bool around) {
  const Geometry& g = m.geometry();
  const U32 slotMask = slotMaskOf(g);
  const U32 tag = tagOf(g, hash);
  const U32 tombstone = tombstoneEntry(g.slotBits);
  U64 pos = homeEntry(hash, g.indexEntries);
  for (U64 n = 0; n < g.indexEntries;) {
    const U32 e = loadAcquire(m.indexEntry(pos));
    if (e == 0) return {Outcome::absent, 0, pos};
    if (e != tombstone && (e & ~slotMask) == tag) {
      const U64 slot = U64(e & slotMask) - 1;
      if ((e & slotMask) == 0 || slot >= g.capacity) return {Outcome::broken, slot, pos, Problem::slotOutside};
      switch (readSlot<Words>(m, slot, words)) {
        case SlotRead::busy:
          if (around) break;
          return {Outcome::unsettled, slot, pos};
        case SlotRead::free:
          // The key was removed after the entry was read: look again.
          if (loadAcquire(m.indexEntry(pos)) != e) continue;
          return {Outcome::broken, slot, pos, Problem::freeSlot};
        case SlotRead::ok:
          if (keys.same(keys.of(reinterpret_cast<const U8*>(words)), key)) return {Outcome::found, slot, pos};
          break;
      }
    }
    ++n;
    pos = nextPosition(g, pos);
  }
  return {Outcome::broken, 0, pos, Problem::endless};
}

}  // namespace

void throwStuck(const Mapping& m, const std::string& path, U64 slot, U32 stuckAfterMs) {
  throw WriterStuckException(fmt::format("{}: the writer (pid {}) has kept slot {} busy for over {} ms; it is stopped "
                                         "or hung",
                                         path, loadAcquire(m.header().writerPid), slot, stuckAfterMs));
}

// Whether the writer still lives costs a read of /proc, so it is asked only
// of an update that has stayed open for a millisecond: a live writer's
// updates take microseconds, and consistent readers read the counter around
// every query.
U64 SharedTableReader::updateCounter() const {
  const Mapping& m = newestMapping();
  const U64 counter = loadAcquire(m.header().updateCounter);
  if (!(counter & 1)) return counter;
  if (readingAround(m)) return counter - 1;
  const auto now = std::chrono::steady_clock::now();
  if (counter != openSeen_) {
    openSeen_ = counter;
    openSince_ = now;
    return counter;
  }
  if (now - openSince_ < std::chrono::milliseconds(1)) return counter;
  return startReadingAround(m) ? counter - 1 : counter;
}

// A record out of the words a slot read just stored one at a time, copied
// a word at a time (relaxed loads, which the compiler does not widen): a
// wider load across several fresh stores cannot take its bytes from them
// and waits until they reach the cache.
template <U32 RecordSize>
inline void copyRecord(U8* out, const U32* words) {
  for (U32 w = 0; w < RecordSize / 4; ++w) {
    const U32 v = loadRelaxed(words[w]);
    std::memcpy(out + 4 * w, &v, 4);
  }
  if constexpr (RecordSize % 4 != 0) {
    const U32 v = loadRelaxed(words[RecordSize / 4]);
    std::memcpy(out + RecordSize / 4 * 4, &v, RecordSize % 4);
  }
}

// One settled pass of find with the layout's sizes built in: 1 found, 0
// absent, -1 for the general path to settle.
template <U32 Words, U32 KeySize, U32 RecordSize>
int SharedTableReader::quickFind(const U8* key, U8* out) const {
  U32 copy[Words];
  const Probe p = probe<Words>(*map_, keys_, key, fixedKeyHash<KeySize>(key), copy, false);
  if (p.outcome == Outcome::absent) return 0;
  if (p.outcome != Outcome::found) return -1;
  copyRecord<RecordSize>(out, copy);
  return 1;
}

bool SharedTableReader::find(const U8* key, U8* out) const {
  if (quickNow()) [[likely]] {
    int found = -1;
    switch (quick_) {
      case Quick::node4: found = quickFind<32 / 4, 5, 29>(key, out); break;
      case Quick::node6: found = quickFind<72 / 4, 17, 67>(key, out); break;
      case Quick::value4: found = quickFind<16 / 4, 5, 13>(key, out); break;
      case Quick::value6: found = quickFind<28 / 4, 17, 25>(key, out); break;
      case Quick::bucket: found = quickFind<128 / 4, 4, 124>(key, out); break;
      case Quick::none: break;
    }
    if (found >= 0) return found == 1;
  }
  U32 words[maxStride / 4];
  U64 slot;
  if (!lookup(key, words, slot)) return false;
  std::memcpy(out, words, layout_.recordSize);
  return true;
}

// find's slot read, at the slot prefetchRecord named (slot + 1): slot
// numbers hold across generations, so the position stays right when the
// table has moved on since; anything find's settled pass would not take
// for granted sends the caller to find.
template <U32 Words, U32 RecordSize>
bool SharedTableReader::quickReadAt(U64 where, const U8* key, U8* out) const {
  const Mapping& m = *map_;
  if (where > m.geometry().capacity) return false;
  U32 copy[Words];
  if (readSlot<Words>(m, where - 1, copy) != SlotRead::ok || !keys_.same(keys_.of(reinterpret_cast<const U8*>(copy)), key))
    return false;
  copyRecord<RecordSize>(out, copy);
  return true;
}

bool SharedTableReader::readAt(U64 where, const U8* key, U8* out) const {
  if (where == 0 || !quickNow()) return false;
  switch (quick_) {
    case Quick::node4: return quickReadAt<32 / 4, 29>(where, key, out);
    case Quick::node6: return quickReadAt<72 / 4, 67>(where, key, out);
    case Quick::value4: return quickReadAt<16 / 4, 13>(where, key, out);
    case Quick::value6: return quickReadAt<28 / 4, 25>(where, key, out);
    case Quick::bucket: return quickReadAt<128 / 4, 124>(where, key, out);
    case Quick::none: break;
  }
  return false;
}

// As readSlot, with the caller loading the words it wants in between.
bool SharedTableReader::readInPlace(U64 where, const InPlaceRead& read) const {
  if (where == 0 || !positionsNow()) return false;
  const Mapping& m = *map_;
  if (where > m.geometry().capacity) return false;
  bool answer = false;
  const auto look = [&](const U32* words, U32) { answer = read(RecordWords(words)); };
  return readUnderSequence(m, where - 1, m.geometry().stride / 4, look) == SlotRead::ok && answer;
}

bool SharedTableReader::iterFrom(const U8* key, U64& hint, U8* out) const {
  U32 words[maxStride / 4];
  if (!lookup(key, words, hint)) return false;
  std::memcpy(out, words, layout_.recordSize);
  return true;
}

void SharedTableReader::refuse() { throw AccessException("invalid attempt to write scratchpad as reader"); }

// A broken pass is damage only when it repeats with the update counter
// unchanged across it, and even (or the update open only because a writer
// died in it, which is read around); otherwise the reader waits for the
// writer and tries again.
bool SharedTableReader::lookup(const U8* key, U32* words, U64& slot) const {
  const U64 hash = keys_.hash(key);
  // The common case costs one pass and nothing else: a settled answer from
  // a table that is not being read around.
  if (const Mapping& m = newestMapping(); !readingAround(m)) [[likely]] {
    const Probe p = probe(m, keys_, key, hash, words, false);
    if (p.outcome == Outcome::found) {
      slot = p.slot;
      return true;
    }
    if (p.outcome == Outcome::absent) return false;
  }
  Patience patience(deadlineFor(newestMapping()));
  for (;;) {
    const Mapping& m = newestMapping();
    const bool around = readingAround(m);
    if (around) {
      if (const int entry = journaled(m, key, words); entry >= 0) {
        slot = m.geometry().capacity + U64(entry);
        return journaledPresent(m, entry);
      }
    }
    Probe p = probe(m, keys_, key, hash, words, around);
    bool settled = true;
    if (p.outcome == Outcome::broken) {
      const U64 before = loadAcquire(m.header().updateCounter);
      p = probe(m, keys_, key, hash, words, around);
      std::atomic_thread_fence(std::memory_order_acquire);
      settled = (!(before & 1) || around) && loadRelaxed(m.header().updateCounter) == before;
    }
    if (p.outcome == Outcome::found) {
      slot = p.slot;
      return true;
    }
    if (p.outcome == Outcome::absent) return false;
    if ((p.outcome == Outcome::unsettled || !settled) && patience.wait(m)) continue;
    if (patience.gone() && !around && startReadingAround(m)) continue;
    if (patience.stuck()) stuck(m, p.slot);
    if (p.outcome == Outcome::unsettled) throw CorruptionException(halfWrittenMessage(path_, p.slot));
    throwDamage(path_, p.problem, p.position, p.slot, m.geometry());
  }
}

// Until the writer has put the new file in place, the name still leads to
// the current one and the reader stays.
void SharedTableReader::followSuccessor() const {
  try {
    const int fd = dir_.openFile(base_, O_RDONLY, "open {} for reading", false);
    if (fd < 0) return;
    struct stat st {};
    if (fstat(fd, &st) != 0 || map_->sameFile(st)) {
      close(fd);
      return;
    }
    map_ = Mapping::attach(fd, path_, layout_, false);
  } catch (const SharedFileException& e) {
    throw CorruptionException(e.what());
  }
  openByGone_ = 0;
  startReadingAround(*map_);
}

}  // namespace Depot::sharedfile
