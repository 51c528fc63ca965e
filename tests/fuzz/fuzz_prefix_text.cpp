// Prefix text parsing: any text either parses or raises
// Basis::RangeException; a parsed prefix is valid, prints the same three
// ways and parses back from its printed form to an equal prefix.
#include <optional>
#include <sstream>
#include <string>

#include "Addrkit/Prefix.h"
#include "Basis/Exception.h"
#include "FuzzCheck.h"

namespace {

template <class P>
std::optional<P> parsed(std::string_view text) {
  try {
    return P(text);
  } catch (const Basis::RangeException&) {
    return std::nullopt;
  }
}

template <class P>
std::string streamed(const P& p) {
  std::ostringstream os;
  os << p;
  return os.str();
}

template <class P>
void roundTrip(const P& p, std::string_view text, std::string_view typeName) {
  const std::string printed = p.stringValue();
  fuzzCheck(streamed(p) == printed && fmt::format("{}", p) == printed,
            "{} from '{}' prints differently by stringValue, << and fmt", typeName, text);
  const std::optional<P> again = parsed<P>(printed);
  fuzzCheck(again.has_value(), "{} from '{}' prints as '{}', which does not parse", typeName, text, printed);
  fuzzCheck(*again == p, "{} from '{}' prints as '{}', which parses to {}", typeName, text, printed,
            again->stringValue());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const std::string_view text = textOf(data, size);
  const std::optional<Addrkit::Prefix> v4 = parsed<Addrkit::Prefix>(text);
  const std::optional<Addrkit::Ip6Prefix> v6 = parsed<Addrkit::Ip6Prefix>(text);
  const std::optional<Addrkit::IpGenPrefix> gen = parsed<Addrkit::IpGenPrefix>(text);

  if (v4) {
    fuzzCheck(v4->validAsPrefix() && v4->len() <= 32, "'{}' parsed to an invalid IPv4 prefix", text);
    roundTrip(*v4, text, "Prefix");
  }
  if (v6) {
    fuzzCheck(v6->validAsPrefix() && v6->len() <= 128, "'{}' parsed to an invalid IPv6 prefix", text);
    roundTrip(*v6, text, "Ip6Prefix");
  }
  fuzzCheck(!(v4 && v6), "'{}' parses as both an IPv4 and an IPv6 prefix", text);

  // The generic prefix takes the IPv6 form when the text holds a ':', else
  // the IPv4 form, and agrees with that family's own parse.
  const bool colon = text.find(':') != std::string_view::npos;
  if (colon) {
    fuzzCheck(gen.has_value() == v6.has_value() && (!gen || *gen == Addrkit::IpGenPrefix(*v6)),
              "IpGenPrefix and Ip6Prefix disagree on '{}'", text);
  } else {
    fuzzCheck(gen.has_value() == v4.has_value() && (!gen || *gen == Addrkit::IpGenPrefix(*v4)),
              "IpGenPrefix and Prefix disagree on '{}'", text);
  }
  if (gen) {
    fuzzCheck(!gen->isEmpty(), "'{}' parsed to the empty IpGenPrefix", text);
    roundTrip(*gen, text, "IpGenPrefix");
  }
  return 0;
}
