#include "import.hpp"

namespace py {

Object import_module(Handle globals, const char* name, std::initializer_list<const char*> names, Where where) {
  Object from_list = none();
  if (names.size() != 0) {
    from_list = steal(PyTuple_New(static_cast<Py_ssize_t>(names.size())), where);
    Py_ssize_t i = 0;
    for (const char* member : names) PyTuple_SET_ITEM(from_list.get(), i++, Name(member, where).release());
  }
  const Object import(PyObject_GetItem(PyEval_GetBuiltins(), Name("__import__", where).get()));  // a host's own, maybe
  if (!import) {
    if (PyErr_ExceptionMatches(PyExc_KeyError)) PyErr_SetString(PyExc_ImportError, "__import__ not found");
    throw Error{where};
  }
  return Callee(import)({Name(name, where), where}, globals, globals, from_list, integer(0, where));
}

namespace {

Object optional_attr(Handle object, const char* name, Where where) {
  PyObject* value = nullptr;
  check(_PyObject_LookupAttr(object, Name(name, where).get(), &value), where);
  return Object(value);
}

[[noreturn]] void cannot_import(Handle module, Handle name, Handle module_name, Where where) {
  const Object file(PyModule_GetFilenameObject(module));
  Object message;
  if (!file) {
    PyErr_Clear();
    message = steal(PyUnicode_FromFormat("cannot import name %R from %R (unknown location)",
                                         static_cast<PyObject*>(name), static_cast<PyObject*>(module_name)),
                    where);
  } else {
    const Object spec = optional_attr(module, "__spec__", where);
    const char* format = _PyModuleSpec_IsInitializing(spec.get())
                             ? "cannot import name %R from partially initialized module %R (most likely due to a "
                               "circular import) (%S)"
                             : "cannot import name %R from %R (%S)";
    message = steal(
        PyUnicode_FromFormat(format, static_cast<PyObject*>(name), static_cast<PyObject*>(module_name), file.get()),
        where);
  }
  PyErr_SetImportError(message.get(), module_name, file.get());
  throw Error{where};
}

}  // namespace

Object import_from(Handle module, Handle name, Where where) {
  PyObject* value = nullptr;
  check(_PyObject_LookupAttr(module, name, &value), where);
  if (value) return Object(value);
  // A submodule may be imported while its package does not have it as an attribute yet: a circular import.
  Object module_name = optional_attr(module, "__name__", where);
  if (!module_name || !PyUnicode_Check(module_name.get())) {
    module_name = Name("<unknown module name>", where);
  } else {
    const Object full_name =
        steal(PyUnicode_FromFormat("%U.%U", module_name.get(), static_cast<PyObject*>(name)), where);
    if (PyObject* submodule = PyImport_GetModule(full_name.get())) return Object(submodule);
    if (PyErr_Occurred()) throw Error{where};
  }
  cannot_import(module, name, module_name, where);
}

}  // namespace py
