#pragma once
// Records and tables for Depot's tests: every byte of a record follows from a key number and a version, so that a
// record mixed from two writes shows; a fixture with a private root and the table file under it.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <map>
#include <vector>

#include "Depot/SharedTableFile.h"
#include "support/TempRoot.h"

// Trie node shapes: 29 bytes, 5-byte key at 4 (its last byte shares the slot's sequence word); 67 bytes, 17-byte key
// at 16. Every byte follows from a key number and a version, so that a record mixed from two writes shows.
inline const Depot::RecordLayout node4{"test::Node4", 29, 4, 5}, node6{"test::Node6", 67, 16, 17};
using Basis::U8, Basis::U32, Basis::U64;
using Rec = std::array<U8, 68>;  // the bytes past the record stay zero

inline Rec recordOf(const Depot::RecordLayout& l, U32 k, U32 version, bool keyFirst = false) {
  Rec r{};
  for (U32 i = 0; i < l.recordSize; ++i) r[i] = i < 4 ? U8(version >> 8 * i) : U8(k * 31 + version * 7 + i * 13);
  for (U32 i = 0; i < l.keySize; ++i) r[(keyFirst ? 0 : l.keyOffset) + i] = i < 4 ? U8(k >> (24 - 8 * i)) : U8(k * 7 + i);
  return r;
}
inline Rec keyOf(const Depot::RecordLayout& l, U32 k) { return recordOf(l, k, 0, true); }
inline U32 keyNumber(const Depot::RecordLayout& l, const Rec& r, U32 k = 0) { return std::memcpy(&k, &r[l.keyOffset], 4), __builtin_bswap32(k); }
inline U32 versionOf(const Rec& r) { return r[0] | U32(r[1]) << 8 | U32(r[2]) << 16 | U32(r[3]) << 24; }
inline bool whole(const Depot::RecordLayout& l, const Rec& r) { return r == recordOf(l, keyNumber(l, r), versionOf(r)); }

// The version stored under k: 0 when absent, `torn` when the record is not whole or not k's. Read where the index
// names the record when the table reads by position, else looked up.
constexpr U32 torn = ~0u;
inline U32 version(const Depot::Table& t, U32 k, Rec r = {}) {
  const Rec key = keyOf(t.layout(), k);
  const U64 at = t.prefetchRecord(key.data());
  if (!(at && t.readAt(at, key.data(), r.data())) && !t.find(key.data(), r.data())) return 0;
  return whole(t.layout(), r) && keyNumber(t.layout(), r) == k ? versionOf(r) : torn;
}
inline void put(Depot::Table& t, U32 k, U32 v) { t.write(recordOf(t.layout(), k, v).data()); }
inline bool drop(Depot::Table& t, U32 k) { return t.remove(keyOf(t.layout(), k).data(), Rec().data()); }

// key -> version of every record an iteration meets; one not whole shows under `torn`, a key met twice under torn - 1.
inline std::map<U32, U32> contents(const Depot::Table& t) {
  std::map<U32, U32> seen;
  Rec r{};
  U64 hint;
  for (bool ok = t.iterFirst(hint, r.data()); ok; ok = t.iterNext(hint, r.data())) if (!whole(t.layout(), r)) seen[torn] = U32(hint);
    else if (!seen.emplace(keyNumber(t.layout(), r), versionOf(r)).second) seen[torn - 1] = U32(hint);
  return seen;
}

// Keys whose hashes land in the last 1/32 of any index: their probe sequences pile up at its end and wrap.
inline std::vector<U32> crowdedKeys(const Depot::RecordLayout& l, size_t n, U32 from = 1) {
  std::vector<U32> keys;
  for (U32 k = from; keys.size() < n; ++k) if (Depot::keyHash(keyOf(l, k).data(), l.keySize) >> 59 == 31) keys.push_back(k);
  return keys;
}

class TableFixture : public testing::Test {
 protected:
  auto writer(U64 capacity = 1024, const Depot::RecordLayout& l = node4) {
    return Depot::SharedTable::writerNew(l, path, {.capacity = capacity});
  }
  auto reader(const Depot::RecordLayout& l = node4) { return Depot::SharedTable::readerNew(l, path); }
  testkit::TempRoot root;
  std::string path = root.file("T/trieNode");
};

auto damageable(const std::string& path, const Depot::RecordLayout& l = node4) {
  return Depot::sharedfile::Mapping::attach(open(path.c_str(), O_RDWR), path, l, true);
}

