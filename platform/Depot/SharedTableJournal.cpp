// Updates, the undo journal and a writer's reopening of a table.
//
// Every change belongs to an update; the header's update counter is odd
// inside one and even at rest. The writer keeps this order: the counter
// goes odd; before the update first changes the record under a key, the
// key, whether a record was there and its old bytes go into the next
// journal entry, and only then is the entry count raised and the table
// changed; at the end the counter goes even, and only then does the journal
// empty. So at any instruction where a writer may be killed, the file holds
// either a complete update and a journal to drop (even counter), or an
// unfinished one whose journal restores every record it changed (odd
// counter). A new generation carries the counter and the journal over.
// Readers use the counter to tell that no update overlapped a query, and
// read the journal only around an update that a writer which died left open
// (SharedTableReader.h).
//
// A writer that reopens a file trusts nothing in it that it has not
// checked: the journal is replayed only when every entry is whole and
// belongs to the unfinished update, and the counts come from the slots and
// the index. What it cannot repair it refuses before changing anything.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Basis/Assert.h"
#include "Depot/SharedTableWriter.h"

namespace Depot::sharedfile {
namespace {

constexpr const char* sourcePath = "Depot/SharedTableJournal.cpp";

// The journal of an unfinished update is replayed only when every entry is
// the one the writer wrote for it: a wrong entry would undo changes that
// never happened (remove a record that was there all along).
void checkJournal(const Mapping& m, const RecordLayout& layout, const std::string& path) {
  const Keys keys(layout);
  const U64 counter = loadRelaxed(m.header().updateCounter);
  const U32 entries = loadRelaxed(m.header().journalCount);
  if (entries > journalEntries)
    throw SharedFileException(fmt::format("{}: damaged journal ({} entries)", path, entries));
  if (!(counter & 1)) return;  // at rest: dropped unread
  for (U32 i = 0; i < entries; ++i) {
    const U32 flags = loadRelaxed(m.journalFlags(i));
    const U8* record = m.journalRecord(i);
    std::string wrong;
    if (m.journalCheck(i) != journalChecksum(counter, i, flags, record, layout.recordSize))
      wrong = "checksum mismatch";
    else if (flags & ~journalPresent)
      wrong = fmt::format("unknown flags {:#x}", flags);
    for (U32 at = 0; wrong.empty() && !(flags & journalPresent) && at < layout.recordSize; ++at)
      if (record[at] != 0 && (at < layout.keyOffset || at >= layout.keyOffset + layout.keySize))
        wrong = "the entry of an absent record holds more than its key";
    for (U32 j = 0; wrong.empty() && j < i; ++j)
      if (keys.same(keys.of(m.journalRecord(j)), keys.of(record))) wrong = fmt::format("its key is entry {}'s too", j);
    if (!wrong.empty())
      throw SharedFileException(fmt::format(
          "{}: damaged journal entry {} of {} ({}): the unfinished update cannot be undone", path, i, entries, wrong));
  }
}

}  // namespace

Survey surveyForWriter(const Mapping& m, const RecordLayout& layout, const std::string& path) {
  const Geometry& g = m.geometry();
  // Every generation is created with the memory of its header, journal and
  // index reserved; a file without it (sparse, or a forged capacity) would
  // take memory at every index entry the writer touches.
  if (m.residentBytes() < g.slotsOffset)
    throw SharedFileException(fmt::format("{}: holds {} bytes of memory where its header, journal and index need {} "
                                          "(a sparse file or a forged capacity)",
                                          path, m.residentBytes(), g.slotsOffset));
  checkJournal(m, layout, path);
  Survey found;
  const U32 tombstone = tombstoneEntry(g.slotBits);
  for (U64 i = 0; i < g.indexEntries; ++i) {
    const U32 e = loadRelaxed(m.indexEntry(i));
    found.tombstones += e == tombstone;
    found.liveEntries += e != 0 && e != tombstone;
  }
  // Every slot up to the capacity, not only below the header's mark: a slot
  // in use above it would be handed out again.
  const U64 firstSeq = g.slotsOffset + g.stride - 4;
  m.forEachData(firstSeq, g.slotsOffset + g.capacity * g.stride, [&](U64 from, U64 to) {
    const U64 first = (std::max(from, firstSeq) - firstSeq + g.stride - 1) / g.stride;
    for (U64 s = first; s < g.capacity && firstSeq + s * g.stride < to; ++s) {
      const U32 seq = loadRelaxed(m.seqWord(s));
      if (seq & (seqLive | seqBusy)) found.top = s + 1;
      found.liveSlots += (seq & seqLive) != 0;
    }
  });
  const Header& h = m.header();
  if (const U64 mark = loadRelaxed(h.highWater); mark < found.top)
    found.repairs.push_back(fmt::format("high-water mark {} is below slot {}, which is in use", mark, found.top - 1));
  // Between two updates every live slot has one index entry and no entry
  // names a free slot; inside one the index is rebuilt anyway.
  if (!(loadRelaxed(h.updateCounter) & 1) &&
      (found.liveEntries != found.liveSlots || found.liveEntries + found.tombstones > indexLimit(g.indexEntries))) {
    found.repairs.push_back(fmt::format("the index names {} records (and {} removed keys) where the slots hold {}",
                                        found.liveEntries, found.tombstones, found.liveSlots));
    found.rebuildIndex = true;
  }
  return found;
}

// The writer lock comes first: under it no other writer creates, renames or
// removes the table's files, so what the directory holds stays as found.
std::unique_ptr<SharedTable> SharedTableWriter::open(const RecordLayout& layout, const TablePath& where,
                                                     const SharedTableOptions& options) {
  const std::string base = baseName(where);
  // Directories get x where the files get r.
  const U32 dirMode = (options.mode | ((options.mode & 0444) >> 2)) & 0777;
  std::optional<Directory> found = Directory::open(where, dirMode);
  if (!found) throw SharedFileException(fmt::format("{} keeps changing while it is being opened", where.path));
  Directory dir = std::move(*found);
  WriterLock lock = WriterLock::take(dir, base, where.path, "already has a writer", true);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const int fd = dir.openFile(base, O_RDWR, "open {} for writing", true);
    if (fd < 0) {
      if (auto m = createFirstGeneration(layout, dir, where, options))
        return std::make_unique<SharedTableWriter>(layout, where, options, std::move(dir), std::move(lock), std::move(m));
      continue;
    }
    auto m = Mapping::attach(fd, where.path, layout, true);
    // A writer that stopped between publishing a generation and putting it
    // in place left it complete under its generation name (the next number).
    const U64 successor = loadAcquire(m->header().successor);
    if (successor == m->generation() + 1 &&
        renameat(dir.fd(), generationFileName(base, successor).c_str(), dir.fd(), base.c_str()) == 0)
      continue;
    const Survey found = surveyForWriter(*m, layout, where.path);
    try {
      m->reserveSlots(found.top);
    } catch (const Basis::Exception& e) {
      throw SharedFileException(fmt::format("{}: {}", where.path, e.what()));
    }
    if (successor) storeRelease(m->header().successor, 0);
    for (const std::string& f : dir.leftovers(base)) dir.remove(f);
    m->writerIs(thisProcess());
    auto table = std::make_unique<SharedTableWriter>(layout, where, options, std::move(dir), std::move(lock),
                                                     std::move(m), found);
    table->recover(found);
    return table;
  }
  throw SharedFileException(fmt::format("{} keeps changing while it is being opened", where.path));
}

// A writer that reopens the table finishes what a stopped one left. Inside
// an update (odd counter) every change was journaled first: slots it was
// changing go back to what they held, the index is rebuilt from the slots,
// and the journal restores the records as they were before the update.
// Outside one, a slot left half-written is damage and is dropped.
void SharedTableWriter::recover(const Survey& found) {
  Header& h = map_->header();
  const bool interrupted = loadRelaxed(h.updateCounter) & 1;
  const U32 entries = loadRelaxed(h.journalCount);
  for (const std::string& repair : found.repairs) reportCorruption(repair);
  // A rebuild carries the journal over.
  journalUsed_ = interrupted ? entries : 0;
  bool damaged = found.rebuildIndex;
  for (U64 s = 0; s < found.top; ++s) {
    U32& seq = map_->seqWord(s);
    if (!(seq & seqBusy)) continue;
    if (!interrupted) {
      reportCorruption(fmt::format("dropped slot {}, left half-written by a writer that stopped", s));
      damaged = true;
    }
    storeRelease(seq, nextSeq(seq, interrupted ? seq & seqLive : 0));
  }
  if (interrupted || damaged) rebuild(geometryFor(layout_, capacity(), std::max(options_.maxEntries, capacity())));
  if (!interrupted) {
    if (entries != 0) storeRelease(map_->header().journalCount, 0);
    return;
  }
  inBracket_ = true;
  updateHighWater_ = highWater_;
  rollBack();
  updateEnd();
}

// Puts back, newest first, the records the open update changed, as its
// journal saved them. Needs no growth and no new slot memory: the records
// fitted below the update's high-water mark before, and the free slots
// there are reserved.
void SharedTableWriter::rollBack() {
  recovering_ = true;
  try {
    for (U32 i = journalUsed_; i-- > 0;) {
      std::memcpy(undoRecord_.data(), map_->journalRecord(i), layout_.recordSize);
      if (loadRelaxed(map_->journalFlags(i)) & journalPresent) put(undoRecord_.data());
      else take(keys_.of(undoRecord_.data()), scratch_.data());
    }
  } catch (...) {
    recovering_ = false;
    throw;
  }
  recovering_ = false;
}

void SharedTableWriter::refuseIfBroken() const {
  if (!broken_.empty())
    throw SharedFileException(fmt::format("{}: this writer could not undo a failed update ({}); the next writer "
                                          "of the table undoes it",
                                          path_, broken_));
}

void SharedTableWriter::updateBegin() {
  BASIS_ASSERT(!inBracket_, sourcePath);
  refuseIfBroken();
  inBracket_ = true;
  updateHighWater_ = highWater_;
  storeRelaxed(map_->header().updateCounter, counter_ + 1);
  std::atomic_thread_fence(std::memory_order_release);
}

// The counter goes even before the journal empties: a writer stopped in
// between leaves a complete update and a journal that the next one drops.
// A table that the update left mostly empty shrinks after it, outside any
// update.
void SharedTableWriter::updateEnd() {
  BASIS_ASSERT(inBracket_, sourcePath);
  inBracket_ = false;
  counter_ += 2;
  storeRelease(map_->header().updateCounter, counter_);
  storeOrder();
  if (journalUsed_ != 0) {
    journalUsed_ = 0;
    storeRelease(map_->header().journalCount, 0);
  }
  maybeShrink();
}

// An undo that fails all the same (damage met on the way) leaves the update
// open, as a killed writer would: its journal is intact for the next writer.
void SharedTableWriter::updateAbort() {
  BASIS_ASSERT(inBracket_, sourcePath);
  try {
    rollBack();
  } catch (const std::exception& e) {
    inBracket_ = false;
    broken_ = e.what();
    reportCorruption(fmt::format("an update could not be undone: {}", broken_));
    return;
  }
  updateEnd();
}

void SharedTableWriter::publishCounts() {
  storeRelaxed(map_->header().occupancy, occupancy_);
  storeRelaxed(map_->header().tombstones, tombstones_);
  storeRelease(map_->header().highWater, highWater_);
}

// Saves the record under key as it was before this update (old, or
// nothing) the first time the update changes it. The entry is complete
// before the count takes it in, and the count is raised before the table
// changes.
void SharedTableWriter::journal(const U8* key, const U8* old) {
  if (recovering_) return;
  for (U32 i = 0; i < journalUsed_; ++i)
    if (keys_.same(keys_.of(map_->journalRecord(i)), key)) return;
  BASIS_ASSERT_TEXT(journalUsed_ < journalEntries, "journalUsed_ < journalEntries && \"update too large\"",
                    sourcePath, __PRETTY_FUNCTION__);
  U8* entry = map_->journalRecord(journalUsed_);
  if (old) {
    std::memcpy(entry, old, layout_.recordSize);
  } else {
    std::memset(entry, 0, layout_.recordSize);
    std::memcpy(entry + layout_.keyOffset, key, layout_.keySize);
  }
  const U32 flags = old ? journalPresent : 0;
  map_->journalFlags(journalUsed_) = flags;
  map_->journalCheck(journalUsed_) = journalChecksum(counter_ + 1, journalUsed_, flags, entry, layout_.recordSize);
  storeOrder();
  storeRelease(map_->header().journalCount, ++journalUsed_);
  storeOrder();
}

// The update in progress goes with a new generation: its counter and its
// journal, written before the generation is published.
void SharedTableWriter::carryUpdateInto(Mapping& next) const {
  Header& h = next.header();
  h.updateCounter = loadRelaxed(map_->header().updateCounter);
  h.journalCount = journalUsed_;
  for (U32 i = 0; i < journalUsed_; ++i) {
    next.journalFlags(i) = map_->journalFlags(i);
    next.journalCheck(i) = map_->journalCheck(i);
    std::memcpy(next.journalRecord(i), map_->journalRecord(i), layout_.recordSize);
  }
}

}  // namespace Depot::sharedfile
