#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Basis/Ptr.h"

namespace {

using Basis::Node;
using Basis::Ptr;

// Records its destruction and the number of times its hook ran.
class Tracked : public Node {
 public:
  explicit Tracked(bool& destroyed) : destroyed_(destroyed) {}
  ~Tracked() override { destroyed_ = true; }
  int hookCalls = 0;

 protected:
  void lastUserGone() override { ++hookCalls; }

 private:
  bool& destroyed_;
};

class Derived : public Tracked {
 public:
  using Tracked::Tracked;
};

TEST(PtrTest, countsReferences) {
  bool destroyed = false;
  Ptr<Tracked> a(new Tracked(destroyed));
  EXPECT_EQ(a->references(), 1u);
  Ptr<Tracked> b = a;
  EXPECT_EQ(a->references(), 2u);
  EXPECT_TRUE(a == b);
  Ptr<Tracked> c(std::move(b));
  EXPECT_FALSE(b);
  EXPECT_EQ(c->references(), 2u);
  c = a;  // same object: count unchanged
  EXPECT_EQ(a->references(), 2u);
  c = nullptr;
  EXPECT_EQ(a->references(), 1u);
  EXPECT_FALSE(destroyed);
  a.reset();
  EXPECT_TRUE(destroyed);

  destroyed = false;
  Ptr<Derived> d(new Derived(destroyed));
  Ptr<Tracked> base = d;
  EXPECT_EQ(base->references(), 2u);
  d = Ptr<Derived>();
  EXPECT_FALSE(destroyed);
  base = nullptr;
  EXPECT_TRUE(destroyed);
}

// On its first last-user-gone it hands itself to a holder; the second time it
// lets itself go.
class HandsOff : public Tracked {
 public:
  HandsOff(bool& destroyed, Ptr<HandsOff>& holder) : Tracked(destroyed), holder_(holder) {}

 protected:
  void lastUserGone() override {
    Tracked::lastUserGone();
    if (hookCalls == 1) holder_ = Ptr<HandsOff>(this);
  }

 private:
  Ptr<HandsOff>& holder_;
};

TEST(PtrTest, hookCanHandOwnershipElsewhere) {
  bool destroyed = false;
  Ptr<HandsOff> holder;
  HandsOff* raw = new HandsOff(destroyed, holder);
  Ptr<HandsOff> user(raw);
  user = nullptr;
  EXPECT_FALSE(destroyed);
  ASSERT_EQ(holder.ptr(), raw);
  EXPECT_EQ(raw->references(), 1u);
  EXPECT_EQ(raw->hookCalls, 1);

  Ptr<HandsOff> again = holder;  // a new user and its release run the hook again
  holder = nullptr;
  EXPECT_EQ(raw->hookCalls, 1);
  again = nullptr;
  EXPECT_TRUE(destroyed);
}

// Takes and drops references to itself inside its hook.
class NestedRelease : public Tracked {
 public:
  using Tracked::Tracked;
  Ptr<NestedRelease>* keep = nullptr;

 protected:
  void lastUserGone() override {
    Tracked::lastUserGone();
    { Ptr<NestedRelease> temp(this); }  // count 1 -> 0 inside the hook
    if (keep) *keep = Ptr<NestedRelease>(this);
  }
};

TEST(PtrTest, nestedReleaseLeavesDecisionToOuterCall) {
  bool destroyed = false;
  NestedRelease* raw = new NestedRelease(destroyed);
  Ptr<NestedRelease>(raw).reset();
  EXPECT_TRUE(destroyed);  // one hook run, then deleted by the outer release

  destroyed = false;
  Ptr<NestedRelease> holder;
  raw = new NestedRelease(destroyed);
  raw->keep = &holder;
  Ptr<NestedRelease>(raw).reset();
  EXPECT_FALSE(destroyed);  // the nested release did not delete it
  EXPECT_EQ(raw->hookCalls, 1);
  EXPECT_EQ(raw->references(), 1u);
  raw->keep = nullptr;
  holder = nullptr;
  EXPECT_TRUE(destroyed);
}

TEST(PtrTest, releasingAnUnreferencedNodeIsAnAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct Plain : Node {};
  Plain n;
  EXPECT_DEATH(n.deleteReference(), "assertion failed: before > 0 \\(/src/Basis/Ptr");
}

TEST(PtrTest, countsStayExactAcrossThreads) {
  Basis::threadsActiveIs(true);
  bool destroyed = false;
  Ptr<Tracked> shared(new Tracked(destroyed));
  constexpr int threadCount = 4;
  constexpr int iterations = 50000;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([&shared] {
      for (int i = 0; i < iterations; ++i) {
        Ptr<Tracked> copy = shared;
        Ptr<Tracked> second = copy;
      }
    });
  }
  for (auto& t : threads) t.join();
  Basis::threadsActiveIs(false);
  EXPECT_EQ(shared->references(), 1u);
  EXPECT_EQ(shared->hookCalls, 0);
  shared = nullptr;
  EXPECT_TRUE(destroyed);
}

}  // namespace
