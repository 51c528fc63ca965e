#include "KilnDepot/Mount.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "Depot/SharedTable.h"

namespace KilnDepot {

std::string collectionPath(const std::string& name, const std::string& root) {
  bool plain = !name.empty() && name.front() != '/';
  for (size_t at = 0; plain && at <= name.size();) {
    size_t end = std::min(name.find('/', at), name.size());
    std::string_view part(name.data() + at, end - at);
    plain = !part.empty() && part != "." && part != "..";
    at = end + 1;
  }
  if (!plain) throw Basis::RangeException(fmt::format("collection name '{}' cannot be a file under {}", name, root));
  return fmt::format("{}/{}", root, name);
}

Depot::TablePath collectionTable(const std::string& root, const std::string& owner, const std::string& attribute) {
  const std::string name = fmt::format("{}/{}", owner, attribute);
  collectionPath(name, root);
  return {root, name};
}

namespace {

// The shared table of a binding; collectionPath refuses a name that is no
// plain relative path.
Depot::TablePath tableOf(const CollectionBinding& binding, const std::string& root) {
  collectionPath(binding.name(), root);
  return {root, binding.name()};
}

}  // namespace

void mountWriter(CollectionBinding& binding, const std::string& root, U32 mode, U64 capacity) {
  try {
    const Depot::Table& local = binding.table();
    Depot::SharedTableOptions options;
    options.capacity = std::max({options.capacity, local.occupancy() * 2, capacity});
    options.mode = mode;
    auto shared = Depot::SharedTable::writerNew(binding.layout(), tableOf(binding, root), options);
    std::vector<U8> record(binding.layout().recordSize), present(binding.layout().recordSize);
    U64 hint;
    for (bool ok = local.iterFirst(hint, record.data()); ok; ok = local.iterNext(hint, record.data()))
      if (!shared->find(record.data() + binding.layout().keyOffset, present.data())) shared->write(record.data());
    binding.tableIs(std::move(shared));
  } catch (...) {
    binding.mountStatusIs(MountStatus::failed);
    throw;
  }
  binding.mountStatusIs(MountStatus::writer);
}

void mountReader(CollectionBinding& binding, const std::string& root) {
  try {
    binding.tableIs(Depot::SharedTable::readerNew(binding.layout(), tableOf(binding, root)));
  } catch (...) {
    binding.mountStatusIs(MountStatus::failed);
    throw;
  }
  binding.mountStatusIs(MountStatus::reader);
}

}  // namespace KilnDepot
