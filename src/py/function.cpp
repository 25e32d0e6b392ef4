#include "function.hpp"

#include "collection.hpp"

namespace py {

Object code_of(const Signature& signature, Handle qualified_name, Handle builtin) {
  const auto arity = static_cast<Py_ssize_t>(signature.arity());
  const Object parameters = steal(PyTuple_New(arity));
  for (Py_ssize_t i = 0; i < arity; ++i)
    PyTuple_SET_ITEM(parameters.get(), i, string(signature.parameters[i].name).release());
  return calling_code(signature.name, qualified_name, parameters, signature.doc, builtin, signature.where);
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
