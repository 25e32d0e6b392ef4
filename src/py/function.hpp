// Plain functions of the interpreter whose body is C++.
//
// Such a function is a types.FunctionType whose code does nothing but call a builtin function with all parameters. So
// the interpreter binds arguments, words errors and shows the call to tracers as for any function. A call that is
// purely positional and complete goes straight to the body instead, through the function's vectorcall.
#pragma once

#include <array>

#include "scope.hpp"

namespace py {

struct Parameter {
  const char* name;
  const char* annotation = nullptr;
};

/// What Python shows of a function.
struct Signature {
  const char* name;
  std::array<Parameter, 5> parameters;  // up to the first without a name
  const char* result;
  const char* doc;
  bool last_is_optional = false;  // its default is None
  Where where = Where::current();

  constexpr std::size_t arity() const {
    std::size_t count = 0;
    while (count < parameters.size() && parameters[count].name != nullptr) ++count;
    return count;
  }
};

/// The function over `code` in the namespace `globals`, with defaults and annotations.
Object function_over(const Signature& signature, Handle code, Handle globals, Handle qualified_name);
/// The code of the function, which calls `builtin`.
Object code_of(const Signature& signature, Handle qualified_name, Handle builtin);

/// Makes one function of the module that `module_state` belongs to.
using MakeFunction = Object (*)(Handle module_state, Handle globals, Handle qualified_name);

inline std::size_t functions_defined = 0;

/// `Definition` has a `signature` and a static `body(const Scope<State>&, Handle...)`.
template <class State, class Definition>
class Function {
 public:
  static Object make(Handle module_state, Handle globals, Handle qualified_name) {
    const Object builtin = steal(PyCFunction_New(&builtin_definition, module_state));
    const Object code = code_of(signature, qualified_name, builtin);
    if (index >= ModuleState::most_functions) raise(PyExc_SystemError, "the module's state has no room for a function");
    state_of<State>(module_state).codes[index] = steal(PyWeakref_NewRef(code.get(), nullptr));
    Object function = function_over(signature, code, globals, qualified_name);
    set_entry(static_cast<PyFunctionObject*>(Handle(function)), &call);
    return function;
  }

 private:
  static constexpr const Signature& signature = Definition::signature;
  static constexpr std::size_t arity = signature.arity();
  static inline const std::size_t index = functions_defined++;

  /// The direct way; every other kind of call is the interpreter's.
  static PyObject* call(PyObject* callable, PyObject* const* arguments, std::size_t flags,
                        PyObject* keywords) noexcept {
    const auto* function = reinterpret_cast<PyFunctionObject*>(callable);
    const auto* code = reinterpret_cast<PyCodeObject*>(function->func_code);
    PyThreadState* thread = PyThreadState_Get();
    const bool complete = PyVectorcall_NARGS(flags) == Py_ssize_t{arity} && keywords == nullptr;
    PyObject* owner = complete ? owner_of(code) : nullptr;
    if (owner == nullptr || !state_of<State>(owner).direct_calls.allowed(thread, code))
      return by_interpreter.load(std::memory_order_relaxed)(callable, arguments, flags, keywords);
    if (!enter_call(thread)) return nullptr;
    PyObject* result = run(thread, owner, function->func_globals, function->func_builtins, arguments);
    leave_call(thread);
    return result;
  }

  /// The state's object when `code` is what was made for this function, else null.
  static PyObject* owner_of(const PyCodeObject* code) noexcept {
    const Py_ssize_t constants = PyTuple_GET_SIZE(code->co_consts);
    if (constants == 0) return nullptr;
    PyObject* last = PyTuple_GET_ITEM(code->co_consts, constants - 1);
    if (!PyCFunction_CheckExact(last)) return nullptr;
    const auto* builtin = reinterpret_cast<PyCFunctionObject*>(last);
    if (builtin->m_ml != &builtin_definition) return nullptr;
    const auto* made = static_cast<PyWeakReference*>(Handle(state_of<State>(builtin->m_self).codes[index]));
    return made->wr_object == reinterpret_cast<const PyObject*>(code) ? builtin->m_self : nullptr;
  }

  /// The way by the interpreter, which runs the function's code in its namespace.
  static PyObject* call_builtin(PyObject* owner, PyObject* const* arguments, Py_ssize_t count) noexcept {
    PyObject* globals = PyEval_GetGlobals();
    PyObject* builtins = PyEval_GetBuiltins();
    if (count != Py_ssize_t{arity} || globals == nullptr) {
      PyErr_Format(PyExc_TypeError, "the builtin behind %s() is called by its function only", signature.name);
      return nullptr;
    }
    return run(PyThreadState_Get(), owner, globals, builtins, arguments);
  }

  /// Everything that the body calls is compiled into it, so that its loops keep their state in registers.
  [[gnu::flatten]] static PyObject* run(PyThreadState* thread, PyObject* owner, PyObject* globals, PyObject* builtins,
                                        PyObject* const* arguments) noexcept {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
      // What a frame would own: the caller may let go of function and arguments while the body runs.
      const Object held[] = {borrow(owner), borrow(globals), borrow(builtins), borrow(arguments[i])...};
      return guarded(signature.name, globals, [&] {
        return Definition::body(Scope<State>(thread, owner, globals, builtins, signature.name), Handle(held[3 + i])...);
      });
    }(std::make_index_sequence<arity>());
  }

  static inline PyMethodDef builtin_definition = {
      signature.name, reinterpret_cast<PyCFunction>(reinterpret_cast<void*>(&call_builtin)), METH_FASTCALL, nullptr};
};

}  // namespace py
