#pragma once
// Temporary roots, child processes, seeded update sequences and a local
// reference trie for the tests that run writers and readers as processes.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "TrieLib/DepotTrie.h"
#include "TrieLib/TrieMount.h"

namespace trietest {

using Addrkit::IpGenPrefix;

// A per-test depot root under /dev/shm, removed with everything in it.
class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/dev/shm/depot-test-XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    options.root = tmpl;
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(options.root, ec);
  }
  std::string file(const std::string& name) const { return options.root + "/" + name; }
  Routing::Lattice::MountOptions options;
};

// Runs fn in a child process; its result is the exit status, an exception
// exits 1 after saying what it was.
inline pid_t spawn(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) {
    int status = 1;
    try {
      status = fn();
    } catch (const std::exception& e) {
      fmt::print(stderr, "child {}: {}\n", getpid(), e.what());
    }
    _exit(status);
  }
  return pid;
}

// Exit status, or 100 + the signal that ended the process.
inline int statusOf(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

// Counters in a small file mapped by every process of a test; they survive
// a process killed on the spot.
struct SharedCounters {
  std::atomic<U64> done;     // operations that returned in the writer
  std::atomic<U64> ready;    // readers that are mounted and waiting
  std::atomic<U64> failed;   // processes of the test that failed
  std::atomic<U64> answered[8];  // queries each reader has answered
};

class SharedCountersFile {
 public:
  explicit SharedCountersFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_GE(fd, 0) << path;
    EXPECT_EQ(ftruncate(fd, sizeof(SharedCounters)), 0);
    void* p = mmap(nullptr, sizeof(SharedCounters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    EXPECT_NE(p, MAP_FAILED);
    counters_ = new (p) SharedCounters{};
  }
  ~SharedCountersFile() { munmap(counters_, sizeof(SharedCounters)); }
  SharedCounters* operator->() const { return counters_; }
  SharedCounters& operator*() const { return *counters_; }

 private:
  SharedCounters* counters_;
};

struct TrieOp {
  bool insert;
  IpGenPrefix prefix;
};

// Prefixes of both families and all lengths around a few clustered bases, so
// that they nest and share edges: insertions split nodes and extend leaves,
// deletions hoist children. The first two thirds mostly insert (the tables
// grow), the last third mostly deletes; some deletions name absent prefixes,
// and the default routes come and go.
inline std::vector<TrieOp> opSequence(U32 seed, size_t count) {
  std::mt19937 rng(seed);
  std::vector<U32> bases4 = {0x0A000000u, 0x0A010200u, 0xC0A80000u, 0x00000000u, U32(rng()), U32(rng())};
  auto prefix4 = [&] {
    for (;;) {
      U32 host = bases4[rng() % bases4.size()] ^ (rng() & (0xFFFFFFFFu >> (4 + rng() % 20)));
      Addrkit::Prefix p = Addrkit::Prefix::masked(host, rng() % 8 == 0 ? rng() % 33 : 12 + rng() % 21);
      // 0.0.0.0/31 and /32 share the default route's key; all-ones is the root's.
      if ((p.addrHost() == 0 && p.len() >= 31) || p == Routing::Lattice::nullPrefix) continue;
      return IpGenPrefix(p);
    }
  };
  auto prefix6 = [&] {
    for (;;) {
      Addrkit::Ip6Address a;
      a.wordIs(0, 0x20010DB8u ^ (rng() % 4));
      a.wordIs(1, rng() % 3 == 0 ? U32(rng()) : U32(rng() % 4) << 16);
      a.wordIs(2, rng() % 2 ? U32(rng()) : 0);
      a.wordIs(3, U32(rng()));
      Addrkit::Ip6Prefix p = Addrkit::Ip6Prefix::masked(a, rng() % 8 == 0 ? rng() % 129 : 32 + rng() % 97);
      if (p == Routing::Lattice::prefix0128 || p == Routing::Lattice::nullPrefix6) continue;
      return IpGenPrefix(p);
    }
  };
  std::vector<TrieOp> ops;
  std::vector<IpGenPrefix> live;
  std::set<std::string> liveText;
  while (ops.size() < count) {
    const bool growing = ops.size() < count * 2 / 3;
    const bool insert = live.empty() || rng() % 100 < (growing ? 80u : 30u);
    if (insert) {
      IpGenPrefix p = rng() % 10 < 7 ? prefix4() : prefix6();
      if (liveText.insert(p.stringValue()).second) live.push_back(p);
      ops.push_back({true, p});
    } else if (rng() % 10 == 0) {
      ops.push_back({false, rng() % 2 ? prefix4() : prefix6()});
    } else {
      const size_t at = rng() % live.size();
      ops.push_back({false, live[at]});
      liveText.erase(live[at].stringValue());
      live[at] = live.back();
      live.pop_back();
    }
    if (rng() % 200 == 0) ops.push_back({rng() % 2 == 0, rng() % 2 ? IpGenPrefix("0.0.0.0/0") : IpGenPrefix("::/0")});
  }
  ops.resize(count);
  return ops;
}

inline void apply(Routing::Lattice::Trie& trie, const TrieOp& op) {
  if (op.insert) trie.prefixIs(op.prefix);
  else trie.prefixDel(op.prefix);
}

// The stored prefixes after the first n operations.
inline std::set<std::string> storedAfter(const std::vector<TrieOp>& ops, size_t n) {
  std::set<std::string> s;
  for (size_t i = 0; i < n; ++i) {
    if (ops[i].insert) s.insert(ops[i].prefix.stringValue());
    else s.erase(ops[i].prefix.stringValue());
  }
  return s;
}

class Collector : public Routing::Lattice::TrieWalkCallback {
 public:
  Routing::Lattice::WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    seen.push_back(p.stringValue());
    return Routing::Lattice::continueWalk;
  }
  std::vector<std::string> seen;
};

// Every prefix a direct walk of both families delivers.
inline std::set<std::string> walkedSet(const Routing::Lattice::Trie& t) {
  Basis::Ptr<Collector> c(new Collector);
  t.preOrderWalk(c, IpGenPrefix(Routing::Lattice::rootPrefix));
  t.preOrderWalk(c, IpGenPrefix(Routing::Lattice::rootPrefix6));
  return {c->seen.begin(), c->seen.end()};
}

}  // namespace trietest
