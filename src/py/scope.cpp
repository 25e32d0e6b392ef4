#include "scope.hpp"

#include <frameobject.h>

namespace py {

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

void add_traceback(Error& error, const char* function, PyObject* globals) noexcept {
  if (std::exchange(error.in_traceback, true)) return;
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);  // first: what follows needs the error indicator for itself
  const int line = static_cast<int>(error.where.line());
  const Object code(reinterpret_cast<PyObject*>(PyCode_NewEmpty(error.where.file_name(), function, line)));
  const Object frame(code ? reinterpret_cast<PyObject*>(
                                PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.get()), globals,
                                            nullptr))
                          : nullptr);
  PyErr_Restore(type, value, traceback);  // what failed above gives way to the caller's own error
  if (!frame) return;
  auto* entry = reinterpret_cast<PyFrameObject*>(frame.get());
  entry->f_lineno = line;
  PyTraceBack_Here(entry);
}

}  // namespace py
