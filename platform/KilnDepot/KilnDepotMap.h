#pragma once
#include <array>
#include <bit>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Depot/Table.h"
#include "Kiln/Entity.h"
#include "KilnDepot/CollectionControl.h"
#include "TrieLib/Export.h"

namespace Basis {
class DebugHandler;
}

namespace KilnDepot {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Binds one keyed collection of fixed-size records to an entity attribute:
// the collection's name ("{entity full name}/{attribute}"), its writer table,
// its default and scratch records, its control and its change hooks.
class DEPOTTRIE_API CollectionBinding {
 public:
  struct Hooks {
    std::function<void(const U8* key)> keyChanged;
    std::function<void(bool quiesced)> quiescedChanged;
    std::function<void()> mountStatusChanged;
  };

  CollectionBinding(std::string attributeName, Depot::RecordLayout layout, const void* defaultRecord,
                    Hooks hooks);
  virtual ~CollectionBinding();
  CollectionBinding(const CollectionBinding&) = delete;
  CollectionBinding& operator=(const CollectionBinding&) = delete;

  // Names the collection under its owner, keeps a non-owning pointer to the
  // control and creates the process-local writer of `localEntries` slots.
  void setUp(const Kiln::Entity& owner, CollectionControl* control);
  // The owner was attached to or detached from a parent.
  void handleParent(const Kiln::Entity& owner);

  const std::string& name() const { return name_; }
  const Depot::RecordLayout& layout() const { return layout_; }
  Depot::Table& table() const { return *table_; }
  // Replaces the writer (mounting); the old table is released.
  void tableIs(std::unique_ptr<Depot::Table> t);
  CollectionControl* control() const { return control_; }
  void controlGone() { control_ = nullptr; }
  bool initialized() const { return initialized_; }
  double occupancySlack() const { return occupancySlack_; }
  Basis::DebugHandler& debug() const { return *debug_; }

  // Copies the record under key into out, or the default record when the key
  // is absent or the table reports damage (which is reported back to it);
  // true when a record was found.
  bool get(const U8* key, U8* out) const;
  // Damage found while writing, removing or committing stops the process:
  // there is no recovery from a failed write.
  void safeWrite(const U8* record);
  // Removes into the scratch record; false when absent.
  bool safeRemove(const U8* key);
  U8* inPlace(const U8* key);
  void directCommit(const U8* record);
  const U8* scratch() const { return scratch_.data(); }
  const U8* defaultRecord() const { return default_.data(); }

  // One logical update of the table (several writes and removals that belong
  // together, see Depot::Table). The quiesced hook hears false when it
  // begins and true when it ends. Brackets do not nest. updateAbort ends it
  // with its changes undone (Depot::Table::updateAbort).
  void updateBegin();
  void updateEnd();
  void updateAbort();
  U64 updateCounter() const { return table_->updateCounter(); }
  // Changes whenever another table takes the binding's place (mounting, a
  // new parent), whose update counter says nothing of the one before.
  U64 tableSerial() const { return tableSerial_; }

  void notifyKey(const U8* key) const;
  void notifyQuiesced(bool quiesced) const;
  void notifyMountStatus() const;
  MountStatus mountStatus() const { return mountStatus_; }
  void mountStatusIs(MountStatus s);

  static constexpr U64 localEntries = 100;

 private:
  DEPOTTRIE_LOCAL void localWriterNew();
  std::string attributeName_;
  std::string name_;
  Depot::RecordLayout layout_;
  std::vector<U8> default_;
  std::vector<U8> scratch_;
  Hooks hooks_;
  std::unique_ptr<Depot::Table> table_;
  U64 tableSerial_ = 0;
  CollectionControl* control_ = nullptr;
  Basis::DebugHandler* debug_ = nullptr;
  double occupancySlack_ = 0.05;
  bool initialized_ = false;
  MountStatus mountStatus_ = MountStatus::local;
};

// Keeps one update of a binding open for its lifetime, so that the update is
// closed however the code inside it leaves: kept when it returns, undone
// when an exception leaves it (a full device, no memory, a full table), so
// that the table holds exactly the updates that completed.
class DEPOTTRIE_API UpdateBracket {
 public:
  explicit UpdateBracket(CollectionBinding& binding) : binding_(binding) { binding_.updateBegin(); }
  ~UpdateBracket() {
    if (std::uncaught_exceptions() > uncaught_) binding_.updateAbort();
    else binding_.updateEnd();
  }
  UpdateBracket(const UpdateBracket&) = delete;
  UpdateBracket& operator=(const UpdateBracket&) = delete;

 private:
  CollectionBinding& binding_;
  int uncaught_ = std::uncaught_exceptions();
};

// Typed view of a binding for record type R keyed by K (R trivially copyable).
template <class K, class R>
class KilnDepotMap : public CollectionBinding {
 public:
  KilnDepotMap(std::string attributeName, Depot::RecordLayout layout, const R& defaultRecord, Hooks hooks)
      : CollectionBinding(std::move(attributeName), std::move(layout), &defaultRecord, std::move(hooks)) {}

  // Records come out as bytes made into an R, without constructing an R
  // first only to overwrite it.
  R get(const K& key) const {
    std::array<U8, sizeof(R)> bytes;
    CollectionBinding::get(reinterpret_cast<const U8*>(&key), bytes.data());
    return std::bit_cast<R>(bytes);
  }
  // The same read for a caller that needs to know whether the key was there.
  std::optional<R> find(const K& key) const {
    std::array<U8, sizeof(R)> bytes;
    if (!CollectionBinding::get(reinterpret_cast<const U8*>(&key), bytes.data())) return std::nullopt;
    return std::bit_cast<R>(bytes);
  }
  // get and find, reading the record where the table's prefetchRecord said
  // it is (at) while it is still there, without a second look at the index.
  R getAt(const K& key, U64 at) const {
    std::array<U8, sizeof(R)> bytes;
    if (!readAt(key, at, bytes.data())) CollectionBinding::get(reinterpret_cast<const U8*>(&key), bytes.data());
    return std::bit_cast<R>(bytes);
  }
  std::optional<R> findAt(const K& key, U64 at) const {
    std::array<U8, sizeof(R)> bytes;
    if (readAt(key, at, bytes.data())) return std::bit_cast<R>(bytes);
    return find(key);
  }
  void safeWrite(const R& r) { CollectionBinding::safeWrite(reinterpret_cast<const U8*>(&r)); }
  bool safeRemove(const K& key) { return CollectionBinding::safeRemove(reinterpret_cast<const U8*>(&key)); }
  R* inPlace(const K& key) { return reinterpret_cast<R*>(CollectionBinding::inPlace(reinterpret_cast<const U8*>(&key))); }
  void directCommit(const R* r) { CollectionBinding::directCommit(reinterpret_cast<const U8*>(r)); }
  R scratchRecord() const { return fromBytes(scratch()); }
  R defaultValue() const { return fromBytes(defaultRecord()); }

  // Iteration over the records in the table's own order; the position
  // survives removal of the current record.
  class ConstIterator {
   public:
    bool valid() const { return valid_; }
    const R& operator*() const { return rec_; }
    const R* operator->() const { return &rec_; }
    void advance() { valid_ = map_->table().iterNext(hint_, reinterpret_cast<U8*>(&rec_)); }

   private:
    friend class KilnDepotMap;
    const KilnDepotMap* map_ = nullptr;
    U64 hint_ = 0;
    R rec_{};
    bool valid_ = false;
  };
  ConstIterator begin() const {
    ConstIterator it;
    it.map_ = this;
    it.valid_ = table().iterFirst(it.hint_, reinterpret_cast<U8*>(&it.rec_));
    return it;
  }
  ConstIterator from(const K& key) const {
    ConstIterator it;
    it.map_ = this;
    it.valid_ = table().iterFrom(reinterpret_cast<const U8*>(&key), it.hint_, reinterpret_cast<U8*>(&it.rec_));
    return it;
  }

 private:
  static R fromBytes(const U8* p) {
    std::array<U8, sizeof(R)> bytes;
    std::memcpy(bytes.data(), p, sizeof(R));
    return std::bit_cast<R>(bytes);
  }
  bool readAt(const K& key, U64 at, U8* out) const {
    return at && table().readAt(at, reinterpret_cast<const U8*>(&key), out);
  }
};

}  // namespace KilnDepot
