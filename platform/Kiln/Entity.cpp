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
  countChangeSubscribers();
}

void Publisher::unsubscribe(Notifiee* n) {
  auto it = std::find(subs_.begin(), subs_.end(), n);
  if (it == subs_.end()) return;
  subs_.erase(it);
  countChangeSubscribers();
}

// Counted afresh from the notifiees still subscribed (never from the one
// leaving, which may be half destroyed).
void Publisher::countChangeSubscribers() {
  changeSubscribers_ =
      size_t(std::count_if(subs_.begin(), subs_.end(), [](const Notifiee* s) { return s->changeSubscriber(); }));
}

// Delivery walks a copy of the list, so notifiees may subscribe or
// unsubscribe while being notified; one removed before its turn is skipped.
// The copy lives on the stack for the few subscribers an entity usually has.
template <class F>
void Publisher::forEachActive(F&& deliver) const {
  constexpr size_t inlineCount = 8;
  Notifiee* local[inlineCount];
  std::vector<Notifiee*> heap;
  Notifiee* const* snapshot = local;
  const size_t count = subs_.size();
  if (count <= inlineCount) std::copy(subs_.begin(), subs_.end(), local);
  else snapshot = (heap = subs_).data();
  for (size_t i = 0; i < count; ++i) {
    Notifiee* n = snapshot[i];
    if (contains(subs_, n) && n->active()) deliver(n);
  }
}

void Publisher::publish(const Change& c) const {
  forEachActive([&c](Notifiee* n) { n->onChange(c); });
}

void Publisher::publishZeroReferences() const {
  forEachActive([](Notifiee* n) { n->onZeroReferences(); });
}

Basis::String Entity::fullName() const {
  return parent_ ? fmt::format("{}/{}", parent_->fullName(), name_) : name_;
}

void Entity::parentIs(Entity* parent) {
  parent_ = parent;
  handleParent(parent);
}

}  // namespace Kiln
