// Writes the seed inputs of fuzz_shared_table into a directory: real table
// files of IPv4 and IPv6 node records made by SharedTable's writer (empty,
// a few records, records with holes left by removals), each behind its
// flags byte. scripts/fuzz.sh runs it before each fuzzing run, so that the
// seeds always follow the current file format.
#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"
#include "TableInput.h"

namespace {

using Routing::Lattice::TrieNode, Basis::U8, Basis::U32;
using Routing::Lattice::TrieNode6;

const char* const keys4[] = {"255.255.255.255/32", "0.0.0.0/32", "10.0.0.0/8", "10.1.0.0/16", "192.168.1.0/24",
                             "172.16.0.0/12", "100.64.0.0/10", "198.51.100.0/24"};
const char* const keys6[] = {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", "::/128", "2001:db8::/32",
                             "2001:db8:1::/48", "fe80::/10", "2001:db8:2::/48"};

// A record under key: the IPv4 node with some children and black bits set,
// so that no byte of it is left at its default.
std::vector<U8> record4(const char* key, U32 i) {
  TrieNode n{Addrkit::Prefix(key)};
  n.blackIs(0x01010101u * (i + 1));
  n.child01Is(Addrkit::Prefix("10.0.0.0/8"));
  n.child10Is(Addrkit::Prefix("192.168.1.0/24"));
  const U8* p = reinterpret_cast<const U8*>(&n);
  return {p, p + sizeof n};
}

std::vector<U8> record6(const char* key, U32 i) {
  TrieNode6 n{Addrkit::Ip6Prefix(key)};
  for (U32 w = 0; w < 4; ++w) n.blackIs(w, 0x11111111u * (i + w + 1));
  n.leftChildIs(Addrkit::Ip6Prefix("2001:db8::/32"));
  const U8* p = reinterpret_cast<const U8*>(&n);
  return {p, p + sizeof n};
}

// Makes a table of the first `count` keys with every `removeEvery`-th
// removed again (0: none), and writes it as a seed under name.
void seed(const std::filesystem::path& dir, const std::string& name, bool ip6, U32 count, U32 removeEvery, U8 flags) {
  const std::filesystem::path work = dir / (name + ".table");
  std::filesystem::remove(work);
  {
    const Depot::RecordLayout layout = tablefuzz::nodeLayout(ip6);
    Depot::SharedTableOptions options;
    options.capacity = 8;
    auto table = Depot::SharedTable::writerNew(layout, work.string(), options);
    for (U32 i = 0; i < count; ++i) {
      const std::vector<U8> r = ip6 ? record6(keys6[i % std::size(keys6)], i) : record4(keys4[i % std::size(keys4)], i);
      table->write(r.data());
    }
    for (U32 i = 0; removeEvery && i < count; i += removeEvery) {
      std::vector<U8> r = ip6 ? record6(keys6[i % std::size(keys6)], i) : record4(keys4[i % std::size(keys4)], i);
      table->remove(r.data() + layout.keyOffset, r.data());
    }
  }
  std::ifstream in(work, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::ofstream out(dir / name, std::ios::binary);
  out.put(char(flags | (ip6 ? tablefuzz::ip6Records : 0)));
  out.write(bytes.data(), std::streamsize(bytes.size()));
  std::filesystem::remove(work);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fmt::print(stderr, "usage: {} DIR\n", argv[0]);
    return 2;
  }
  const std::filesystem::path dir = argv[1];
  std::filesystem::create_directories(dir);
  seed(dir, "seed-v4-empty", false, 0, 0, tablefuzz::refreshChecksum);
  seed(dir, "seed-v4-few", false, 5, 0, tablefuzz::refreshChecksum);
  seed(dir, "seed-v4-few-raw", false, 5, 0, 0);
  seed(dir, "seed-v4-holes", false, 8, 3, tablefuzz::refreshChecksum);
  seed(dir, "seed-v6-few", true, 4, 0, tablefuzz::refreshChecksum);
  seed(dir, "seed-v6-holes", true, 6, 2, tablefuzz::refreshChecksum);
  return 0;
}
