#pragma once
// Black words (not installed). A node marks the prefixes it stores as bits of
// 32-bit words: bit 0x80000000 >> (len - 1) stands for length len (1..32),
// so length 1 is the top bit and length 32 the lowest. The IPv6 set is four
// such words; word w holds the lengths 32w+1 .. 32w+32.
#include <algorithm>
#include <bit>

#include "Basis/Types.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// The longest length among the set bits of a non-zero black word.
inline U32 longestBlack(U32 bits) { return 32 - std::countr_zero(bits); }
// The shortest length among the set bits of a non-zero black word.
inline U32 shortestBlack(U32 bits) { return std::countl_zero(bits) + 1; }

// The bits of lengths 1..n (n <= 32; none for n = 0). Address bits count the
// same way, so this is also the mask of an address's first n bits.
inline U32 lengthsUpTo(U32 n) { return n == 0 ? 0u : 0xFFFFFFFFu << (32 - n); }
// The same for word w of a four-word set: the bits of lengths 32w+1..n.
inline U32 lengthsUpTo(U32 w, U32 n) { return n <= 32 * w ? 0u : lengthsUpTo(std::min(n - 32 * w, 32u)); }

// The black bits of lengths 1..c.
inline U32 blackUpTo(U32 black, U32 c) { return black & lengthsUpTo(c); }

}  // namespace Routing::Lattice
