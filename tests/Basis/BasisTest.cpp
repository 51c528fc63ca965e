#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "Basis/Assert.h"
#include "Basis/Buffer.h"
#include "Basis/Exception.h"
#include "Basis/Ptr.h"

using Basis::WireType, Basis::U8, Basis::U32, Basis::U64;
using Bytes = std::basic_string<U8>;

Basis::ReadBufferItr reader(const Bytes& b) { return Basis::ReadBufferItr(b.data(), b.size()); }

TEST(Buffer, VarintsRoundTripAtBoundaries) {
  const std::pair<U64, Bytes> cases[] = {{0, {0x00}}, {127, {0x7f}}, {128, {0x80, 0x01}}, {300, {0xac, 0x02}},
      {U64(1) << 63, Bytes(9, 0x80) + Bytes{0x01}}, {~U64(0), Bytes(9, 0xff) + Bytes{0x01}}};
  for (const auto& [value, wire] : cases) {
    Basis::WriteBufferItr w;
    w.writeVarint(value);
    EXPECT_EQ(w.bytes(), wire) << value;
    Basis::ReadBufferItr r = reader(wire);
    EXPECT_TRUE(r.readVarint() == value && r.atEnd()) << value;
  }
}

TEST(Buffer, FramesAndFixedWidthFieldsReadBack) {
  Basis::WriteBufferItr w;
  for (size_t n : {0, 200}) {  // frame lengths of one and two bytes
    w.writeTag(15702, WireType::lengthDelimited);
    const size_t start = w.beginLengthDelimited();
    w.writeBytes(Bytes(n, 0x5a).data(), n);
    w.endLengthDelimited(start);
  }
  w.writeFixed32(0x12345678u);
  EXPECT_EQ(w.bytes().substr(w.size() - 4), (Bytes{0x78, 0x56, 0x34, 0x12}));
  Basis::ReadBufferItr r = reader(w.bytes());
  U32 field;
  WireType type;
  r.readTag(field, type);
  EXPECT_TRUE(field == 15702 && type == WireType::lengthDelimited && r.readLengthDelimited().atEnd());
  r.readTag(field, type);
  r.skipField(type);
  EXPECT_TRUE(r.readFixed32() == 0x12345678u && r.atEnd());
}

TEST(Buffer, MalformedBytesRaiseAndReadingPastTheEndIsAnAssertion) {
  const Bytes eleven = Bytes(10, 0x80) + Bytes{0x01};
  EXPECT_THROW(reader(eleven).readVarint(), Basis::ProtobufException);
  U32 field;
  WireType type;
  for (const Bytes& tag : {Bytes{0x02}, Bytes{0x80, 0x80, 0x80, 0x80, 0x10}})  // field 0; above 32 bits
    EXPECT_THROW(reader(tag).readTag(field, type), Basis::ProtobufException);
  for (U8 unknown : {3, 4, 6, 7}) EXPECT_THROW(reader(eleven).skipField(WireType(unknown)), Basis::ProtobufException);
  const std::string need = "^assertion failed: currentIdx_ \\+ len <= len_ \\(/src/Basis/Buffer: ";
  EXPECT_DEATH(reader({1, 2, 3}).readFixed32(), need);
  EXPECT_DEATH(reader({0x80, 0x80}).readVarint(), need);
  EXPECT_DEATH(reader(Bytes(9, 0xff) + Bytes{0x01}).readLengthDelimited(), need);  // a length near 2^64
}

// Counts its destructions; its hook drops a reference of its own and may hand the node to an adopter.
struct Tracked : Basis::Node {
  explicit Tracked(int& destroyed) : destroyed(destroyed) {}
  ~Tracked() override { ++destroyed; }
  void lastUserGone() override {
    { Basis::Ptr<Tracked> nested(this); }
    if (adopter) *std::exchange(adopter, nullptr) = Basis::Ptr<Tracked>(this);
  }
  int& destroyed;
  Basis::Ptr<Tracked>* adopter = nullptr;
};

TEST(Ptr, CountsStayExactAcrossThreadsAndTheLastReleaseDeletesUnlessTheHookHandsTheNodeOn) {
  int destroyed = 0;
  Basis::Ptr<Tracked> user(new Tracked(destroyed)), adopter;
  Basis::threadsActiveIs(true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&user] { for (int i = 0; i < 20000; ++i) Basis::Ptr<Tracked> copy = user; });
  for (auto& t : threads) t.join();
  Basis::threadsActiveIs(false);
  EXPECT_EQ(user->references(), 1u);
  user->adopter = &adopter;
  user = nullptr;
  ASSERT_TRUE(destroyed == 0 && adopter && adopter->references() == 1);
  adopter = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(Assert, FailurePrintsOneLineAndAbortsUnlessAHandlerUnwinds) {
  const int x = 1;
  EXPECT_DEATH(BASIS_ASSERT(x == 2, "/src/Test"), "^assertion failed: x == 2 \\(/src/Test: [^\n]*TestBody\\(\\)\\)\n$");
  Basis::assertionHandlerIs([](std::string_view cond, auto, auto) { throw std::runtime_error(std::string(cond)); });
  EXPECT_THROW(BASIS_ASSERT(x == 2, "/src/Test"), std::runtime_error);
  Basis::assertionHandlerIs(nullptr);
}
