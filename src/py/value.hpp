// Items, truth and comparison of any objects, with quicker ways for exact built-in types.
#pragma once

#include <cstring>

#include "interpreter.hpp"

namespace py {

/// The value under `key` in an exact dict, or none when it is missing. It stays the dict's: hold it across calls.
inline Handle peek(Handle dict, Operand key) {
  PyObject* value = dict_value(dict, key);
  if (value == nullptr && PyErr_Occurred()) [[unlikely]]
    throw Error{key.where};
  return value;
}

/// A reference of one's own to what `peek` finds.
inline Object find(Handle dict, Operand key) {
  PyObject* value = peek(dict, key);
  Py_XINCREF(value);
  return Object(value);
}

/// `object[key]`
inline Object item(Handle object, Operand key) {
  if (!PyDict_CheckExact(object) || !PyUnicode_CheckExact(key))
    return steal({PyObject_GetItem(object, key), key.where});
  Object value = find(object, key);
  if (!value) [[unlikely]] {
    PyErr_SetObject(PyExc_KeyError, key);
    throw Error{key.where};
  }
  return value;
}

/// `member in container`
inline bool contains(Handle container, Operand member) {
  return check({PySequence_Contains(container, member), member.where}) != 0;
}

/// An exact str whose length can be read as it stands; one made the old way has none before it is asked for.
inline bool is_plain_text(Handle object) noexcept {
  return PyUnicode_CheckExact(object) && PyUnicode_IS_READY(static_cast<PyObject*>(object));
}

/// `bool(object)`
inline bool truth(Operand object) {
  if (object == Py_True) return true;
  if (object == Py_False || object == Py_None) return false;
  if (is_plain_text(object)) return PyUnicode_GET_LENGTH(static_cast<PyObject*>(object)) != 0;
  if (PyList_CheckExact(object)) return PyList_GET_SIZE(static_cast<PyObject*>(object)) != 0;
  return check({PyObject_IsTrue(object), object.where}) != 0;
}

/// Whether two plain strings are equal. Equal ones are stored alike, in the narrowest kind that holds them.
inline bool same_text(PyObject* left, PyObject* right) noexcept {
  const auto kind = PyUnicode_KIND(left);
  const Py_ssize_t length = PyUnicode_GET_LENGTH(left);
  return left == right ||
         (length == PyUnicode_GET_LENGTH(right) && kind == PyUnicode_KIND(right) &&
          std::memcmp(PyUnicode_DATA(left), PyUnicode_DATA(right), static_cast<std::size_t>(length * kind)) == 0);
}

/// The truth of a rich comparison; unlike PyObject_RichCompareBool it also asks an object that is compared with itself.
inline bool compare(Operand left, Handle right, int operation) {
  return truth({steal({PyObject_RichCompare(left, right, operation), left.where}), left.where});
}

/// `left == right`
inline bool equal(Operand left, Handle right) {
  if (is_plain_text(left) && is_plain_text(right)) return same_text(left, right);
  return compare(left, right, Py_EQ);
}

/// `left != right`
inline bool unequal(Operand left, Handle right) {
  if (is_plain_text(left) && is_plain_text(right)) return !same_text(left, right);
  return compare(left, right, Py_NE);
}

}  // namespace py
