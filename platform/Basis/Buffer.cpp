#include "Basis/Buffer.h"

#include "Basis/Assert.h"
#include "Basis/Exception.h"

namespace Basis {

namespace {

constexpr const char* malformedText = "Unexpected error when reading Protobuf bytes";
constexpr unsigned maxVarintBytes = 10;

// Encodes v as a varint into out (at least maxVarintBytes long); returns the
// number of bytes used.
size_t encodeVarint(U64 v, U8* out) {
  size_t n = 0;
  while (v >= 0x80) {
    out[n++] = U8(v | 0x80);
    v >>= 7;
  }
  out[n++] = U8(v);
  return n;
}

}  // namespace

// Stops the process when len more bytes are not available; written so that a
// huge len cannot wrap the sum. Used in each reader so that the failure names it.
#define BASIS_BUFFER_NEED(n)                                                        \
  do {                                                                              \
    const size_t len = (n);                                                         \
    BASIS_ASSERT_TEXT(len <= len_ - currentIdx_, "currentIdx_ + len <= len_",       \
                      "/src/Basis/Buffer", __PRETTY_FUNCTION__);                    \
  } while (0)

U64 ReadBufferItr::readVarint() {
  U64 v = 0;
  for (unsigned i = 0; i < maxVarintBytes; ++i) {
    BASIS_BUFFER_NEED(1);
    const U8 b = data_[currentIdx_++];
    v |= U64(b & 0x7f) << (7 * i);
    if (!(b & 0x80)) return v;
  }
  throw ProtobufException(malformedText);
}

U32 ReadBufferItr::readFixed32() {
  BASIS_BUFFER_NEED(4);
  const U8* p = data_ + currentIdx_;
  currentIdx_ += 4;
  return U32(p[0]) | (U32(p[1]) << 8) | (U32(p[2]) << 16) | (U32(p[3]) << 24);
}

U64 ReadBufferItr::readFixed64() {
  BASIS_BUFFER_NEED(8);
  const U8* p = data_ + currentIdx_;
  currentIdx_ += 8;
  U64 v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

void ReadBufferItr::readTag(U32& fieldNumber, WireType& wireType) {
  const U64 tag = readVarint();
  // Field numbers are positive and fit 29 bits, so a tag fits 32 bits.
  if (tag > 0xffffffffu || (tag >> 3) == 0) throw ProtobufException(malformedText);
  fieldNumber = U32(tag >> 3);
  wireType = WireType(tag & 7);
}

ReadBufferItr ReadBufferItr::readLengthDelimited() {
  const U64 n = readVarint();
  BASIS_BUFFER_NEED(n);
  ReadBufferItr body(data_ + currentIdx_, size_t(n));
  currentIdx_ += size_t(n);
  return body;
}

void ReadBufferItr::skipField(WireType wireType) {
  switch (wireType) {
    case WireType::varint:
      readVarint();
      return;
    case WireType::fixed64:
      advance(8);
      return;
    case WireType::lengthDelimited:
      readLengthDelimited();
      return;
    case WireType::fixed32:
      advance(4);
      return;
  }
  throw ProtobufException(malformedText);
}

void ReadBufferItr::advance(size_t n) {
  BASIS_BUFFER_NEED(n);
  currentIdx_ += n;
}

void WriteBufferItr::writeVarint(U64 v) {
  U8 tmp[maxVarintBytes];
  buf_.append(tmp, encodeVarint(v, tmp));
}

void WriteBufferItr::writeFixed32(U32 v) {
  const U8 tmp[4] = {U8(v), U8(v >> 8), U8(v >> 16), U8(v >> 24)};
  buf_.append(tmp, 4);
}

void WriteBufferItr::writeTag(U32 fieldNumber, WireType wireType) {
  writeVarint((U64(fieldNumber) << 3) | U64(wireType));
}

void WriteBufferItr::writeBytes(const U8* p, size_t len) { buf_.append(p, len); }

void WriteBufferItr::endLengthDelimited(size_t start) {
  BASIS_ASSERT(start <= buf_.size(), "/src/Basis/Buffer");
  U8 tmp[maxVarintBytes];
  buf_.insert(start, tmp, encodeVarint(buf_.size() - start, tmp));
}

}  // namespace Basis
