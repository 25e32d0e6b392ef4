// A running function's surroundings: the module's state, the namespace where names are looked up, the traceback.
#pragma once

#include <cstdint>

#include "operations.hpp"

namespace py {

/// A module-level name, looked up at each use. The last answer is kept for as long as neither dict has changed, which
/// their version tags tell (no two states of any dicts share one), so it needs no reference of its own.
class Global {
 public:
  Global(const char* name, Where where = Where::current()) : name_(name, where) {}

  /// As LOAD_GLOBAL: `globals`, then `builtins`, then NameError.
  Object load(Handle globals, Handle builtins, Where where) {
    if (PyDict_CheckExact(globals) && PyDict_CheckExact(builtins)) [[likely]] {
      const std::uint64_t versions[] = {version(globals), version(builtins)};
      if (versions[0] != versions_[0] || versions[1] != versions_[1]) {
        Object value = find(globals, name_, where);
        if (!value) value = find(builtins, name_, where);
        if (!value) fail(where);
        // Comparing keys can run code that changes a dict: what was read then may not be what it holds now.
        if (versions[0] == version(globals) && versions[1] == version(builtins)) {
          versions_[0] = versions[0];
          versions_[1] = versions[1];
          value_ = value.get();
        }
        return value;
      }
      return borrow(value_);
    }
    Object value = subscript(globals, where);
    if (!value) value = subscript(builtins, where);
    if (!value) fail(where);
    return value;
  }

 private:
  static std::uint64_t version(Handle dict) noexcept {
    return reinterpret_cast<PyDictObject*>(static_cast<PyObject*>(dict))->ma_version_tag;
  }
  Object subscript(Handle mapping, Where where) const;
  [[noreturn]] void fail(Where where) const;

  Name name_;
  std::uint64_t versions_[2] = {0, 0};
  PyObject* value_ = nullptr;
};

/// An object whose only use is to carry a `State` for the shells. It knows nothing of the namespace: code objects are
/// not seen by the cycle collector, so a way back from them to the module would keep every module alive for ever.
template <class State>
struct StateObject {
  PyObject_HEAD State state;

  static Object make() {
    static PyType_Slot slots[] = {{Py_tp_dealloc, reinterpret_cast<void*>(&deallocate)}, {0, nullptr}};
    static PyType_Spec spec = {State::type_name, sizeof(StateObject), 0,
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

/// Adds the entry of `function` at `error.where` to the traceback of the exception that is set, once.
void add_traceback(Error& error, const char* function, PyObject* globals) noexcept;

/// The edge between C++ and the interpreter: what `body` returns, or null with the traceback entry of `function` added.
template <class Body>
PyObject* guarded(const char* function, PyObject* globals, Body body) noexcept {
  try {
    return body().release();
  } catch (Error& error) {
    add_traceback(error, function, globals);
    return nullptr;
  }
}

/// A frame of `function` on the stack, for a callee that looks at its caller, as a logger does.
class Frame {
 public:
  Frame(const char* function, PyObject* globals, Where where);
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  ~Frame();

 private:
  Object frame_;
};

/// What a function's body is given: the module's state and the namespace of the function that was called.
template <class State>
class Scope {
 public:
  Scope(Handle owner, Handle globals, Handle builtins, const char* function) noexcept
      : owner(owner), globals(globals), builtins(builtins), function(function) {}

  State* operator->() const noexcept { return &state_of<State>(owner); }

  Object load(Global& name, Where where = Where::current()) const { return name.load(globals, builtins, where); }
  Callee callee(Global& name, Where where = Where::current()) const { return Callee(load(name, where)); }

  const Handle owner;  // the state's object
  const Handle globals, builtins;
  const char* const function;
};

}  // namespace py
