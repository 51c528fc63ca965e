#pragma once
#include <atomic>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Beat {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

inline constexpr std::string_view defaultSetName = "default";

class DEPOTTRIE_API Counter {
 public:
  explicit Counter(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  void inc(U64 n = 1) { value_.fetch_add(n, std::memory_order_relaxed); }
  U64 value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::string name_;
  std::atomic<U64> value_{0};
};

// A named set of counters. The numeric argument is the set's capacity hint.
class DEPOTTRIE_API CounterSet {
 public:
  CounterSet(std::string name, U32 sizeHint);
  const std::string& name() const { return name_; }
  // Registers a counter (or returns the one of that name); references stay valid.
  Counter& counterNew(std::string_view name);
  // nullptr when absent.
  const Counter* counter(std::string_view name) const;
  // Counters in registration order.
  std::vector<const Counter*> counters() const;

 private:
  std::string name_;
  std::deque<Counter> counters_;
};

}  // namespace Beat
