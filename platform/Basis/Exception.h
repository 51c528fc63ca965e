#pragma once
#include <stdexcept>
#include <string>

namespace Basis {

// Root of the exceptions that input, files and tables can cause.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A value out of its allowed range (bad prefix text, host bits set, ...).
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// Malformed protobuf bytes.
class ProtobufException : public Exception {
 public:
  using Exception::Exception;
};

// A request the receiving type cannot serve (for example hashing a value type
// that is not hashable).
class NotSupportedException : public Exception {
 public:
  using Exception::Exception;
};

// A system call failed; the message names the call and the file.
class SystemException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Basis
