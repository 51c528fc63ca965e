#include "Depot/SharedTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <queue>
#include <utility>
#include <vector>

#include "Basis/Assert.h"
#include "Basis/Debug.h"
#include "Depot/SharedTableIndex.h"

namespace Depot {
namespace {

using namespace sharedfile;

constexpr const char* readerWriteMessage = "invalid attempt to write scratchpad as reader";
constexpr const char* sourcePath = "Depot/SharedTable.cpp";

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// Keeps the compiler from moving stores across it. A killed writer stops
// between two instructions and every store before that point reaches the
// shared file, so with the stores in program order the file shows a prefix
// of the writer's work, which recovery relies on.
inline void storeOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }

// A reader's wait for the writer to finish what it is doing. wait() is false
// once the writer is gone (nobody holds the writer lock): what the table
// holds then is final. A newer generation announced by a writer that is gone
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
enum class Outcome { found, absent, unsettled, broken };

// The result of one pass over a probe sequence.
struct Probe {
  Outcome outcome;
  U64 slot = 0;
  U64 position = 0;
  Problem problem = Problem::none;
};

void checkLayout(const RecordLayout& layout, const std::string& path) {
  if (layout.recordSize == 0 || layout.keySize == 0 || layout.keyOffset + layout.keySize > layout.recordSize ||
      strideFor(layout) > maxStride || layout.typeName.size() >= sizeof(Header::typeName))
    throw Basis::RangeException(fmt::format("{}: bad record layout for {}", path, layout.typeName));
}

class SharedTableImpl final : public SharedTable {
 public:
  SharedTableImpl(const RecordLayout& layout, std::string path, bool writer, const SharedTableOptions& options,
                  std::unique_ptr<Mapping> m)
      : layout_(layout), path_(std::move(path)), writer_(writer), options_(options), keys_(layout), map_(std::move(m)),
        scratch_(layout.recordSize) {
    if (writer_) {
      counter_ = loadRelaxed(map_->header().updateCounter) & ~U64(1);
      tombstones_ = countTombstones(*map_);
      rescan(std::min(loadRelaxed(map_->header().highWater), capacity()));
    }
  }

  ~SharedTableImpl() override {
    if (writer_) std::atomic_ref<U32>(map_->header().writerPid).store(0, std::memory_order_release);
  }

  // A writer that reopens the table finishes what a stopped one left. Inside
  // an update (odd counter) every change was journaled first: slots it was
  // changing go back to what they held, the index is rebuilt from the slots,
  // and the journal restores the records as they were before the update.
  // Outside one, a slot left half-written is damage and is dropped.
  void recover() {
    Header& h = map_->header();
    const bool interrupted = loadRelaxed(h.updateCounter) & 1;
    const U32 entries = loadRelaxed(h.journalCount);
    if (entries > journalEntries)
      throw SharedFileException(fmt::format("{}: damaged journal ({} entries)", path_, entries));
    // A rebuild carries the journal over.
    journalUsed_ = interrupted ? entries : 0;
    bool dropped = false;
    for (U64 s = 0, top = std::min(loadRelaxed(h.highWater), capacity()); s < top; ++s) {
      U32& seq = map_->seqWord(s);
      if (!(seq & seqBusy)) continue;
      if (!interrupted) {
        reportCorruption(fmt::format("dropped slot {}, left half-written by a writer that stopped", s));
        dropped = true;
      }
      storeRelease(seq, nextSeq(seq, interrupted ? seq & seqLive : 0));
    }
    if (interrupted || dropped) rebuild(geometryFor(layout_, capacity(), std::max(options_.maxEntries, capacity())));
    if (!interrupted) {
      if (entries != 0) storeRelease(map_->header().journalCount, 0);
      return;
    }
    std::vector<U8> record(layout_.recordSize);
    inBracket_ = recovering_ = true;
    for (U32 i = entries; i-- > 0;) {
      std::memcpy(record.data(), map_->journalRecord(i), layout_.recordSize);
      if (loadRelaxed(map_->journalFlags(i)) & journalPresent) write(record.data());
      else remove(record.data() + layout_.keyOffset, scratch_.data());
    }
    recovering_ = false;
    updateEnd();
  }

  const RecordLayout& layout() const override { return layout_; }
  const std::string& rootPath() const override { return path_; }
  bool isWriter() const override { return writer_; }

  bool find(const U8* key, U8* out) const override {
    if (writer_) {  // nobody else changes the table: no sequence words to check
      U64 slot;
      if (!slotOf(key, keys_.hash(key), slot)) return false;
      std::memcpy(out, map_->slot(slot), layout_.recordSize);
      return true;
    }
    U32 words[maxStride / 4];
    U64 slot;
    if (!lookup(key, words, slot)) return false;
    std::memcpy(out, words, layout_.recordSize);
    return true;
  }

  void prefetch(const U8* key) const override {
    const Mapping& m = *map_;
    __builtin_prefetch(&m.indexEntry(homeEntry(keys_.hash(key), m.geometry().indexEntries)));
  }

  void write(const U8* record) override {
    requireWriter();
    const U8* key = record + layout_.keyOffset;
    const U64 hash = keys_.hash(key);
    Spot s{true, 0, 0};
    if (!recentSlot(key, hash, s.slot)) {
      s = locate(key, hash);
      if (s.found) recentSlotIs(hash, s.slot);
    }
    if (s.found) {
      beginUpdate();
      journal(key, map_->slot(s.slot));
      writeSlot(s.slot, record);
      endUpdate();
      return;
    }
    const bool intoEmpty = loadRelaxed(map_->indexEntry(s.position)) == 0;
    if (occupancy_ == capacity() || (intoEmpty && occupancy_ + tombstones_ >= indexLimit(indexEntries()))) {
      grow();
      s = locate(key, hash);
    }
    const U64 slot = takeFreeSlot();
    map_->reserveSlots(slot + 1);
    beginUpdate();
    journal(key, nullptr);
    // The high-water mark covers the slot before it holds a record: a
    // writer that reopens the table looks at the slots below it.
    if (slot >= highWater_) {
      highWater_ = slot + 1;
      storeRelease(map_->header().highWater, highWater_);
      storeOrder();
    }
    writeSlot(slot, record);
    recentSlotIs(hash, slot);
    U32& entry = map_->indexEntry(s.position);
    tombstones_ -= loadRelaxed(entry) != 0;
    storeRelease(entry, entryFor(map_->geometry(), hash, slot));
    ++occupancy_;
    publishCounts();
    endUpdate();
  }

  bool remove(const U8* key, U8* removed) override {
    requireWriter();
    const Spot s = locate(key, keys_.hash(key));
    if (!s.found) return false;
    std::memcpy(removed, map_->slot(s.slot), layout_.recordSize);
    beginUpdate();
    journal(key, map_->slot(s.slot));
    deleteEntry(*map_, s.position, tombstones_);
    U32& seq = map_->seqWord(s.slot);
    storeRelease(seq, nextSeq(seq, 0));
    --occupancy_;
    freeSlots_.push(U32(s.slot));
    while (highWater_ > 0 && !(map_->seqWord(highWater_ - 1) & seqLive)) --highWater_;
    publishCounts();
    endUpdate();
    maybeShrink();
    return true;
  }

  // The writer changes a copy (the scratchpad) and commits it as one whole
  // change, so that readers never see it half-changed.
  U8* inPlace(const U8* key) override {
    requireWriter();
    const Spot s = locate(key, keys_.hash(key));
    if (!s.found) return nullptr;
    std::memcpy(scratch_.data(), map_->slot(s.slot), layout_.recordSize);
    scratchSlot_ = s.slot;
    scratchValid_ = true;
    return scratch_.data();
  }

  void commit(const U8* record) override {
    requireWriter();
    if (record != scratch_.data() || !scratchValid_)
      throw CorruptionException(fmt::format("{}: commit of a record that is not stored in place", path_));
    const U8* key = record + layout_.keyOffset;
    const Spot s = locate(key, keys_.hash(key));
    if (!s.found || s.slot != scratchSlot_)
      throw CorruptionException(fmt::format("{}: the record changed in place lost its slot before its commit", path_));
    beginUpdate();
    journal(key, map_->slot(s.slot));
    writeSlot(s.slot, record);
    endUpdate();
  }

  bool iterFirst(U64& hint, U8* out) const override { return scan(0, hint, out); }
  bool iterFrom(const U8* key, U64& hint, U8* out) const override {
    if (writer_) {
      const Spot s = locate(key, keys_.hash(key));
      if (!s.found) return false;
      std::memcpy(out, map_->slot(s.slot), layout_.recordSize);
      hint = s.slot;
      return true;
    }
    U32 words[maxStride / 4];
    if (!lookup(key, words, hint)) return false;
    std::memcpy(out, words, layout_.recordSize);
    return true;
  }
  bool iterNext(U64& hint, U8* out) const override { return scan(hint + 1, hint, out); }

  void reportCorruption(std::string_view message) override {
    ++corruptionCount_;
    Basis::debugHandler("DepotShared").logf(0, "corruption in {}: {}", path_, message);
  }
  U64 corruptionCount() const override { return corruptionCount_; }

  U64 occupancy() const override {
    followSuccessor();
    return loadRelaxed(map_->header().occupancy);
  }
  U64 capacity() const override {
    followSuccessor();
    return map_->geometry().capacity;
  }
  U64 bytes() const override {
    followSuccessor();
    const Geometry& g = map_->geometry();
    return g.slotsOffset + highWaterNow(*map_) * g.stride;
  }

  U64 generation() const override {
    followSuccessor();
    return map_->generation();
  }
  U64 updateCounter() const override {
    followSuccessor();
    return loadAcquire(map_->header().updateCounter);
  }
  void updateBegin() override {
    requireWriter();
    BASIS_ASSERT(!inBracket_, sourcePath);
    beginUpdate();
    inBracket_ = true;
  }
  void updateEnd() override {
    requireWriter();
    BASIS_ASSERT(inBracket_, sourcePath);
    inBracket_ = false;
    endUpdate();
  }
  SharedTableStats stats() const override {
    followSuccessor();
    const Mapping& m = *map_;
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

 private:
  void requireWriter() const {
    if (!writer_) throw AccessException(readerWriteMessage);
  }

  U64 indexEntries() const { return map_->geometry().indexEntries; }

  static U64 highWaterNow(const Mapping& m) {
    return std::min(loadAcquire(m.header().highWater), m.geometry().capacity);
  }

  // The sequence word after a change that leaves the slot live (seqLive) or
  // free (0); the low byte is kept.
  static U32 nextSeq(U32 old, U32 live) { return ((old & seqVersionMask) + seqVersionStep) | live | (old & 0xFFu); }

  // ---- Reading (readers) ----

  // Copies slot into words under its sequence word: `ok` only for a whole,
  // unchanged record.
  static SlotRead readSlot(const Mapping& m, U64 slot, U32* words) {
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

  // One pass over the key's probe sequence. Entries do not move and records
  // keep their slots while a generation lives, so a key present throughout
  // the pass is found. A pass that meets a slot being changed is unsettled;
  // one that meets what no consistent table holds is broken (or raced with
  // the writer: the caller tells which).
  Probe probe(const Mapping& m, const U8* key, U64 hash, U32* words) const {
    const Geometry& g = m.geometry();
    const U32 slotMask = (U32(1) << g.slotBits) - 1;
    const U32 tag = tagOf(g, hash);
    const U32 tombstone = tombstoneEntry(g.slotBits);
    U64 pos = homeEntry(hash, g.indexEntries);
    for (U64 n = 0; n < g.indexEntries;) {
      const U32 e = loadAcquire(m.indexEntry(pos));
      if (e == 0) return {Outcome::absent, 0, pos};
      if (e != tombstone && (e & ~slotMask) == tag) {
        const U64 slot = U64(e & slotMask) - 1;
        if ((e & slotMask) == 0 || slot >= g.capacity) return {Outcome::broken, slot, pos, Problem::slotOutside};
        switch (readSlot(m, slot, words)) {
          case SlotRead::busy: return {Outcome::unsettled, slot, pos};
          case SlotRead::free:
            // The key was removed after the entry was read: look again.
            if (loadAcquire(m.indexEntry(pos)) != e) continue;
            return {Outcome::broken, slot, pos, Problem::freeSlot};
          case SlotRead::ok:
            if (keys_.same(reinterpret_cast<const U8*>(words) + layout_.keyOffset, key))
              return {Outcome::found, slot, pos};
            break;
        }
      }
      ++n;
      pos = pos + 1 == g.indexEntries ? 0 : pos + 1;
    }
    return {Outcome::broken, 0, pos, Problem::endless};
  }

  // A broken pass is damage only when it repeats with the update counter
  // even and unchanged across it; otherwise the reader waits for the writer
  // and tries again.
  bool lookup(const U8* key, U32* words, U64& slot) const {
    const U64 hash = keys_.hash(key);
    Patience patience;
    for (;;) {
      followSuccessor();
      const Mapping& m = *map_;
      Probe p = probe(m, key, hash, words);
      bool settled = true;
      if (p.outcome == Outcome::broken) {
        const U64 before = loadAcquire(m.header().updateCounter);
        p = probe(m, key, hash, words);
        std::atomic_thread_fence(std::memory_order_acquire);
        settled = !(before & 1) && loadRelaxed(m.header().updateCounter) == before;
      }
      if (p.outcome == Outcome::found) {
        slot = p.slot;
        return true;
      }
      if (p.outcome == Outcome::absent) return false;
      if ((p.outcome == Outcome::unsettled || !settled) && patience.wait(m)) continue;
      if (p.outcome == Outcome::unsettled)
        throw CorruptionException(
            fmt::format("{}: slot {} was left half-written by a writer that stopped", path_, p.slot));
      throwDamage(path_, p.problem, p.position, p.slot, m.geometry());
    }
  }

  bool scan(U64 from, U64& hint, U8* out) const {
    U32 words[maxStride / 4];
    Patience patience;
    for (U64 slot = from;;) {
      followSuccessor();
      const Mapping& m = *map_;
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
          if (!patience.wait(m))
            throw CorruptionException(
                fmt::format("{}: slot {} was left half-written by a writer that stopped", path_, slot));
          break;
      }
    }
  }

  // A reader moves to the newest generation once its mapping is superseded.
  // Until the writer has put the new file in place, the name still leads to
  // the current one and the reader stays.
  void followSuccessor() const {
    if (writer_ || loadRelaxed(map_->header().successor) == 0) return;
    int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st {};
    if (fstat(fd, &st) != 0 || map_->sameFile(st)) {
      close(fd);
      return;
    }
    try {
      map_ = Mapping::attach(fd, path_, layout_, false);
    } catch (const SharedFileException& e) {
      throw CorruptionException(e.what());
    }
  }

  // ---- Writing (writer only) ----

  // The slot of a key the writer met lately, from a small cache by hash:
  // slot + 1 with the hash's high half as a tag, so that a key missing from
  // the cache rarely costs a look at a slot. A cached slot counts only while
  // it still holds the key, so the cache needs no upkeep: slots keep their
  // numbers in every generation.
  bool recentSlot(const U8* key, U64 hash, U64& slot) const {
    const U64 cached = recent_[hash % recentSize];
    if (cached >> 32 != hash >> 32 || U32(cached) == 0 || U32(cached) > highWater_) return false;
    slot = U32(cached) - 1;
    return (map_->seqWord(slot) & seqLive) && keys_.same(map_->slot(slot) + layout_.keyOffset, key);
  }
  void recentSlotIs(U64 hash, U64 slot) const { recent_[hash % recentSize] = (hash >> 32 << 32) | (slot + 1); }
  bool slotOf(const U8* key, U64 hash, U64& slot) const {
    if (recentSlot(key, hash, slot)) return true;
    const Spot s = locate(key, hash);
    if (!s.found) return false;
    recentSlotIs(hash, s.slot);
    slot = s.slot;
    return true;
  }

  Spot locate(const U8* key, U64 hash) const { return sharedfile::locate(*map_, keys_, key, hash, path_); }

  void beginUpdate() {
    if (inBracket_) return;
    storeRelaxed(map_->header().updateCounter, counter_ + 1);
    std::atomic_thread_fence(std::memory_order_release);
  }
  // The counter goes even before the journal empties: a writer stopped in
  // between leaves a complete update and a journal that the next one drops.
  void endUpdate() {
    if (inBracket_) return;
    counter_ += 2;
    storeRelease(map_->header().updateCounter, counter_);
    storeOrder();
    if (journalUsed_ == 0) return;
    journalUsed_ = 0;
    storeRelease(map_->header().journalCount, 0);
  }
  void publishCounts() {
    storeRelaxed(map_->header().occupancy, occupancy_);
    storeRelaxed(map_->header().tombstones, tombstones_);
    storeRelease(map_->header().highWater, highWater_);
  }

  // Saves the record under key as it was before this update (old, or
  // nothing) the first time the update changes it. The entry is complete
  // before the count takes it in, and the count is raised before the table
  // changes.
  void journal(const U8* key, const U8* old) {
    if (recovering_) return;
    for (U32 i = 0; i < journalUsed_; ++i)
      if (keys_.same(map_->journalRecord(i) + layout_.keyOffset, key)) return;
    BASIS_ASSERT_TEXT(journalUsed_ < journalEntries, "journalUsed_ < journalEntries && \"update too large\"",
                      sourcePath, __PRETTY_FUNCTION__);
    U8* entry = map_->journalRecord(journalUsed_);
    if (old) {
      std::memcpy(entry, old, layout_.recordSize);
    } else {
      std::memset(entry, 0, layout_.recordSize);
      std::memcpy(entry + layout_.keyOffset, key, layout_.keySize);
    }
    map_->journalFlags(journalUsed_) = old ? journalPresent : 0;
    storeOrder();
    storeRelease(map_->header().journalCount, ++journalUsed_);
    storeOrder();
  }

  void writeSlot(U64 slot, const U8* record) {
    const U32 n = map_->geometry().stride / 4;
    U32* p = reinterpret_cast<U32*>(map_->slot(slot));
    const U32 old = loadRelaxed(p[n - 1]);
    storeRelaxed(p[n - 1], old | seqBusy);
    std::atomic_thread_fence(std::memory_order_release);
    U32 words[maxStride / 4];
    for (U32 w = layout_.recordSize / 4; w < n; ++w) words[w] = 0;
    std::memcpy(words, record, layout_.recordSize);
    for (U32 w = 0; w + 1 < n; ++w) storeRelaxed(p[w], words[w]);
    storeRelease(p[n - 1], nextSeq((old & ~0xFFu) | (words[n - 1] & 0xFFu), seqLive));
  }

  // Lowest free slot first, so that records stay packed at the start of the
  // slot area (the memory behind the rest is never touched) and the table
  // can shrink.
  U64 takeFreeSlot() {
    while (!freeSlots_.empty()) {
      U64 s = freeSlots_.top();
      freeSlots_.pop();
      if (s < highWater_ && !(map_->seqWord(s) & seqLive)) return s;
    }
    return highWater_;
  }

  // Recomputes the writer's slot counts and free slots from the mapping.
  void rescan(U64 top) {
    highWater_ = top;
    while (highWater_ > 0 && !(map_->seqWord(highWater_ - 1) & seqLive)) --highWater_;
    occupancy_ = 0;
    freeSlots_ = {};
    for (U64 s = 0; s < highWater_; ++s) {
      if (map_->seqWord(s) & seqLive) ++occupancy_;
      else freeSlots_.push(U32(s));
    }
    publishCounts();
  }

  // A table that is full, or whose index is full of tombstones, is rebuilt
  // with room for half as many records again.
  void grow() {
    const U64 wanted = std::max(loadRelaxed(map_->header().minCapacity),
                                (occupancy_ + 1) * growNumerator / growDenominator + 1);
    const Geometry g = geometryFor(layout_, std::max(wanted, highWater_), options_.maxEntries);
    if (g.capacity <= occupancy_ || g.capacity < highWater_) throw TableFullException(occupancy_, capacity(), path_);
    rebuild(g);
  }

  void maybeShrink() {
    const U64 cap = capacity();
    const U64 floor = loadRelaxed(map_->header().minCapacity);
    if (occupancy_ * 8 >= cap || highWater_ * 2 > cap || cap <= floor) return;
    Geometry g = geometryFor(layout_, std::max({floor, occupancy_ * 2, highWater_}), options_.maxEntries);
    if (g.capacity * 2 > cap) return;
    try {
      rebuild(g);
    } catch (const Basis::Exception& e) {
      Basis::debugHandler("DepotShared").logf(0, "{}: not shrunk: {}", path_, e.what());
    }
  }

  // Builds the next generation of geometry g (holding every slot below the
  // high-water mark at the same number), publishes it with one store in the
  // current header and puts it in place under the table's name. An update
  // in progress carries over: its counter and journal go with it.
  void rebuild(const Geometry& g) {
    const U64 top = highWater_;
    const U64 gen = map_->generation() + 1;
    const std::string file = generationFileName(path_, gen);
    unlink(file.c_str());
    auto next = Mapping::create(file, layout_, g, loadRelaxed(map_->header().minCapacity), gen, options_.mode);
    try {
      next->copySlots(*map_, top);
    } catch (...) {
      unlink(file.c_str());
      throw;
    }
    const U64 kept = buildIndex(*next, keys_, top, occupancy_, [this](U64 slot) {
      reportCorruption(fmt::format("dropped slot {}, a second record under the key of another", slot));
    });
    Header& h = next->header();
    h.updateCounter = loadRelaxed(map_->header().updateCounter);
    h.journalCount = journalUsed_;
    for (U32 i = 0; i < journalUsed_; ++i) {
      next->journalFlags(i) = map_->journalFlags(i);
      std::memcpy(next->journalRecord(i), map_->journalRecord(i), layout_.recordSize);
    }
    h.occupancy = kept;
    h.highWater = top;
    storeRelease(map_->header().successor, gen);
    if (rename(file.c_str(), path_.c_str()) != 0) {
      int err = errno;
      storeRelease(map_->header().successor, 0);
      unlink(file.c_str());
      throw SharedFileException(fmt::format("cannot put generation {} in place of {}: {}", gen, path_, std::strerror(err)));
    }
    map_ = std::move(next);
    tombstones_ = 0;
    rescan(top);
  }

  RecordLayout layout_;
  std::string path_;
  bool writer_;
  SharedTableOptions options_;
  Keys keys_;
  mutable std::unique_ptr<Mapping> map_;
  U64 corruptionCount_ = 0;
  // Writer state, mirrored in the header for readers.
  U64 counter_ = 0;
  bool inBracket_ = false;
  bool recovering_ = false;
  U32 journalUsed_ = 0;
  U64 occupancy_ = 0;
  U64 highWater_ = 0;
  U64 tombstones_ = 0;
  std::priority_queue<U32, std::vector<U32>, std::greater<U32>> freeSlots_;
  static constexpr U64 recentSize = 4096;
  mutable std::vector<U64> recent_ = std::vector<U64>(writer_ ? recentSize : 0);
  std::vector<U8> scratch_;
  U64 scratchSlot_ = 0;
  bool scratchValid_ = false;
};

std::unique_ptr<Mapping> createFirstGeneration(const RecordLayout& layout, const std::string& path,
                                               const SharedTableOptions& options) {
  Geometry g = geometryFor(layout, options.capacity, options.maxEntries);
  std::string file = fmt::format("{}.new-{}", path, getpid());
  unlink(file.c_str());
  auto m = Mapping::create(file, layout, g, g.capacity, 1, options.mode);
  if (link(file.c_str(), path.c_str()) != 0) {
    int err = errno;
    unlink(file.c_str());
    if (err == EEXIST) return nullptr;
    throw SharedFileException(fmt::format("cannot create {}: {}", path, std::strerror(err)));
  }
  unlink(file.c_str());
  return m;
}

}  // namespace

std::unique_ptr<SharedTable> SharedTable::writerNew(const RecordLayout& layout, const std::string& path,
                                                    const SharedTableOptions& options) {
  checkLayout(layout, path);
  makeParentDirectories(path, options.mode);
  for (int attempt = 0; attempt < 100; ++attempt) {
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      if (errno != ENOENT) throw SharedFileException(openFailure(path, "writing", errno));
      if (auto m = createFirstGeneration(layout, path, options))
        return std::make_unique<SharedTableImpl>(layout, path, true, options, std::move(m));
      continue;
    }
    if (!takeWriterLock(fd)) {
      U32 pid = recordedWriterPid(fd);
      close(fd);
      throw WriterBusyException(pid ? fmt::format("{} already has a writer (pid {})", path, pid)
                                    : fmt::format("{} already has a writer", path));
    }
    struct stat named {}, opened {};
    if (stat(path.c_str(), &named) != 0 || fstat(fd, &opened) != 0 || named.st_ino != opened.st_ino ||
        named.st_dev != opened.st_dev) {
      close(fd);
      continue;
    }
    auto m = Mapping::attach(fd, path, layout, true);
    // A writer that stopped between publishing a generation and putting it
    // in place left it complete under its generation name.
    if (U64 successor = loadAcquire(m->header().successor)) {
      std::string next = generationFileName(path, successor);
      if (rename(next.c_str(), path.c_str()) == 0) continue;
      storeRelease(m->header().successor, 0);
    }
    for (const std::string& f : leftoverFiles(path)) unlink(f.c_str());
    std::atomic_ref<U32>(m->header().writerPid).store(U32(getpid()), std::memory_order_release);
    auto table = std::make_unique<SharedTableImpl>(layout, path, true, options, std::move(m));
    table->recover();
    return table;
  }
  throw SharedFileException(fmt::format("{} keeps changing while it is being opened", path));
}

std::unique_ptr<SharedTable> SharedTable::readerNew(const RecordLayout& layout, const std::string& path) {
  checkLayout(layout, path);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SharedFileException(openFailure(path, "reading", errno));
  return std::make_unique<SharedTableImpl>(layout, path, false, SharedTableOptions{},
                                           Mapping::attach(fd, path, layout, false));
}

bool sharedTableExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void sharedTableDrop(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    bool held = writerLockHeld(fd);
    U32 pid = held ? recordedWriterPid(fd) : 0;
    close(fd);
    if (held) throw SharedFileException(fmt::format("{} is in use by its writer (pid {})", path, pid));
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    throw SharedFileException(fmt::format("cannot remove {}: {}", path, std::strerror(errno)));
  for (const std::string& f : leftoverFiles(path)) unlink(f.c_str());
}

}  // namespace Depot
