#pragma once
// The writer of a shared table: the only process that changes its files.
// Its work is spread by job over
//   SharedTableWriter.cpp       records: slot writes, the slot cache, free slots
//   SharedTableJournal.cpp      updates, the undo journal, reopening and recovery
//   SharedTableGenerations.cpp  new generations: creation, growth, shrinking
// and the index's upkeep is in SharedTableIndex.cpp. Each file states at its
// top what it keeps true.
#include <functional>
#include <queue>
#include <vector>

#include "Depot/SharedTableReader.h"

// Hidden from the library that links Depot in: calls between these files
// bind inside it, so they are direct and may be inlined.
#pragma GCC visibility push(hidden)
namespace Depot::sharedfile {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Keeps the compiler from moving stores across it. A killed writer stops
// between two instructions and every store before that point reaches the
// shared file, so with the stores in program order the file shows a prefix
// of the writer's work, which recovery relies on.
inline void storeOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }

// The sequence word after a change that leaves the slot live (seqLive) or
// free (0); the low byte is kept.
inline U32 nextSeq(U32 old, U32 live) { return ((old & seqVersionMask) + seqVersionStep) | live | (old & 0xFFu); }

// What a writer finds in a generation it reopens, counted from the slots
// and the index rather than taken from the header.
struct Survey {
  U64 top = 0;          // one past the highest slot that is live or busy
  U64 liveSlots = 0;
  U64 liveEntries = 0;  // index entries that name a slot
  U64 tombstones = 0;
  // Damage the writer repairs (the index is rebuilt when rebuildIndex).
  std::vector<std::string> repairs;
  bool rebuildIndex = false;
};
// Checks a generation before a writer trusts it: the memory behind its
// header, journal and index, the journal of an unfinished update (each
// entry's checksum, flags and key), the header's counts against the slots
// and the index. Raises SharedFileException naming the file for what cannot
// be repaired safely; reads only, and skips the holes of the slot area.
Survey surveyForWriter(const Mapping& m, const RecordLayout& layout, const std::string& path);

class SharedTableWriter final : public SharedTableBase<SharedTableWriter> {
 public:
  static constexpr bool readsAround = false;  // its own open update is the truth
  // Opens the table for writing, creating it or recovering it, under its
  // writer lock.
  static std::unique_ptr<SharedTable> open(const RecordLayout& layout, const TablePath& where,
                                           const SharedTableOptions& options);
  SharedTableWriter(const RecordLayout& layout, const TablePath& where, const SharedTableOptions& options,
                    Directory dir, WriterLock lock, std::unique_ptr<Mapping> m, const Survey& found = {});
  ~SharedTableWriter() override;

  bool isWriter() const override { return true; }
  bool find(const U8* key, U8* out) const override;
  bool iterFrom(const U8* key, U64& hint, U8* out) const override;
  void write(const U8* record) override;
  bool remove(const U8* key, U8* removed) override;
  U8* inPlace(const U8* key) override;
  void commit(const U8* record) override;
  void updateBegin() override;
  void updateEnd() override;
  void updateAbort() override;

 private:
  // Runs one change as an update of its own unless a bracket is open; an
  // exception leaves with the update undone.
  template <class Change>
  auto asUpdate(Change&& change);
  friend class SharedTableBase<SharedTableWriter>;
  const Mapping& newestMapping() const { return *map_; }
  Spot spotOf(const U8* key, U64 hash) const { return locate(*map_, keys_, key, hash, path_); }

  // Records (SharedTableWriter.cpp; the inline ones are used there only).
  void put(const U8* record);
  bool take(const U8* key, U8* removed);
  void writeSlot(U64 slot, const U8* record);
  bool recentSlot(const U8* key, U64 hash, U64& slot) const;
  void recentSlotIs(U64 hash, U64 slot) const { recent_[hash % recentSize] = (hash >> 32 << 32) | (slot + 1); }
  bool slotOf(const U8* key, U64& slot) const;
  U64 takeFreeSlot();
  void noteFreeSlot(U64 slot) noexcept;
  void rescan(U64 top, const Mapping& from);

  // Updates and recovery (SharedTableJournal.cpp).
  void recover(const Survey& found);
  void rollBack();
  void refuseIfBroken() const;
  void publishCounts();
  void journal(const U8* key, const U8* old);
  void carryUpdateInto(Mapping& next) const;

  // Generations (SharedTableGenerations.cpp).
  static std::unique_ptr<Mapping> createFirstGeneration(const RecordLayout& layout, const Directory& dir,
                                                        const TablePath& where, const SharedTableOptions& options);
  void grow();
  void maybeShrink();
  void rebuild(const Geometry& g);

  SharedTableOptions options_;
  // The table's checked directory and its file's name there; every file
  // the writer makes, renames or removes is reached through them.
  Directory dir_;
  std::string base_;
  WriterLock lock_;
  // Writer state, mirrored in the header for readers.
  U64 counter_ = 0;
  bool inBracket_ = false;
  // Set while the journal is replayed: changes are not journaled and need
  // no growth (they bring back records that fitted before).
  bool recovering_ = false;
  // An update that could not be undone stays open in the file for the next
  // writer (or a reader) to undo; this writer refuses every further change.
  std::string broken_;
  U32 journalUsed_ = 0;
  // The highest high-water mark since the open update began: a generation
  // built inside an update reserves the slots below it, so that undoing the
  // update never needs memory the device may not have.
  U64 updateHighWater_ = 0;
  U64 occupancy_ = 0;
  U64 highWater_ = 0;
  U64 tombstones_ = 0;
  std::priority_queue<U32, std::vector<U32>, std::greater<U32>> freeSlots_;
  static constexpr U64 recentSize = 4096;
  mutable std::vector<U64> recent_ = std::vector<U64>(recentSize);
  std::vector<U8> scratch_;
  std::vector<U8> undoRecord_;
  U64 scratchSlot_ = 0;
  bool scratchValid_ = false;
};

}  // namespace Depot::sharedfile
#pragma GCC visibility pop
