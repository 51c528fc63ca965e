// The writer's records: slots written under their sequence words, the slot
// cache and the free slots.
//
// Slots are handed out lowest free first, so records stay packed at the
// start of the slot area (the memory behind the rest is never touched) and
// the table can shrink. The header's high-water mark is raised before a slot
// above it is written (a writer that reopens the table looks at the slots
// below it) and lowered only past free slots. What a reader may
// assume: a slot is reachable through the index only once it holds its
// record, and a removed record's slot is marked free after its index entry
// is gone. Every change here is preceded, inside its update, by the journal
// entry that undoes it (SharedTableJournal.cpp).
#include "Depot/SharedTableWriter.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <new>

namespace Depot::sharedfile {

SharedTableWriter::SharedTableWriter(const RecordLayout& layout, const TablePath& where,
                                     const SharedTableOptions& options, Directory dir, WriterLock lock,
                                     std::unique_ptr<Mapping> m, const Survey& found)
    : SharedTableBase(layout, where.path, std::move(m)),
      options_(options),
      dir_(std::move(dir)),
      base_(baseName(where)),
      lock_(std::move(lock)),
      scratch_(layout.recordSize),
      undoRecord_(layout.recordSize) {
  counter_ = loadRelaxed(map_->header().updateCounter) & ~U64(1);
  tombstones_ = found.tombstones;
  rescan(found.top, *map_);
}

// Readers see the writer gone before the lock goes.
SharedTableWriter::~SharedTableWriter() { map_->writerIs({}); }

// Nobody else changes the table: no sequence words to check.
bool SharedTableWriter::find(const U8* key, U8* out) const {
  U64 slot;
  if (!slotOf(key, slot)) return false;
  std::memcpy(out, map_->slot(slot), layout_.recordSize);
  return true;
}

bool SharedTableWriter::iterFrom(const U8* key, U64& hint, U8* out) const {
  const Spot s = spotOf(key, keys_.hash(key));
  if (!s.found) return false;
  std::memcpy(out, map_->slot(s.slot), layout_.recordSize);
  hint = s.slot;
  return true;
}

// Every change is an update; when it is not inside a bracket, it is a
// bracket of its own, so that a failure inside it is undone the same way.
template <class Change>
auto SharedTableWriter::asUpdate(Change&& change) {
  refuseIfBroken();
  if (inBracket_) return change();  // the bracket's end closes it
  struct Closer {
    SharedTableWriter& w;
    int uncaught = std::uncaught_exceptions();
    ~Closer() {
      if (std::uncaught_exceptions() > uncaught) w.updateAbort();
      else w.updateEnd();
    }
  } closer{*this};
  updateBegin();
  return change();
}

void SharedTableWriter::write(const U8* record) { asUpdate([&] { put(record); }); }

bool SharedTableWriter::remove(const U8* key, U8* removed) { return asUpdate([&] { return take(key, removed); }); }

// Growth and the slot's memory come first: what fails for want of space or
// memory fails before this change has touched the table.
void SharedTableWriter::put(const U8* record) {
  const U8* key = keys_.of(record);
  const U64 quick = keys_.quickHash(key);
  U64 hash = 0;
  Spot s{true, 0, 0};
  if (!recentSlot(key, quick, s.slot)) {
    hash = keys_.hash(key);
    s = spotOf(key, hash);
    if (s.found) recentSlotIs(quick, s.slot);
  }
  if (s.found) {
    journal(key, map_->slot(s.slot));
    writeSlot(s.slot, record);
    return;
  }
  const bool intoEmpty = loadRelaxed(map_->indexEntry(s.position)) == 0;
  if (!recovering_ && (occupancy_ == capacity() ||
                       (intoEmpty && occupancy_ + tombstones_ >= indexLimit(map_->geometry().indexEntries)))) {
    grow();
    s = spotOf(key, hash);
  }
  const U64 slot = takeFreeSlot();
  map_->reserveSlots(slot + 1);
  journal(key, nullptr);
  // The high-water mark covers the slot before it holds a record: a
  // writer that reopens the table looks at the slots below it.
  if (slot >= highWater_) {
    highWater_ = slot + 1;
    updateHighWater_ = std::max(updateHighWater_, highWater_);
    storeRelease(map_->header().highWater, highWater_);
    storeOrder();
  }
  writeSlot(slot, record);
  recentSlotIs(quick, slot);
  U32& entry = map_->indexEntry(s.position);
  tombstones_ -= loadRelaxed(entry) != 0;
  storeRelease(entry, entryFor(map_->geometry(), hash, slot));
  ++occupancy_;
  publishCounts();
}

bool SharedTableWriter::take(const U8* key, U8* removed) {
  const Spot s = spotOf(key, keys_.hash(key));
  if (!s.found) return false;
  std::memcpy(removed, map_->slot(s.slot), layout_.recordSize);
  journal(key, map_->slot(s.slot));
  deleteEntry(*map_, s.position, tombstones_);
  U32& seq = map_->seqWord(s.slot);
  storeRelease(seq, nextSeq(seq, 0));
  --occupancy_;
  noteFreeSlot(s.slot);
  while (highWater_ > 0 && !(map_->seqWord(highWater_ - 1) & seqLive)) --highWater_;
  publishCounts();
  return true;
}

// The writer changes a copy (the scratchpad) and commits it as one whole
// change, so that readers never see it half-changed.
U8* SharedTableWriter::inPlace(const U8* key) {
  refuseIfBroken();
  const Spot s = spotOf(key, keys_.hash(key));
  if (!s.found) return nullptr;
  std::memcpy(scratch_.data(), map_->slot(s.slot), layout_.recordSize);
  scratchSlot_ = s.slot;
  scratchValid_ = true;
  return scratch_.data();
}

void SharedTableWriter::commit(const U8* record) {
  if (record != scratch_.data() || !scratchValid_)
    throw CorruptionException(fmt::format("{}: commit of a record that is not stored in place", path_));
  const U8* key = keys_.of(record);
  const Spot s = spotOf(key, keys_.hash(key));
  if (!s.found || s.slot != scratchSlot_)
    throw CorruptionException(fmt::format("{}: the record changed in place lost its slot before its commit", path_));
  asUpdate([&] {
    journal(key, map_->slot(s.slot));
    writeSlot(s.slot, record);
  });
}

// Busy first, then the record's words, then the sequence word with busy
// clear and the version advanced; the record's last byte may share it.
inline void SharedTableWriter::writeSlot(U64 slot, const U8* record) {
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

// The slot of a key the writer met lately, from a small cache by the key's
// quick hash: slot + 1 with the hash's high half as a tag, so that a key
// missing from the cache rarely costs a look at a slot. A cached slot
// counts only while it still holds the key, so the cache needs no upkeep:
// slots keep their numbers in every generation. Only a miss computes the
// index's hash.
inline bool SharedTableWriter::recentSlot(const U8* key, U64 hash, U64& slot) const {
  const U64 cached = recent_[hash % recentSize];
  if (cached >> 32 != hash >> 32 || U32(cached) == 0 || U32(cached) > highWater_) return false;
  slot = U32(cached) - 1;
  return (map_->seqWord(slot) & seqLive) && keys_.same(keys_.of(map_->slot(slot)), key);
}

inline bool SharedTableWriter::slotOf(const U8* key, U64& slot) const {
  const U64 quick = keys_.quickHash(key);
  if (recentSlot(key, quick, slot)) return true;
  const Spot s = spotOf(key, keys_.hash(key));
  if (!s.found) return false;
  recentSlotIs(quick, s.slot);
  slot = s.slot;
  return true;
}

// Every free slot below the high-water mark is in the queue, unless a push
// ran out of memory; then the slots are searched, so that a record put back
// by an undo never lands above the slots reserved for it.
inline U64 SharedTableWriter::takeFreeSlot() {
  while (!freeSlots_.empty()) {
    U64 s = freeSlots_.top();
    freeSlots_.pop();
    if (s < highWater_ && !(map_->seqWord(s) & seqLive)) return s;
  }
  if (occupancy_ < highWater_)
    for (U64 s = 0; s < highWater_; ++s)
      if (!(map_->seqWord(s) & seqLive)) return s;
  return highWater_;
}

inline void SharedTableWriter::noteFreeSlot(U64 slot) noexcept {
  try {
    freeSlots_.push(U32(slot));
  } catch (const std::bad_alloc&) {
    // takeFreeSlot finds it by a search
  }
}

// Recomputes the writer's slot counts and free slots from the slots of
// `from`: the mapping, or one that holds the same slots.
void SharedTableWriter::rescan(U64 top, const Mapping& from) {
  highWater_ = top;
  while (highWater_ > 0 && !(from.seqWord(highWater_ - 1) & seqLive)) --highWater_;
  occupancy_ = 0;
  freeSlots_ = {};
  for (U64 s = 0; s < highWater_; ++s) {
    if (from.seqWord(s) & seqLive) ++occupancy_;
    else noteFreeSlot(s);
  }
  publishCounts();
}

}  // namespace Depot::sharedfile
