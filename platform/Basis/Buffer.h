#pragma once
#include <cstddef>

#include <string>

#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Basis {

// Protobuf wire types.
enum class WireType : U8 { varint = 0, fixed64 = 1, lengthDelimited = 2, fixed32 = 5 };

// Reads protobuf primitives from a byte range. Reading past the end of the
// range is an assertion ("currentIdx_ + len <= len_"); malformed bytes (a
// varint longer than 10 bytes, an unknown wire type) raise ProtobufException
// with "Unexpected error when reading Protobuf bytes".
class DEPOTTRIE_API ReadBufferItr {
 public:
  ReadBufferItr(const U8* data, size_t len) : data_(data), len_(len) {}

  size_t currentIdx() const { return currentIdx_; }
  size_t remaining() const { return len_ - currentIdx_; }
  bool atEnd() const { return currentIdx_ == len_; }

  U64 readVarint();
  U32 readFixed32();
  U64 readFixed64();
  // Splits a tag into field number and wire type.
  void readTag(U32& fieldNumber, WireType& wireType);
  // Reads a length varint and returns an iterator over exactly that many
  // bytes; this iterator advances past them.
  ReadBufferItr readLengthDelimited();
  // Skips one field's value by its wire type.
  void skipField(WireType wireType);
  void advance(size_t len);

 private:
  const U8* data_;
  size_t len_;
  size_t currentIdx_ = 0;
};

// Writes protobuf primitives into a growing byte buffer.
class DEPOTTRIE_API WriteBufferItr {
 public:
  const U8* data() const { return buf_.data(); }
  size_t size() const { return buf_.size(); }
  const std::basic_string<U8>& bytes() const { return buf_; }

  void writeVarint(U64 v);
  void writeFixed32(U32 v);
  void writeTag(U32 fieldNumber, WireType wireType);
  void writeBytes(const U8* p, size_t len);
  // Length-delimited framing: begin() remembers where the body starts;
  // end() inserts the body's length in front of it.
  size_t beginLengthDelimited() const { return buf_.size(); }
  void endLengthDelimited(size_t start);

 private:
  std::basic_string<U8> buf_;
};

}  // namespace Basis
