// Reaching a table's files without trusting what another user can plant,
// the writer lock, and whether a recorded writer still lives (see the
// header for what callers may assume).
#include "Depot/SharedTableAccess.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace Depot::sharedfile {
namespace {

std::string whoText(const struct stat& st) {
  return fmt::format("mode {:04o}, owner {}:{}, this process runs as {}:{}", st.st_mode & 07777, st.st_uid, st.st_gid,
                     geteuid(), getegid());
}

const char* typeText(mode_t mode) {
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISLNK(mode)) return "a symbolic link";
  return "not a regular file";
}

// The number that is all of name after prefix, if any.
std::optional<U64> numberAfter(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix) || name.size() == prefix.size()) return std::nullopt;
  U64 n = 0;
  auto [end, ec] = std::from_chars(name.data() + prefix.size(), name.data() + name.size(), n);
  if (ec != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return n;
}

bool pidExists(U64 pid) { return pid > 0 && pid < (U64(1) << 22) && (kill(pid_t(pid), 0) == 0 || errno == EPERM); }

// Field 22 of /proc/PID/stat, 0 when unreadable; `zombie` when the process
// has ended and only waits to be reaped.
U64 startTimeOf(U32 pid, bool& zombie) {
  std::ifstream in(fmt::format("/proc/{}/stat", pid));
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');  // the command name may hold spaces and parentheses
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 1));
  std::string state, skip;
  fields >> state;
  for (int f = 4; f < 22; ++f) fields >> skip;
  U64 start = 0;
  fields >> start;
  zombie = state == "Z" || state == "X";
  return fields ? start : 0;
}

std::vector<std::string> nameParts(const TablePath& where) {
  std::vector<std::string> parts;
  bool plain = !where.name.empty() && where.name.front() != '/';
  for (size_t at = 0; plain && at <= where.name.size();) {
    const size_t end = std::min(where.name.find('/', at), where.name.size());
    parts.push_back(where.name.substr(at, end - at));
    plain = !parts.back().empty() && parts.back() != "." && parts.back() != "..";
    at = end + 1;
  }
  if (!plain)
    throw Basis::RangeException(
        fmt::format("{}: table name '{}' is not a relative path of plain parts", where.path, where.name));
  return parts;
}

// mkdir -p of the root, whose own parents are the caller's choice.
void makeRoot(const std::string& root, U32 mode) {
  for (size_t at = root.find('/', 1);; at = root.find('/', at + 1)) {
    const std::string dir = root.substr(0, at);
    if (!dir.empty() && mkdir(dir.c_str(), mode) == 0) chmod(dir.c_str(), mode);
    if (at == std::string::npos) return;
  }
}

// Whether $DEPOT_TRUSTED_USERS (user names or ids, separated by commas or
// spaces) names uid: the owners of a depot whose tables this process may
// read although it runs as someone else, such as a routing daemon's user
// for a monitoring tool. Read at every check, so it is never stale.
bool trustedUser(uid_t uid) {
  const char* list = std::getenv("DEPOT_TRUSTED_USERS");
  for (std::string_view rest = list ? list : ""; !rest.empty();) {
    const size_t end = std::min(rest.find_first_of(", "), rest.size());
    const std::string name(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (name.empty()) continue;
    uid_t id = 0;
    const auto [at, err] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (err == std::errc() && at == name.data() + name.size()) {
      if (id == uid) return true;
      continue;
    }
    struct passwd pw {}, *found = nullptr;
    char buf[4096];
    if (getpwnam_r(name.c_str(), &pw, buf, sizeof buf, &found) == 0 && found && found->pw_uid == uid) return true;
  }
  return false;
}

// A directory that another user could change under us is refused.
void checkDirectory(int fd, const std::string& path) {
  struct stat st {};
  if (fstat(fd, &st) != 0)
    throw SharedFileException(fmt::format("cannot examine the directory {}: {}", path, std::strerror(errno)));
  if (st.st_uid != geteuid() && st.st_uid != 0 && !trustedUser(st.st_uid))
    throw SharedFileException(fmt::format(
        "refusing the directory {}: it belongs to another user ({}; DEPOT_TRUSTED_USERS may name that user)", path,
        whoText(st)));
  if ((st.st_mode & S_IWOTH) && !(st.st_mode & S_ISVTX))
    throw SharedFileException(
        fmt::format("refusing the directory {}: every user may write to it and it is not sticky ({})", path, whoText(st)));
}

}  // namespace

std::optional<Directory> Directory::open(const TablePath& where, std::optional<U32> createMode) {
  std::vector<std::string> parts = nameParts(where);
  parts.pop_back();  // the file's own name
  // Created directories are never writable by every user: this process would refuse them.
  const U32 dirMode = createMode.value_or(0) & 0775;
  int fd = ::open(where.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT && createMode) {
    makeRoot(where.root, dirMode);
    fd = ::open(where.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  if (fd < 0) {
    const int err = errno;
    struct stat st {};
    if (err == ENOENT && lstat(where.root.c_str(), &st) == 0)
      throw SharedFileException(fmt::format("the depot root {} is a dangling symbolic link", where.root));
    if (err == ENOENT) return std::nullopt;
    throw SharedFileException(fmt::format("cannot open the directory {}: {}", where.root, std::strerror(err)));
  }
  std::optional<Directory> dir(Directory(fd, where.root));
  checkDirectory(dir->fd_, dir->path_);
  for (const std::string& part : parts) {
    if (createMode) {
      if (mkdirat(dir->fd_, part.c_str(), dirMode) == 0) fchmodat(dir->fd_, part.c_str(), dirMode, 0);
      else if (errno != EEXIST) throw SharedFileException(dir->refusal(part, "create {}", errno));
    }
    const int next = openat(dir->fd_, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0 && errno == ENOENT) return std::nullopt;
    if (next < 0) throw SharedFileException(dir->refusal(part, "open {}", errno));
    const std::string path = dir->pathOf(part);
    dir.emplace(Directory(next, path));
    checkDirectory(dir->fd_, dir->path_);
  }
  return dir;
}

Directory::~Directory() {
  if (fd_ >= 0) close(fd_);
}

// Why `name` could not be reached, named as what it is.
std::string Directory::refusal(const std::string& name, const char* action, int err) const {
  const std::string path = pathOf(name);
  struct stat st {};
  const bool seen = fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
  if (seen && S_ISLNK(st.st_mode)) {
    struct stat target {};
    const bool dangling = fstatat(fd_, name.c_str(), &target, 0) != 0;
    return fmt::format("{} is a {}symbolic link; depot files are never reached through one", path,
                       dangling ? "dangling " : "");
  }
  if (err == EACCES || err == EPERM) {
    if (seen) return fmt::format("cannot {}: permission denied ({})", fmt::format(fmt::runtime(action), path), whoText(st));
    fstat(fd_, &st);
    return fmt::format("cannot {}: permission denied by the directory {} ({})", fmt::format(fmt::runtime(action), path),
                       path_, whoText(st));
  }
  if (err == ENOTDIR && seen) return fmt::format("{} is {}, not a directory", path, typeText(st.st_mode));
  if (err == ENOENT) return fmt::format("{} does not exist", path);
  return fmt::format("cannot {}: {}", fmt::format(fmt::runtime(action), path), std::strerror(err));
}

int Directory::openFile(const std::string& name, int flags, const char* purpose, bool own, U32 mode) const {
  // O_NONBLOCK: opening a FIFO must not wait for a peer before it is refused.
  const int fd = openat(fd_, name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
  if (fd < 0 && errno == ENOENT && !(flags & O_CREAT)) return -1;
  if (fd < 0) throw SharedFileException(refusal(name, purpose, errno));
  struct stat st {};
  std::string problem;
  if (fstat(fd, &st) != 0) problem = fmt::format("cannot examine {}: {}", pathOf(name), std::strerror(errno));
  else if (!S_ISREG(st.st_mode)) problem = fmt::format("{} is {}, not a table file", pathOf(name), typeText(st.st_mode));
  else if (own && st.st_uid != geteuid())
    problem = fmt::format("{} belongs to another user ({}); a writer uses only its own files", pathOf(name), whoText(st));
  if (problem.empty()) return fd;
  close(fd);
  throw SharedFileException(problem);
}

bool Directory::has(const std::string& name) const {
  struct stat st {};
  if (fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return true;
  if (errno == ENOENT) return false;
  throw SharedFileException(refusal(name, "look up {}", errno));
}

void Directory::requireRegular(const std::string& name) const {
  struct stat st {};
  if (fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    throw SharedFileException(refusal(name, "look up {}", errno));
  }
  if (S_ISLNK(st.st_mode)) throw SharedFileException(refusal(name, "look up {}", ELOOP));
  if (!S_ISREG(st.st_mode))
    throw SharedFileException(fmt::format("{} is {}, not a table file", pathOf(name), typeText(st.st_mode)));
}

void Directory::remove(const std::string& name) const {
  if (unlinkat(fd_, name.c_str(), 0) != 0 && errno != ENOENT)
    throw SharedFileException(fmt::format("cannot remove {}: {}", pathOf(name), std::strerror(errno)));
}

std::vector<std::string> Directory::leftovers(const std::string& base) const {
  std::vector<std::string> found;
  const int listed = openat(fd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* d = listed >= 0 ? fdopendir(listed) : nullptr;
  if (!d) {
    if (listed >= 0) close(listed);
    return found;
  }
  while (const dirent* e = readdir(d)) {
    const std::string_view name(e->d_name);
    const std::optional<U64> pid = numberAfter(name, base + ".new-");
    struct stat st {};
    if ((numberAfter(name, base + ".g") || (pid && !pidExists(*pid))) &&
        fstatat(fd_, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))
      found.emplace_back(name);
  }
  closedir(d);
  return found;
}

ProcessId thisProcess() {
  bool zombie = false;
  const U32 pid = U32(getpid());
  return {pid, startTimeOf(pid, zombie)};
}

// Without a readable /proc entry (another pid namespace, hidepid), a pid
// that exists counts as alive.
bool alive(const ProcessId& p) {
  if (p.pid == 0) return false;
  bool zombie = false;
  const U64 start = startTimeOf(p.pid, zombie);
  if (start == 0 || p.start == 0) return pidExists(p.pid);
  return start == p.start && !zombie;
}

namespace {

// The live process named in a held lock file. The holder writes itself there
// just after taking the lock, so a refusal in that moment waits for it.
U32 holderOf(int fd) {
  for (int round = 0; round < 50; ++round) {
    char text[64] = {};
    const ssize_t n = pread(fd, text, sizeof text - 1, 0);
    ProcessId p;
    if (n > 0 && std::sscanf(text, "%u %lu", &p.pid, &p.start) == 2 && alive(p)) return p.pid;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return 0;
}

}  // namespace

WriterLock WriterLock::take(const Directory& dir, const std::string& base, const std::string& path, const char* busy,
                            bool create) {
  const std::string name = lockFileName(base);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const int fd = dir.openFile(name, O_RDWR | (create ? O_CREAT : 0), "open {} for locking", true, 0600);
    if (fd < 0) return WriterLock(-1);
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (fcntl(fd, F_OFD_SETLK, &fl) != 0) {
      const int err = errno;
      const U32 pid = err == EAGAIN || err == EACCES ? holderOf(fd) : 0;
      close(fd);
      if (err != EAGAIN && err != EACCES)
        throw SharedFileException(fmt::format("cannot lock {}: {}", dir.pathOf(name), std::strerror(err)));
      throw WriterBusyException(pid ? fmt::format("{} {} (pid {})", path, busy, pid)
                                    : fmt::format("{} {} (a process that is starting or ending)", path, busy));
    }
    // A drop may have removed the lock file between the open and the lock:
    // a lock on a removed file guards nothing.
    struct stat held {}, named {};
    if (fstat(fd, &held) != 0 || fstatat(dir.fd(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        held.st_ino != named.st_ino || held.st_dev != named.st_dev) {
      close(fd);
      continue;
    }
    if (held.st_mode & 077) fchmod(fd, 0600);
    const ProcessId me = thisProcess();
    const std::string text = fmt::format("{} {}\n", me.pid, me.start);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text.data(), text.size(), 0) != ssize_t(text.size())) {
      const int err = errno;
      close(fd);
      throw SharedFileException(fmt::format("cannot write {}: {}", dir.pathOf(name), std::strerror(err)));
    }
    return WriterLock(fd);
  }
  throw SharedFileException(fmt::format("{} keeps changing while it is being locked", dir.pathOf(name)));
}

WriterLock::~WriterLock() {
  if (fd_ >= 0) close(fd_);
}

}  // namespace Depot::sharedfile
