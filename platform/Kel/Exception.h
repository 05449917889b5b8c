#pragma once

#include <fmt/format.h>

#include <stdexcept>

#include "Kel/Types.h"

namespace Kel {

// Base of the framework's recoverable errors. Code that catches one where it
// is expected, traces it and lets it go on marks it reported, so that whoever
// catches it last (a task loop) counts it without reporting it again.
class Exception : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;

   bool reported() const noexcept { return reported_; }
   void reportedIs(bool reported) noexcept { reported_ = reported; }

 private:
   bool reported_ = false;
};

// A broken invariant: a bug, never a consequence of outside input. what() is
// the failed condition's text exactly as written in the source. Task loops let
// it through so that it ends the process.
class AssertionError : public std::logic_error {
 public:
   explicit AssertionError(const char* condition) : std::logic_error(condition) {}
};

// A failed system call: the errno value and what was being done.
class ErrnoException : public Exception {
 public:
   ErrnoException(int errnoValue, const String& what);
   int errnoValue() const noexcept { return errno_; }

 private:
   int errno_;
};

// A creator was called under an existing key with a different constructor
// argument.
class NameInUseException : public Exception {
 public:
   using Exception::Exception;
};

// A value outside the range of a bounded type (an index, a length).
class RangeException : public Exception {
 public:
   using Exception::Exception;
};

// Throws NameInUseException unless the constructor argument `attribute` of an
// existing object (currentValue) equals the one a creator was called with.
template <class T>
void checkConstructorParam(const char* attribute, const T& newValue, const T& currentValue) {
   if (!(newValue == currentValue)) {
      throw NameInUseException(fmt::format(
          "Reinstantiating the pointer interface where constructor parameter attribute _{} has a "
          "different value of {} than the current value of {} not allowed",
          attribute, newValue, currentValue));
   }
}

// A mutator was handed a null object where the collection needs one.
class NullMutatorArgException : public Exception {
 public:
   using Exception::Exception;
};

// Throws NullMutatorArgException, before anything changes, when the pointer
// `arg` of the mutator of `attribute` ("Class::attribute") is null.
template <class P>
void checkMutatorArg(const P& arg, const char* param, const char* attribute) {
   if (!arg) {
      throw NullMutatorArgException(
          fmt::format("null _{} parameter to mutator for {} not allowed", param, attribute));
   }
}

}  // namespace Kel

// For an assertion whose message must read differently from the code that
// checks it (a condition phrased in the terms of the caller's data).
#define KEL_ASSERT_TEXT(cond, text)         \
   do {                                     \
      if (!(cond)) [[unlikely]] {           \
         throw ::Kel::AssertionError(text); \
      }                                     \
   } while (0)

#define KEL_ASSERT(cond)                     \
   do {                                      \
      if (!(cond)) [[unlikely]] {            \
         throw ::Kel::AssertionError(#cond); \
      }                                      \
   } while (0)
