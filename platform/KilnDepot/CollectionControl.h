#pragma once
#include <string>

#include "Basis/Ptr.h"
#include "Kiln/Entity.h"
#include "TrieLib/Export.h"

namespace KilnDepot {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

enum class MountStatus : U8 { local = 0, writer = 1, reader = 2, failed = 3 };
DEPOTTRIE_API const char* stringValue(MountStatus s);

class CollectionBinding;

// The control object of one collection: through it the collection is mounted,
// and, once the entity's users let go, it keeps the entity alive.
// Allocated from a slab pool.
class DEPOTTRIE_API CollectionControl : public Basis::Node {
 public:
  explicit CollectionControl(CollectionBinding* binding) : binding_(binding) {}
  ~CollectionControl() override;

  static void* operator new(size_t size);
  static void operator delete(void* p);

  // The collection this control governs; nullptr once it is gone.
  CollectionBinding* binding() const { return binding_; }
  void bindingIs(CollectionBinding* b) { binding_ = b; }

  const Basis::Ptr<Kiln::Entity>& entityRef() const { return entityRef_; }
  void entityRefIs(const Basis::Ptr<Kiln::Entity>& e) { entityRef_ = e; }

  bool quiesced() const { return quiesced_; }
  void quiescedIs(bool q) { quiesced_ = q; }
  MountStatus mountStatus() const { return mountStatus_; }
  void mountStatusIs(MountStatus s) { mountStatus_ = s; }

 private:
  CollectionBinding* binding_;
  Basis::Ptr<Kiln::Entity> entityRef_;
  bool quiesced_ = true;
  MountStatus mountStatus_ = MountStatus::local;
};

}  // namespace KilnDepot
