// Generations: the table's file is replaced, never resized, when the table
// grows or shrinks.
//
// A new generation is built complete under its own name (every slot below
// the high-water mark at the same number, a fresh index without tombstones,
// the update in progress carried over, the table's mode), then published with one release
// store of its number in the old header (successor), then renamed over the
// table's name. What a reader may assume: a successor it sees is complete;
// until the rename the name still leads to the old file, whose mapping stays
// valid as long as the reader holds it. A writer stopped between the store
// and the rename leaves the new file in place under its generation name,
// and the next writer puts it in place before anything else.
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Depot/FaultInjection.h"
#include "Depot/SharedTableWriter.h"

namespace Depot::sharedfile {

// Created under a temporary name and linked to the table's name, so that a
// table is never seen half-created; nullptr when another process created
// the table first.
std::unique_ptr<Mapping> SharedTableWriter::createFirstGeneration(const RecordLayout& layout, const Directory& dir,
                                                                  const TablePath& where,
                                                                  const SharedTableOptions& options) {
  const Geometry g = geometryFor(layout, options.capacity, options.maxEntries);
  const std::string base = baseName(where), file = fmt::format("{}.new-{}", base, getpid());
  dir.remove(file);
  auto m = Mapping::create(dir, file, layout, g, g.capacity, 1, options.mode);
  if (linkat(dir.fd(), file.c_str(), dir.fd(), base.c_str(), 0) != 0) {
    const int err = errno;
    dir.remove(file);
    if (err == EEXIST) return nullptr;
    throw SharedFileException(fmt::format("cannot create {}: {}", where.path, std::strerror(err)));
  }
  dir.remove(file);
  return m;
}

// A table that is full, or whose index is full of tombstones, is rebuilt
// with room for half as many records again.
void SharedTableWriter::grow() {
  const U64 wanted = std::max(loadRelaxed(map_->header().minCapacity),
                              (occupancy_ + 1) * growNumerator / growDenominator + 1);
  const U64 top = std::max(highWater_, updateHighWater_);
  const Geometry g = geometryFor(layout_, std::max(wanted, top), options_.maxEntries);
  if (g.capacity <= occupancy_ || g.capacity < top) throw TableFullException(occupancy_, capacity(), path_);
  rebuild(g);
}

// A table at most an eighth full, whose records lie in its first half,
// moves to a generation at most half its size (never below its first one).
void SharedTableWriter::maybeShrink() {
  const U64 cap = capacity();
  const U64 floor = loadRelaxed(map_->header().minCapacity);
  if (occupancy_ * 8 >= cap || highWater_ * 2 > cap || cap <= floor) return;
  Geometry g = geometryFor(layout_, std::max({floor, occupancy_ * 2, highWater_}), options_.maxEntries);
  if (g.capacity * 2 > cap) return;
  try {
    rebuild(g);
  } catch (const std::exception& e) {
    Basis::debugHandler("DepotShared").logf(0, "{}: not shrunk: {}", path_, e.what());
  }
}

void SharedTableWriter::rebuild(const Geometry& g) {
  const U64 top = highWater_;
  const U64 gen = map_->generation() + 1;
  const std::string file = generationFileName(base_, gen);
  dir_.remove(file);
  // The table's own mode, whatever the options of the writer that reopened it say.
  auto next = Mapping::create(dir_, file, layout_, g, loadRelaxed(map_->header().minCapacity), gen, map_->mode());
  U64 kept = 0;
  bool dropped = false;
  try {
    next->copySlots(*map_, top);
    // An update in progress may put records back below its own high-water
    // mark when it is undone.
    if (inBracket_) next->reserveSlots(updateHighWater_);
    // The slots are read where they are mapped already: the new
    // generation's pages are mapped only as the writer comes to them.
    kept = buildIndex(*next, *map_, keys_, top, occupancy_, [this, &dropped](U64 slot) {
      reportCorruption(fmt::format("dropped slot {}, a second record under the key of another", slot));
      dropped = true;
    });
  } catch (...) {
    unlinkat(dir_.fd(), file.c_str(), 0);
    throw;
  }
  carryUpdateInto(*next);
  Header& h = next->header();
  h.occupancy = kept;
  h.highWater = top;
  storeRelease(map_->header().successor, gen);
  if (int err = injectedFailure(EIO) ? EIO
                : renameat(dir_.fd(), file.c_str(), dir_.fd(), base_.c_str()) != 0 ? errno
                                                                                   : 0) {
    storeRelease(map_->header().successor, 0);
    unlinkat(dir_.fd(), file.c_str(), 0);
    throw SharedFileException(fmt::format("cannot put generation {} in place of {}: {}", gen, path_, std::strerror(err)));
  }
  const std::unique_ptr<Mapping> old = std::exchange(map_, std::move(next));
  tombstones_ = 0;
  // The old generation holds the same slots, unless the index dropped one.
  rescan(top, dropped ? *map_ : *old);
}

}  // namespace Depot::sharedfile
