// depot_bench: one table of the shared-memory trie's costs on this machine,
// from one run over the sample tables (data/routes-v4.txt.xz,
// data/routes-v6.txt.xz; DEPOT_DATA overrides the folder).
//
// The writer loads and updates the tables in this process; every lookup,
// walk and successor figure comes from reader processes forked for it, which
// map the same tables read-only, as a routing agent would. The memory
// latency of the machine is measured in the same run, and a cache model
// turns the node records a lookup reads into a latency bound, so that the
// lookup rate can be read against what the memory allows.
//
// Progress goes to stderr when it is a terminal; the table goes to stdout.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <lzma.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Depot/SharedTable.h"
#include "RouteTable/RouteTable.h"
#include "TrieLib/ConsistentRead.h"
#include "TrieLib/TrieCheck.h"
#include "TrieLib/TrieMount.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;
using Clock = std::chrono::steady_clock;

namespace {

// Each node record a lookup reads costs two dependent cache misses in the
// shared table: the hash index entry, then the slot it names. A change to
// the table layout (for example records kept in the index line) changes this.
constexpr double kMissesPerRecord = 2;
// Cache lines a record occupies for the cache model: its index entry's line
// and its slot's line.
constexpr double kBytesPerRecord = 128;

constexpr size_t kQueryCount = size_t(1) << 20;
constexpr U64 kSeed = 42;
constexpr size_t kBatch = 256;
constexpr double kRunSeconds = 1.0;
constexpr size_t kUpdateCount = 100000;
constexpr U64 kSuccessorSteps = 200000;
constexpr size_t kChaseBytes = size_t(1) << 30;

// The targets the table judges, per family (IPv4, IPv6).
struct Targets {
  double longestMatch, batched;           // lookups/s
  double boundRatio = 1.3;                // measured / latency bound, at most
  double tableRatio = 1.25;               // RouteTable::lookup time / longestMatch time, at most
  double python, pythonBatched;           // lookups/s (IPv4 only; 0: none)
  double load, walk = 15e6, successor = 1e6;  // prefixes/s, steps/s
  double bytesPerPrefix;
};
constexpr Targets kTargets[2] = {
    {.longestMatch = 2e6, .batched = 8e6, .python = 0.34e6, .pythonBatched = 2e6, .load = 2e6, .bytesPerPrefix = 64},
    {.longestMatch = 1e6, .batched = 4e6, .python = 0, .pythonBatched = 0, .load = 1.5e6, .bytesPerPrefix = 160}};

// Results of timed loops land here, so that the loops are not optimised away.
volatile U64 gSink;

bool progressShown() { return isatty(STDERR_FILENO); }
template <class... Args>
void progress(fmt::format_string<Args...> f, Args&&... args) {
  if (progressShown()) fmt::print(stderr, "{}\n", fmt::format(f, std::forward<Args>(args)...));
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// ---------------------------------------------------------------------------
// The temporary depot root, removed at exit, on an exception and on SIGINT,
// SIGTERM or SIGHUP (the handler removes it with system calls only).

char gRootPath[PATH_MAX];
pid_t gRootOwner = 0;

void removeContents(int dir, int depth) {
  // Entries removed during a scan can make getdents skip others: scan again
  // until a pass finds nothing left.
  for (int pass = 0; pass < 16; ++pass) {
    bool any = false;
    lseek(dir, 0, SEEK_SET);
    alignas(8) char buf[4096];
    for (ssize_t n; (n = getdents64(dir, buf, sizeof buf)) > 0;) {
      for (ssize_t off = 0; off < n;) {
        const auto* d = reinterpret_cast<const struct dirent64*>(buf + off);
        off += d->d_reclen;
        if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
        any = true;
        if (d->d_type == DT_DIR && depth < 8) {
          const int sub = openat(dir, d->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
          if (sub >= 0) {
            removeContents(sub, depth + 1);
            close(sub);
          }
          unlinkat(dir, d->d_name, AT_REMOVEDIR);
        } else {
          unlinkat(dir, d->d_name, 0);
        }
      }
    }
    if (!any) return;
  }
}

void removeRoot() {
  if (gRootPath[0] == 0) return;
  const int dir = open(gRootPath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir >= 0) {
    removeContents(dir, 0);
    close(dir);
  }
  rmdir(gRootPath);
  gRootPath[0] = 0;
}

extern "C" void onTerminatingSignal(int sig) {
  // Reader children inherit the handler; only the process that made the root removes it.
  if (getpid() == gRootOwner) removeRoot();
  signal(sig, SIG_DFL);
  raise(sig);
}

class BenchRoot {
 public:
  BenchRoot() {
    char tmpl[] = "/dev/shm/depot-bench-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error(fmt::format("cannot create {}: {}", tmpl, std::strerror(errno)));
    std::snprintf(gRootPath, sizeof gRootPath, "%s", tmpl);
    gRootOwner = getpid();
    struct sigaction sa {};
    sa.sa_handler = onTerminatingSignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    options.root = tmpl;
  }
  ~BenchRoot() {
    if (getpid() == gRootOwner) removeRoot();
  }
  BenchRoot(const BenchRoot&) = delete;
  BenchRoot& operator=(const BenchRoot&) = delete;
  MountOptions options;
};

// ---------------------------------------------------------------------------
// The machine.

struct Machine {
  std::string cpu = "unknown CPU";
  long cores = 0;
  size_t l3 = 0;
  std::string l3Source;
  std::string loadAverage = "unknown";  // over the last minute: other work competing for the cores
};

std::optional<size_t> sysfsL3() {
  namespace fs = std::filesystem;
  std::error_code ec;
  for (const fs::directory_entry& e : fs::directory_iterator("/sys/devices/system/cpu/cpu0/cache", ec)) {
    std::ifstream level(e.path() / "level"), size(e.path() / "size");
    int l = 0;
    std::string s;
    if (!(level >> l) || l != 3 || !(size >> s) || s.empty()) continue;
    size_t v = std::stoull(s);
    if (s.back() == 'K') v <<= 10;
    if (s.back() == 'M') v <<= 20;
    return v;
  }
  return std::nullopt;
}

Machine machine() {
  Machine m;
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0) {
      const size_t colon = line.find(':');
      if (colon != std::string::npos) m.cpu = line.substr(line.find_first_not_of(" \t", colon + 1));
      break;
    }
  }
  m.cores = sysconf(_SC_NPROCESSORS_ONLN);
  std::ifstream("/proc/loadavg") >> m.loadAverage;
  // The kernel's cache description names the L3 this core shares; under a
  // hypervisor sysconf can report the whole package's L3 instead.
  const long fromSysconf = sysconf(_SC_LEVEL3_CACHE_SIZE);
  if (std::optional<size_t> s = sysfsL3()) {
    m.l3 = *s;
    m.l3Source = fromSysconf > 0 && size_t(fromSysconf) != *s
                     ? fmt::format("sysfs; sysconf says {} MiB", fromSysconf >> 20)
                     : "sysfs";
  } else if (fromSysconf > 0) {
    m.l3 = size_t(fromSysconf);
    m.l3Source = "sysconf";
  } else {
    m.l3 = size_t(32) << 20;
    m.l3Source = "not reported, assumed";
  }
  return m;
}

std::string today() {
  const std::time_t now = std::time(nullptr);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M %Z", std::localtime(&now));
  return buf;
}

// ---------------------------------------------------------------------------
// Memory latency: a pointer chase through a random cyclic permutation of the
// 64-byte lines of a buffer far larger than the cache. The buffer uses 4 KiB
// pages like the tables on /dev/shm, so the chase pays the same TLB misses.

struct Latency {
  double dependentNs = 0;    // per miss, each load waiting for the one before
  double interleavedNs = 0;  // per miss, 8 chases in flight
};

struct alignas(64) Line {
  Line* next;
  char pad[56];
};

Latency memoryLatency(size_t bytes) {
  const size_t lines = bytes / sizeof(Line);
  void* mem = mmap(nullptr, lines * sizeof(Line), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) throw std::runtime_error(fmt::format("cannot map {} MiB for the latency chase", bytes >> 20));
  madvise(mem, lines * sizeof(Line), MADV_NOHUGEPAGE);
  Line* line = static_cast<Line*>(mem);
  Latency lat;
  try {
    std::vector<U32> order(lines);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937_64(kSeed));
    for (size_t i = 0; i < lines; ++i) line[order[i]].next = &line[order[(i + 1) % lines]];

    Line* p = &line[order[0]];
    for (size_t i = 0; i < 100000; ++i) p = p->next;
    constexpr size_t steps = size_t(1) << 22;
    Clock::time_point start = Clock::now();
    for (size_t i = 0; i < steps; ++i) p = p->next;
    lat.dependentNs = secondsSince(start) * 1e9 / double(steps);

    constexpr size_t ways = 8;
    std::array<Line*, ways> q;
    for (size_t k = 0; k < ways; ++k) q[k] = &line[order[k * (lines / ways)]];
    constexpr size_t stepsEach = size_t(1) << 21;
    start = Clock::now();
    for (size_t i = 0; i < stepsEach; ++i)
      for (size_t k = 0; k < ways; ++k) q[k] = q[k]->next;
    lat.interleavedNs = secondsSince(start) * 1e9 / double(stepsEach * ways);
    // Keep the chases' results alive.
    uintptr_t ends = reinterpret_cast<uintptr_t>(p);
    for (Line* r : q) ends ^= reinterpret_cast<uintptr_t>(r);
    gSink = gSink + ends;
  } catch (...) {
    munmap(mem, lines * sizeof(Line));
    throw;
  }
  munmap(mem, lines * sizeof(Line));
  return lat;
}

// ---------------------------------------------------------------------------
// Data.

std::string dataFile(const char* name) {
  const char* dir = std::getenv("DEPOT_DATA");
  return fmt::format("{}/{}", dir && *dir ? dir : DEPOT_DATA_DIR, name);
}

// The lines of an .xz file.
std::vector<std::string> xzLines(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error(fmt::format("cannot open {}", path));
  lzma_stream z = LZMA_STREAM_INIT;
  if (lzma_stream_decoder(&z, UINT64_MAX, LZMA_CONCATENATED) != LZMA_OK) {
    std::fclose(f);
    throw std::runtime_error(fmt::format("cannot start decompressing {}", path));
  }
  std::vector<std::string> lines(1);
  std::vector<uint8_t> in(1 << 16), out(1 << 16);
  lzma_ret ret = LZMA_OK;
  while (ret != LZMA_STREAM_END) {
    if (z.avail_in == 0 && !std::feof(f)) {
      z.next_in = in.data();
      z.avail_in = std::fread(in.data(), 1, in.size(), f);
    }
    z.next_out = out.data();
    z.avail_out = out.size();
    ret = lzma_code(&z, std::feof(f) ? LZMA_FINISH : LZMA_RUN);
    if (ret != LZMA_OK && ret != LZMA_STREAM_END) {
      lzma_end(&z);
      std::fclose(f);
      throw std::runtime_error(fmt::format("bad xz data in {}", path));
    }
    for (const uint8_t* p = out.data(); p != z.next_out; ++p) {
      if (*p == '\n') lines.emplace_back();
      else lines.back() += char(*p);
    }
  }
  lzma_end(&z);
  std::fclose(f);
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

std::vector<IpGenPrefix> routes(const char* file) {
  std::vector<IpGenPrefix> out;
  for (const std::string& line : xzLines(dataFile(file)))
    if (!line.empty() && line[0] != '#') out.emplace_back(line);
  return out;
}

// Random host addresses inside randomly chosen prefixes of `from`.
std::vector<IpGenPrefix> randomQueries(const std::vector<IpGenPrefix>& from, size_t count, U64 seed) {
  std::mt19937_64 rng(seed);
  std::vector<IpGenPrefix> queries;
  queries.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const IpGenPrefix& p = from[rng() % from.size()];
    if (p.af() == Addrkit::AddressFamily::ipv4) {
      const U32 hostBits = p.len() >= 32 ? 0 : p.len() == 0 ? 0xFFFFFFFFu : 0xFFFFFFFFu >> p.len();
      queries.emplace_back(Addrkit::Prefix::masked(p.v4().addrHost() | (U32(rng()) & hostBits), 32));
    } else {
      Addrkit::Ip6Address a = p.v6().address();
      for (unsigned w = 0; w < 4; ++w) {
        const U32 fixed = p.len() >= 32 * (w + 1) ? 32 : p.len() > 32 * w ? p.len() - 32 * w : 0;
        const U32 hostBits = fixed == 32 ? 0 : 0xFFFFFFFFu >> fixed;
        a.wordIs(w, a.word(w) | (U32(rng()) & hostBits));
      }
      queries.emplace_back(Addrkit::Ip6Prefix::masked(a, 128));
    }
  }
  return queries;
}

// A random subset of n prefixes (fixed seed), in random order.
std::vector<IpGenPrefix> randomSubset(std::vector<IpGenPrefix> all, size_t n) {
  std::shuffle(all.begin(), all.end(), std::mt19937_64(kSeed + n));
  all.resize(std::min(n, all.size()));
  return all;
}

// ---------------------------------------------------------------------------
// Records a longestMatch reads, counted by replaying its descent over the
// public record reads. The full descent goes from the root record's top node
// and stops where the common length with the query falls below the node's
// key length or reaches the query's length; IPv4 descends by two bits into
// child(slot) and, for an odd slot, notes the neighbouring x0 child, which
// carries the prefix one bit longer than the node.
//
// A reader process keeps, per leading 16 (IPv4) or 32 (IPv6) bits of a
// query at least that long, where its last descent went on: the first node
// whose key length + 2 exceeds 16 (IPv4), resp. + 1 exceeds 32 (IPv6), with
// the longest match above it. A lookup whose entry holds starts there, so
// the root record, the nodes above and the IPv4 neighbours noted above them
// (read once, deepest first, by the descent that filled the entry) are not
// read. A lookup whose entry is empty or held by other leading bits reads
// them all and fills it. Either way the IPv4 neighbours noted from the start
// down are read after the descent, deepest first, only while a neighbour is
// longer than the longest match so far; the first one with its bit set ends
// them. When nothing matched, the default route's own record is read.
// The replica's answers are compared with the library's.

// Record reads by tree level (0: the root record and the default route's
// record, 1: the top node, ...), lookups by nodes on their full path, and
// what the top-of-trie start spares.
struct DescentCounts {
  std::vector<U64> readsAtLevel;
  std::vector<U64> lookupsAtDepth;
  U64 lookups = 0;
  U64 reads = 0;
  U64 neighbourReads = 0;  // IPv4 x0 neighbour records read
  U64 skipped = 0;         // path nodes above the start, not read
  U64 fromTop = 0;         // lookups that descended from the top node and filled their entry
  void read(U32 level) {
    if (readsAtLevel.size() <= level) readsAtLevel.resize(level + 1);
    ++readsAtLevel[level];
    ++reads;
  }
  void finish(U32 depth) {
    if (lookupsAtDepth.size() <= depth) lookupsAtDepth.resize(depth + 1);
    ++lookupsAtDepth[depth];
    ++lookups;
  }
};

// The leading bits of the top-of-trie start, and the node lengths it
// passes: nodes whose branching the leading bits alone decide.
constexpr U32 kTopBits4 = 16;
constexpr U32 kTopBits6 = 32;
bool aboveStart4(U32 len) { return len + 2 <= kTopBits4; }
bool aboveStart6(U32 len) { return len + 1 <= kTopBits6; }

// Which leading bits each of a reader's top-of-trie entries holds. IPv4 has
// an entry per leading 16 bits; IPv6 shares its 2^16 entries by the same
// hash of the leading 32 bits as the library, so two leads that meet in an
// entry take it from each other. The bench's tables do not change while
// they are read, so an entry once filled holds until another lead takes it.
class TopModel {
 public:
  // Whether the query starts from its entry; a query that does not (and is
  // long enough to have one) fills it.
  bool starts(const IpGenPrefix& q) {
    U32 lead = 0, slot = 0;
    if (q.af() == Addrkit::AddressFamily::ipv4) {
      if (q.len() < kTopBits4) return false;
      lead = slot = q.v4().addrHost() >> (32 - kTopBits4);
    } else {
      if (q.len() < kTopBits6) return false;
      lead = q.v6().word(0);
      slot = U32(lead * 0x9E3779B1u) >> 16;
    }
    if (held_[slot] && lead_[slot] == lead) return true;
    held_[slot] = true;
    lead_[slot] = lead;
    return false;
  }

 private:
  std::vector<bool> held_ = std::vector<bool>(size_t(1) << 16);
  std::vector<U32> lead_ = std::vector<U32>(size_t(1) << 16);
};

// The bits of lengths 1..n in a black word (length 1 is the top bit).
U32 lengthsUpTo(U32 n) { return n == 0 ? 0u : 0xFFFFFFFFu << (32 - n); }
U32 blackBit(U32 len) { return 0x80000000u >> ((len - 1u) & 31u); }

U32 commonLen4(const Addrkit::Prefix& a, const Addrkit::Prefix& b) {
  const U32 limit = std::min(a.len(), b.len());
  const U32 x = a.addrHost() ^ b.addrHost();
  return x == 0 ? limit : std::min<U32>(std::countl_zero(x), limit);
}

U32 commonLen6(const Addrkit::Ip6Prefix& a, const Addrkit::Ip6Prefix& b) {
  const U32 limit = std::min(a.len(), b.len());
  for (U32 w = 0; w < 4; ++w) {
    const U32 x = a.word(w) ^ b.word(w);
    if (x != 0) return std::min<U32>(32 * w + std::countl_zero(x), limit);
    if (32 * (w + 1) >= limit) return limit;
  }
  return limit;
}

IpGenPrefix replayLongestMatch4(const Trie& t, const Addrkit::Prefix& p, bool startsBelow, DescentCounts& counts) {
  static const TrieNode absent{prefix00};
  struct Neighbour {
    Addrkit::Prefix key;
    U32 len, level;
  };
  std::vector<Neighbour> neighbours;
  bool found = false;
  U32 bestLen = 0, bestAddr = 0;
  auto consider = [&](const Addrkit::Prefix& key, U32 len) {
    if (!found || len > bestLen) {
      found = true;
      bestLen = len;
      bestAddr = key.addrHost();
    }
  };
  // Until the start is reached, reads count only for a lookup that does not start there.
  bool reading = !startsBelow;
  const bool topApplies = p.len() >= kTopBits4;
  bool started = !topApplies;
  auto read = [&](U32 level) {
    if (reading) counts.read(level);
  };
  // Reads the noted neighbours deepest first while one could lengthen the match.
  auto readNeighbours = [&] {
    while (!neighbours.empty() && (!found || neighbours.back().len > bestLen)) {
      const Neighbour nb = neighbours.back();
      neighbours.pop_back();
      read(nb.level);
      if (reading) ++counts.neighbourReads;
      const TrieNode n = t.trieNode(nb.key);
      if (!(n == absent) && (n.black() & blackBit(nb.len))) {
        consider(nb.key, nb.len);
        break;
      }
    }
    neighbours.clear();
  };
  U32 depth = 0;
  // Where the lookup goes on from its entry: the neighbours above are settled
  // by the descent that filled it.
  auto start = [&] {
    started = true;
    const bool wasReading = reading;
    readNeighbours();
    reading = true;
    if (!wasReading) counts.skipped += depth;
  };
  read(0);
  Addrkit::Prefix key = t.trieNode(rootPrefix).root();
  while (key != nullPrefix) {
    if (depth > Trie::ipv4TrieMaxDepth())
      throw std::runtime_error(fmt::format("IPv4 descent for {} deeper than {} nodes", p, depth));
    const TrieNode n = t.trieNode(key);
    if (n == absent) {
      read(depth + 1);
      break;
    }
    const U32 len = n.key().len();
    if (!started && !aboveStart4(len)) start();
    read(depth + 1);
    ++depth;
    const U32 c = commonLen4(n.key(), p);
    U32 bits = n.black() & lengthsUpTo(c);
    if (n.key() == prefix032) bits &= ~1u;  // that bit is the default route
    if (bits) consider(n.key(), 32 - std::countr_zero(bits));
    if (c < len || c == p.len()) break;
    const U32 slot = (p.addrHost() >> (30 - len)) & 3u;
    if (slot & 1u) {
      const Addrkit::Prefix sibling = n.child(slot & 2u);
      if (sibling != nullPrefix) neighbours.push_back({sibling, len + 1, depth + 1});
    }
    key = n.child(slot);
  }
  if (!started) start();
  readNeighbours();
  counts.finish(depth);
  counts.fromTop += topApplies && !startsBelow;
  if (found) return Addrkit::Prefix::masked(bestAddr, bestLen);
  read(0);
  if (t.trieNode(prefix032).black() & 1u) return prefix00;
  return {};
}

U32 longestBlackUpTo6(const TrieNode6& n, U32 c) {
  for (U32 w = (c - 1) / 32 + 1; w-- > 0;) {
    const U32 bits = n.black(w) & lengthsUpTo(std::min(c - 32 * w, 32u));
    if (bits) return 32 * w + 32 - std::countr_zero(bits);
  }
  return 0;
}

IpGenPrefix replayLongestMatch6(const Trie& t, const Addrkit::Ip6Prefix& p, bool startsBelow, DescentCounts& counts) {
  static const TrieNode6 absent{prefix006};
  std::optional<Addrkit::Ip6Prefix> best;
  bool reading = !startsBelow;
  const bool topApplies = p.len() >= kTopBits6;
  bool started = !topApplies;
  auto read = [&](U32 level) {
    if (reading) counts.read(level);
  };
  U32 depth = 0;
  auto start = [&] {
    started = true;
    if (!reading) counts.skipped += depth;
    reading = true;
  };
  read(0);
  Addrkit::Ip6Prefix key = t.trieNode6(rootPrefix6).leftChild();
  while (key != nullPrefix6) {
    if (depth > Trie::ipv6TrieMaxDepth())
      throw std::runtime_error(fmt::format("IPv6 descent for {} deeper than {} nodes", p, depth));
    const TrieNode6 n = t.trieNode6(key);
    if (n == absent) {
      read(depth + 1);
      break;
    }
    const U32 len = n.key().len();
    if (!started && !aboveStart6(len)) start();
    read(depth + 1);
    ++depth;
    const U32 c = commonLen6(n.key(), p);
    if (U32 m = c ? longestBlackUpTo6(n, c) : 0) best = Addrkit::Ip6Prefix::masked(n.key().address(), m);
    if (c < len || c == p.len()) break;
    const bool right = (p.word(len / 32) >> (31 - len % 32)) & 1u;
    key = right ? n.rightChild() : n.leftChild();
  }
  if (!started) start();
  counts.finish(depth);
  counts.fromTop += topApplies && !startsBelow;
  if (best) return *best;
  read(0);
  if (t.trieNode6(prefix0128).black(3) & 1u) return prefix006;
  return {};
}

// Records of the family's table by tree level, breadth first from the top
// node over the child keys (level 0 holds the root record and the default
// route's record when there is one), and of those the records a lookup
// that starts from its top-of-trie entry can read: none above the start,
// and at level 0 only the default route's record.
struct Levels {
  std::vector<U64> all, belowTop;
};
Levels recordsByLevel(const Trie& t, bool v6) {
  Levels levels{{1}, {0}};
  auto count = [&](U32 len, size_t level) {
    if (levels.all.size() <= level) {
      levels.all.resize(level + 1);
      levels.belowTop.resize(level + 1);
    }
    ++levels.all[level];
    if (!(v6 ? aboveStart6(len) : aboveStart4(len))) ++levels.belowTop[level];
  };
  if (!v6) {
    static const TrieNode absent{prefix00};
    if (!(t.trieNode(prefix032) == absent)) {
      ++levels.all[0];
      ++levels.belowTop[0];
    }
    std::vector<Addrkit::Prefix> frontier{t.trieNode(rootPrefix).root()}, next;
    for (size_t level = 1; !frontier.empty(); ++level) {
      next.clear();
      for (const Addrkit::Prefix& k : frontier) {
        if (k == nullPrefix) continue;
        const TrieNode n = t.trieNode(k);
        if (n == absent) continue;
        count(n.key().len(), level);
        for (U32 s = 0; s < 4; ++s) next.push_back(n.child(s));
      }
      frontier.swap(next);
    }
  } else {
    static const TrieNode6 absent{prefix006};
    if (!(t.trieNode6(prefix0128) == absent)) {
      ++levels.all[0];
      ++levels.belowTop[0];
    }
    std::vector<Addrkit::Ip6Prefix> frontier{t.trieNode6(rootPrefix6).leftChild()}, next;
    for (size_t level = 1; !frontier.empty(); ++level) {
      next.clear();
      for (const Addrkit::Ip6Prefix& k : frontier) {
        if (k == nullPrefix6) continue;
        const TrieNode6 n = t.trieNode6(k);
        if (n == absent) continue;
        count(n.key().len(), level);
        next.push_back(n.leftChild());
        next.push_back(n.rightChild());
      }
      frontier.swap(next);
    }
  }
  return levels;
}

// ---------------------------------------------------------------------------
// Timed lookups.

// Lookups per second of `one` over the queries, cycled, for `seconds`.
bool missed(const IpGenPrefix& answer) { return answer.isEmpty(); }
bool missed(const std::optional<depottrie::Route>& answer) { return !answer; }

template <class Query, class One>
double rateOneAtATime(const std::vector<Query>& queries, U64 offset, One&& one, double seconds = kRunSeconds) {
  const size_t mask = queries.size() - 1;  // a power of two
  size_t i = offset, done = 0;
  U64 empty = 0;
  const Clock::time_point start = Clock::now();
  double elapsed = 0;
  do {
    for (size_t k = 0; k < 4096; ++k) empty += missed(one(queries[i++ & mask]));
    done += 4096;
  } while ((elapsed = secondsSince(start)) < seconds);
  gSink = gSink + empty;
  return double(done) / elapsed;
}

// The same for a batched lookup fed kBatch queries at a time.
template <class Answer = IpGenPrefix, class Query, class Batch>
double rateBatched(const std::vector<Query>& queries, U64 offset, Batch&& batch) {
  std::vector<Answer> answers(kBatch);
  const size_t mask = queries.size() - 1;
  size_t i = offset & ~(kBatch - 1), done = 0;
  U64 empty = 0;
  const Clock::time_point start = Clock::now();
  double elapsed = 0;
  do {
    for (size_t k = 0; k < 16; ++k) {
      batch(std::span<const Query>(queries.data() + (i & mask), kBatch), std::span<Answer>(answers));
      empty += missed(answers[0]);
      i += kBatch;
    }
    done += 16 * kBatch;
  } while ((elapsed = secondsSince(start)) < kRunSeconds);
  gSink = gSink + empty;
  return double(done) / elapsed;
}

double rateLongestMatch(const Trie& t, const std::vector<IpGenPrefix>& q, U64 offset) {
  return rateOneAtATime(q, offset, [&](const IpGenPrefix& p) { return t.longestMatch(p); });
}
double rateLongestMatchFor(const Trie& t, const std::vector<IpGenPrefix>& q, double seconds) {
  return rateOneAtATime(q, 0, [&](const IpGenPrefix& p) { return t.longestMatch(p); }, seconds);
}
double rateLongestMatchBatched(const Trie& t, const std::vector<IpGenPrefix>& q, U64 offset) {
  return rateBatched(q, offset, [&](auto in, auto out) { t.longestMatch(in, out); });
}

class CountingWalk : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix&) override {
    ++count;
    return continueWalk;
  }
  U64 count = 0;
};

// ---------------------------------------------------------------------------
// Child processes (the readers, and the machine's own scaling control). Each
// reports ready, waits until the parent releases all children at once, runs,
// and writes a plain result struct (with an error text on failure) into a pipe.

template <class T>
concept ChildResult = std::is_trivially_copyable_v<T> && requires(T t) { t.error[0]; };

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

bool readFull(int fd, void* out, size_t n) {
  char* p = static_cast<char*>(out);
  while (n > 0) {
    const ssize_t r = read(fd, p, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= size_t(r);
  }
  return true;
}

void writeFull(int fd, const void* data, size_t n) {
  const char* p = static_cast<const char*>(data);
  while (n > 0) {
    const ssize_t w = write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;
    p += w;
    n -= size_t(w);
  }
}

// Children still running when the parent leaves early are killed and reaped.
struct Children {
  std::vector<pid_t> pids;
  std::vector<int> results;
  ~Children() {
    for (int& fd : results) closeFd(fd);
    for (pid_t pid : pids) {
      if (pid <= 0) continue;
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
};

// Runs work(child, release) in `count` child processes; each calls release()
// once set up, which blocks until every child is set up, so that the timed
// parts start together.
template <ChildResult T, class Work>
std::vector<T> runProcesses(int count, Work&& work) {
  std::fflush(stdout);
  std::fflush(stderr);
  int ready[2], start[2];
  if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  if (pipe2(start, O_CLOEXEC) != 0) {
    close(ready[0]);
    close(ready[1]);
    throw std::runtime_error("pipe failed");
  }
  Children children;
  const pid_t parent = getpid();
  for (int c = 0; c < count; ++c) {
    int result[2];
    if (pipe2(result, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error(fmt::format("fork failed: {}", std::strerror(errno)));
    if (pid == 0) {
      // A child outlives no parent: it would go on timing lookups for nobody.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      close(ready[0]);
      close(start[1]);
      close(result[0]);
      T out{};
      try {
        out = work(c, [&] {
          const char byte = 1;
          writeFull(ready[1], &byte, 1);
          close(ready[1]);
          char go;
          (void)!read(start[0], &go, 1);  // EOF once the parent releases every child
        });
      } catch (const std::exception& e) {
        std::snprintf(out.error, sizeof out.error, "%s", e.what());
      }
      writeFull(result[1], &out, sizeof out);
      _exit(0);
    }
    close(result[1]);
    children.pids.push_back(pid);
    children.results.push_back(result[0]);
  }
  close(ready[1]);
  close(start[0]);
  char byte;
  for (int c = 0; c < count && readFull(ready[0], &byte, 1); ++c) {}
  close(ready[0]);
  close(start[1]);  // releases the children together

  std::vector<T> out(static_cast<size_t>(count));
  for (size_t c = 0; c < out.size(); ++c) {
    const bool reported = readFull(children.results[c], &out[c], sizeof(T));
    closeFd(children.results[c]);
    int status = 0;
    waitpid(children.pids[c], &status, 0);
    children.pids[c] = 0;
    if (!reported)
      throw std::runtime_error(
          WIFSIGNALED(status) ? fmt::format("a child process was killed by signal {}", WTERMSIG(status))
                              : fmt::format("a child process ended with status {} and no result", WEXITSTATUS(status)));
    if (out[c].error[0]) throw std::runtime_error(fmt::format("child process: {}", out[c].error));
  }
  return out;
}

// runProcesses of reader processes that open the trie with trieReaderNew
// before they are released, then run work(trie, child).
template <ChildResult T, class Work>
std::vector<T> runReaders(int count, const std::string& name, const MountOptions& options, Work&& work) {
  return runProcesses<T>(count, [&](int child, auto&& release) {
    Basis::Ptr<Trie> reader = trieReaderNew(name, options);
    release();
    return work(*reader, child);
  });
}

// How much the machine itself gains from a second process: a register-only
// loop in one and in two processes at once, the sum of their rates.
double computeScaling() {
  struct Spin {
    double rate;
    char error[64];
  };
  auto spins = [](int count) {
    double sum = 0;
    for (const Spin& s : runProcesses<Spin>(count, [](int, auto&& release) {
           release();
           U64 x = 1, n = 0;
           const Clock::time_point start = Clock::now();
           double elapsed = 0;
           do {
             for (int i = 0; i < 1000000; ++i) x = x * 6364136223846793005ull + 1442695040888963407ull;
             n += 1000000;
           } while ((elapsed = secondsSince(start)) < kRunSeconds / 2);
           gSink = gSink + x;
           return Spin{double(n) / elapsed, {}};
         }))
      sum += s.rate;
    return sum;
  };
  const double one = spins(1);
  return spins(2) / one;
}

// ---------------------------------------------------------------------------
// The figures of one family.

struct ReaderFigures {
  double lpm = 0, longestMatch = 0, consistentLongestMatch = 0, batched = 0, consistentBatched = 0;
  double table = 0, tableBatched = 0;  // RouteTable::lookup: prefix and value
  double tableRatio = 0;  // its time over longestMatch's, from alternated runs
  double recordsPerLookup = 0, neighboursPerLookup = 0, meanDepth = 0, skippedPerLookup = 0, fromTopShare = 0;
  U32 depthMedian = 0, depthP99 = 0, depthMax = 0;
  U32 cachedLevels = 0;
  U64 cachedRecords = 0, treeRecords = 0;
  double missingPerLookup = 0;
  U64 mismatches = 0;
  char firstMismatch[160] = {};
  double walkRate = 0, successorRate = 0;
  U64 walked = 0, successorSteps = 0;
  double statsSeconds = 0, checkSeconds = 0;  // the walks behind depottrie stats and check
  char error[256] = {};
};

struct RateFigures {
  double oneAtATime = 0, batched = 0;
  char error[256] = {};
};

// Lookups/s of the depottrie Python module (python/bench.py run on the same
// table in a process of its own); absent when the module is not built.
struct PythonFigures {
  bool measured = false;
  double single = 0, singleIpaddress = 0, batched = 0;
};

PythonFigures pythonFigures(const std::string& name, const MountOptions& options, bool v6) {
  PythonFigures f;
#ifdef DEPOT_PYTHON
  const std::string command =
      fmt::format("PYTHONPATH='{}' '{}' '{}' --root '{}' --name '{}' --family {} --batch {}", DEPOT_PYTHON_PATH,
                  DEPOT_PYTHON, DEPOT_PYTHON_SCRIPT, options.root, name, v6 ? 6 : 4, kBatch);
  FILE* out = popen(command.c_str(), "r");
  if (!out) throw std::runtime_error(fmt::format("cannot run {}: {}", command, std::strerror(errno)));
  char line[256];
  while (std::fgets(line, sizeof line, out)) {
    char kind[64];
    double rate = 0;
    if (std::sscanf(line, "IPv%*d %63s %lf", kind, &rate) != 2) continue;
    const std::string k = kind;
    (k == "single-str" ? f.single : k == "single-ipaddress" ? f.singleIpaddress : f.batched) = rate;
  }
  const int status = pclose(out);
  if (status != 0 || f.single == 0 || f.singleIpaddress == 0 || f.batched == 0)
    throw std::runtime_error(fmt::format("{} failed (status {})", command, status));
  f.measured = true;
#else
  (void)name, (void)options, (void)v6;
#endif
  return f;
}

struct Descent {
  double recordsPerLookup = 0, neighboursPerLookup = 0, meanDepth = 0, missingPerLookup = 0;
  double skippedPerLookup = 0, fromTopShare = 0;
  U32 depthMedian = 0, depthP99 = 0, depthMax = 0, cachedLevels = 0;
  U64 cachedRecords = 0, treeRecords = 0, mismatches = 0;
  std::string firstMismatch;
};

// Replays every query's descent as the timed runs meet it, cycling through
// the queries in order: the top-of-trie entries are those a first pass
// left, so the counts are of the steady state (IPv4: every lookup starts
// from its entry; IPv6: but for leads that take an entry from each other).
// Checks the replica against longestMatch one at a time and batched (whose
// first pass fills the entries), and applies the cache model: the levels
// from the top whose records a lookup can read below its start
// (cumulatively, kBytesPerRecord each) fit in the L3 count as cached, and
// reads of deeper records as misses. The few lookups that descend from the
// top read records above the start too; those the budget leaves out but
// count as cached when their level is.
Descent descend(const Trie& t, const std::vector<IpGenPrefix>& queries, bool v6, size_t l3) {
  DescentCounts counts;
  Descent d;
  std::vector<IpGenPrefix> batched(queries.size());
  t.longestMatch(std::span<const IpGenPrefix>(queries), std::span<IpGenPrefix>(batched));
  TopModel top;
  for (const IpGenPrefix& q : queries) top.starts(q);
  for (size_t i = 0; i < queries.size(); ++i) {
    const IpGenPrefix& q = queries[i];
    const bool startsBelow = top.starts(q);
    const IpGenPrefix replayed = v6 ? replayLongestMatch6(t, q.v6(), startsBelow, counts)
                                    : replayLongestMatch4(t, q.v4(), startsBelow, counts);
    const IpGenPrefix library = t.longestMatch(q);
    if (replayed != library || batched[i] != library) {
      if (d.mismatches++ == 0)
        d.firstMismatch = fmt::format("{}: replica {}, longestMatch {}, batched {}", q, replayed, library, batched[i]);
    }
  }
  const double n = double(counts.lookups);
  d.recordsPerLookup = double(counts.reads) / n;
  d.neighboursPerLookup = double(counts.neighbourReads) / n;
  d.skippedPerLookup = double(counts.skipped) / n;
  d.fromTopShare = double(counts.fromTop) / n;
  double depthSum = 0;
  U64 seen = 0;
  for (size_t depth = 0; depth < counts.lookupsAtDepth.size(); ++depth) {
    const U64 k = counts.lookupsAtDepth[depth];
    if (k == 0) continue;
    depthSum += double(depth) * double(k);
    if (seen < counts.lookups / 2 && seen + k >= counts.lookups / 2) d.depthMedian = U32(depth);
    if (seen < counts.lookups * 99 / 100 && seen + k >= counts.lookups * 99 / 100) d.depthP99 = U32(depth);
    seen += k;
    d.depthMax = U32(depth);
  }
  d.meanDepth = depthSum / n;

  const Levels levels = recordsByLevel(t, v6);
  d.treeRecords = std::accumulate(levels.all.begin(), levels.all.end(), U64(0));
  U64 cumulative = 0;
  d.cachedLevels = 0;
  for (size_t l = 0; l < levels.belowTop.size(); ++l) {
    if (double(cumulative + levels.belowTop[l]) * kBytesPerRecord > double(l3)) break;
    cumulative += levels.belowTop[l];
    d.cachedLevels = U32(l + 1);
  }
  d.cachedRecords = cumulative;
  U64 missing = 0;
  for (size_t l = d.cachedLevels; l < counts.readsAtLevel.size(); ++l) missing += counts.readsAtLevel[l];
  d.missingPerLookup = double(missing) / n;
  return d;
}

struct FamilyFigures {
  size_t prefixes = 0;
  U64 stored = 0;
  double loadRate = 0, sizedLoadRate = 0, updateRate = 0;
  U64 updates = 0;
  double bytesPerPrefix = 0;
  U64 occupancy = 0;  // records of the family's table after the updates
  ReaderFigures reader;
  PythonFigures python;
  RateFigures one, two;
  double machineScaling = 0;  // measured beside them, for the cores other work leaves free
  struct Size {
    size_t prefixes;
    double oneAtATime, batched, recordsPerLookup, meanDepth, skipped;
  };
  std::vector<Size> sizes;
};

struct Footprint {
  double resident = 0;  // both tables
  U64 ownRecords = 0;   // the family's table
};
Footprint footprint(const Trie& t, bool v6) {
  Footprint f;
  const Depot::Table* tables[2] = {&t.trieNodeMap().table(), &t.trieNode6Map().table()};
  for (int i = 0; i < 2; ++i) {
    const Depot::SharedTableStats s = dynamic_cast<const Depot::SharedTable&>(*tables[i]).stats();
    f.resident += double(s.residentBytes);
    if (i == int(v6)) f.ownRecords = s.occupancy;
  }
  return f;
}

// Loads the prefixes into a fresh trie named `name`; returns the writer and
// the insert rate.
std::pair<Basis::Ptr<Trie>, double> load(const std::string& name, const MountOptions& options,
                                         const std::vector<IpGenPrefix>& prefixes) {
  if (trieExists(name, options)) trieDrop(name, options);
  Basis::Ptr<Trie> writer = trieWriterNew(name, options);
  const Clock::time_point start = Clock::now();
  for (const IpGenPrefix& p : prefixes) writer->prefixIs(p);
  return {writer, double(prefixes.size()) / secondsSince(start)};
}

FamilyFigures benchFamily(bool v6, const std::vector<IpGenPrefix>& prefixes, const MountOptions& options, size_t l3) {
  const char* family = v6 ? "IPv6" : "IPv4";
  const std::string name = v6 ? "bench6" : "bench4";
  FamilyFigures f;
  f.prefixes = prefixes.size();

  Basis::Ptr<Trie> writer;
  // Sized up front for the file, as a loader that knows its size opens the
  // trie; then as tables that start small and grow, which the figures
  // below are taken from.
  for (int run = 1; run <= 3; ++run) {
    progress("{}: sized load {} of 3...", family, run);
    MountOptions sized = options;
    (v6 ? sized.ipv6Prefixes : sized.ipv4Prefixes) = prefixes.size();
    f.sizedLoadRate = std::max(f.sizedLoadRate, load(name, sized, prefixes).second);
  }
  for (int run = 1; run <= 3; ++run) {
    progress("{}: load {} of 3...", family, run);
    writer = nullptr;
    auto [w, rate] = load(name, options, prefixes);
    writer = w;
    f.loadRate = std::max(f.loadRate, rate);
  }
  const Footprint fp = footprint(*writer, v6);
  f.bytesPerPrefix = fp.resident / double(prefixes.size());

  progress("{}: updates...", family);
  {
    std::vector<IpGenPrefix> chosen = randomSubset(prefixes, kUpdateCount);
    const Clock::time_point start = Clock::now();
    for (const IpGenPrefix& p : chosen) writer->prefixDel(p);
    for (const IpGenPrefix& p : chosen) writer->prefixIs(p);
    f.updates = 2 * chosen.size();
    f.updateRate = double(f.updates) / secondsSince(start);
  }
  f.occupancy = footprint(*writer, v6).ownRecords;
  // The route table over the same trie gives every prefix its value record.
  progress("{}: values...", family);
  writer = nullptr;
  depottrie::RouteTable::openWriter(name, {.root = options.root});
  writer = trieWriterNew(name, options);

  const std::vector<IpGenPrefix> queries = randomQueries(prefixes, kQueryCount, kSeed);
  progress("{}: one reader process...", family);
  f.reader = runReaders<ReaderFigures>(1, name, options, [&](const Trie& t, int) {
               ReaderFigures r;
               // The descent replay touches every record first (breadth-first
               // level count), so the timed runs below meet no page faults.
               const Descent d = descend(t, queries, v6, l3);
               r.recordsPerLookup = d.recordsPerLookup;
               r.neighboursPerLookup = d.neighboursPerLookup;
               r.meanDepth = d.meanDepth;
               r.skippedPerLookup = d.skippedPerLookup;
               r.fromTopShare = d.fromTopShare;
               r.depthMedian = d.depthMedian;
               r.depthP99 = d.depthP99;
               r.depthMax = d.depthMax;
               r.cachedLevels = d.cachedLevels;
               r.cachedRecords = d.cachedRecords;
               r.treeRecords = d.treeRecords;
               r.missingPerLookup = d.missingPerLookup;
               r.mismatches = d.mismatches;
               std::snprintf(r.firstMismatch, sizeof r.firstMismatch, "%s", d.firstMismatch.c_str());

               ConsistentReader consistent(t);
               r.lpm = rateOneAtATime(queries, 0, [&](const IpGenPrefix& p) { return t.lpm(p); });
               r.longestMatch = rateLongestMatch(t, queries, 0);
               r.consistentLongestMatch =
                   rateOneAtATime(queries, 0, [&](const IpGenPrefix& p) { return consistent.longestMatch(p); });
               r.batched = rateLongestMatchBatched(t, queries, 0);
               r.consistentBatched = rateBatched(queries, 0, [&](auto in, auto out) { consistent.longestMatch(in, out); });
               const depottrie::RouteTable table = depottrie::RouteTable::openReader(name, {.root = options.root});
               // Its own mappings are touched first too, by a pass over every route.
               for (const depottrie::Route& route : table) gSink = gSink + route.value;
               std::vector<depottrie::Prefix> asked;
               for (const IpGenPrefix& q : queries) asked.push_back(depottrie::Prefix(q.stringValue()));
               r.table = rateOneAtATime(asked, 0, [&](const depottrie::Prefix& p) { return table.lookup(p); });
               r.tableBatched = rateBatched<std::optional<depottrie::Route>>(
                   asked, 0, [&](auto in, auto out) { table.lookup(in, out); });
               // The ratio from short runs of each in turn: two runs a few
               // seconds apart differ by more than the ratio's margin on a
               // busy host, turns of a fifth of a second do not.
               std::vector<double> ratios;
               for (int turn = 0; turn < 7; ++turn) {
                 const double plain = rateLongestMatchFor(t, queries, kRunSeconds / 5);
                 const double valued = rateOneAtATime(
                     asked, 0, [&](const depottrie::Prefix& p) { return table.lookup(p); }, kRunSeconds / 5);
                 ratios.push_back(plain / valued);
               }
               std::sort(ratios.begin(), ratios.end());
               r.tableRatio = ratios[ratios.size() / 2];

               const IpGenPrefix top = v6 ? IpGenPrefix(rootPrefix6) : IpGenPrefix(rootPrefix);
               Clock::time_point start = Clock::now();
               double elapsed = 0;
               do {
                 Basis::Ptr<CountingWalk> walk(new CountingWalk);
                 t.preOrderWalk(walk, top);
                 r.walked += walk->count;
               } while ((elapsed = secondsSince(start)) < kRunSeconds / 2);
               r.walkRate = double(r.walked) / elapsed;

               start = Clock::now();
               IpGenPrefix p = v6 ? IpGenPrefix(nullPrefix6) : IpGenPrefix(nullPrefix);
               for (p = t.getNext(p); !p.isEmpty() && r.successorSteps < kSuccessorSteps; p = t.getNext(p))
                 ++r.successorSteps;
               r.successorRate = double(r.successorSteps) / secondsSince(start);

               start = Clock::now();
               gSink = gSink + trieStats(t).v4.nodes;
               r.statsSeconds = secondsSince(start);
               start = Clock::now();
               gSink = gSink + checkTrie(t).size();
               r.checkSeconds = secondsSince(start);
               return r;
             }).front();
  progress("{}: Python reader process...", family);
  f.python = pythonFigures(name, options, v6);
  // The walk delivers each stored prefix once.
  {
    Basis::Ptr<CountingWalk> walk(new CountingWalk);
    writer->preOrderWalk(walk, v6 ? IpGenPrefix(rootPrefix6) : IpGenPrefix(rootPrefix));
    f.stored = walk->count;
  }

  auto aggregate = [&](int readers) {
    progress("{}: {} reader process{} at once...", family, readers, readers > 1 ? "es" : "");
    RateFigures sum;
    for (const RateFigures& r : runProcesses<RateFigures>(readers, [&](int child, auto&& release) {
           Basis::Ptr<Trie> reader = trieReaderNew(name, options);
           const Trie& t = *reader;
           const U64 offset = U64(child) * (kQueryCount / 2);
           // The mapping's page faults, before the timed runs.
           for (size_t i = 0; i < kQueryCount / 4; ++i) gSink = gSink + t.longestMatch(queries[i]).len();
           release();
           RateFigures out;
           out.oneAtATime = rateLongestMatch(t, queries, offset);
           out.batched = rateLongestMatchBatched(t, queries, offset);
           return out;
         })) {
      sum.oneAtATime += r.oneAtATime;
      sum.batched += r.batched;
    }
    return sum;
  };
  f.one = aggregate(1);
  f.two = aggregate(2);
  f.machineScaling = computeScaling();
  writer = nullptr;
  trieDrop(name, options);

  for (size_t n : {size_t(10000), size_t(100000)}) {
    if (n >= prefixes.size()) continue;
    progress("{}: {} prefixes...", family, n);
    const std::vector<IpGenPrefix> subset = randomSubset(prefixes, n);
    const std::string sizeName = fmt::format("{}-{}", name, n);
    Basis::Ptr<Trie> w = load(sizeName, options, subset).first;
    const std::vector<IpGenPrefix> subsetQueries = randomQueries(subset, kQueryCount, kSeed);
    struct SizeFigures {
      double oneAtATime, batched, recordsPerLookup, meanDepth, skipped;
      char error[256];
    };
    const SizeFigures s = runReaders<SizeFigures>(1, sizeName, options, [&](const Trie& t, int) {
                            SizeFigures out{};
                            const Descent d = descend(t, subsetQueries, v6, l3);
                            out.recordsPerLookup = d.recordsPerLookup;
                            out.meanDepth = d.meanDepth;
                            out.skipped = d.skippedPerLookup;
                            out.oneAtATime = rateLongestMatch(t, subsetQueries, 0);
                            out.batched = rateLongestMatchBatched(t, subsetQueries, 0);
                            return out;
                          }).front();
    f.sizes.push_back({n, s.oneAtATime, s.batched, s.recordsPerLookup, s.meanDepth, s.skipped});
    w = nullptr;
    trieDrop(sizeName, options);
  }
  f.sizes.push_back({prefixes.size(), f.reader.longestMatch, f.reader.batched, f.reader.recordsPerLookup,
                     f.reader.meanDepth, f.reader.skippedPerLookup});
  return f;
}

// ---------------------------------------------------------------------------
// The table.

std::string rate(double perSecond, const char* what = "/s") {
  if (perSecond >= 1e6) return fmt::format("{:.2f} M{}", perSecond / 1e6, what);
  if (perSecond >= 1e3) return fmt::format("{:.1f} K{}", perSecond / 1e3, what);
  return fmt::format("{:.0f} {}", perSecond, what);
}

std::string count(U64 n) {
  std::string digits = std::to_string(n), out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

struct Cell {
  std::string figure, target, verdict;
};

// A target a figure must reach (atLeast) or stay under.
Cell judged(std::string figure, double value, double limit, bool atLeast, std::string target) {
  const bool met = atLeast ? value >= limit : value <= limit;
  return {std::move(figure), std::move(target), met ? "met" : "not met"};
}
Cell atLeast(double perSecond, double limit, const char* what = "/s") {
  return judged(rate(perSecond, what), perSecond, limit, true, fmt::format("≥ {:g} M{}", limit / 1e6, what));
}

struct Row {
  std::string label;
  std::vector<Cell> cells;  // one per family, or one shared by both
};

size_t width(const std::string& s) {
  // Display width: UTF-8 continuation bytes take no column.
  return size_t(std::count_if(s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}
std::string padRight(const std::string& s, size_t w) { return s + std::string(w > width(s) ? w - width(s) : 0, ' '); }
std::string padLeft(const std::string& s, size_t w) { return std::string(w > width(s) ? w - width(s) : 0, ' ') + s; }

void printTable(const std::vector<Row>& rows, const std::vector<std::string>& families) {
  size_t labelW = 0, figW = 6, targetW = 6, verdictW = 7;
  for (const Row& r : rows) {
    if (!r.cells.empty()) labelW = std::max(labelW, width(r.label));
    for (const Cell& c : r.cells) {
      if (r.cells.size() > 1 || !c.target.empty()) figW = std::max(figW, width(c.figure));
      targetW = std::max(targetW, width(c.target));
    }
  }
  std::string head = padRight("", labelW);
  for (const std::string& f : families)
    head += "   " + padLeft(f, figW) + "  " + padRight("target", targetW) + "  " + padRight("", verdictW);
  while (!head.empty() && head.back() == ' ') head.pop_back();
  fmt::print("{}\n", head);
  for (const Row& r : rows) {
    std::string line = padRight(r.label, labelW);
    if (r.cells.empty()) {
      fmt::print("{}\n", line);
      continue;
    }
    if (r.cells.size() == 1 && r.cells[0].target.empty()) {
      // A figure of the machine, shared by both families.
      line += "   " + padLeft(r.cells[0].figure, figW);
    } else {
      for (const Cell& c : r.cells)
        line += "   " + padLeft(c.figure, figW) + "  " + padRight(c.target, targetW) + "  " + padRight(c.verdict, verdictW);
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    fmt::print("{}\n", line);
  }
}

// For each target a family's figures miss: the measured reason (records
// that miss the cache, times the latency measured in the run) and what would
// remove it. Each entry is a paragraph of lines.
std::vector<std::vector<std::string>> unmetTargets(const FamilyFigures& f, bool six, const Latency& lat) {
  const Targets& t = kTargets[six];
  const char* family = six ? "IPv6" : "IPv4";
  const ReaderFigures& r = f.reader;
  const double miss = lat.dependentNs;
  const double misses = r.missingPerLookup * kMissesPerRecord;
  const double single = 1e9 / r.longestMatch, bound = misses * miss;
  std::vector<std::vector<std::string>> out;

  if (r.longestMatch < t.longestMatch) {
    const double need = 1e9 / t.longestMatch;
    std::vector<std::string> p{
        fmt::format("{} longestMatch, one at a time: {:.0f} ns per lookup, {:.0f} ns needed.", family, single, need),
        fmt::format("{:.2f} of the {:.2f} records a lookup reads miss the cache (a path {:.1f} nodes deep), each an "
                    "index entry then a slot:",
                    r.missingPerLookup, r.recordsPerLookup, r.meanDepth),
        fmt::format("{:.1f} dependent misses of {:.0f} ns, {:.0f} ns paid one after another; measured {:.0f} ns = "
                    "{:.1f} misses.",
                    misses, miss, bound, single, single / miss)};
    if (six)
      p.push_back(fmt::format("{:.0f} ns is {:.1f} misses: it needs a trie of fewer levels (more than one bit per "
                              "node), another node record format.",
                              need, need / miss));
    else
      p.push_back(fmt::format("{:.0f} ns is {:.1f} misses: it needs one miss per record (index entries in their "
                              "records' lines), another table format.",
                              need, need / miss));
    out.push_back(std::move(p));
  }
  if (r.batched < t.batched) {
    const double per = 1e9 / r.batched, need = 1e9 / t.batched;
    const double overlapped = misses * lat.interleavedNs;
    const double work = std::max(0.0, per - overlapped) / r.recordsPerLookup;
    const double workNeeded = (need - overlapped) / r.recordsPerLookup;
    out.push_back(
        {fmt::format("{} longestMatch, batches of {}: {:.0f} ns per lookup, {:.0f} ns needed.", family, kBatch, per,
                     need),
         fmt::format("With misses in flight together one costs about {:.1f} ns: {:.1f} misses take {:.0f} ns; the "
                     "other {:.0f} ns are work,",
                     lat.interleavedNs, misses, overlapped, std::max(0.0, per - overlapped)),
         fmt::format("{:.0f} ns per record read ({:.2f} per lookup: index probe, checked copy of the slot, descent "
                     "step).",
                     work, r.recordsPerLookup),
         workNeeded > 0 ? fmt::format("{:.0f} ns needs under {:.0f} ns of work per record, or fewer records per "
                                      "lookup (fewer levels).",
                                      need, workNeeded)
                        : fmt::format("{:.0f} ns is less than the misses alone: it needs fewer records per lookup "
                                      "(fewer levels) and one miss each.",
                                      need)});
  }
  if (bound > 0 && single / bound > t.boundRatio)
    out.push_back({fmt::format("{} measured / bound {:.2f}: beyond the misses a lookup spends {:.0f} ns, {:.0f} ns "
                               "per record read; less work per record removes it.",
                               family, single / bound, single - bound, (single - bound) / r.recordsPerLookup)});
  if (r.tableRatio > t.tableRatio) {
    const double value = single * (r.tableRatio - 1);
    out.push_back(
        {fmt::format("{} RouteTable::lookup / longestMatch {:.2f}: the value adds {:.0f} ns per lookup, {:.1f} "
                     "dependent misses;",
                     family, r.tableRatio, value, value / miss),
         fmt::format("{:.2f} allows {:.0f} ns. The value is one more read (its bucket, two adjacent cache lines), "
                     "fetched during the descent",
                     t.tableRatio, single * (t.tableRatio - 1)),
         "for the deepest node's key only (which holds 8 in 10 answers); each further fetch costs more than it "
         "saves. A value in lines the descent reads would remove it."});
  }
  if (f.python.measured && t.pythonBatched > 0 && f.python.batched < t.pythonBatched && r.tableBatched > 0) {
    const double per = 1e9 / f.python.batched, table = 1e9 / r.tableBatched;
    out.push_back({fmt::format("{} Python lists: {:.0f} ns per lookup, {:.0f} ns needed; the route table's batch "
                               "takes {:.0f} ns of it,",
                               family, per, 1e9 / t.pythonBatched, table),
                   fmt::format("the module {:.0f} ns (text to prefix, route objects). It needs the route table's "
                               "batch at {:.0f} ns: fewer misses",
                               per - table, 1e9 / t.pythonBatched - (per - table)),
                   "or less work per record, as for the batches above."});
  }
  if (f.loadRate < t.load) {
    std::vector<std::string> p{fmt::format("{} load: {} into growing tables, {} into tables sized for the file.",
                                           family, rate(f.loadRate, " prefixes/s"),
                                           rate(f.sizedLoadRate, " prefixes/s"))};
    if (f.sizedLoadRate >= t.load)
      p.push_back("The difference is the copies into new generations as the tables grow; a load of known size "
                  "opens the trie sized for it.");
    else
      p.push_back(fmt::format("Sized, an insertion takes {:.0f} ns: it descends a trie {:.1f} nodes deep and writes "
                              "its records with their undo journal;",
                              1e9 / f.sizedLoadRate, r.meanDepth));
    if (f.sizedLoadRate < t.load) p.push_back("a trie of fewer levels would remove most of it.");
    out.push_back(std::move(p));
  }
  const double recordsPerPrefix = f.stored ? double(f.occupancy) / double(f.stored) : 0;
  if (r.walkRate < t.walk && recordsPerPrefix > 0) {
    const double perRecord = 1e9 / r.walkRate / recordsPerPrefix;
    out.push_back({fmt::format("{} walk: {:.0f} ns per prefix, {:.2f} records per prefix: {:.0f} ns per record "
                               "({:.0f} ns needed).",
                               family, 1e9 / r.walkRate, recordsPerPrefix, perRecord,
                               1e9 / t.walk / recordsPerPrefix),
                   "A node's first child waits for its index entry, then its slot (its siblings' reads overlap "
                   "them);",
                   "index entries in their records' lines would remove the first wait."});
  }
  if (r.successorRate < t.successor)
    out.push_back({fmt::format("{} successor: {:.0f} ns per step, {:.0f} ns needed: each getNext descends again "
                               "from the top, {:.1f} nodes deep;",
                               family, 1e9 / r.successorRate, 1e9 / t.successor, r.meanDepth),
                   "a trie of fewer levels would remove most of it."});
  return out;
}

int run() {
  const Machine m = machine();
  BenchRoot root;

  progress("reading the sample tables...");
  const std::vector<IpGenPrefix> v4 = routes("routes-v4.txt.xz");
  const std::vector<IpGenPrefix> v6 = routes("routes-v6.txt.xz");
  if (v4.empty() || v6.empty()) throw std::runtime_error("a sample table is empty");

  progress("memory latency ({} MiB chase)...", kChaseBytes >> 20);
  const Latency lat = memoryLatency(kChaseBytes);

  const FamilyFigures f4 = benchFamily(false, v4, root.options, m.l3);
  const FamilyFigures f6 = benchFamily(true, v6, root.options, m.l3);
  const FamilyFigures* fam[2] = {&f4, &f6};

  fmt::print("DepotTrie bench: {}, {} cores, L3 {} MiB ({}), {}; load average {} at the start\n", m.cpu, m.cores,
             m.l3 >> 20, m.l3Source, today(), m.loadAverage);
  fmt::print("IPv4 {} prefixes ({} stored), IPv6 {} prefixes ({} stored)\n"
             "{} random queries per family, addresses inside stored prefixes (seed {}); "
             "each lookup figure runs {:.0f} s in a reader process\n\n",
             count(f4.prefixes), count(f4.stored), count(f6.prefixes), count(f6.stored), count(kQueryCount), kSeed,
             kRunSeconds);

  std::vector<Row> rows;
  auto both = [&](std::string label, auto cellOf) {
    rows.push_back({std::move(label), {cellOf(*fam[0], false), cellOf(*fam[1], true)}});
  };
  auto shared = [&](std::string label, std::string figure) { rows.push_back({std::move(label), {{figure, "", ""}}}); };
  auto plain = [](std::string figure) { return Cell{std::move(figure), "", ""}; };
  const auto section = [&](std::string label) { rows.push_back({std::move(label), {}}); };

  section("memory latency (this run)");
  shared(fmt::format("  dependent miss, {} MiB chase, 4 KiB pages", kChaseBytes >> 20),
         fmt::format("{:.1f} ns", lat.dependentNs));
  shared("  8 chases interleaved, per miss", fmt::format("{:.1f} ns", lat.interleavedNs));

  section("lookups/s, one reader process");
  both("  lpm", [&](const FamilyFigures& f, bool) { return plain(rate(f.reader.lpm)); });
  both("  longestMatch", [&](const FamilyFigures& f, bool six) {
    return atLeast(f.reader.longestMatch, kTargets[six].longestMatch);
  });
  both("  ConsistentReader::longestMatch",
       [&](const FamilyFigures& f, bool) { return plain(rate(f.reader.consistentLongestMatch)); });
  both(fmt::format("  longestMatch, batches of {}", kBatch),
       [&](const FamilyFigures& f, bool six) { return atLeast(f.reader.batched, kTargets[six].batched); });
  both(fmt::format("  ConsistentReader::longestMatch, batches of {}", kBatch),
       [&](const FamilyFigures& f, bool) { return plain(rate(f.reader.consistentBatched)); });
  both("  RouteTable::lookup (prefix and value)", [&](const FamilyFigures& f, bool) { return plain(rate(f.reader.table)); });
  both(fmt::format("  RouteTable::lookup, batches of {}", kBatch),
       [&](const FamilyFigures& f, bool) { return plain(rate(f.reader.tableBatched)); });
  both("  RouteTable::lookup time / longestMatch time (alternated)", [&](const FamilyFigures& f, bool six) {
    const double ratio = f.reader.tableRatio;
    return judged(fmt::format("{:.2f}", ratio), ratio, kTargets[six].tableRatio, false,
                  fmt::format("≤ {:g}", kTargets[six].tableRatio));
  });

  // Targets of the Python module: IPv4 as fast as an in-process prefix tree
  // module measured here (0.34 M/s), batches at 2 M/s.
  auto python = [&](std::string label, double PythonFigures::*figure, double Targets::*target) {
    both(std::move(label), [&](const FamilyFigures& f, bool six) {
      if (!f.python.measured) return plain("not built");
      const double limit = target ? kTargets[six].*target : 0;
      return limit == 0 ? plain(rate(f.python.*figure)) : atLeast(f.python.*figure, limit);
    });
  };
  python("  Python lookup(str), one at a time", &PythonFigures::single, &Targets::python);
  python("  Python lookup(ipaddress), one at a time", &PythonFigures::singleIpaddress, nullptr);
  python(fmt::format("  Python lookup(list of {} str)", kBatch), &PythonFigures::batched, &Targets::pythonBatched);

  section("records read per longestMatch (replayed descent, queries cycled in order)");
  both("  node records read, from the top-of-trie start down", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}", f.reader.recordsPerLookup));
  });
  both("  of which x0 neighbours, read after the descent", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}", f.reader.neighboursPerLookup));
  });
  both("  nodes on the path from the top: mean / median / p99 / max", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f} / {} / {} / {}", f.reader.meanDepth, f.reader.depthMedian, f.reader.depthP99,
                             f.reader.depthMax));
  });
  both("  nodes above the start, not read (lookups from the top)", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f} ({:.1f}%)", f.reader.skippedPerLookup, 100 * f.reader.fromTopShare));
  });

  section(fmt::format("cache model: levels whose records × {:.0f} B fit in {} MiB L3 are cached", kBytesPerRecord,
                      m.l3 >> 20));
  both("  levels cached (records in them below the start)", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{} ({})", f.reader.cachedLevels, count(f.reader.cachedRecords)));
  });
  both("  missing records per lookup", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}", f.reader.missingPerLookup));
  });
  both(fmt::format("  dependent misses per lookup = missing × {:.0f}", kMissesPerRecord), [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}", f.reader.missingPerLookup * kMissesPerRecord));
  });
  auto boundNs = [&](const FamilyFigures& f) { return f.reader.missingPerLookup * kMissesPerRecord * lat.dependentNs; };
  both("  latency bound per lookup", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.0f} ns", boundNs(f)));
  });
  both("  measured per longestMatch", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.0f} ns", 1e9 / f.reader.longestMatch));
  });
  both("  measured / bound", [&](const FamilyFigures& f, bool six) {
    const double bound = boundNs(f);
    const std::string target = fmt::format("≤ {:g}", kTargets[six].boundRatio);
    if (bound <= 0) return Cell{"no misses", target, "n/a"};
    const double ratio = 1e9 / f.reader.longestMatch / bound;
    return judged(fmt::format("{:.2f}", ratio), ratio, kTargets[six].boundRatio, false, target);
  });

  section("writer, walk, successor, memory");
  both("  load (whole file, fresh tables, best of 3)", [&](const FamilyFigures& f, bool six) {
    return atLeast(f.loadRate, kTargets[six].load, " prefixes/s");
  });
  both("  load into tables sized for the file", [&](const FamilyFigures& f, bool six) {
    return atLeast(f.sizedLoadRate, kTargets[six].load, " prefixes/s");
  });
  both(fmt::format("  update (delete, re-insert {} prefixes)", count(kUpdateCount)),
       [&](const FamilyFigures& f, bool) { return plain(rate(f.updateRate, " updates/s")); });
  both("  walk (preOrderWalk)", [&](const FamilyFigures& f, bool six) {
    return atLeast(f.reader.walkRate, kTargets[six].walk, " prefixes/s");
  });
  both(fmt::format("  successor (getNext chain, {} steps)", count(kSuccessorSteps)),
       [&](const FamilyFigures& f, bool six) { return atLeast(f.reader.successorRate, kTargets[six].successor, " steps/s"); });
  {
    // The tool's stats and check walk the same tables; the target is for both families together.
    const double total = f4.reader.statsSeconds + f4.reader.checkSeconds + f6.reader.statsSeconds + f6.reader.checkSeconds;
    both("  stats and check walks (s; both families together)", [&](const FamilyFigures& f, bool six) {
      const std::string figure = fmt::format("{:.2f} + {:.2f} s", f.reader.statsSeconds, f.reader.checkSeconds);
      if (!six) return plain(figure);
      return judged(figure + fmt::format(" (all {:.2f} s)", total), total, 1.0, false, "≤ 1 s");
    });
  }
  both("  shared memory per prefix (both tables)", [&](const FamilyFigures& f, bool six) {
    const double limit = kTargets[six].bytesPerPrefix;
    return judged(fmt::format("{:.1f} B", f.bytesPerPrefix), f.bytesPerPrefix, limit, false,
                  fmt::format("≤ {:.0f} B", limit));
  });

  section("longestMatch lookups/s, reader processes at once (sum)");
  both("  one at a time, 1 reader", [&](const FamilyFigures& f, bool) { return plain(rate(f.one.oneAtATime)); });
  both("  one at a time, 2 readers", [&](const FamilyFigures& f, bool) { return plain(rate(f.two.oneAtATime)); });
  both("  scaling 2 / 1", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}×", f.two.oneAtATime / f.one.oneAtATime));
  });
  both(fmt::format("  batches of {}, 1 reader", kBatch), [&](const FamilyFigures& f, bool) { return plain(rate(f.one.batched)); });
  both(fmt::format("  batches of {}, 2 readers", kBatch), [&](const FamilyFigures& f, bool) { return plain(rate(f.two.batched)); });
  both("  scaling 2 / 1", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}×", f.two.batched / f.one.batched));
  });
  both("  the machine: register-only loop, 2 processes / 1", [&](const FamilyFigures& f, bool) {
    return plain(fmt::format("{:.2f}×", f.machineScaling));
  });

  printTable(rows, {"IPv4", "IPv6"});

  {
    bool any = false;
    for (int i = 0; i < 2; ++i)
      for (const std::vector<std::string>& p : unmetTargets(*fam[i], i == 1, lat)) {
        if (!any) fmt::print("\ntargets not met: the measured reason and what would remove it\n");
        any = true;
        for (size_t k = 0; k < p.size(); ++k) fmt::print("{}{}\n", k ? "    " : "  ", p[k]);
      }
  }

  fmt::print("\nlongestMatch by table size (random subsets, one reader process)\n");
  fmt::print("{:>10}  {:>13}  {:>12}  {:>9}  {:>11}  {:>9}\n", "prefixes", "one at a time", "batched", "records",
             "mean depth", "skipped");
  for (int i = 0; i < 2; ++i) {
    fmt::print("{}\n", i ? "IPv6" : "IPv4");
    for (const FamilyFigures::Size& s : fam[i]->sizes)
      fmt::print("{:>10}  {:>13}  {:>12}  {:>9.2f}  {:>11.2f}  {:>9.2f}\n", count(s.prefixes), rate(s.oneAtATime),
                 rate(s.batched), s.recordsPerLookup, s.meanDepth, s.skipped);
  }

  // Anything that makes a figure above suspect.
  std::vector<std::string> notes;
  for (int i = 0; i < 2; ++i) {
    const FamilyFigures& f = *fam[i];
    const char* family = i ? "IPv6" : "IPv4";
    if (f.reader.mismatches)
      notes.push_back(fmt::format("{}: {} queries where the replayed descent, longestMatch and the batched "
                                  "longestMatch disagree; first {}",
                                  family, count(f.reader.mismatches), f.reader.firstMismatch));
    if (f.reader.treeRecords != f.occupancy)
      notes.push_back(fmt::format("{}: {} records reached from the top node, {} in the table", family,
                                  count(f.reader.treeRecords), count(f.occupancy)));
    if (f.reader.walked % f.stored != 0)
      notes.push_back(fmt::format("{}: the reader's walks delivered {} prefixes, not a multiple of the {} stored",
                                  family, count(f.reader.walked), count(f.stored)));
  }
  if (!notes.empty()) {
    fmt::print("\nnotes\n");
    for (const std::string& n : notes) fmt::print("  {}\n", n);
  }
  return 0;
}

}  // namespace

int main() {
  try {
    return run();
  } catch (const std::exception& e) {
    fmt::print(stderr, "depot_bench: {}\n", e.what());
    return 1;
  }
}
