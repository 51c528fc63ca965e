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
#include <fmt/format.h>
#include <sched.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "Basis/Debug.h"
#include "Depot/SharedTableIndex.h"

// Hidden from the library that links Depot in: calls between these files
// bind inside it, so they are direct and may be inlined.
#pragma GCC visibility push(hidden)
namespace Depot::sharedfile {

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// A reader's wait for the writer to finish what it is doing. wait() is false
// once the writer is gone (the process the header names has ended, or the
// writer closed the table): what the table holds then is final. A newer generation announced by a writer that is gone
// gets a few more rounds, in which the caller follows it if it was put in
// place; a header that announces one that never comes cannot hold a reader.
class Patience {
 public:
  bool wait(const Mapping& m) {
    if (++spins_ < 64) {
      cpuRelax();
      return true;
    }
    sched_yield();
    if (spins_ % 128 != 0 || m.writerAttached()) return true;
    return loadRelaxed(m.header().successor) != 0 && spins_ < 1024;
  }

 private:
  U64 spins_ = 0;
};

enum class SlotRead { ok, busy, free };

// Copies slot into words under its sequence word: `ok` only for a whole,
// unchanged record.
inline SlotRead readSlot(const Mapping& m, U64 slot, U32* words) {
  const U32 n = m.geometry().stride / 4;
  const U32* p = reinterpret_cast<const U32*>(m.slot(slot));
  U32 before = loadAcquire(p[n - 1]);
  if (before & seqBusy) return SlotRead::busy;
  if (!(before & seqLive)) return SlotRead::free;
  for (U32 w = 0; w + 1 < n; ++w) words[w] = loadRelaxed(p[w]);
  std::atomic_thread_fence(std::memory_order_acquire);
  if (loadRelaxed(p[n - 1]) != before) return SlotRead::busy;
  words[n - 1] = before;
  return SlotRead::ok;
}

inline U64 highWaterNow(const Mapping& m) {
  return std::min(loadAcquire(m.header().highWater), m.geometry().capacity);
}

inline std::string halfWrittenMessage(const std::string& path, U64 slot) {
  return fmt::format("{}: slot {} was left half-written by a writer that stopped", path, slot);
}

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

  bool iterFirst(U64& hint, U8* out) const final { return scan(0, hint, out); }
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
  U64 updateCounter() const final { return loadAcquire(newest().header().updateCounter); }
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
            .updateCounter = loadAcquire(m.header().updateCounter)};
  }

 protected:
  SharedTableBase(const RecordLayout& layout, std::string path, std::unique_ptr<Mapping> m)
      : layout_(layout), path_(std::move(path)), keys_(layout), map_(std::move(m)) {}

  const Mapping& newest() const { return static_cast<const Self&>(*this).newestMapping(); }

  RecordLayout layout_;
  std::string path_;
  Keys keys_;
  mutable std::unique_ptr<Mapping> map_;

 private:
  bool scan(U64 from, U64& hint, U8* out) const {
    U32 words[maxStride / 4];
    Patience patience;
    for (U64 slot = from;;) {
      const Mapping& m = newest();
      if (slot >= highWaterNow(m)) {
        hint = slot;
        return false;
      }
      switch (readSlot(m, slot, words)) {
        case SlotRead::ok:
          std::memcpy(out, words, layout_.recordSize);
          hint = slot;
          return true;
        case SlotRead::free: ++slot; break;
        case SlotRead::busy:
          if (!patience.wait(m)) throw CorruptionException(halfWrittenMessage(path_, slot));
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
  SharedTableReader(const RecordLayout& layout, std::string path, Directory dir, std::string base,
                    std::unique_ptr<Mapping> m)
      : SharedTableBase(layout, std::move(path), std::move(m)), dir_(std::move(dir)), base_(std::move(base)) {}

  bool isWriter() const override { return false; }
  bool find(const U8* key, U8* out) const override;
  bool iterFrom(const U8* key, U64& hint, U8* out) const override;

  void write(const U8*) override { refuse(); }
  bool remove(const U8*, U8*) override { refuse(); }
  U8* inPlace(const U8*) override { refuse(); }
  void commit(const U8*) override { refuse(); }
  void updateBegin() override { refuse(); }
  void updateEnd() override { refuse(); }

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
  Directory dir_;
  std::string base_;
};

}  // namespace Depot::sharedfile
#pragma GCC visibility pop
