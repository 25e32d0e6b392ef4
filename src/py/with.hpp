// The with statement.
#pragma once

#include <optional>

#include "scope.hpp"

namespace py {

/// `__exit__` of a context manager that was entered.
class Exit {
 public:
  /// Finds `__enter__` and `__exit__` on the type of `manager`, then enters it.
  Exit(At<Object> manager, Handle enter_name, Handle exit_name);
  void normal();
  /// Hands over the exception that is set; gives it back if it was swallowed, else it is set again.
  Object exceptional() const;

 private:
  Callee exit_;
  Where where_;
};

/// `with manager: body()`; gives the exception of the body that the manager swallowed, if any.
template <class State, class Body>
Object with(const Scope<State>& scope, At<Object> manager, Body body) {
  Exit exit(std::move(manager), scope->__enter__, scope->__exit__);
  std::optional<Error> failure;
  try {
    body();
  } catch (Error& error) {
    add_traceback(error, scope.function, scope.names.globals);
    failure = error;
  }
  if (!failure) {
    exit.normal();
    return Object();
  }
  if (Object swallowed = exit.exceptional()) return swallowed;
  throw Error(*failure);
}

}  // namespace py
