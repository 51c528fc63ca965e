#pragma once
// The change feed's ring (internal to the route table).
//
// A shared table NAME/changes of fixed-size entries keyed by slot number
// (change number modulo the ring's size, which is the table's first
// capacity and never changes). The writer overwrites one slot per change;
// a slot's record is copied whole under its sequence word, so a reader sees
// an entry complete or not at all. Entry numbers grow by one from 1, across
// writer restarts (a writer goes on after the largest number it finds).
// A reader at number n reads slot n mod size: the entry n, an older one (n
// is not written yet) or a newer one (the writer went round past n).
#include <memory>
#include <optional>
#include <string>

#include "Depot/SharedTable.h"
#include "RouteTable/RouteTable.h"

namespace depottrie::detail {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class ChangeRing {
 public:
  static Depot::TablePath path(const std::string& name, const std::string& root);
  static std::unique_ptr<ChangeRing> writer(const std::string& name, const std::string& root, unsigned mode,
                                            std::uint64_t entries);
  static std::unique_ptr<ChangeRing> reader(const std::string& name, const std::string& root);

  std::uint64_t size() const { return size_; }
  // The entry at slot number % size, whatever its number; nullopt when the
  // slot was never written.
  std::optional<Change> at(std::uint64_t number) const;
  // The largest number written (0 when none), and the newest entry of each
  // family (gaps included), read by a pass over the ring.
  struct Newest {
    std::uint64_t number = 0;
    std::optional<Change> ipv4, ipv6;
  };
  Newest newest() const;
  void write(const Change& change);

 private:
  std::unique_ptr<Depot::Table> table_;
  std::uint64_t size_ = 0;
};

}  // namespace depottrie::detail
