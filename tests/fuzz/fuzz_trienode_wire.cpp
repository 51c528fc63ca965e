// TrieNode wire form: arbitrary bytes either decode, raise
// Basis::ProtobufException or Basis::RangeException, or reach the buffer's
// documented stop for a length past the end ("currentIdx_ + len <= len_"),
// which the harness turns into an exception. Every other assertion is a
// finding and still aborts. What decodes re-encodes to bytes that decode to
// an equal record, and re-encoding that record gives the same bytes.
#include <string>

#include "Basis/Assert.h"
#include "Basis/Buffer.h"
#include "Basis/Exception.h"
#include "FuzzCheck.h"
#include "TrieLib/TrieNode.h"

namespace {

using Routing::Lattice::TrieNode, Basis::U8;

constexpr std::string_view pastEndCondition = "currentIdx_ + len <= len_";

struct PastEnd {};

void stopOnlyPastEnd(std::string_view condition, std::string_view, std::string_view) {
  if (condition == pastEndCondition) throw PastEnd();
}

std::string hex(const U8* p, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += fmt::format("{:02x}", p[i]);
  return s;
}

// Decodes one length-delimited record from the front of bytes.
bool decoded(const U8* data, size_t size, TrieNode& node, size_t& used) {
  Basis::ReadBufferItr buf(data, size);
  try {
    Routing::Lattice::constructFromPbMessage(&node, buf);
  } catch (const Basis::ProtobufException&) {
    return false;
  } catch (const Basis::RangeException&) {
    return false;
  } catch (const PastEnd&) {
    return false;
  }
  used = buf.currentIdx();
  return true;
}

std::basic_string<U8> encoded(const TrieNode& node) {
  Basis::WriteBufferItr out;
  Routing::Lattice::writePbMessage(out, node);
  return out.bytes();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Basis::assertionHandlerIs(stopOnlyPastEnd);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  TrieNode node;
  size_t used = 0;
  if (!decoded(data, size, node, used)) return 0;
  fuzzCheck(used <= size, "decoding used {} of {} bytes", used, size);

  const std::basic_string<U8> bytes = encoded(node);
  TrieNode again;
  size_t againUsed = 0;
  fuzzCheck(decoded(bytes.data(), bytes.size(), again, againUsed),
            "{} decodes to {}, whose encoding {} does not decode", hex(data, used), stringValue(node),
            hex(bytes.data(), bytes.size()));
  fuzzCheck(againUsed == bytes.size(), "the encoding of {} decodes from {} of its {} bytes", stringValue(node),
            againUsed, bytes.size());
  fuzzCheck(again == node, "{} decodes to {}; its encoding decodes to {}", hex(data, used), stringValue(node),
            stringValue(again));
  fuzzCheck(encoded(again) == bytes, "the encoding of {} is not stable", stringValue(node));
  return 0;
}
