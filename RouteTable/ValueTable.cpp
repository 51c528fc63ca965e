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

std::array<Depot::TablePath, 2> ValueTables::files(const std::string& name, const std::string& root) {
  return {KilnDepot::collectionTable(root, name, "value"), KilnDepot::collectionTable(root, name, "value6")};
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
  return t;
}

ValueTables ValueTables::reader(const std::string& name, const std::string& root) {
  const auto paths = files(name, root);
  ValueTables t;
  if (Depot::sharedTableExists(paths[0])) t.v4_ = Depot::SharedTable::readerNew(layoutOf(AddressFamily::ipv4), paths[0]);
  if (Depot::sharedTableExists(paths[1])) t.v6_ = Depot::SharedTable::readerNew(layoutOf(AddressFamily::ipv6), paths[1]);
  return t;
}

std::optional<U64> ValueTables::find(const IpGenPrefix& p) const {
  const Depot::Table* t = table(p.af());
  if (!t) return std::nullopt;
  Record r(p);
  if (!t->find(r.key(), r.bytes.data())) return std::nullopt;
  U64 value;
  std::memcpy(&value, r.valueAt(p.af()), valueSize);
  return value;
}

// In groups whose index entries, then records, are fetched together before
// the first is read; each record is read where the index named it (or, when
// it has moved since, looked up).
void ValueTables::values(std::span<const IpGenPrefix> prefixes, std::span<U64> out) const {
  constexpr size_t group = 16;
  std::array<Record, group> records;
  std::array<const Depot::Table*, group> tables{};
  std::array<U64, group> where{};
  for (size_t at = 0; at < prefixes.size(); at += group) {
    const size_t n = std::min(prefixes.size() - at, group);
    for (size_t i = 0; i < n; ++i) {
      const IpGenPrefix& p = prefixes[at + i];
      tables[i] = p.af() == AddressFamily::none ? nullptr : table(p.af());
      if (!tables[i]) continue;
      records[i] = Record(p);
      tables[i]->prefetch(records[i].key());
    }
    for (size_t i = 0; i < n; ++i) where[i] = tables[i] ? tables[i]->prefetchRecord(records[i].key()) : 0;
    for (size_t i = 0; i < n; ++i) {
      const Depot::Table* t = tables[i];
      Record& r = records[i];
      U64 value = 0;
      if (t && (t->readAt(where[i], r.key(), r.bytes.data()) || t->find(r.key(), r.bytes.data())))
        std::memcpy(&value, r.valueAt(prefixes[at + i].af()), valueSize);
      out[at + i] = value;
    }
  }
}

void ValueTables::write(const IpGenPrefix& p, U64 value) {
  Record r(p);
  std::memcpy(r.valueAt(p.af()), &value, valueSize);
  table(p.af())->write(r.bytes.data());
}

bool ValueTables::remove(const IpGenPrefix& p) {
  Record r(p), removed(p);
  return table(p.af())->remove(r.key(), removed.bytes.data());
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
