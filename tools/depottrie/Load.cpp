// depottrie load: route files into a shared trie.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "Commands.h"
#include "Progress.h"
#include "RouteFiles.h"

namespace DepotTrieTool {
namespace {

using Addrkit::AddressFamily;

std::string byteText(U64 bytes) {
  if (bytes >= (U64(1) << 20)) return fmt::format("{:.1f} MiB", double(bytes) / double(U64(1) << 20));
  if (bytes >= (U64(1) << 10)) return fmt::format("{:.1f} KiB", double(bytes) / double(U64(1) << 10));
  return fmt::format("{} B", bytes);
}

// Inserts routes into the trie, counting those it holds already. They are
// taken in chunks: the writer's batched longest match over a chunk, read
// before any of it is inserted, says which are stored (an exact answer),
// with the chunk's descents overlapping and starting below the top of the
// trie, which the insertions between single lookups would keep invalidating.
// A chunk also goes in whenever the input is about to wait, so that routes
// fed through a pipe are stored as they come.
class Loader {
 public:
  explicit Loader(Routing::Lattice::Trie& trie) : trie_(trie) { chunk_.reserve(chunkSize); }

  U64 add(const Route& route) {
    chunk_.push_back(route.prefix);
    if (chunk_.size() == chunkSize) flush();
    return new4 + new6 + present + chunk_.size();
  }
  void flush() {
    matches_.resize(chunk_.size());
    trie_.longestMatch(chunk_, matches_);
    // What is not stored yet may still come twice in the chunk.
    fresh_.clear();
    for (size_t i = 0; i < chunk_.size(); ++i) {
      if (matches_[i] == chunk_[i]) ++present;
      else fresh_.push_back(chunk_[i]);
    }
    std::sort(fresh_.begin(), fresh_.end(), prefixLess);
    for (size_t i = 0; i < fresh_.size(); ++i) {
      if (i > 0 && fresh_[i] == fresh_[i - 1]) {
        ++present;
        continue;
      }
      trie_.prefixIs(fresh_[i]);
      ++(fresh_[i].af() == AddressFamily::ipv4 ? new4 : new6);
    }
    chunk_.clear();
  }

  U64 new4 = 0, new6 = 0, present = 0;

 private:
  static constexpr size_t chunkSize = 256;
  Routing::Lattice::Trie& trie_;
  std::vector<Addrkit::IpGenPrefix> chunk_;
  std::vector<Addrkit::IpGenPrefix> matches_;
  std::vector<Addrkit::IpGenPrefix> fresh_;
};

}  // namespace

int loadCommand(const Target& target, const std::vector<std::string>& files) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieWriterNew(target.name, target.mount);
  Loader loader(*trie);
  RouteFileCounts counts;
  const auto start = std::chrono::steady_clock::now();
  {
    Progress progress("loading", {.totalBytes = routeFilesSize(files), .items = "prefixes"});
    counts = readRouteFiles(
        files, progress, [&loader](const Route& route) { return loader.add(route); }, [&loader] { loader.flush(); });
    loader.flush();
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const Depot::Table& t4 = trie->trieNodeMap().table();
  const Depot::Table& t6 = trie->trieNode6Map().table();
  const U64 new4 = loader.new4, new6 = loader.new6, present = loader.present, read = new4 + new6 + present;
  fmt::print("loaded trie {}: {} new prefix{} ({} IPv4, {} IPv6), {} already present; {} read in {:.2f} s, {:.0f} prefixes/s\n",
             target.name, new4 + new6, new4 + new6 == 1 ? "" : "es", new4, new6, present, read, seconds,
             seconds > 0 ? double(read) / seconds : 0.0);
  fmt::print("records: {} IPv4, {} IPv6; shared memory: {}\n", t4.occupancy(), t6.occupancy(),
             byteText(t4.bytes() + t6.bytes()));
  std::fflush(stdout);
  if (counts.badLines > 0) fmt::print(stderr, "depottrie: {} bad line{} skipped\n", counts.badLines, counts.badLines == 1 ? "" : "s");
  if (counts.failedFiles > 0) fmt::print(stderr, "depottrie: {} of {} files could not be read to the end\n", counts.failedFiles, files.size());
  return counts.badLines > 0 || counts.failedFiles > 0 ? 1 : 0;
}

}  // namespace DepotTrieTool
