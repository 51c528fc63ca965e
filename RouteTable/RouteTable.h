#pragma once
// DepotTrie's route table: IPv4 and IPv6 prefixes, each with a 64-bit value,
// kept in shared memory by one writer process and read in place, without a
// lock or a system call, by any number of reader processes.
//
//   depottrie::RouteTable table = depottrie::RouteTable::openWriter("routes");
//   table.insert("10.0.0.0/8", 7);
//   if (auto route = table.lookup("10.1.2.3")) use(route->prefix, route->value);
//
// Everything here uses standard types; errors are depottrie::Error.
#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "TrieLib/Export.h"

namespace depottrie {
namespace detail {
struct Access;
}

// Bad text, a reserved prefix, a table that cannot be opened or written, a
// change asked of a reader. The message says what and where; the table is
// unchanged.
class DEPOTTRIE_API Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Family : std::uint8_t { ipv4 = 4, ipv6 = 6 };

// An IPv4 or IPv6 prefix: an address and a length, with no address bit set
// beyond the length. An address is the prefix of its full length (/32, /128).
class DEPOTTRIE_API Prefix {
 public:
  Prefix() = default;  // 0.0.0.0/0
  // "10.0.0.0/8", "192.0.2.1", "2001:db8::/32", "::1". Text that is not a
  // prefix, IPv4 with leading zeros, or bits set beyond the length raise
  // Error. Implicit, so that text can be passed wherever a prefix is asked.
  Prefix(std::string_view text);
  Prefix(const char* text) : Prefix(std::string_view(text)) {}
  Prefix(const std::string& text) : Prefix(std::string_view(text)) {}
  // The same without an exception: nullopt for bad text.
  static std::optional<Prefix> parse(std::string_view text);
  // An address of 4 or 16 bytes (network order) cut to `length` bits.
  static Prefix fromBytes(std::span<const std::uint8_t> address, unsigned length);

  Family family() const { return family_; }
  unsigned length() const { return length_; }
  unsigned maxLength() const { return family_ == Family::ipv4 ? 32 : 128; }
  // 4 or 16 bytes, network order.
  std::span<const std::uint8_t> address() const { return {bytes_.data(), family_ == Family::ipv4 ? 4u : 16u}; }
  // The prefix cut to `length` bits (at most its own length).
  Prefix truncated(unsigned length) const;
  // Whether `other` lies inside this prefix (or is it).
  bool contains(const Prefix& other) const;
  // "10.0.0.0/8", "2001:db8::/32"; an address prints with its length too.
  std::string toString() const;

  // IPv4 before IPv6, then by address, then shorter first: a prefix comes
  // right before the prefixes inside it. The order of iteration.
  friend std::strong_ordering operator<=>(const Prefix& a, const Prefix& b);
  friend bool operator==(const Prefix& a, const Prefix& b) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
  std::uint8_t length_ = 0;
  Family family_ = Family::ipv4;
};
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const Prefix& p);

// A stored prefix and its value (0 for a prefix stored without one).
struct Route {
  Prefix prefix;
  std::uint64_t value = 0;
  friend bool operator==(const Route&, const Route&) = default;
};

struct Options {
  std::string root;       // directory of the tables; empty: $DEPOT_ROOT, else /dev/shm/depot
  // Permission bits of a new table's files (at most 0777, the owner keeping
  // read and write; anything else raises Error); an existing table keeps its own.
  unsigned mode = 0644;
  // Prefixes a new table has room for from the start, per family (0: it
  // starts small and grows, each growth a copy). An existing table keeps its size.
  std::uint64_t ipv4Capacity = 0;
  std::uint64_t ipv6Capacity = 0;
  // Changes a new table's change feed keeps (see ChangeFeed); an existing
  // table keeps its own.
  std::uint64_t changeFeedEntries = 65536;
};

struct Statistics {
  std::uint64_t ipv4Prefixes = 0;
  std::uint64_t ipv6Prefixes = 0;
  std::uint64_t ipv4Nodes = 0;   // trie node records
  std::uint64_t ipv6Nodes = 0;
  std::uint64_t updates = 0;     // insertions, deletions and value changes since the table was created
  std::uint64_t sharedBytes = 0; // memory the shared tables hold
};

// One route table by name. Reads answer from one state of the table between
// two changes ("consistent"), however busy its writer is; a writer that
// stopped in the middle of a change makes a read wait about five seconds and
// then raise Error. The *Unguarded reads skip that check and may mix two
// states; they are the fastest.
//
// Threads: every call locks the object, so one object may be shared by
// threads; for lookups in parallel, open one reader per thread. A table has
// one writer at a time across all processes (a second one raises Error).
class ChangeFeed;

class DEPOTTRIE_API RouteTable {
 public:
  // Creates the table, or reopens it keeping every route. Raises Error when
  // another writer has it or its files cannot be used.
  static RouteTable openWriter(std::string_view name, const Options& options = {});
  // Maps an existing table read-only; Error when there is none.
  static RouteTable openReader(std::string_view name, const Options& options = {});
  static bool exists(std::string_view name, const Options& options = {});
  // Removes the table's files; refused while a writer has them. Readers that
  // have it open keep their view.
  static void drop(std::string_view name, const Options& options = {});
  // Whether insert refuses the prefix as reserved (see insert).
  static bool reserved(const Prefix& prefix);

  RouteTable(RouteTable&&) noexcept;
  RouteTable& operator=(RouteTable&&) noexcept;
  ~RouteTable();

  const std::string& name() const;
  bool isWriter() const;

  // Writer only. Stores the prefix with its value, or gives a stored prefix
  // the new value; true when the prefix was new. The reserved prefixes
  // 0.0.0.0/32, 0.0.0.0/31, 255.255.255.255/32, ::/128 and the all-ones /128
  // raise Error: the trie keeps its root and default routes there.
  bool insert(const Prefix& prefix, std::uint64_t value = 0);
  // Writer only. Removes the prefix; false when it was not stored.
  bool erase(const Prefix& prefix);

  // The longest stored prefix covering the address or prefix, with its value.
  std::optional<Route> lookup(const Prefix& addressOrPrefix) const;
  // lookup of each query into the answer at the same index (answers must be
  // at least as many), with the lookups interleaved so their memory reads
  // overlap: several times the rate of single lookups.
  void lookup(std::span<const Prefix> queries, std::span<std::optional<Route>> answers) const;
  // The same two without the consistency check.
  std::optional<Route> lookupUnguarded(const Prefix& addressOrPrefix) const;
  void lookupUnguarded(std::span<const Prefix> queries, std::span<std::optional<Route>> answers) const;

  // The route stored under exactly this prefix.
  std::optional<Route> find(const Prefix& prefix) const;
  // Every stored prefix covering the prefix (itself included), longest first.
  std::vector<Route> covering(const Prefix& prefix) const;
  // Every stored prefix inside the prefix (itself included), in order; only
  // that part of the trie is read.
  std::vector<Route> covered(const Prefix& prefix) const;
  // The same, handed to `visit` in order until it returns false.
  void covered(const Prefix& prefix, const std::function<bool(const Route&)>& visit) const;
  // The first stored prefix of the same family after the prefix in order
  // (the prefix need not be stored).
  std::optional<Route> next(const Prefix& prefix) const;
  // Every route in order, IPv4 first, until `visit` returns false. Each
  // family is read from one state.
  void forEach(const std::function<bool(const Route&)>& visit) const;
  std::size_t size() const;
  Statistics statistics() const;

  // Iteration in order: each step is a `next`, so a change made meanwhile is
  // seen or not, and a prefix stored throughout is met exactly once.
  class Iterator {
   public:
    using value_type = Route;
    using difference_type = std::ptrdiff_t;
    using reference = const Route&;
    using pointer = const Route*;
    using iterator_category = std::input_iterator_tag;
    Iterator() = default;
    const Route& operator*() const { return *route_; }
    const Route* operator->() const { return &*route_; }
    Iterator& operator++();
    void operator++(int) { ++*this; }
    // Iterators are equal at the same route, or both at the end.
    bool operator==(const Iterator& o) const { return route_ == o.route_; }

   private:
    friend class RouteTable;
    const RouteTable* table_ = nullptr;
    std::optional<Route> route_;
  };
  Iterator begin() const;
  Iterator end() const { return {}; }

 private:
  struct DEPOTTRIE_LOCAL Impl;
  friend struct detail::Access;
  friend class ChangeFeed;
  explicit RouteTable(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// One change a table's writer made, numbered from 1 in the order made.
struct Change {
  enum class Kind : std::uint8_t {
    added,         // the route was stored
    removed,       // the route (with the value it had) was removed
    valueChanged,  // the stored prefix took the route's value
    gap,           // changes of the route's family (its /0) were made that the
                   // feed does not hold (through the Trie layer, or by a writer
                   // killed before it could announce its last one): list the
                   // table afresh
  };
  std::uint64_t number = 0;
  Kind kind = Kind::added;
  Route route;
  std::uint64_t update = 0;  // the updates of the route's family so far, this one included
  friend bool operator==(const Change&, const Change&) = default;
};

// Follows the changes of a table from any process, without a lock: its
// writer announces each insertion, removal and value change, after making
// it, in a ring of the table's last Options::changeFeedEntries changes.
class DEPOTTRIE_API ChangeFeed {
 public:
  // Starts after the latest change, or after change number `after` (0: at
  // the oldest the ring still holds, reporting the older ones lost). Error
  // when the table keeps no feed (no writer of this version has opened it).
  explicit ChangeFeed(const RouteTable& table, std::optional<std::uint64_t> after = std::nullopt);
  ChangeFeed(ChangeFeed&&) noexcept;
  ChangeFeed& operator=(ChangeFeed&&) noexcept;
  ~ChangeFeed();

  struct Changes {
    std::vector<Change> changes;  // oldest first
    // The writer went round the ring past changes this feed had not read:
    // they are gone. The feed goes on from the latest change; list the
    // table afresh (changes read later may already show in that listing).
    bool lost = false;
  };
  // The changes made since the last call (or since the feed started), at
  // most `max` of them.
  Changes poll(std::size_t max = 4096);

 private:
  struct DEPOTTRIE_LOCAL Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace depottrie
