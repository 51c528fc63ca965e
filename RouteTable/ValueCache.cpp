#include "RouteTable/ValueCache.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <vector>

namespace depottrie::detail {

using Addrkit::AddressFamily;

namespace {

// A bucket is a record of 31 four-byte words: its number (the record's
// key), the count it was written for, a bit per entry in use, then its 8
// IPv4 or 4 IPv6 entries spread over three arrays: their addresses (1 or 4
// words each, the key's address bytes), their lengths (a byte each) and
// their values (two words each, low first). With the slot's sequence word
// it fills two adjacent cache lines, fetched together. A reader reads a
// bucket in place and compares whole words: the used bits, an address per
// entry in use until one matches, then that entry's length and value.
constexpr U32 bucketWords = 31, bucketSize = bucketWords * 4;
constexpr U32 numberAt = 0, countAt = 1, usedAt = 2, addressesAt = 3;
constexpr U32 valueSize = 8;
constexpr U32 minBuckets = 64;

const Depot::RecordLayout layout{"RouteValueBucket", bucketSize, numberAt, 4};

template <class T>
T field(const U8* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Where a family's entries lie, from the words of its addresses: 8 IPv4
// entries or 4 IPv6 ones.
template <U32 AddressWords>
struct Shape {
  static constexpr U32 addressWords = AddressWords;
  static constexpr U32 perBucket = AddressWords == 1 ? 8 : 4;
  static constexpr U32 lengthsAt = addressesAt + perBucket * addressWords;
  static constexpr U32 valuesAt = lengthsAt + (perBucket + 3) / 4;
  static_assert(valuesAt + 2 * perBucket <= bucketWords);
};
using Shape4 = Shape<1>;
using Shape6 = Shape<4>;

// The entry of a bucket (its words, a copy or in place) that holds key, or
// -1.
template <class S, class Words>
int entryOf(const Words& w, const U8* key) {
  std::array<U32, S::addressWords> address;
  std::memcpy(address.data(), key, S::addressWords * 4);
  const U32 length = key[S::addressWords * 4];
  // Every entry's first address word is compared, without a branch per
  // entry; most keys then leave one candidate.
  U32 candidates = 0;
  for (U32 i = 0; i < S::perBucket; ++i) candidates |= U32(w[addressesAt + i * S::addressWords] == address[0]) << i;
  for (candidates &= w[usedAt]; candidates; candidates &= candidates - 1) {
    const U32 i = U32(std::countr_zero(candidates));
    const U32 at = addressesAt + i * S::addressWords;
    bool same = true;
    for (U32 k = 1; same && k < S::addressWords; ++k) same = w[at + k] == address[k];
    if (same && (w[S::lengthsAt + i / 4] >> (i % 4 * 8) & 0xff) == length) return int(i);
  }
  return -1;
}

// key's value when the bucket's words are those of bucket `number` written
// for `count`; nullopt otherwise.
template <class S, class Words>
std::optional<U64> lookIn(const Words& w, const U8* key, U32 number, U32 count) {
  if (w[numberAt] != number || w[countAt] != count) return std::nullopt;
  const int i = entryOf<S>(w, key);
  if (i < 0) return std::nullopt;
  return U64(w[S::valuesAt + 2 * i]) | U64(w[S::valuesAt + 2 * i + 1]) << 32;
}

// Reads a bucket where it lies, for find.
template <class S>
struct Look final : Depot::InPlaceRead {
  Look(const U8* key, U32 number, U32 count) : key(key), number(number), count(count) {}
  bool operator()(const Depot::RecordWords& w) const override {
    value = lookIn<S>(w, key, number, count);
    return true;
  }
  const U8* key;
  U32 number, count;
  mutable std::optional<U64> value;
};

}  // namespace

struct ValueCache::Bucket {
  std::array<U32, bucketWords> words{};
  Bucket() = default;
  Bucket(U32 number, U32 count) {
    words[numberAt] = number;
    words[countAt] = count;
  }
  const U32& operator[](U32 i) const { return words[i]; }
  U8* bytes() { return reinterpret_cast<U8*>(words.data()); }
  const U8* bytes() const { return reinterpret_cast<const U8*>(words.data()); }
  U32 count() const { return words[countAt]; }
  U32& used() { return words[usedAt]; }
  template <class S>
  void put(U32 i, const U8* key, U64 value) {
    std::memcpy(&words[addressesAt + i * S::addressWords], key, S::addressWords * 4);
    U32& lengths = words[S::lengthsAt + i / 4];
    lengths = (lengths & ~(0xffu << (i % 4 * 8))) | U32(key[S::addressWords * 4]) << (i % 4 * 8);
    words[S::valuesAt + 2 * i] = U32(value);
    words[S::valuesAt + 2 * i + 1] = U32(value >> 32);
    used() |= 1u << i;
  }
};

ValueCache::ValueCache(std::unique_ptr<Depot::SharedTable> table, AddressFamily af)
    : table_(std::move(table)),
      keySize_(af == AddressFamily::ipv4 ? sizeof(Addrkit::Prefix) : sizeof(Addrkit::Ip6Prefix)),
      perBucket_(af == AddressFamily::ipv4 ? Shape4::perBucket : Shape6::perBucket) {}

ValueCache::~ValueCache() = default;

std::unique_ptr<ValueCache> ValueCache::writer(const Depot::TablePath& path, AddressFamily af, unsigned mode,
                                               const Depot::Table& values, U64 expected) {
  std::unique_ptr<ValueCache> c(new ValueCache(nullptr, af));
  const U32 wanted = c->bucketsFor(std::max(expected, values.occupancy()));
  const Depot::SharedTableOptions options{.capacity = std::max<U64>(minBuckets, wanted), .mode = mode};
  try {
    c->table_ = Depot::SharedTable::writerNew(layout, path, options);
  } catch (const Depot::WriterBusyException&) {
    throw;
  } catch (const Depot::SharedFileException&) {
    // A cache of another layout (an older release's) or a damaged one holds
    // nothing the value table lacks: it is made again. A name that is no
    // regular file is still refused, by the drop.
    Depot::sharedTableDrop(path);
    c->table_ = Depot::SharedTable::writerNew(layout, path, options);
  }
  c->count_ = U32(c->table_->occupancy());
  if (c->tooFew(std::max(expected, values.occupancy())) || !c->consistent()) {
    try {
      c->rebuild(std::max(wanted, c->count_), values);
    } catch (const std::exception&) {  // as in remember: the cache stays out of use
      c->count_ = U32(c->table_->occupancy());
    }
  }
  return c;
}

std::unique_ptr<ValueCache> ValueCache::reader(const Depot::TablePath& path, AddressFamily af) {
  if (!Depot::sharedTableExists(path)) return nullptr;
  try {
    return std::unique_ptr<ValueCache>(new ValueCache(Depot::SharedTable::readerNew(layout, path), af));
  } catch (const Depot::SharedFileException&) {
    return nullptr;  // another layout, or damaged: the value table answers alone until the next writer
  }
}

// A hash of the key's words (two multiplications for IPv4), its high bits
// scaled to the count so that any count will do. An odd IPv4 length hashes
// as the even prefix one bit shorter: a lookup fetches the bucket of the
// deepest node key it meets, and the answers one bit longer than that key
// (a sixth of them on the sample tables) then share it.
U32 ValueCache::bucketOf(const U8* key, U32 count) const {
  U64 h;
  if (keySize_ == 5) {
    std::array<U8, 5> k;
    std::memcpy(k.data(), key, 5);
    if (k[4] & 1) {
      --k[4];
      k[k[4] / 8] &= U8(~(0x80u >> k[4] % 8));
    }
    h = (U64(field<U32>(k.data())) | U64(k[4]) << 32) * 0x9E3779B97F4A7C15ull;
  } else {
    h = (field<U64>(key) * 0x9E3779B97F4A7C15ull) ^ (field<U64>(key + 8) * 0xC2B2AE3D27D4EB4Full) ^
        (U64(key[16]) << 32);
    h *= 0x9E3779B97F4A7C15ull;
  }
  h ^= h >> 29;
  h *= 0xbf58476d1ce4e5b9ull;
  return U32((unsigned __int128)(h ^ (h >> 32)) * count >> 64);
}

// Buckets are made for the prefixes to fill half their entries, and added
// once they fill three quarters: a bucket of 128 bytes per 4 to 6 IPv4
// prefixes or per 2 to 3 IPv6 ones.
U32 ValueCache::bucketsFor(U64 prefixes) const {
  const U64 n = (prefixes * 2 + perBucket_ - 1) / perBucket_;
  return U32(std::clamp<U64>(n, minBuckets, (U64(1) << 31) - 1));
}

bool ValueCache::tooFew(U64 prefixes) const { return prefixes * 4 > U64(count_) * perBucket_ * 3; }

void ValueCache::prefetch(const U8* key) const {
  if (const U32 count = U32(table_->occupancy())) table_->prefetchSlot(U64(bucketOf(key, count)) + 1);
}

void ValueCache::put(Bucket& bucket, U32 i, const U8* key, U64 value) const {
  if (keySize_ == 5) bucket.put<Shape4>(i, key, value);
  else bucket.put<Shape6>(i, key, value);
}

bool ValueCache::readBucket(U32 number, Bucket& out) const {
  const U8* key = reinterpret_cast<const U8*>(&number);
  return table_->readAt(U64(number) + 1, key, out.bytes()) || table_->find(key, out.bytes());
}

std::optional<U64> ValueCache::find(const U8* key) const {
  return keySize_ == 5 ? find<Shape4>(key) : find<Shape6>(key);
}

// In place when the slot reads so; else (a bucket being written, or a
// table that moved on) from a copy, which waits for the writer.
template <class S>
std::optional<U64> ValueCache::find(const U8* key) const {
  const U32 count = U32(table_->occupancy());
  if (count == 0) return std::nullopt;
  const U32 number = bucketOf(key, count);
  const Look<S> look(key, number, count);
  if (table_->readInPlace(U64(number) + 1, look)) return look.value;
  Bucket bucket;
  if (!readBucket(number, bucket)) return std::nullopt;
  return lookIn<S>(bucket, key, number, count);
}

// The entry of key in its bucket (copied into `bucket`), or -1; -2 when
// the bucket cannot be used (not written for the writer's count).
int ValueCache::entryIn(Bucket& bucket, const U8* key) const {
  if (!readBucket(bucketOf(key, count_), bucket) || bucket.count() != count_) return -2;
  return keySize_ == 5 ? entryOf<Shape4>(bucket, key) : entryOf<Shape6>(bucket, key);
}

void ValueCache::forget(const U8* key) {
  if (count_ == 0) return;
  Bucket bucket;
  const int i = entryIn(bucket, key);
  if (i < 0) return;
  bucket.used() &= ~(1u << i);
  table_->write(bucket.bytes());
}

// Leaving a prefix out is always correct, so a failure here is not the
// caller's: a rebuild that fails leaves the cache stale until the next
// writer, a bucket that cannot be written leaves the prefix out.
void ValueCache::remember(const U8* key, U64 value, const Depot::Table& values) {
  if (stale_) return;
  try {
    if (tooFew(values.occupancy())) return rebuild(bucketsFor(values.occupancy()), values);
    Bucket bucket;
    int i = entryIn(bucket, key);
    if (i == -2) return;
    if (i < 0) {
      if (bucket.used() == (1u << perBucket_) - 1) return;
      i = std::countr_one(bucket.used());
    }
    put(bucket, U32(i), key, value);
    table_->write(bucket.bytes());
  } catch (const std::exception&) {
    if (stale_) count_ = U32(table_->occupancy());
  }
}

void ValueCache::reserve(U64 prefixes, const Depot::Table& values) {
  if (tooFew(prefixes) && !stale_) rebuild(bucketsFor(prefixes), values);
}

// Every bucket is there and was written for the count.
bool ValueCache::consistent() const {
  Bucket bucket;
  U64 hint, seen = 0;
  for (bool ok = table_->iterFirst(hint, bucket.bytes()); ok; ok = table_->iterNext(hint, bucket.bytes())) {
    if (bucket[numberAt] >= count_ || bucket.count() != count_) return false;
    ++seen;
  }
  return seen == count_;
}

// New buckets are added empty and written for the new count, so that none
// is believed until every one is there; then each bucket is written, in
// order, with the values that belong to it.
void ValueCache::rebuild(U32 buckets, const Depot::Table& values) {
  stale_ = true;
  for (U32 b = U32(table_->occupancy()); b < buckets; ++b) table_->write(Bucket(b, buckets).bytes());
  count_ = buckets;

  struct Entry {
    U32 bucket;
    std::array<U8, sizeof(Addrkit::Ip6Prefix) + valueSize> record;
  };
  std::vector<Entry> all;
  all.reserve(values.occupancy());
  Entry e{};
  U64 hint;
  for (bool ok = values.iterFirst(hint, e.record.data()); ok; ok = values.iterNext(hint, e.record.data())) {
    e.bucket = bucketOf(e.record.data(), buckets);
    all.push_back(e);
  }
  std::sort(all.begin(), all.end(), [](const Entry& a, const Entry& b) { return a.bucket < b.bucket; });

  auto next = all.begin();
  for (U32 b = 0; b < buckets; ++b) {
    Bucket bucket(b, buckets);
    for (U32 i = 0; next != all.end() && next->bucket == b; ++next, ++i) {
      U64 value;
      std::memcpy(&value, next->record.data() + keySize_, valueSize);
      if (i < perBucket_) put(bucket, i, next->record.data(), value);
    }
    table_->write(bucket.bytes());
  }
  stale_ = false;
}

}  // namespace depottrie::detail
