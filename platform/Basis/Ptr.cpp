#include "Basis/Ptr.h"

#include "Basis/Assert.h"

namespace Basis {

namespace {
std::atomic<bool> threadsActive_{false};
}  // namespace

bool threadsActive() { return threadsActive_.load(std::memory_order_acquire); }

void threadsActiveIs(bool active) { threadsActive_.store(active, std::memory_order_release); }

void Node::newReference() const {
  if (!threadsActive()) {
    refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  } else {
    refs_.fetch_add(1, std::memory_order_acq_rel);
  }
}

void Node::deleteReference() const {
  U32 before;
  if (!threadsActive()) {
    before = refs_.load(std::memory_order_relaxed);
    BASIS_ASSERT(before > 0, "/src/Basis/Ptr");
    refs_.store(before - 1, std::memory_order_relaxed);
  } else {
    before = refs_.fetch_sub(1, std::memory_order_acq_rel);
    BASIS_ASSERT(before > 0, "/src/Basis/Ptr");
  }
  // A release that empties the count during the hook leaves the decision to
  // the outer release that runs the hook.
  if (before != 1 || inLastUserGone_) return;
  Node* self = const_cast<Node*>(this);
  inLastUserGone_ = true;
  self->lastUserGone();
  inLastUserGone_ = false;
  // The hook may have handed the object to a new owner.
  if (refs_.load(std::memory_order_acquire) == 0) delete self;
}

}  // namespace Basis
