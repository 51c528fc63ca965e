#pragma once
// The value of each stored prefix (internal to the route table).
//
// Two shared tables beside a trie's node tables, NAME/value (IPv4) and
// NAME/value6, hold one record per prefix: the prefix as the trie's keys
// store it (5 or 17 bytes) and a 64-bit value. The trie stays the truth of
// which prefixes are stored: a value record whose prefix is not stored (left
// by a writer killed between the two tables' updates) is never read, and a
// stored prefix without a record (stored through the Trie layer) has value
// 0. Its writer changes a value only inside an update of the trie's table of
// that family, so a reader that checks that table's update counter reads
// prefix and value from one state.
//
// Beside each value table, its cache (ValueCache.h) holds the same values
// where a reader finds them in one memory read; readers ask it first, and
// the writer keeps it in step with every change of a value.
#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Addrkit/Prefix.h"
#include "Depot/SharedTable.h"
#include "RouteTable/ValueCache.h"
#include "TrieLib/DepotTrie.h"

namespace depottrie::detail {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class ValueTables {
 public:
  // As the writer: created, or reopened keeping every record.
  static ValueTables writer(const std::string& name, const std::string& root, unsigned mode, U64 capacity4,
                            U64 capacity6);
  // Mapped read-only; a family whose table is absent reads every value as 0.
  static ValueTables reader(const std::string& name, const std::string& root);
  // The value tables, then their caches.
  static std::array<Depot::TablePath, 4> files(const std::string& name, const std::string& root);

  bool present(Addrkit::AddressFamily af) const { return table(af) != nullptr; }
  Depot::Table* table(Addrkit::AddressFamily af) const {
    return (af == Addrkit::AddressFamily::ipv4 ? v4_ : v6_).get();
  }
  std::optional<U64> find(const Addrkit::IpGenPrefix& p) const;
  U64 value(const Addrkit::IpGenPrefix& p) const { return find(p).value_or(0); }
  // The values of several prefixes (the empty prefix reads 0), their reads
  // overlapped.
  void values(std::span<const Addrkit::IpGenPrefix> prefixes, std::span<U64> out) const;

  // Starts fetching the values of the prefixes a lookup may answer with:
  // their cache buckets, else (no cache, or the writer) the value table's
  // index entries.
  const Routing::Lattice::AnswerFetch* fetcher() const { return &fetch_; }

  void write(const Addrkit::IpGenPrefix& p, U64 value);
  bool remove(const Addrkit::IpGenPrefix& p);
  // Room in the cache for `prefixes` of the family, made before they come.
  void reserve(Addrkit::AddressFamily af, U64 prefixes);
  U64 bytes(Addrkit::AddressFamily af) const;
  // The keys of the records of one family, in the table's order.
  std::vector<Addrkit::IpGenPrefix> keys(Addrkit::AddressFamily af) const;

 private:
  // Holds the tables' own addresses, which stay put when ValueTables moves.
  class Fetch final : public Routing::Lattice::AnswerFetch {
   public:
    void fetch(const Addrkit::Prefix& p) const override;
    void fetch(const Addrkit::Ip6Prefix& p) const override;
    const ValueCache* c4 = nullptr;
    const ValueCache* c6 = nullptr;
    const Depot::Table* v4 = nullptr;
    const Depot::Table* v6 = nullptr;
  };
  void wire();
  // The cache readers ask (none in the writer, which reads its own tables).
  const ValueCache* readCache(Addrkit::AddressFamily af) const {
    const std::unique_ptr<ValueCache>& c = af == Addrkit::AddressFamily::ipv4 ? c4_ : c6_;
    return c && !writer_ ? c.get() : nullptr;
  }
  ValueCache* cache(Addrkit::AddressFamily af) const { return (af == Addrkit::AddressFamily::ipv4 ? c4_ : c6_).get(); }

  std::unique_ptr<Depot::Table> v4_;
  std::unique_ptr<Depot::Table> v6_;
  std::unique_ptr<ValueCache> c4_;
  std::unique_ptr<ValueCache> c6_;
  bool writer_ = false;
  Fetch fetch_;
  // The prefixes values() reads from the value table (scratch).
  mutable std::vector<size_t> missed_;
};

}  // namespace depottrie::detail
