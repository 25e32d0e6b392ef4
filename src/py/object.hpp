// References that say who owns, and the exception that says "an error is set in the interpreter".
#pragma once

#include <Python.h>

#include <source_location>
#include <utility>

/// What is small and called from everywhere: the compiler's own measure leaves even a destructor out of line. To count
/// coverage, a build makes it plain `inline`: one copy of each branch.
#ifndef PY_INLINE
#define PY_INLINE [[gnu::always_inline]] inline
#endif

namespace py {

/// A place in the source; as a default argument it is the place of the call, so a failing step knows its line.
using Where = std::source_location;

/// Thrown while the error itself stays in the interpreter.
struct Error {
  Where where;
  bool in_traceback = false;  // the running function has its entry already
};

class Object;

/// A borrowed reference: whoever handed it out keeps the object alive for as long as it is used.
class Handle {
 public:
  constexpr Handle(PyObject* object) noexcept : object_(object) {}
  inline Handle(const Object& object) noexcept;
  constexpr operator PyObject*() const noexcept { return object_; }
  /// For the interpreter's macros, which cast to the struct behind an object.
  template <class Struct>
  explicit operator Struct*() const noexcept {
    return reinterpret_cast<Struct*>(object_);
  }

 private:
  PyObject* object_;
};

/// A strong reference, or none.
class Object {
 public:
  Object() noexcept = default;
  explicit Object(PyObject* owned) noexcept : object_(owned) {}
  PY_INLINE Object(const Object& other) noexcept : object_(other.object_) { Py_XINCREF(object_); }
  PY_INLINE Object(Object&& other) noexcept : object_(other.release()) {}
  PY_INLINE Object& operator=(Object other) noexcept {
    PyObject* old = object_;
    object_ = other.release();
    Py_XDECREF(old);  // last: what dies may look here
    return *this;
  }
  PY_INLINE ~Object() { Py_XDECREF(object_); }

  PyObject* get() const noexcept { return object_; }
  PY_INLINE PyObject* release() noexcept {
    PyObject* object = object_;
    object_ = nullptr;
    return object;
  }
  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  PyObject* object_ = nullptr;
};

inline Handle::Handle(const Object& object) noexcept : object_(object.get()) {}

/// Takes over a new reference; null means that the call failed.
PY_INLINE Object steal(PyObject* owned, Where where = Where::current()) {
  if (owned == nullptr) [[unlikely]]
    throw Error{where};
  return Object(owned);
}

PY_INLINE Object borrow(Handle object) noexcept {
  Py_INCREF(static_cast<PyObject*>(object));
  return Object(object);
}

/// Passes the answer of a call on that reports failure by a negative number.
template <class Answer>
PY_INLINE Answer check(Answer answer, Where where = Where::current()) {
  if (answer < 0) [[unlikely]]
    throw Error{where};
  return answer;
}

/// `raise type(message) from cause`
[[noreturn]] void raise_from(Handle cause, PyObject* type, const char* message, Where where = Where::current());

[[noreturn]] inline void raise(PyObject* type, const char* message, Where where = Where::current()) {
  PyErr_SetString(type, message);
  throw Error{where};
}

inline Object string(const char* text, Where where = Where::current()) {
  return steal(PyUnicode_FromString(text), where);
}

/// An interned string, made once for a module.
class Name : public Object {
 public:
  Name(const char* text, Where where = Where::current()) : Object(steal(PyUnicode_InternFromString(text), where)) {}
};

}  // namespace py
