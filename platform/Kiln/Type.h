#pragma once
#include <any>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Basis/Buffer.h"
#include "Basis/Types.h"
#include "Kiln/Entity.h"
#include "TrieLib/Export.h"

namespace Kiln {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Generic field operations of value types and their results.
enum class FieldOp : U8 { get = 0, set = 1, differsFromDefault = 2, equals = 3 };
enum class FieldResult : U8 { ok = 0, notSupported = 1, unknownField = 2 };

// A value type's runtime record: its hooks into text, wire and inspection.
// An absent hash hook makes the type non-hashable.
struct TypeData {
  std::string name;
  size_t size = 0;
  std::function<std::string(const void*)> toText;
  std::function<void(std::string_view, void*)> fromText;
  std::function<void(Basis::WriteBufferItr&, const void*)> pbEncode;
  std::function<void(Basis::ReadBufferItr&, void*)> pbDecode;
  std::function<U64(const void*)> hash;
  // get/set: value in or out; differsFromDefault: bool out; equals: value
  // holds a pointer to the other record, bool out.
  std::function<FieldResult(FieldOp, FieldId, void*, std::any&)> fieldOp;
};

DEPOTTRIE_API void typeRegister(TypeData t);
// nullptr when no type of that name is registered.
DEPOTTRIE_API const TypeData* typeData(std::string_view name);
// Raises Basis::NotSupportedException "type NAME is not hashable" when the
// type has no hash hook.
DEPOTTRIE_API U64 hashValue(const TypeData& t, const void* value);

// Enumerations registered by name, with names to values and back.
class DEPOTTRIE_API EnumType {
 public:
  EnumType(std::string name, std::vector<std::pair<U32, std::string>> values)
      : name_(std::move(name)), values_(std::move(values)) {}
  const std::string& name() const { return name_; }
  std::optional<U32> valueOf(std::string_view name) const;
  // The name of a value; values without one print as their number.
  std::string nameOf(U32 value) const;

 private:
  std::string name_;
  std::vector<std::pair<U32, std::string>> values_;
};

DEPOTTRIE_API const EnumType& enumRegister(std::string name, std::initializer_list<std::pair<U32, const char*>> values);
DEPOTTRIE_API const EnumType* enumType(std::string_view name);

}  // namespace Kiln
