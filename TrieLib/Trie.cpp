#include <fmt/format.h>

#include <ostream>

#include "Basis/Debug.h"
#include "KilnDepot/CollectionControl.h"
#include "Ringlog/Ringlog.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/TopOfTrie.h"
#include "TrieLib/TrieFamilyOps.h"

namespace Routing::Lattice {
namespace {

// Type data goes to the runtime before the constants are built.
bool registerLibraryTypes() {
  registerTrieNodeTypes();
  Kiln::enumRegister("Routing::Lattice::WalkAction",
                     {{abortWalk, "abortWalk"}, {skipSubtree, "skipSubtree"}, {continueWalk, "continueWalk"}});
  Kiln::TypeData callbackType;
  callbackType.name = "Routing::Lattice::TrieWalkCallback";
  callbackType.size = sizeof(TrieWalkCallback);
  Kiln::typeRegister(std::move(callbackType));
  return true;
}
const bool libraryTypesRegistered = registerLibraryTypes();

Addrkit::Ip6Address allOnes6() {
  Addrkit::Ip6Address a;
  for (unsigned k = 0; k < 4; ++k) a.wordIs(k, 0xFFFFFFFFu);
  return a;
}

const Depot::RecordLayout trieNodeLayout{"Routing::Lattice::TrieNode", sizeof(TrieNode), TrieNode::keyOffset,
                                         sizeof(Addrkit::Prefix)};
const Depot::RecordLayout trieNode6Layout{"Routing::Lattice::TrieNode6", sizeof(TrieNode6), TrieNode6::keyOffset,
                                          sizeof(Addrkit::Ip6Prefix)};

// The storage steps both node collections take alike; `count` is the
// collection's trieNodeIs / trieNodeDel counter.
template <class K>
const U8* keyBytes(const K& key) {
  return reinterpret_cast<const U8*>(&key);
}

template <class Map, class Record>
void writeRecord(Map& map, Beat::Counter& count, const Record& node) {
  count.inc();
  map.safeWrite(node);
  map.notifyKey(keyBytes(node.key()));
}

template <class Map, class Record>
void commitRecord(Map& map, Beat::Counter& count, Record* node) {
  count.inc();
  map.directCommit(node);
  map.notifyKey(keyBytes(node->key()));
}

template <class Map, class Key>
auto removeRecord(Map& map, Beat::Counter& count, const Key& key) {
  count.inc();
  if (!map.safeRemove(key)) return map.defaultValue();
  map.notifyKey(keyBytes(key));
  return map.scratchRecord();
}

// Without subscribers (`direct`) nobody can observe the removals, so they
// skip the counters and notifications.
template <class Map, class Remove>
void removeAll(Map& map, bool direct, Remove&& remove) {
  for (auto it = map.begin(); it.valid(); it.advance()) {
    if (direct) map.safeRemove(it->key());
    else remove(it->key());
  }
}

void controlQuiescedIs(KilnDepot::CollectionBinding& binding, bool q) {
  if (auto* c = binding.control()) c->quiescedIs(q);
}

void controlMountStatusIs(KilnDepot::CollectionBinding& binding) {
  if (binding.debug().verbose())
    binding.debug().log(0, fmt::format("mountStatus {}", KilnDepot::stringValue(binding.mountStatus())));
  if (auto* c = binding.control()) c->mountStatusIs(binding.mountStatus());
}

}  // namespace

const Addrkit::Prefix rootPrefix(Addrkit::Ip4Address::fromHost(0xFFFFFFFFu), 32);
const Addrkit::Ip6Prefix rootPrefix6(allOnes6(), 128);
const Addrkit::Prefix nullPrefix(Addrkit::Ip4Address::fromHost(0xFFFFFFFFu), 32);
const Addrkit::Ip6Prefix nullPrefix6(allOnes6(), 128);
const Addrkit::Prefix prefix00(Addrkit::Ip4Address(), 0);
const Addrkit::Prefix prefix032(Addrkit::Ip4Address(), 32);
const Addrkit::Ip6Address zeroAddr;
const Addrkit::Ip6Prefix prefix006(zeroAddr, 0);
const Addrkit::Ip6Prefix prefix0128(zeroAddr, 128);

// ---- WalkAction and the walk callback ----

std::atomic<U64> TrieWalkCallback::memAllocationTracker_{0};

const Kiln::TypeData* TrieWalkCallback::typeData() const {
  return Kiln::typeData("Routing::Lattice::TrieWalkCallback");
}

static const Kiln::EnumType& walkActionType() {
  static const Kiln::EnumType& t = *Kiln::enumType("Routing::Lattice::WalkAction");
  return t;
}

WalkAction WalkActionInstance(U32 v) {
  if (v > 0xFF) throw Basis::RangeException(fmt::format("Routing::Lattice::WalkAction value {} out of range", v));
  return static_cast<WalkAction>(v);
}

WalkAction WalkActionInstance(const Basis::String& name) {
  auto v = walkActionType().valueOf(name);
  if (!v) throw Basis::RangeException(fmt::format("unknown Routing::Lattice::WalkAction '{}'", name));
  return static_cast<WalkAction>(*v);
}

Basis::String stringValue(WalkAction a) { return walkActionType().nameOf(a); }

std::ostream& operator<<(std::ostream& os, const WalkAction& a) { return os << stringValue(a); }

void sequenceToValue(Kiln::CharRange& text, WalkAction* out) {
  size_t at = text.position();
  Basis::String name(text.readToken());
  auto v = walkActionType().valueOf(name);
  if (!v) throw Kiln::ParseException(fmt::format("unknown Routing::Lattice::WalkAction '{}' at position {}", name, at));
  *out = static_cast<WalkAction>(*v);
}

// ---- The entity ----

// When the last user reference goes, each control takes a reference to the
// trie and the trie lets go of the controls: the trie and its collections
// then live as long as somebody holds a control.
class Trie::TrieZeroReferencesNotifiee : public Kiln::Notifiee {
 public:
  explicit TrieZeroReferencesNotifiee(Trie* trie) : trie_(trie) {}
  bool changeSubscriber() const override { return false; }
  void onZeroReferences() override {
    Basis::Ptr<Kiln::Entity> self(trie_);
    for (auto* control : {&trie_->trieNode6Control_, &trie_->trieNodeControl_}) {
      if (Basis::Ptr<KilnDepot::CollectionControl> c = *control) {
        c->entityRefIs(self);
        control->reset();
      }
    }
    trie_->publisher()->unsubscribe(this);
    self.reset();
  }

 private:
  Trie* trie_;
};

Basis::Ptr<Trie> trieFactory(const Basis::String& name) { return Kiln::entityNew<Trie>(name); }

Trie::Trie(const Basis::String& name)
    : Kiln::Entity(name),
      trieNode_("trieNode", trieNodeLayout, TrieNode(prefix00),
                {.keyChanged = [this](const U8* k) { trieNodeNotify(*reinterpret_cast<const Addrkit::Prefix*>(k)); },
                 .quiescedChanged = [this](bool q) { trieNodeNotifyQuiesced(q); },
                 .mountStatusChanged = [this] { trieNodeNotifyMountStatus(); }}),
      trieNode6_("trieNode6", trieNode6Layout, TrieNode6(prefix006),
                 {.keyChanged = [this](const U8* k) { trieNode6Notify(*reinterpret_cast<const Addrkit::Ip6Prefix*>(k)); },
                  .quiescedChanged = [this](bool q) { trieNode6NotifyQuiesced(q); },
                  .mountStatusChanged = [this] { trieNode6NotifyMountStatus(); }}) {
  counters_ = std::make_unique<Beat::CounterSet>(std::string(Beat::defaultSetName), 245);
  trieNode6IsCount_ = &counters_->counterNew("trieNode6Is");
  trieNode6DelCount_ = &counters_->counterNew("trieNode6Del");
  trieNode6NotifyCount_ = &counters_->counterNew("trieNode6Notify");
  trieNodeIsCount_ = &counters_->counterNew("trieNodeIs");
  trieNodeDelCount_ = &counters_->counterNew("trieNodeDel");
  trieNodeNotifyCount_ = &counters_->counterNew("trieNodeNotify");

  zeroReferencesNotifiee_ = std::make_unique<TrieZeroReferencesNotifiee>(this);
  publisher()->subscribe(zeroReferencesNotifiee_.get());
  zeroReferencesNotifiee_->activeIs(true);

  trieNode6ControlIs(Basis::Ptr<KilnDepot::CollectionControl>(new KilnDepot::CollectionControl(&trieNode6_)));
  trieNode6_.setUp(*this, trieNode6Control_.ptr());
  trieNodeControlIs(Basis::Ptr<KilnDepot::CollectionControl>(new KilnDepot::CollectionControl(&trieNode_)));
  trieNode_.setUp(*this, trieNodeControl_.ptr());

  handleInitialized();
}

Trie::~Trie() {
  beingDestroyedIs();
  trieNode6Control_.reset();
  trieNodeControl_.reset();
}

// A change nobody watches is not published: the successor search counts
// every node it visits, and must not pay for a delivery to no one.
void Trie::publishChange(Kiln::FieldId field, std::any value) const {
  if (publisher()->changesHeard()) publisher()->publish(Kiln::Change{field, std::move(value)});
}

void Trie::afIs(Addrkit::AddressFamily af) {
  if (af == af_) return;
  auto old = std::exchange(af_, af);
  publishChange(afId, old);
}

void Trie::initializedIs(bool v) {
  if (v == initialized_) return;
  bool old = std::exchange(initialized_, v);
  publishChange(initializedId, old);
}

void Trie::nodesVisitedCountIs(U32 n) const {
  if (n == nodesVisitedCount_) return;
  U32 old = std::exchange(nodesVisitedCount_, n);
  if (publisher()->changesHeard()) publishChange(nodesVisitedCountId, old);
}

U32 Trie::nodesVisitedCountInc(U32 n) const {
  U32 old = nodesVisitedCount_;
  U32 sum = old + n;
  if (sum == old) return sum;
  nodesVisitedCount_ = sum;
  if (publisher()->changesHeard()) publishChange(nodesVisitedCountId, old);
  return sum;
}

void Trie::trieNodeControlIs(const Basis::Ptr<KilnDepot::CollectionControl>& c) {
  if (c == trieNodeControl_) return;
  Basis::Ptr<KilnDepot::CollectionControl> old = std::move(trieNodeControl_);
  trieNodeControl_ = c;
  publishChange(trieNodeControlId, old);
}

void Trie::trieNode6ControlIs(const Basis::Ptr<KilnDepot::CollectionControl>& c) {
  if (c == trieNode6Control_) return;
  Basis::Ptr<KilnDepot::CollectionControl> old = std::move(trieNode6Control_);
  trieNode6Control_ = c;
  publishChange(trieNode6ControlId, old);
}

Addrkit::IpGenPrefix Trie::getRootPrefix() const {
  if (af_ == Addrkit::AddressFamily::ipv4) return rootPrefix;
  return rootPrefix6;
}

void Trie::handleInitialized() {
  trieNodeIs(TrieNode(rootPrefix));
  trieNode6Is(TrieNode6(rootPrefix6));
}

void Trie::handleParent(Kiln::Entity*) {
  trieNode6_.handleParent(*this);
  trieNode_.handleParent(*this);
}

// ---- Node storage ----

// A change nobody watches is not built: an IPv6 key does not fit std::any's
// inline storage, and the allocation would be most of the write's cost.
void Trie::trieNodeNotify(const Addrkit::Prefix& key) {
  if (publisher()->changesHeard()) publishChange(trieNodeId, key);
  trieNodeNotifyCount_->inc();
}

void Trie::trieNode6Notify(const Addrkit::Ip6Prefix& key) {
  if (publisher()->changesHeard()) publishChange(trieNode6Id, key);
  trieNode6NotifyCount_->inc();
}

void Trie::trieNodeNotifyQuiesced(bool q) { controlQuiescedIs(trieNode_, q); }
void Trie::trieNode6NotifyQuiesced(bool q) { controlQuiescedIs(trieNode6_, q); }
void Trie::trieNodeNotifyMountStatus() { controlMountStatusIs(trieNode_); }
void Trie::trieNode6NotifyMountStatus() { controlMountStatusIs(trieNode6_); }

void Trie::trieNodeIs(const TrieNode& node) { writeRecord(trieNode_, *trieNodeIsCount_, node); }
void Trie::trieNode6Is(const TrieNode6& node) { writeRecord(trieNode6_, *trieNode6IsCount_, node); }
void Trie::trieNodeCommit(TrieNode* node) { commitRecord(trieNode_, *trieNodeIsCount_, node); }
void Trie::trieNode6Commit(TrieNode6* node) { commitRecord(trieNode6_, *trieNode6IsCount_, node); }

TrieNode Trie::trieNodeDel(const Addrkit::Prefix& key) { return removeRecord(trieNode_, *trieNodeDelCount_, key); }

TrieNode6 Trie::trieNode6Del(const Addrkit::Ip6Prefix& key) {
  return removeRecord(trieNode6_, *trieNode6DelCount_, key);
}

void Trie::trieNodeDelAll() {
  removeAll(trieNode_, publisher()->initialState(), [this](const Addrkit::Prefix& key) { trieNodeDel(key); });
}

void Trie::trieNode6DelAll() {
  removeAll(trieNode6_, publisher()->initialState(), [this](const Addrkit::Ip6Prefix& key) { trieNode6Del(key); });
}

Addrkit::IpGenPrefix checkForPrefix00(const Trie* trie) {
  return defaultRouteAnswer<Family4>(trie, "checkForPrefix00");
}

Addrkit::IpGenPrefix checkForPrefix006(const Trie* trie) {
  return defaultRouteAnswer<Family6>(trie, "checkForPrefix006");
}

// ---- Public operations ----

// Each insertion and deletion is one update of its family's table, so that
// readers can tell a state between updates from a half-done split or hoist.
void Trie::prefixIs(const Addrkit::IpGenPrefix& prefix) {
  RINGLOG_BLOCK(trieSourcePath, "void Routing::Lattice::Trie::prefixIs(const Addrkit::IpGenPrefix&)");
  switch (prefix.af()) {
    case Addrkit::AddressFamily::ipv4: {
      KilnDepot::UpdateBracket update(trieNode_);
      prefixIs4(this, prefix.v4());
      break;
    }
    case Addrkit::AddressFamily::ipv6: {
      KilnDepot::UpdateBracket update(trieNode6_);
      prefixIs6(this, prefix.v6());
      break;
    }
    default: break;
  }
}

Addrkit::IpGenPrefix Trie::lpm(const Addrkit::IpGenPrefix& prefix) const {
  RINGLOG_BLOCK(trieSourcePath, "Addrkit::IpGenPrefix Routing::Lattice::Trie::lpm(const Addrkit::IpGenPrefix&) const");
  switch (prefix.af()) {
    case Addrkit::AddressFamily::ipv4: return lpm4(this, prefix.v4());
    case Addrkit::AddressFamily::ipv6: return lpm6(this, prefix.v6());
    default: return {};
  }
}

bool Trie::prefixDel(const Addrkit::IpGenPrefix& prefix) {
  RINGLOG_BLOCK(trieSourcePath, "bool Routing::Lattice::Trie::prefixDel(const Addrkit::IpGenPrefix&)");
  switch (prefix.af()) {
    case Addrkit::AddressFamily::ipv4: {
      KilnDepot::UpdateBracket update(trieNode_);
      return prefixDel4(this, prefix.v4());
    }
    case Addrkit::AddressFamily::ipv6: {
      KilnDepot::UpdateBracket update(trieNode6_);
      return prefixDel6(this, prefix.v6());
    }
    default: return false;
  }
}

Addrkit::IpGenPrefix Trie::getNext(const Addrkit::IpGenPrefix& prefix) const {
  TRIE_TRACE(8, "getNext({})", prefix);
  if (nodesVisitedCount_ != 0) nodesVisitedCountIs(0);
  switch (prefix.af()) {
    case Addrkit::AddressFamily::ipv4: return getNext4(this, prefix.v4());
    case Addrkit::AddressFamily::ipv6: return getNext6(this, prefix.v6());
    default:
      TRIE_ASSERT(false, "false && \"Invalid address family\"",
                  "Addrkit::IpGenPrefix Routing::Lattice::Trie::getNext(const Addrkit::IpGenPrefix&) const");
      return {};
  }
}

void Trie::preOrderWalk(const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::IpGenPrefix& subtreeRoot) const {
  TRIE_TRACE(8, "preOrderWalk subtreeRoot: {}", subtreeRoot);
  if (subtreeRoot == Addrkit::IpGenPrefix()) return;
  switch (subtreeRoot.af()) {
    case Addrkit::AddressFamily::ipv4: preOrderWalk4(this, callback, subtreeRoot.v4()); break;
    case Addrkit::AddressFamily::ipv6: preOrderWalk6(this, callback, subtreeRoot.v6()); break;
    default: break;
  }
}

}  // namespace Routing::Lattice
