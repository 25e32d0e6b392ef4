// Names of a module, looked up at each use; what was found is remembered for as long as nothing can have changed.
#pragma once

#include "interpreter.hpp"
#include "text.hpp"

namespace py {

/// Where a function looks names up.
struct Namespace {
  Namespace(Handle globals, Handle builtins, const DictStates& states) noexcept
      : globals(globals), builtins(builtins), global_state(globals), builtin_state(builtins), states(states) {}

  const Handle globals, builtins;
  const DictStates::Place global_state, builtin_state;
  const DictStates& states;
};

/// The value of `name`, as LOAD_GLOBAL finds it: in the globals, then in the builtins, else NameError.
Object load_name(Handle globals, Handle builtins, Operand name);

/// A module-level name.
class Global {
 public:
  Global(At<const char*> name) : name_(name) {}

  Object load(const Namespace& names, Where where) {
    if (names.global_state.now() == globals_ && names.builtin_state.now() == builtins_) [[likely]]
      return borrow(value_);
    return Object(look_up(names, where));
  }

 private:
  [[gnu::noinline]] PyObject* look_up(const Namespace& names, Where where);

  Name name_;
  DictStates::State globals_ = DictStates::never, builtins_ = DictStates::never;
  PyObject* value_ = nullptr;  // borrowed from a dict that is still in this state
};

/// `module.name`, remembered while the module's dict stays as it is; any other object is asked each time.
class Member {
 public:
  Member(At<const char*> name) : name_(name) {}

  Object of(Operand object, const DictStates& states) {
    if (Py_IS_TYPE(static_cast<PyObject*>(object), &PyModule_Type)) [[likely]] {
      PyObject* dict = PyModule_GetDict(object);
      if (dict != nullptr && DictStates::Place(dict).now() == dict_) return borrow(value_);
    }
    return Object(look_up(object, states));
  }

 private:
  [[gnu::noinline]] PyObject* look_up(Operand object, const DictStates& states);

  Name name_;
  DictStates::State dict_ = DictStates::never;
  PyObject* value_ = nullptr;  // borrowed from a dict that is still in this state
};

}  // namespace py
