#include "Kiln/Type.h"

#include <fmt/format.h>

#include <map>
#include <memory>
#include <mutex>

#include "Basis/Exception.h"

namespace Kiln {

namespace {

// Registries live for the process and never move their entries: pointers
// and references handed out stay valid. Registering a name again replaces
// the entry in place, so earlier holders see the new record.
template <class T>
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<T>, std::less<>> entries;

  T& put(const std::string& name, T value) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(name);
    if (it == entries.end()) return *entries.emplace(name, std::make_unique<T>(std::move(value))).first->second;
    *it->second = std::move(value);
    return *it->second;
  }
  const T* find(std::string_view name) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(name);
    return it == entries.end() ? nullptr : it->second.get();
  }
};

Registry<TypeData>& types() {
  static auto* r = new Registry<TypeData>;
  return *r;
}

Registry<EnumType>& enums() {
  static auto* r = new Registry<EnumType>;
  return *r;
}

}  // namespace

void typeRegister(TypeData t) {
  const std::string name = t.name;
  types().put(name, std::move(t));
}

const TypeData* typeData(std::string_view name) { return types().find(name); }

U64 hashValue(const TypeData& t, const void* value) {
  if (!t.hash) throw Basis::NotSupportedException(fmt::format("type {} is not hashable", t.name));
  return t.hash(value);
}

std::optional<U32> EnumType::valueOf(std::string_view name) const {
  for (const auto& [value, n] : values_) {
    if (n == name) return value;
  }
  return std::nullopt;
}

std::string EnumType::nameOf(U32 value) const {
  for (const auto& [v, n] : values_) {
    if (v == value) return n;
  }
  return fmt::format("{}", value);
}

const EnumType& enumRegister(std::string name, std::initializer_list<std::pair<U32, const char*>> values) {
  std::vector<std::pair<U32, std::string>> named;
  named.reserve(values.size());
  for (const auto& [value, n] : values) named.emplace_back(value, n);
  return enums().put(name, EnumType(name, std::move(named)));
}

const EnumType* enumType(std::string_view name) { return enums().find(name); }

}  // namespace Kiln
