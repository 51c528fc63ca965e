// depottrie load: route files into a shared route table.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <map>

#include "Commands.h"
#include "Progress.h"
#include "RouteFiles.h"
#include "RouteTable/Convert.h"
#include "RouteTable/Internal.h"

namespace DepotTrieTool {
namespace {

using Addrkit::AddressFamily;

std::string byteText(U64 bytes) {
  if (bytes >= (U64(1) << 20)) return fmt::format("{:.1f} MiB", double(bytes) / double(U64(1) << 20));
  if (bytes >= (U64(1) << 10)) return fmt::format("{:.1f} KiB", double(bytes) / double(U64(1) << 10));
  return fmt::format("{} B", bytes);
}

// Stores routes, counting those new, those stored already with the same
// value and those given a new one. They are taken in chunks: one batched
// lookup over a chunk, read before any of it is stored, gives each prefix's
// value if it is stored (the answer is the prefix itself), with the
// chunk's lookups overlapping and starting below the top of the trie, which
// the insertions between single lookups would keep invalidating. A chunk
// also goes in whenever the input is about to wait, so that routes fed
// through a pipe are stored as they come.
class Loader {
 public:
  explicit Loader(depottrie::RouteTable& table) : table_(table) {}

  U64 add(const Route& route) {
    chunk_.push_back(depottrie::detail::fromGen(route.prefix));
    values_.push_back(route.value);
    if (chunk_.size() == chunkSize) flush();
    return new4 + new6 + present + updated + chunk_.size();
  }
  void flush() {
    found_.resize(chunk_.size());
    table_.lookupUnguarded(chunk_, found_);
    // A prefix may come twice in a chunk: the second time, the value the
    // first one stored is the one it meets.
    std::map<depottrie::Prefix, U64> stored;
    for (size_t i = 0; i < chunk_.size(); ++i) {
      const depottrie::Prefix& p = chunk_[i];
      std::optional<U64> before;
      if (auto it = stored.find(p); it != stored.end()) before = it->second;
      else if (found_[i] && found_[i]->prefix == p) before = found_[i]->value;
      stored[p] = values_[i];
      if (before == values_[i]) {
        ++present;
        continue;
      }
      table_.insert(p, values_[i]);
      if (before) ++updated;
      else ++(p.family() == depottrie::Family::ipv4 ? new4 : new6);
    }
    chunk_.clear();
    values_.clear();
  }

  U64 new4 = 0, new6 = 0, present = 0, updated = 0;

 private:
  static constexpr size_t chunkSize = 256;
  depottrie::RouteTable& table_;
  std::vector<depottrie::Prefix> chunk_;
  std::vector<U64> values_;
  std::vector<std::optional<depottrie::Route>> found_;
};

}  // namespace

int loadCommand(const Target& target, const std::vector<std::string>& files) {
  depottrie::RouteTable table = depottrie::RouteTable::openWriter(target.name, target.options());
  Loader loader(table);
  RouteFileCounts counts;
  const auto start = std::chrono::steady_clock::now();
  {
    Progress progress("loading", {.totalBytes = routeFilesSize(files), .items = "prefixes"});
    counts = readRouteFiles(
        files, progress, [&loader](const Route& route) { return loader.add(route); }, [&loader] { loader.flush(); });
    loader.flush();
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const Routing::Lattice::Trie& trie = depottrie::detail::Access::trie(table);
  const Depot::Table& t4 = trie.trieNodeMap().table();
  const Depot::Table& t6 = trie.trieNode6Map().table();
  const U64 added = loader.new4 + loader.new6, read = added + loader.present + loader.updated;
  fmt::print("loaded trie {}: {} new prefix{} ({} IPv4, {} IPv6), {} already present, {} with a new value; {} read in "
             "{:.2f} s, {:.0f} prefixes/s\n",
             target.name, added, added == 1 ? "" : "es", loader.new4, loader.new6, loader.present, loader.updated, read,
             seconds, seconds > 0 ? double(read) / seconds : 0.0);
  fmt::print("records: {} IPv4, {} IPv6; shared memory: {}\n", t4.occupancy(), t6.occupancy(),
             byteText(table.statistics().sharedBytes));
  std::fflush(stdout);
  if (counts.badLines > 0) fmt::print(stderr, "depottrie: {} bad line{} skipped\n", counts.badLines, counts.badLines == 1 ? "" : "s");
  if (counts.failedFiles > 0) fmt::print(stderr, "depottrie: {} of {} files could not be read to the end\n", counts.failedFiles, files.size());
  return counts.badLines > 0 || counts.failedFiles > 0 ? 1 : 0;
}

}  // namespace DepotTrieTool
