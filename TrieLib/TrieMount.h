#pragma once
#include <string>

#include "Basis/Ptr.h"
#include "Basis/Types.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/Export.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Where shared tables live: $DEPOT_ROOT, else /dev/shm/depot.
DEPOTTRIE_API std::string depotRoot();

struct MountOptions {
  std::string root = depotRoot();
  U32 mode = 0644;  // of a new trie's files (0640 group, 0600 owner only); an existing trie keeps its own
  // Prefixes per family a new trie's tables have room for from the start
  // (0: they start small and grow as needed, each growth a copy of the
  // table); an existing trie keeps its tables.
  U64 ipv4Prefixes = 0;
  U64 ipv6Prefixes = 0;
};

// A trie whose collections are the shared tables NAME/trieNode and
// NAME/trieNode6 under root, as their writer (created, or reopened keeping
// every record). Raises Basis::Exception with a clear message.
DEPOTTRIE_API Basis::Ptr<Trie> trieWriterNew(const Basis::String& name, const MountOptions& options = {});
// The same tables mapped read-only; "no trie named NAME under ROOT" when absent.
DEPOTTRIE_API Basis::Ptr<Trie> trieReaderNew(const Basis::String& name, const MountOptions& options = {});
DEPOTTRIE_API bool trieExists(const Basis::String& name, const MountOptions& options = {});
// Removes the files; refused while a writer has them.
DEPOTTRIE_API void trieDrop(const Basis::String& name, const MountOptions& options = {});

}  // namespace Routing::Lattice
