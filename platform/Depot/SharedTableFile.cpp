// Table files: their validation, creation and mapping. A Mapping exists
// only for a file whose header matched its checksum, the record layout and
// the file's length; its geometry is that validated copy, never re-read.
#include "Depot/SharedTableFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Depot/FaultInjection.h"

namespace Depot::sharedfile {
namespace {

constexpr char fileMagic[8] = {'D', 'E', 'P', 'O', 'T', 'T', 'B', 'L'};
// Version 2: keyHash over the key bytes, tagged linear-probing index with
// tombstones and scaled home entries, sequence word at the end of each slot,
// undo journal after the header. Version 3: the files' mode in the header,
// a checksum in each journal entry, the writer's start time beside its pid.
constexpr U32 formatVersion = 3;
constexpr U32 byteOrderMark = 0x01020304;
constexpr U64 maxReserveChunk = U64(1) << 18;

U64 roundUp(U64 v, U64 to) { return (v + to - 1) / to * to; }

#ifndef MADV_COLLAPSE
#define MADV_COLLAPSE 25
#endif
// A huge page: a file mapped from a multiple of it can be read through one
// TLB entry per huge page rather than one per 4 KiB page.
constexpr U64 hugePageBytes = U64(2) << 20;

// Maps the file at an address that is a multiple of hugePageBytes, as the
// file offsets are, so that its memory can be mapped in huge pages (see
// useHugePages): a lookup reads a dozen records on random pages of tables
// far larger than the TLB reaches, and on 4 KiB pages each read waits for
// a page walk as well. (A file too small for a huge page is aligned all the
// same: it costs a moment's address space, and one path serves every file.)
void* mapShared(int fd, U64 bytes, int prot) {
  const U64 span = bytes + hugePageBytes;
  void* area = mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) return MAP_FAILED;
  U8* const start = static_cast<U8*>(area);
  U8* const aligned = reinterpret_cast<U8*>(roundUp(reinterpret_cast<uintptr_t>(start), hugePageBytes));
  void* p = mmap(aligned, bytes, prot, MAP_SHARED | MAP_FIXED, fd, 0);
  if (p == MAP_FAILED) {
    const int err = errno;
    munmap(area, span);
    errno = err;
    return MAP_FAILED;
  }
  // The reservation around the mapping goes back.
  if (aligned > start) munmap(start, U64(aligned - start));
  U8* const end = aligned + roundUp(bytes, pageBytes);
  if (end < start + span) munmap(end, U64(start + span - end));
  return p;
}

std::string typeText(std::string_view name, U32 size, U32 keyOffset, U32 keySize) {
  return fmt::format("{} records ({} bytes, key of {} bytes at {})", name, size, keySize, keyOffset);
}

// The header read from the file (not through the mapping), checked against
// the layout and the file's length.
Geometry validatedGeometry(const Header& h, U64 fileBytes, const std::string& path, const RecordLayout& layout) {
  if (std::memcmp(h.magic, fileMagic, sizeof fileMagic) != 0)
    throw SharedFileException(fmt::format("{}: not a Depot table (bad magic)", path));
  if (h.byteOrder != byteOrderMark)
    throw SharedFileException(fmt::format("{}: written on a host of another byte order", path));
  if (h.version != formatVersion)
    throw SharedFileException(
        fmt::format("{}: table format version {}, this build reads version {}", path, h.version, formatVersion));
  if (h.checksum != headerChecksum(h))
    throw SharedFileException(fmt::format("{}: damaged header (checksum mismatch)", path));
  std::string_view name(h.typeName, strnlen(h.typeName, sizeof h.typeName));
  if (name != layout.typeName || h.recordSize != layout.recordSize || h.keyOffset != layout.keyOffset ||
      h.keySize != layout.keySize)
    throw SharedFileException(fmt::format("{}: holds {}, expected {}", path,
                                          typeText(name, h.recordSize, h.keyOffset, h.keySize),
                                          typeText(layout.typeName, layout.recordSize, layout.keyOffset,
                                                   layout.keySize)));
  bool sane = h.capacity >= 1 && h.capacity <= maxCapacity && h.minCapacity <= maxCapacity &&
              h.stride == strideFor(layout) && h.generation >= 1;
  Geometry g = sane ? geometryOf(layout, h.capacity) : Geometry{};
  if (!sane || g.indexEntries != h.indexEntries || g.slotsOffset != h.slotsOffset || g.fileSize != h.fileSize)
    throw SharedFileException(fmt::format("{}: damaged header (inconsistent sizes)", path));
  if (fileBytes != g.fileSize)
    throw SharedFileException(fmt::format("{}: truncated ({} bytes, its header says {})", path, fileBytes, g.fileSize));
  if ((h.mode & ~0777u) != 0 || h.reserved != 0)
    throw SharedFileException(fmt::format("{}: damaged header (mode {:o})", path, h.mode));
  return g;
}

std::string errnoText(int err) { return std::strerror(err); }

}  // namespace

U32 strideFor(const RecordLayout& layout) { return (layout.recordSize + 3 + 3) & ~3u; }

Geometry geometryOf(const RecordLayout& layout, U64 capacity) {
  Geometry g;
  g.capacity = capacity;
  g.indexEntries = std::max(minIndexEntries, (capacity * indexNumerator + indexDenominator - 1) / indexDenominator);
  g.stride = strideFor(layout);
  g.slotBits = U32(std::bit_width(capacity));
  g.journalStride = 8 + ((layout.recordSize + 7) & ~7u);
  g.journalOffset = roundUp(sizeof(Header), 64);
  g.indexOffset = roundUp(g.journalOffset + U64(journalEntries) * g.journalStride, pageBytes);
  g.slotsOffset = roundUp(g.indexOffset + g.indexEntries * sizeof(U32), pageBytes);
  g.fileSize = g.slotsOffset + roundUp(capacity * g.stride, pageBytes);
  return g;
}

Geometry geometryFor(const RecordLayout& layout, U64 wanted, U64 maxEntries) {
  U64 limit = std::clamp<U64>(maxEntries, 1, maxCapacity);
  return geometryOf(layout, std::clamp<U64>(wanted, 1, limit));
}

Mapping::Mapping(int fd, U8* base, const Geometry& g, U64 generation, U32 mode)
    : fd_(fd), base_(base), geometry_(g), generation_(generation), mode_(mode) {
  struct stat st {};
  if (fstat(fd_, &st) == 0) {
    dev_ = st.st_dev;
    ino_ = st.st_ino;
  }
}

Mapping::~Mapping() {
  munmap(base_, geometry_.fileSize);
  close(fd_);
}

std::unique_ptr<Mapping> Mapping::attach(int fd, const std::string& path, const RecordLayout& layout, bool writable) {
  struct stat st {};
  if (fstat(fd, &st) != 0) {
    int err = errno;
    close(fd);
    throw SharedFileException(fmt::format("cannot examine {}: {}", path, errnoText(err)));
  }
  Header h{};
  if (U64(st.st_size) < pageBytes || pread(fd, &h, sizeof h, 0) != ssize_t(sizeof h)) {
    close(fd);
    throw SharedFileException(
        fmt::format("{}: truncated or not a Depot table ({} bytes; a table has at least {})", path, st.st_size, pageBytes));
  }
  Geometry g;
  try {
    g = validatedGeometry(h, U64(st.st_size), path, layout);
  } catch (...) {
    close(fd);
    throw;
  }
  void* base = injectedFailure(ENOMEM) ? (errno = ENOMEM, MAP_FAILED)
                                       : mapShared(fd, g.fileSize, writable ? PROT_READ | PROT_WRITE : PROT_READ);
  if (base == MAP_FAILED) {
    int err = errno;
    close(fd);
    throw SharedFileException(fmt::format("cannot map {}: {}", path, errnoText(err)));
  }
  return std::unique_ptr<Mapping>(new Mapping(fd, static_cast<U8*>(base), g, h.generation, h.mode));
}

std::unique_ptr<Mapping> Mapping::create(const Directory& dir, const std::string& name, const RecordLayout& layout,
                                         const Geometry& g, U64 minCapacity, U64 generation, U32 mode) {
  const int fd = dir.openFile(name, O_RDWR | O_CREAT | O_EXCL, "create {}", true, mode & 0777);
  auto fail = [&](std::string what, int err) {
    close(fd);
    unlinkat(dir.fd(), name.c_str(), 0);
    return SharedFileException(fmt::format("cannot {} {}: {}", what, dir.pathOf(name), errnoText(err)));
  };
  if (fchmod(fd, mode & 0777) != 0) throw fail("set the mode of", errno);
  if (int err = injectedFailure(ENOSPC)) throw fail("size", err);
  if (ftruncate(fd, off_t(g.fileSize)) != 0) throw fail("size", errno);
  if (int err = injectedFailure(ENOSPC) ? ENOSPC : posix_fallocate(fd, 0, off_t(g.slotsOffset)))
    throw fail("reserve memory for", err);
  if (int err = injectedFailure(ENOMEM)) throw fail("map", err);
  void* base = mapShared(fd, g.fileSize, PROT_READ | PROT_WRITE);
  if (base == MAP_FAILED) throw fail("map", errno);
  auto m = std::unique_ptr<Mapping>(new Mapping(fd, static_cast<U8*>(base), g, generation, mode & 0777));
  m->reservedBytes_ = g.slotsOffset;
  m->populate(0, g.slotsOffset);
  m->useHugePages();

  Header& h = m->header();
  std::memcpy(h.magic, fileMagic, sizeof fileMagic);
  h.version = formatVersion;
  h.byteOrder = byteOrderMark;
  layout.typeName.copy(h.typeName, sizeof h.typeName - 1);
  h.recordSize = layout.recordSize;
  h.keyOffset = layout.keyOffset;
  h.keySize = layout.keySize;
  h.stride = g.stride;
  h.capacity = g.capacity;
  h.minCapacity = minCapacity;
  h.indexEntries = g.indexEntries;
  h.slotsOffset = g.slotsOffset;
  h.fileSize = g.fileSize;
  h.generation = generation;
  h.mode = mode & 0777;
  h.checksum = headerChecksum(h);
  m->writerIs(thisProcess());
  return m;
}

U64 Mapping::residentBytes() const {
  struct stat st {};
  return fstat(fd_, &st) == 0 ? U64(st.st_blocks) * 512 : 0;
}

void Mapping::forEachData(U64 from, U64 to, const std::function<void(U64, U64)>& visit) const {
  while (from < to) {
    const off_t data = lseek(fd_, off_t(from), SEEK_DATA);
    if (data < 0 && errno == ENXIO) return;  // nothing but holes from here on
    if (data < 0) return visit(from, to);    // no way to tell holes: all of it
    if (U64(data) >= to) return;
    const off_t hole = lseek(fd_, data, SEEK_HOLE);
    const U64 end = hole < 0 ? to : std::min(U64(hole), to);
    visit(U64(data), end);
    from = end;
  }
}

// The pid guards the pair: it is read again after the start time, and a
// pair caught while it changes counts as a writer at work.
bool Mapping::writerAttached() const {
  Header& h = header();
  const U32 pid = loadAcquire(h.writerPid);
  const U64 start = loadAcquire(h.writerStart);
  std::atomic_thread_fence(std::memory_order_acquire);
  if (loadRelaxed(h.writerPid) != pid) return true;
  return alive({pid, start});
}

void Mapping::writerIs(const ProcessId& p) {
  Header& h = header();
  storeRelease(h.writerPid, 0);
  storeRelease(h.writerStart, p.start);
  storeRelease(h.writerPid, p.pid);
}

// Memory is reserved in steps of about 1/64 of the slot area, so that a
// small table holds little and a large one reserves rarely.
void Mapping::reserveSlots(U64 slots) {
  U64 chunk = roundUp(std::clamp(geometry_.capacity * geometry_.stride / 64, pageBytes, maxReserveChunk), pageBytes);
  U64 want = std::min(geometry_.fileSize, roundUp(geometry_.slotsOffset + slots * geometry_.stride, chunk));
  if (want <= reservedBytes_) return;
  if (int err = injectedFailure(ENOSPC) ? ENOSPC : posix_fallocate(fd_, off_t(reservedBytes_), off_t(want - reservedBytes_)))
    throw Basis::SystemException(fmt::format("cannot reserve {} bytes of shared memory: {}", want, errnoText(err)));
  populate(reservedBytes_, want);
  reservedBytes_ = want;
  useHugePages();
}

void Mapping::copySlots(const Mapping& from, U64 slots) {
  const U8* src = from.slot(0);
  const U64 bytes = slots * geometry_.stride;
  for (U64 done = 0; done < bytes;) {
    ssize_t n = injectedFailure(ENOSPC) ? (errno = ENOSPC, -1)
                                        : pwrite(fd_, src + done, bytes - done, off_t(geometry_.slotsOffset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      throw Basis::SystemException(fmt::format("cannot copy {} bytes of shared memory: {}", bytes,
                                               errnoText(n < 0 ? errno : ENOSPC)));
    done += U64(n);
  }
  // The copied pages are in the file's memory, mapped into this process
  // as the writer touches them: most of a large table's slots are not
  // visited again before the next generation.
  reservedBytes_ = std::max(reservedBytes_, geometry_.slotsOffset + bytes);
  useHugePages();
}

// Maps reserved memory at once rather than a page fault at a time. Only an
// optimisation: a kernel without MADV_POPULATE_WRITE faults pages in later.
void Mapping::populate(U64 from, U64 to) {
  from -= from % pageBytes;
  madvise(base_ + from, to - from, MADV_POPULATE_WRITE);
}

// Asks the kernel to move the reserved memory, in whole huge pages not
// asked before, into huge pages (MADV_COLLAPSE, Linux 6.1 and later; it
// does so whatever the system's default for shared memory, which is mostly
// "never"). Every process that maps the file from a huge-page boundary then
// maps them whole. Only reserved memory is given, which it holds already:
// a hole would be filled. Only an optimisation: without the call, or
// without free huge pages, the file stays in 4 KiB pages.
void Mapping::useHugePages() {
  if (reinterpret_cast<uintptr_t>(base_) % hugePageBytes != 0) return;
  const U64 end = reservedBytes_ / hugePageBytes * hugePageBytes;
  if (end <= hugeBytes_) return;
  madvise(base_ + hugeBytes_, end - hugeBytes_, MADV_COLLAPSE);
  hugeBytes_ = end;
}

std::string generationFileName(const std::string& base, U64 generation) { return fmt::format("{}.g{}", base, generation); }

U64 headerChecksum(const Header& h) {
  const U8* p = reinterpret_cast<const U8*>(&h);
  U64 sum = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < offsetof(Header, checksum); ++i) sum = (sum ^ p[i]) * 0x100000001b3ull;
  return sum;
}

namespace {

constexpr U32 fnvPrime32 = 0x01000193u;
// The prime to the powers 0..8: a zero byte leaves the sum only multiplied
// by the prime, so a run of k of them is one multiplication by prime^k.
constexpr std::array<U32, 9> fnvPowers32 = [] {
  std::array<U32, 9> p{1};
  for (size_t k = 1; k < p.size(); ++k) p[k] = p[k - 1] * fnvPrime32;
  return p;
}();

// FNV-1a (32 bits) over the 8 bytes of w in memory order. Each byte costs
// a multiplication that waits for the one before; the zero bytes at either
// end of the word (most of a record's words are zero or end in zeros) cost
// one between them.
inline U32 fnvWord(U32 sum, U64 w) {
  if (w == 0) return sum * fnvPowers32[8];
  const U32 low = U32(std::countr_zero(w)) / 8, high = U32(std::countl_zero(w)) / 8;
  sum *= fnvPowers32[low];
  w >>= 8 * low;
  for (U32 n = 8 - low - high; n > 0; --n, w >>= 8) sum = (sum ^ U32(w & 0xFF)) * fnvPrime32;
  return sum * fnvPowers32[high];
}

}  // namespace

// Byte for byte FNV-1a; the words only save the multiplications of zeros.
U32 journalChecksum(U64 updateCounter, U32 entry, U32 flags, const U8* record, U32 recordSize) {
  static_assert(std::endian::native == std::endian::little);
  U32 sum = fnvWord(0x811c9dc5u, updateCounter);
  sum = fnvWord(sum, U64(entry) | U64(flags) << 32);
  U32 at = 0;
  for (; at + 8 <= recordSize; at += 8) {
    U64 w;
    std::memcpy(&w, record + at, 8);
    sum = fnvWord(sum, w);
  }
  for (; at < recordSize; ++at) sum = (sum ^ record[at]) * fnvPrime32;
  return sum;
}

}  // namespace Depot::sharedfile
