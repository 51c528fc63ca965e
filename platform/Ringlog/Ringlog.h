#pragma once
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "Basis/Types.h"

namespace Ringlog {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Ring file layout (native byte order; one process writes a file, and
// opening it starts it afresh):
//   header, 64 bytes: magic "RINGLOG" U64, version U32, entry slots U32,
//     name table capacity U32, name table bytes used U32, next U64 (entries
//     ever appended, advanced atomically; an entry goes to slot next % slots);
//   name table: per message its id U32, path length U32, signature length
//     U32, then path and signature, padded to 4 bytes; written when the file
//     is opened and when a message is registered, so the file names its ids;
//   ring, 16 bytes per slot: message id U32 (0 while unwritten), U32 zero,
//     duration in nanoseconds U64.

// A block-timer message, registered once per call site.
struct Message {
  U32 id;
  std::string path;
  std::string signature;
  bool enabled = true;
};

Message& message(std::string_view path, std::string_view signature);

// True while a ring file is configured (RINGLOG_FILE or ringFileIs).
bool active();
// Maps a ring file of `entries` slots; an empty path turns timing off.
// Raises Basis::SystemException naming the file when it cannot be mapped.
void ringFileIs(const std::string& path, U32 entries = 1u << 16);

// Records the duration of the enclosing block in the ring file, when one is
// configured and the message is on; otherwise costs one branch.
class BlockTimer {
 public:
  explicit BlockTimer(const Message& m);
  ~BlockTimer();
  BlockTimer(const BlockTimer&) = delete;
  BlockTimer& operator=(const BlockTimer&) = delete;

 private:
  const Message* msg_ = nullptr;
  std::chrono::steady_clock::time_point start_;
};

struct Summary {
  std::string path;
  std::string signature;
  U64 count = 0;
  U64 minNs = 0;
  U64 medianNs = 0;
  U64 maxNs = 0;
};

// Reads a ring file and summarizes each message; raises
// Basis::SystemException / Basis::RangeException for a missing or bad file.
std::vector<Summary> summarize(const std::string& ringFile);

}  // namespace Ringlog

#define RINGLOG_CAT2(a, b) a##b
#define RINGLOG_CAT(a, b) RINGLOG_CAT2(a, b)
// Times the rest of the enclosing block under (path, signature).
#define RINGLOG_BLOCK(path, signature)                                                    \
  static const ::Ringlog::Message& RINGLOG_CAT(ringlogMsg_, __LINE__) =                   \
      ::Ringlog::message((path), (signature));                                            \
  ::Ringlog::BlockTimer RINGLOG_CAT(ringlogTimer_, __LINE__)(RINGLOG_CAT(ringlogMsg_, __LINE__))
