#pragma once
#include <cstdint>
#include <string>

// Fixed-width names used across the code base (and in signature texts).
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

namespace Basis {
using String = std::string;
}
