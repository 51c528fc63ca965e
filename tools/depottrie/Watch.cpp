// depottrie watch: a table's changes as its writer makes them.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "Commands.h"

namespace DepotTrieTool {
namespace {

void printRoute(char sign, const depottrie::Route& r) {
  if (sign == '-' || r.value == 0) fmt::print("{} {}\n", sign, r.prefix.toString());
  else fmt::print("{} {} {}\n", sign, r.prefix.toString(), r.value);
}

}  // namespace

int watchCommand(const Target& target, std::optional<U64> after, U64 count, double seconds) {
  const depottrie::RouteTable table = depottrie::RouteTable::openReader(target.name, target.options());
  depottrie::ChangeFeed feed(table, after);
  using Clock = std::chrono::steady_clock;
  const auto quietFor = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  auto until = Clock::now() + quietFor;
  // Changes missed: say so, forget, and list the table as it is now. The
  // changes read after the listing may already show in it; replayed in
  // order they end where the table does.
  auto relist = [&table](const char* why) {
    std::fflush(stdout);
    fmt::print(stderr, "depottrie: {}; listing the table afresh\n", why);
    fmt::print("*\n");
    table.forEach([](const depottrie::Route& r) {
      printRoute('+', r);
      return true;
    });
  };
  for (U64 shown = 0; count == 0 || shown < count;) {
    const depottrie::ChangeFeed::Changes got = feed.poll(count == 0 ? 4096 : std::min<U64>(4096, count - shown));
    if (got.lost) relist("the change feed went round past changes not yet shown");
    for (const depottrie::Change& c : got.changes) {
      switch (c.kind) {
        case depottrie::Change::Kind::removed: printRoute('-', c.route); break;
        case depottrie::Change::Kind::gap: relist("the writer made changes it could not announce"); break;
        default: printRoute('+', c.route); break;
      }
    }
    shown += got.changes.size();
    std::fflush(stdout);
    if (!got.changes.empty() || got.lost) {
      until = Clock::now() + quietFor;
      continue;
    }
    if (seconds > 0 && Clock::now() >= until) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return 0;
}

}  // namespace DepotTrieTool
