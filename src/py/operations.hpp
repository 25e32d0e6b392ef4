// What expressions and statements of the language do, for any type, with quicker ways for exact built-in types.
#pragma once

#include <algorithm>
#include <cstdint>

#include "object.hpp"

namespace py {

// Look-ups in an exact dict

/// The hash that an exact str keeps, or -1 where it has not been asked for yet.
PY_INLINE Py_hash_t kept_hash(Handle text) noexcept { return static_cast<PyASCIIObject*>(text)->hash; }

/// A number that tells one state of an exact dict from all others, and from all states of other dicts.
PY_INLINE std::uint64_t version(Handle dict) noexcept { return static_cast<PyDictObject*>(dict)->ma_version_tag; }

/// The value under `key` in an exact dict, or none when it is missing. It stays the dict's: hold it across calls.
PY_INLINE Handle peek(Handle dict, Handle key, Where where = Where::current()) {
  const Py_hash_t hash = PyUnicode_CheckExact(key) ? kept_hash(key) : -1;
  PyObject* value = hash != -1 ? _PyDict_GetItem_KnownHash(dict, key, hash) : PyDict_GetItemWithError(dict, key);
  if (value == nullptr && PyErr_Occurred()) [[unlikely]]
    throw Error{where};
  return value;
}

/// A reference of one's own to what `peek` finds.
PY_INLINE Object find(Handle dict, Handle key, Where where = Where::current()) {
  PyObject* value = peek(dict, key, where);
  Py_XINCREF(value);
  return Object(value);
}

// Attributes and calls

/// `object.name`
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
  Callee(Callee&&) noexcept = default;
  Callee& operator=(Callee&&) noexcept = default;
  PY_INLINE ~Callee() = default;
  PY_INLINE explicit Callee(Object callable, PyThreadState* thread = PyThreadState_Get()) noexcept
      : callable_(std::move(callable)), thread_(thread) {}
  PY_INLINE Callee(Object callable, PyThreadState* thread, Handle self, Object held = Object()) noexcept
      : callable_(std::move(callable)), thread_(thread), self_(self), held_(std::move(held)) {}

  PY_INLINE Object operator()(Where where = Where::current()) const { return call(nullptr, where); }

  template <class... Arguments>
  PY_INLINE Object operator()(Argument first, const Arguments&... others) const {
    return call(nullptr, first.where, first.object, others...);
  }

  /// The last arguments are passed by the names in the tuple `keywords`.
  template <class... Arguments>
  PY_INLINE Object with_keywords(Argument keywords, const Arguments&... arguments) const {
    return call(keywords.object, keywords.where, arguments...);
  }

 private:
  template <class... Arguments>
  PY_INLINE Object call(PyObject* keywords, Where where, const Arguments&... arguments) const {
    // The slot in front is the callee's to use (PY_VECTORCALL_ARGUMENTS_OFFSET).
    PyObject* stack[] = {nullptr, self_, Handle(arguments)...};
    const std::size_t bound = self_ ? 1 : 0;
    const std::size_t by_name = keywords ? PyTuple_GET_SIZE(keywords) : 0;
    const std::size_t flags = (bound + sizeof...(arguments) - by_name) | PY_VECTORCALL_ARGUMENTS_OFFSET;
    return steal(vectorcall(stack + 2 - bound, flags, keywords), where);
  }

  /// PyObject_Vectorcall, with the check for a callee that does not keep to the protocol in line.
  PY_INLINE PyObject* vectorcall(PyObject* const* stack, std::size_t flags, PyObject* keywords) const {
    const vectorcallfunc entry = PyVectorcall_Function(callable_.get());
    if (entry == nullptr) [[unlikely]]
      return _PyObject_MakeTpCall(thread_, callable_.get(), stack, PyVectorcall_NARGS(flags), keywords);
    PyObject* result = entry(callable_.get(), stack, flags, keywords);
    if (result != nullptr && thread_->curexc_type == nullptr) [[likely]]
      return result;
    return _Py_CheckFunctionResult(thread_, callable_.get(), result, nullptr);
  }

  Object callable_;
  PyThreadState* thread_ = nullptr;
  PyObject* self_ = nullptr;
  Object held_;  // keeps `self_` where nobody else does
};

/// `object.name`, about to be called: no bound method is made where the type has a plain function of that name.
PY_INLINE Callee method(Handle object, Handle name, Where where = Where::current(),
                        PyThreadState* thread = PyThreadState_Get()) {
  PyObject* found = nullptr;
  const int unbound = _PyObject_GetMethod(object, name, &found);
  return Callee(steal(found, where), thread, unbound ? object : nullptr);
}

/// The same for an object that nobody else holds.
PY_INLINE Callee method(Object&& object, Handle name, Where where = Where::current(),
                        PyThreadState* thread = PyThreadState_Get()) {
  Object held = std::move(object);
  PyObject* found = nullptr;
  const int unbound = _PyObject_GetMethod(held.get(), name, &found);
  Object callable = steal(found, where);
  if (!unbound) held = Object();  // which the interpreter lets go of before the call, too
  const Handle self = held;
  return Callee(std::move(callable), thread, self, std::move(held));
}

// Items

/// `object[key]`
PY_INLINE Object item(Handle object, Handle key, Where where = Where::current()) {
  if (!PyDict_CheckExact(object)) return steal(PyObject_GetItem(object, key), where);
  Object value = find(object, key, where);
  if (!value) [[unlikely]] {
    _PyErr_SetKeyError(key);
    throw Error{where};
  }
  return value;
}

/// `member in container`
PY_INLINE bool contains(Handle container, Handle member, Where where = Where::current()) {
  const PySequenceMethods* methods = Py_TYPE(container)->tp_as_sequence;
  if (methods != nullptr && methods->sq_contains != nullptr) [[likely]]
    return check(methods->sq_contains(container, member), where) != 0;
  return check(PySequence_Contains(container, member), where) != 0;
}

// Truth and comparison

/// An exact str whose length can be read as it stands; one made the old way has none before it is asked for.
PY_INLINE bool is_plain_text(Handle object) noexcept {
  return PyUnicode_CheckExact(object) && PyUnicode_IS_READY(static_cast<PyObject*>(object));
}

PY_INLINE bool truth(Handle object, Where where = Where::current()) {
  if (object == Py_True) return true;
  if (object == Py_False || object == Py_None) return false;
  if (is_plain_text(object)) return PyUnicode_GET_LENGTH(static_cast<PyObject*>(object)) != 0;
  if (PyList_CheckExact(object)) return PyList_GET_SIZE(static_cast<PyObject*>(object)) != 0;
  return check(PyObject_IsTrue(object), where) != 0;
}

/// The truth of a rich comparison; unlike PyObject_RichCompareBool it asks an object that meets itself, too.
inline bool compare(Handle left, Handle right, int operation, Where where = Where::current()) {
  return truth(steal(PyObject_RichCompare(left, right, operation), where), where);
}

PY_INLINE bool same_text(Handle left, Handle right) {
  return left == right ||
         (PyUnicode_GET_LENGTH(static_cast<PyObject*>(left)) == PyUnicode_GET_LENGTH(static_cast<PyObject*>(right)) &&
          _PyUnicode_EQ(left, right) != 0);
}

PY_INLINE bool equal(Handle left, Handle right, Where where = Where::current()) {
  if (is_plain_text(left) && is_plain_text(right)) return same_text(left, right);
  return compare(left, right, Py_EQ, where);
}

PY_INLINE bool unequal(Handle left, Handle right, Where where = Where::current()) {
  if (is_plain_text(left) && is_plain_text(right)) return !same_text(left, right);
  return compare(left, right, Py_NE, where);
}

// Strings and paths

inline bool is_compact_ascii(Handle text) noexcept { return PyUnicode_IS_COMPACT_ASCII(static_cast<PyObject*>(text)); }

/// Strings one behind the other, as an f-string puts its parts together.
template <std::size_t count>
Object concat(const Handle (&parts)[count], Where where = Where::current()) {
  if (!std::all_of(parts, parts + count, is_compact_ascii)) {
    const Object empty = steal(PyUnicode_New(0, 0), where);
    PyObject* array[count];
    std::copy(parts, parts + count, array);
    return steal(_PyUnicode_JoinArray(empty.get(), array, count), where);
  }
  Py_ssize_t length = 0;
  for (PyObject* part : parts) length += PyUnicode_GET_LENGTH(part);
  Object text = steal(PyUnicode_New(length, 0x7f), where);
  Py_UCS1* end = PyUnicode_1BYTE_DATA(text.get());
  for (PyObject* part : parts) end = std::copy_n(PyUnicode_1BYTE_DATA(part), PyUnicode_GET_LENGTH(part), end);
  return text;
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
  void append(Handle member, Where where = Where::current()) { append(borrow(member), where); }
  PY_INLINE void append(Object&& member, Where where = Where::current()) {
    auto* list = reinterpret_cast<PyListObject*>(get());
    const Py_ssize_t count = Py_SIZE(list);
    if (count < list->allocated) [[likely]] {  // the reference is handed over
      list->ob_item[count] = member.release();
      Py_SET_SIZE(list, count + 1);
    } else {
      check(PyList_Append(get(), member.get()), where);
    }
  }
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
