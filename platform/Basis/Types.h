#pragma once
#include <cstdint>
#include <string>

// Fixed-width names used across the code base (and in signature texts). They
// live in Basis; every other namespace takes them in with a using-declaration,
// so that no header of the library puts a name at global scope.
namespace Basis {
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using String = std::string;
}  // namespace Basis
