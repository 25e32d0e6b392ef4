#include "with.hpp"

#include "value.hpp"

namespace py {
namespace {

/// Found on the type; a plain function is called with `object` in front, without a bound method in between.
Callee special_method(const Object& object, Operand name) {
  PyTypeObject* type = Py_TYPE(object.get());
  PyObject* found = on_type(type, name);
  if (found == nullptr) no_context_manager(type, name);
  PyThreadState* thread = PyThreadState_Get();
  Object method = borrow(found);
  if (PyFunction_Check(found)) return Callee(std::move(method), thread, object, object);
  if (const descrgetfunc get = Py_TYPE(found)->tp_descr_get)
    method = steal({get(found, object.get(), reinterpret_cast<PyObject*>(type)), name.where});
  return Callee(std::move(method), thread);
}

}  // namespace

Exit::Exit(At<Object> manager, Handle enter_name, Handle exit_name) : where_(manager.where) {
  const Callee enter = special_method(manager.value, {enter_name, where_});
  exit_ = special_method(manager.value, {exit_name, where_});
  manager.value = Object();  // from here on it is held by its methods alone
  enter(where_);
}

void Exit::normal() {
  const Object result = exit_({Py_None, where_}, Py_None, Py_None);
  exit_ = Callee();  // before the result, as what was called goes first
}

Object Exit::exceptional() const {
  PyObject *fetched_type, *fetched_value, *fetched_traceback;
  PyErr_Fetch(&fetched_type, &fetched_value, &fetched_traceback);
  PyErr_NormalizeException(&fetched_type, &fetched_value, &fetched_traceback);
  if (fetched_traceback == nullptr) fetched_traceback = none().release();
  PyException_SetTraceback(fetched_value, fetched_traceback);
  Object type(fetched_type), value(fetched_value), traceback(fetched_traceback);
  {
    const Handling handling(type, value, traceback);
    if (truth({exit_({type, where_}, value, traceback), where_})) return value;
  }
  PyErr_Restore(type.release(), value.release(), traceback.release());
  return Object();
}

}  // namespace py
