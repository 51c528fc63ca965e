// depottrie load: route files into a shared trie.
#include <fmt/format.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <string_view>

#include "Commands.h"
#include "Input.h"
#include "Progress.h"

namespace DepotTrieTool {
namespace {

using Addrkit::AddressFamily;

// The line without its comment and surrounding blanks.
std::string_view routeText(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const char* blanks = " \t\r\v\f";
  size_t first = line.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(blanks) - first + 1);
}

U64 fileSize(const std::string& path) {
  struct stat st {};
  if (path == "-" || ::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  return U64(st.st_size);
}

struct LoadCounts {
  U64 v4 = 0;
  U64 v6 = 0;
  U64 badLines = 0;
  U64 bytesBefore = 0;  // bytes of the files finished so far, for the bar
};

// Inserts the file's routes; reports each bad line and goes on.
void loadFile(Routing::Lattice::Trie& trie, InputFile& in, LoadCounts& counts, Progress& progress) {
  std::string line;
  for (U64 lineNo = 1; in.readLine(line); ++lineNo) {
    if (in.lineTooLong()) {
      fmt::print(stderr, "{}{}:{}: {}\n", progress.enabled() ? "\r\x1b[K" : "", in.displayName(), lineNo,
                 tooLongMessage(line));
      ++counts.badLines;
      continue;
    }
    std::string_view text = routeText(line);
    if (text.empty()) continue;
    Addrkit::IpGenPrefix p;
    try {
      p = prefixFromText(text);
    } catch (const Basis::RangeException& e) {
      progress.update(counts.bytesBefore + in.consumed(), counts.v4 + counts.v6);
      fmt::print(stderr, "{}{}:{}: {}\n", progress.enabled() ? "\r\x1b[K" : "", in.displayName(), lineNo, e.what());
      ++counts.badLines;
      continue;
    }
    if (reservedPrefix(p)) {
      fmt::print(stderr, "{}{}:{}: prefix '{}' is reserved by the trie and cannot be stored\n",
                 progress.enabled() ? "\r\x1b[K" : "", in.displayName(), lineNo, text);
      ++counts.badLines;
      continue;
    }
    trie.prefixIs(p);
    ++(p.af() == AddressFamily::ipv4 ? counts.v4 : counts.v6);
    progress.update(counts.bytesBefore + in.consumed(), counts.v4 + counts.v6);
  }
}

std::string byteText(U64 bytes) {
  if (bytes >= (U64(1) << 20)) return fmt::format("{:.1f} MiB", double(bytes) / double(U64(1) << 20));
  if (bytes >= (U64(1) << 10)) return fmt::format("{:.1f} KiB", double(bytes) / double(U64(1) << 10));
  return fmt::format("{} B", bytes);
}

}  // namespace

int loadCommand(const Target& target, const std::vector<std::string>& files) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieWriterNew(target.name, target.mount);
  U64 total = 0;
  for (const std::string& f : files) total += fileSize(f);

  LoadCounts counts;
  U64 failedFiles = 0;
  auto start = std::chrono::steady_clock::now();
  {
    Progress progress(total);
    for (const std::string& f : files) {
      try {
        InputFile in(f);
        loadFile(*trie, in, counts, progress);
        counts.bytesBefore += in.consumed();
      } catch (const Basis::Exception& e) {
        fmt::print(stderr, "{}depottrie: {}\n", progress.enabled() ? "\r\x1b[K" : "", e.what());
        ++failedFiles;
      }
    }
    progress.finish(counts.bytesBefore, counts.v4 + counts.v6);
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const Depot::Table& t4 = trie->trieNodeMap().table();
  const Depot::Table& t6 = trie->trieNode6Map().table();
  const U64 loaded = counts.v4 + counts.v6;
  fmt::print("loaded {} prefixes ({} IPv4, {} IPv6) into trie {} in {:.2f} s, {:.0f} prefixes/s\n", loaded,
             counts.v4, counts.v6, target.name, seconds, seconds > 0 ? double(loaded) / seconds : 0.0);
  fmt::print("records: {} IPv4, {} IPv6; shared memory: {}\n", t4.occupancy(), t6.occupancy(),
             byteText(t4.bytes() + t6.bytes()));
  if (counts.badLines > 0) fmt::print("{} bad lines skipped\n", counts.badLines);
  if (failedFiles > 0) fmt::print("{} of {} files could not be read to the end\n", failedFiles, files.size());
  return counts.badLines > 0 || failedFiles > 0 ? 1 : 0;
}

}  // namespace DepotTrieTool
