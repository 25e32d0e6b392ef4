// for-loops and unpacking, live: what a loop body changes is seen by the loop, as in the language.
#pragma once

#include <array>
#include <iterator>

#include "call.hpp"
#include "turns.hpp"

namespace py {

/// PyIter_Next for a loop, out of line so that loops over lists stay small: a new reference, or null at the end.
[[gnu::noinline]] inline PyObject* next_of(Handle iterator, Where where) {
  PyObject* member = PyIter_Next(iterator);
  if (member == nullptr && PyErr_Occurred()) throw Error{where};
  return member;
}

/// `for (const Object& member : each(iterable))`
class each {
 public:
  explicit each(At<Object> iterable)
      : source_(PyList_CheckExact(iterable.value.get())
                    ? std::move(iterable.value)
                    : steal({PyObject_GetIter(iterable.value.get()), iterable.where})),
        where_(iterable.where) {}

  class iterator {
   public:
    iterator(PyObject* source, Where where)
        : source_(source), where_(where), exact_list_(PyList_CheckExact(source)), member_(next()) {}
    const Object& operator*() const noexcept { return member_; }  // lives until the next one is there
    iterator& operator++() {
      member_ = Object(next());
      return *this;
    }
    bool operator==(std::default_sentinel_t) const noexcept { return !member_; }

   private:
    PyObject* next() {
      turns_.next(where_);
      if (!exact_list_) return next_of(source_, where_);
      // Its length is read afresh each time, as a list's own iterator does.
      if (index_ >= PyList_GET_SIZE(source_)) return nullptr;
      PyObject* member = PyList_GET_ITEM(source_, index_++);
      Py_INCREF(member);
      return member;
    }

    PyObject* source_;
    Where where_;
    bool exact_list_;
    Turns turns_;
    Py_ssize_t index_ = 0;
    Object member_;
  };
  iterator begin() const { return iterator(source_.get(), where_); }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  const Object source_;
  const Where where_;
};

/// Exactly `count` members of an iterable, with the interpreter's own words where there are more or fewer.
template <std::size_t count>
std::array<Object, count> unpack(Operand iterable) {
  std::array<Object, count> members;
  const bool tuple = PyTuple_CheckExact(iterable);
  if ((tuple || PyList_CheckExact(iterable)) && Py_SIZE(iterable) == Py_ssize_t{count}) {
    PyObject** source = tuple ? &PyTuple_GET_ITEM(iterable, 0) : &PyList_GET_ITEM(iterable, 0);
    for (std::size_t i = 0; i < count; ++i) members[i] = borrow(source[i]);
    return members;
  }
  const Object iterator(PyObject_GetIter(iterable));
  if (!iterator) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(iterable)->tp_iter == nullptr && !PySequence_Check(iterable))
      PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(iterable)->tp_name);
    throw Error{iterable.where};
  }
  for (std::size_t i = 0; i < count; ++i) {
    members[i] = Object(PyIter_Next(iterator.get()));
    if (members[i]) continue;
    if (!PyErr_Occurred())
      PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zu, got %zu)", count, i);
    throw Error{iterable.where};
  }
  const Object excess(PyIter_Next(iterator.get()));
  if (excess) PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zu)", count);
  if (PyErr_Occurred()) throw Error{iterable.where};
  return members;
}

/// `for (const auto& [key, value] : items(mapping, name_of_items))`
class items {
 public:
  items(Operand mapping, Handle items_name)
      : source_(PyDict_CheckExact(mapping) ? borrow(mapping) : iterator_over(mapping, items_name)),
        where_(mapping.where) {}

  struct Item {
    Object key, value;
  };

  class iterator {
   public:
    iterator(PyObject* source, Where where)
        : source_(source),
          where_(where),
          exact_dict_(PyDict_CheckExact(source)),
          size_(exact_dict_ ? PyDict_GET_SIZE(source) : 0),
          left_(size_) {
      next();
    }
    const Item& operator*() const noexcept { return item_; }
    iterator& operator++() {
      const Object old_value = std::move(item_.value);  // dies when the next one is there, after its key
      const Object old_key = std::move(item_.key);
      next();
      return *this;
    }
    bool operator==(std::default_sentinel_t) const noexcept { return !item_.key; }

   private:
    void next() {
      turns_.next(where_);
      if (exact_dict_) return next_of_dict();
      PyObject* pair[2];
      if (!next_pair(source_, pair, where_)) return;
      item_.key = Object(pair[0]);
      item_.value = Object(pair[1]);
    }

    void next_of_dict() {  // with the checks of the dict's own iterator
      if (PyDict_GET_SIZE(source_) != size_) [[unlikely]]
        raise(PyExc_RuntimeError, {"dictionary changed size during iteration", where_});
      PyObject *key = nullptr, *value = nullptr;
      Py_ssize_t position = position_;  // so that the loop's own can stay in a register
      if (!PyDict_Next(source_, &position, &key, &value)) return;
      position_ = position;
      if (left_-- == 0) [[unlikely]]
        raise(PyExc_RuntimeError, {"dictionary keys changed during iteration", where_});
      item_.key = borrow(key);
      item_.value = borrow(value);
    }

    PyObject* source_;
    Where where_;
    bool exact_dict_;
    Turns turns_;
    Py_ssize_t size_, left_;
    Py_ssize_t position_ = 0;
    Item item_;
  };
  iterator begin() const { return iterator(source_.get(), where_); }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  static Object iterator_over(Operand mapping, Handle items_name) {
    const Object pairs = method(mapping, {items_name, mapping.where})(mapping.where);
    return steal({PyObject_GetIter(pairs.get()), mapping.where});
  }

  /// Writes two new references, or says that there are no more.
  [[gnu::noinline]] static bool next_pair(Handle iterator, PyObject* (&pair)[2], Where where) {
    const Object next(next_of(iterator, where));
    if (!next) return false;
    auto [key, value] = unpack<2>({next, where});
    pair[0] = key.release();
    pair[1] = value.release();
    return true;
  }

  const Object source_;
  const Where where_;
};

}  // namespace py
