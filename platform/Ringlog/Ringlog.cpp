#include "Ringlog/Ringlog.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "Basis/Exception.h"

namespace Ringlog {

namespace {

constexpr U64 ringMagic = 0x00474f4c474e4952ull;  // "RINGLOG\0" read as a little-endian U64
constexpr U32 ringVersion = 1;
constexpr U32 nameCapacity = 1u << 18;

struct Header {
  U64 magic;
  U32 version;
  U32 entries;
  U32 nameCapacity;
  U32 nameBytes;
  U64 next;
  U8 reserved[32];
};
static_assert(sizeof(Header) == 64);

struct NameRecord {
  U32 id;
  U32 pathLength;
  U32 signatureLength;
};

struct Entry {
  U32 messageId;
  U32 reserved;
  U64 durationNs;
};
static_assert(sizeof(Entry) == 16);

size_t ringFileSize(U32 entries, U32 nameBytes) {
  return sizeof(Header) + nameBytes + size_t(entries) * sizeof(Entry);
}

size_t nameRecordSize(size_t pathLength, size_t signatureLength) {
  return (sizeof(NameRecord) + pathLength + signatureLength + 3) & ~size_t(3);
}

[[noreturn]] void systemFailure(std::string_view what, const std::string& path, int error) {
  throw Basis::SystemException(fmt::format("cannot {} ring file '{}': {}", what, path, std::strerror(error)));
}

// One mapped ring file.
class Ring {
 public:
  Ring(const std::string& path, U32 entries) : path_(path), entries_(entries) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) systemFailure("open", path, errno);
    size_ = ringFileSize(entries, nameCapacity);
    if (::ftruncate(fd, off_t(size_)) != 0) {
      const int error = errno;
      ::close(fd);
      systemFailure("size", path, error);
    }
    void* p = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int error = errno;
    ::close(fd);
    if (p == MAP_FAILED) systemFailure("map", path, error);
    base_ = static_cast<U8*>(p);
    header()->magic = ringMagic;
    header()->version = ringVersion;
    header()->entries = entries;
    header()->nameCapacity = nameCapacity;
    ring_ = reinterpret_cast<Entry*>(base_ + sizeof(Header) + nameCapacity);
  }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring() { ::munmap(base_, size_); }

  const std::string& path() const { return path_; }

  bool nameFits(const Message& m) const {
    return header()->nameBytes + nameRecordSize(m.path.size(), m.signature.size()) <= nameCapacity;
  }
  // Callers hold the registration lock and have checked nameFits.
  void nameAppend(const Message& m) {
    U8* at = base_ + sizeof(Header) + header()->nameBytes;
    const NameRecord record{m.id, U32(m.path.size()), U32(m.signature.size())};
    std::memcpy(at, &record, sizeof(record));
    std::memcpy(at + sizeof(record), m.path.data(), m.path.size());
    std::memcpy(at + sizeof(record) + m.path.size(), m.signature.data(), m.signature.size());
    header()->nameBytes += U32(nameRecordSize(m.path.size(), m.signature.size()));
  }

  void entryAppend(U32 messageId, U64 durationNs) {
    const U64 index = std::atomic_ref<U64>(header()->next).fetch_add(1, std::memory_order_relaxed);
    Entry& e = ring_[index % entries_];
    e.durationNs = durationNs;
    std::atomic_ref<U32>(e.messageId).store(messageId, std::memory_order_release);
  }

 private:
  Header* header() const { return reinterpret_cast<Header*>(base_); }

  std::string path_;
  U32 entries_;
  size_t size_ = 0;
  U8* base_ = nullptr;
  Entry* ring_ = nullptr;
};

struct State {
  std::mutex mutex;  // registration and file switching
  std::map<std::pair<std::string, std::string>, std::unique_ptr<Message>> messages;
  std::vector<const Message*> byId;  // registration order
  std::atomic<Ring*> ring{nullptr};
  // Files switched away from stay mapped: a timer running on another thread
  // may still be about to write into one.
  std::vector<std::unique_ptr<Ring>> rings;

  State() {
    const char* path = std::getenv("RINGLOG_FILE");
    if (path && *path) open(path, 1u << 16);
  }

  // Callers hold the mutex (or are the constructor).
  void open(const std::string& path, U32 entries) {
    auto r = std::make_unique<Ring>(path, entries);
    for (const Message* m : byId) {
      if (!r->nameFits(*m)) {
        throw Basis::RangeException(fmt::format("ring file '{}' has no room for the message names", path));
      }
      r->nameAppend(*m);
    }
    ring.store(r.get(), std::memory_order_release);
    rings.push_back(std::move(r));
  }
};

// Read once, at first use: the environment names the initial file.
State& state() {
  static State* s = new State;
  return *s;
}

}  // namespace

Message& message(std::string_view path, std::string_view signature) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto key = std::make_pair(std::string(path), std::string(signature));
  if (auto it = s.messages.find(key); it != s.messages.end()) return *it->second;
  auto m = std::make_unique<Message>(Message{U32(s.byId.size() + 1), key.first, key.second});
  Ring* r = s.ring.load(std::memory_order_relaxed);
  if (r && !r->nameFits(*m)) {
    throw Basis::RangeException(
        fmt::format("ring file '{}' has no room for message '{}' '{}'", r->path(), path, signature));
  }
  if (r) r->nameAppend(*m);
  s.byId.push_back(m.get());
  return *s.messages.emplace(std::move(key), std::move(m)).first->second;
}

bool active() { return state().ring.load(std::memory_order_acquire) != nullptr; }

void ringFileIs(const std::string& path, U32 entries) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (path.empty()) {
    s.ring.store(nullptr, std::memory_order_release);
    return;
  }
  if (entries == 0) throw Basis::RangeException(fmt::format("ring file '{}' needs at least one entry", path));
  s.open(path, entries);
}

BlockTimer::BlockTimer(const Message& m) {
  if (!active() || !m.enabled) return;
  msg_ = &m;
  start_ = std::chrono::steady_clock::now();
}

BlockTimer::~BlockTimer() {
  if (!msg_) return;
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start_);
  if (Ring* r = state().ring.load(std::memory_order_acquire)) r->entryAppend(msg_->id, U64(ns.count()));
}

namespace {

std::vector<U8> fileRead(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) systemFailure("open", path, errno);
  std::vector<U8> bytes;
  U8 chunk[1 << 16];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
  const int error = std::ferror(f) ? errno : 0;
  std::fclose(f);
  if (error) systemFailure("read", path, error);
  return bytes;
}

template <class T>
T load(const std::vector<U8>& bytes, size_t offset) {
  T v;
  std::memcpy(&v, bytes.data() + offset, sizeof(T));
  return v;
}

}  // namespace

std::vector<Summary> summarize(const std::string& ringFile) {
  const std::vector<U8> bytes = fileRead(ringFile);
  auto bad = [&](const std::string& why) {
    return Basis::RangeException(fmt::format("bad ring file '{}': {}", ringFile, why));
  };
  if (bytes.size() < sizeof(Header)) throw bad(fmt::format("{} bytes is shorter than the header", bytes.size()));
  const auto header = load<Header>(bytes, 0);
  if (header.magic != ringMagic) throw bad("not a ring file (wrong magic)");
  if (header.version != ringVersion) throw bad(fmt::format("version {}, expected {}", header.version, ringVersion));
  if (header.entries == 0) throw bad("no entry slots");
  if (bytes.size() != ringFileSize(header.entries, header.nameCapacity)) {
    throw bad(fmt::format("size {} does not match {} slots and a name table of {} bytes", bytes.size(),
                          header.entries, header.nameCapacity));
  }
  if (header.nameBytes > header.nameCapacity) throw bad("name table overflows its capacity");

  std::vector<Summary> summaries;
  std::map<U32, size_t> index;  // message id -> summaries slot
  for (size_t at = sizeof(Header), end = at + header.nameBytes; at < end;) {
    if (end - at < sizeof(NameRecord)) throw bad(fmt::format("truncated name record at offset {}", at));
    const auto record = load<NameRecord>(bytes, at);
    const size_t size = nameRecordSize(record.pathLength, record.signatureLength);
    if (size > end - at) throw bad(fmt::format("name record at offset {} runs past the table", at));
    if (record.id == 0 || !index.emplace(record.id, summaries.size()).second) {
      throw bad(fmt::format("name record at offset {} repeats or lacks an id ({})", at, record.id));
    }
    const char* text = reinterpret_cast<const char*>(bytes.data() + at + sizeof(NameRecord));
    Summary& s = summaries.emplace_back();
    s.path.assign(text, record.pathLength);
    s.signature.assign(text + record.pathLength, record.signatureLength);
    at += size;
  }

  std::vector<std::vector<U64>> durations(summaries.size());
  const size_t ringStart = sizeof(Header) + header.nameCapacity;
  const U64 present = std::min<U64>(header.next, header.entries);
  for (U64 slot = 0; slot < present; ++slot) {
    const auto e = load<Entry>(bytes, ringStart + slot * sizeof(Entry));
    if (e.messageId == 0) continue;  // claimed but not yet written
    auto it = index.find(e.messageId);
    if (it == index.end()) throw bad(fmt::format("slot {} names unknown message {}", slot, e.messageId));
    durations[it->second].push_back(e.durationNs);
  }

  std::vector<Summary> result;
  for (size_t i = 0; i < summaries.size(); ++i) {
    std::vector<U64>& d = durations[i];
    if (d.empty()) continue;
    std::sort(d.begin(), d.end());
    Summary& s = summaries[i];
    s.count = d.size();
    s.minNs = d.front();
    s.medianNs = d[(d.size() - 1) / 2];
    s.maxNs = d.back();
    result.push_back(std::move(s));
  }
  return result;
}

}  // namespace Ringlog
