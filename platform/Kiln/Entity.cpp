#include "Kiln/Entity.h"

#include <fmt/format.h>

#include <algorithm>

#include "Basis/Assert.h"

namespace Kiln {

namespace {

bool contains(const std::vector<Notifiee*>& subs, const Notifiee* n) {
  return std::find(subs.begin(), subs.end(), n) != subs.end();
}

}  // namespace

void Publisher::subscribe(Notifiee* n) {
  BASIS_ASSERT(n != nullptr, "/src/Kiln/Entity");
  if (contains(subs_, n)) return;
  subs_.push_back(n);
  if (n->changeSubscriber()) everSubscribed_ = true;
}

void Publisher::unsubscribe(Notifiee* n) {
  auto it = std::find(subs_.begin(), subs_.end(), n);
  if (it != subs_.end()) subs_.erase(it);
}

// Delivery walks a copy of the list, so notifiees may subscribe or
// unsubscribe while being notified; one removed before its turn is skipped.
void Publisher::publish(const Change& c) const {
  const std::vector<Notifiee*> snapshot = subs_;
  for (Notifiee* n : snapshot) {
    if (contains(subs_, n) && n->active()) n->onChange(c);
  }
}

void Publisher::publishZeroReferences() const {
  const std::vector<Notifiee*> snapshot = subs_;
  for (Notifiee* n : snapshot) {
    if (contains(subs_, n) && n->active()) n->onZeroReferences();
  }
}

Basis::String Entity::fullName() const {
  return parent_ ? fmt::format("{}/{}", parent_->fullName(), name_) : name_;
}

void Entity::parentIs(Entity* parent) {
  parent_ = parent;
  handleParent(parent);
}

}  // namespace Kiln
