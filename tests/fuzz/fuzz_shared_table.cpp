// Shared table files from hostile bytes: attaching a reader validates the
// file, and lookups and a full iteration over whatever passes raise only
// Depot::CorruptionException or Depot::SharedFileException; nothing crashes,
// reads outside the mapping or loops.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"
#include "Depot/SharedTableFile.h"
#include "FuzzCheck.h"
#include "TableInput.h"

namespace {

using Depot::sharedfile::Header, Basis::U8, Basis::U64;

std::string tableDir;
std::string tablePath;

void removeTableDir() { std::filesystem::remove_all(tableDir); }

// The header checksum as the writer computes it.
void refreshHeaderChecksum(std::vector<U8>& file) {
  if (file.size() < sizeof(Header)) return;
  Header h;
  std::memcpy(&h, file.data(), sizeof h);
  const U64 sum = Depot::sharedfile::headerChecksum(h);
  std::memcpy(file.data() + offsetof(Header, checksum), &sum, sizeof sum);
}

void writeTableFile(const std::vector<U8>& file) {
  const int fd = open(tablePath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  fuzzCheck(fd >= 0, "cannot create {}", tablePath);
  size_t done = 0;
  while (done < file.size()) {
    const ssize_t n = write(fd, file.data() + done, file.size() - done);
    fuzzCheck(n > 0, "cannot write {}", tablePath);
    done += size_t(n);
  }
  close(fd);
}

// Keys the seed tables hold, and one they do not.
std::vector<std::vector<U8>> probeKeys(bool ip6) {
  std::vector<std::vector<U8>> keys;
  auto add = [&](const auto& prefix) {
    const U8* p = reinterpret_cast<const U8*>(&prefix);
    keys.emplace_back(p, p + sizeof prefix);
  };
  if (ip6) {
    for (const char* t : {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", "::/128", "2001:db8::/32", "2001:db8:1::/48",
                          "2001:db8:ffff::/48"})
      add(Addrkit::Ip6Prefix(t));
  } else {
    for (const char* t : {"255.255.255.255/32", "0.0.0.0/32", "10.0.0.0/8", "192.168.1.0/24", "10.1.0.0/16", "203.0.113.0/24"})
      add(Addrkit::Prefix(t));
  }
  return keys;
}

void readWholeTable(const Depot::RecordLayout& layout, const std::vector<std::vector<U8>>& keys) {
  // A forged header can name a live process as its writer: waits are bounded, here briefly.
  auto table = Depot::SharedTable::readerNew(layout, tablePath, {.stuckAfterMs = 1});
  std::vector<U8> record(layout.recordSize);
  for (const auto& key : keys) {
    if (table->find(key.data(), record.data())) {
      fuzzCheck(std::memcmp(record.data() + layout.keyOffset, key.data(), key.size()) == 0,
                "find returned a record under another key");
    }
  }
  U64 hint = 0;
  U64 seen = 0;
  std::vector<U8> firstKey;
  for (bool more = table->iterFirst(hint, record.data()); more; more = table->iterNext(hint, record.data())) {
    // Past the slots come the journal's records of an update a dead writer left open (at most 32).
    fuzzCheck(hint < table->capacity() + 32, "iteration hint {} beyond the capacity {}", hint, table->capacity());
    fuzzCheck(++seen <= table->capacity(), "iteration delivered more records than the table holds");
    if (firstKey.empty()) firstKey.assign(record.begin() + layout.keyOffset, record.begin() + layout.keyOffset + layout.keySize);
  }
  if (!firstKey.empty()) {
    U64 at = 0;
    table->iterFrom(firstKey.data(), at, record.data());
  }
  table->stats();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string pattern = (std::filesystem::temp_directory_path() / "fuzz_shared_table.XXXXXX").string();
  fuzzCheck(mkdtemp(pattern.data()) != nullptr, "cannot create a directory from {}", pattern);
  tableDir = pattern;
  tablePath = tableDir + "/table";
  std::atexit(removeTableDir);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  if (size == 0) return 0;
  const U8 flags = data[0];
  const bool ip6 = flags & tablefuzz::ip6Records;
  std::vector<U8> file(data + 1, data + size);
  if (flags & tablefuzz::refreshChecksum) refreshHeaderChecksum(file);
  writeTableFile(file);

  static const std::vector<std::vector<U8>> keys4 = probeKeys(false);
  static const std::vector<std::vector<U8>> keys6 = probeKeys(true);
  try {
    readWholeTable(tablefuzz::nodeLayout(ip6), ip6 ? keys6 : keys4);
  } catch (const Depot::CorruptionException&) {
  } catch (const Depot::SharedFileException&) {
  } catch (const Depot::WriterStuckException&) {  // a header naming a live process as its writer, slots busy
  }
  return 0;
}
