// Loads a file of routes into a shared route table, as its writer.
//
//   route_writer FILE [NAME]
//
// Each line of FILE is "PREFIX [VALUE]" (VALUE a number, 0 when absent;
// blank lines and "#" comments are skipped). The table NAME (default
// "example") lives under $DEPOT_ROOT, else /dev/shm/depot, and stays after
// the program ends, for route_reader and the depottrie tool.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "RouteTable/RouteTable.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: route_writer FILE [NAME]\n";
    return 2;
  }
  std::ifstream in(argv[1]);
  if (!in) {
    std::cerr << "route_writer: cannot read " << argv[1] << "\n";
    return 1;
  }
  try {
    depottrie::RouteTable table = depottrie::RouteTable::openWriter(argc == 3 ? argv[2] : "example");
    std::string line;
    size_t added = 0, updated = 0, lineNumber = 0;
    while (std::getline(in, line)) {
      ++lineNumber;
      std::istringstream fields(line.substr(0, line.find('#')));
      std::string prefix;
      std::uint64_t value = 0;
      if (!(fields >> prefix)) continue;
      try {
        if (!fields.eof() && !(fields >> value)) throw depottrie::Error("the value is not a number");
        (table.insert(prefix, value) ? added : updated)++;
      } catch (const depottrie::Error& e) {
        std::cerr << "route_writer: " << argv[1] << ":" << lineNumber << ": " << e.what() << "\n";
        return 1;
      }
    }
    std::cout << added << " routes added, " << updated << " already stored; " << table.size() << " in "
              << table.name() << "\n";
  } catch (const depottrie::Error& e) {
    std::cerr << "route_writer: " << e.what() << "\n";
    return 1;
  }
}
