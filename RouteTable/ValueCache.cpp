#include "RouteTable/ValueCache.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <vector>

namespace depottrie::detail {

using Addrkit::AddressFamily;

namespace {

// A bucket: its number, the count it was written for, a bit per entry in
// use, then the entries (a value-table record each: key, then value): 8
// IPv4 or 4 IPv6 ones. With the slot's sequence word it fills two adjacent
// cache lines, fetched together: the spread of prefixes over buckets is
// narrower at 8 to a bucket than at 4, so fewer find theirs full.
constexpr U32 bucketAt = 0, countAt = 4, usedAt = 8, entriesAt = 9, bucketSize = 125, valueSize = 8;
constexpr U32 minBuckets = 64;

const Depot::RecordLayout layout{"RouteValueBucket", bucketSize, bucketAt, 4};

template <class T>
T field(const U8* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

struct ValueCache::Bucket {
  std::array<U8, bucketSize> bytes{};
  Bucket() = default;
  Bucket(U32 bucket, U32 count) {
    std::memcpy(bytes.data() + bucketAt, &bucket, 4);
    std::memcpy(bytes.data() + countAt, &count, 4);
  }
  U32 count() const { return field<U32>(bytes.data() + countAt); }
  U8& used() { return bytes[usedAt]; }
  U8 used() const { return bytes[usedAt]; }
};

ValueCache::ValueCache(std::unique_ptr<Depot::Table> table, AddressFamily af)
    : table_(std::move(table)),
      keySize_(af == AddressFamily::ipv4 ? sizeof(Addrkit::Prefix) : sizeof(Addrkit::Ip6Prefix)),
      perBucket_((bucketSize - entriesAt) / (keySize_ + valueSize)) {}

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

bool ValueCache::readBucket(U32 number, Bucket& out) const {
  const U8* key = reinterpret_cast<const U8*>(&number);
  return table_->readAt(U64(number) + 1, key, out.bytes.data()) || table_->find(key, out.bytes.data());
}

int ValueCache::slotOf(const Bucket& bucket, const U8* key) const {
  const auto same = [&](const U8* entry) {
    return keySize_ == 5 ? std::memcmp(entry, key, 5) == 0 : std::memcmp(entry, key, 17) == 0;
  };
  for (U32 i = 0; i < perBucket_; ++i)
    if ((bucket.used() >> i & 1) && same(bucket.bytes.data() + entriesAt + i * (keySize_ + valueSize))) return int(i);
  return -1;
}

std::optional<U64> ValueCache::find(const U8* key) const {
  const U32 count = U32(table_->occupancy());
  if (count == 0) return std::nullopt;
  Bucket bucket;
  if (!readBucket(bucketOf(key, count), bucket) || bucket.count() != count) return std::nullopt;
  const int i = slotOf(bucket, key);
  if (i < 0) return std::nullopt;
  return field<U64>(bucket.bytes.data() + entriesAt + U32(i) * (keySize_ + valueSize) + keySize_);
}

void ValueCache::forget(const U8* key) {
  if (count_ == 0) return;
  Bucket bucket;
  if (!readBucket(bucketOf(key, count_), bucket) || bucket.count() != count_) return;
  const int i = slotOf(bucket, key);
  if (i < 0) return;
  bucket.used() &= U8(~(1u << i));
  table_->write(bucket.bytes.data());
}

// Leaving a prefix out is always correct, so a failure here is not the
// caller's: a rebuild that fails leaves the cache stale until the next
// writer, a bucket that cannot be written leaves the prefix out.
void ValueCache::remember(const U8* key, U64 value, const Depot::Table& values) {
  if (stale_) return;
  try {
    if (tooFew(values.occupancy())) return rebuild(bucketsFor(values.occupancy()), values);
    Bucket bucket;
    if (!readBucket(bucketOf(key, count_), bucket) || bucket.count() != count_) return;
    int i = slotOf(bucket, key);
    if (i < 0) {
      if (bucket.used() == (1u << perBucket_) - 1) return;
      i = std::countr_one(bucket.used());
      bucket.used() |= U8(1u << i);
    }
    U8* entry = bucket.bytes.data() + entriesAt + U32(i) * (keySize_ + valueSize);
    std::memcpy(entry, key, keySize_);
    std::memcpy(entry + keySize_, &value, valueSize);
    table_->write(bucket.bytes.data());
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
  for (bool ok = table_->iterFirst(hint, bucket.bytes.data()); ok; ok = table_->iterNext(hint, bucket.bytes.data())) {
    if (field<U32>(bucket.bytes.data() + bucketAt) >= count_ || bucket.count() != count_) return false;
    ++seen;
  }
  return seen == count_;
}

// New buckets are added empty and written for the new count, so that none
// is believed until every one is there; then each bucket is written, in
// order, with the values that belong to it.
void ValueCache::rebuild(U32 buckets, const Depot::Table& values) {
  stale_ = true;
  for (U32 b = U32(table_->occupancy()); b < buckets; ++b) table_->write(Bucket(b, buckets).bytes.data());
  count_ = buckets;

  const U32 entrySize = keySize_ + valueSize;
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
      if (i >= perBucket_) continue;
      std::memcpy(bucket.bytes.data() + entriesAt + i * entrySize, next->record.data(), entrySize);
      bucket.used() |= U8(1u << i);
    }
    table_->write(bucket.bytes.data());
  }
  stale_ = false;
}

}  // namespace depottrie::detail
