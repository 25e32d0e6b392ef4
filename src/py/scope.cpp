#include "scope.hpp"

#include <frameobject.h>

namespace py {

void raise_from(Handle cause, PyObject* exception_type, const char* message, Where where) {
  PyErr_SetString(exception_type, message);
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  PyException_SetCause(value, borrow(cause).release());
  PyErr_Restore(type, value, traceback);
  throw Error{where};
}

PyObject* Global::look_up(const Namespace& names, Where where) {
  const bool exact = PyDict_CheckExact(names.globals) && PyDict_CheckExact(names.builtins);
  const auto in = [&](Handle dict) { return exact ? find(dict, name_, where) : subscript(dict, where); };
  const std::uint64_t versions[] = {*names.versions[0], *names.versions[1]};
  Object value = in(names.globals);
  if (!value) value = in(names.builtins);
  if (!value) fail(where);
  // Comparing keys can run code that changes a dict: what was read then may not be what it holds now.
  if (exact && versions[0] == *names.versions[0] && versions[1] == *names.versions[1]) {
    versions_[0] = versions[0];
    versions_[1] = versions[1];
    value_ = value.get();
  }
  return value.release();
}

PyObject* Member::look_up(Handle object, Where where) {
  PyObject* dict = PyModule_CheckExact(object) ? PyModule_GetDict(object) : nullptr;
  const std::uint64_t before = dict ? version(dict) : 0;
  Object value = attr(object, name_, where);
  // A module's own __getattr__ may answer otherwise next time.
  if (dict != nullptr && peek(dict, name_, where) == value.get() && version(dict) == before) {
    version_ = before;
    value_ = value.get();
  }
  return value.release();
}

Object Global::subscript(Handle mapping, Where where) const {
  PyObject* value = PyObject_GetItem(mapping, name_.get());
  if (value == nullptr) {
    if (!PyErr_ExceptionMatches(PyExc_KeyError)) throw Error{where};
    PyErr_Clear();
  }
  return Object(value);
}

void Global::fail(Where where) const {
  PyErr_Format(PyExc_NameError, "name '%.200U' is not defined", name_.get());
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  // The interpreter words its suggestions from this attribute.
  if (Py_IS_TYPE(value, reinterpret_cast<PyTypeObject*>(PyExc_NameError)) &&
      PyObject_SetAttrString(value, "name", name_.get()) < 0)
    PyErr_Clear();
  PyErr_Restore(type, value, traceback);
  throw Error{where};
}

namespace {

/// A frame that stands at a place in the C++ source, or null with an error set.
Object frame_at(const char* function, PyObject* globals, Where where) noexcept {
  const int line = static_cast<int>(where.line());
  PyCodeObject* code = PyCode_NewEmpty(where.file_name(), function, line);
  if (code == nullptr) return Object();
  const Object hold(reinterpret_cast<PyObject*>(code));
  PyFrameObject* frame = PyFrame_New(PyThreadState_Get(), code, globals, nullptr);
  if (frame != nullptr) frame->f_lineno = line;
  return Object(reinterpret_cast<PyObject*>(frame));
}

}  // namespace

Frame::Frame(const char* function, PyObject* globals, Where where)
    : frame_(steal(frame_at(function, globals, where).release(), where)) {
  PyThreadState_Get()->frame = static_cast<PyFrameObject*>(Handle(frame_));
}

Frame::~Frame() { PyThreadState_Get()->frame = static_cast<PyFrameObject*>(Handle(frame_))->f_back; }

void add_traceback(Error& error, const char* function, PyObject* globals) noexcept {
  if (std::exchange(error.in_traceback, true)) return;
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);  // first: what follows needs the error indicator for itself
  const Object frame = frame_at(function, globals, error.where);
  PyErr_Restore(type, value, traceback);  // what failed above gives way to the caller's own error
  if (frame) PyTraceBack_Here(static_cast<PyFrameObject*>(Handle(frame)));
}

}  // namespace py
