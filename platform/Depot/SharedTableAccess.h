#pragma once
// Who may touch a table's files, and how they are reached. Internal to Depot.
//
// What the rest of Depot may assume of a Directory: its descriptor is the
// directory that was checked (owned by this process's effective user, by
// root or by a user that $DEPOT_TRUSTED_USERS names, not writable by every
// user unless sticky), reached from the depot
// root without following a symbolic link. Every file of the table is opened,
// linked, renamed and removed relative to that descriptor, so a name another
// user swaps in after the check leads nowhere. A file it opens is a regular
// file, opened without blocking, so that a FIFO or a device in a table's
// place is refused before anything can wait on it.
//
// The writer lock is not on the table file (any reader can lock a file it
// may read) but on `<table>.lock`, a file of mode 0600 that only the table's
// owner can open. Readers tell whether the writer lives by the pid and start
// time it records in the table's header, never by the lock.
#include <optional>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"

namespace Depot::sharedfile {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class Directory {
 public:
  // The checked directory holding where's file. With createMode, missing
  // directories are created with it; without, nullopt when one is missing.
  // Raises SharedFileException for a directory refused or not reachable.
  static std::optional<Directory> open(const TablePath& where, std::optional<U32> createMode);
  Directory(Directory&& o) noexcept : fd_(o.fd_), path_(std::move(o.path_)) { o.fd_ = -1; }
  Directory& operator=(Directory&&) = delete;
  ~Directory();

  int fd() const { return fd_; }
  std::string pathOf(const std::string& name) const { return path_ + "/" + name; }

  // Opens the regular file `name` (flags O_RDONLY or O_RDWR, maybe with
  // O_CREAT | O_EXCL); -1 when it is absent and not created. Raises
  // SharedFileException naming the file for a symbolic link, a file that is
  // not regular, a refused permission, and (own) a file of another user.
  int openFile(const std::string& name, int flags, const char* purpose, bool own, U32 mode = 0600) const;
  // Whether something is named `name` here; raises when that cannot be told.
  bool has(const std::string& name) const;
  // Raises SharedFileException unless `name` is absent or a regular file.
  void requireRegular(const std::string& name) const;
  // Removes `name` (absent is fine); raises when it cannot.
  void remove(const std::string& name) const;
  // Regular files that a writer of the table `base` left: base.gN, and
  // base.new-PID of a process that is gone.
  std::vector<std::string> leftovers(const std::string& base) const;

 private:
  Directory(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  std::string refusal(const std::string& name, const char* purpose, int err) const;
  int fd_;
  std::string path_;
};

// A process as a table records it: its pid and its start time (clock ticks
// after boot, /proc/PID/stat field 22), since a pid alone may have been
// reused by another process.
struct ProcessId {
  U32 pid = 0;
  U64 start = 0;
};
ProcessId thisProcess();
bool alive(const ProcessId& p);

// The writer lock of the table `base` in dir, held while the object lives.
class WriterLock {
 public:
  // Raises WriterBusyException "PATH BUSY (pid N)" while another process
  // holds it. Without create, an absent lock file gives an empty lock.
  static WriterLock take(const Directory& dir, const std::string& base, const std::string& path, const char* busy,
                         bool create);
  WriterLock(WriterLock&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
  WriterLock& operator=(WriterLock&&) = delete;
  ~WriterLock();
  bool held() const { return fd_ >= 0; }

 private:
  explicit WriterLock(int fd) : fd_(fd) {}
  int fd_;
};
inline std::string lockFileName(const std::string& base) { return base + ".lock"; }

}  // namespace Depot::sharedfile
