#include "RouteTable/ChangeRing.h"

#include <fmt/format.h>

#include <array>
#include <cstring>

#include "KilnDepot/Mount.h"

namespace depottrie::detail {

namespace {

// An entry's bytes: slot (the key), number, update, value, kind, family (4
// or 6), prefix length, address.
constexpr std::size_t slotAt = 0, numberAt = 4, updateAt = 12, valueAt = 20, kindAt = 28, familyAt = 29,
                      lengthAt = 30, addressAt = 31, entrySize = 47;
using Entry = std::array<U8, entrySize>;

const Depot::RecordLayout layout{"RouteChange", entrySize, slotAt, 4};

template <class T>
T field(const Entry& e, std::size_t at) {
  T v;
  std::memcpy(&v, e.data() + at, sizeof v);
  return v;
}
template <class T>
void fieldIs(Entry& e, std::size_t at, T v) {
  std::memcpy(e.data() + at, &v, sizeof v);
}

Change decode(const Entry& e) {
  Change c;
  c.number = field<U64>(e, numberAt);
  c.update = field<U64>(e, updateAt);
  c.kind = Change::Kind(e[kindAt]);
  c.route.value = field<U64>(e, valueAt);
  c.route.prefix = Prefix::fromBytes({e.data() + addressAt, e[familyAt] == 4 ? 4u : 16u}, e[lengthAt]);
  return c;
}

}  // namespace

Depot::TablePath ChangeRing::path(const std::string& name, const std::string& root) {
  return KilnDepot::collectionTable(root, name, "changes");
}

std::unique_ptr<ChangeRing> ChangeRing::writer(const std::string& name, const std::string& root, unsigned mode,
                                               std::uint64_t entries) {
  if (entries < 2 || entries > (U64(1) << 30))
    throw Error(fmt::format("a change feed of {} entries asked; it keeps 2 to {}", entries, U64(1) << 30));
  auto ring = std::make_unique<ChangeRing>();
  // Sized once: it never grows (no more keys than slots) nor shrinks below
  // its first capacity.
  ring->table_ = Depot::SharedTable::writerNew(layout, path(name, root),
                                               {.capacity = entries, .maxEntries = entries, .mode = mode});
  ring->size_ = ring->table_->capacity();
  return ring;
}

std::unique_ptr<ChangeRing> ChangeRing::reader(const std::string& name, const std::string& root) {
  const Depot::TablePath p = path(name, root);
  if (!Depot::sharedTableExists(p)) return nullptr;
  auto ring = std::make_unique<ChangeRing>();
  ring->table_ = Depot::SharedTable::readerNew(layout, p);
  ring->size_ = ring->table_->capacity();
  return ring;
}

std::optional<Change> ChangeRing::at(std::uint64_t number) const {
  const U32 slot = U32(number % size_);
  Entry e{};
  if (!table_->find(reinterpret_cast<const U8*>(&slot), e.data())) return std::nullopt;
  return decode(e);
}

ChangeRing::Newest ChangeRing::newest() const {
  Newest n;
  Entry e{};
  U64 hint;
  for (bool ok = table_->iterFirst(hint, e.data()); ok; ok = table_->iterNext(hint, e.data())) {
    const Change c = decode(e);
    n.number = std::max(n.number, c.number);
    std::optional<Change>& last = c.route.prefix.family() == Family::ipv4 ? n.ipv4 : n.ipv6;
    if (!last || last->number < c.number) last = c;
  }
  return n;
}

void ChangeRing::write(const Change& c) {
  Entry e{};
  fieldIs(e, slotAt, U32(c.number % size_));
  fieldIs(e, numberAt, U64(c.number));
  fieldIs(e, updateAt, U64(c.update));
  fieldIs(e, valueAt, U64(c.route.value));
  e[kindAt] = U8(c.kind);
  const auto a = c.route.prefix.address();
  e[familyAt] = a.size() == 4 ? 4 : 6;
  e[lengthAt] = U8(c.route.prefix.length());
  std::copy(a.begin(), a.end(), e.begin() + addressAt);
  table_->write(e.data());
}

}  // namespace depottrie::detail
