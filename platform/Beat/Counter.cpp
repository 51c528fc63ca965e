#include "Beat/Counter.h"

namespace Beat {

// Counters live in a deque, which keeps their addresses without reserving
// room up front; the size hint needs no storage decision here.
CounterSet::CounterSet(std::string name, [[maybe_unused]] U32 sizeHint) : name_(std::move(name)) {}

Counter& CounterSet::counterNew(std::string_view name) {
  for (Counter& c : counters_) {
    if (c.name() == name) return c;
  }
  return counters_.emplace_back(std::string(name));
}

const Counter* CounterSet::counter(std::string_view name) const {
  for (const Counter& c : counters_) {
    if (c.name() == name) return &c;
  }
  return nullptr;
}

std::vector<const Counter*> CounterSet::counters() const {
  std::vector<const Counter*> all;
  all.reserve(counters_.size());
  for (const Counter& c : counters_) all.push_back(&c);
  return all;
}

}  // namespace Beat
