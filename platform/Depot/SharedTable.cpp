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
#include <vector>

#include "Basis/Assert.h"
#include "Basis/Debug.h"
#include "Depot/SharedTableFile.h"

namespace Depot {
namespace {

using namespace sharedfile;

constexpr const char* readerWriteMessage = "invalid attempt to write scratchpad as reader";

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// A reader's wait for the writer to finish what it is doing. wait() is false
// once the writer is gone (nobody holds the writer lock) and no newer
// generation was published: what the table holds then is final.
class Patience {
 public:
  bool wait(const Mapping& m) {
    if (++spins_ < 64) {
      cpuRelax();
      return true;
    }
    sched_yield();
    return spins_ % 128 != 0 || loadRelaxed(m.header().successor) != 0 || m.writerAttached();
  }

 private:
  U64 spins_ = 0;
};

enum class SlotRead { ok, busy, free };
enum class Outcome { found, absent, unsettled, broken };
enum class Problem { none, slotOutside, freeSlot, endless };

// The result of one pass over a probe sequence: the slot and index position
// of the key, or the empty position where it would go.
struct Probe {
  Outcome outcome;
  U64 slot = 0;
  U64 position = 0;
  Problem problem = Problem::none;
};

std::string describe(const Probe& p, const Geometry& g) {
  switch (p.problem) {
    case Problem::slotOutside:
      return fmt::format("index entry {} names slot {} of a table of {}", p.position, p.slot, g.capacity);
    case Problem::freeSlot: return fmt::format("index entry {} names the free slot {}", p.position, p.slot);
    default: return fmt::format("a probe sequence of {} entries does not end", g.indexEntries);
  }
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
  U64 v = 0;
  std::memcpy(&v, key + at, N - at);
  h = (h ^ v) * 0x94d049bb133111ebull;
  h ^= h >> 29;
  h *= 0xbf58476d1ce4e5b9ull;
  return h ^ (h >> 32);
}

void checkLayout(const RecordLayout& layout, const std::string& path) {
  if (layout.recordSize == 0 || layout.keySize == 0 || layout.keyOffset + layout.keySize > layout.recordSize ||
      strideFor(layout) > maxStride || layout.typeName.size() >= sizeof(Header::typeName))
    throw Basis::RangeException(fmt::format("{}: bad record layout for {}", path, layout.typeName));
}

class SharedTableImpl final : public SharedTable {
 public:
  SharedTableImpl(const RecordLayout& layout, std::string path, bool writer, const SharedTableOptions& options,
                  std::unique_ptr<Mapping> m)
      : layout_(layout), path_(std::move(path)), writer_(writer), options_(options), map_(std::move(m)),
        scratch_(layout.recordSize) {
    if (writer_) {
      counter_ = loadRelaxed(map_->header().updateCounter);
      rescan(std::min(loadRelaxed(map_->header().highWater), capacity()));
    }
  }

  ~SharedTableImpl() override {
    if (writer_) std::atomic_ref<U32>(map_->header().writerPid).store(0, std::memory_order_release);
  }

  // A restarted writer starts on a fresh generation of the same size: that
  // drops whatever a stopped writer left half-done, and readers still on the
  // old file move over.
  void renew() { rebuild(geometryFor(layout_, capacity(), std::max(options_.maxEntries, capacity()))); }

  const RecordLayout& layout() const override { return layout_; }
  const std::string& rootPath() const override { return path_; }
  bool isWriter() const override { return writer_; }

  bool find(const U8* key, U8* out) const override {
    if (writer_) {  // nobody else changes the table: no sequence words to check
      Probe p = locate(key, hashOf(key));
      if (p.outcome == Outcome::found) std::memcpy(out, map_->slot(p.slot), layout_.recordSize);
      return p.outcome == Outcome::found;
    }
    U32 words[maxStride / 4];
    U64 slot;
    if (!lookup(key, words, slot)) return false;
    std::memcpy(out, words, layout_.recordSize);
    return true;
  }

  void write(const U8* record) override {
    requireWriter();
    const U8* key = record + layout_.keyOffset;
    U64 hash = hashOf(key);
    Probe p = locate(key, hash);
    if (p.outcome == Outcome::found) {
      beginUpdate();
      writeSlot(p.slot, record);
      endUpdate();
      return;
    }
    if (occupancy_ == capacity()) {
      grow();
      p = locate(key, hash);
    }
    U64 slot = takeFreeSlot();
    map_->reserveSlots(slot + 1);
    beginUpdate();
    writeSlot(slot, record);
    storeRelease(map_->indexEntry(p.position), entryFor(map_->geometry(), hash, slot));
    ++occupancy_;
    highWater_ = std::max(highWater_, slot + 1);
    publishCounts();
    endUpdate();
  }

  bool remove(const U8* key, U8* removed) override {
    requireWriter();
    Probe p = locate(key, hashOf(key));
    if (p.outcome != Outcome::found) return false;
    std::memcpy(removed, map_->slot(p.slot), layout_.recordSize);
    beginUpdate();
    deleteIndexEntry(p.position);
    freeSlot(p.slot);
    --occupancy_;
    freeSlots_.push(U32(p.slot));
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
    Probe p = locate(key, hashOf(key));
    if (p.outcome != Outcome::found) return nullptr;
    std::memcpy(scratch_.data(), map_->slot(p.slot), layout_.recordSize);
    scratchSlot_ = p.slot;
    scratchValid_ = true;
    return scratch_.data();
  }

  void commit(const U8* record) override {
    requireWriter();
    if (record != scratch_.data() || !scratchValid_)
      throw CorruptionException(fmt::format("{}: commit of a record that is not stored in place", path_));
    const U8* key = record + layout_.keyOffset;
    Probe p = locate(key, hashOf(key));
    if (p.outcome != Outcome::found || p.slot != scratchSlot_)
      throw CorruptionException(fmt::format("{}: the record changed in place lost its slot before its commit", path_));
    beginUpdate();
    writeSlot(p.slot, record);
    endUpdate();
  }

  bool iterFirst(U64& hint, U8* out) const override { return scan(0, hint, out); }
  bool iterFrom(const U8* key, U64& hint, U8* out) const override {
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
    const Geometry& g = map_->geometry();
    return g.slotsOffset + highWaterNow(*map_) * g.stride;
  }

  U64 generation() const override {
    followSuccessor();
    return map_->generation();
  }
  U64 updateCounter() const override { return loadAcquire(map_->header().updateCounter); }
  void updateBegin() override {
    requireWriter();
    BASIS_ASSERT(!inBracket_, "Depot/SharedTable.cpp");
    beginUpdate();
    inBracket_ = true;
  }
  void updateEnd() override {
    requireWriter();
    BASIS_ASSERT(inBracket_, "Depot/SharedTable.cpp");
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
            .fileBytes = g.fileSize,
            .residentBytes = m.residentBytes(),
            .updateCounter = loadAcquire(m.header().updateCounter)};
  }

 private:
  void requireWriter() const {
    if (!writer_) throw AccessException(readerWriteMessage);
  }

  // The node records' key sizes get code with the size built in.
  U64 hashOf(const U8* key) const {
    switch (layout_.keySize) {
      case 5: return fixedKeyHash<5>(key);
      case 17: return fixedKeyHash<17>(key);
      default: return keyHash(key, layout_.keySize);
    }
  }
  bool sameKey(const U8* a, const U8* b) const {
    switch (layout_.keySize) {
      case 5: return std::memcmp(a, b, 5) == 0;
      case 17: return std::memcmp(a, b, 17) == 0;
      default: return std::memcmp(a, b, layout_.keySize) == 0;
    }
  }

  static U64 highWaterNow(const Mapping& m) {
    return std::min(loadAcquire(m.header().highWater), m.geometry().capacity);
  }

  static U32 entryFor(const Geometry& g, U64 hash, U64 slot) { return (U32(hash >> 32) << g.slotBits) | U32(slot + 1); }

  // ---- Reading (both sides) ----

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

  // One pass over the key's probe sequence. A pass that meets a slot being
  // changed is unsettled; one that meets something no consistent table holds
  // is broken (or raced with the writer: the caller tells which).
  Probe probe(const Mapping& m, const U8* key, U64 hash, U32* words) const {
    const Geometry& g = m.geometry();
    const U64 mask = g.indexEntries - 1;
    const U32 slotMask = (U32(1) << g.slotBits) - 1;
    const U32 tag = U32(hash >> 32) << g.slotBits;
    U64 pos = hash & mask;
    for (U64 n = 0; n < g.indexEntries; ++n, pos = (pos + 1) & mask) {
      U32 e = loadAcquire(m.indexEntry(pos));
      if (e == 0) return {Outcome::absent, 0, pos};
      if ((e & ~slotMask) != tag) continue;
      U64 slot = U64(e & slotMask) - 1;
      if ((e & slotMask) == 0 || slot >= g.capacity) return {Outcome::broken, slot, pos, Problem::slotOutside};
      switch (readSlot(m, slot, words)) {
        case SlotRead::busy: return {Outcome::unsettled, slot, pos};
        case SlotRead::free: return {Outcome::broken, slot, pos, Problem::freeSlot};
        case SlotRead::ok:
          if (sameKey(reinterpret_cast<const U8*>(words) + layout_.keyOffset, key)) return {Outcome::found, slot, pos};
          break;
      }
    }
    return {Outcome::broken, 0, pos, Problem::endless};
  }

  // A reader accepts a miss or a broken pass only when the update counter was
  // even and unchanged across it; otherwise it waits for the writer and
  // tries again.
  bool lookup(const U8* key, U32* words, U64& slot) const {
    const U64 hash = hashOf(key);
    Patience patience;
    for (;;) {
      followSuccessor();
      const Mapping& m = *map_;
      U64 before = loadAcquire(m.header().updateCounter);
      Probe p = probe(m, key, hash, words);
      if (p.outcome == Outcome::found) {
        slot = p.slot;
        return true;
      }
      if (p.outcome != Outcome::unsettled) {
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!(before & 1) && loadRelaxed(m.header().updateCounter) == before) return settle(p);
      }
      if (!patience.wait(m)) return settle(p);
    }
  }

  bool settle(const Probe& p) const {
    switch (p.outcome) {
      case Outcome::absent: return false;
      case Outcome::unsettled:
        throw CorruptionException(
            fmt::format("{}: slot {} was left half-written by a writer that stopped", path_, p.slot));
      default: throw CorruptionException(fmt::format("{}: {}", path_, describe(p, map_->geometry())));
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

  // The writer's probe: nobody else changes the table, so it compares keys
  // in place.
  Probe locate(const U8* key, U64 hash) const { return locateIn(*map_, key, hash); }
  Probe locateIn(const Mapping& m, const U8* key, U64 hash) const {
    const Geometry& g = m.geometry();
    const U64 mask = g.indexEntries - 1;
    const U32 slotMask = (U32(1) << g.slotBits) - 1;
    const U32 tag = U32(hash >> 32) << g.slotBits;
    U64 pos = hash & mask;
    for (U64 n = 0; n < g.indexEntries; ++n, pos = (pos + 1) & mask) {
      U32 e = loadRelaxed(m.indexEntry(pos));
      if (e == 0) return {Outcome::absent, 0, pos};
      if ((e & ~slotMask) != tag) continue;
      U64 slot = U64(e & slotMask) - 1;
      Probe p{Outcome::broken, slot, pos, Problem::none};
      if ((e & slotMask) == 0 || slot >= g.capacity) p.problem = Problem::slotOutside;
      else if (!(m.seqWord(slot) & seqLive)) p.problem = Problem::freeSlot;
      else if (sameKey(m.slot(slot) + layout_.keyOffset, key)) return {Outcome::found, slot, pos};
      else continue;
      throw CorruptionException(fmt::format("{}: {}", path_, describe(p, g)));
    }
    throw CorruptionException(fmt::format("{}: {}", path_, describe({Outcome::broken, 0, pos, Problem::endless}, g)));
  }

  void beginUpdate() {
    if (inBracket_) return;
    std::atomic_ref<U64>(map_->header().updateCounter).store(counter_ + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
  }
  void endUpdate() {
    if (inBracket_) return;
    counter_ += 2;
    storeRelease(map_->header().updateCounter, counter_);
  }
  void publishCounts() {
    std::atomic_ref<U64>(map_->header().occupancy).store(occupancy_, std::memory_order_relaxed);
    storeRelease(map_->header().highWater, highWater_);
  }

  void writeSlot(U64 slot, const U8* record) {
    const U32 n = map_->geometry().stride / 4;
    U32* p = reinterpret_cast<U32*>(map_->slot(slot));
    U32 old = loadRelaxed(p[n - 1]);
    storeRelaxed(p[n - 1], old | seqBusy);
    std::atomic_thread_fence(std::memory_order_release);
    U32 words[maxStride / 4] = {};
    std::memcpy(words, record, layout_.recordSize);
    for (U32 w = 0; w + 1 < n; ++w) storeRelaxed(p[w], words[w]);
    storeRelease(p[n - 1], ((old & seqVersionMask) + seqVersionStep) | seqLive | (words[n - 1] & 0xFFu));
  }

  void freeSlot(U64 slot) {
    U32& seq = map_->seqWord(slot);
    U32 old = loadRelaxed(seq);
    storeRelease(seq, ((old & seqVersionMask) + seqVersionStep) | (old & 0xFFu));
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

  U64 homeOf(U32 entry) const {
    U64 slot = U64(entry & ((U32(1) << map_->geometry().slotBits) - 1)) - 1;
    if (slot >= capacity()) throw CorruptionException(fmt::format("{}: index entry names slot {}", path_, slot));
    return hashOf(map_->slot(slot) + layout_.keyOffset) & (map_->geometry().indexEntries - 1);
  }

  // Backward-shift deletion: entries after the hole that may live in it move
  // up, so probe sequences stay unbroken without tombstones. An entry is
  // written to its new position before its old one is reused, so a reader
  // can at worst miss it during the move, which the update counter reveals.
  void deleteIndexEntry(U64 position) {
    const U64 mask = map_->geometry().indexEntries - 1;
    U64 hole = position;
    for (U64 j = (position + 1) & mask, n = 0;; j = (j + 1) & mask) {
      if (++n > mask) throw CorruptionException(fmt::format("{}: the index has no empty entry", path_));
      U32 e = loadRelaxed(map_->indexEntry(j));
      if (e == 0) break;
      U64 home = homeOf(e);
      bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
      if (!stays) {
        storeRelease(map_->indexEntry(hole), e);
        hole = j;
      }
    }
    storeRelease(map_->indexEntry(hole), 0);
  }

  // Recomputes the writer's own counts and free slots from the mapping.
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

  void grow() {
    Geometry g = geometryFor(layout_, capacity() + 1, options_.maxEntries);
    if (g.capacity <= capacity()) throw TableFullException(occupancy_, capacity(), path_);
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
  // current header and puts it in place under the table's name. Slots left
  // half-written by a writer that stopped are dropped.
  void rebuild(const Geometry& g) {
    const U64 top = highWater_;
    const U64 gen = map_->generation() + 1;
    const std::string file = generationFileName(path_, gen);
    unlink(file.c_str());
    auto next = Mapping::create(file, layout_, g, loadRelaxed(map_->header().minCapacity), gen, options_.mode);
    try {
      next->reserveSlots(top);
    } catch (...) {
      unlink(file.c_str());
      throw;
    }
    std::memcpy(next->slot(0), map_->slot(0), top * g.stride);
    U64 kept = 0, keptTop = 0;
    for (U64 s = 0; s < top; ++s) {
      U32& seq = next->seqWord(s);
      if (seq & seqBusy) {
        seq &= ~(seqBusy | seqLive);
        reportCorruption(fmt::format("dropped slot {}, left half-written by a writer that stopped", s));
      }
      if (!(seq & seqLive)) continue;
      const U8* key = next->slot(s) + layout_.keyOffset;
      U64 hash = hashOf(key);
      Probe p = locateIn(*next, key, hash);
      if (p.outcome == Outcome::absent) {
        next->indexEntry(p.position) = entryFor(g, hash, s);
        ++kept;
        keptTop = s + 1;
        continue;
      }
      seq &= ~seqLive;
      reportCorruption(fmt::format("dropped slot {}, a second record under the key of slot {}", s, p.slot));
    }
    U64 counter = (loadRelaxed(map_->header().updateCounter) | 1) + 1;
    next->header().updateCounter = counter;
    next->header().occupancy = kept;
    next->header().highWater = keptTop;
    storeRelease(map_->header().successor, gen);
    if (rename(file.c_str(), path_.c_str()) != 0) {
      int err = errno;
      storeRelease(map_->header().successor, 0);
      unlink(file.c_str());
      throw SharedFileException(fmt::format("cannot put generation {} in place of {}: {}", gen, path_, std::strerror(err)));
    }
    map_ = std::move(next);
    counter_ = counter;
    rescan(keptTop);
  }

  RecordLayout layout_;
  std::string path_;
  bool writer_;
  SharedTableOptions options_;
  mutable std::unique_ptr<Mapping> map_;
  U64 corruptionCount_ = 0;
  // Writer state, mirrored in the header for readers.
  U64 counter_ = 0;
  bool inBracket_ = false;
  U64 occupancy_ = 0;
  U64 highWater_ = 0;
  std::priority_queue<U32, std::vector<U32>, std::greater<U32>> freeSlots_;
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
    table->renew();
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
