#include "namespace.hpp"

#include "value.hpp"

namespace py {
namespace {

/// `mapping[key]`, or none where that raises KeyError.
Object subscript(Handle mapping, Operand key) {
  PyObject* value = PyObject_GetItem(mapping, key);
  if (value == nullptr) {
    if (!PyErr_ExceptionMatches(PyExc_KeyError)) throw Error{key.where};
    PyErr_Clear();
  }
  return Object(value);
}

[[noreturn]] void not_defined(Operand name) {
  PyErr_Format(PyExc_NameError, "name '%.200U' is not defined", static_cast<PyObject*>(name));
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  // The interpreter words its suggestions from this attribute.
  if (Py_IS_TYPE(value, reinterpret_cast<PyTypeObject*>(PyExc_NameError)) &&
      PyObject_SetAttrString(value, "name", name) < 0)
    PyErr_Clear();
  PyErr_Restore(type, value, traceback);
  throw Error{name.where};
}

bool are_exact_dicts(Handle globals, Handle builtins) {
  return PyDict_CheckExact(globals) && PyDict_CheckExact(builtins);
}

}  // namespace

Object load_name(Handle globals, Handle builtins, Operand name) {
  const bool exact = are_exact_dicts(globals, builtins);
  Object value = exact ? find(globals, name) : subscript(globals, name);
  if (!value) value = exact ? find(builtins, name) : subscript(builtins, name);
  if (!value) not_defined(name);
  return value;
}

PyObject* Global::look_up(const Namespace& names, Where where) {
  // The states of before: comparing keys can run code that changes a dict, and then nothing is remembered.
  const bool exact = are_exact_dicts(names.globals, names.builtins);
  const auto globals = exact ? names.states.watch(names.globals) : DictStates::never;
  const auto builtins = exact ? names.states.watch(names.builtins) : DictStates::never;
  Object value = load_name(names.globals, names.builtins, {name_, where});
  globals_ = globals;
  builtins_ = builtins;
  value_ = value.get();
  return value.release();
}

PyObject* Member::look_up(Operand object, const DictStates& states) {
  PyObject* dict = PyModule_CheckExact(object) ? PyModule_GetDict(object) : nullptr;
  const auto before = dict ? states.watch(dict) : DictStates::never;
  Object value = steal({PyObject_GetAttr(object, name_.get()), object.where});
  // A module's own __getattr__ may answer otherwise next time.
  const bool stored = dict != nullptr && peek(dict, {name_, object.where}) == value.get();
  dict_ = stored ? before : DictStates::never;
  value_ = value.get();
  return value.release();
}

}  // namespace py
