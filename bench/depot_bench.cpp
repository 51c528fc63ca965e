// Shared-memory trie benchmarks on the sample tables (data/routes-v4.txt.xz,
// data/routes-v6.txt.xz): load into shared memory, longest-prefix match from
// a reader, enumeration by walk and by getNext, and the shared memory each
// stored prefix costs.
//
//   depot_bench [--benchmark_filter=...]   (DEPOT_DATA overrides the data folder)
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <lzma.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"
#include "TrieLib/TrieMount.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;

namespace {

std::string dataFile(const char* name) {
  const char* dir = std::getenv("DEPOT_DATA");
  return fmt::format("{}/{}", dir && *dir ? dir : DEPOT_DATA_DIR, name);
}

// The lines of an .xz file.
std::vector<std::string> xzLines(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error(fmt::format("cannot open {}", path));
  lzma_stream z = LZMA_STREAM_INIT;
  if (lzma_stream_decoder(&z, UINT64_MAX, LZMA_CONCATENATED) != LZMA_OK) throw std::runtime_error(fmt::format("cannot start decompressing {}", path));
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
    if (ret != LZMA_OK && ret != LZMA_STREAM_END) throw std::runtime_error(fmt::format("bad xz data in {}", path));
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

const std::vector<IpGenPrefix>& routes(bool v6) {
  static std::vector<IpGenPrefix> sets[2];
  std::vector<IpGenPrefix>& s = sets[v6];
  if (s.empty())
    for (const std::string& line : xzLines(dataFile(v6 ? "routes-v6.txt.xz" : "routes-v4.txt.xz")))
      s.emplace_back(line);
  return s;
}

// A temporary depot root under /dev/shm, removed with its tables.
class BenchRoot {
 public:
  BenchRoot() {
    char tmpl[] = "/dev/shm/depot-bench-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error(fmt::format("cannot create {}", tmpl));
    options.root = tmpl;
  }
  ~BenchRoot() { std::filesystem::remove_all(options.root); }
  MountOptions options;
};

// Memory of both collection files of a trie, and their record counts.
struct Footprint {
  double resident = 0, file = 0, records = 0;
};
Footprint footprint(const Trie& t) {
  Footprint f;
  for (const Depot::Table* table : {&t.trieNodeMap().table(), &t.trieNode6Map().table()}) {
    Depot::SharedTableStats s = dynamic_cast<const Depot::SharedTable&>(*table).stats();
    f.resident += double(s.residentBytes);
    f.file += double(s.fileBytes);
    f.records += double(s.occupancy);
  }
  return f;
}

void BM_Load(benchmark::State& state, bool v6) {
  const std::vector<IpGenPrefix>& all = routes(v6);
  Footprint f;
  for (auto _ : state) {
    state.PauseTiming();
    {
      BenchRoot root;
      Basis::Ptr<Trie> t = trieWriterNew("bench", root.options);
      state.ResumeTiming();
      for (const IpGenPrefix& p : all) t->prefixIs(p);
      state.PauseTiming();
      f = footprint(*t);
    }
    state.ResumeTiming();
  }
  const double n = double(all.size());
  state.SetItemsProcessed(int64_t(state.iterations() * all.size()));
  state.counters["prefixes"] = n;
  state.counters["records/prefix"] = f.records / n;
  state.counters["shm B/prefix"] = f.resident / n;
  state.counters["file B/prefix"] = f.file / n;
}

// One loaded trie per family, read through a reader's read-only mapping.
struct Loaded {
  BenchRoot root;
  Basis::Ptr<Trie> reader;
  std::vector<IpGenPrefix> queries;  // addresses inside stored prefixes
  explicit Loaded(bool v6) {
    const std::vector<IpGenPrefix>& all = routes(v6);
    {
      Basis::Ptr<Trie> writer = trieWriterNew("bench", root.options);
      for (const IpGenPrefix& p : all) writer->prefixIs(p);
    }
    reader = trieReaderNew("bench", root.options);
    std::mt19937_64 rng(42);
    for (int i = 0; i < (1 << 20); ++i) {
      const IpGenPrefix& p = all[rng() % all.size()];
      if (!v6) {
        U32 hostBits = p.len() >= 32 ? 0 : p.len() == 0 ? 0xFFFFFFFFu : 0xFFFFFFFFu >> p.len();
        U32 host = p.v4().addrHost() | (U32(rng()) & hostBits);
        queries.emplace_back(Addrkit::Prefix::masked(host, 32));
      } else {
        Addrkit::Ip6Address a = p.v6().address();
        for (unsigned w = 0; w < 4; ++w) {
          U32 fixed = p.len() >= 32 * (w + 1) ? 32 : p.len() > 32 * w ? p.len() - 32 * w : 0;
          U32 hostBits = fixed == 32 ? 0 : 0xFFFFFFFFu >> fixed;
          a.wordIs(w, a.word(w) | (U32(rng()) & hostBits));
        }
        queries.emplace_back(Addrkit::Ip6Prefix::masked(a, 128));
      }
    }
  }
};

Loaded& loaded(bool v6) {
  static std::unique_ptr<Loaded> tries[2];
  if (!tries[v6]) tries[v6] = std::make_unique<Loaded>(v6);
  return *tries[v6];
}

void BM_Lpm(benchmark::State& state, bool v6) {
  Loaded& l = loaded(v6);
  size_t i = 0, misses = 0;
  for (auto _ : state) {
    IpGenPrefix match = l.reader->lpm(l.queries[i++ & (l.queries.size() - 1)]);
    misses += match.isEmpty();
    benchmark::DoNotOptimize(match);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["misses"] = double(misses);
}

class Counter : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix&) override {
    ++count;
    return continueWalk;
  }
  U64 count = 0;
};

void BM_Walk(benchmark::State& state, bool v6) {
  Loaded& l = loaded(v6);
  U64 total = 0;
  for (auto _ : state) {
    Basis::Ptr<Counter> c(new Counter);
    l.reader->preOrderWalk(c, v6 ? IpGenPrefix(rootPrefix6) : IpGenPrefix(rootPrefix));
    total += c->count;
  }
  state.SetItemsProcessed(int64_t(total));
  state.counters["prefixes"] = double(total / state.iterations());
}

void BM_GetNext(benchmark::State& state, bool v6) {
  Loaded& l = loaded(v6);
  U64 total = 0;
  for (auto _ : state) {
    for (IpGenPrefix p = l.reader->getNext(v6 ? IpGenPrefix(nullPrefix6) : IpGenPrefix(nullPrefix)); !p.isEmpty();
         p = l.reader->getNext(p))
      ++total;
  }
  state.SetItemsProcessed(int64_t(total));
  state.counters["prefixes"] = double(total / state.iterations());
}

BENCHMARK_CAPTURE(BM_Load, v4, false)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Load, v6, true)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Lpm, v4, false);
BENCHMARK_CAPTURE(BM_Lpm, v6, true);
BENCHMARK_CAPTURE(BM_Walk, v4, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Walk, v6, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_GetNext, v4, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_GetNext, v6, true)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
