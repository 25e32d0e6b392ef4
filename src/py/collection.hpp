// The collections that the code builds itself.
#pragma once

#include "error.hpp"

namespace py {

class List : public Object {
 public:
  explicit List(Where where = Where::current()) : Object(steal({PyList_New(0), where})) {}
  explicit List(Operand iterable) : Object(steal({PySequence_List(iterable), iterable.where})) {}
  Py_ssize_t size() const noexcept { return PyList_GET_SIZE(get()); }
  bool empty() const noexcept { return size() == 0; }
  void append(At<Object> member) {
    auto* list = reinterpret_cast<PyListObject*>(get());
    const Py_ssize_t count = Py_SIZE(list);
    if (count < list->allocated) [[likely]] {  // the reference is handed over
      list->ob_item[count] = member.value.release();
      Py_SET_SIZE(list, count + 1);
    } else {
      check({PyList_Append(get(), member.value.get()), member.where});
    }
  }
  void sort(Where where = Where::current()) { check({PyList_Sort(get()), where}); }
};

class Set : public Object {
 public:
  explicit Set(Where where = Where::current()) : Object(steal({PySet_New(nullptr), where})) {}
  explicit Set(Operand iterable) : Object(steal({PySet_New(iterable), iterable.where})) {}
  void add(Operand member) { check({PySet_Add(get(), member), member.where}); }
};

class Dict : public Object {
 public:
  explicit Dict(Where where = Where::current()) : Object(steal({PyDict_New(), where})) {}
  void set(Operand key, Handle value) { check({PyDict_SetItem(get(), key, value), key.where}); }
  bool has(Operand key) const { return check({PyDict_Contains(get(), key), key.where}) != 0; }
};

inline Object integer(At<Py_ssize_t> number) { return steal({PyLong_FromSsize_t(number.value), number.where}); }

}  // namespace py
