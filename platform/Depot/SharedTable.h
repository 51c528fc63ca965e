#pragma once
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Depot/Table.h"

namespace Depot {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

struct SharedTableOptions {
  U64 capacity = 1024;               // records the first generation holds; the table never shrinks below it
  U64 maxEntries = (U64(1) << 31) - 1;  // growth stops here; a new record beyond raises TableFullException
  // Permission bits of a new table's files (directories get x where r is). The table keeps them in its header:
  // every later generation gets them, whatever the options of the writer that reopens it.
  U32 mode = 0644;
};

struct SharedReaderOptions {
  U32 stuckAfterMs = 5000;  // how long a slot may stay busy under a live writer before WriterStuckException
};

// Where a table's file lies: `name`, one or more plain parts, under the
// directory `root`. The root is taken as the caller gives it (symbolic links
// and all); below it nothing is: every part of the name is opened without
// following a symbolic link, and every directory on the way must belong to
// this process's user or to root and be writable by all only when sticky.
struct TablePath {
  TablePath(std::string root, std::string name);
  // A bare path (implicit, so that a path names a table as it always did):
  // the file under its own directory.
  TablePath(const std::string& path);
  TablePath(const char* path) : TablePath(std::string(path)) {}
  std::string root;
  std::string name;
  std::string path;  // root/name, for messages
};

struct SharedTableStats {
  U64 generation = 0;
  U64 capacity = 0;       // records this generation holds
  U64 occupancy = 0;
  U64 highWater = 0;      // slots in use are below it
  U64 indexEntries = 0;
  U64 tombstones = 0;     // index entries of removed keys, which probes pass over
  U64 fileBytes = 0;      // the file's length
  U64 residentBytes = 0;  // memory the file holds (blocks allocated)
  U64 updateCounter = 0;
  U32 writerPid = 0;         // the writer the header names (0: none)
  bool writerAlive = false;  // whether that writer is alive (a killed one stays named)
};

// A keyed table of fixed-size records in one file, mapped read-write by its
// single writer process and read-only by any number of reader processes.
// Readers copy records under a per-slot sequence word, so they never see a
// half-written record; lookups take no lock and make no system call. The
// writer grows (and shrinks) the table by building a new generation of the
// file and publishing it with one store in the old one; readers move over on
// their next call and the old mapping stays valid until then. Slot numbers
// (the iteration hints) survive removal, growth and shrinking.
//
// Every change belongs to an update (a bracket, or the change alone). The
// writer journals the old records of the update in the file first, so a
// writer killed at any point leaves a file that the next writer brings back
// to the records of the last complete update.
//
// One object serves one thread at a time (as the entity that owns it).
// The 4-byte words of a record read in place (SharedTable::readInPlace),
// each loaded whole as it is asked for, so that a reader that needs a few
// of a large record's words loads only those.
class RecordWords {
 public:
  explicit RecordWords(const U32* words) : words_(words) {}
  U32 operator[](U32 i) const { return std::atomic_ref<U32>(const_cast<U32&>(words_[i])).load(std::memory_order_relaxed); }

 private:
  const U32* words_;
};

// What a caller of readInPlace does with the words it is shown.
class InPlaceRead {
 public:
  virtual bool operator()(const RecordWords& words) const = 0;

 protected:
  ~InPlaceRead() = default;
};

class SharedTable : public Table {
 public:
  // Creates the file at path (and missing directories), or reopens it when a
  // writer restarts, undoing an update the previous writer left unfinished.
  // Raises WriterBusyException while another writer holds the file and
  // SharedFileException for a file that cannot be used.
  // The writer lock is a 0600 file beside the table (`<table>.lock`), so
  // that no other user can hold it against the writer.
  static std::unique_ptr<SharedTable> writerNew(const RecordLayout& layout, const TablePath& where,
                                                const SharedTableOptions& options = {});
  // Maps an existing file read-only; every write raises AccessException.
  // A reader reads around an update that a writer which is gone left open,
  // as if the next writer had already undone it.
  static std::unique_ptr<SharedTable> readerNew(const RecordLayout& layout, const TablePath& where,
                                                const SharedReaderOptions& options = {});

  virtual U64 generation() const = 0;
  virtual SharedTableStats stats() const = 0;
  // Shows `read` the record at `where` (as for readAt, whatever its key) in
  // place instead of copying it out: true when `read` answered true about a
  // whole, live record that did not change while it looked. False (the
  // slot is free or changing, the table has moved on, or this is the
  // writer, which copies) sends the caller to find; what `read` kept from
  // a false answer means nothing.
  virtual bool readInPlace(U64 /*where*/, const InPlaceRead& /*read*/) const { return false; }
};

// Whether something has the table's name (a file that is no table is then
// refused by whoever opens it). Raises SharedFileException for a directory
// that is refused or that this process may not search.
bool sharedTableExists(const TablePath& where);
// What a writer reopening the table would refuse (with the reason) or
// repair, one line each naming the file; empty for a sound table. Only reads.
std::vector<std::string> sharedTableProblems(const RecordLayout& layout, const TablePath& where);
// Removes the table file, its lock file and any leftovers of an interrupted
// growth: regular files under exactly those names, nothing else. Readers
// that have it mapped keep working on their mapping. Raises
// SharedFileException while a writer holds the table, and before removing
// anything when one of the names is not a regular file.
void sharedTableDrop(const TablePath& where);
// Removes the directory where.name under where.root when it is empty.
void sharedDirectoryRemove(const TablePath& where);

}  // namespace Depot
