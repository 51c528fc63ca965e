#include "TrieLib/TrieMount.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "Depot/SharedTable.h"
#include "KilnDepot/Mount.h"

namespace Routing::Lattice {
namespace {

// The two collection files of the trie named `name` (its bindings' names).
std::array<std::string, 2> collectionFiles(const Basis::String& name, const MountOptions& options) {
  return {KilnDepot::collectionPath(fmt::format("{}/trieNode", name), options.root),
          KilnDepot::collectionPath(fmt::format("{}/trieNode6", name), options.root)};
}

}  // namespace

std::string depotRoot() {
  const char* root = std::getenv("DEPOT_ROOT");
  return root && *root ? root : "/dev/shm/depot";
}

Basis::Ptr<Trie> trieWriterNew(const Basis::String& name, const MountOptions& options) {
  Basis::Ptr<Trie> trie = trieFactory(name);
  KilnDepot::mountWriter(trie->trieNodeMap(), options.root, options.mode);
  KilnDepot::mountWriter(trie->trieNode6Map(), options.root, options.mode);
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
  for (const std::string& file : collectionFiles(name, options))
    if (Depot::sharedTableExists(file)) return true;
  return false;
}

void trieDrop(const Basis::String& name, const MountOptions& options) {
  if (!trieExists(name, options)) throw Basis::Exception(fmt::format("no trie named {} under {}", name, options.root));
  std::array<std::string, 2> files = collectionFiles(name, options);
  for (const std::string& file : files) Depot::sharedTableDrop(file);
  rmdir(files[0].substr(0, files[0].rfind('/')).c_str());
}

}  // namespace Routing::Lattice
