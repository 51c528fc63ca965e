#include "KilnDepot/KilnDepotMap.h"

#include <fmt/format.h>

#include <atomic>

#include "Basis/Assert.h"
#include "Basis/Debug.h"

namespace KilnDepot {

CollectionBinding::CollectionBinding(std::string attributeName, Depot::RecordLayout layout,
                                     const void* defaultRecord, Hooks hooks)
    : attributeName_(std::move(attributeName)),
      layout_(std::move(layout)),
      default_(static_cast<const U8*>(defaultRecord), static_cast<const U8*>(defaultRecord) + layout_.recordSize),
      scratch_(default_),
      hooks_(std::move(hooks)) {}

CollectionBinding::~CollectionBinding() {
  if (debug_ && debug_->levelEnabled(2)) debug_->log(2, fmt::format("{} deleting state", name_));
  if (control_) control_->bindingIs(nullptr);
}

void CollectionBinding::setUp(const Kiln::Entity& owner, CollectionControl* control) {
  control_ = control;
  name_ = fmt::format("{}/{}", owner.fullName(), attributeName_);
  debug_ = &Basis::debugHandler("DepotTemp");
  if (debug_->verbose()) debug_->log(0, fmt::format("creating local DepotWriter {}", name_));
  localWriterNew();
}

// Serials are unique in the process, so no two tables ever share one.
namespace {
std::atomic<U64> lastTableSerial{0};
}

void CollectionBinding::localWriterNew() {
  tableSerial_ = ++lastTableSerial;
  try {
    table_ = Depot::temporaryTableNew(layout_, name_, localEntries);
  } catch (const Basis::Exception&) {
    table_.reset();
  }
  BASIS_ASSERT_TEXT(table_ != nullptr, "unable to initialize local DepotTemporary", "DepotMap", "localWriterNew");
}

void CollectionBinding::handleParent(const Kiln::Entity& owner) {
  std::string newName = fmt::format("{}/{}", owner.fullName(), attributeName_);
  if (owner.parent()) {
    if (initialized_) throw Basis::Exception(fmt::format("Entity {} already initialized", owner.name()));
    initialized_ = true;
    debug_->logf(0, "old:{} new:{}", name_, newName);
    name_ = std::move(newName);
    table_.reset();
    localWriterNew();
  } else {
    debug_->logf(0, "{} is now an orphan", name_);
    initialized_ = false;
    name_ = std::move(newName);
    mountStatusIs(MountStatus::local);
    localWriterNew();
  }
}

void CollectionBinding::tableIs(std::unique_ptr<Depot::Table> t) {
  table_ = std::move(t);
  tableSerial_ = ++lastTableSerial;
}

bool CollectionBinding::get(const U8* key, U8* out) const {
  try {
    if (table_->find(key, out)) return true;
  } catch (const Depot::CorruptionException& e) {
    table_->reportCorruption(e.what());
  }
  std::memcpy(out, default_.data(), layout_.recordSize);
  return false;
}

void CollectionBinding::safeWrite(const U8* record) {
  try {
    table_->write(record);
  } catch (const Depot::CorruptionException& e) {
    table_->reportCorruption(e.what());
    Basis::assertionFailed("in no man's land", "DepotMap", "safeWrite");
  }
}

bool CollectionBinding::safeRemove(const U8* key) {
  try {
    return table_->remove(key, scratch_.data());
  } catch (const Depot::CorruptionException& e) {
    table_->reportCorruption(e.what());
    Basis::assertionFailed("in no man's land", "DepotMap", "safeRemove");
  }
}

U8* CollectionBinding::inPlace(const U8* key) {
  try {
    return table_->inPlace(key);
  } catch (const Depot::CorruptionException& e) {
    table_->reportCorruption(e.what());
    return nullptr;
  }
}

void CollectionBinding::directCommit(const U8* record) {
  try {
    table_->commit(record);
  } catch (const Depot::CorruptionException& e) {
    table_->reportCorruption(e.what());
    Basis::assertionFailed("in no man's land", "DepotMap", "directCommit");
  }
}

void CollectionBinding::updateBegin() {
  table_->updateBegin();
  notifyQuiesced(false);
}

void CollectionBinding::updateEnd() {
  table_->updateEnd();
  notifyQuiesced(true);
}

void CollectionBinding::updateAbort() {
  table_->updateAbort();
  notifyQuiesced(true);
}

void CollectionBinding::notifyKey(const U8* key) const {
  if (hooks_.keyChanged) hooks_.keyChanged(key);
}

void CollectionBinding::notifyQuiesced(bool quiesced) const {
  if (hooks_.quiescedChanged) hooks_.quiescedChanged(quiesced);
}

void CollectionBinding::notifyMountStatus() const {
  if (hooks_.mountStatusChanged) hooks_.mountStatusChanged();
}

void CollectionBinding::mountStatusIs(MountStatus s) {
  if (s == mountStatus_) return;
  mountStatus_ = s;
  notifyMountStatus();
}

}  // namespace KilnDepot
