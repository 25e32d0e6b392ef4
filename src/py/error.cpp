#include "error.hpp"

#include <frameobject.h>

namespace py {

void raise(PyObject* type, At<const char*> message) {
  PyErr_SetString(type, message.value);
  throw Error{message.where};
}

void raise_from(Handle cause, PyObject* exception_type, At<const char*> message) {
  PyErr_SetString(exception_type, message.value);
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  PyException_SetCause(value, borrow(cause).release());
  PyErr_Restore(type, value, traceback);
  throw Error{message.where};
}

void add_traceback(Error& error, const char* function, PyObject* globals) noexcept {
  if (!PyErr_Occurred()) PyErr_NoMemory();  // which the interpreter's compiler does not always say
  if (std::exchange(error.in_traceback, true)) return;
  PyObject *type, *value, *traceback;
  PyErr_Fetch(&type, &value, &traceback);  // first: what follows needs the error indicator for itself
  const Object code(reinterpret_cast<PyObject*>(
      PyCode_NewEmpty(error.where.file_name(), function, static_cast<int>(error.where.line()))));
  Object frame;  // one that has not begun stands at the first line of its code
  if (code)
    frame = Object(reinterpret_cast<PyObject*>(
        PyFrame_New(PyThreadState_Get(), static_cast<PyCodeObject*>(Handle(code)), globals, nullptr)));
  PyErr_Restore(type, value, traceback);  // what failed above gives way to the caller's own error
  if (frame) PyTraceBack_Here(static_cast<PyFrameObject*>(Handle(frame)));
}

}  // namespace py
