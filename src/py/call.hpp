// Attributes and calls.
#pragma once

#include "interpreter.hpp"

namespace py {

/// `object.name`
inline Object attr(Operand object, Handle name) { return steal({PyObject_GetAttr(object, name), object.where}); }

/// A callable that was looked up before its arguments are evaluated, with the object that it is a method of, if any.
class Callee {
 public:
  Callee() noexcept = default;
  explicit Callee(Object callable, PyThreadState* thread = PyThreadState_Get()) noexcept
      : callable_(std::move(callable)), thread_(thread) {}
  Callee(Object callable, PyThreadState* thread, Handle self, Object held = Object()) noexcept
      : callable_(std::move(callable)), thread_(thread), self_(self), held_(std::move(held)) {}

  Object operator()(Where where = Where::current()) const { return call(nullptr, where); }

  template <class... Arguments>
  Object operator()(Operand first, const Arguments&... others) const {
    return call(nullptr, first.where, first, others...);
  }

  /// The last arguments are passed by the names in the tuple `keywords`.
  template <class... Arguments>
  Object with_keywords(Operand keywords, const Arguments&... arguments) const {
    return call(keywords, keywords.where, arguments...);
  }

 private:
  template <class... Arguments>
  Object call(PyObject* keywords, Where where, const Arguments&... arguments) const {
    // The slot in front is the callee's to use (PY_VECTORCALL_ARGUMENTS_OFFSET).
    PyObject* stack[] = {nullptr, self_, Handle(arguments)...};
    const std::size_t bound = self_ ? 1 : 0;
    const std::size_t by_name = keywords ? PyTuple_GET_SIZE(keywords) : 0;
    const std::size_t flags = (bound + sizeof...(arguments) - by_name) | PY_VECTORCALL_ARGUMENTS_OFFSET;
    return steal({vectorcall(thread_, callable_.get(), stack + 2 - bound, flags, keywords), where});
  }

  Object callable_;
  PyThreadState* thread_ = nullptr;
  PyObject* self_ = nullptr;
  Object held_;  // keeps `self_` where nobody else does
};

/// `object.name`, about to be called: no bound method is made where the type has a plain function of that name.
inline Callee method(Handle object, Operand name, PyThreadState* thread = PyThreadState_Get()) {
  PyObject* found = nullptr;
  const bool unbound = look_up_method(object, name, &found);
  return Callee(steal({found, name.where}), thread, unbound ? object : nullptr);
}

/// The same for an object that nobody else holds.
inline Callee method(Object&& object, Operand name, PyThreadState* thread = PyThreadState_Get()) {
  Object held = std::move(object);
  PyObject* found = nullptr;
  const bool unbound = look_up_method(held.get(), name, &found);
  Object callable = steal({found, name.where});
  if (!unbound) held = Object();  // which the interpreter lets go of before the call, too
  const Handle self = held;
  return Callee(std::move(callable), thread, self, std::move(held));
}

}  // namespace py
