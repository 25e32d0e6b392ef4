// Plain functions of the interpreter whose body is C++.
//
// Such a function is a types.FunctionType over a code object of our own that hands its parameters to a builtin, its
// shell. So the interpreter binds arguments, words errors and shows the call to tracers as for any function. A call
// that is purely positional and complete goes straight to the body through the function's vectorcall instead.
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

/// As the compiler sets them for a plain function of a module with postponed annotations.
inline constexpr int code_flags = CO_OPTIMIZED | CO_NEWLOCALS | CO_NOFREE | CO_FUTURE_ANNOTATIONS;

/// Code that calls the shell, constant 1, with all `arity` parameters.
Object bytecode_of(std::size_t arity);
/// The code object of a function, which calls its shell.
Object code_over(const Signature& signature, Handle bytecode, Handle shell);
/// The code of a generator: `for member in members: yield function(member)`, assembled since the interpreter's compiler
/// corrupts its heap when memory runs out.
Object generator_code(const char* name, Where where = Where::current());
/// The function over `code` in the namespace `globals`, with defaults and annotations.
Object function_over(const Signature& signature, Handle code, Handle globals, Handle qualified_name);

/// The bytecode of functions by their number of parameters; a state holds one, to know its own code objects by.
class Bytecodes {
 public:
  static constexpr std::size_t most_parameters = std::tuple_size_v<decltype(Signature::parameters)>;

  Bytecodes() {
    for (std::size_t arity = 0; arity < bytecodes_.size(); ++arity) bytecodes_[arity] = bytecode_of(arity);
  }
  const Object& of(std::size_t arity) const { return bytecodes_[arity]; }

 private:
  std::array<Object, most_parameters + 1> bytecodes_;
};

/// Makes the function that `Definition` describes, as a member of `module_state`'s module.
using MakeFunction = Object (*)(Handle module_state, Handle globals, Handle qualified_name);

/// `Definition` has a `signature` and a static `body(const Scope<State>&, Handle...)`.
template <class State, class Definition>
class Function {
 public:
  static Object make(Handle module_state, Handle globals, Handle qualified_name) {
    const Object shell = steal(PyCFunction_New(&shell_definition, module_state));
    const Object code = code_over(signature, state_of<State>(module_state).bytecodes.of(arity), shell);
    Object function = function_over(signature, code, globals, qualified_name);
    auto* plain = reinterpret_cast<PyFunctionObject*>(function.get());
    if (plain->vectorcall == &_PyFunction_Vectorcall) plain->vectorcall = &call;
    return function;
  }

 private:
  static constexpr const Signature& signature = Definition::signature;
  static constexpr std::size_t arity = signature.arity();

  /// The direct way; every other kind of call is the interpreter's.
  static PyObject* call(PyObject* callable, PyObject* const* arguments, std::size_t flags,
                        PyObject* keywords) noexcept {
    const auto* function = reinterpret_cast<PyFunctionObject*>(callable);
    const bool complete = PyVectorcall_NARGS(flags) == Py_ssize_t{arity} && keywords == nullptr;
    PyThreadState* thread = PyThreadState_Get();
    const bool traced = thread->cframe->use_tracing != 0;
    PyObject* owner = complete && !traced ? own_state(reinterpret_cast<PyCodeObject*>(function->func_code)) : nullptr;
    if (owner == nullptr) return _PyFunction_Vectorcall(callable, arguments, flags, keywords);
    if (Py_EnterRecursiveCall("")) return nullptr;
    PyObject* result = run(thread, owner, function->func_globals, function->func_builtins, arguments);
    --thread->recursion_depth;  // Py_LeaveRecursiveCall, in line
    return result;
  }

  /// The state behind `code` when executing it would do nothing but call this body, else null.
  static PyObject* own_state(const PyCodeObject* code) noexcept {
    if (PyTuple_GET_SIZE(code->co_consts) != 2) return nullptr;
    PyObject* shell = PyTuple_GET_ITEM(code->co_consts, 1);
    if (!PyCFunction_CheckExact(shell)) return nullptr;
    const auto* builtin = reinterpret_cast<PyCFunctionObject*>(shell);
    if (builtin->m_ml != &shell_definition) return nullptr;
    const bool ours = code->co_code == state_of<State>(builtin->m_self).bytecodes.of(arity).get() &&
                      code->co_argcount == int{arity} && code->co_kwonlyargcount == 0 && code->co_flags == code_flags;
    return ours ? builtin->m_self : nullptr;
  }

  /// The way by the interpreter, which runs the shell's code in the namespace of the function.
  static PyObject* call_shell(PyObject* owner, PyObject* const* arguments, Py_ssize_t count) noexcept {
    PyObject* globals = PyEval_GetGlobals();
    PyObject* builtins = PyEval_GetBuiltins();
    if (count != Py_ssize_t{arity} || globals == nullptr) {
      PyErr_Format(PyExc_TypeError, "the shell of %s() is called by its function only", signature.name);
      return nullptr;
    }
    return run(PyThreadState_Get(), owner, globals, builtins, arguments);
  }

  static PyObject* run(PyThreadState* thread, PyObject* owner, PyObject* globals, PyObject* builtins,
                       PyObject* const* arguments) noexcept {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
      // What a frame would own: the caller may let go of function and arguments while the body runs.
      const Object held[] = {borrow(owner), borrow(globals), borrow(builtins), borrow(arguments[i])...};
      return guarded(signature.name, globals, [&] {
        return Definition::body(Scope<State>(thread, owner, globals, builtins, signature.name), Handle(held[3 + i])...);
      });
    }(std::make_index_sequence<arity>());
  }

  static inline PyMethodDef shell_definition = {
      signature.name, reinterpret_cast<PyCFunction>(reinterpret_cast<void*>(&call_shell)), METH_FASTCALL, nullptr};
};

}  // namespace py
