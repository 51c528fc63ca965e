#pragma once
// The file format of shared tables and the mapping of one generation of a
// table file. Internal to Depot.
#include <sys/stat.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"

namespace Depot::sharedfile {

static_assert(std::endian::native == std::endian::little, "the slot layout assumes a little-endian host");
static_assert(std::atomic_ref<U64>::is_always_lock_free && std::atomic_ref<U32>::is_always_lock_free);

constexpr U64 pageBytes = 4096;
constexpr U64 headerBytes = pageBytes;
constexpr U32 maxStride = 512;
constexpr U64 maxCapacity = (U64(1) << 31) - 1;

// Each slot is the record's bytes followed by a sequence word: the slot's
// last 4-byte word, whose low byte may hold the record's last byte and whose
// upper 24 bits are busy (set while the writer changes the slot), live (the
// slot holds a record) and a version that every change advances.
constexpr U32 seqBusy = 1u << 8;
constexpr U32 seqLive = 1u << 9;
constexpr U32 seqVersionStep = 1u << 10;
constexpr U32 seqVersionMask = ~(seqVersionStep - 1);

// The index is open-addressed (linear probing) with one 32-bit entry per
// position: 0 for empty, else slot + 1 in the low slotBits and a tag (high
// hash bits) above, so that a probe rarely visits a slot that does not match.
// It is kept at most 13/16 full.
constexpr U64 loadNumerator = 13;
constexpr U64 loadDenominator = 16;
constexpr U64 minIndexEntries = 64;

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
  U64 checksum;
  // Set once, by the writer, when a newer generation replaces this one.
  alignas(64) U64 successor;
  // Changed by the writer as it works.
  alignas(64) U64 updateCounter;
  U64 occupancy;
  U64 highWater;
  U32 writerPid;
};
static_assert(sizeof(Header) <= headerBytes);

inline U64 loadAcquire(const U64& v) { return std::atomic_ref<U64>(const_cast<U64&>(v)).load(std::memory_order_acquire); }
inline U64 loadRelaxed(const U64& v) { return std::atomic_ref<U64>(const_cast<U64&>(v)).load(std::memory_order_relaxed); }
inline void storeRelease(U64& v, U64 x) { std::atomic_ref<U64>(v).store(x, std::memory_order_release); }
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
  U64 slotsOffset = 0;
  U64 fileSize = 0;
};
U32 strideFor(const RecordLayout& layout);
// The derived sizes of a generation of `capacity` slots and `indexEntries` index entries.
Geometry geometryOf(const RecordLayout& layout, U64 capacity, U64 indexEntries);
// The smallest generation holding `wanted` records, at most maxEntries.
Geometry geometryFor(const RecordLayout& layout, U64 wanted, U64 maxEntries);

// One generation of a table file: validated, mapped, and (for the writer)
// locked. The geometry is the validated copy, never re-read from the file.
class Mapping {
 public:
  // Validates the open file against the layout and maps it; takes fd.
  static std::unique_ptr<Mapping> attach(int fd, const std::string& path, const RecordLayout& layout, bool writable);
  // Creates a new, locked generation file at `file` (which must not exist).
  static std::unique_ptr<Mapping> create(const std::string& file, const RecordLayout& layout, const Geometry& g,
                                         U64 minCapacity, U64 generation, U32 mode);
  ~Mapping();
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  Header& header() const { return *reinterpret_cast<Header*>(base_); }
  const Geometry& geometry() const { return geometry_; }
  U64 generation() const { return generation_; }
  U32& indexEntry(U64 i) const { return reinterpret_cast<U32*>(base_ + headerBytes)[i]; }
  U8* slot(U64 i) const { return base_ + geometry_.slotsOffset + i * geometry_.stride; }
  U32& seqWord(U64 i) const { return *reinterpret_cast<U32*>(slot(i) + geometry_.stride - 4); }
  bool sameFile(const struct stat& st) const { return st.st_dev == dev_ && st.st_ino == ino_; }
  U64 residentBytes() const;

  // Whether some open file holds the writer lock (a live writer).
  bool writerAttached() const;
  // Backs the slots below `slots` with memory, so that a full device is an
  // error here rather than a fault later.
  void reserveSlots(U64 slots);

 private:
  Mapping(int fd, U8* base, const Geometry& g, U64 generation);
  int fd_;
  U8* base_;
  Geometry geometry_;
  U64 generation_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  U64 reservedBytes_ = 0;
};

// The writer lock is an open-file-description lock over the whole file: it
// goes with the last descriptor of the open file, also when a writer dies.
// takeWriterLock is false when another open file holds it.
bool takeWriterLock(int fd);
bool writerLockHeld(int fd);
// "cannot open FILE for reading: Permission denied (mode 0600, owner 0:0)".
std::string openFailure(const std::string& path, const char* purpose, int err);
// The pid of the writer named in a file's header, or 0 when unreadable.
U32 recordedWriterPid(int fd);
// Creates the missing directories of path's parent.
void makeParentDirectories(const std::string& path, U32 fileMode);
// Names in path's directory left by interrupted growth or creation.
std::vector<std::string> leftoverFiles(const std::string& path);
std::string generationFileName(const std::string& path, U64 generation);

}  // namespace Depot::sharedfile
