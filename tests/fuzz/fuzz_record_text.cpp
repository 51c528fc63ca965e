// Record text form: any text either parses as a TrieNode / TrieNode6 or
// raises Kiln::ParseException; a parsed record prints to text that parses
// back to an equal record and prints the same again. The cursor form
// (which may leave text over) agrees with the whole-string form.
#include <optional>
#include <string>

#include "FuzzCheck.h"
#include "Kiln/Text.h"
#include "TrieLib/TrieNode.h"

namespace {

using Routing::Lattice::TrieNode;
using Routing::Lattice::TrieNode6;

template <class N>
std::optional<N> wholeString(std::string_view text) {
  try {
    return strepToValue(Basis::String(text), static_cast<N*>(nullptr));
  } catch (const Kiln::ParseException&) {
    return std::nullopt;
  }
}

template <class N>
void check(std::string_view text, std::string_view typeName) {
  const std::optional<N> whole = wholeString<N>(text);

  Kiln::CharRange cursor(text);
  std::optional<N> prefixOfText;
  try {
    prefixOfText.emplace(cursor);
  } catch (const Kiln::ParseException&) {
    fuzzCheck(!whole, "{}: '{}' parses whole but not through the cursor", typeName, text);
  }
  if (prefixOfText) {
    fuzzCheck(whole.has_value() == cursor.atEnd(),
              "{}: '{}' parses through the cursor up to {}, yet as a whole string {}", typeName, text,
              cursor.position(), whole ? "it parses" : "it does not");
    fuzzCheck(!whole || *whole == *prefixOfText, "{}: '{}' parses to two different records", typeName, text);
  }
  if (!whole) return;

  const std::string printed = stringValue(*whole);
  const std::optional<N> again = wholeString<N>(printed);
  fuzzCheck(again.has_value(), "{}: '{}' prints as '{}', which does not parse", typeName, text, printed);
  fuzzCheck(*again == *whole, "{}: '{}' prints as '{}', which parses to a different record", typeName, text,
            printed);
  fuzzCheck(stringValue(*again) == printed, "{}: '{}' prints unstably", typeName, text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const std::string_view text = textOf(data, size);
  check<TrieNode>(text, "TrieNode");
  check<TrieNode6>(text, "TrieNode6");
  return 0;
}
