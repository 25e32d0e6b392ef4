// What functions of a module share, and the object that carries it.
#pragma once

#include <new>

#include "interpreter.hpp"
#include "text.hpp"
#include "turns.hpp"

namespace py {

/// What this layer needs of a module's state; a module derives its own.
struct ModuleState {
  static constexpr std::size_t most_functions = 16;

  ModuleState() { Turns::prepare(); }

  Name __enter__{"__enter__"};
  Name __exit__{"__exit__"};
  DictStates dict_states;
  DirectCalls direct_calls;
  CallingFrames calling_frames;
  /// Weak references, by function: code leads to the state, so the state must not keep code alive.
  std::array<Object, most_functions> codes;
};

/// An object whose only use is to carry a `State` for the functions. It knows nothing of the namespace: code objects
/// are not seen by the cycle collector, so a way back from them to the module would keep every module alive for ever.
template <class State>
struct StateObject {
  PyObject_HEAD State state;

  static Object make() {
    static PyType_Slot slots[] = {{Py_tp_dealloc, reinterpret_cast<void*>(&deallocate)}, {0, nullptr}};
    static PyType_Spec spec = {"py.ModuleState", sizeof(StateObject), 0,
                               Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};
    const Object type = steal(PyType_FromSpec(&spec));
    auto* made = PyObject_New(StateObject, reinterpret_cast<PyTypeObject*>(type.get()));
    if (made == nullptr) throw Error{Where::current()};
    try {
      new (&made->state) State;
    } catch (Error&) {
      PyObject_Free(made);
      Py_DECREF(type.get());  // an instance of a heap type holds it
      throw;
    }
    return Object(reinterpret_cast<PyObject*>(made));
  }

 private:
  static void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<StateObject*>(self)->state.~State();
    PyObject_Free(self);
    Py_DECREF(type);
  }
};

template <class State>
State& state_of(PyObject* object) noexcept {
  return reinterpret_cast<StateObject<State>*>(object)->state;
}

}  // namespace py
