#pragma once
#include <memory>
#include <string>
#include <string_view>

#include "Basis/Exception.h"
#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Depot {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// How a fixed-size record type is stored byte for byte: its size and where
// its key lies inside it.
struct RecordLayout {
  std::string typeName;
  U32 recordSize = 0;
  U32 keyOffset = 0;
  U32 keySize = 0;
};

// Damage detected inside a table (a chain that loops or leaves the table, a
// slot index out of range, a bad header).
class DEPOTTRIE_API CorruptionException : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

// No free slot for a new record: "Depot table full (occupancy:{} tableSize:{}) {}".
class DEPOTTRIE_API TableFullException : public Basis::Exception {
 public:
  TableFullException(U64 occupancy, U64 tableSize, std::string_view rootPath);
};

// A write attempted through a table mapped for reading.
class DEPOTTRIE_API AccessException : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

// Raised by the shared-memory tables (SharedTable.h), and so by a trie on
// them. A table file that cannot be created, opened or attached: missing,
// unreadable, truncated, foreign or damaged. The message names the file.
class DEPOTTRIE_API SharedFileException : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

// A second writer for a table whose writer is alive.
class DEPOTTRIE_API WriterBusyException : public SharedFileException {
 public:
  using SharedFileException::SharedFileException;
};

// A reader waited past its deadline for a writer that is alive but keeps a
// slot busy (stopped or hung in the middle of writing it).
class DEPOTTRIE_API WriterStuckException : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

// Key hash shared by every table implementation (the key's own bytes).
DEPOTTRIE_API U64 keyHash(const U8* key, U32 len);

// A keyed table of fixed-size records. Records go in and come out as whole
// copies; absence is a false result, never an exception.
class DEPOTTRIE_API Table {
 public:
  virtual ~Table() = default;

  virtual const RecordLayout& layout() const = 0;
  // The table's root path (its name, or its file under the depot root).
  virtual const std::string& rootPath() const = 0;
  virtual bool isWriter() const = 0;

  // Copies the record under key into out; false when absent.
  // Raises CorruptionException on damage.
  virtual bool find(const U8* key, U8* out) const = 0;
  // Inserts or overwrites the record under its own key.
  // Raises TableFullException, AccessException (reader), CorruptionException.
  virtual void write(const U8* record) = 0;
  // Removes the record under key, copying it into removed; false when absent.
  virtual bool remove(const U8* key, U8* removed) = 0;
  // Hints that key is about to be looked up or written, so that the memory
  // reads of several lookups overlap: prefetch starts fetching the index
  // its lookup reads first; prefetchRecord, called once that has had time
  // to arrive, starts fetching the record the index names and returns where
  // it is, for readAt (0: the index names none; a record it names may still
  // be another key's, or gone). Neither changes anything, waits for a writer
  // or reports damage.
  virtual void prefetch(const U8*) const {}
  virtual U64 prefetchRecord(const U8*) const { return 0; }
  // Reads key's record where prefetchRecord said it is, without the index:
  // true when the record there is key's, whole and live (copied into out).
  // False sends the caller to find, which also answers for a table that
  // does not read by position.
  virtual bool readAt(U64 /*where*/, const U8* /*key*/, U8* /*out*/) const { return false; }
  // Starts fetching the slot at `where` (as for readAt) without asking the
  // index: for a caller that knows where a record lives, because it placed
  // its keys in slot order.
  virtual void prefetchSlot(U64 /*where*/) const {}
  // The stored record under key for a writer to change in place, or nullptr.
  virtual U8* inPlace(const U8* key) = 0;
  // Publishes a record changed in place as one whole change.
  virtual void commit(const U8* inPlaceRecord) = 0;

  // Iteration in the table's own order. The hint is a position that stays
  // meaningful when the record at it is removed. first/from/next return false
  // at the end; `from` starts at the record with that key (false when the key
  // is absent).
  virtual bool iterFirst(U64& hint, U8* out) const = 0;
  virtual bool iterFrom(const U8* key, U64& hint, U8* out) const = 0;
  virtual bool iterNext(U64& hint, U8* out) const = 0;

  // Brackets one logical update (several writes and removals that belong
  // together). The update counter is odd from updateBegin to updateEnd and
  // even at rest; a write or removal outside a bracket is an update of its
  // own. Readers compare the counter before and after a query to know that
  // no update overlapped it. Brackets do not nest. updateAbort closes the
  // bracket with every change made inside it undone, and needs no space or
  // memory to do so; a change that fails by exception has changed nothing
  // itself, so after a failed change inside a bracket, updateAbort brings
  // the table back to where the bracket began.
  virtual void updateBegin() = 0;
  virtual void updateEnd() = 0;
  virtual void updateAbort() = 0;
  virtual U64 updateCounter() const = 0;

  // Damage found by a caller; kept for inspection and logged.
  virtual void reportCorruption(std::string_view message) = 0;
  virtual U64 corruptionCount() const = 0;

  virtual U64 occupancy() const = 0;
  virtual U64 capacity() const = 0;
  // Memory held by the table's records and index.
  virtual U64 bytes() const = 0;
};

// Process-local table: starts at `entries` slots and doubles when full, up to
// maxEntries (then TableFullException). Its root path is `name`.
DEPOTTRIE_API std::unique_ptr<Table> temporaryTableNew(const RecordLayout& layout, std::string name, U64 entries,
                                         U64 maxEntries = U64(1) << 32);

}  // namespace Depot
