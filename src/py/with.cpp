#include "with.hpp"

namespace py {
namespace {

/// Found on the type; a plain function is called with `object` in front, without a bound method in between.
Callee special_method(const Object& object, Handle name, Where where) {
  PyTypeObject* type = Py_TYPE(object.get());
  PyObject* found = _PyType_Lookup(type, name);
  if (found == nullptr) {
    PyErr_SetObject(PyExc_AttributeError, name);
    throw Error{where};
  }
  PyThreadState* thread = PyThreadState_Get();
  Object method = borrow(found);
  if (PyFunction_Check(found)) return Callee(std::move(method), thread, object, object);
  if (const descrgetfunc get = Py_TYPE(found)->tp_descr_get)
    method = steal(get(found, object.get(), reinterpret_cast<PyObject*>(type)), where);
  return Callee(std::move(method), thread);
}

/// Makes an exception the one being handled, as an except clause does, for as long as this lives.
class Handling {
 public:
  Handling(Object type, Object value, Object traceback) noexcept : state_(PyThreadState_Get()) {
    // An item of its own: the caller may be handling an exception, which must be found untouched.
    item_ = {type.release(), value.release(), traceback.release(), state_->exc_info};
    state_->exc_info = &item_;
  }
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;
  ~Handling() {
    state_->exc_info = item_.previous_item;
    // What stands there now, not what was put there: code that ran meanwhile may have exchanged it.
    const Object type(item_.exc_type), value(item_.exc_value), traceback(item_.exc_traceback);
  }

 private:
  PyThreadState* state_;
  _PyErr_StackItem item_;
};

}  // namespace

Exit::Exit(Object manager, Handle enter_name, Handle exit_name, Where where) : where_(where) {
  const Callee enter = special_method(manager, enter_name, where);
  exit_ = special_method(manager, exit_name, where);
  manager = Object();  // from here on it is held by its methods alone
  enter(where);
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
    if (truth(exit_({type, where_}, value, traceback), where_)) return value;
  }
  PyErr_Restore(type.release(), value.release(), traceback.release());
  return Object();
}

}  // namespace py
