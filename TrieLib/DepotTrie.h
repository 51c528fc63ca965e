#pragma once
#include <atomic>
#include <memory>
#include <span>

#include "Addrkit/Prefix.h"
#include "Basis/Ptr.h"
#include "Beat/Counter.h"
#include "Kiln/Entity.h"
#include "KilnDepot/KilnDepotMap.h"
#include "TrieLib/Export.h"
#include "TrieLib/TrieNode.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Prefix constants, set once when the library loads. The root keys and the
// null-child markers are the same all-ones host prefix; each default route is
// stored under the all-zero host prefix of its family.
extern DEPOTTRIE_API const Addrkit::Prefix rootPrefix;      // 255.255.255.255/32
extern DEPOTTRIE_API const Addrkit::Ip6Prefix rootPrefix6;  // ffff:...:ffff/128
extern DEPOTTRIE_API const Addrkit::Prefix nullPrefix;
extern DEPOTTRIE_API const Addrkit::Ip6Prefix nullPrefix6;
extern DEPOTTRIE_API const Addrkit::Prefix prefix00;        // 0.0.0.0/0
extern DEPOTTRIE_API const Addrkit::Prefix prefix032;       // 0.0.0.0/32, where 0.0.0.0/0 is stored
extern DEPOTTRIE_API const Addrkit::Ip6Address zeroAddr;    // ::
extern DEPOTTRIE_API const Addrkit::Ip6Prefix prefix006;    // ::/0
extern DEPOTTRIE_API const Addrkit::Ip6Prefix prefix0128;   // ::/128, where ::/0 is stored

// What a walk callback answers for each delivered prefix; values above 2 act
// as continueWalk.
enum WalkAction : U8 { abortWalk = 0, skipSubtree = 1, continueWalk = 2 };
DEPOTTRIE_API WalkAction WalkActionInstance(U32 v);
DEPOTTRIE_API WalkAction WalkActionInstance(const Basis::String& name);  // RangeException for an unknown name
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const WalkAction& a);
DEPOTTRIE_API void sequenceToValue(Kiln::CharRange& text, WalkAction* out);
DEPOTTRIE_API Basis::String stringValue(WalkAction a);

// Receives the prefixes of a walk; subclass and override handleWalkCallback.
class DEPOTTRIE_API TrieWalkCallback : public Basis::Node {
 public:
  TrieWalkCallback() { memAllocationTracker_.fetch_add(1, std::memory_order_relaxed); }
  ~TrieWalkCallback() override { memAllocationTracker_.fetch_sub(1, std::memory_order_relaxed); }
  virtual const Kiln::TypeData* typeData() const;
  virtual WalkAction handleWalkCallback(const Addrkit::IpGenPrefix&) { return continueWalk; }
  // Live callback objects in the process.
  static std::atomic<U64> memAllocationTracker_;
};

class Trie;

// Told of the prefixes a longest-match descent may answer with, so that a record keyed by the answer (a value per prefix) can be
// fetched while the descent goes on. Each call only starts memory reads.
class DEPOTTRIE_API AnswerFetch {
 public:
  virtual ~AnswerFetch() = default;
  virtual void fetch(const Addrkit::Prefix& candidate) const = 0;
  virtual void fetch(const Addrkit::Ip6Prefix& candidate) const = 0;
};
DEPOTTRIE_API Basis::Ptr<Trie> trieFactory(const Basis::String& name);

// The route table entity: IPv4 and IPv6 prefixes in two node collections,
// "{full name}/trieNode" and "{full name}/trieNode6".
class DEPOTTRIE_API Trie : public Kiln::Entity {
 public:
  enum Field : Kiln::FieldId {
    afId = 258, trieNodeId, ipv4TrieMaxDepthId, trieNode6Id, ipv6TrieMaxDepthId, getRootPrefixId,
    trieNodeControlId, trieNode6ControlId, prefixIsId, prefixDelId, lpmId, getNextId, preOrderWalkId,
    nodesVisitedCountId, initializedId, handleInitializedId,
  };
  using TrieNodeMap = KilnDepot::KilnDepotMap<Addrkit::Prefix, TrieNode>;
  using TrieNode6Map = KilnDepot::KilnDepotMap<Addrkit::Ip6Prefix, TrieNode6>;

  explicit Trie(const Basis::String& name);
  ~Trie() override;

  // Attributes: setters publish (carrying the old value) only on change.
  Addrkit::AddressFamily af() const { return af_; }
  void afIs(Addrkit::AddressFamily af);
  bool initialized() const { return initialized_; }
  void initializedIs(bool v);
  U32 nodesVisitedCount() const { return nodesVisitedCount_; }
  void nodesVisitedCountIs(U32 n) const;
  U32 nodesVisitedCountInc(U32 n) const;  // wraps modulo 2^32
  static constexpr U32 ipv4TrieMaxDepth() { return 16; }
  static constexpr U32 ipv6TrieMaxDepth() { return 128; }
  const Basis::Ptr<KilnDepot::CollectionControl>& trieNodeControl() const { return trieNodeControl_; }
  const Basis::Ptr<KilnDepot::CollectionControl>& trieNode6Control() const { return trieNode6Control_; }
  void trieNodeControlIs(const Basis::Ptr<KilnDepot::CollectionControl>& c);
  void trieNode6ControlIs(const Basis::Ptr<KilnDepot::CollectionControl>& c);

  // rootPrefix when af is IPv4, else rootPrefix6.
  Addrkit::IpGenPrefix getRootPrefix() const;
  // Writes both root records.
  void handleInitialized();

  // Public operations, dispatched on the argument's family.
  void prefixIs(const Addrkit::IpGenPrefix& prefix);
  bool prefixDel(const Addrkit::IpGenPrefix& prefix);
  Addrkit::IpGenPrefix lpm(const Addrkit::IpGenPrefix& prefix) const;
  Addrkit::IpGenPrefix getNext(const Addrkit::IpGenPrefix& prefix) const;
  void preOrderWalk(const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::IpGenPrefix& subtreeRoot) const;
  // The longest stored prefix covering the argument, read from the same
  // records as lpm; unlike lpm it also finds an odd-length IPv4 prefix whose
  // node hangs in the neighbouring slot, and covering prefixes on ancestors'
  // edges. The empty IpGenPrefix when nothing covers it. A descent deeper than
  // a consistent trie can be raises Basis::Exception. Queries of at least 16
  // (IPv4) or 32 (IPv6) bits start below the top of the trie, from where the
  // last descent with the same leading bits went on while the table has not
  // changed since (kept in the process, about 2 MB for IPv4 and 3.5 MB for
  // IPv6 once used). Like every read of a trie, it serves one thread at a time.
  // fetch: told of the prefixes the descent is most likely to answer with:
  // the keys of the two deepest nodes on its path (IPv4), or each better
  // match as it finds it (IPv6).
  Addrkit::IpGenPrefix longestMatch(const Addrkit::IpGenPrefix& prefix, const AnswerFetch* fetch = nullptr) const;
  // longestMatch of each query into the answer at the same index (answers
  // must be at least as long), with the descents of several queries
  // interleaved so that their memory reads overlap. The answers are those of
  // longestMatch one at a time.
  void longestMatch(std::span<const Addrkit::IpGenPrefix> queries, std::span<Addrkit::IpGenPrefix> answers) const;

  // Node storage: reads return the default record for absent keys.
  TrieNode trieNode(const Addrkit::Prefix& key) const { return trieNode_.get(key); }
  void trieNodeIs(const TrieNode& node);
  TrieNode trieNodeDel(const Addrkit::Prefix& key);
  void trieNodeDelAll();
  void trieNodeCommit(TrieNode* node);
  TrieNode6 trieNode6(const Addrkit::Ip6Prefix& key) const { return trieNode6_.get(key); }
  void trieNode6Is(const TrieNode6& node);
  TrieNode6 trieNode6Del(const Addrkit::Ip6Prefix& key);
  void trieNode6DelAll();
  void trieNode6Commit(TrieNode6* node);

  // The bindings, for iteration, in-place access and mounting.
  TrieNodeMap& trieNodeMap() { return trieNode_; }
  const TrieNodeMap& trieNodeMap() const { return trieNode_; }
  TrieNode6Map& trieNode6Map() { return trieNode6_; }
  const TrieNode6Map& trieNode6Map() const { return trieNode6_; }
  const Beat::CounterSet& counters() const { return *counters_; }

 protected:
  void handleParent(Kiln::Entity* parent) override;

 private:
  class DEPOTTRIE_LOCAL TrieZeroReferencesNotifiee;
  DEPOTTRIE_LOCAL void trieNodeNotify(const Addrkit::Prefix& key);
  DEPOTTRIE_LOCAL void trieNode6Notify(const Addrkit::Ip6Prefix& key);
  DEPOTTRIE_LOCAL void trieNodeNotifyQuiesced(bool q);
  DEPOTTRIE_LOCAL void trieNode6NotifyQuiesced(bool q);
  DEPOTTRIE_LOCAL void trieNodeNotifyMountStatus();
  DEPOTTRIE_LOCAL void trieNode6NotifyMountStatus();
  DEPOTTRIE_LOCAL void publishChange(Kiln::FieldId field, std::any value) const;
  // The top of the trie as longest-match descents last found it (TopOfTrie.h).
  struct DEPOTTRIE_LOCAL TopOfTrie;
  DEPOTTRIE_LOCAL TopOfTrie& topOfTrie() const;

  Addrkit::AddressFamily af_ = Addrkit::AddressFamily::none;
  TrieNodeMap trieNode_;
  TrieNode6Map trieNode6_;
  mutable U32 nodesVisitedCount_ = 0;
  bool initialized_ = false;
  Basis::Ptr<KilnDepot::CollectionControl> trieNodeControl_;
  Basis::Ptr<KilnDepot::CollectionControl> trieNode6Control_;
  std::unique_ptr<Beat::CounterSet> counters_;
  Beat::Counter* trieNode6IsCount_ = nullptr;
  Beat::Counter* trieNode6DelCount_ = nullptr;
  Beat::Counter* trieNode6NotifyCount_ = nullptr;
  Beat::Counter* trieNodeIsCount_ = nullptr;
  Beat::Counter* trieNodeDelCount_ = nullptr;
  Beat::Counter* trieNodeNotifyCount_ = nullptr;
  std::unique_ptr<TrieZeroReferencesNotifiee> zeroReferencesNotifiee_;
  mutable std::unique_ptr<TopOfTrie> topOfTrie_;
};

// Whether each family's default route is stored: prefix00 / prefix006 as an
// IpGenPrefix, or the empty IpGenPrefix.
DEPOTTRIE_API Addrkit::IpGenPrefix checkForPrefix00(const Trie* trie);
DEPOTTRIE_API Addrkit::IpGenPrefix checkForPrefix006(const Trie* trie);

}  // namespace Routing::Lattice
