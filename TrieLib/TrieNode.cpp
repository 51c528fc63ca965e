#include "TrieLib/TrieNode.h"

#include <fmt/format.h>

#include <new>
#include <ostream>
#include <string_view>

#include "Basis/Exception.h"
#include "TrieLib/DepotTrie.h"

namespace Routing::Lattice {

TrieNode::TrieNode(const Addrkit::Prefix& key)
    : black_(0), key_(key), child00_(nullChild()), child01_(child00_), child10_(child00_), child11_(child00_) {}

Addrkit::Prefix TrieNode::nullChild() { return nullPrefix; }

void TrieNode::childIs(U32 slot, const Addrkit::Prefix& p) {
  switch (slot) {
    case 0: child00_ = p; break;
    case 1: child01_ = p; break;
    case 2: child10_ = p; break;
    default: child11_ = p; break;
  }
}

bool TrieNode::isEq(const TrieNode* a, const TrieNode* b) {
  if (a == b) return true;
  return a->black_ == b->black_ && a->key_ == b->key_ && a->child00_ == b->child00_ &&
         a->child01_ == b->child01_ && a->child10_ == b->child10_ && a->child11_ == b->child11_;
}

// Children are built through the validating constructor: the null child must
// be a valid prefix.
TrieNode6::TrieNode6(const Addrkit::Ip6Prefix& key)
    : black_{0, 0, 0, 0}, key_(key), leftChild_(nullChild().address(), 128), rightChild_(leftChild_) {}

Addrkit::Ip6Prefix TrieNode6::nullChild() { return nullPrefix6; }

bool TrieNode6::isEq(const TrieNode6* a, const TrieNode6* b) {
  if (a == b) return true;
  return a->black_[0] == b->black_[0] && a->black_[1] == b->black_[1] && a->black_[2] == b->black_[2] &&
         a->black_[3] == b->black_[3] && a->key_ == b->key_ && a->leftChild_ == b->leftChild_ &&
         a->rightChild_ == b->rightChild_;
}

// ---- Text form ----

namespace {

constexpr std::string_view trieNodeName = "Routing::Lattice::TrieNode";
constexpr std::string_view trieNode6Name = "Routing::Lattice::TrieNode6";

// Raised when a whole string was to be one value and text is left over.
void requireEnd(const Kiln::CharRange& text, std::string_view typeName) {
  if (!text.atEnd()) {
    throw Kiln::ParseException(fmt::format("{}: unexpected text at position {}: '{}'", typeName,
                                           text.position(), text.rest()));
  }
}

}  // namespace

TrieNode::TrieNode(Kiln::CharRange& text) : black_(0) {
  text.beginValue(trieNodeName);
  text.attribute("key", true);
  key_ = text.readPrefix();
  text.attribute("black");
  black_ = text.readU32();
  text.attribute("child00");
  child00_ = text.readPrefix();
  text.attribute("child01");
  child01_ = text.readPrefix();
  text.attribute("child10");
  child10_ = text.readPrefix();
  text.attribute("child11");
  child11_ = text.readPrefix();
  text.endValue();
}

TrieNode6::TrieNode6(Kiln::CharRange& text) : black_{0, 0, 0, 0} {
  text.beginValue(trieNode6Name);
  text.attribute("key", true);
  key_ = text.readIp6Prefix();
  text.attribute("black0");
  black_[0] = text.readU32();
  text.attribute("black1");
  black_[1] = text.readU32();
  text.attribute("black2");
  black_[2] = text.readU32();
  text.attribute("black3");
  black_[3] = text.readU32();
  text.attribute("leftChild");
  leftChild_ = text.readIp6Prefix();
  text.attribute("rightChild");
  rightChild_ = text.readIp6Prefix();
  text.endValue();
}

std::string stringValue(const TrieNode& n) {
  return Kiln::TextWriter(trieNodeName)
      .attribute("key", n.key())
      .attribute("black", n.black())
      .attribute("child00", n.child00())
      .attribute("child01", n.child01())
      .attribute("child10", n.child10())
      .attribute("child11", n.child11())
      .str();
}

std::string stringValue(const TrieNode6& n) {
  return Kiln::TextWriter(trieNode6Name)
      .attribute("key", n.key())
      .attribute("black0", n.black0())
      .attribute("black1", n.black1())
      .attribute("black2", n.black2())
      .attribute("black3", n.black3())
      .attribute("leftChild", n.leftChild())
      .attribute("rightChild", n.rightChild())
      .str();
}

std::ostream& operator<<(std::ostream& os, const TrieNode& n) { return os << stringValue(n); }
std::ostream& operator<<(std::ostream& os, const TrieNode6& n) { return os << stringValue(n); }

TrieNode strepToValue(const Basis::String& s, TrieNode*) {
  Kiln::CharRange text(s);
  TrieNode n(text);
  requireEnd(text, trieNodeName);
  return n;
}

TrieNode6 strepToValue(const Basis::String& s, TrieNode6*) {
  Kiln::CharRange text(s);
  TrieNode6 n(text);
  requireEnd(text, trieNode6Name);
  return n;
}

// ---- Wire form of TrieNode ----

namespace {

enum TrieNodeField : U32 {
  keyField = 15702,
  blackField = 18246,
  child00Field = 8579,
  child01Field = 8578,
  child10Field = 8610,
  child11Field = 8611,
};

// The slot (0..3) of a child field number, or -1 for any other number.
int childSlot(U32 fieldNumber) {
  switch (fieldNumber) {
    case child00Field: return 0;
    case child01Field: return 1;
    case child10Field: return 2;
    case child11Field: return 3;
    default: return -1;
  }
}

constexpr U32 childFields[4] = {child00Field, child01Field, child10Field, child11Field};

void requireWireType(Basis::WireType actual, Basis::WireType expected) {
  if (actual != expected) throw Basis::ProtobufException("Unexpected error when reading Protobuf bytes");
}

Addrkit::Prefix readEmbeddedPrefix(Basis::ReadBufferItr& buf) {
  Basis::ReadBufferItr body = buf.readLengthDelimited();
  Addrkit::Prefix p;
  Addrkit::readMessage(body, p);
  return p;
}

void writeEmbeddedPrefix(Basis::WriteBufferItr& buf, U32 fieldNumber, const Addrkit::Prefix& p) {
  buf.writeTag(fieldNumber, Basis::WireType::lengthDelimited);
  size_t start = buf.beginLengthDelimited();
  Addrkit::writeMessage(buf, p);
  buf.endLengthDelimited(start);
}

// The key has no setter (a record with another key is another record), so
// a new key means a new record carrying the other fields over.
TrieNode rekeyed(const TrieNode& n, const Addrkit::Prefix& key) {
  TrieNode r(key);
  r.blackIs(n.black());
  for (U32 slot = 0; slot < 4; ++slot) r.childIs(slot, n.child(slot));
  return r;
}

}  // namespace

void readMessageField(Basis::ReadBufferItr& buf, U32 fieldNumber, Basis::WireType wireType, TrieNode& node) {
  if (fieldNumber == keyField) {
    requireWireType(wireType, Basis::WireType::lengthDelimited);
    node = rekeyed(node, readEmbeddedPrefix(buf));
  } else if (fieldNumber == blackField) {
    requireWireType(wireType, Basis::WireType::varint);
    node.blackIs(static_cast<U32>(buf.readVarint()));
  } else if (int slot = childSlot(fieldNumber); slot >= 0) {
    requireWireType(wireType, Basis::WireType::lengthDelimited);
    node.childIs(static_cast<U32>(slot), readEmbeddedPrefix(buf));
  } else {
    buf.skipField(wireType);
  }
}

void readMessage(Basis::ReadBufferItr& buf, TrieNode& node) {
  Basis::ReadBufferItr body = buf.readLengthDelimited();
  while (!body.atEnd()) {
    U32 fieldNumber;
    Basis::WireType wireType;
    body.readTag(fieldNumber, wireType);
    readMessageField(body, fieldNumber, wireType, node);
  }
}

void constructFromPbMessage(TrieNode* node, Basis::ReadBufferItr& buf) {
  new (node) TrieNode(Addrkit::Prefix());
  readMessage(buf, *node);
}

void writeMessage(Basis::WriteBufferItr& buf, const TrieNode& node) {
  writeEmbeddedPrefix(buf, keyField, node.key());
  buf.writeTag(blackField, Basis::WireType::varint);
  buf.writeVarint(node.black());
  for (U32 slot = 0; slot < 4; ++slot) writeEmbeddedPrefix(buf, childFields[slot], node.child(slot));
}

void writePbMessage(Basis::WriteBufferItr& buf, const TrieNode& node) {
  size_t start = buf.beginLengthDelimited();
  writeMessage(buf, node);
  buf.endLengthDelimited(start);
}

// ---- Generic field access ----

namespace {

std::string_view typeText(U32) { return "U32"; }
std::string_view typeText(const Addrkit::Prefix&) { return "Addrkit::Prefix"; }
std::string_view typeText(const Addrkit::Ip6Prefix&) { return "Addrkit::Ip6Prefix"; }
template <class Node>
std::string_view typeText(const Node*) { return "record pointer"; }

// The value a set or equals hands in, which must hold a T.
template <class T>
T valueAs(const std::any& value, std::string_view typeName, std::string_view field) {
  if (const T* v = std::any_cast<T>(&value)) return *v;
  throw Basis::RangeException(
      fmt::format("{}::{}: value is not of type {}", typeName, field, typeText(T())));
}

// get copies the field out; set assigns the value handed in.
template <class T, class Assign>
Kiln::FieldResult readWrite(Kiln::FieldOp op, std::any& value, const T& current, Assign assign,
                            std::string_view typeName, std::string_view field) {
  if (op == Kiln::FieldOp::set) {
    assign(valueAs<T>(value, typeName, field));
  } else {
    value = current;
  }
  return Kiln::FieldResult::ok;
}

template <class T>
Kiln::FieldResult readOnly(Kiln::FieldOp op, std::any& value, const T& current) {
  if (op == Kiln::FieldOp::set) return Kiln::FieldResult::notSupported;
  value = current;
  return Kiln::FieldResult::ok;
}

bool isRecordOp(Kiln::FieldOp op) {
  return op == Kiln::FieldOp::differsFromDefault || op == Kiln::FieldOp::equals;
}

// The two whole-record queries, common to both record types.
template <class Node>
Kiln::FieldResult recordOp(Kiln::FieldOp op, const Node& node, const Node& defaultNode, std::string_view typeName,
                           std::any& value) {
  if (op == Kiln::FieldOp::differsFromDefault) {
    value = !Node::isEq(&node, &defaultNode);
  } else {
    value = Node::isEq(&node, valueAs<const Node*>(value, typeName, "equals"));
  }
  return Kiln::FieldResult::ok;
}

}  // namespace

Kiln::FieldResult fieldOp(Kiln::FieldOp op, Kiln::FieldId id, TrieNode& node, std::any& value) {
  if (isRecordOp(op)) return recordOp(op, node, TrieNode(Addrkit::Prefix()), trieNodeName, value);
  using P = Addrkit::Prefix;
  switch (id) {
    case 2: return readOnly(op, value, node.key());
    case 3: return readWrite(op, value, node.black(), [&](U32 b) { node.blackIs(b); }, trieNodeName, "black");
    case 4: return readOnly(op, value, TrieNode::nullChild());
    case 5: return readWrite(op, value, node.child00(), [&](const P& p) { node.child00Is(p); }, trieNodeName, "child00");
    case 6: return readWrite(op, value, node.child01(), [&](const P& p) { node.child01Is(p); }, trieNodeName, "child01");
    case 7: return readWrite(op, value, node.child10(), [&](const P& p) { node.child10Is(p); }, trieNodeName, "child10");
    case 8: return readWrite(op, value, node.child11(), [&](const P& p) { node.child11Is(p); }, trieNodeName, "child11");
    case 9: return readWrite(op, value, node.root(), [&](const P& p) { node.rootIs(p); }, trieNodeName, "root");
    default: return Kiln::FieldResult::unknownField;
  }
}

Kiln::FieldResult fieldOp(Kiln::FieldOp op, Kiln::FieldId id, TrieNode6& node, std::any& value) {
  if (isRecordOp(op)) return recordOp(op, node, TrieNode6(Addrkit::Ip6Prefix()), trieNode6Name, value);
  using P = Addrkit::Ip6Prefix;
  static constexpr std::string_view blackNames[4] = {"black0", "black1", "black2", "black3"};
  switch (id) {
    case 2: return readOnly(op, value, node.key());
    case 3:
    case 4:
    case 5:
    case 6: {
      const U32 w = id - 3;
      return readWrite(op, value, node.black(w), [&](U32 b) { node.blackIs(w, b); }, trieNode6Name, blackNames[w]);
    }
    case 7: return readOnly(op, value, TrieNode6::nullChild());
    case 8:
      return readWrite(op, value, node.leftChild(), [&](const P& p) { node.leftChildIs(p); }, trieNode6Name,
                       "leftChild");
    case 9:
      return readWrite(op, value, node.rightChild(), [&](const P& p) { node.rightChildIs(p); }, trieNode6Name,
                       "rightChild");
    default: return Kiln::FieldResult::unknownField;
  }
}

// ---- Runtime type data ----

// Neither record gets a hash hook: the collections hash keys, not records.
void registerTrieNodeTypes() {
  Kiln::TypeData v4;
  v4.name = std::string(trieNodeName);
  v4.size = sizeof(TrieNode);
  v4.toText = [](const void* p) { return stringValue(*static_cast<const TrieNode*>(p)); };
  v4.fromText = [](std::string_view s, void* p) {
    new (p) TrieNode(strepToValue(Basis::String(s), static_cast<TrieNode*>(nullptr)));
  };
  v4.pbEncode = [](Basis::WriteBufferItr& buf, const void* p) {
    writePbMessage(buf, *static_cast<const TrieNode*>(p));
  };
  v4.pbDecode = [](Basis::ReadBufferItr& buf, void* p) { constructFromPbMessage(static_cast<TrieNode*>(p), buf); };
  v4.fieldOp = [](Kiln::FieldOp op, Kiln::FieldId id, void* p, std::any& value) {
    return fieldOp(op, id, *static_cast<TrieNode*>(p), value);
  };
  Kiln::typeRegister(std::move(v4));

  Kiln::TypeData v6;
  v6.name = std::string(trieNode6Name);
  v6.size = sizeof(TrieNode6);
  v6.toText = [](const void* p) { return stringValue(*static_cast<const TrieNode6*>(p)); };
  v6.fromText = [](std::string_view s, void* p) {
    new (p) TrieNode6(strepToValue(Basis::String(s), static_cast<TrieNode6*>(nullptr)));
  };
  v6.fieldOp = [](Kiln::FieldOp op, Kiln::FieldId id, void* p, std::any& value) {
    return fieldOp(op, id, *static_cast<TrieNode6*>(p), value);
  };
  Kiln::typeRegister(std::move(v6));
}

}  // namespace Routing::Lattice
