#pragma once
// Records, temporary roots and raw file access for the shared-table tests.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "Depot/SharedTable.h"
#include "Depot/SharedTableFile.h"

namespace depottest {

#pragma pack(push, 1)
// 29 bytes, key of 5 bytes at 4 (the IPv4 node's shape): its last byte
// shares the slot's sequence word.
struct Rec {
  U32 version;
  U8 key[5];
  U8 fill[20];
};
// 67 bytes, key of 17 bytes at 16 (the IPv6 node's shape).
struct Rec6 {
  U32 version[4];
  U8 key[17];
  U8 fill[34];
};
#pragma pack(pop)
static_assert(sizeof(Rec) == 29 && sizeof(Rec6) == 67);

inline Depot::RecordLayout recLayout() { return {"test::Rec", sizeof(Rec), 4, 5}; }
inline Depot::RecordLayout rec6Layout() { return {"test::Rec6", sizeof(Rec6), 16, 17}; }

template <class R>
void keyOf(U32 k, R& r) {
  for (size_t i = 4; i < sizeof r.key; ++i) r.key[i] = U8(k * 7 + i);
  r.key[0] = U8(k >> 24);
  r.key[1] = U8(k >> 16);
  r.key[2] = U8(k >> 8);
  r.key[3] = U8(k);
}

inline U8 fillByte(U32 k, U32 version, size_t i) { return U8(k * 31 + version * 7 + i * 13); }

// A record whose every byte follows from its key and version, so that a
// record mixed from two writes is recognisable.
template <class R>
R makeRec(U32 k, U32 version) {
  R r{};
  keyOf(k, r);
  std::memcpy(&r, &version, sizeof version);
  for (size_t i = 0; i < sizeof r.fill; ++i) r.fill[i] = fillByte(k, version, i);
  return r;
}

template <class R>
U32 keyNumber(const R& r) {
  return (U32(r.key[0]) << 24) | (U32(r.key[1]) << 16) | (U32(r.key[2]) << 8) | r.key[3];
}

template <class R>
U32 versionOf(const R& r) {
  U32 v;
  std::memcpy(&v, &r, sizeof v);
  return v;
}

template <class R>
bool selfConsistent(const R& r) {
  R expect = makeRec<R>(keyNumber(r), versionOf(r));
  return std::memcmp(&expect, &r, sizeof r) == 0;
}

// A per-test directory under /dev/shm, removed with everything in it.
class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/dev/shm/depot-test-XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    path_ = tmpl;
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Runs fn in a child process; its result is the child's exit status (fn's
// return value, or 100 plus the signal that killed it).
inline int inChild(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

// The file mapped read-write, to damage it behind the table's back, laid
// out as its header says.
class RawFile {
 public:
  RawFile(const std::string& path, const Depot::RecordLayout& layout) {
    fd_ = open(path.c_str(), O_RDWR);
    struct stat st {};
    fstat(fd_, &st);
    size_ = size_t(st.st_size);
    base_ = static_cast<U8*>(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
    geometry_ = Depot::sharedfile::geometryOf(layout, header().capacity);
  }
  ~RawFile() {
    munmap(base_, size_);
    close(fd_);
  }
  Depot::sharedfile::Header& header() const { return *reinterpret_cast<Depot::sharedfile::Header*>(base_); }
  const Depot::sharedfile::Geometry& geometry() const { return geometry_; }
  U32& indexEntry(U64 i) const { return reinterpret_cast<U32*>(base_ + geometry_.indexOffset)[i]; }
  U32& journalFlags(U32 i) const { return *reinterpret_cast<U32*>(journalEntry(i)); }
  U8* journalRecord(U32 i) const { return journalEntry(i) + 8; }
  U32& seqWord(U64 slot) const {
    return *reinterpret_cast<U32*>(base_ + geometry_.slotsOffset + (slot + 1) * geometry_.stride - 4);
  }
  // The index entry that names `slot` under `hash`, and where a probe for
  // the hash starts.
  U32 entryFor(U64 hash, U64 slot) const { return (U32(hash) << geometry_.slotBits) | U32(slot + 1); }
  U64 home(U64 hash) const { return Depot::sharedfile::homeEntry(hash, geometry_.indexEntries); }

 private:
  U8* journalEntry(U32 i) const { return base_ + geometry_.journalOffset + U64(i) * geometry_.journalStride; }
  int fd_;
  U8* base_;
  size_t size_;
  Depot::sharedfile::Geometry geometry_;
};

}  // namespace depottest
