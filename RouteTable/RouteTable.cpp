// The route table: a trie of prefixes (the Trie layer, mounted on shared
// tables) and a value per prefix (ValueTable.h), behind one lock.
//
// What it keeps:
// - Every change is one update of the trie's table of its family: the trie
//   change and the value write happen inside it, the value first to be
//   committed, so that a writer killed in between leaves at worst a value
//   whose prefix is not stored (never read, swept by the next writer).
//   Removing a prefix removes its value after the trie's update, for the
//   same reason.
// - Reads run under ConsistentReader::read on that family's counter, so the
//   prefixes and the values they return come from one state.
// - The reserved keys (each family's all-zero and all-ones host prefixes)
//   are where the trie keeps its root and default route; they cannot be
//   stored.
#include "RouteTable/RouteTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <mutex>

#include "Basis/Debug.h"
#include "KilnDepot/KilnDepotMap.h"
#include "RouteTable/ChangeRing.h"
#include "RouteTable/Convert.h"
#include "RouteTable/Internal.h"
#include "RouteTable/ValueTable.h"
#include "TrieLib/ConsistentRead.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/Trie4.h"
#include "TrieLib/Trie6.h"
#include "TrieLib/TrieMount.h"
#include "TrieLib/TrieWalk.h"

namespace depottrie {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;
using Routing::Lattice::ConsistentReader;
using Routing::Lattice::Trie;

namespace {

AddressFamily afOf(Family f) { return f == Family::ipv4 ? AddressFamily::ipv4 : AddressFamily::ipv6; }

Routing::Lattice::MountOptions mountOptions(const Options& o) {
  // Permission bits only, and the writer (the owner) must keep reading and
  // writing its files: a new writer of the table opens them again.
  if (o.mode > 0777 || (o.mode & 0600) != 0600)
    throw Error(fmt::format("mode {:04o}: a table's mode is permission bits (at most 0777) that leave its owner "
                            "read and write, such as 0600, 0640 or 0644", o.mode));
  Routing::Lattice::MountOptions m;
  if (!o.root.empty()) m.root = o.root;
  m.mode = o.mode;
  m.ipv4Prefixes = o.ipv4Capacity;
  m.ipv6Prefixes = o.ipv6Capacity;
  return m;
}

// Runs f, turning the library's exceptions into Error with the same message.
template <class F>
auto guarded(F&& f) {
  try {
    return f();
  } catch (const Basis::Exception& e) {
    throw Error(e.what());
  }
}

// Collects the prefixes a walk delivers.
class Collector final : public Routing::Lattice::WalkVisitor {
 public:
  explicit Collector(std::vector<IpGenPrefix>& out) : out_(out) { out_.clear(); }
  Routing::Lattice::WalkAction visit(const IpGenPrefix& p) override {
    out_.push_back(p);
    return Routing::Lattice::continueWalk;
  }

 private:
  std::vector<IpGenPrefix>& out_;
};

void walkCovered(const Trie& trie, std::vector<IpGenPrefix>& out, const IpGenPrefix& p) {
  Collector collector(out);
  if (p.af() == AddressFamily::ipv4) Routing::Lattice::walkCovered4(&trie, collector, p.v4());
  else Routing::Lattice::walkCovered6(&trie, collector, p.v6());
}

IpGenPrefix familyRoot(AddressFamily af) {
  return af == AddressFamily::ipv4 ? IpGenPrefix(Addrkit::Prefix()) : IpGenPrefix(Addrkit::Ip6Prefix());
}

}  // namespace

struct RouteTable::Impl {
  std::string name;
  std::string root;
  bool writer = false;
  Basis::Ptr<Trie> trie;
  detail::ValueTables values;
  std::unique_ptr<ConsistentReader> reader;
  // The change feed (writer only): the next change's number, and the
  // families whose changes the feed lacks until a gap entry says so.
  std::unique_ptr<detail::ChangeRing> ring;
  U64 nextChange = 1;
  bool gap[2] = {false, false};
  mutable std::mutex mutex;
  // Scratch space of the batched and collecting reads (under the lock).
  std::vector<IpGenPrefix> queries, answers;
  std::vector<U64> valueScratch;

  KilnDepot::CollectionBinding& binding(AddressFamily af) {
    if (af == AddressFamily::ipv4) return trie->trieNodeMap();
    return trie->trieNode6Map();
  }
  template <class Run>
  auto read(AddressFamily af, Run&& run) {
    return reader->read(af, std::forward<Run>(run));
  }

  bool stored(const IpGenPrefix& p) const { return trie->longestMatch(p) == p; }

  // Announces a change just made (its update counted) in the feed. A feed
  // that cannot be written does not undo the change: the family's next
  // announcement is preceded by a gap entry instead.
  void announce(Change::Kind kind, const Route& route, AddressFamily af) {
    bool& lacking = gap[af == AddressFamily::ipv6];
    const U64 updates = binding(af).updateCounter() / 2;
    try {
      if (lacking) writeGap(af, updates - 1);
      ring->write({nextChange, kind, route, updates});
      ++nextChange;
    } catch (const std::exception& e) {
      lacking = true;
      binding(af).debug().logf(0, "route table {}: change {} not announced: {}", name, nextChange, e.what());
    }
  }
  // A gap entry of a family: its changes up to `updates` are not all in the
  // feed. The route's prefix is the family's /0.
  void writeGap(AddressFamily af, U64 updates) {
    ring->write({nextChange, Change::Kind::gap, {af == AddressFamily::ipv4 ? "0.0.0.0/0" : "::/0", 0}, updates});
    ++nextChange;
    gap[af == AddressFamily::ipv6] = false;
  }
  // A family whose updates went further than its last announced change
  // (changed through the Trie layer, or by a writer killed in between) gets
  // a gap entry.
  void openFeed(U64 entries, unsigned mode) {
    ring = detail::ChangeRing::writer(name, root, mode, entries);
    const detail::ChangeRing::Newest newest = ring->newest();
    nextChange = newest.number + 1;
    for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      const std::optional<Change>& last = af == AddressFamily::ipv4 ? newest.ipv4 : newest.ipv6;
      const U64 updates = binding(af).updateCounter() / 2;
      if (last ? last->update != updates : updates != 0) writeGap(af, updates);
    }
  }

  Route route(const IpGenPrefix& p) const { return {detail::fromGen(p), values.value(p)}; }
  // The route of p (none for the empty prefix) made in `out`: a copy of a
  // route just built waits for the stores that built it.
  void routeInto(std::optional<Route>& out, const IpGenPrefix& p) const {
    if (p.isEmpty()) return out.reset();
    out.emplace();
    out->prefix = detail::fromGen(p);
    out->value = values.value(p);
  }
  std::optional<Route> routeIf(const IpGenPrefix& p) const {
    std::optional<Route> out;
    routeInto(out, p);
    return out;
  }

  std::optional<Route> find(const IpGenPrefix& p) {
    return read(p.af(), [&] { return stored(p) ? routeIf(p) : std::nullopt; });
  }

  // The first stored prefix after p in its family. The trie's successor
  // cannot be asked about the reserved keys: after the all-ones host prefix
  // there is nothing, after the all-zero ones comes address 1 and what
  // follows it.
  std::optional<Route> next(const Prefix& p) {
    if (reserved(p)) {
      if (p.address()[0] != 0) return std::nullopt;
      std::array<std::uint8_t, 16> one{};
      one[p.address().size() - 1] = 1;
      const IpGenPrefix first = detail::toGen(Prefix::fromBytes({one.data(), p.address().size()}, p.maxLength()));
      return read(first.af(), [&] { return stored(first) ? route(first) : routeIf(trie->getNext(first)); });
    }
    const IpGenPrefix g = detail::toGen(p);
    return read(g.af(), [&] { return routeIf(trie->getNext(g)); });
  }

  // The first route of a family at or after its /0.
  std::optional<Route> first(AddressFamily af) {
    const IpGenPrefix root = familyRoot(af);
    return read(af, [&] { return stored(root) ? route(root) : routeIf(trie->getNext(root)); });
  }

  // Every route inside p, in order, read from one state.
  std::vector<Route> covered(const IpGenPrefix& p) {
    std::vector<IpGenPrefix>& found = answers;
    read(p.af(), [&] {
      walkCovered(*trie, found, p);
      valueScratch.resize(found.size());
      values.values(found, valueScratch);
      return true;
    });
    std::vector<Route> out(found.size());
    for (size_t i = 0; i < found.size(); ++i) out[i] = {detail::fromGen(found[i]), valueScratch[i]};
    // A stored odd IPv4 length can be met after prefixes inside it.
    if (!std::is_sorted(out.begin(), out.end(), [](const Route& a, const Route& b) { return a.prefix < b.prefix; }))
      std::sort(out.begin(), out.end(), [](const Route& a, const Route& b) { return a.prefix < b.prefix; });
    return out;
  }

  // Stored prefixes of a family: the value table counts them once its writer
  // has made them agree (reconcile); without one, a walk does.
  U64 count(AddressFamily af) {
    if (values.present(af)) return values.table(af)->occupancy();
    return read(af, [&] {
      walkCovered(*trie, answers, familyRoot(af));
      return U64(answers.size());
    });
  }

  // The batched lookups of both kinds: groups of one family, each answered
  // by `answer(af, queries, answers, values)`.
  template <class Answer>
  void lookupMany(std::span<const Prefix> in, std::span<std::optional<Route>> results, Answer&& answer) {
    if (results.size() < in.size())
      throw Error(fmt::format("lookup: {} answers for {} queries", results.size(), in.size()));
    constexpr size_t group = 256;
    queries.resize(group);
    answers.resize(group);
    valueScratch.resize(group);
    for (size_t i = 0; i < in.size();) {
      const Family family = in[i].family();
      size_t n = 0;
      for (; i + n < in.size() && n < group && in[i + n].family() == family; ++n) queries[n] = detail::toGen(in[i + n]);
      const std::span<const IpGenPrefix> q(queries.data(), n);
      const std::span<IpGenPrefix> a(answers.data(), n);
      const std::span<U64> v(valueScratch.data(), n);
      answer(afOf(family), q, a, v);
      for (size_t k = 0; k < n; ++k)
        results[i + k] = a[k].isEmpty() ? std::nullopt : std::optional<Route>(Route{detail::fromGen(a[k]), v[k]});
      i += n;
    }
  }

  // Makes the value table of a family hold a record for exactly the stored
  // prefixes: 0 for those stored through the Trie layer, none for those a
  // killed writer left without their prefix. Counts settle it when they agree.
  void reconcile(AddressFamily af) {
    std::vector<IpGenPrefix> stored;
    walkCovered(*trie, stored, familyRoot(af));
    if (stored.size() == values.table(af)->occupancy()) return;
    values.reserve(af, stored.size());
    for (const IpGenPrefix& p : stored)
      if (!values.find(p)) values.write(p, 0);
    if (values.table(af)->occupancy() == stored.size()) return;
    std::sort(stored.begin(), stored.end(), [](const IpGenPrefix& a, const IpGenPrefix& b) {
      return detail::fromGen(a) < detail::fromGen(b);
    });
    for (const IpGenPrefix& k : values.keys(af)) {
      const bool isStored = std::binary_search(stored.begin(), stored.end(), k, [](const auto& a, const auto& b) {
        return detail::fromGen(a) < detail::fromGen(b);
      });
      if (!isStored) values.remove(k);
    }
  }
};

Routing::Lattice::Trie& detail::Access::trie(RouteTable& t) { return *t.impl_->trie; }

RouteTable::RouteTable(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
RouteTable::RouteTable(RouteTable&&) noexcept = default;
RouteTable& RouteTable::operator=(RouteTable&&) noexcept = default;
RouteTable::~RouteTable() = default;

RouteTable RouteTable::openWriter(std::string_view name, const Options& options) {
  return guarded([&] {
    auto impl = std::make_unique<Impl>();
    impl->name = name;
    impl->writer = true;
    const auto m = mountOptions(options);
    impl->root = m.root;
    impl->trie = Routing::Lattice::trieWriterNew(impl->name, m);
    impl->values = detail::ValueTables::writer(impl->name, m.root, m.mode, m.ipv4Prefixes, m.ipv6Prefixes);
    impl->reader = std::make_unique<ConsistentReader>(*impl->trie);
    impl->reconcile(AddressFamily::ipv4);
    impl->reconcile(AddressFamily::ipv6);
    impl->openFeed(options.changeFeedEntries, m.mode);
    return RouteTable(std::move(impl));
  });
}

RouteTable RouteTable::openReader(std::string_view name, const Options& options) {
  return guarded([&] {
    auto impl = std::make_unique<Impl>();
    impl->name = name;
    const auto m = mountOptions(options);
    impl->root = m.root;
    impl->trie = Routing::Lattice::trieReaderNew(impl->name, m);
    impl->values = detail::ValueTables::reader(impl->name, m.root);
    impl->reader = std::make_unique<ConsistentReader>(*impl->trie);
    return RouteTable(std::move(impl));
  });
}

bool RouteTable::exists(std::string_view name, const Options& options) {
  return guarded([&] { return Routing::Lattice::trieExists(std::string(name), mountOptions(options)); });
}

void RouteTable::drop(std::string_view name, const Options& options) {
  guarded([&] {
    const auto m = mountOptions(options);
    const std::string n(name);
    // The trie's tables go last: while they exist, so does the table.
    for (const Depot::TablePath& file : detail::ValueTables::files(n, m.root))
      if (Depot::sharedTableExists(file)) Depot::sharedTableDrop(file);
    if (const Depot::TablePath ring = detail::ChangeRing::path(n, m.root); Depot::sharedTableExists(ring))
      Depot::sharedTableDrop(ring);
    Routing::Lattice::trieDrop(n, m);
  });
}

// The host prefixes whose bits are all zero or all one, and 0.0.0.0/31,
// whose node would be the default route's record.
bool RouteTable::reserved(const Prefix& p) {
  const auto a = p.address();
  const bool zero = std::all_of(a.begin(), a.end(), [](std::uint8_t b) { return b == 0; });
  if (zero && p.family() == Family::ipv4 && p.length() == 31) return true;
  return p.length() == p.maxLength() &&
         (zero || std::all_of(a.begin(), a.end(), [](std::uint8_t b) { return b == 0xff; }));
}

const std::string& RouteTable::name() const { return impl_->name; }
bool RouteTable::isWriter() const { return impl_->writer; }

bool RouteTable::insert(const Prefix& prefix, std::uint64_t value) {
  if (reserved(prefix))
    throw Error(fmt::format("{} is reserved (the trie keeps its root or default route there) and cannot be stored",
                            prefix.toString()));
  if (!impl_->writer) throw Error(fmt::format("route table {} is open for reading; only its writer changes it", name()));
  std::lock_guard lock(impl_->mutex);
  return guarded([&] {
    Impl& t = *impl_;
    const IpGenPrefix g = detail::toGen(prefix);
    const bool isNew = !t.stored(g);
    if (!isNew && t.values.find(g) == value) return false;
    {
      KilnDepot::UpdateBracket update(t.binding(g.af()));
      if (isNew) {
        if (g.af() == AddressFamily::ipv4) Routing::Lattice::prefixIs4(t.trie.ptr(), g.v4());
        else Routing::Lattice::prefixIs6(t.trie.ptr(), g.v6());
      }
      t.values.write(g, value);
    }
    t.announce(isNew ? Change::Kind::added : Change::Kind::valueChanged, {prefix, value}, g.af());
    return isNew;
  });
}

bool RouteTable::erase(const Prefix& prefix) {
  if (!impl_->writer) throw Error(fmt::format("route table {} is open for reading; only its writer changes it", name()));
  if (reserved(prefix)) return false;
  std::lock_guard lock(impl_->mutex);
  return guarded([&] {
    Impl& t = *impl_;
    const IpGenPrefix g = detail::toGen(prefix);
    const U64 value = t.values.value(g);
    bool removed;
    {
      KilnDepot::UpdateBracket update(t.binding(g.af()));
      removed = g.af() == AddressFamily::ipv4 ? Routing::Lattice::prefixDel4(t.trie.ptr(), g.v4())
                                              : Routing::Lattice::prefixDel6(t.trie.ptr(), g.v6());
    }
    if (removed) t.values.remove(g), t.announce(Change::Kind::removed, {prefix, value}, g.af());
    return removed;
  });
}

std::optional<Route> RouteTable::lookup(const Prefix& addressOrPrefix) const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] {
    Impl& t = *impl_;
    const IpGenPrefix g = detail::toGen(addressOrPrefix);
    // Made where it is returned (routeInto), not copied out of the read.
    std::optional<Route> found;
    t.read(g.af(), [&] {
      t.routeInto(found, t.trie->longestMatch(g, t.values.fetcher()));
      return true;
    });
    return found;
  });
}

std::optional<Route> RouteTable::lookupUnguarded(const Prefix& addressOrPrefix) const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] {
    const IpGenPrefix g = detail::toGen(addressOrPrefix);
    return impl_->routeIf(impl_->trie->longestMatch(g, impl_->values.fetcher()));
  });
}

void RouteTable::lookup(std::span<const Prefix> queries, std::span<std::optional<Route>> answers) const {
  std::lock_guard lock(impl_->mutex);
  guarded([&] {
    Impl& t = *impl_;
    t.lookupMany(queries, answers, [&](AddressFamily af, auto in, auto out, auto vals) {
      t.read(af, [&] {
        t.trie->longestMatch(in, out);
        t.values.values(out, vals);
        return true;
      });
    });
  });
}

void RouteTable::lookupUnguarded(std::span<const Prefix> queries, std::span<std::optional<Route>> answers) const {
  std::lock_guard lock(impl_->mutex);
  guarded([&] {
    Impl& t = *impl_;
    t.lookupMany(queries, answers, [&](AddressFamily, auto in, auto out, auto vals) {
      t.trie->longestMatch(in, out);
      t.values.values(out, vals);
    });
  });
}

std::optional<Route> RouteTable::find(const Prefix& prefix) const {
  if (reserved(prefix)) return std::nullopt;
  std::lock_guard lock(impl_->mutex);
  return guarded([&] { return impl_->find(detail::toGen(prefix)); });
}

std::vector<Route> RouteTable::covering(const Prefix& prefix) const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] {
    Impl& t = *impl_;
    const IpGenPrefix g = detail::toGen(prefix);
    return t.read(g.af(), [&] {
      std::vector<Route> out;
      for (IpGenPrefix q = t.trie->longestMatch(g); !q.isEmpty();) {
        out.push_back(t.route(q));
        if (q.len() == 0) break;
        q = t.trie->longestMatch(detail::toGen(detail::fromGen(q).truncated(q.len() - 1)));
      }
      return out;
    });
  });
}

std::vector<Route> RouteTable::covered(const Prefix& prefix) const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] { return impl_->covered(detail::toGen(prefix)); });
}

void RouteTable::covered(const Prefix& prefix, const std::function<bool(const Route&)>& visit) const {
  for (const Route& r : covered(prefix))
    if (!visit(r)) return;
}

std::optional<Route> RouteTable::next(const Prefix& prefix) const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] { return impl_->next(prefix); });
}

void RouteTable::forEach(const std::function<bool(const Route&)>& visit) const {
  for (const char* everything : {"0.0.0.0/0", "::/0"})
    for (const Route& r : covered(everything))
      if (!visit(r)) return;
}

std::size_t RouteTable::size() const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] { return impl_->count(AddressFamily::ipv4) + impl_->count(AddressFamily::ipv6); });
}

Statistics RouteTable::statistics() const {
  std::lock_guard lock(impl_->mutex);
  return guarded([&] {
    Impl& t = *impl_;
    Statistics s;
    s.ipv4Prefixes = t.count(AddressFamily::ipv4);
    s.ipv6Prefixes = t.count(AddressFamily::ipv6);
    s.ipv4Nodes = t.binding(AddressFamily::ipv4).table().occupancy();
    s.ipv6Nodes = t.binding(AddressFamily::ipv6).table().occupancy();
    s.updates = (t.binding(AddressFamily::ipv4).updateCounter() + t.binding(AddressFamily::ipv6).updateCounter()) / 2;
    for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      s.sharedBytes += t.binding(af).table().bytes();
      s.sharedBytes += t.values.bytes(af);
    }
    return s;
  });
}

RouteTable::Iterator RouteTable::begin() const {
  Iterator it;
  it.table_ = this;
  std::lock_guard lock(impl_->mutex);
  it.route_ = guarded([&] {
    std::optional<Route> r = impl_->first(AddressFamily::ipv4);
    return r ? r : impl_->first(AddressFamily::ipv6);
  });
  return it;
}

RouteTable::Iterator& RouteTable::Iterator::operator++() {
  const Family family = route_->prefix.family();
  route_ = table_->next(route_->prefix);
  if (!route_ && family == Family::ipv4) {
    std::lock_guard lock(table_->impl_->mutex);
    route_ = guarded([&] { return table_->impl_->first(AddressFamily::ipv6); });
  }
  return *this;
}

struct ChangeFeed::Impl {
  std::unique_ptr<detail::ChangeRing> ring;
  U64 next = 1;
};

ChangeFeed::ChangeFeed(const RouteTable& table, std::optional<std::uint64_t> after) : impl_(std::make_unique<Impl>()) {
  guarded([&] {
    impl_->ring = detail::ChangeRing::reader(table.name(), table.impl_->root);
    if (!impl_->ring)
      throw Error(fmt::format("route table {} keeps no change feed: no writer of this version has opened it", table.name()));
    impl_->next = (after ? *after : impl_->ring->newest().number) + 1;
  });
}
ChangeFeed::ChangeFeed(ChangeFeed&&) noexcept = default;
ChangeFeed& ChangeFeed::operator=(ChangeFeed&&) noexcept = default;
ChangeFeed::~ChangeFeed() = default;

ChangeFeed::Changes ChangeFeed::poll(std::size_t max) {
  return guarded([&] {
    Changes out;
    Impl& f = *impl_;
    while (out.changes.size() < max) {
      const std::optional<Change> c = f.ring->at(f.next);
      if (!c || c->number < f.next) break;  // not written yet
      if (c->number > f.next) {             // written over
        out.lost = true;
        f.next = f.ring->newest().number + 1;
        break;
      }
      out.changes.push_back(*c);
      ++f.next;
    }
    return out;
  });
}

}  // namespace depottrie
