#include <gtest/gtest.h>

#include <vector>

#include "Basis/Buffer.h"
#include "Basis/Exception.h"

namespace {

using Basis::ReadBufferItr;
using Basis::WireType;
using Basis::WriteBufferItr;
using Bytes = std::vector<U8>;

constexpr const char* malformed = "Unexpected error when reading Protobuf bytes";

Bytes bytesOf(const WriteBufferItr& w) { return Bytes(w.data(), w.data() + w.size()); }

template <class F>
void expectMalformed(F f) {
  try {
    f();
    ADD_FAILURE() << "no ProtobufException";
  } catch (const Basis::ProtobufException& e) {
    EXPECT_STREQ(e.what(), malformed);
  }
}

TEST(BufferTest, varintEncodingsRoundTrip) {
  const struct {
    U64 value;
    Bytes wire;
  } cases[] = {
      {0, {0x00}},
      {1, {0x01}},
      {127, {0x7f}},
      {128, {0x80, 0x01}},
      {300, {0xac, 0x02}},
      {16384, {0x80, 0x80, 0x01}},
      {0xffffffffu, {0xff, 0xff, 0xff, 0xff, 0x0f}},
      {~U64(0), {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}},
  };
  for (const auto& c : cases) {
    WriteBufferItr w;
    w.writeVarint(c.value);
    EXPECT_EQ(bytesOf(w), c.wire) << c.value;
    ReadBufferItr r(c.wire.data(), c.wire.size());
    EXPECT_EQ(r.readVarint(), c.value);
    EXPECT_TRUE(r.atEnd()) << c.value;
  }
}

TEST(BufferTest, varintLongerThanTenBytesIsMalformed) {
  const Bytes eleven(11, 0x80);
  ReadBufferItr r(eleven.data(), eleven.size());
  expectMalformed([&] { r.readVarint(); });

  // Ten bytes whose last one ends the value is still accepted.
  Bytes ten(9, 0x80);
  ten.push_back(0x01);
  ReadBufferItr ok(ten.data(), ten.size());
  EXPECT_EQ(ok.readVarint(), U64(1) << 63);
}

TEST(BufferTest, fixedWidthValuesAreLittleEndian) {
  const Bytes data = {0x78, 0x56, 0x34, 0x12, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
  ReadBufferItr r(data.data(), data.size());
  EXPECT_EQ(r.readFixed32(), 0x12345678u);
  EXPECT_EQ(r.readFixed64(), 0x0102030405060708ull);
  EXPECT_TRUE(r.atEnd());

  WriteBufferItr w;
  w.writeFixed32(0x12345678u);
  EXPECT_EQ(bytesOf(w), Bytes(data.begin(), data.begin() + 4));
}

TEST(BufferTest, tagsSplitIntoFieldAndWireType) {
  WriteBufferItr w;
  w.writeTag(15702, WireType::lengthDelimited);
  w.writeTag(1, WireType::fixed32);
  WriteBufferItr expected;
  expected.writeVarint(125618);
  expected.writeVarint(13);
  EXPECT_EQ(bytesOf(w), bytesOf(expected));

  ReadBufferItr r(w.data(), w.size());
  U32 field = 0;
  WireType type = WireType::varint;
  r.readTag(field, type);
  EXPECT_EQ(field, 15702u);
  EXPECT_EQ(type, WireType::lengthDelimited);
  r.readTag(field, type);
  EXPECT_EQ(field, 1u);
  EXPECT_EQ(type, WireType::fixed32);

  // Field number 0 and tags wider than 32 bits are not valid protobuf.
  for (U64 bad : {U64(0), U64(2), U64(1) << 35}) {
    WriteBufferItr b;
    b.writeVarint(bad);
    ReadBufferItr br(b.data(), b.size());
    expectMalformed([&] { br.readTag(field, type); });
  }
}

TEST(BufferTest, lengthDelimitedFraming) {
  WriteBufferItr w;
  w.writeVarint(7);  // bytes before the frame stay in place
  size_t start = w.beginLengthDelimited();
  const U8 body[] = {'a', 'b', 'c'};
  w.writeBytes(body, 3);
  w.endLengthDelimited(start);
  EXPECT_EQ(bytesOf(w), (Bytes{0x07, 0x03, 'a', 'b', 'c'}));

  // A body of 200 bytes needs a two-byte length; an empty body a zero length.
  start = w.beginLengthDelimited();
  const Bytes big(200, 0x5a);
  w.writeBytes(big.data(), big.size());
  w.endLengthDelimited(start);
  start = w.beginLengthDelimited();
  w.endLengthDelimited(start);
  ASSERT_EQ(w.size(), 5u + 2u + 200u + 1u);
  EXPECT_EQ(w.data()[5], 0xc8);
  EXPECT_EQ(w.data()[6], 0x01);

  ReadBufferItr r(w.data(), w.size());
  EXPECT_EQ(r.readVarint(), 7u);
  ReadBufferItr first = r.readLengthDelimited();
  EXPECT_EQ(first.remaining(), 3u);
  first.advance(2);
  EXPECT_EQ(first.readVarint(), U64('c'));
  EXPECT_TRUE(first.atEnd());
  ReadBufferItr second = r.readLengthDelimited();
  EXPECT_EQ(second.remaining(), 200u);
  EXPECT_EQ(second.readVarint(), 0x5au);
  EXPECT_TRUE(r.readLengthDelimited().atEnd());
  EXPECT_TRUE(r.atEnd());
}

TEST(BufferTest, skipFieldByWireType) {
  WriteBufferItr w;
  w.writeTag(1, WireType::varint);
  w.writeVarint(300);
  w.writeTag(2, WireType::fixed64);
  w.writeFixed32(1);
  w.writeFixed32(2);
  w.writeTag(3, WireType::lengthDelimited);
  const size_t start = w.beginLengthDelimited();
  const U8 body[] = {1, 2, 3, 4, 5};
  w.writeBytes(body, 5);
  w.endLengthDelimited(start);
  w.writeTag(4, WireType::fixed32);
  w.writeFixed32(9);
  w.writeTag(5, WireType::varint);
  w.writeVarint(42);

  ReadBufferItr r(w.data(), w.size());
  U32 field = 0;
  WireType type;
  for (U32 expected = 1; expected <= 4; ++expected) {
    r.readTag(field, type);
    EXPECT_EQ(field, expected);
    r.skipField(type);
  }
  r.readTag(field, type);
  EXPECT_EQ(field, 5u);
  EXPECT_EQ(r.readVarint(), 42u);
  EXPECT_TRUE(r.atEnd());

  const Bytes data(16, 0);
  for (U8 unknown : {3, 4, 6, 7}) {
    ReadBufferItr u(data.data(), data.size());
    expectMalformed([&] { u.skipField(WireType(unknown)); });
  }
}

TEST(BufferTest, readingPastTheEndIsAnAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* need = "assertion failed: currentIdx_ \\+ len <= len_ \\(/src/Basis/Buffer: ";
  const Bytes three = {1, 2, 3};
  const auto death = [&](auto f, const char* function) {
    EXPECT_DEATH(f(), std::string(need) + "[^\n]*" + function);
  };
  death([&] { ReadBufferItr(three.data(), 3).readFixed32(); }, "readFixed32");
  death([&] { ReadBufferItr(three.data(), 3).readFixed64(); }, "readFixed64");
  death([&] { ReadBufferItr(three.data(), 3).advance(4); }, "advance");
  const Bytes cut = {0x80, 0x80};
  death([&] { ReadBufferItr(cut.data(), 2).readVarint(); }, "readVarint");
  const Bytes shortBody = {0x05, 'a', 'b'};
  death([&] { ReadBufferItr(shortBody.data(), 3).readLengthDelimited(); }, "readLengthDelimited");
  // A length near 2^64 must not wrap round the bounds check.
  WriteBufferItr huge;
  huge.writeVarint(~U64(0));
  death([&] { ReadBufferItr(huge.data(), huge.size()).readLengthDelimited(); },
        "readLengthDelimited");
  const Bytes truncatedSkip = {0x01, 0x02};
  death([&] { ReadBufferItr(truncatedSkip.data(), 2).skipField(WireType::fixed32); }, "advance");
}

}  // namespace
