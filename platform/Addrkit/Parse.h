#pragma once
#include <string>
#include <string_view>

#include "Basis/Types.h"

// Text parsing shared by the address and prefix classes; each returns false
// on text that is not exactly the expected form and allocates nothing.
namespace Addrkit::parse {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Strict dotted quad: four decimal octets of 1 to 3 digits, each 0 to 255,
// none written with a leading zero (some tools read 010 as octal 8, others as
// decimal 10, so such text is refused rather than guessed at).
bool ip4(std::string_view text, U8* out);
// For a refused address or prefix: ": 'OCTET' has a leading zero..." when a
// dotted octet of text's address part is written with one, else "".
std::string leadingZeroNote(std::string_view text);
// Any form inet_pton accepts for AF_INET6.
bool ip6(std::string_view text, U8* out);
// A prefix length: 1 to 3 decimal digits, at most max.
bool length(std::string_view text, U32 max, U32& out);

}  // namespace Addrkit::parse
