#pragma once
// Reading a shared table without a lock: slot copies under sequence words,
// and the part of a table that its readers and its writer share.
//
// A slot is the record's bytes followed by its sequence word (busy, live and
// a version; SharedTableFile.h). What a reader may assume: a copy taken
// between two equal reads of the word, neither of them busy, is a whole
// record as the writer left it. What the writer guarantees, in this order:
// it sets busy, stores the record's words, then stores the word with busy
// clear and the version advanced (a release store). A slot that stays busy
// belongs to a writer that stopped; Patience tells how long to wait for it.
//
// An update that a writer left open when it died (odd update counter, no
// writer alive) is read around: the journal's before-images answer for the
// keys it changed, slots it was writing are passed over, and the counter
// reads as it was before the update, so that readers see the last complete
// update at once. The next writer makes the same undo permanent.
#include <fmt/format.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Basis/Debug.h"
#include "Depot/SharedTableIndex.h"

// Hidden from the library that links Depot in: calls between these files
// bind inside it, so they are direct and may be inlined.
#pragma GCC visibility push(hidden)
namespace Depot::sharedfile {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// A reader's wait for the writer to finish what it is doing: a few spins,
// then yields, then sleeps that grow to a millisecond, so that a writer that
// stopped costs its readers no CPU. wait() is false once the writer is gone
// (gone(): the process the header names has ended, or the writer closed the
// table; what the table holds is then final, but for an update it left
// open) or has kept the reader waiting past the deadline (stuck()). A newer
// generation announced by a writer that is gone gets a few more rounds, in
// which the caller follows it if it was put in place; a header that
// announces one that never comes cannot hold a reader.
class Patience {
 public:
  explicit Patience(U32 stuckAfterMs) : stuckAfterMs_(stuckAfterMs) {}
  bool wait(const Mapping& m) {
    if (++spins_ < 64) {
      cpuRelax();
      return true;
    }
    if (spins_ < 128) {
      sched_yield();
      return true;
    }
    if (spins_ == 128) since_ = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::microseconds(std::min<U64>(spins_ - 127, 1000)));
    if (!m.writerAttached()) {
      // One more look first: the writer may have finished what the caller
      // saw it doing before it went.
      if (!gone_) return gone_ = true;
      return loadRelaxed(m.header().successor) != 0 && ++goneRounds_ < 64;
    }
    stuck_ = std::chrono::steady_clock::now() - since_ > std::chrono::milliseconds(stuckAfterMs_);
    return !stuck_;
  }
  bool gone() const { return gone_; }
  bool stuck() const { return stuck_; }

 private:
  U32 stuckAfterMs_;
  U64 spins_ = 0;
  U32 goneRounds_ = 0;
  bool gone_ = false;
  bool stuck_ = false;
  std::chrono::steady_clock::time_point since_;
};

enum class SlotRead { ok, busy, free };

// Runs read(words, sequence) on the slot's words between two reads of its
// sequence word: `ok` only when the slot held a whole, live record that did
// not change meanwhile. `read` loads each word whole (relaxed).
template <class Read>
inline SlotRead readUnderSequence(const Mapping& m, U64 slot, U32 n, Read&& read) {
  const U32* p = reinterpret_cast<const U32*>(m.slot(slot));
  const U32 before = loadAcquire(p[n - 1]);
  if (before & seqBusy) return SlotRead::busy;
  if (!(before & seqLive)) return SlotRead::free;
  read(p, before);
  std::atomic_thread_fence(std::memory_order_acquire);
  if (loadRelaxed(p[n - 1]) != before) return SlotRead::busy;
  return SlotRead::ok;
}

// Copies slot into words under its sequence word. Words: the slot's 4-byte
// words when known at compile time (the copy is then unrolled), 0 to read
// them from the geometry.
template <U32 Words = 0>
inline SlotRead readSlot(const Mapping& m, U64 slot, U32* words) {
  const U32 n = Words ? Words : m.geometry().stride / 4;
  return readUnderSequence(m, slot, n, [&](const U32* p, U32 sequence) {
    for (U32 w = 0; w + 1 < n; ++w) words[w] = loadRelaxed(p[w]);
    words[n - 1] = sequence;
  });
}

inline U64 highWaterNow(const Mapping& m) {
  return std::min(loadAcquire(m.header().highWater), m.geometry().capacity);
}

inline std::string halfWrittenMessage(const std::string& path, U64 slot) {
  return fmt::format("{}: slot {} was left half-written by a writer that stopped", path, slot);
}

[[noreturn]] void throwStuck(const Mapping& m, const std::string& path, U64 slot, U32 stuckAfterMs);

// What a reader and the writer of a table do alike: iterate the slots in
// their order and tell the table's counts. Self::newest() is the mapping to
// read, called on every step: a reader moves to a newer generation there,
// the writer's own mapping is always the newest.
template <class Self>
class SharedTableBase : public SharedTable {
 public:
  const RecordLayout& layout() const final { return layout_; }
  const std::string& rootPath() const final { return path_; }

  void prefetch(const U8* key) const final {
    const Mapping& m = *map_;
    __builtin_prefetch(&m.indexEntry(homeEntry(keys_.hash(key), m.geometry().indexEntries)));
  }
  // The first entry of the probe sequence whose tag matches names the slot
  // to fetch; a few entries suffice, the lookup itself goes on from there.
  U64 prefetchRecord(const U8* key) const final {
    const Mapping& m = *map_;
    const Geometry& g = m.geometry();
    const U64 hash = keys_.hash(key);
    const U32 slotMask = slotMaskOf(g);
    const U32 tag = tagOf(g, hash);
    U64 pos = homeEntry(hash, g.indexEntries);
    for (U32 n = 0; n < 8; ++n, pos = nextPosition(g, pos)) {
      const U32 e = loadRelaxed(m.indexEntry(pos));
      if (e == 0) return 0;
      if ((e & ~slotMask) != tag || (e & slotMask) == 0 || (e & slotMask) > g.capacity) continue;
      const U8* slot = m.slot((e & slotMask) - 1);
      __builtin_prefetch(slot);
      // A record that straddles two cache lines needs both.
      __builtin_prefetch(slot + g.stride - 1);
      return e & slotMask;
    }
    return 0;
  }

  void prefetchSlot(U64 where) const final {
    const Mapping& m = *map_;
    if (where == 0 || where > m.geometry().capacity) return;
    const U8* slot = m.slot(where - 1);
    __builtin_prefetch(slot);
    __builtin_prefetch(slot + m.geometry().stride - 1);
  }

  // A whole iteration starts by looking for an update left open by a
  // writer that is gone, as consistent readers do at every query through
  // updateCounter(); other reads find one when they meet a slot it left busy.
  bool iterFirst(U64& hint, U8* out) const final {
    if (const Mapping& m = newest(); !readingAround(m)) startReadingAround(m);
    return scan(0, hint, out);
  }
  bool iterNext(U64& hint, U8* out) const final { return scan(hint + 1, hint, out); }

  void reportCorruption(std::string_view message) final {
    ++corruptionCount_;
    Basis::debugHandler("DepotShared").logf(0, "corruption in {}: {}", path_, message);
  }
  U64 corruptionCount() const final { return corruptionCount_; }

  U64 occupancy() const final { return loadRelaxed(newest().header().occupancy); }
  U64 capacity() const final { return newest().geometry().capacity; }
  U64 bytes() const final {
    const Mapping& m = newest();
    return m.geometry().slotsOffset + highWaterNow(m) * m.geometry().stride;
  }
  U64 generation() const final { return newest().generation(); }
  U64 updateCounter() const override { return loadAcquire(newest().header().updateCounter); }
  SharedTableStats stats() const final {
    const Mapping& m = newest();
    const Geometry& g = m.geometry();
    return {.generation = m.generation(),
            .capacity = g.capacity,
            .occupancy = loadRelaxed(m.header().occupancy),
            .highWater = highWaterNow(m),
            .indexEntries = g.indexEntries,
            .tombstones = loadRelaxed(m.header().tombstones),
            .fileBytes = g.fileSize,
            .residentBytes = m.residentBytes(),
            .updateCounter = loadAcquire(m.header().updateCounter),
            .writerPid = loadAcquire(m.header().writerPid),
            .writerAlive = m.writerAttached()};
  }

 protected:
  SharedTableBase(const RecordLayout& layout, std::string path, std::unique_ptr<Mapping> m)
      : layout_(layout), path_(std::move(path)), keys_(layout), map_(std::move(m)) {}

  const Mapping& newest() const { return static_cast<const Self&>(*this).newestMapping(); }

  // Reading around an update left open by a writer that is gone (see the top
  // of this file). Only a reader ever starts it; the writer's openByGone_
  // stays 0.
  bool startReadingAround(const Mapping& m) const {
    if constexpr (!Self::readsAround) return false;
    const U64 counter = loadAcquire(m.header().updateCounter);
    const U32 entries = loadAcquire(m.header().journalCount);
    if (!(counter & 1) || entries > journalEntries || m.writerAttached()) return false;
    // Only a journal whose every entry is intact and of this update is read.
    U8 record[maxStride];
    for (U32 i = 0; i < entries; ++i) {
      std::memcpy(record, m.journalRecord(i), layout_.recordSize);
      const U32 flags = loadRelaxed(m.journalFlags(i));
      if (loadRelaxed(m.journalCheck(i)) != journalChecksum(counter, i, flags, record, layout_.recordSize)) return false;
    }
    openByGone_ = counter;
    return true;
  }
  bool readingAround(const Mapping& m) const {
    if (openByGone_ == 0) [[likely]]
      return false;
    if (loadAcquire(m.header().updateCounter) == openByGone_) return true;
    openByGone_ = 0;  // a new writer has taken the table over
    return false;
  }
  // The journal entry of key, its record copied into words; -1 when the
  // open update did not change key.
  int journaled(const Mapping& m, const U8* key, U32* words) const {
    const U32 n = std::min(loadAcquire(m.header().journalCount), journalEntries);
    for (U32 i = 0; i < n; ++i) {
      const U32* p = reinterpret_cast<const U32*>(m.journalRecord(i));
      for (U32 w = 0; w < (layout_.recordSize + 3) / 4; ++w) words[w] = loadRelaxed(p[w]);
      if (keys_.same(keys_.of(reinterpret_cast<const U8*>(words)), key)) return int(i);
    }
    return -1;
  }
  bool journaledPresent(const Mapping& m, int entry) const {
    return loadRelaxed(m.journalFlags(U32(entry))) & journalPresent;
  }

  RecordLayout layout_;
  std::string path_;
  Keys keys_;
  mutable std::unique_ptr<Mapping> map_;
  mutable U64 openByGone_ = 0;
  U32 stuckAfterMs_ = 5000;
  // The update counter under which the writer was last found stuck: while it
  // stays, later reads give up at once rather than wait the deadline again.
  mutable std::optional<U64> stuckAt_;
  U32 deadlineFor(const Mapping& m) const {
    return stuckAt_ && *stuckAt_ == loadAcquire(m.header().updateCounter) ? 0 : stuckAfterMs_;
  }
  [[noreturn]] void stuck(const Mapping& m, U64 slot) const {
    stuckAt_ = loadAcquire(m.header().updateCounter);
    throwStuck(m, path_, slot, stuckAfterMs_);
  }

 private:
  // Slots in order; while reading around an open update, the slots of the
  // keys it changed give way to their journal entries, which follow the
  // slots at positions capacity + entry.
  bool scan(U64 from, U64& hint, U8* out) const {
    U32 words[maxStride / 4], saved[maxStride / 4];
    Patience patience(deadlineFor(newest()));
    for (U64 slot = from;;) {
      const Mapping& m = newest();
      const bool around = readingAround(m);
      if (slot >= highWaterNow(m)) {
        const U64 cap = m.geometry().capacity;
        for (U32 i = U32(slot > cap ? slot - cap : 0); around && i < journalEntries; ++i) {
          if (i >= std::min(loadAcquire(m.header().journalCount), journalEntries)) break;
          if (!journaledPresent(m, int(i))) continue;
          std::memcpy(out, m.journalRecord(i), layout_.recordSize);
          hint = cap + i;
          return true;
        }
        hint = std::max(slot, around ? cap + journalEntries : slot);
        return false;
      }
      switch (readSlot(m, slot, words)) {
        case SlotRead::ok:
          if (around && journaled(m, keys_.of(reinterpret_cast<const U8*>(words)), saved) >= 0) {
            ++slot;
            break;
          }
          std::memcpy(out, words, layout_.recordSize);
          hint = slot;
          return true;
        case SlotRead::free: ++slot; break;
        case SlotRead::busy:
          if (around) ++slot;
          else if (patience.wait(m)) break;
          else if (patience.gone() && startReadingAround(m)) break;
          else if (patience.stuck()) stuck(m, slot);
          else throw CorruptionException(halfWrittenMessage(path_, slot));
          break;
      }
    }
  }

  U64 corruptionCount_ = 0;
};

// A table mapped read-only. Lookups follow the generations to the newest on
// every call, through the directory checked when the table was opened;
// every write raises AccessException.
class SharedTableReader final : public SharedTableBase<SharedTableReader> {
 public:
  static constexpr bool readsAround = true;
  SharedTableReader(const RecordLayout& layout, std::string path, Directory dir, std::string base,
                    std::unique_ptr<Mapping> m, U32 stuckAfterMs)
      : SharedTableBase(layout, std::move(path), std::move(m)), dir_(std::move(dir)), base_(std::move(base)) {
    stuckAfterMs_ = stuckAfterMs;
    startReadingAround(*map_);
    const auto is = [&](U32 keyOffset, U32 keySize, U32 recordSize, U32 stride) {
      return layout.keyOffset == keyOffset && layout.keySize == keySize && layout.recordSize == recordSize &&
             strideFor(layout) == stride;
    };
    quick_ = is(4, 5, 29, 32)    ? Quick::node4
             : is(16, 17, 67, 72) ? Quick::node6
             : is(0, 5, 13, 16)   ? Quick::value4
             : is(0, 17, 25, 28)  ? Quick::value6
             : is(0, 4, 124, 128) ? Quick::bucket
                                  : Quick::none;
  }

  bool isWriter() const override { return false; }
  // Around an update left open by a writer that is gone, the counter as it
  // was before that update.
  U64 updateCounter() const override;
  bool find(const U8* key, U8* out) const override;
  bool readAt(U64 where, const U8* key, U8* out) const override;
  bool readInPlace(U64 where, const InPlaceRead& read) const override;
  bool iterFrom(const U8* key, U64& hint, U8* out) const override;

  void write(const U8*) override { refuse(); }
  bool remove(const U8*, U8*) override { refuse(); }
  U8* inPlace(const U8*) override { refuse(); }
  void commit(const U8*) override { refuse(); }
  void updateBegin() override { refuse(); }
  void updateEnd() override { refuse(); }
  void updateAbort() override { refuse(); }

 private:
  friend class SharedTableBase<SharedTableReader>;
  const Mapping& newestMapping() const {
    if (loadRelaxed(map_->header().successor) != 0) [[unlikely]]
      followSuccessor();
    return *map_;
  }
  [[noreturn]] static void refuse();
  void followSuccessor() const;
  bool lookup(const U8* key, U32* words, U64& slot) const;
  // The layouts whose lookups have a path of their own, with their sizes
  // built in: the trie's nodes, the route table's values and its value
  // cache's buckets.
  enum class Quick { none, node4, node6, value4, value6, bucket };
  Quick quick_ = Quick::none;
  // Whether reads by position (readAt, readInPlace) and find's own paths
  // may answer: not around an update a gone writer left open, nor once a
  // newer generation exists.
  bool positionsNow() const { return openByGone_ == 0 && loadRelaxed(map_->header().successor) == 0; }
  bool quickNow() const { return quick_ != Quick::none && positionsNow(); }
  template <U32 Words, U32 KeySize, U32 RecordSize>
  int quickFind(const U8* key, U8* out) const;
  template <U32 Words, U32 RecordSize>
  bool quickReadAt(U64 where, const U8* key, U8* out) const;
  // The open update the counter last showed, and since when.
  mutable U64 openSeen_ = 0;
  mutable std::chrono::steady_clock::time_point openSince_;
  Directory dir_;
  std::string base_;
};

}  // namespace Depot::sharedfile
#pragma GCC visibility pop
