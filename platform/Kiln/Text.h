#pragma once
#include <string>
#include <string_view>

#include "Addrkit/Prefix.h"
#include "Basis/Exception.h"
#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Kiln {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// The text form of structured values: TYPE(attr=value, attr=value, ...),
// attributes in declaration order.

class DEPOTTRIE_API ParseException : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

// A consuming cursor over text. Every read either consumes what it reads or
// raises ParseException naming the position and what was expected there.
class DEPOTTRIE_API CharRange {
 public:
  explicit CharRange(std::string_view text) : text_(text) {}
  // The range only views its text; a temporary string would dangle.
  explicit CharRange(std::string&&) = delete;
  explicit CharRange(const char* text) : text_(text) {}
  std::string_view rest() const { return text_.substr(pos_); }
  size_t position() const { return pos_; }
  bool atEnd() const { return pos_ == text_.size(); }

  // On a mismatch the cursor stops at the first character that differs.
  void expect(std::string_view literal);
  bool consumeIf(std::string_view literal);
  // Characters up to the next ',' ')' or space (at least one).
  std::string_view readToken();
  U32 readU32();
  bool readBool();
  Addrkit::Prefix readPrefix();
  Addrkit::Ip6Prefix readIp6Prefix();

  // Structured values: "TYPE(", then ", " before each attribute but the
  // first and "NAME=", then ")".
  void beginValue(std::string_view typeName);
  void attribute(std::string_view name, bool first = false);
  void endValue();

 private:
  [[noreturn]] DEPOTTRIE_LOCAL void fail(std::string_view expected) const;
  std::string_view text_;
  size_t pos_ = 0;
};

// Builds the text form.
class DEPOTTRIE_API TextWriter {
 public:
  explicit TextWriter(std::string_view typeName);
  template <class V>
  TextWriter& attribute(std::string_view name, const V& v) {
    return raw(name, fmt::format("{}", v));
  }
  std::string str() const { return out_ + ")"; }

 private:
  TextWriter& raw(std::string_view name, const std::string& value);
  std::string out_;
  bool first_ = true;
};

}  // namespace Kiln
