#include "Depot/Table.h"

#include <fmt/format.h>

#include <cstring>

namespace Depot {

TableFullException::TableFullException(U64 occupancy, U64 tableSize, std::string_view rootPath)
    : Basis::Exception(fmt::format("Depot table full (occupancy:{} tableSize:{}) {}", occupancy, tableSize, rootPath)) {}

U64 keyHash(const U8* key, U32 len) {
  U64 h = 0x9E3779B97F4A7C15ull ^ len;
  for (; len >= 8; key += 8, len -= 8) {
    U64 v;
    std::memcpy(&v, key, 8);
    h = (h ^ v) * 0xbf58476d1ce4e5b9ull;
    h ^= h >> 31;
  }
  U64 v = 0;
  std::memcpy(&v, key, len);
  h = (h ^ v) * 0x94d049bb133111ebull;
  h ^= h >> 29;
  h *= 0xbf58476d1ce4e5b9ull;
  return h ^ (h >> 32);
}

}  // namespace Depot
