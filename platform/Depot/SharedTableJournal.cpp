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
// Readers never look at the journal; they may use the counter to tell that
// no update overlapped a query.
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

}  // namespace

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
    // in place left it complete under its generation name.
    if (U64 successor = loadAcquire(m->header().successor)) {
      const std::string next = generationFileName(base, successor);
      if (renameat(dir.fd(), next.c_str(), dir.fd(), base.c_str()) == 0) continue;
      storeRelease(m->header().successor, 0);
    }
    for (const std::string& f : dir.leftovers(base)) dir.remove(f);
    m->writerIs(thisProcess());
    auto table =
        std::make_unique<SharedTableWriter>(layout, where, options, std::move(dir), std::move(lock), std::move(m));
    table->recover();
    return table;
  }
  throw SharedFileException(fmt::format("{} keeps changing while it is being opened", where.path));
}

// A writer that reopens the table finishes what a stopped one left. Inside
// an update (odd counter) every change was journaled first: slots it was
// changing go back to what they held, the index is rebuilt from the slots,
// and the journal restores the records as they were before the update.
// Outside one, a slot left half-written is damage and is dropped.
void SharedTableWriter::recover() {
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
    else remove(keys_.of(record.data()), scratch_.data());
  }
  recovering_ = false;
  updateEnd();
}

void SharedTableWriter::updateBegin() {
  BASIS_ASSERT(!inBracket_, sourcePath);
  beginUpdate();
  inBracket_ = true;
}

void SharedTableWriter::updateEnd() {
  BASIS_ASSERT(inBracket_, sourcePath);
  inBracket_ = false;
  endUpdate();
}

void SharedTableWriter::beginUpdate() {
  if (inBracket_) return;
  storeRelaxed(map_->header().updateCounter, counter_ + 1);
  std::atomic_thread_fence(std::memory_order_release);
}

// The counter goes even before the journal empties: a writer stopped in
// between leaves a complete update and a journal that the next one drops.
void SharedTableWriter::endUpdate() {
  if (inBracket_) return;
  counter_ += 2;
  storeRelease(map_->header().updateCounter, counter_);
  storeOrder();
  if (journalUsed_ == 0) return;
  journalUsed_ = 0;
  storeRelease(map_->header().journalCount, 0);
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
  map_->journalFlags(journalUsed_) = old ? journalPresent : 0;
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
    std::memcpy(next.journalRecord(i), map_->journalRecord(i), layout_.recordSize);
  }
}

}  // namespace Depot::sharedfile
