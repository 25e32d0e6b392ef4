// The with statement.
#pragma once

#include <optional>

#include "scope.hpp"

namespace py {

/// `__exit__` of a context manager that was entered.
class Exit {
 public:
  /// Finds `__enter__` and `__exit__` on the type of `manager`, then enters it.
  Exit(Handle manager, Handle enter_name, Handle exit_name, Where where);
  void normal() const;
  /// Hands over the exception that is set, which ends handled (true) or set again (false).
  bool exceptional() const;

 private:
  Callee exit_;
  Where where_;
};

/// `with manager: body()`, false where the manager swallowed an exception of the body.
template <class State, class Body>
bool with(const Scope<State>& scope, Handle manager, Body body, Where where = Where::current()) {
  const Exit exit(manager, scope->__enter__, scope->__exit__, where);
  std::optional<Error> failure;
  try {
    body();
  } catch (Error& error) {
    add_traceback(error, scope.function, scope.globals);
    failure = error;
  }
  if (!failure) {
    exit.normal();
    return true;
  }
  if (exit.exceptional()) return false;
  throw Error(*failure);
}

}  // namespace py
