// One writer process and one reader process on the same route table.
//
//   writer_reader [NAME]
//
// The writer creates the table NAME (default "example") under $DEPOT_ROOT
// (else /dev/shm/depot) and stores a few routes with values; a child process
// opens the same table read-only and answers lookups from the shared tables
// while the writer goes on changing them. At the end the writer lets go and
// drops the table.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <optional>
#include <string>

#include "RouteTable/RouteTable.h"

namespace {

// What the reader process does: open the table and ask it things, once
// before and once after the writer's changes (the pipes only order the
// output).
int readerProcess(const std::string& name, int goFd, int doneFd) {
  const depottrie::RouteTable routes = depottrie::RouteTable::openReader(name);
  for (int round = 1; round <= 2; ++round) {
    char step = 1;
    if (read(goFd, &step, 1) != 1) return 1;
    std::cout << "reader, round " << round << ":\n";
    for (const char* address : {"10.1.2.3", "10.200.0.1", "192.0.2.10", "2001:db8:1::5"}) {
      const std::optional<depottrie::Route> route = routes.lookup(address);
      std::cout << "  lookup " << address << " -> ";
      if (route) std::cout << route->prefix << " (value " << route->value << ")\n";
      else std::cout << "none\n";
    }
    std::cout << "  after 10.0.0.0/8 comes " << routes.next("10.0.0.0/8")->prefix << "\n  walk:";
    for (const depottrie::Route& r : routes) std::cout << " " << r.prefix;
    std::cout << std::endl;
    if (write(doneFd, &step, 1) != 1) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "example";
  try {
    // The writer: creates the table (or reopens it, keeping what it holds).
    std::optional<depottrie::RouteTable> routes = depottrie::RouteTable::openWriter(name);
    std::uint64_t nextHop = 1;
    for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24", "192.0.2.0/24", "2001:db8::/32"})
      routes->insert(p, nextHop++);
    std::cout << "writer: " << name << " holds " << routes->size() << " routes" << std::endl;

    int go[2], done[2];
    if (pipe(go) != 0 || pipe(done) != 0) return 1;
    const pid_t reader = fork();
    if (reader == 0) {
      close(go[1]);
      close(done[0]);
      try {
        _exit(readerProcess(name, go[0], done[1]));
      } catch (const depottrie::Error& e) {
        std::cerr << "reader: " << e.what() << "\n";
        _exit(1);
      }
    }
    // Only the reader keeps these ends open: if it dies, the writer reads the
    // end of its pipe instead of waiting for ever.
    close(go[0]);
    close(done[1]);
    char step = 1;
    if (write(go[1], &step, 1) != 1 || read(done[0], &step, 1) != 1) return 1;

    routes->erase("10.1.2.0/24");
    routes->insert("10.200.0.0/16", 6);
    routes->insert("2001:db8:1::/48", 7);
    routes->insert("10.0.0.0/8", 8);  // a new value for a stored prefix
    std::cout << "writer: removed 10.1.2.0/24, added 10.200.0.0/16 and 2001:db8:1::/48, 10.0.0.0/8 now 8" << std::endl;
    if (write(go[1], &step, 1) != 1 || read(done[0], &step, 1) != 1) return 1;
    int status = 0;
    waitpid(reader, &status, 0);

    routes.reset();                         // the writer lets go of the table ...
    depottrie::RouteTable::drop(name);      // ... so that it can be removed
    std::cout << "writer: dropped " << name << "\n";
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  } catch (const depottrie::Error& e) {
    std::cerr << "writer_reader: " << e.what() << "\n";
    return 1;
  }
}
