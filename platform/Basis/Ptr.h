#pragma once
#include <atomic>
#include <cstddef>
#include <utility>

#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Basis {

// Base of the change publishers that nodes may carry (Kiln's Publisher).
class DEPOTTRIE_API NotifierBase {
 public:
  virtual ~NotifierBase() = default;
};

// True once the process has said it runs several threads; until then
// reference counts are changed with plain loads and stores.
DEPOTTRIE_API bool threadsActive();
DEPOTTRIE_API void threadsActiveIs(bool active);

// Reference-counted base. When the last reference goes, lastUserGone() runs
// first; if it took a new reference (handing ownership elsewhere) the object
// lives on, otherwise it is deleted.
class DEPOTTRIE_API Node {
 public:
  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node() = default;

  U32 references() const { return refs_.load(std::memory_order_relaxed); }
  void newReference() const;
  void deleteReference() const;

 protected:
  virtual void lastUserGone() {}
  // The node's change publisher; the base publishes nothing.
  virtual NotifierBase* publisher() const { return nullptr; }

 private:
  mutable std::atomic<U32> refs_{0};
  mutable bool inLastUserGone_ = false;
};

// Intrusive smart pointer over Node.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { if (p_) p_->newReference(); }
  Ptr(const Ptr& o) : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(const Ptr<U>& o) : Ptr(o.ptr()) {}
  ~Ptr() { reset(); }

  Ptr& operator=(const Ptr& o) { Ptr(o).swap(*this); return *this; }
  Ptr& operator=(Ptr&& o) noexcept { Ptr(std::move(o)).swap(*this); return *this; }
  Ptr& operator=(std::nullptr_t) { reset(); return *this; }

  void reset() {
    if (T* p = std::exchange(p_, nullptr)) p->deleteReference();
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }

 private:
  T* p_ = nullptr;
};

}  // namespace Basis
