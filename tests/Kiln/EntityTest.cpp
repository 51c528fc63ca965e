#include <gtest/gtest.h>

#include <any>
#include <vector>

#include "Kiln/Entity.h"

namespace {

// Records what it receives; may unsubscribe itself or another notifiee
// while being notified.
class Recorder : public Kiln::Notifiee {
 public:
  explicit Recorder(Kiln::Publisher& p) : publisher_(p) {}
  void onChange(const Kiln::Change& c) override {
    fields.push_back(c.field);
    if (dropSelf) publisher_.unsubscribe(this);
    if (dropOther) publisher_.unsubscribe(dropOther);
  }
  void onZeroReferences() override { ++zeroReferences; }

  std::vector<Kiln::FieldId> fields;
  int zeroReferences = 0;
  bool dropSelf = false;
  Recorder* dropOther = nullptr;

 private:
  Kiln::Publisher& publisher_;
};

class ZeroOnly : public Kiln::Notifiee {
 public:
  bool changeSubscriber() const override { return false; }
};

TEST(EntityTest, publisherDeliversToActiveSubscribersOnly) {
  Kiln::Publisher p;
  Recorder a(p), b(p);
  EXPECT_TRUE(p.initialState());
  ZeroOnly watcher;
  p.subscribe(&watcher);
  EXPECT_TRUE(p.initialState());
  p.subscribe(&a);
  p.subscribe(&a);
  p.subscribe(&b);
  EXPECT_FALSE(p.initialState());
  EXPECT_EQ(p.subscriberCount(), 3u);
  a.activeIs(true);
  p.publish({7, std::any(1)});
  EXPECT_EQ(a.fields, std::vector<Kiln::FieldId>{7});
  EXPECT_TRUE(b.fields.empty());
  b.activeIs(true);
  p.publish({8, {}});
  p.publishZeroReferences();
  EXPECT_EQ(a.fields, (std::vector<Kiln::FieldId>{7, 8}));
  EXPECT_EQ(b.fields, std::vector<Kiln::FieldId>{8});
  EXPECT_EQ(a.zeroReferences, 1);
  p.unsubscribe(&a);
  p.unsubscribe(&b);
  p.unsubscribe(&watcher);
  EXPECT_EQ(p.subscriberCount(), 0u);
  EXPECT_FALSE(p.initialState());
  p.publish({9, {}});
  EXPECT_EQ(a.fields.size(), 2u);
}

TEST(EntityTest, subscribersMayUnsubscribeDuringDelivery) {
  Kiln::Publisher p;
  Recorder first(p), second(p), third(p);
  for (Recorder* r : {&first, &second, &third}) {
    p.subscribe(r);
    r->activeIs(true);
  }
  first.dropSelf = true;
  first.dropOther = &second;
  p.publish({1, {}});
  EXPECT_EQ(first.fields, std::vector<Kiln::FieldId>{1});
  EXPECT_TRUE(second.fields.empty());
  EXPECT_EQ(third.fields, std::vector<Kiln::FieldId>{1});
  EXPECT_EQ(p.subscriberCount(), 1u);
  p.publish({2, {}});
  EXPECT_EQ(first.fields.size(), 1u);
  EXPECT_EQ(third.fields, (std::vector<Kiln::FieldId>{1, 2}));
}

class Child : public Kiln::Entity {
 public:
  Child(Basis::String name, bool& destroyed) : Kiln::Entity(std::move(name)), destroyed_(destroyed) {}
  ~Child() override { destroyed_ = true; }
  std::vector<Kiln::Entity*> parents;

 protected:
  void handleParent(Kiln::Entity* p) override { parents.push_back(p); }

 private:
  bool& destroyed_;
};

// Takes ownership of its entity when the last user reference goes, once.
class Adopter : public Kiln::Notifiee {
 public:
  explicit Adopter(Child* c) : child_(c) {}
  bool changeSubscriber() const override { return false; }
  void onZeroReferences() override {
    holder = Basis::Ptr<Kiln::Entity>(child_);
    child_->publisher()->unsubscribe(this);
  }
  Basis::Ptr<Kiln::Entity> holder;

 private:
  Child* child_;
};

TEST(EntityTest, namesAndParents) {
  bool rootGone = false, childGone = false;
  {
    Basis::Ptr<Child> root = Kiln::entityNew<Child>("root", rootGone);
    Basis::Ptr<Child> child = Kiln::entityNew<Child>("leaf", childGone);
    EXPECT_EQ(child->fullName(), "leaf");
    child->parentIs(root.ptr());
    EXPECT_EQ(child->parent(), root.ptr());
    EXPECT_EQ(child->fullName(), "root/leaf");
    child->parentIs(nullptr);
    EXPECT_EQ(child->fullName(), "leaf");
    EXPECT_EQ(child->parents, (std::vector<Kiln::Entity*>{root.ptr(), nullptr}));
  }
  EXPECT_TRUE(rootGone);
  EXPECT_TRUE(childGone);
}

TEST(EntityTest, zeroReferencesHandsOwnershipToANotifiee) {
  bool destroyed = false;
  Basis::Ptr<Child> c = Kiln::entityNew<Child>("adopted", destroyed);
  Adopter adopter(c.ptr());
  c->publisher()->subscribe(&adopter);
  adopter.activeIs(true);
  EXPECT_TRUE(c->publisher()->initialState());
  c.reset();
  ASSERT_FALSE(destroyed);
  ASSERT_TRUE(adopter.holder);
  EXPECT_EQ(adopter.holder->references(), 1u);
  EXPECT_EQ(adopter.holder->name(), "adopted");
  EXPECT_EQ(adopter.holder->publisher()->subscriberCount(), 0u);
  adopter.holder.reset();
  EXPECT_TRUE(destroyed);
}

}  // namespace
