#include <fmt/format.h>

#include <bit>
#include <cstring>
#include <vector>

#include "Basis/Assert.h"
#include "Basis/Debug.h"
#include "Depot/Table.h"

namespace Depot {
namespace {

constexpr U32 none = 0xFFFFFFFFu;

// Records in a slot array; each bucket heads a chain of slots linked through
// next_. Removed slots go on a free list, so slot numbers (the iteration
// hints) stay put while records come and go. Inside a bracket, every change
// first saves the record it replaces (or its absence) in an undo log; a
// change that throws does so before it changes anything, and the slots only
// grow while a bracket is open, so replaying the log backwards needs no
// memory and always finds a free slot.
class TemporaryTable final : public Table {
 public:
  TemporaryTable(const RecordLayout& layout, std::string name, U64 entries, U64 maxEntries)
      : layout_(layout), name_(std::move(name)), maxEntries_(maxEntries) {
    resize(std::max<U64>(1, std::min(entries, maxEntries)));
  }

  const RecordLayout& layout() const override { return layout_; }
  const std::string& rootPath() const override { return name_; }
  bool isWriter() const override { return true; }

  bool find(const U8* key, U8* out) const override {
    U32 slot = lookup(key, nullptr);
    if (slot == none) return false;
    std::memcpy(out, record(slot), layout_.recordSize);
    return true;
  }

  void write(const U8* rec) override {
    const U8* key = rec + layout_.keyOffset;
    U32 slot = lookup(key, nullptr);
    if (slot == none && freeHead_ == none) grow();
    saveUndo(key, slot);
    put(rec, slot);
    touched();
  }

  bool remove(const U8* key, U8* removed) override {
    U32 prev = none;
    U32 slot = lookup(key, &prev);
    if (slot == none) return false;
    saveUndo(key, slot);
    std::memcpy(removed, record(slot), layout_.recordSize);
    take(key, slot, prev);
    touched();
    return true;
  }

  U8* inPlace(const U8* key) override {
    U32 slot = lookup(key, nullptr);
    if (slot == none) return nullptr;
    saveUndo(key, slot);  // the caller changes the record before its commit
    return record(slot);
  }

  void commit(const U8* rec) override {
    const U32 slot = lookup(rec + layout_.keyOffset, nullptr);
    if (slot == none || record(slot) != rec)
      throw CorruptionException(fmt::format("{}: commit of a record that is not stored in place", name_));
    touched();
  }

  void updateBegin() override {
    BASIS_ASSERT(!inBracket_, "Depot/TemporaryTable.cpp");
    inBracket_ = true;
    ++counter_;
  }
  void updateEnd() override {
    BASIS_ASSERT(inBracket_, "Depot/TemporaryTable.cpp");
    inBracket_ = false;
    undo_.clear();
    ++counter_;
  }
  void updateAbort() override {
    BASIS_ASSERT(inBracket_, "Depot/TemporaryTable.cpp");
    const U64 entry = 1 + layout_.recordSize;
    for (U64 at = undo_.size(); at >= entry;) {
      at -= entry;
      const U8* saved = undo_.data() + at + 1;
      U32 prev = none;
      U32 slot = lookup(saved + layout_.keyOffset, &prev);
      if (undo_[at]) put(saved, slot);
      else if (slot != none) take(saved + layout_.keyOffset, slot, prev);
    }
    updateEnd();
  }
  U64 updateCounter() const override { return counter_; }

  bool iterFirst(U64& hint, U8* out) const override { return scanFrom(0, hint, out); }
  bool iterFrom(const U8* key, U64& hint, U8* out) const override {
    U32 slot = lookup(key, nullptr);
    return slot != none && scanFrom(slot, hint, out);
  }
  bool iterNext(U64& hint, U8* out) const override { return scanFrom(hint + 1, hint, out); }

  void reportCorruption(std::string_view message) override {
    ++corruptionCount_;
    Basis::debugHandler("DepotTemp").logf(0, "corruption in {}: {}", name_, message);
  }
  U64 corruptionCount() const override { return corruptionCount_; }
  U64 occupancy() const override { return occupancy_; }
  U64 capacity() const override { return used_.size(); }
  U64 bytes() const override {
    return records_.size() + next_.size() * sizeof(U32) + used_.size() + buckets_.size() * sizeof(U32);
  }

 private:
  // Stores rec at slot, or in a free slot when slot is none (one is free).
  void put(const U8* rec, U32 slot) {
    if (slot == none) {
      slot = freeHead_;
      freeHead_ = next_[slot];
      U32& head = buckets_[bucketOf(rec + layout_.keyOffset)];
      next_[slot] = head;
      head = slot;
      used_[slot] = 1;
      ++occupancy_;
    }
    std::memcpy(record(slot), rec, layout_.recordSize);
  }
  void take(const U8* key, U32 slot, U32 prev) {
    (prev == none ? buckets_[bucketOf(key)] : next_[prev]) = next_[slot];
    used_[slot] = 0;
    next_[slot] = freeHead_;
    freeHead_ = slot;
    --occupancy_;
  }
  // The record under key before this change (slot none: absent); may throw
  // for want of memory, before anything changed.
  void saveUndo(const U8* key, U32 slot) {
    if (!inBracket_) return;
    const U64 at = undo_.size();
    undo_.resize(at + 1 + layout_.recordSize);
    undo_[at] = slot != none;
    if (slot != none) std::memcpy(&undo_[at + 1], record(slot), layout_.recordSize);
    else std::memcpy(&undo_[at + 1 + layout_.keyOffset], key, layout_.keySize);
  }
  void touched() {
    if (!inBracket_) counter_ += 2;
  }
  U8* record(U32 slot) { return records_.data() + U64(slot) * layout_.recordSize; }
  const U8* record(U32 slot) const { return records_.data() + U64(slot) * layout_.recordSize; }
  U32 bucketOf(const U8* key) const { return U32(keyHash(key, layout_.keySize) & (buckets_.size() - 1)); }

  // The slot holding key (and its predecessor in the chain), or none. A chain
  // longer than the table or pointing outside it is damage.
  U32 lookup(const U8* key, U32* prev) const {
    U64 steps = 0;
    U32 before = none;
    for (U32 slot = buckets_[bucketOf(key)]; slot != none; before = slot, slot = next_[slot]) {
      if (slot >= used_.size() || !used_[slot] || ++steps > used_.size())
        throw CorruptionException(fmt::format("{}: broken chain at slot {}", name_, slot));
      if (std::memcmp(record(slot) + layout_.keyOffset, key, layout_.keySize) == 0) {
        if (prev) *prev = before;
        return slot;
      }
    }
    return none;
  }

  bool scanFrom(U64 start, U64& hint, U8* out) const {
    for (U64 slot = start; slot < used_.size(); ++slot) {
      if (used_[slot]) {
        hint = slot;
        std::memcpy(out, record(U32(slot)), layout_.recordSize);
        return true;
      }
    }
    hint = used_.size();
    return false;
  }

  void grow() {
    if (used_.size() >= maxEntries_) throw TableFullException(occupancy_, used_.size(), name_);
    resize(std::min<U64>(used_.size() * 2, maxEntries_));
  }

  // Rebuilds the index for `entries` slots, keeping records in their slots.
  // Allocates everything before it changes anything.
  void resize(U64 entries) {
    std::vector<U8> records = records_, used = used_;
    records.resize(entries * layout_.recordSize);
    used.resize(entries, 0);
    std::vector<U32> next(entries), buckets(std::bit_ceil(entries), none);
    records_.swap(records);
    used_.swap(used);
    next_.swap(next);
    buckets_.swap(buckets);
    freeHead_ = none;
    for (U64 s = entries; s-- > 0;) {
      if (used_[s]) {
        U32& head = buckets_[bucketOf(record(U32(s)) + layout_.keyOffset)];
        next_[s] = head;
        head = U32(s);
      } else {
        next_[s] = freeHead_;
        freeHead_ = U32(s);
      }
    }
  }

  RecordLayout layout_;
  std::string name_;
  U64 maxEntries_;
  std::vector<U8> records_;
  std::vector<U32> next_;
  std::vector<U8> used_;
  std::vector<U32> buckets_;
  U32 freeHead_ = none;
  U64 occupancy_ = 0;
  U64 corruptionCount_ = 0;
  U64 counter_ = 0;
  bool inBracket_ = false;
  std::vector<U8> undo_;  // entries of a present flag and a record (only its key when absent)
};

}  // namespace

std::unique_ptr<Table> temporaryTableNew(const RecordLayout& layout, std::string name, U64 entries, U64 maxEntries) {
  if (layout.recordSize == 0 || layout.keyOffset + layout.keySize > layout.recordSize)
    throw Basis::RangeException(fmt::format("{}: bad record layout for {}", name, layout.typeName));
  return std::make_unique<TemporaryTable>(layout, std::move(name), entries, std::min<U64>(maxEntries, none - 1));
}

}  // namespace Depot
