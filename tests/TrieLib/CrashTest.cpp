// A writer process killed at random moments of a seeded run of insertions
// and deletions: the next writer to mount the trie must find a sound trie
// that holds the prefixes of the last operation that returned, or of the one
// after it (which may have finished without being counted).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <random>

#include "TrieLib/TrieCheck.h"
#include "TrieProcessSupport.h"

using namespace Routing::Lattice;
using namespace trietest;

namespace {

constexpr int killCount = 30;
volatile U32 busy;

// Waits until the child has returned from `target` operations or has ended
// by itself (then its status is kept).
bool reachedOrEnded(pid_t child, const SharedCounters& shared, U64 target, int& status) {
  for (;;) {
    if (shared.done.load(std::memory_order_acquire) >= target) return false;
    if (waitpid(child, &status, WNOHANG) == child) return true;
    sched_yield();
  }
}

TEST(TrieCrash, AKilledWriterLeavesTheStateOfItsLastOrNextOperation) {
  TempRoot root;
  const std::vector<TrieOp> ops = opSequence(4711, 9000);
  SharedCountersFile shared(root.file("returned"));
  std::mt19937 rng(99);
  trieWriterNew("C", root.options) = nullptr;

  size_t applied = 0;  // operations the stored trie holds
  std::vector<std::string> failures;
  for (int round = 0; round < killCount && applied < ops.size(); ++round) {
    shared->done.store(applied);
    pid_t child = spawn([&] {
      Basis::Ptr<Trie> t = trieWriterNew("C", root.options);
      for (size_t i = applied; i < ops.size(); ++i) {
        apply(*t, ops[i]);
        shared->done.store(i + 1, std::memory_order_release);
      }
      return 0;
    });
    int status = 0;
    if (!reachedOrEnded(child, *shared, applied + 1 + rng() % 150, status)) {
      // A little further, to land anywhere inside the next operations.
      for (U32 spin = rng() % 20000; spin > 0; --spin) busy = spin;
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
    }
    ASSERT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << "writer failed";
    const size_t returned = shared->done.load();

    Basis::Ptr<Trie> t = trieWriterNew("C", root.options);
    const std::vector<std::string> problems = checkTrie(*t);
    const std::set<std::string> before = storedAfter(ops, returned);
    const std::set<std::string> after = storedAfter(ops, std::min(returned + 1, ops.size()));
    if (problems.empty()) {
      const std::set<std::string> stored = walkedSet(*t);
      if (stored == before) {
        applied = returned;
        continue;
      }
      if (stored == after) {
        applied = std::min(returned + 1, ops.size());
        continue;
      }
    }
    const std::string what = problems.empty()
                                 ? std::string("sound, but the prefixes of neither state")
                                 : fmt::format("{} problems, first: {}", problems.size(), problems[0]);
    failures.push_back(fmt::format("kill {} after {} operations returned: {}", round, returned, what));
    // Start the next round from a rebuilt trie in the state of `returned`.
    t = nullptr;
    trieDrop("C", root.options);
    t = trieWriterNew("C", root.options);
    for (const std::string& p : before) t->prefixIs(IpGenPrefix(p));
    applied = returned;
  }
  EXPECT_THAT(failures, testing::IsEmpty()) << failures.size() << " of " << killCount << " kills left damage";
}

}  // namespace
