#include "function.hpp"

#include <opcode.h>

#include <cstring>

namespace py {
namespace {

/// The file name of `where` in angle brackets: tools that look for the source of every function pass over it.
Object file_name(Where where) {
  const char* file = where.file_name();
  const char* slash = std::strrchr(file, '/');
  return steal(PyUnicode_FromFormat("<%s>", slash ? slash + 1 : file));
}

/// Instructions of the interpreter, in the order of their execution.
class Assembly {
 public:
  static constexpr std::size_t most = 16;
  void emit(int operation, std::size_t argument = 0) {
    *end_++ = static_cast<char>(operation);
    *end_++ = static_cast<char>(argument);
  }
  Object bytes() const { return steal(PyBytes_FromStringAndSize(code_, end_ - code_)); }

 private:
  char code_[2 * most];
  char* end_ = code_;
};

template <class... Text>
Object strings(const Text*... text) {
  return steal(PyTuple_Pack(sizeof...(text), string(text).get()...));
}

/// A code object whose lines are all that of `where`.
Object code_of(const char* name, int arity, int stack, int flags, Handle bytecode, Handle constants, Handle variables,
               Where where) {
  const Object nothing = steal(PyTuple_New(0));
  const char line_table[] = {static_cast<char>(PyBytes_GET_SIZE(static_cast<PyObject*>(bytecode))), 0};
  const Object lines = steal(PyBytes_FromStringAndSize(line_table, sizeof line_table));
  const auto variable_count = static_cast<int>(PyTuple_GET_SIZE(static_cast<PyObject*>(variables)));
  return steal(reinterpret_cast<PyObject*>(PyCode_NewWithPosOnlyArgs(
      arity, 0, 0, variable_count, stack, flags, bytecode, constants, nothing.get(), variables, nothing.get(),
      nothing.get(), file_name(where).get(), string(name).get(), static_cast<int>(where.line()), lines.get())));
}

}  // namespace

Object bytecode_of(std::size_t arity) {
  static_assert(Bytecodes::most_parameters + 3 <= Assembly::most);
  Assembly code;
  code.emit(LOAD_CONST, 1);
  for (std::size_t i = 0; i < arity; ++i) code.emit(LOAD_FAST, i);
  code.emit(CALL_FUNCTION, arity);
  code.emit(RETURN_VALUE);
  return code.bytes();
}

Object code_over(const Signature& signature, Handle bytecode, Handle shell) {
  const auto arity = static_cast<int>(signature.arity());
  const Object variables = steal(PyTuple_New(arity));
  for (int i = 0; i < arity; ++i) PyTuple_SET_ITEM(variables.get(), i, string(signature.parameters[i].name).release());
  const Object constants = steal(PyTuple_Pack(2, string(signature.doc).get(), static_cast<PyObject*>(shell)));
  return code_of(signature.name, arity, arity + 1, code_flags, bytecode, constants, variables, signature.where);
}

Object generator_code(const char* name, Where where) {
  constexpr std::size_t members = 0, function = 1, member = 2;
  constexpr std::size_t loop = 3, end = 11;  // by instructions
  Assembly code;
  code.emit(GEN_START);
  code.emit(LOAD_FAST, members);
  code.emit(GET_ITER);
  code.emit(FOR_ITER, end - (loop + 1));
  code.emit(STORE_FAST, member);
  code.emit(LOAD_FAST, function);
  code.emit(LOAD_FAST, member);
  code.emit(CALL_FUNCTION, 1);
  code.emit(YIELD_VALUE);
  code.emit(POP_TOP);
  code.emit(JUMP_ABSOLUTE, loop);
  code.emit(LOAD_CONST, 0);
  code.emit(RETURN_VALUE);
  const Object constants = steal(PyTuple_Pack(1, Py_None));
  return code_of(name, 2, 3, CO_OPTIMIZED | CO_NEWLOCALS | CO_GENERATOR | CO_NOFREE, code.bytes(), constants,
                 strings("members", "function", "member"), where);
}

Object function_over(const Signature& signature, Handle code, Handle globals, Handle qualified_name) {
  Object function = steal(PyFunction_NewWithQualName(code, globals, qualified_name));
  Dict annotations;
  for (const Parameter& parameter : signature.parameters)
    if (parameter.annotation) annotations.set(Name(parameter.name), string(parameter.annotation));
  annotations.set(Name("return"), string(signature.result));
  check(PyFunction_SetAnnotations(function.get(), annotations.get()));
  if (signature.last_is_optional) {
    const Object defaults = steal(PyTuple_Pack(1, Py_None));
    check(PyFunction_SetDefaults(function.get(), defaults.get()));
  }
  return function;
}

}  // namespace py
