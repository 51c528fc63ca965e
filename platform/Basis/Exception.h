#pragma once
#include <stdexcept>
#include <string>

#include "TrieLib/Export.h"

namespace Basis {

// Root of the exceptions that input, files and tables can cause.
class DEPOTTRIE_API Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A value out of its allowed range (bad prefix text, host bits set, ...).
class DEPOTTRIE_API RangeException : public Exception {
 public:
  using Exception::Exception;
};

// Malformed protobuf bytes.
class DEPOTTRIE_API ProtobufException : public Exception {
 public:
  using Exception::Exception;
};

// A request the receiving type cannot serve (for example hashing a value type
// that is not hashable).
class DEPOTTRIE_API NotSupportedException : public Exception {
 public:
  using Exception::Exception;
};

// A system call failed; the message names the call and the file.
class DEPOTTRIE_API SystemException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Basis
