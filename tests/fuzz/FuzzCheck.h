#pragma once
// Property checks for the fuzz targets: a property that does not hold stops
// the run with one line on stderr, and libFuzzer keeps the input.
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

template <class... Args>
void fuzzCheck(bool ok, fmt::format_string<Args...> form, Args&&... args) {
  if (ok) return;
  fmt::print(stderr, "fuzz property failed: {}\n", fmt::format(form, std::forward<Args>(args)...));
  std::fflush(stderr);
  std::abort();
}

inline std::string_view textOf(const unsigned char* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}
