#include "RouteTable/ValueTable.h"

#include <algorithm>
#include <cstring>

#include "KilnDepot/Mount.h"

namespace depottrie::detail {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;

namespace {

constexpr U32 valueSize = 8;

const Depot::RecordLayout& layoutOf(AddressFamily af) {
  static const Depot::RecordLayout v4{"RouteValue", sizeof(Addrkit::Prefix) + valueSize, 0, sizeof(Addrkit::Prefix)};
  static const Depot::RecordLayout v6{"RouteValue6", sizeof(Addrkit::Ip6Prefix) + valueSize, 0,
                                      sizeof(Addrkit::Ip6Prefix)};
  return af == AddressFamily::ipv4 ? v4 : v6;
}

// A record: the key bytes as the trie's records hold them, then the value.
struct Record {
  std::array<U8, sizeof(Addrkit::Ip6Prefix) + valueSize> bytes{};
  Record() = default;
  explicit Record(const IpGenPrefix& p) {
    if (p.af() == AddressFamily::ipv4) {
      const Addrkit::Prefix k = p.v4();
      std::memcpy(bytes.data(), &k, sizeof k);
    } else {
      const Addrkit::Ip6Prefix k = p.v6();
      std::memcpy(bytes.data(), &k, sizeof k);
    }
  }
  const U8* key() const { return bytes.data(); }
  U8* valueAt(AddressFamily af) { return bytes.data() + layoutOf(af).keySize; }
};

}  // namespace

std::array<Depot::TablePath, 4> ValueTables::files(const std::string& name, const std::string& root) {
  return {KilnDepot::collectionTable(root, name, "value"), KilnDepot::collectionTable(root, name, "value6"),
          KilnDepot::collectionTable(root, name, "valuecache"), KilnDepot::collectionTable(root, name, "valuecache6")};
}

void ValueTables::wire() {
  fetch_ = {};
  fetch_.c4 = readCache(AddressFamily::ipv4);
  fetch_.c6 = readCache(AddressFamily::ipv6);
  fetch_.v4 = v4_.get();
  fetch_.v6 = v6_.get();
}

void ValueTables::Fetch::fetch(const Addrkit::Prefix& p) const {
  const U8* key = reinterpret_cast<const U8*>(&p);
  if (c4) c4->prefetch(key);
  else if (v4) v4->prefetch(key);
}

void ValueTables::Fetch::fetch(const Addrkit::Ip6Prefix& p) const {
  const U8* key = reinterpret_cast<const U8*>(&p);
  if (c6) c6->prefetch(key);
  else if (v6) v6->prefetch(key);
}

ValueTables ValueTables::writer(const std::string& name, const std::string& root, unsigned mode, U64 capacity4,
                                U64 capacity6) {
  const auto paths = files(name, root);
  ValueTables t;
  Depot::SharedTableOptions options;
  options.mode = mode;
  options.capacity = std::max(options.capacity, capacity4);
  t.v4_ = Depot::SharedTable::writerNew(layoutOf(AddressFamily::ipv4), paths[0], options);
  options.capacity = std::max(Depot::SharedTableOptions().capacity, capacity6);
  t.v6_ = Depot::SharedTable::writerNew(layoutOf(AddressFamily::ipv6), paths[1], options);
  t.c4_ = ValueCache::writer(paths[2], AddressFamily::ipv4, mode, *t.v4_, capacity4);
  t.c6_ = ValueCache::writer(paths[3], AddressFamily::ipv6, mode, *t.v6_, capacity6);
  t.writer_ = true;
  t.wire();
  return t;
}

ValueTables ValueTables::reader(const std::string& name, const std::string& root) {
  const auto paths = files(name, root);
  ValueTables t;
  if (Depot::sharedTableExists(paths[0])) t.v4_ = Depot::SharedTable::readerNew(layoutOf(AddressFamily::ipv4), paths[0]);
  if (Depot::sharedTableExists(paths[1])) t.v6_ = Depot::SharedTable::readerNew(layoutOf(AddressFamily::ipv6), paths[1]);
  if (t.v4_) t.c4_ = ValueCache::reader(paths[2], AddressFamily::ipv4);
  if (t.v6_) t.c6_ = ValueCache::reader(paths[3], AddressFamily::ipv6);
  t.wire();
  return t;
}

std::optional<U64> ValueTables::find(const IpGenPrefix& p) const {
  const Depot::Table* t = table(p.af());
  if (!t) return std::nullopt;
  Record r(p);
  if (const ValueCache* c = readCache(p.af()))
    if (std::optional<U64> v = c->find(r.key())) return v;
  if (!t->find(r.key(), r.bytes.data())) return std::nullopt;
  U64 value;
  std::memcpy(&value, r.valueAt(p.af()), valueSize);
  return value;
}

// The cache buckets are fetched a few prefixes ahead of their reads; the
// values the cache lacks are then read from the value table in groups whose
// index entries, then records, are fetched together before the first is
// read (each record read where the index named it or, when it has moved
// since, looked up).
void ValueTables::values(std::span<const IpGenPrefix> prefixes, std::span<U64> out) const {
  constexpr size_t ahead = 16, group = 16;
  // The keys of the prefixes fetched and not yet read, each built once.
  std::array<Record, 2 * ahead> keys;
  const auto fetchBucket = [&](size_t i) {
    const IpGenPrefix& p = prefixes[i];
    if (p.af() == AddressFamily::none) return;
    keys[i % keys.size()] = Record(p);
    if (const ValueCache* c = readCache(p.af())) c->prefetch(keys[i % keys.size()].key());
  };
  for (size_t i = 0; i < std::min(ahead, prefixes.size()); ++i) fetchBucket(i);
  std::vector<size_t>& missed = missed_;
  missed.clear();
  for (size_t i = 0; i < prefixes.size(); ++i) {
    if (i + ahead < prefixes.size()) fetchBucket(i + ahead);
    const IpGenPrefix& p = prefixes[i];
    out[i] = 0;
    if (p.af() == AddressFamily::none || !table(p.af())) continue;
    const ValueCache* c = readCache(p.af());
    if (const std::optional<U64> v = c ? c->find(keys[i % keys.size()].key()) : std::nullopt) out[i] = *v;
    else missed.push_back(i);
  }

  std::array<Record, group> records;
  std::array<U64, group> where{};
  for (size_t at = 0; at < missed.size(); at += group) {
    const size_t n = std::min(missed.size() - at, group);
    const auto tableOf = [&](size_t k) { return table(prefixes[missed[at + k]].af()); };
    for (size_t k = 0; k < n; ++k) {
      records[k] = Record(prefixes[missed[at + k]]);
      tableOf(k)->prefetch(records[k].key());
    }
    for (size_t k = 0; k < n; ++k) where[k] = tableOf(k)->prefetchRecord(records[k].key());
    for (size_t k = 0; k < n; ++k) {
      const Depot::Table* t = tableOf(k);
      Record& r = records[k];
      const size_t i = missed[at + k];
      if (t->readAt(where[k], r.key(), r.bytes.data()) || t->find(r.key(), r.bytes.data()))
        std::memcpy(&out[i], r.valueAt(prefixes[i].af()), valueSize);
    }
  }
}

// The cache forgets the prefix before its record changes, and learns it
// again after (ValueCache.h).
void ValueTables::write(const IpGenPrefix& p, U64 value) {
  Record r(p);
  std::memcpy(r.valueAt(p.af()), &value, valueSize);
  Depot::Table& t = *table(p.af());
  ValueCache* c = cache(p.af());
  if (c) c->forget(r.key());
  t.write(r.bytes.data());
  if (c) c->remember(r.key(), value, t);
}

bool ValueTables::remove(const IpGenPrefix& p) {
  Record r(p), removed(p);
  if (ValueCache* c = cache(p.af())) c->forget(r.key());
  return table(p.af())->remove(r.key(), removed.bytes.data());
}

void ValueTables::reserve(AddressFamily af, U64 prefixes) {
  if (ValueCache* c = cache(af)) c->reserve(prefixes, *table(af));
}

U64 ValueTables::bytes(AddressFamily af) const {
  U64 n = present(af) ? table(af)->bytes() : 0;
  if (const ValueCache* c = cache(af)) n += c->bytes();
  return n;
}

std::vector<IpGenPrefix> ValueTables::keys(AddressFamily af) const {
  std::vector<IpGenPrefix> out;
  const Depot::Table* t = table(af);
  if (!t) return out;
  Record r(af == AddressFamily::ipv4 ? IpGenPrefix(Addrkit::Prefix()) : IpGenPrefix(Addrkit::Ip6Prefix()));
  U64 hint;
  for (bool ok = t->iterFirst(hint, r.bytes.data()); ok; ok = t->iterNext(hint, r.bytes.data())) {
    if (af == AddressFamily::ipv4) {
      Addrkit::Prefix k;
      std::memcpy(&k, r.key(), sizeof k);
      out.emplace_back(k);
    } else {
      Addrkit::Ip6Prefix k;
      std::memcpy(&k, r.key(), sizeof k);
      out.emplace_back(k);
    }
  }
  return out;
}

}  // namespace depottrie::detail
