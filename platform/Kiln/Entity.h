#pragma once
#include <any>
#include <vector>

#include "Basis/Ptr.h"
#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Kiln {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

using FieldId = U32;

// One published change: the field and the key (collections) or old value
// (attributes) it carries.
struct Change {
  FieldId field;
  std::any value;
};

// Subscriber of a publisher. Inactive notifiees receive nothing.
class DEPOTTRIE_API Notifiee {
 public:
  virtual ~Notifiee() = default;
  virtual void onChange(const Change&) {}
  virtual void onZeroReferences() {}
  bool active() const { return active_; }
  void activeIs(bool a) { active_ = a; }
  // A notifiee that only watches for zero references does not take the
  // publisher out of its initial state.
  virtual bool changeSubscriber() const { return true; }

 private:
  bool active_ = false;
};

class DEPOTTRIE_API Publisher : public Basis::NotifierBase {
 public:
  void subscribe(Notifiee* n);
  void unsubscribe(Notifiee* n);
  // True while no change subscriber has ever subscribed.
  bool initialState() const { return !everSubscribed_; }
  size_t subscriberCount() const { return subs_.size(); }
  // Whether a change published now reaches a notifiee that watches changes.
  // With none subscribed, a caller may skip building the change (the value
  // it would carry) altogether.
  bool changesHeard() const { return changeSubscribers_ != 0; }
  // Delivers to every active subscriber; subscribers may unsubscribe
  // themselves (or others) while being notified.
  void publish(const Change& c) const;
  void publishZeroReferences() const;

 private:
  template <class F>
  void forEachActive(F&& deliver) const;
  DEPOTTRIE_LOCAL void countChangeSubscribers();
  std::vector<Notifiee*> subs_;
  size_t changeSubscribers_ = 0;
  bool everSubscribed_ = false;
};

// Base of named, reference-counted entities with a parent and a publisher.
class DEPOTTRIE_API Entity : public Basis::Node {
 public:
  explicit Entity(Basis::String name) : name_(std::move(name)) {}

  const Basis::String& name() const { return name_; }
  // "PARENT_FULL_NAME/NAME" under a parent, else the name.
  Basis::String fullName() const;
  Entity* parent() const { return parent_; }
  // Attaches (or, with nullptr, detaches) and calls handleParent.
  void parentIs(Entity* parent);
  Publisher* publisher() const override { return &publisher_; }
  bool beingDestroyed() const { return beingDestroyed_; }

 protected:
  virtual void handleParent(Entity*) {}
  void beingDestroyedIs() { beingDestroyed_ = true; }
  // The last user reference went: subscribers may take ownership.
  void lastUserGone() override { publisher_.publishZeroReferences(); }

 private:
  Basis::String name_;
  Entity* parent_ = nullptr;
  mutable Publisher publisher_;
  bool beingDestroyed_ = false;
};

// The runtime's entity-creation path.
template <class T, class... A>
Basis::Ptr<T> entityNew(A&&... a) {
  return Basis::Ptr<T>(new T(std::forward<A>(a)...));
}

}  // namespace Kiln
