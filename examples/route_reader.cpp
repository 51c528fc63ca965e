// Reads a shared route table while its writer changes it.
//
//   route_reader [NAME] [ADDRESS...]
//
// Looks up each address (default: a few samples), lists the routes inside
// 10.0.0.0/8, then follows the table: whenever its writer has made changes,
// the lookups are answered again. Stops after ten rounds of changes or a
// minute.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "RouteTable/RouteTable.h"

namespace {

void lookUp(const depottrie::RouteTable& table, const std::vector<std::string>& addresses) {
  for (const std::string& address : addresses) {
    const std::optional<depottrie::Route> route = table.lookup(address);
    std::cout << "  " << address << " -> ";
    if (route) std::cout << route->prefix << " value " << route->value << "\n";
    else std::cout << "no route\n";
  }
  std::cout << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "example";
  std::vector<std::string> addresses(argv + std::min(argc, 2), argv + argc);
  if (addresses.empty()) addresses = {"10.1.2.3", "192.0.2.10", "2001:db8::1"};
  try {
    const depottrie::RouteTable table = depottrie::RouteTable::openReader(name);
    std::cout << table.size() << " routes in " << name << "\n";
    lookUp(table, addresses);
    std::cout << "inside 10.0.0.0/8:\n";
    table.covered("10.0.0.0/8", [](const depottrie::Route& r) {
      std::cout << "  " << r.prefix << " " << r.value << "\n";
      return true;
    });
    std::uint64_t seen = table.statistics().updates;
    const auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (int rounds = 0; rounds < 10 && std::chrono::steady_clock::now() < until;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      const std::uint64_t now = table.statistics().updates;
      if (now == seen) continue;
      std::cout << now - seen << " changes; " << table.size() << " routes\n";
      lookUp(table, addresses);
      seen = now, ++rounds;
    }
  } catch (const depottrie::Error& e) {
    std::cerr << "route_reader: " << e.what() << "\n";
    return 1;
  }
}
