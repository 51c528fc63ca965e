// depottrie diff: the shared route table against a route file.
#include <fmt/format.h>

#include <algorithm>

#include "Commands.h"
#include "Progress.h"
#include "RouteFiles.h"
#include "RouteTable/Convert.h"

namespace DepotTrieTool {
namespace {


bool routeLess(const Route& a, const Route& b) {
  return prefixLess(a.prefix, b.prefix) || (a.prefix == b.prefix && a.value < b.value);
}

// "+ PREFIX [VALUE]" for a route only the table holds, "- PREFIX [VALUE]"
// for one only the file holds; a value is shown when it is not 0.
void printDiffLine(char sign, const Route& route) {
  if (route.value == 0) fmt::print("{} {}\n", sign, route.prefix);
  else fmt::print("{} {} {}\n", sign, route.prefix, route.value);
}

}  // namespace

int diffCommand(const Target& target, const std::string& file) {
  const depottrie::RouteTable table = depottrie::RouteTable::openReader(target.name, target.options());
  std::vector<Route> listed, stored;
  RouteFileCounts counts;
  {
    Progress progress("reading the file", {.totalBytes = routeFilesSize({file}), .items = "prefixes"});
    counts = readRouteFiles({file}, progress, [&listed](const Route& route) {
      listed.push_back(route);
      return listed.size();
    });
    if (counts.failedFiles > 0) return 2;
    progress.stepIs("reading the table");
    table.forEach([&stored](const depottrie::Route& r) {
      stored.push_back({depottrie::detail::toGen(r.prefix), r.value});
      return true;
    });
  }
  // A prefix listed twice is one route of the file, with the value it has
  // last, as load stores it.
  std::stable_sort(listed.begin(), listed.end(), [](const Route& a, const Route& b) { return prefixLess(a.prefix, b.prefix); });
  auto lastOfEach = std::unique(listed.rbegin(), listed.rend(), [](const Route& a, const Route& b) { return a.prefix == b.prefix; });
  listed.erase(listed.begin(), lastOfEach.base());
  std::sort(stored.begin(), stored.end(), routeLess);

  bool differ = false;
  auto s = stored.begin(), l = listed.begin();
  while (s != stored.end() || l != listed.end()) {
    if (l == listed.end() || (s != stored.end() && routeLess(*s, *l))) {
      printDiffLine('+', *s++);
    } else if (s == stored.end() || routeLess(*l, *s)) {
      printDiffLine('-', *l++);
    } else {
      ++s, ++l;
      continue;
    }
    differ = true;
  }
  std::fflush(stdout);
  if (counts.badLines > 0) {
    fmt::print(stderr, "depottrie: {} bad line{} of {} left out of the comparison\n", counts.badLines,
               counts.badLines == 1 ? "" : "s", file == "-" ? "<stdin>" : file);
    return 2;
  }
  return differ ? 1 : 0;
}

}  // namespace DepotTrieTool
