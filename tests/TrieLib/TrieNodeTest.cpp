// The node records: packed layout, defaults, equality, text form, the
// TrieNode wire form and generic field access through the runtime.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <sstream>
#include <vector>

#include "Basis/Exception.h"
#include "TrieLib/DepotTrie.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Prefix;
using Addrkit::Prefix;
using Basis::ReadBufferItr;
using Basis::WireType;
using Basis::WriteBufferItr;
using Bytes = std::basic_string<U8>;
using testing::HasSubstr;

namespace {

const Prefix allOnes("255.255.255.255/32");
const Ip6Prefix allOnes6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128");

// The message of the exception E that f raises, or "no exception".
template <class E, class F>
std::string errorOf(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "no exception";
}

TrieNode sample() {
  TrieNode n(Prefix("10.0.0.0/8"));
  n.blackIs(0xFFFFFFFFu);
  n.child00Is(Prefix("10.0.0.0/10"));
  n.child01Is(Prefix("10.64.0.0/10"));
  n.child10Is(Prefix("10.128.0.0/10"));
  n.child11Is(Prefix("10.192.0.0/10"));
  return n;
}

TrieNode6 sample6() {
  TrieNode6 n(Ip6Prefix("2001:db8::/32"));
  for (U32 w = 0; w < 4; ++w) n.blackIs(w, 0x11111111u * (w + 1));
  n.leftChildIs(Ip6Prefix("2001:db8::/33"));
  n.rightChildIs(Ip6Prefix("2001:db8:8000::/33"));
  return n;
}

// A whole framed TrieNode message whose body `body` writes.
Bytes framed(const std::function<void(WriteBufferItr&)>& body) {
  WriteBufferItr w;
  size_t start = w.beginLengthDelimited();
  body(w);
  w.endLengthDelimited(start);
  return w.bytes();
}

void embeddedPrefix(WriteBufferItr& w, U32 field, const Prefix& p) {
  w.writeTag(field, WireType::lengthDelimited);
  size_t start = w.beginLengthDelimited();
  Addrkit::writeMessage(w, p);
  w.endLengthDelimited(start);
}

TrieNode decode(const Bytes& bytes) {
  ReadBufferItr r(bytes.data(), bytes.size());
  TrieNode n(Prefix("192.168.0.0/16"));
  constructFromPbMessage(&n, r);
  EXPECT_TRUE(r.atEnd());
  return n;
}

}  // namespace

TEST(TrieNodeTest, PackedLayout) {
  const TrieNode n = sample();
  U8 raw[sizeof(TrieNode)];
  std::memcpy(raw, &n, sizeof raw);
  U32 black;
  std::memcpy(&black, raw, 4);
  EXPECT_EQ(black, 0xFFFFFFFFu);
  const std::pair<size_t, Prefix> at[] = {{4, n.key()},      {9, n.child00()},  {14, n.child01()},
                                          {19, n.child10()}, {24, n.child11()}};
  for (const auto& [offset, expected] : at) {
    Prefix p;
    std::memcpy(&p, raw + offset, sizeof p);
    EXPECT_EQ(p, expected) << "offset " << offset;
  }
  EXPECT_EQ(raw[4], 10);
  EXPECT_EQ(raw[8], 8);  // the key's length follows its four address bytes

  const TrieNode6 n6 = sample6();
  U8 raw6[sizeof(TrieNode6)];
  std::memcpy(raw6, &n6, sizeof raw6);
  for (U32 w = 0; w < 4; ++w) {
    U32 word;
    std::memcpy(&word, raw6 + 4 * w, 4);
    EXPECT_EQ(word, n6.black(w)) << "black" << w;
  }
  const std::pair<size_t, Ip6Prefix> at6[] = {{16, n6.key()}, {33, n6.leftChild()}, {50, n6.rightChild()}};
  for (const auto& [offset, expected] : at6) {
    Ip6Prefix p;
    std::memcpy(&p, raw6 + offset, sizeof p);
    EXPECT_EQ(p, expected) << "offset " << offset;
  }
  EXPECT_EQ(raw6[32], 32);
}

TEST(TrieNodeTest, DefaultsNullChildAndRootAlias) {
  const TrieNode d;
  EXPECT_EQ(d.key(), Prefix("0.0.0.0/0"));
  EXPECT_EQ(d.black(), 0u);
  EXPECT_EQ(TrieNode::nullChild(), allOnes);
  for (U32 slot = 0; slot < 4; ++slot) EXPECT_EQ(d.child(slot), allOnes);

  const TrieNode6 d6;
  EXPECT_EQ(d6.key(), Ip6Prefix("::/0"));
  EXPECT_EQ(TrieNode6::nullChild(), allOnes6);
  for (U32 w = 0; w < 4; ++w) EXPECT_EQ(d6.black(w), 0u);
  EXPECT_EQ(d6.leftChild(), allOnes6);
  EXPECT_EQ(d6.rightChild(), allOnes6);

  TrieNode n(rootPrefix);
  n.rootIs(Prefix("10.0.0.0/8"));
  EXPECT_EQ(n.child00(), Prefix("10.0.0.0/8"));
  n.child00Is(Prefix("11.0.0.0/8"));
  EXPECT_EQ(n.root(), Prefix("11.0.0.0/8"));
  EXPECT_EQ(n.child01(), allOnes);

  const TrieNode s = sample();
  EXPECT_EQ(s.child(0), s.child00());
  EXPECT_EQ(s.child(1), s.child01());
  EXPECT_EQ(s.child(2), s.child10());
  EXPECT_EQ(s.child(3), s.child11());
  EXPECT_EQ(s.child(7), s.child11());
}

TEST(TrieNodeTest, Equality) {
  const TrieNode a = sample();
  EXPECT_TRUE(TrieNode::isEq(&a, &a));
  TrieNode b = a;
  EXPECT_TRUE(TrieNode::isEq(&a, &b));
  b.child11Is(allOnes);
  EXPECT_FALSE(TrieNode::isEq(&a, &b));
  b = a;
  b.blackIs(1);
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(TrieNode(Prefix("10.0.0.0/8")) == TrieNode(Prefix("10.0.0.0/9")));

  const TrieNode6 a6 = sample6();
  TrieNode6 b6 = a6;
  EXPECT_TRUE(a6 == b6);
  b6.black3Is(0);
  EXPECT_FALSE(a6 == b6);
  b6 = a6;
  b6.rightChildIs(allOnes6);
  EXPECT_FALSE(TrieNode6::isEq(&a6, &b6));
}

TEST(TrieNodeTest, TextForm) {
  TrieNode n(Prefix("10.0.0.0/8"));
  n.blackIs(16777216);
  n.child01Is(Prefix("10.64.0.0/10"));
  const std::string text =
      "Routing::Lattice::TrieNode(key=10.0.0.0/8, black=16777216, child00=255.255.255.255/32, "
      "child01=10.64.0.0/10, child10=255.255.255.255/32, child11=255.255.255.255/32)";
  EXPECT_EQ(stringValue(n), text);
  std::ostringstream os;
  os << n;
  EXPECT_EQ(os.str(), text);
  EXPECT_EQ(strepToValue(text, static_cast<TrieNode*>(nullptr)), n);
  const TrieNode s = sample();
  EXPECT_EQ(strepToValue(stringValue(s), static_cast<TrieNode*>(nullptr)), s);

  TrieNode6 n6(Ip6Prefix("2001:db8::/32"));
  n6.black2Is(7);
  const std::string text6 =
      "Routing::Lattice::TrieNode6(key=2001:db8::/32, black0=0, black1=0, black2=7, black3=0, "
      "leftChild=ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128, "
      "rightChild=ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128)";
  EXPECT_EQ(stringValue(n6), text6);
  EXPECT_EQ(strepToValue(text6, static_cast<TrieNode6*>(nullptr)), n6);
  const TrieNode6 s6 = sample6();
  EXPECT_EQ(strepToValue(stringValue(s6), static_cast<TrieNode6*>(nullptr)), s6);

  // The constructor consumes exactly one value and leaves what follows.
  const std::string followed = text + ", next";
  Kiln::CharRange range(followed);
  EXPECT_EQ(TrieNode(range), n);
  EXPECT_EQ(range.rest(), ", next");
}

TEST(TrieNodeTest, TextParseFailuresStopAtFirstMismatch) {
  const std::string good = stringValue(sample());
  // Each text with the position of its first unexpected character.
  const std::pair<std::string, size_t> bad4[] = {
      {"Routing::Lattice::TrieNode6(key=10.0.0.0/8)", 26},
      {"Routing::Lattice::TrieNode(black=0)", 27},
      {"Routing::Lattice::TrieNode(key=10.0.0.0/8, black=x", 49},
      {good.substr(0, good.find(", child11")) + ")", good.find(", child11")},
      {good.substr(0, good.size() - 1) + ", extra=1)", good.size() - 1},
  };
  for (const auto& [text, position] : bad4) {
    Kiln::CharRange range(text);
    EXPECT_THROW(TrieNode{range}, Kiln::ParseException) << text;
    EXPECT_EQ(range.position(), position) << text;
  }
  EXPECT_THAT(errorOf<Kiln::ParseException>([&] { strepToValue(good + " ", static_cast<TrieNode*>(nullptr)); }),
              HasSubstr(std::to_string(good.size())));

  const std::string good6 = stringValue(sample6());
  const size_t right = good6.find(", rightChild");
  const std::pair<std::string, size_t> bad6[] = {
      {good6.substr(0, right) + " rightChild" + good6.substr(right + 12), right},
      {"Routing::Lattice::TrieNode(key=::/0)", 26},
  };
  for (const auto& [text, position] : bad6) {
    Kiln::CharRange range(text);
    EXPECT_THROW(TrieNode6{range}, Kiln::ParseException) << text;
    EXPECT_EQ(range.position(), position) << text;
  }
  EXPECT_THROW(strepToValue(good6 + ")", static_cast<TrieNode6*>(nullptr)), Kiln::ParseException);
}

TEST(TrieNodeTest, WireFormLayout) {
  WriteBufferItr w;
  writeMessage(w, TrieNode());
  const Bytes body = w.bytes();
  // Every field is written, in this order, each tag as a varint.
  const std::vector<std::pair<U32, Bytes>> tags = {
      {15702, {0xB2, 0xD5, 0x07}}, {18246, {0xB0, 0xF4, 0x08}}, {8579, {0x9A, 0x98, 0x04}},
      {8578, {0x92, 0x98, 0x04}},  {8610, {0x92, 0x9A, 0x04}},  {8611, {0x9A, 0x9A, 0x04}},
  };
  size_t pos = 0;
  for (const auto& [field, tagBytes] : tags) {
    ASSERT_LT(pos, body.size());
    EXPECT_EQ(body.substr(pos, tagBytes.size()), tagBytes) << field;
    ReadBufferItr r(body.data() + pos, body.size() - pos);
    U32 number;
    WireType type;
    r.readTag(number, type);
    EXPECT_EQ(number, field);
    EXPECT_EQ(type, field == 18246 ? WireType::varint : WireType::lengthDelimited);
    r.skipField(type);
    pos += r.currentIdx();
  }
  EXPECT_EQ(pos, body.size());

  // writePbMessage frames exactly that body once more.
  WriteBufferItr pb;
  writePbMessage(pb, TrieNode());
  ReadBufferItr r(pb.data(), pb.size());
  ReadBufferItr inner = r.readLengthDelimited();
  EXPECT_TRUE(r.atEnd());
  EXPECT_EQ(inner.remaining(), body.size());
  EXPECT_EQ(pb.bytes().substr(pb.size() - body.size()), body);
}

TEST(TrieNodeTest, WireFormReading) {
  // Round trip, and two messages back to back read one after the other.
  WriteBufferItr w;
  writePbMessage(w, sample());
  writePbMessage(w, TrieNode(rootPrefix));
  ReadBufferItr r(w.data(), w.size());
  TrieNode first, second;
  readMessage(r, first);
  readMessage(r, second);
  EXPECT_TRUE(r.atEnd());
  EXPECT_EQ(first, sample());
  EXPECT_EQ(second, TrieNode(rootPrefix));

  EXPECT_EQ(decode(framed([](WriteBufferItr&) {})), TrieNode());
  TrieNode black5;
  black5.blackIs(5);
  EXPECT_EQ(decode(framed([](WriteBufferItr& b) {
              b.writeTag(18246, WireType::varint);
              b.writeVarint(5);
            })),
            black5);

  // Any order, repeats (last wins), unknown fields of every wire type skipped.
  const TrieNode mixed = decode(framed([](WriteBufferItr& b) {
    b.writeTag(1, WireType::varint);
    b.writeVarint(300);
    embeddedPrefix(b, 8611, Prefix("1.0.0.0/8"));
    b.writeTag(18246, WireType::varint);
    b.writeVarint(1);
    embeddedPrefix(b, 15702, Prefix("2.0.0.0/8"));
    b.writeTag(2, WireType::fixed32);
    b.writeFixed32(7);
    embeddedPrefix(b, 9999, Prefix("3.0.0.0/8"));
    b.writeTag(18246, WireType::varint);
    b.writeVarint(9);
    embeddedPrefix(b, 8578, Prefix("4.0.0.0/8"));
    embeddedPrefix(b, 8578, Prefix("5.0.0.0/8"));
  }));
  EXPECT_EQ(mixed.key(), Prefix("2.0.0.0/8"));
  EXPECT_EQ(mixed.black(), 9u);
  EXPECT_EQ(mixed.child00(), allOnes);
  EXPECT_EQ(mixed.child01(), Prefix("5.0.0.0/8"));
  EXPECT_EQ(mixed.child10(), allOnes);
  EXPECT_EQ(mixed.child11(), Prefix("1.0.0.0/8"));

  // readMessage keeps what the message leaves out; constructFromPbMessage
  // starts from the default record.
  TrieNode kept = sample();
  const Bytes onlyBlack = framed([](WriteBufferItr& b) {
    b.writeTag(18246, WireType::varint);
    b.writeVarint(3);
  });
  ReadBufferItr r2(onlyBlack.data(), onlyBlack.size());
  readMessage(r2, kept);
  EXPECT_EQ(kept.black(), 3u);
  EXPECT_EQ(kept.key(), sample().key());
  EXPECT_EQ(kept.child11(), sample().child11());
}

TEST(TrieNodeTest, WireFormErrors) {
  for (U32 field : {15702u, 8579u, 8578u, 8610u, 8611u}) {
    const Bytes bytes = framed([field](WriteBufferItr& b) {
      b.writeTag(field, WireType::varint);
      b.writeVarint(1);
    });
    EXPECT_EQ(errorOf<Basis::ProtobufException>([&] { decode(bytes); }),
              "Unexpected error when reading Protobuf bytes")
        << field;
  }
  const Bytes blackAsBytes = framed([](WriteBufferItr& b) { embeddedPrefix(b, 18246, Prefix("1.0.0.0/8")); });
  EXPECT_THROW(decode(blackAsBytes), Basis::ProtobufException);

  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const Bytes truncated = {0x05, 0xB0, 0xF4};
  EXPECT_DEATH(decode(truncated), "currentIdx_ \\+ len <= len_");
  Bytes shortChild = framed([](WriteBufferItr& b) { embeddedPrefix(b, 8579, Prefix("1.0.0.0/8")); });
  shortChild.resize(shortChild.size() - 2);
  shortChild[0] = U8(shortChild.size() - 1);
  EXPECT_DEATH(decode(shortChild), "currentIdx_ \\+ len <= len_");
}

TEST(TrieNodeTest, FieldAccess) {
  using Kiln::FieldOp;
  using Kiln::FieldResult;
  TrieNode n = sample();
  std::any v;
  const std::pair<Kiln::FieldId, Prefix> prefixes[] = {{2, n.key()},     {4, allOnes},      {5, n.child00()},
                                                       {6, n.child01()}, {7, n.child10()}, {8, n.child11()},
                                                       {9, n.child00()}};
  for (const auto& [id, expected] : prefixes) {
    ASSERT_EQ(fieldOp(FieldOp::get, id, n, v), FieldResult::ok) << id;
    EXPECT_EQ(std::any_cast<Prefix>(v), expected) << id;
  }
  ASSERT_EQ(fieldOp(FieldOp::get, 3, n, v), FieldResult::ok);
  EXPECT_EQ(std::any_cast<U32>(v), 0xFFFFFFFFu);

  v = U32(12);
  EXPECT_EQ(fieldOp(FieldOp::set, 3, n, v), FieldResult::ok);
  EXPECT_EQ(n.black(), 12u);
  for (Kiln::FieldId id : {5u, 6u, 7u, 8u}) {
    v = Prefix("20.0.0.0/8");
    EXPECT_EQ(fieldOp(FieldOp::set, id, n, v), FieldResult::ok);
    EXPECT_EQ(n.child(id - 5), Prefix("20.0.0.0/8")) << id;
  }
  v = Prefix("21.0.0.0/8");
  EXPECT_EQ(fieldOp(FieldOp::set, 9, n, v), FieldResult::ok);
  EXPECT_EQ(n.child00(), Prefix("21.0.0.0/8"));
  const TrieNode before = n;
  EXPECT_EQ(fieldOp(FieldOp::set, 2, n, v), FieldResult::notSupported);
  EXPECT_EQ(fieldOp(FieldOp::set, 4, n, v), FieldResult::notSupported);
  EXPECT_EQ(n, before);
  for (Kiln::FieldId id : {0u, 1u, 10u}) {
    EXPECT_EQ(fieldOp(FieldOp::get, id, n, v), FieldResult::unknownField) << id;
    EXPECT_EQ(fieldOp(FieldOp::set, id, n, v), FieldResult::unknownField) << id;
  }
  v = 5;  // an int, not a U32
  EXPECT_THAT(errorOf<Basis::RangeException>([&] { fieldOp(FieldOp::set, 3, n, v); }), HasSubstr("black"));
  v = allOnes6;
  EXPECT_THAT(errorOf<Basis::RangeException>([&] { fieldOp(FieldOp::set, 9, n, v); }), HasSubstr("root"));

  TrieNode d;
  EXPECT_EQ(fieldOp(FieldOp::differsFromDefault, 0, d, v), FieldResult::ok);
  EXPECT_FALSE(std::any_cast<bool>(v));
  TrieNode root(rootPrefix);
  fieldOp(FieldOp::differsFromDefault, 0, root, v);
  EXPECT_TRUE(std::any_cast<bool>(v));
  v = static_cast<const TrieNode*>(&before);
  EXPECT_EQ(fieldOp(FieldOp::equals, 0, n, v), FieldResult::ok);
  EXPECT_TRUE(std::any_cast<bool>(v));
  v = static_cast<const TrieNode*>(&d);
  fieldOp(FieldOp::equals, 0, n, v);
  EXPECT_FALSE(std::any_cast<bool>(v));
}

TEST(TrieNodeTest, FieldAccess6) {
  using Kiln::FieldOp;
  using Kiln::FieldResult;
  TrieNode6 n = sample6();
  std::any v;
  for (Kiln::FieldId id : {3u, 4u, 5u, 6u}) {
    ASSERT_EQ(fieldOp(FieldOp::get, id, n, v), FieldResult::ok);
    EXPECT_EQ(std::any_cast<U32>(v), n.black(id - 3)) << id;
    v = U32(100 + id);
    EXPECT_EQ(fieldOp(FieldOp::set, id, n, v), FieldResult::ok);
    EXPECT_EQ(n.black(id - 3), 100 + id);
  }
  const std::pair<Kiln::FieldId, Ip6Prefix> prefixes[] = {
      {2, n.key()}, {7, allOnes6}, {8, n.leftChild()}, {9, n.rightChild()}};
  for (const auto& [id, expected] : prefixes) {
    ASSERT_EQ(fieldOp(FieldOp::get, id, n, v), FieldResult::ok) << id;
    EXPECT_EQ(std::any_cast<Ip6Prefix>(v), expected) << id;
  }
  v = Ip6Prefix("2001:db8::/48");
  EXPECT_EQ(fieldOp(FieldOp::set, 8, n, v), FieldResult::ok);
  EXPECT_EQ(n.leftChild(), Ip6Prefix("2001:db8::/48"));
  EXPECT_EQ(fieldOp(FieldOp::set, 9, n, v), FieldResult::ok);
  EXPECT_EQ(n.rightChild(), Ip6Prefix("2001:db8::/48"));
  EXPECT_EQ(fieldOp(FieldOp::set, 2, n, v), FieldResult::notSupported);
  EXPECT_EQ(fieldOp(FieldOp::set, 7, n, v), FieldResult::notSupported);
  EXPECT_EQ(n.key(), sample6().key());
  EXPECT_EQ(fieldOp(FieldOp::get, 10, n, v), FieldResult::unknownField);
  v = Prefix("1.0.0.0/8");
  EXPECT_THAT(errorOf<Basis::RangeException>([&] { fieldOp(FieldOp::set, 8, n, v); }), HasSubstr("leftChild"));

  TrieNode6 d;
  fieldOp(FieldOp::differsFromDefault, 0, d, v);
  EXPECT_FALSE(std::any_cast<bool>(v));
  d.black0Is(1);
  fieldOp(FieldOp::differsFromDefault, 0, d, v);
  EXPECT_TRUE(std::any_cast<bool>(v));
  const TrieNode6 copy = n;
  v = &copy;
  EXPECT_EQ(fieldOp(FieldOp::equals, 0, n, v), FieldResult::ok);
  EXPECT_TRUE(std::any_cast<bool>(v));
}

TEST(TrieNodeTest, RuntimeTypeHooks) {
  const Kiln::TypeData* t = Kiln::typeData("Routing::Lattice::TrieNode");
  const Kiln::TypeData* t6 = Kiln::typeData("Routing::Lattice::TrieNode6");
  ASSERT_NE(t, nullptr);
  ASSERT_NE(t6, nullptr);
  EXPECT_EQ(t->size, sizeof(TrieNode));
  EXPECT_EQ(t6->size, sizeof(TrieNode6));
  EXPECT_TRUE(t->pbEncode && t->pbDecode);
  EXPECT_FALSE(t6->pbEncode || t6->pbDecode);

  const TrieNode s = sample();
  EXPECT_EQ(t->toText(&s), stringValue(s));
  TrieNode fromText;
  t->fromText(stringValue(s), &fromText);
  EXPECT_EQ(fromText, s);
  WriteBufferItr w;
  t->pbEncode(w, &s);
  ReadBufferItr r(w.data(), w.size());
  TrieNode fromWire;
  t->pbDecode(r, &fromWire);
  EXPECT_EQ(fromWire, s);

  const TrieNode6 s6 = sample6();
  TrieNode6 fromText6;
  t6->fromText(t6->toText(&s6), &fromText6);
  EXPECT_EQ(fromText6, s6);
  std::any v;
  TrieNode6 target;
  EXPECT_EQ(t6->fieldOp(Kiln::FieldOp::get, 9, &fromText6, v), Kiln::FieldResult::ok);
  EXPECT_EQ(t6->fieldOp(Kiln::FieldOp::set, 8, &target, v), Kiln::FieldResult::ok);
  EXPECT_EQ(target.leftChild(), s6.rightChild());
  v = U32(4);
  EXPECT_EQ(t->fieldOp(Kiln::FieldOp::set, 3, &fromText, v), Kiln::FieldResult::ok);
  EXPECT_EQ(fromText.black(), 4u);

  EXPECT_THAT(errorOf<Basis::NotSupportedException>([&] { Kiln::hashValue(*t, &s); }), HasSubstr("not hashable"));
  EXPECT_THAT(errorOf<Basis::NotSupportedException>([&] { Kiln::hashValue(*t6, &s6); }),
              HasSubstr("Routing::Lattice::TrieNode6"));
}
