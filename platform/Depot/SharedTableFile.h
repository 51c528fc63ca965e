#pragma once
// The file format of shared tables and the mapping of one generation of a
// table file. Internal to Depot.
#include <sys/stat.h>

#include <atomic>
#include <bit>
#include <functional>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"
#include "Depot/SharedTableAccess.h"

namespace Depot::sharedfile {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

static_assert(std::endian::native == std::endian::little, "the slot layout assumes a little-endian host");
static_assert(std::atomic_ref<U64>::is_always_lock_free && std::atomic_ref<U32>::is_always_lock_free);

constexpr U64 pageBytes = 4096;
constexpr U32 maxStride = 512;
constexpr U64 maxCapacity = (U64(1) << 31) - 1;

// Slots hold the records in the order they were allocated (the lowest free
// slot first), so records written together stay together. Each slot is the
// record's bytes followed by a sequence word: the slot's last 4-byte word,
// whose low byte may hold the record's last byte and whose upper 24 bits are
// busy (set while the writer changes the slot), live (the slot holds a
// record) and a version that every change advances.
constexpr U32 seqBusy = 1u << 8;
constexpr U32 seqLive = 1u << 9;
constexpr U32 seqVersionStep = 1u << 10;
constexpr U32 seqVersionMask = ~(seqVersionStep - 1);

// The index is open-addressed (linear probing from the home entry of the
// key's hash, wrapping at the end) with one 32-bit entry per position: 0 for
// empty, the tombstone of a removed key (probes go on past it), else slot + 1
// in the low slotBits and a tag of low hash bits above (the high bits choose
// the home entry), so that a probe rarely visits a slot that does not match.
// Entries never move while a generation lives. There are 5/4 as many entries as slots, and live entries
// and tombstones together fill at most 7/8 of them.
constexpr U64 indexNumerator = 5;
constexpr U64 indexDenominator = 4;
constexpr U64 loadNumerator = 7;
constexpr U64 loadDenominator = 8;
constexpr U64 minIndexEntries = 64;
inline U32 tombstoneEntry(U32 slotBits) { return ~((U32(1) << slotBits) - 1); }
// The home entry of a hash: the hash's high bits scaled to the index, so
// that index order follows hash order.
inline U64 homeEntry(U64 hash, U64 indexEntries) { return U64((unsigned __int128)hash * indexEntries >> 64); }

// A full table is rebuilt with room for half as many records again.
constexpr U64 growNumerator = 3;
constexpr U64 growDenominator = 2;

// The undo journal, after the header: before an update first changes the
// record under a key, the key, whether a record was there and its old bytes
// go into the next entry with their checksum, and only then is the entry
// count raised. An update changes a handful of records; more than
// journalEntries is a bug of the caller.
constexpr U32 journalEntries = 32;
constexpr U32 journalPresent = 1;

struct Header {
  // Written once when the generation is created; covered by the checksum.
  char magic[8];
  U32 version;
  U32 byteOrder;
  char typeName[64];
  U32 recordSize;
  U32 keyOffset;
  U32 keySize;
  U32 stride;
  U64 capacity;
  U64 minCapacity;
  U64 indexEntries;
  U64 slotsOffset;
  U64 fileSize;
  U64 generation;
  U32 mode;      // permission bits of the table's files, which every generation keeps
  U32 reserved;  // zero
  U64 checksum;
  // Set once, by the writer, when a newer generation replaces this one.
  alignas(64) U64 successor;
  // Changed by the writer as it works.
  alignas(64) U64 updateCounter;
  U64 occupancy;
  U64 highWater;
  U64 tombstones;
  U32 writerPid;
  U32 journalCount;
  // The writer's start time beside its pid: readers tell a live writer by
  // both (SharedTableAccess.h). The pid is 0 while the pair changes.
  U64 writerStart;
};

// FNV-1a over the header's bytes before its checksum field.
U64 headerChecksum(const Header& h);
// FNV-1a (32 bits) over a journal entry's update counter, number, flags and
// record: an entry damaged, or left behind by an earlier update, does not
// match.
U32 journalChecksum(U64 updateCounter, U32 entry, U32 flags, const U8* record, U32 recordSize);

inline U64 loadAcquire(const U64& v) { return std::atomic_ref<U64>(const_cast<U64&>(v)).load(std::memory_order_acquire); }
inline U64 loadRelaxed(const U64& v) { return std::atomic_ref<U64>(const_cast<U64&>(v)).load(std::memory_order_relaxed); }
inline void storeRelease(U64& v, U64 x) { std::atomic_ref<U64>(v).store(x, std::memory_order_release); }
inline void storeRelaxed(U64& v, U64 x) { std::atomic_ref<U64>(v).store(x, std::memory_order_relaxed); }
inline U32 loadAcquire(const U32& v) { return std::atomic_ref<U32>(const_cast<U32&>(v)).load(std::memory_order_acquire); }
inline U32 loadRelaxed(const U32& v) { return std::atomic_ref<U32>(const_cast<U32&>(v)).load(std::memory_order_relaxed); }
inline void storeRelaxed(U32& v, U32 x) { std::atomic_ref<U32>(v).store(x, std::memory_order_relaxed); }
inline void storeRelease(U32& v, U32 x) { std::atomic_ref<U32>(v).store(x, std::memory_order_release); }

// Sizes of one generation.
struct Geometry {
  U64 capacity = 0;
  U64 indexEntries = 0;
  U32 stride = 0;
  U32 slotBits = 0;
  U32 journalStride = 0;
  U64 journalOffset = 0;
  U64 indexOffset = 0;
  U64 slotsOffset = 0;
  U64 fileSize = 0;
};
U32 strideFor(const RecordLayout& layout);
// The derived sizes of a generation of `capacity` slots.
Geometry geometryOf(const RecordLayout& layout, U64 capacity);
// The generation holding `wanted` records (at most maxEntries).
Geometry geometryFor(const RecordLayout& layout, U64 wanted, U64 maxEntries);
// The most live entries and tombstones an index of `indexEntries` may hold.
inline U64 indexLimit(U64 indexEntries) { return indexEntries / loadDenominator * loadNumerator; }

// One generation of a table file: validated, mapped, and (for the writer)
// locked. The geometry is the validated copy, never re-read from the file.
class Mapping {
 public:
  // Validates the open file against the layout and maps it; takes fd.
  static std::unique_ptr<Mapping> attach(int fd, const std::string& path, const RecordLayout& layout, bool writable);
  // Creates a new generation file `name` in dir (which must not exist),
  // with the memory of its header and index reserved and mapped, naming
  // this process as its writer.
  static std::unique_ptr<Mapping> create(const Directory& dir, const std::string& name, const RecordLayout& layout,
                                         const Geometry& g, U64 minCapacity, U64 generation, U32 mode);
  ~Mapping();
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  Header& header() const { return *reinterpret_cast<Header*>(base_); }
  const Geometry& geometry() const { return geometry_; }
  U64 generation() const { return generation_; }
  U32 mode() const { return mode_; }
  U32& indexEntry(U64 i) const { return reinterpret_cast<U32*>(base_ + geometry_.indexOffset)[i]; }
  U8* slot(U64 i) const { return base_ + geometry_.slotsOffset + i * geometry_.stride; }
  U32& seqWord(U64 i) const { return *reinterpret_cast<U32*>(slot(i) + geometry_.stride - 4); }
  // Journal entry i: a U32 of flags, its U32 checksum, then the record.
  U32& journalFlags(U32 i) const { return *reinterpret_cast<U32*>(journalEntry(i)); }
  U32& journalCheck(U32 i) const { return *reinterpret_cast<U32*>(journalEntry(i) + 4); }
  U8* journalRecord(U32 i) const { return journalEntry(i) + 8; }
  bool sameFile(const struct stat& st) const { return st.st_dev == dev_ && st.st_ino == ino_; }
  U64 residentBytes() const;
  // Calls visit(from, to) for the parts of [from, to) that may hold bytes
  // other than zero: holes are skipped untouched (on tmpfs a read through
  // the mapping would give them memory).
  void forEachData(U64 from, U64 to, const std::function<void(U64 from, U64 to)>& visit) const;

  // Whether the writer the header names is alive.
  bool writerAttached() const;
  // Names p as the writer in the header (p.pid 0: none).
  void writerIs(const ProcessId& p);
  // Backs the slots below `slots` with memory, so that a full device is an
  // error here rather than a fault later.
  void reserveSlots(U64 slots);
  // Copies the slots below `slots` from another generation (through the
  // file, which backs them with memory in the same pass, without mapping
  // them into this process).
  void copySlots(const Mapping& from, U64 slots);

 private:
  Mapping(int fd, U8* base, const Geometry& g, U64 generation, U32 mode);
  void populate(U64 from, U64 to);
  void useHugePages();
  U8* journalEntry(U32 i) const { return base_ + geometry_.journalOffset + U64(i) * geometry_.journalStride; }
  int fd_;
  U8* base_;
  Geometry geometry_;
  U64 generation_;
  U32 mode_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  U64 reservedBytes_ = 0;
  U64 hugeBytes_ = 0;  // the memory below is in huge pages as far as the kernel could
};

// The file name of generation `generation` of the table named base.
std::string generationFileName(const std::string& base, U64 generation);
// The last part of a table's name: its file's name in its directory.
inline std::string baseName(const TablePath& where) { return where.name.substr(where.name.rfind('/') + 1); }

}  // namespace Depot::sharedfile
