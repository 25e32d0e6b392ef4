// What a function's body is given: the state of its module, and the namespace of the function that was called.
#pragma once

#include "call.hpp"
#include "namespace.hpp"
#include "state.hpp"

namespace py {

template <class State>
class Scope {
 public:
  Scope(PyThreadState* thread, Handle owner, Handle globals, Handle builtins, const char* function) noexcept
      : thread(thread),
        owner(owner),
        names(globals, builtins, state_of<State>(owner).dict_states),
        function(function) {}

  State* operator->() const noexcept { return &state_of<State>(owner); }

  Object load(At<Global&> name) const { return name.value.load(names, name.where); }
  Callee callee(At<Global&> name) const { return Callee(load(name), thread); }
  Callee callee(At<Global&> module, Member& name) const {
    return Callee(name.of({load(module), module.where}, names.states), thread);
  }
  template <class Reference>
  Callee method(Reference&& object, Operand name) const {
    return py::method(std::forward<Reference>(object), name, thread);
  }

  PyThreadState* const thread;
  const Handle owner;  // the state's object
  const Namespace names;
  const char* const function;
};

}  // namespace py
