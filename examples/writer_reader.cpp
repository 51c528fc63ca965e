// One writer process and one reader process on the same shared trie.
//
//   writer_reader [NAME]
//
// The writer mounts the trie NAME (default "example") under $DEPOT_ROOT (else
// /dev/shm/depot) and inserts a few routes; a child process mounts the same
// trie read-only and answers lookups from the shared tables while the writer
// goes on changing them. At the end the writer lets go and drops the trie.
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "TrieLib/TrieMount.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;

namespace {

class Printer : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    fmt::print(" {}", p);
    return continueWalk;
  }
};

// What a reader process does: map the trie and ask it things, once before
// and once after the writer's changes (the pipes only order the output).
int readerProcess(const std::string& name, int goFd, int doneFd) {
  Basis::Ptr<Trie> routes = trieReaderNew(name);
  for (int round = 1; round <= 2; ++round) {
    char step = 1;
    if (read(goFd, &step, 1) != 1) return 1;
    fmt::print("reader, round {}:\n", round);
    for (const char* addr : {"10.1.2.3", "10.200.0.1", "192.0.2.10", "2001:db8:1::5"}) {
      IpGenPrefix match = routes->lpm(IpGenPrefix(addr));
      fmt::print("  lpm {:<14} -> {}\n", addr, match.isEmpty() ? "none" : match.stringValue());
    }
    fmt::print("  after 10.0.0.0/8 comes {}\n", routes->getNext(IpGenPrefix("10.0.0.0/8")));
    fmt::print("  walk:");
    Basis::Ptr<Printer> printer(new Printer);
    routes->preOrderWalk(printer, IpGenPrefix(rootPrefix));
    routes->preOrderWalk(printer, IpGenPrefix(rootPrefix6));
    fmt::print("\n");
    std::fflush(stdout);
    if (write(doneFd, &step, 1) != 1) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "example";
  try {
    // The writer: creates the tables (or reopens them, keeping what they hold).
    Basis::Ptr<Trie> routes = trieWriterNew(name, {.root = depotRoot(), .mode = 0644});
    for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24", "192.0.2.0/24", "2001:db8::/32"})
      routes->prefixIs(IpGenPrefix(p));
    fmt::print("writer: {} holds 5 routes under {}\n", name, depotRoot());
    std::fflush(stdout);

    int go[2], done[2];
    if (pipe(go) != 0 || pipe(done) != 0) return 1;
    pid_t reader = fork();
    if (reader == 0) {
      close(go[1]);
      close(done[0]);
      try {
        _exit(readerProcess(name, go[0], done[1]));
      } catch (const Basis::Exception& e) {
        fmt::print(stderr, "reader: {}\n", e.what());
        _exit(1);
      }
    }
    // Only the reader keeps these ends open: if it dies, the writer reads the
    // end of its pipe instead of waiting for ever.
    close(go[0]);
    close(done[1]);
    char step = 1;
    if (write(go[1], &step, 1) != 1 || read(done[0], &step, 1) != 1) return 1;

    routes->prefixDel(IpGenPrefix("10.1.2.0/24"));
    routes->prefixIs(IpGenPrefix("10.200.0.0/16"));
    routes->prefixIs(IpGenPrefix("2001:db8:1::/48"));
    fmt::print("writer: removed 10.1.2.0/24, added 10.200.0.0/16 and 2001:db8:1::/48\n");
    std::fflush(stdout);
    if (write(go[1], &step, 1) != 1 || read(done[0], &step, 1) != 1) return 1;
    int status = 0;
    waitpid(reader, &status, 0);

    routes = nullptr;  // the writer lets go of the tables ...
    trieDrop(name);    // ... so that they can be removed
    fmt::print("writer: dropped {}\n", name);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  } catch (const Basis::Exception& e) {
    fmt::print(stderr, "writer_reader: {}\n", e.what());
    return 1;
  }
}
