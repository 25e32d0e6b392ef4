// Strings, and the paths that are made of them.
#pragma once

#include <algorithm>

#include "error.hpp"

namespace py {

inline Object string(At<const char*> text) { return steal({PyUnicode_FromString(text.value), text.where}); }

/// An interned string, made once for a module.
class Name : public Object {
 public:
  Name(At<const char*> text) : Object(steal({PyUnicode_InternFromString(text.value), text.where})) {}
};

/// What an f-string puts in for `{object}`.
inline Object formatted(Operand object) {
  if (PyUnicode_CheckExact(object)) return borrow(object);
  return steal({PyObject_Format(object, nullptr), object.where});
}

/// Strings one behind the other, as an f-string puts its parts together.
inline Object concat(std::initializer_list<Handle> parts, Where where = Where::current()) {
  Py_ssize_t length = 0;
  bool ascii = true;
  for (PyObject* part : parts) {
    ascii = ascii && PyUnicode_IS_COMPACT_ASCII(part);
    length += PyUnicode_GET_LENGTH(part);
  }
  Object text = steal({PyUnicode_New(ascii ? length : 0, 0x7f), where});
  if (ascii) {
    Py_UCS1* end = PyUnicode_1BYTE_DATA(text.get());
    for (PyObject* part : parts) end = std::copy_n(PyUnicode_1BYTE_DATA(part), PyUnicode_GET_LENGTH(part), end);
  } else {
    for (PyObject* part : parts) text = steal({PyUnicode_Concat(text.get(), part), where});
  }
  return text;
}

/// `left / right`
inline Object join(Operand left, Handle right) { return steal({PyNumber_TrueDivide(left, right), left.where}); }

}  // namespace py
