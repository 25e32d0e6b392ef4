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

}  // namespace

Object bytecode_of(std::size_t arity) {
  char code[2 * (Bytecodes::most_parameters + 3)];
  char* end = code;
  const auto emit = [&end](int operation, std::size_t argument) {
    *end++ = static_cast<char>(operation);
    *end++ = static_cast<char>(argument);
  };
  emit(LOAD_CONST, 1);
  for (std::size_t i = 0; i < arity; ++i) emit(LOAD_FAST, i);
  emit(CALL_FUNCTION, arity);
  emit(RETURN_VALUE, 0);
  return steal(PyBytes_FromStringAndSize(code, end - code));
}

Object code_over(const Signature& signature, Handle bytecode, Handle shell) {
  const auto arity = static_cast<int>(signature.arity());
  const Object variables = steal(PyTuple_New(arity));
  for (int i = 0; i < arity; ++i) PyTuple_SET_ITEM(variables.get(), i, string(signature.parameters[i].name).release());
  const Object constants = steal(PyTuple_Pack(2, string(signature.doc).get(), static_cast<PyObject*>(shell)));
  const Object nothing = steal(PyTuple_New(0));
  const char line_table[] = {static_cast<char>(PyBytes_GET_SIZE(static_cast<PyObject*>(bytecode))), 0};  // one line
  const Object lines = steal(PyBytes_FromStringAndSize(line_table, sizeof line_table));
  return steal(reinterpret_cast<PyObject*>(
      PyCode_NewWithPosOnlyArgs(arity, 0, 0, arity, arity + 1, code_flags, bytecode, constants.get(), nothing.get(),
                                variables.get(), nothing.get(), nothing.get(), file_name(signature.where).get(),
                                string(signature.name).get(), static_cast<int>(signature.where.line()), lines.get())));
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
