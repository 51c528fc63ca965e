// True longest-prefix match over the node records, one query at a time or
// many interleaved.
//
// A descent reads one node record per level, from the top node down along
// the query's bits, and keeps the longest stored length met on the way:
// every black length on a node's edge up to where the query leaves it covers
// the query. IPv4 nodes branch two bits at a time, and a prefix of odd length
// len + 1 below a node of length len lives on the node in the x0 slot; a
// query that goes on into the x1 slot reads that neighbour too, after the
// descent and only when nothing longer was found. The descent ends where
// the query leaves a node's key, at the query's own length, at an empty
// slot, or at an absent record (read across a writer's change); more than
// 17 (IPv4) or 129 (IPv6) nodes is more than a sound trie holds, and is
// damage. With nothing found, the default route answers when stored.
//
// A query of at least 16 (IPv4) or 32 (IPv6) bits starts where the last
// descent with the same leading bits went on, when the table has not
// changed since (TopOfTrie.h); the depth still counts from the top node,
// and the answer is the one the whole descent gives.
//
// A descent is a small state machine advanced one level at a time, so that
// a batch keeps several in flight: for each it first asks the table to fetch
// the index entries of the records it reads next, then the records, and
// reads them only when it comes round again, by which time the other
// descents' reads have overlapped its own.
#include <fmt/format.h>

#include <array>
#include <optional>

#include "TrieLib/TopOfTrie.h"
#include "TrieLib/TrieFamily.h"

namespace Routing::Lattice {
namespace {

[[noreturn]] void tooDeep(const Trie* trie, const char* family, U32 limit) {
  throw Basis::Exception(fmt::format("trie {}: {} descent deeper than {} levels; the trie is damaged",
                                     trie->name(), family, limit));
}

// Starts fetching the index entries of key's record, or (records) the
// record they name, returning where it is (for findAt).
template <class Map, class Key>
U64 fetch(const Map* map, const Key& key, bool records) {
  const U8* bytes = reinterpret_cast<const U8*>(&key);
  if (records) return map->table().prefetchRecord(bytes);
  map->table().prefetch(bytes);
  return 0;
}

// Where a descent stands: the longest match so far and the nodes read.
template <class Key>
struct Progress {
  bool found = false;
  Key best;
  U32 depth = 0;
  // Whoever reads a record keyed by the answer next (a value per prefix),
  // when the descent tells it of each new best match (IPv6; IPv4 tells it
  // of the likely answers once, with the records it fetches ahead): that
  // record then arrives while the descent goes on.
  const AnswerFetch* answers = nullptr;
  void consider(const Key& match) {
    if (found && match.len() <= best.len()) return;
    best = match, found = true;
    if (answers) answers->fetch(best);
  }
  void answersTo(const AnswerFetch* f) {
    answers = f;
    if (f && found) f->fetch(best);
  }
};

// The top-of-trie entry of a descent's query (TopOfTrie.h): the state to
// start from when it holds for the table as it is, else the entry the
// descent fills on its way down.
template <class Key>
class TopStart {
 public:
  // The node to read next (the null key when the descent ended above),
  // with progress set as it was there; nothing when the entry does not hold.
  std::optional<Key> restore(U64 counter, TopEntry<Key>& e, U32 lead, Progress<Key>& progress) {
    entry_ = nullptr;
    if (counter & 1) return std::nullopt;
    if (e.stamp != counter + 1 || e.lead != lead) {
      entry_ = &e;
      counter_ = counter;
      lead_ = lead;
      return std::nullopt;
    }
    progress = {e.found, e.best, e.depth};
    return e.start;
  }
  bool filling() const { return entry_ != nullptr; }
  // The state before the node `start` (the null key: the descent ended
  // above), kept when the table still reads the counter the descent began
  // under; progress.depth counts `start` already.
  void fill(const Key& start, bool ended, const Progress<Key>& progress, U64 counterNow) {
    TopEntry<Key>& e = *entry_;
    entry_ = nullptr;
    if (counterNow != counter_) return;
    e.lead = lead_;
    e.start = start;
    e.ended = ended;
    e.found = progress.found;
    e.best = progress.best;
    e.depth = U8(ended ? progress.depth : progress.depth - 1);
    e.stamp = counter_ + 1;
  }

 private:
  TopEntry<Key>* entry_ = nullptr;
  U64 counter_ = 0;
  U32 lead_ = 0;
};

class Descent4 {
 public:
  using Key = Addrkit::Prefix;
  static constexpr Addrkit::AddressFamily af = Addrkit::AddressFamily::ipv4;
  static Key keyOf(const Addrkit::IpGenPrefix& p) { return p.v4(); }
  // Nodes of length 14 or less decide by the first 16 bits.
  static constexpr U32 topBits = 16;

  static TopEntry<Key>& topEntry(std::vector<TopEntry<Key>>& top, const Key& query) {
    return top[query.addrHost() >> (32 - topBits)];
  }
  void start(const Trie* trie, const Key& query, std::vector<TopEntry<Key>>* top) {
    trie_ = trie;
    map_ = &trie->trieNodeMap();
    query_ = query;
    progress_ = {};
    down_ = true;
    neighbours_ = 0;
    top_ = {};
    if (top && query.len() >= topBits) {
      const U32 lead = query.addrHost() >> (32 - topBits);
      if (const std::optional<Key> from = top_.restore(map_->updateCounter(), topEntry(*top, query), lead, progress_)) {
        next_ = *from;
        if (next_ == nullPrefix) finishDown();
        return;
      }
    }
    next_ = trie->trieNode(rootPrefix).root();
    if (next_ == nullPrefix) finishDown();
  }
  bool done() const { return next_ == nullPrefix; }
  U64 fetchNext(bool records) const { return fetch(map_, next_, records); }
  void fetchAnswersTo(const AnswerFetch* f) { answers_ = f; }
  // Every node the descent can still read is keyed by the query cut to an
  // even length between the next node's and the query's own (rounded up,
  // for an odd length's node): at most nine below the top-of-trie start.
  // Fetching all their index entries at once, and once those are in, the
  // records of the keys found, turns the two dependent misses per node
  // below the cached levels into two rounds of misses in flight; the keys
  // that are no node cost one index line each. Upper levels stay in cache,
  // so the fetch starts at /16 for a descent from the top. All the index
  // entries, the next node's included, then all the records are fetched
  // before the next node is read: the first read waits for the two rounds
  // rather than for its own two misses and then a round for the rest.
  // Returns where the next node's record is (for advance), when fetched.
  //
  // The answer is the key of the deepest node found there, or of the one
  // above it, or a length one more than either (81 % and 17 % of the
  // lookups on the sample table): whoever fetches answers is told of those
  // two keys beside the records, so that the answer's value arrives with
  // the nodes (the route table keeps a key's and the next length's values
  // in one bucket). That is all it is told: a fetch for each better match
  // met on the way down, or for every node's key, costs more than the
  // remaining 2 % of misses.
  U64 fetchAhead(bool records) {
    if (done()) return 0;
    const U32 last = std::min(query_.len() + 1, 32u);
    const Depot::Table& nodes = map_->table();
    U64 nextAt = 0;
    Key deepest = nullPrefix, second = nullPrefix;
    for (U32 len = std::max(next_.len(), topBits); len <= last; len += 2) {
      const Key key = Key::masked(query_.addrHost(), len);
      const U8* bytes = reinterpret_cast<const U8*>(&key);
      if (!records) {
        nodes.prefetch(bytes);
        continue;
      }
      const U64 at = nodes.prefetchRecord(bytes);
      if (key == next_) nextAt = at;
      if (at && len <= query_.len()) second = deepest, deepest = key;
    }
    if (answers_ && deepest != nullPrefix) answers_->fetch(deepest);
    if (answers_ && second != nullPrefix) answers_->fetch(second);
    return nextAt;
  }
  // Reads the next record (where a fetch found it, `at`): a node on the way
  // down, then neighbours.
  void advance(U64 at = 0) {
    if (down_) {
      if (progress_.depth++ > Trie::ipv4TrieMaxDepth()) tooDeep(trie_, "IPv4", Trie::ipv4TrieMaxDepth());
      if (const std::optional<TrieNode> n = map_->findAt(next_, at)) visit(*n);
      else finishDown();
      return;
    }
    const Neighbour& last = neighbour_[--neighbours_];
    if (const std::optional<TrieNode> n = map_->findAt(next_, at); n && hasBlack(*n, last.len))
      progress_.consider(Key::masked(next_.addrHost(), last.len));
    nextNeighbour();
  }
  Addrkit::IpGenPrefix answer() const {
    if (progress_.found) return progress_.best;
    if (trie_->trieNode(prefix032).black() & 1u) return prefix00;
    return {};
  }

 private:
  // A node whose x0 child carries a length-len prefix that covers the query.
  struct Neighbour {
    Key key;
    U32 len;
  };

  void visit(const TrieNode& n) {
    const U32 len = n.key().len();
    if (top_.filling() && len + 2 > topBits) fillTop(n.key());
    const U32 c = commonPrefixLen(n.key(), query_, std::min(len, query_.len()));
    U32 bits = blackUpTo(n.black(), c);
    // 0.0.0.0/32 cannot be stored as a route: its bit on that key is the default route.
    if (n.key() == prefix032) bits &= ~1u;
    if (bits) progress_.consider(Key::masked(n.key().addrHost(), longestBlack(bits)));
    if (c < len || c == query_.len()) return finishDown();
    const U32 slot = childSlot(query_, len);
    if (slot & 1u) {
      if (const Key& x0 = n.child(slot & 2u); x0 != nullPrefix) neighbour_[neighbours_++] = {x0, len + 1};
    }
    next_ = n.child(slot);
    if (next_ == nullPrefix) finishDown();
  }
  // A neighbour's length lies between its node's and the next node's, so
  // only neighbours below the longest match found on the way down can
  // improve it, the deepest first; they are read once the descent is over,
  // and most lookups read none.
  void finishDown() {
    if (top_.filling()) fillTop(nullPrefix);
    down_ = false;
    nextNeighbour();
  }
  void nextNeighbour() {
    const bool longer = neighbours_ > 0 && (!progress_.found || neighbour_[neighbours_ - 1].len > progress_.best.len());
    next_ = longer ? neighbour_[neighbours_ - 1].key : nullPrefix;
  }
  // The neighbours met above the top's entry are read now: they are
  // shorter than anything below it.
  void fillTop(const Key& start) {
    for (; neighbours_ > 0; --neighbours_) {
      const Neighbour& nb = neighbour_[neighbours_ - 1];
      if (progress_.found && nb.len <= progress_.best.len()) break;
      if (const std::optional<TrieNode> n = map_->find(nb.key); n && hasBlack(*n, nb.len)) {
        progress_.consider(Key::masked(nb.key.addrHost(), nb.len));
        break;
      }
    }
    neighbours_ = 0;
    top_.fill(start, start == nullPrefix, progress_, map_->updateCounter());
  }

  const Trie* trie_ = nullptr;
  const Trie::TrieNodeMap* map_ = nullptr;
  const AnswerFetch* answers_ = nullptr;
  TopStart<Key> top_;
  Progress<Key> progress_;
  Key query_;
  Key next_;
  bool down_ = true;
  std::array<Neighbour, Trie::ipv4TrieMaxDepth() + 2> neighbour_;
  U32 neighbours_ = 0;
};

class Descent6 {
 public:
  using Key = Addrkit::Ip6Prefix;
  static constexpr Addrkit::AddressFamily af = Addrkit::AddressFamily::ipv6;
  static Key keyOf(const Addrkit::IpGenPrefix& p) { return p.v6(); }
  // Nodes shorter than 32 decide by the first 32 bits; their entries are
  // shared by hash and tell by the bits which query they are for.
  static constexpr U32 topBits = 32;

  static TopEntry<Key>& topEntry(std::vector<TopEntry<Key>>& top, const Key& query) {
    return top[U32(query.word(0) * 0x9E3779B1u) >> 16];
  }
  void start(const Trie* trie, const Key& query, std::vector<TopEntry<Key>>* top) {
    trie_ = trie;
    map_ = &trie->trieNode6Map();
    query_ = query;
    progress_ = {};
    top_ = {};
    if (top && query.len() >= topBits) {
      const U32 lead = query.word(0);
      TopEntry<Key>& e = topEntry(*top, query);
      if (const std::optional<Key> from = top_.restore(map_->updateCounter(), e, lead, progress_)) {
        next_ = *from;
        return;
      }
    }
    next_ = trie->trieNode6(rootPrefix6).leftChild();
    if (next_ == nullPrefix6) end();
  }
  bool done() const { return next_ == nullPrefix6; }
  U64 fetchNext(bool records) const { return fetch(map_, next_, records); }
  void fetchAnswersTo(const AnswerFetch* f) { progress_.answersTo(f); }
  // Most stored IPv6 prefixes are /64 or /48 (and the lengths just below):
  // the descent likely ends on the node of one of those. (Fetching every
  // length ahead, as IPv4 does, costs more in hashing 17-byte keys than
  // the overlap saves on a binary trie.)
  U64 fetchAhead(bool records) const {
    for (U32 len : {64u, 48u})
      if (query_.len() >= len) fetch(map_, Key::masked(query_.address(), len), records);
    return 0;
  }
  void advance(U64 at = 0) {
    if (progress_.depth++ > Trie::ipv6TrieMaxDepth()) tooDeep(trie_, "IPv6", Trie::ipv6TrieMaxDepth());
    std::optional<TrieNode6> found = map_->findAt(next_, at);
    next_ = nullPrefix6;
    if (!found) return end();
    TrieNode6& n = *found;
    const U32 len = n.key().len();
    if (top_.filling() && len + 1 > topBits) top_.fill(n.key(), false, progress_, map_->updateCounter());
    const U32 c = commonPrefixLen6(n.key(), query_, std::min(len, query_.len()));
    if (U32 m = c ? prevBlack6(n, c) : 0) progress_.consider(Key::masked(n.key().address(), m));
    if (c < len || c == query_.len()) return end();
    next_ = query_.address().bit(len) ? n.rightChild() : n.leftChild();
    if (next_ == nullPrefix6) end();
  }
  Addrkit::IpGenPrefix answer() const {
    if (progress_.found) return progress_.best;
    if (hasBlack6(trie_->trieNode6(prefix0128), 128)) return prefix006;
    return {};
  }

 private:
  void end() {
    if (top_.filling()) top_.fill(nullPrefix6, true, progress_, map_->updateCounter());
  }

  const Trie* trie_ = nullptr;
  const Trie::TrieNode6Map* map_ = nullptr;
  TopStart<Key> top_;
  Progress<Key> progress_;
  Key query_;
  Key next_;
};

// One query: each read depends on the one before, but the records it will
// likely read can be fetched beside them.
template <class D>
Addrkit::IpGenPrefix matchOne(const Trie* trie, const typename D::Key& query,
                              std::vector<TopEntry<typename D::Key>>* top, const AnswerFetch* answers) {
  D d;
  d.start(trie, query, top);
  if (answers) d.fetchAnswersTo(answers);
  d.fetchAhead(false);
  const U64 at = d.fetchAhead(true);
  for (U32 step = 0; !d.done(); ++step) d.advance(step == 0 ? at : 0);
  return d.answer();
}


// The queries of one family, `lanes` descents at a time in round robin: each
// visit of a lane does one of its three stages (fetch the index, fetch the
// record, read it where the index said and move down), and a finished lane
// takes the next query.
template <class D>
void matchMany(const Trie* trie, std::span<const Addrkit::IpGenPrefix> queries,
               std::span<Addrkit::IpGenPrefix> answers, std::vector<TopEntry<typename D::Key>>* top) {
  constexpr size_t lanes = 16;
  std::array<D, lanes> lane;
  std::array<size_t, lanes> owner;
  std::array<U8, lanes> stage;
  std::array<U64, lanes> at;  // where the record a lane reads next was found
  size_t next = 0;
  size_t active = 0;
  // The top-of-trie entries (2 MB or more) of the queries a round of lanes
  // ahead are fetched before their lanes start on them.
  size_t fetched = 0;
  auto take = [&](size_t l) {
    while (next < queries.size() && queries[next].af() != D::af) ++next;
    if (next == queries.size()) return false;
    if (top) {
      for (fetched = std::max(fetched, next); fetched < std::min(queries.size(), next + lanes); ++fetched)
        if (queries[fetched].af() == D::af && queries[fetched].len() >= D::topBits)
          __builtin_prefetch(&D::topEntry(*top, D::keyOf(queries[fetched])));
    }
    owner[l] = next;
    lane[l].start(trie, D::keyOf(queries[next]), top);
    stage[l] = 0;
    ++next;
    return true;
  };
  while (active < lanes && take(active)) ++active;
  while (active > 0) {
    for (size_t l = 0; l < active;) {
      D& d = lane[l];
      if (!d.done()) {
        switch (stage[l]) {
          case 0: d.fetchNext(false); break;
          case 1: at[l] = d.fetchNext(true); break;
          default: d.advance(at[l]); break;
        }
        stage[l] = stage[l] == 2 ? 0 : stage[l] + 1;
      }
      if (d.done()) {
        answers[owner[l]] = d.answer();
        if (!take(l)) {
          // The last lane moves into this one's place.
          --active;
          if (l != active) {
            lane[l] = lane[active];
            owner[l] = owner[active];
            stage[l] = stage[active];
            at[l] = at[active];
          }
          continue;
        }
      }
      ++l;
    }
  }
}

}  // namespace

Trie::TopOfTrie& Trie::topOfTrie() const {
  if (!topOfTrie_) topOfTrie_ = std::make_unique<TopOfTrie>();
  return *topOfTrie_;
}

Addrkit::IpGenPrefix Trie::longestMatch(const Addrkit::IpGenPrefix& prefix, const AnswerFetch* answers) const {
  switch (prefix.af()) {
    case Addrkit::AddressFamily::ipv4:
      return matchOne<Descent4>(this, prefix.v4(), topOfTrie().v4.of(trieNode_), answers);
    case Addrkit::AddressFamily::ipv6:
      return matchOne<Descent6>(this, prefix.v6(), topOfTrie().v6.of(trieNode6_), answers);
    default: return {};
  }
}

void Trie::longestMatch(std::span<const Addrkit::IpGenPrefix> queries, std::span<Addrkit::IpGenPrefix> answers) const {
  if (answers.size() < queries.size())
    throw Basis::RangeException(fmt::format("longestMatch: {} answers for {} queries", answers.size(), queries.size()));
  bool v4 = false, v6 = false;
  for (size_t i = 0; i < queries.size(); ++i) {
    v4 |= queries[i].af() == Addrkit::AddressFamily::ipv4;
    v6 |= queries[i].af() == Addrkit::AddressFamily::ipv6;
    if (queries[i].af() == Addrkit::AddressFamily::none) answers[i] = {};
  }
  if (v4) matchMany<Descent4>(this, queries, answers, topOfTrie().v4.of(trieNode_));
  if (v6) matchMany<Descent6>(this, queries, answers, topOfTrie().v6.of(trieNode6_));
}

}  // namespace Routing::Lattice
