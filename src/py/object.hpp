// Who owns a reference.
#pragma once

#include <Python.h>

#include <utility>

namespace py {

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
  Object(const Object& other) noexcept : object_(other.object_) { Py_XINCREF(object_); }
  Object(Object&& other) noexcept : object_(other.release()) {}
  Object& operator=(Object other) noexcept {
    PyObject* old = object_;
    object_ = other.release();
    Py_XDECREF(old);  // last, because the destructor of what goes may look at this reference
    return *this;
  }
  ~Object() { Py_XDECREF(object_); }

  PyObject* get() const noexcept { return object_; }
  PyObject* release() noexcept { return std::exchange(object_, nullptr); }
  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  PyObject* object_ = nullptr;
};

inline Handle::Handle(const Object& object) noexcept : object_(object.get()) {}

inline Object borrow(Handle object) noexcept {
  Py_INCREF(static_cast<PyObject*>(object));
  return Object(object);
}

inline Object none() noexcept { return borrow(Py_None); }

}  // namespace py
