// The entry points of shared tables: opening one as its writer or a reader,
// and the table's files as a whole. The reader and the writer themselves
// are in SharedTableReader and SharedTableWriter.
#include "Depot/SharedTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

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

TablePath::TablePath(std::string r, std::string n)
    : root(std::move(r)), name(std::move(n)), path(fmt::format("{}/{}", root, name)) {}

TablePath::TablePath(const std::string& p) : path(p) {
  const size_t slash = p.rfind('/');
  root = slash == std::string::npos ? "." : slash == 0 ? "/" : p.substr(0, slash);
  name = slash == std::string::npos ? p : p.substr(slash + 1);
}

std::unique_ptr<SharedTable> SharedTable::writerNew(const RecordLayout& layout, const TablePath& where,
                                                    const SharedTableOptions& options) {
  checkLayout(layout, where.path);
  return SharedTableWriter::open(layout, where, options);
}

std::unique_ptr<SharedTable> SharedTable::readerNew(const RecordLayout& layout, const TablePath& where,
                                                    const SharedReaderOptions& options) {
  checkLayout(layout, where.path);
  const std::string base = baseName(where);
  std::optional<Directory> dir = Directory::open(where, std::nullopt);
  const int fd = dir ? dir->openFile(base, O_RDONLY, "open {} for reading", false) : -1;
  if (fd < 0) throw SharedFileException(fmt::format("{} does not exist", where.path));
  auto m = Mapping::attach(fd, where.path, layout, false);
  return std::make_unique<SharedTableReader>(layout, where.path, std::move(*dir), base, std::move(m),
                                             options.stuckAfterMs);
}

bool sharedTableExists(const TablePath& where) {
  std::optional<Directory> dir = Directory::open(where, std::nullopt);
  return dir && dir->has(baseName(where));
}

std::vector<std::string> sharedTableProblems(const RecordLayout& layout, const TablePath& where) {
  checkLayout(layout, where.path);
  std::optional<Directory> dir = Directory::open(where, std::nullopt);
  const int fd = dir ? dir->openFile(baseName(where), O_RDONLY, "open {} for reading", false) : -1;
  if (fd < 0) throw SharedFileException(fmt::format("{} does not exist", where.path));
  try {
    auto m = Mapping::attach(fd, where.path, layout, false);
    if (m->writerAttached()) return {};  // its writer has checked it, and it changes as it is read
    Survey found = surveyForWriter(*m, layout, where.path);
    for (std::string& repair : found.repairs)
      repair = fmt::format("{}: {}; its next writer repairs it", where.path, repair);
    return found.repairs;
  } catch (const SharedFileException& e) {
    return {fmt::format("{}; its writer refuses it", e.what())};
  }
}

// Everything to remove is checked first, under the writer lock, so that a
// refusal leaves every file in place and no writer starts meanwhile.
void sharedTableDrop(const TablePath& where) {
  std::optional<Directory> dir = Directory::open(where, std::nullopt);
  if (!dir) return;
  const std::string base = baseName(where);
  WriterLock lock = WriterLock::take(*dir, base, where.path, "is in use by its writer", false);
  dir->requireRegular(base);
  std::vector<std::string> doomed = dir->leftovers(base);
  doomed.push_back(base);
  if (lock.held()) doomed.push_back(lockFileName(base));
  for (const std::string& name : doomed) dir->remove(name);
}

void sharedDirectoryRemove(const TablePath& where) {
  if (std::optional<Directory> dir = Directory::open(where, std::nullopt))
    unlinkat(dir->fd(), baseName(where).c_str(), AT_REMOVEDIR);
}

}  // namespace Depot
