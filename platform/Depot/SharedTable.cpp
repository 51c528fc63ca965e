// The entry points of shared tables: opening one as its writer or a reader,
// and the table's files as a whole. The reader and the writer themselves
// are in SharedTableReader and SharedTableWriter.
#include "Depot/SharedTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Depot/SharedTableWriter.h"

namespace Depot {
namespace {

using namespace sharedfile;

void checkLayout(const RecordLayout& layout, const std::string& path) {
  if (layout.recordSize == 0 || layout.keySize == 0 || layout.keyOffset + layout.keySize > layout.recordSize ||
      strideFor(layout) > maxStride || layout.typeName.size() >= sizeof(Header::typeName))
    throw Basis::RangeException(fmt::format("{}: bad record layout for {}", path, layout.typeName));
}

}  // namespace

std::unique_ptr<SharedTable> SharedTable::writerNew(const RecordLayout& layout, const std::string& path,
                                                    const SharedTableOptions& options) {
  checkLayout(layout, path);
  makeParentDirectories(path, options.mode);
  return SharedTableWriter::open(layout, path, options);
}

std::unique_ptr<SharedTable> SharedTable::readerNew(const RecordLayout& layout, const std::string& path,
                                                    const SharedReaderOptions& options) {
  checkLayout(layout, path);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SharedFileException(openFailure(path, "reading", errno));
  return std::make_unique<SharedTableReader>(layout, path, Mapping::attach(fd, path, layout, false),
                                             options.stuckAfterMs);
}

bool sharedTableExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> sharedTableProblems(const RecordLayout& layout, const std::string& path) {
  checkLayout(layout, path);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SharedFileException(openFailure(path, "reading", errno));
  try {
    auto m = Mapping::attach(fd, path, layout, false);
    if (m->writerAttached()) return {};  // its writer has checked it, and it changes as it is read
    Survey found = surveyForWriter(*m, layout, path);
    for (std::string& repair : found.repairs) repair = fmt::format("{}: {}; its next writer repairs it", path, repair);
    return found.repairs;
  } catch (const SharedFileException& e) {
    return {fmt::format("{}; its writer refuses it", e.what())};
  }
}

void sharedTableDrop(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    bool held = writerLockHeld(fd);
    U32 pid = held ? recordedWriterPid(fd) : 0;
    close(fd);
    if (held) throw SharedFileException(fmt::format("{} is in use by its writer (pid {})", path, pid));
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    throw SharedFileException(fmt::format("cannot remove {}: {}", path, std::strerror(errno)));
  for (const std::string& f : leftoverFiles(path)) unlink(f.c_str());
}

}  // namespace Depot
