#include <gtest/gtest.h>

#include <vector>

#include "Addrkit/Prefix.h"
#include "Basis/Buffer.h"
#include "Basis/Exception.h"

namespace {

using Addrkit::Prefix;
using Basis::ReadBufferItr;
using Basis::WireType;
using Basis::WriteBufferItr;

Prefix readBody(const WriteBufferItr& w, Prefix start = Prefix()) {
  ReadBufferItr r(w.data(), w.size());
  Addrkit::readMessage(r, start);
  EXPECT_TRUE(r.atEnd());
  return start;
}

TEST(MessageTest, roundTripAndWireBytes) {
  WriteBufferItr w;
  Addrkit::writeMessage(w, Prefix("10.1.0.0/16"));
  const std::vector<U8> expected = {0x0d, 0x00, 0x00, 0x01, 0x0a, 0x10, 0x10};
  EXPECT_EQ(std::vector<U8>(w.data(), w.data() + w.size()), expected);

  for (const char* text : {"0.0.0.0/0", "255.255.255.255/32", "192.168.128.0/17"}) {
    WriteBufferItr buf;
    Addrkit::writeMessage(buf, Prefix(text));
    EXPECT_EQ(readBody(buf, Prefix("1.1.1.1/32")), Prefix(text));
  }

  // Framed inside an outer message, as records embed it.
  WriteBufferItr outer;
  outer.writeTag(15702, WireType::lengthDelimited);
  const size_t start = outer.beginLengthDelimited();
  Addrkit::writeMessage(outer, Prefix("172.16.0.0/12"));
  outer.endLengthDelimited(start);
  ReadBufferItr r(outer.data(), outer.size());
  U32 field;
  WireType type;
  r.readTag(field, type);
  ReadBufferItr body = r.readLengthDelimited();
  Prefix p;
  Addrkit::readMessage(body, p);
  EXPECT_EQ(p, Prefix("172.16.0.0/12"));
  EXPECT_TRUE(r.atEnd());
}

TEST(MessageTest, readingToleratesOrderUnknownAndMissingFields) {
  WriteBufferItr w;
  w.writeTag(2, WireType::varint);
  w.writeVarint(24);
  w.writeTag(9, WireType::varint);  // unknown fields of each wire type
  w.writeVarint(123456);
  w.writeTag(10, WireType::fixed64);
  w.writeFixed32(1);
  w.writeFixed32(2);
  w.writeTag(11, WireType::lengthDelimited);
  w.writeVarint(2);
  w.writeVarint(1);
  w.writeVarint(2);
  w.writeTag(12, WireType::fixed32);
  w.writeFixed32(7);
  w.writeTag(1, WireType::fixed32);
  w.writeFixed32(0x0a000000u);
  w.writeTag(1, WireType::fixed32);  // repeated: the last one wins
  w.writeFixed32(0xc0a80100u);
  EXPECT_EQ(readBody(w), Prefix("192.168.1.0/24"));

  // Missing fields keep the prefix's prior value.
  WriteBufferItr lenOnly;
  lenOnly.writeTag(2, WireType::varint);
  lenOnly.writeVarint(8);
  EXPECT_EQ(readBody(lenOnly, Prefix("10.0.0.0/16")), Prefix("10.0.0.0/8"));
  WriteBufferItr addrOnly;
  addrOnly.writeTag(1, WireType::fixed32);
  addrOnly.writeFixed32(0x0b000000u);
  EXPECT_EQ(readBody(addrOnly, Prefix("10.0.0.0/8")), Prefix("11.0.0.0/8"));
  EXPECT_EQ(readBody(WriteBufferItr(), Prefix("10.0.0.0/8")), Prefix("10.0.0.0/8"));
}

TEST(MessageTest, badMessagesRaise) {
  const auto read = [](const WriteBufferItr& w, Prefix& p) {
    ReadBufferItr r(w.data(), w.size());
    Addrkit::readMessage(r, p);
  };
  Prefix p("10.0.0.0/8");

  WriteBufferItr addrAsVarint;
  addrAsVarint.writeTag(1, WireType::varint);
  addrAsVarint.writeVarint(5);
  WriteBufferItr lenAsFixed;
  lenAsFixed.writeTag(2, WireType::fixed32);
  lenAsFixed.writeFixed32(8);
  for (const auto* w : {&addrAsVarint, &lenAsFixed}) {
    try {
      read(*w, p);
      ADD_FAILURE() << "wrong wire type accepted";
    } catch (const Basis::ProtobufException& e) {
      EXPECT_STREQ(e.what(), "Unexpected error when reading Protobuf bytes");
    }
  }

  WriteBufferItr hostBits;
  Addrkit::writeMessage(hostBits, Prefix("10.0.0.1/32"));
  hostBits.writeTag(2, WireType::varint);
  hostBits.writeVarint(8);
  WriteBufferItr tooLong;
  tooLong.writeTag(2, WireType::varint);
  tooLong.writeVarint(256 + 8);
  for (const auto* w : {&hostBits, &tooLong}) {
    try {
      read(*w, p);
      ADD_FAILURE() << "invalid prefix accepted";
    } catch (const Basis::RangeException& e) {
      EXPECT_STREQ(e.what(), "Addrkit::Prefix::validAsPrefix != true not allowed");
    }
  }
  EXPECT_EQ(p, Prefix("10.0.0.0/8"));  // a failed read leaves the prefix alone
}

}  // namespace
