// for-loops and unpacking, live: what a loop body changes is seen by the loop, as in the language.
#pragma once

#include <iterator>

#include "operations.hpp"

namespace py {

/// Lets signal handlers and other threads run now and then, as the interpreter's own loops do.
class Turns {
 public:
  void next(Where where) {
    if (++count_ % between == 0) [[unlikely]]
      pause(where);
  }

 private:
  static constexpr unsigned between = 4096;
  static void pause(Where where) {
    check(PyErr_CheckSignals(), where);
    PyEval_RestoreThread(PyEval_SaveThread());
  }
  unsigned count_ = 0;
};

/// `for (const Object& member : each(iterable))`
class each {
 public:
  explicit each(Object iterable, Where where = Where::current()) : where_(where) {
    exact_list_ = PyList_CheckExact(iterable.get());
    source_ = exact_list_ ? std::move(iterable) : steal(PyObject_GetIter(iterable.get()), where);
  }
  explicit each(Handle iterable, Where where = Where::current()) : each(borrow(iterable), where) {}

  class iterator {
   public:
    explicit iterator(each& loop) : loop_(loop), member_(loop.next()) {}
    const Object& operator*() const noexcept { return member_; }  // lives until the next one is there
    iterator& operator++() {
      member_ = loop_.next();
      return *this;
    }
    bool operator==(std::default_sentinel_t) const noexcept { return loop_.done_; }

   private:
    each& loop_;
    Object member_;
  };
  iterator begin() { return iterator(*this); }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  Object next() {
    turns_.next(where_);
    if (exact_list_) {  // its length is read afresh each time, as a list's own iterator does
      if (index_ < PyList_GET_SIZE(source_.get())) return borrow(PyList_GET_ITEM(source_.get(), index_++));
    } else {
      if (PyObject* member = PyIter_Next(source_.get())) return Object(member);
      if (PyErr_Occurred()) throw Error{where_};
    }
    done_ = true;
    return Object();
  }

  Object source_;
  Where where_;
  Turns turns_;
  Py_ssize_t index_ = 0;
  bool exact_list_ = false;
  bool done_ = false;
};

/// Exactly `count` members of an iterable, with the interpreter's own words where there are more or fewer.
template <std::size_t count>
std::array<Object, count> unpack(Handle iterable, Where where = Where::current()) {
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
    throw Error{where};
  }
  for (std::size_t i = 0; i < count; ++i) {
    members[i] = Object(PyIter_Next(iterator.get()));
    if (members[i]) continue;
    if (!PyErr_Occurred())
      PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zu, got %zu)", count, i);
    throw Error{where};
  }
  const Object excess(PyIter_Next(iterator.get()));
  if (excess) PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zu)", count);
  if (PyErr_Occurred()) throw Error{where};
  return members;
}

/// `for (const auto& [key, value] : items(mapping, name_of_items))`
class items {
 public:
  items(Handle mapping, Handle items_name, Where where = Where::current()) : where_(where) {
    exact_dict_ = PyDict_CheckExact(mapping);
    if (exact_dict_) {
      source_ = borrow(mapping);
      size_ = left_ = PyDict_GET_SIZE(mapping);
    } else {
      source_ = steal(PyObject_GetIter(method(mapping, items_name, where)(where).get()), where);
    }
  }

  struct Item {
    Object key, value;
  };

  class iterator {
   public:
    explicit iterator(items& loop) : loop_(loop) { ++*this; }
    const Item& operator*() const noexcept { return item_; }
    iterator& operator++() {
      Item next;
      loop_.next(next);
      item_ = std::move(next);
      return *this;
    }
    bool operator==(std::default_sentinel_t) const noexcept { return loop_.done_; }

   private:
    items& loop_;
    Item item_;
  };
  iterator begin() { return iterator(*this); }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  void next(Item& item) {
    turns_.next(where_);
    if (exact_dict_) {
      next_of_dict(item);
    } else if (const Object pair{PyIter_Next(source_.get())}) {
      auto [key, value] = unpack<2>(pair, where_);
      item = {std::move(key), std::move(value)};
    } else {
      if (PyErr_Occurred()) throw Error{where_};
      done_ = true;
    }
  }

  void next_of_dict(Item& item) {  // with the checks of the dict's own iterator
    if (PyDict_GET_SIZE(source_.get()) != size_)
      raise(PyExc_RuntimeError, "dictionary changed size during iteration", where_);
    PyObject *key = nullptr, *value = nullptr;
    if (!PyDict_Next(source_.get(), &position_, &key, &value)) {
      done_ = true;
    } else if (left_-- == 0) {
      raise(PyExc_RuntimeError, "dictionary keys changed during iteration", where_);
    } else {
      item = {borrow(key), borrow(value)};
    }
  }

  Object source_;
  Where where_;
  Turns turns_;
  Py_ssize_t position_ = 0, size_ = 0, left_ = 0;
  bool exact_dict_ = false;
  bool done_ = false;
};

}  // namespace py
