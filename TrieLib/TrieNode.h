#pragma once
#include <any>
#include <cstddef>
#include <iosfwd>
#include <string>

#include "Addrkit/Prefix.h"
#include "Basis/Buffer.h"
#include "Basis/Types.h"
#include "Kiln/Text.h"
#include "Kiln/Type.h"
#include "TrieLib/Export.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

#pragma pack(push, 1)

// IPv4 trie node, stored byte for byte: black at 0, key at 4, children at
// 9, 14, 19 and 24 (29 bytes). Declaration order (key first) governs the
// text and wire forms; stored order governs the collection.
class DEPOTTRIE_API TrieNode {
 public:
  TrieNode() : TrieNode(Addrkit::Prefix()) {}
  explicit TrieNode(const Addrkit::Prefix& key);
  explicit TrieNode(Kiln::CharRange& text);  // consumes the text form

  static Addrkit::Prefix nullChild();

  const Addrkit::Prefix& key() const { return key_; }
  U32 black() const { return black_; }
  void blackIs(U32 b) { black_ = b; }
  const Addrkit::Prefix& child00() const { return child00_; }
  const Addrkit::Prefix& child01() const { return child01_; }
  const Addrkit::Prefix& child10() const { return child10_; }
  const Addrkit::Prefix& child11() const { return child11_; }
  void child00Is(const Addrkit::Prefix& p) { child00_ = p; }
  void child01Is(const Addrkit::Prefix& p) { child01_ = p; }
  void child10Is(const Addrkit::Prefix& p) { child10_ = p; }
  void child11Is(const Addrkit::Prefix& p) { child11_ = p; }
  // `root` has no storage of its own: it is child00 (the top node on the root record).
  const Addrkit::Prefix& root() const { return child00_; }
  void rootIs(const Addrkit::Prefix& p) { child00_ = p; }
  // Child by slot 0..3 (00, 01, 10, 11); any other slot is child11.
  const Addrkit::Prefix& child(U32 slot) const {
    switch (slot) {
      case 0: return child00_;
      case 1: return child01_;
      case 2: return child10_;
      default: return child11_;
    }
  }
  void childIs(U32 slot, const Addrkit::Prefix& p);

  // Equal at once when a and b are the same record; else compared field by
  // field in stored order.
  static bool isEq(const TrieNode* a, const TrieNode* b);
  friend bool operator==(const TrieNode& a, const TrieNode& b) { return isEq(&a, &b); }

  static constexpr U32 keyOffset = 4;

 private:
  U32 black_;
  Addrkit::Prefix key_;
  Addrkit::Prefix child00_;
  Addrkit::Prefix child01_;
  Addrkit::Prefix child10_;
  Addrkit::Prefix child11_;
};

// IPv6 trie node: black0..black3 at 0..12, key at 16, leftChild at 33,
// rightChild at 50 (67 bytes).
class DEPOTTRIE_API TrieNode6 {
 public:
  TrieNode6() : TrieNode6(Addrkit::Ip6Prefix()) {}
  explicit TrieNode6(const Addrkit::Ip6Prefix& key);
  explicit TrieNode6(Kiln::CharRange& text);

  static Addrkit::Ip6Prefix nullChild();

  const Addrkit::Ip6Prefix& key() const { return key_; }
  U32 black0() const { return black_[0]; }
  U32 black1() const { return black_[1]; }
  U32 black2() const { return black_[2]; }
  U32 black3() const { return black_[3]; }
  void black0Is(U32 b) { black_[0] = b; }
  void black1Is(U32 b) { black_[1] = b; }
  void black2Is(U32 b) { black_[2] = b; }
  void black3Is(U32 b) { black_[3] = b; }
  // Word w (0..3) of the black set.
  U32 black(U32 w) const { return black_[w]; }
  void blackIs(U32 w, U32 b) { black_[w] = b; }
  const Addrkit::Ip6Prefix& leftChild() const { return leftChild_; }
  const Addrkit::Ip6Prefix& rightChild() const { return rightChild_; }
  void leftChildIs(const Addrkit::Ip6Prefix& p) { leftChild_ = p; }
  void rightChildIs(const Addrkit::Ip6Prefix& p) { rightChild_ = p; }

  static bool isEq(const TrieNode6* a, const TrieNode6* b);
  friend bool operator==(const TrieNode6& a, const TrieNode6& b) { return isEq(&a, &b); }

  static constexpr U32 keyOffset = 16;

 private:
  U32 black_[4];
  Addrkit::Ip6Prefix key_;
  Addrkit::Ip6Prefix leftChild_;
  Addrkit::Ip6Prefix rightChild_;
};

#pragma pack(pop)

static_assert(sizeof(TrieNode) == 29);
static_assert(sizeof(TrieNode6) == 67);

// Text form: "Routing::Lattice::TrieNode(key=..., black=..., child00=..., ...)".
DEPOTTRIE_API std::string stringValue(const TrieNode& n);
DEPOTTRIE_API std::string stringValue(const TrieNode6& n);
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const TrieNode& n);
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const TrieNode6& n);
// Parses a whole string; raises Kiln::ParseException.
DEPOTTRIE_API TrieNode strepToValue(const Basis::String& s, TrieNode*);
DEPOTTRIE_API TrieNode6 strepToValue(const Basis::String& s, TrieNode6*);

// Wire form of TrieNode (protobuf): key 15702, black 18246, child00 8579,
// child01 8578, child10 8610, child11 8611.
DEPOTTRIE_API void readMessageField(Basis::ReadBufferItr& buf, U32 fieldNumber, Basis::WireType wireType, TrieNode& node);
DEPOTTRIE_API void readMessage(Basis::ReadBufferItr& buf, TrieNode& node);
DEPOTTRIE_API void constructFromPbMessage(TrieNode* node, Basis::ReadBufferItr& buf);
DEPOTTRIE_API void writeMessage(Basis::WriteBufferItr& buf, const TrieNode& node);
DEPOTTRIE_API void writePbMessage(Basis::WriteBufferItr& buf, const TrieNode& node);

// Generic field access by field id (TrieNode: 2 key, 3 black, 4 nullChild,
// 5-8 children, 9 root; TrieNode6: 2 key, 3-6 black words, 7 nullChild,
// 8 leftChild, 9 rightChild).
DEPOTTRIE_API Kiln::FieldResult fieldOp(Kiln::FieldOp op, Kiln::FieldId id, TrieNode& node, std::any& value);
DEPOTTRIE_API Kiln::FieldResult fieldOp(Kiln::FieldOp op, Kiln::FieldId id, TrieNode6& node, std::any& value);

// Registers both record types with the runtime (called once at load).
DEPOTTRIE_API void registerTrieNodeTypes();

}  // namespace Routing::Lattice
