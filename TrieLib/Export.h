#pragma once
// libDepotTrie.so is built with hidden visibility: only what carries
// DEPOTTRIE_API is exported. It marks the classes and functions that the
// installed headers declare, including the platform classes those headers
// use (with their vtables and type information, so that a class derived or
// an exception caught in another module is the library's own).
// DEPOTTRIE_LOCAL keeps a private member of an exported class inside the
// library when no inline code of the headers calls it.
#if defined(__GNUC__) || defined(__clang__)
#define DEPOTTRIE_API __attribute__((visibility("default")))
#define DEPOTTRIE_LOCAL __attribute__((visibility("hidden")))
#else
#define DEPOTTRIE_API
#define DEPOTTRIE_LOCAL
#endif
