// What expressions and statements of the language do, for any type, with quicker ways for exact built-in types.
#pragma once

#include <array>

#include "object.hpp"

namespace py {

// Attributes and calls

inline Object attr(Handle object, Handle name, Where where = Where::current()) {
  return steal(PyObject_GetAttr(object, name), where);
}

/// The first argument of a call, and the place of the call: a function that takes any number of arguments can have no
/// default one behind them.
struct Argument {
  template <class Reference>
  Argument(const Reference& object, Where where = Where::current()) noexcept : object(object), where(where) {}
  Handle object;
  Where where;
};

/// A callable that was looked up before its arguments are evaluated, with the object that it is a method of, if any.
class Callee {
 public:
  Callee() noexcept = default;
  explicit Callee(Object callable, Object self = Object()) noexcept
      : callable_(std::move(callable)), self_(std::move(self)) {}

  Object operator()(Where where = Where::current()) const { return call(nullptr, where); }

  template <class... Arguments>
  Object operator()(Argument first, const Arguments&... others) const {
    return call(nullptr, first.where, first.object, others...);
  }

  /// The last arguments are passed by the names in the tuple `keywords`.
  template <class... Arguments>
  Object with_keywords(Argument keywords, const Arguments&... arguments) const {
    return call(keywords.object, keywords.where, arguments...);
  }

 private:
  template <class... Arguments>
  Object call(PyObject* keywords, Where where, const Arguments&... arguments) const {
    // The slot in front is the callee's to use (PY_VECTORCALL_ARGUMENTS_OFFSET).
    PyObject* stack[] = {nullptr, self_.get(), Handle(arguments)...};
    const std::size_t bound = self_ ? 1 : 0;
    const std::size_t by_name = keywords ? PyTuple_GET_SIZE(keywords) : 0;
    const std::size_t flags = (bound + sizeof...(arguments) - by_name) | PY_VECTORCALL_ARGUMENTS_OFFSET;
    return steal(PyObject_Vectorcall(callable_.get(), stack + 2 - bound, flags, keywords), where);
  }

  Object callable_;
  Object self_;
};

/// `object.name`, about to be called: no bound method is made where the type has a plain function of that name.
inline Callee method(Object object, Handle name, Where where = Where::current()) {
  PyObject* found = nullptr;
  const int unbound = _PyObject_GetMethod(object.get(), name, &found);
  Object callable = steal(found, where);
  return unbound ? Callee(std::move(callable), std::move(object)) : Callee(std::move(callable));
}

inline Callee method(Handle object, Handle name, Where where = Where::current()) {
  return method(borrow(object), name, where);
}

// Items

inline Object item(Handle object, Handle key, Where where = Where::current()) {
  return steal(PyObject_GetItem(object, key), where);
}

/// The value under `key` in an exact dict, or none when it is missing.
inline Object find(Handle dict, Handle key, Where where = Where::current()) {
  PyObject* value = PyDict_GetItemWithError(dict, key);
  if (value == nullptr) {
    if (PyErr_Occurred()) [[unlikely]]
      throw Error{where};
    return Object();
  }
  return borrow(value);
}

inline bool contains(Handle container, Handle member, Where where = Where::current()) {
  return check(PySequence_Contains(container, member), where) != 0;
}

// Truth and comparison

inline bool truth(Handle object, Where where = Where::current()) {
  if (object == Py_True) return true;
  if (object == Py_False || object == Py_None) return false;
  return check(PyObject_IsTrue(object), where) != 0;
}

/// The truth of a rich comparison; unlike PyObject_RichCompareBool it asks an object that meets itself, too.
inline bool compare(Handle left, Handle right, int operation, Where where = Where::current()) {
  return truth(steal(PyObject_RichCompare(left, right, operation), where), where);
}

inline bool equal(Handle left, Handle right, Where where = Where::current()) {
  if (PyUnicode_CheckExact(left) && PyUnicode_CheckExact(right)) return _PyUnicode_EQ(left, right) != 0;
  return compare(left, right, Py_EQ, where);
}

inline bool unequal(Handle left, Handle right, Where where = Where::current()) {
  if (PyUnicode_CheckExact(left) && PyUnicode_CheckExact(right)) return _PyUnicode_EQ(left, right) == 0;
  return compare(left, right, Py_NE, where);
}

// Strings and paths

inline Object concat(Handle left, Handle right, Where where = Where::current()) {
  return steal(PyUnicode_Concat(left, right), where);
}

/// What an f-string puts in for `{object}`.
inline Object formatted(Handle object, Where where = Where::current()) {
  if (PyUnicode_CheckExact(object)) return borrow(object);
  return steal(PyObject_Format(object, nullptr), where);
}

/// `left / right`
inline Object join(Handle left, Handle right, Where where = Where::current()) {
  return steal(PyNumber_TrueDivide(left, right), where);
}

// Collections that the code builds itself

class List : public Object {
 public:
  explicit List(Where where = Where::current()) : Object(steal(PyList_New(0), where)) {}
  explicit List(Handle iterable, Where where = Where::current()) : Object(steal(PySequence_List(iterable), where)) {}
  Py_ssize_t size() const noexcept { return PyList_GET_SIZE(get()); }
  bool empty() const noexcept { return size() == 0; }
  void append(Handle member, Where where = Where::current()) { check(PyList_Append(get(), member), where); }
  void sort(Where where = Where::current()) { check(PyList_Sort(get()), where); }
};

class Set : public Object {
 public:
  explicit Set(Where where = Where::current()) : Object(steal(PySet_New(nullptr), where)) {}
  explicit Set(Handle iterable, Where where = Where::current()) : Object(steal(PySet_New(iterable), where)) {}
  void add(Handle member, Where where = Where::current()) { check(PySet_Add(get(), member), where); }
};

class Dict : public Object {
 public:
  explicit Dict(Where where = Where::current()) : Object(steal(PyDict_New(), where)) {}
  void set(Handle key, Handle value, Where where = Where::current()) {
    check(PyDict_SetItem(get(), key, value), where);
  }
  bool has(Handle key, Where where = Where::current()) const { return check(PyDict_Contains(get(), key), where) != 0; }
};

inline Object none() noexcept { return borrow(Py_None); }

inline Object integer(Py_ssize_t number, Where where = Where::current()) {
  return steal(PyLong_FromSsize_t(number), where);
}

}  // namespace py
