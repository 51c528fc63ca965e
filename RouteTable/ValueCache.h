#pragma once
// A copy of a family's values laid out for one memory read (internal to the
// route table).
//
// The value table (ValueTable.h) finds a record through its hashed index:
// an index entry, then the record it names, two misses one after the other.
// The cache holds the same values in buckets of 128 bytes (two adjacent
// cache lines, fetched together), which a reader finds from the prefix
// alone: bucket b is the record keyed by b of a shared table to which the
// writer adds buckets 0, 1, 2, ... in order and from which it never removes
// one, so bucket b lives in slot b (slot numbers hold across the table's
// generations). A lookup starts fetching the bucket of its likely answers
// while the trie's descent goes on.
//
// What it keeps:
// - A bucket holds up to 8 (IPv4) or 4 (IPv6) prefixes with their values,
//   and the bucket count it was written for. The bucket count is the
//   table's record count, which only grows; a reader believes a bucket only
//   when it was written for the count the table has now.
// - An odd IPv4 length shares the bucket of the even prefix one bit
//   shorter, so that one fetch serves a node key and the lengths one longer.
// - A prefix in a believed bucket has the value the value table holds for
//   it: the writer takes a prefix out of its bucket before it changes or
//   removes the value-table record, and puts it back after. A writer killed
//   in between leaves the prefix out.
// - A prefix not in its believed bucket (the bucket was full, or the writer
//   was killed as above) is read from the value table; so is every prefix
//   while the buckets are being rewritten, and every prefix of a cache that
//   cannot be read (another release's layout, or damage) until its next
//   writer makes it again.
// - Once the prefixes fill three quarters of the entries, the writer adds
//   buckets for them to fill half, then rewrites every bucket from the value
//   table for the new count. A writer that reopens the cache and finds a
//   bucket written for another count, or too few buckets, does the same.
#include <memory>
#include <optional>

#include "Addrkit/Prefix.h"
#include "Depot/SharedTable.h"

namespace depottrie::detail {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class ValueCache {
 public:
  // Created, or reopened and rebuilt from `values` when needed, with
  // buckets for at least `expected` prefixes.
  static std::unique_ptr<ValueCache> writer(const Depot::TablePath& path, Addrkit::AddressFamily af, unsigned mode,
                                            const Depot::Table& values, U64 expected);
  // Mapped read-only; nullptr when the table has no cache.
  static std::unique_ptr<ValueCache> reader(const Depot::TablePath& path, Addrkit::AddressFamily af);
  ~ValueCache();

  // The key bytes are a prefix as the trie's records hold it (5 or 17).
  // Starts fetching key's bucket.
  void prefetch(const U8* key) const;
  // key's value; nullopt when the cache does not hold it (ask the value
  // table).
  std::optional<U64> find(const U8* key) const;

  // The writer, before and after it changes key's record in `values`.
  void forget(const U8* key);
  void remember(const U8* key, U64 value, const Depot::Table& values);
  // Buckets for at least `prefixes`, rebuilt from `values` when added.
  void reserve(U64 prefixes, const Depot::Table& values);

  U64 bytes() const { return table_->bytes(); }

 private:
  ValueCache(std::unique_ptr<Depot::SharedTable> table, Addrkit::AddressFamily af);
  struct Bucket;
  U32 bucketOf(const U8* key, U32 count) const;
  template <class Shape>
  std::optional<U64> find(const U8* key) const;
  bool readBucket(U32 number, Bucket& out) const;
  int entryIn(Bucket& bucket, const U8* key) const;
  void put(Bucket& bucket, U32 entry, const U8* key, U64 value) const;
  U32 bucketsFor(U64 prefixes) const;
  bool tooFew(U64 prefixes) const;
  bool consistent() const;
  void rebuild(U32 buckets, const Depot::Table& values);

  std::unique_ptr<Depot::SharedTable> table_;
  U32 keySize_;
  U32 perBucket_;
  // The writer's bucket count, and whether a rebuild failed (the cache then
  // adds nothing until the next writer rebuilds it).
  U32 count_ = 0;
  bool stale_ = false;
};

}  // namespace depottrie::detail
