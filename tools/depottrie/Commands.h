#pragma once
// The subcommands of depottrie. Each returns the process exit status (0
// success, 1 failure) and raises Basis::Exception for a failure that ends it
// (one line on stderr), UsageError for a command line that cannot be carried
// out (status 2).
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Addrkit/Prefix.h"
#include "RouteTable/RouteTable.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/TrieMount.h"

namespace DepotTrieTool {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Arguments that are well-formed but ask for what cannot be done.
class UsageError : public Basis::RangeException {
 public:
  using Basis::RangeException::RangeException;
};

// Which shared trie a command works on.
struct Target {
  std::string name = "routes";
  Routing::Lattice::MountOptions mount;
  U64 feedEntries = depottrie::Options().changeFeedEntries;  // of a new table's change feed
  // The route table's options for these.
  depottrie::Options options() const {
    return {.root = mount.root, .mode = mount.mode, .changeFeedEntries = feedEntries};
  }
};

// A prefix or bare address (a host prefix); bad text raises
// Basis::RangeException "invalid IPv4 prefix 'TEXT'[: WHY]" (IPv6 when it
// holds ':').
Addrkit::IpGenPrefix prefixFromText(std::string_view text);
// The storage keys of the default routes, which a successor search refuses.
bool defaultRouteKey(const Addrkit::IpGenPrefix& p);
// The order of walks: IPv4 before IPv6, then by address (unsigned), then
// length (a prefix before those it covers).
bool prefixLess(const Addrkit::IpGenPrefix& a, const Addrkit::IpGenPrefix& b);
// Whether outer covers inner (same family, inner at least as long and equal
// in outer's bits).
bool covers(const Addrkit::IpGenPrefix& outer, const Addrkit::IpGenPrefix& inner);

// Stores the routes of the files (a new value for a stored prefix replaces
// its value) as the table's writer.
int loadCommand(const Target& target, const std::vector<std::string>& files);
// The reader commands (lookup, list, next, bench) answer from a state of the
// trie between two of its writer's updates (ConsistentReader). json: the
// answers as JSON, one document, or one a line for lookup and list.

// The longest stored prefix covering each query (longestMatch, which also
// finds an odd-length prefix that lpm misses); "-" reads queries from
// standard input, one a line, answering them as they come.
int lookupCommand(const Target& target, const std::vector<std::string>& queries, bool json);
// family 0 lists both; under empty lists everything of the family.
int listCommand(const Target& target, const std::string& under, int family, bool json);
int nextCommand(const Target& target, const std::string& prefix, bool json);
int statsCommand(const Target& target, bool json);
int checkCommand(const Target& target, bool json);
int dropCommand(const Target& target);
// Prints the table's changes as its writer makes them: "+ PREFIX [VALUE]"
// for a route stored or given a new value, "- PREFIX" for one removed, and,
// when changes were missed (the feed went round, or a writer made changes
// it could not announce), "*" and then every route as "+" lines. after: the
// last change already seen (default: the latest); stops after `count`
// changes or `seconds` (0: never).
int watchCommand(const Target& target, std::optional<U64> after, U64 count, double seconds);
// The stored prefixes against those of a route file (- for standard input):
// "+ P" for each only the trie holds, "- P" for each only the file holds, in
// walk order. 0 when they are the same, 1 when they differ, 2 when the file
// could not be read whole (a bad line, a read error), as diff(1) has it.
int diffCommand(const Target& target, const std::string& file);
// Times lpm and longestMatch over random addresses inside stored prefixes,
// per family.
int benchCommand(const Target& target, U64 count, U64 seed);
// local: a process-local trie instead of the shared one; readOnly: the
// shared trie as a reader, queries only.
int batchCommand(const Target& target, bool local, bool readOnly);

}  // namespace DepotTrieTool
