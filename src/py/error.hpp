// Failures: where one happens, and how it passes from the interpreter through C++ and back.
#pragma once

#include <concepts>
#include <source_location>

#include "object.hpp"

namespace py {

/// A place in the source; as a default argument it is the place of the call.
using Where = std::source_location;

/// A value, and the place in the source where it is handed to an operation, for the traceback in case that fails. It is
/// made from the value itself, so a call reads `truth(row)`; an operation that passes it on keeps the place.
template <class Value>
struct At {
  template <std::convertible_to<Value> Source>
    requires(!std::same_as<std::remove_cvref_t<Source>, At>)
  At(Source&& value, Where where = Where::current()) : value(std::forward<Source>(value)), where(where) {}
  Value value;
  Where where;
};

template <>
struct At<Handle> : Handle {
  template <std::convertible_to<Handle> Source>
    requires(!std::same_as<std::remove_cvref_t<Source>, At>)
  At(const Source& object, Where where = Where::current()) noexcept : Handle(object), where(where) {}
  Where where;
};
using Operand = At<Handle>;

/// Thrown while the exception itself is set in the interpreter.
struct Error {
  Where where;
  bool in_traceback = false;  // the running function has its entry already
};

/// Takes over a new reference; null means that the call failed.
inline Object steal(At<PyObject*> owned) {
  if (owned.value == nullptr) [[unlikely]]
    throw Error{owned.where};
  return Object(owned.value);
}

/// Passes the answer of a call on that reports failure by a negative number.
inline Py_ssize_t check(At<Py_ssize_t> answer) {
  if (answer.value < 0) [[unlikely]]
    throw Error{answer.where};
  return answer.value;
}

/// `raise type(message)`
[[noreturn]] void raise(PyObject* type, At<const char*> message);
/// `raise type(message) from cause`
[[noreturn]] void raise_from(Handle cause, PyObject* type, At<const char*> message);

/// Adds the entry of `function` at `error.where` to the traceback of the exception that is set, once.
void add_traceback(Error& error, const char* function, PyObject* globals) noexcept;

/// The boundary between C++ and the interpreter: what `body` returns, or null with the traceback entry of `function`
/// added.
template <class Body>
PyObject* guarded(const char* function, PyObject* globals, Body body) noexcept {
  try {
    return body().release();
  } catch (Error& error) {
    add_traceback(error, function, globals);
  }
  return nullptr;
}

}  // namespace py
