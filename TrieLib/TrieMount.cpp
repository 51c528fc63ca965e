#include "TrieLib/TrieMount.h"

#include <fmt/format.h>

#include <array>
#include <cstdlib>

#include "Depot/SharedTable.h"
#include "KilnDepot/Mount.h"

namespace Routing::Lattice {
namespace {

// The two collection tables of the trie named `name` (its bindings' names).
std::array<Depot::TablePath, 2> collectionFiles(const Basis::String& name, const MountOptions& options) {
  return {KilnDepot::collectionTable(options.root, name, "trieNode"),
          KilnDepot::collectionTable(options.root, name, "trieNode6")};
}

}  // namespace

std::string depotRoot() {
  const char* root = std::getenv("DEPOT_ROOT");
  return root && *root ? root : "/dev/shm/depot";
}

Basis::Ptr<Trie> trieWriterNew(const Basis::String& name, const MountOptions& options) {
  // A trie holds up to about two records per prefix (a node per prefix and
  // the branching nodes between them), and a table at most maxEntries.
  const U64 most = Depot::SharedTableOptions().maxEntries / 2;
  for (const auto& [family, prefixes] : {std::pair{"IPv4", options.ipv4Prefixes}, {"IPv6", options.ipv6Prefixes}})
    if (prefixes > most)
      throw Basis::RangeException(
          fmt::format("trie {}: room for {} {} prefixes asked; a trie holds at most {}", name, prefixes, family, most));
  Basis::Ptr<Trie> trie = trieFactory(name);
  KilnDepot::mountWriter(trie->trieNodeMap(), options.root, options.mode, options.ipv4Prefixes * 2);
  KilnDepot::mountWriter(trie->trieNode6Map(), options.root, options.mode, options.ipv6Prefixes * 2);
  return trie;
}

Basis::Ptr<Trie> trieReaderNew(const Basis::String& name, const MountOptions& options) {
  if (!trieExists(name, options)) throw Basis::Exception(fmt::format("no trie named {} under {}", name, options.root));
  Basis::Ptr<Trie> trie = trieFactory(name);
  KilnDepot::mountReader(trie->trieNodeMap(), options.root);
  KilnDepot::mountReader(trie->trieNode6Map(), options.root);
  return trie;
}

bool trieExists(const Basis::String& name, const MountOptions& options) {
  for (const Depot::TablePath& file : collectionFiles(name, options))
    if (Depot::sharedTableExists(file)) return true;
  return false;
}

void trieDrop(const Basis::String& name, const MountOptions& options) {
  if (!trieExists(name, options)) throw Basis::Exception(fmt::format("no trie named {} under {}", name, options.root));
  for (const Depot::TablePath& file : collectionFiles(name, options)) Depot::sharedTableDrop(file);
  Depot::sharedDirectoryRemove({options.root, name});
}

}  // namespace Routing::Lattice
