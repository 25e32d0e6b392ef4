// A running function's surroundings: the module's state, the namespace where names are looked up, the traceback.
#pragma once

#include <new>

#include "operations.hpp"

namespace py {

/// Where a function looks names up.
struct Namespace {
  Namespace(Handle globals, Handle builtins) noexcept : globals(globals), builtins(builtins) {}

  const Handle globals, builtins;
  /// Where the version tags of the two stand. What is no exact dict has `none`, which nothing that is remembered has.
  const std::uint64_t* const versions[2] = {version_of(globals), version_of(builtins)};

 private:
  static constexpr std::uint64_t none = ~std::uint64_t{0};
  static const std::uint64_t* version_of(Handle mapping) noexcept {
    return PyDict_CheckExact(mapping) ? &static_cast<PyDictObject*>(mapping)->ma_version_tag : &none;
  }
};

/// A module-level name, looked up at each use. The last answer is kept for as long as neither dict has changed, which
/// their version tags tell, so it needs no reference of its own.
class Global {
 public:
  Global(const char* name, Where where = Where::current()) : name_(name, where) {}

  /// As LOAD_GLOBAL: the globals, then the builtins, then NameError.
  PY_INLINE Object load(const Namespace& names, Where where) {
    if (*names.versions[0] == versions_[0] && *names.versions[1] == versions_[1]) [[likely]]
      return borrow(value_);
    return Object(look_up(names, where));
  }

 private:
  [[gnu::noinline]] PyObject* look_up(const Namespace& names, Where where);
  Object subscript(Handle mapping, Where where) const;
  [[noreturn]] void fail(Where where) const;

  Name name_;
  std::uint64_t versions_[2] = {0, 0};  // which no dict has
  PyObject* value_ = nullptr;           // borrowed from the dict of that version
};

/// `module.name`, remembered for as long as the module's dict stands; any other object is asked each time.
class Member {
 public:
  Member(const char* name, Where where = Where::current()) : name_(name, where) {}

  PY_INLINE Object of(Handle object, Where where = Where::current()) {
    if (Py_IS_TYPE(static_cast<PyObject*>(object), &PyModule_Type)) [[likely]] {
      PyObject* dict = PyModule_GetDict(object);
      if (dict != nullptr && version(dict) == version_) return borrow(value_);
    }
    return Object(look_up(object, where));
  }

 private:
  [[gnu::noinline]] PyObject* look_up(Handle object, Where where);

  Name name_;
  std::uint64_t version_ = 0;  // which no dict has
  PyObject* value_ = nullptr;  // borrowed from the dict of that version
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
/// Memory that C++ could not get becomes a MemoryError, which has no place in the source.
template <class Body>
PyObject* guarded(const char* function, PyObject* globals, Body body) noexcept {
  try {
    return body().release();
  } catch (Error& error) {
    add_traceback(error, function, globals);
  } catch (std::bad_alloc&) {
    PyErr_NoMemory();
  }
  return nullptr;
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
  Scope(PyThreadState* thread, Handle owner, Handle globals, Handle builtins, const char* function) noexcept
      : thread(thread), owner(owner), names(globals, builtins), function(function) {}

  State* operator->() const noexcept { return &state_of<State>(owner); }

  PY_INLINE Object load(Global& name, Where where = Where::current()) const { return name.load(names, where); }
  PY_INLINE Callee callee(Global& name, Where where = Where::current()) const {
    return Callee(load(name, where), thread);
  }
  PY_INLINE Callee callee(Global& module, Member& name, Where where = Where::current()) const {
    return Callee(name.of(load(module, where), where), thread);
  }
  template <class Reference>
  PY_INLINE Callee method(Reference&& object, Handle name, Where where = Where::current()) const {
    return py::method(std::forward<Reference>(object), name, where, thread);
  }

  PyThreadState* const thread;
  const Handle owner;  // the state's object
  const Namespace names;
  const char* const function;
};

}  // namespace py
