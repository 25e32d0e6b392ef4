#include "turns.hpp"

#include "collection.hpp"
#include "interpreter.hpp"
#include "text.hpp"

namespace py {
namespace {

constexpr const char* key = "py::Turns::pause";

PyObject* shared_objects() { return PyInterpreterState_GetDict(PyInterpreterState_Get()); }

}  // namespace

// A Python function is what pauses, because only Python code sees that another thread asks for the interpreter lock.
// To release the lock unasked is worse: a thread that waits for it is woken, finds it taken again, and its time to wait
// before it may ask begins anew.
void Turns::prepare() {
  PyObject* shared = shared_objects();
  if (shared == nullptr) raise(PyExc_MemoryError, "no dict for objects of the interpreter");
  auto* returns_none = reinterpret_cast<PyObject*>(Py_TYPE(Py_None));
  const Object code = calling_code("pause", string("pause"), steal(PyTuple_New(0)),
                                   "Lets signal handlers and other threads run.", returns_none, Where::current());
  const Object function = steal(PyFunction_New(code.get(), Dict().get()));
  check(PyDict_SetItemString(shared, key, function.get()));
}

void Turns::pause(Where where) {
  PyObject* function = PyDict_GetItemString(shared_objects(), key);
  if (function == nullptr) return;  // there is no memory to look it up with: the next pause may find it
  steal({PyObject_CallNoArgs(borrow(function).get()), where});
}

}  // namespace py
