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

/// The attribute, or none: what goes wrong while an error is being worded gives way to that error.
Object optional_attr(Handle object, const char* name) {
  PyObject* value = PyObject_GetAttrString(object, name);
  if (value == nullptr) PyErr_Clear();
  return Object(value);
}

[[noreturn]] void cannot_import(Handle module, Handle name, Where where) {
  Object module_name = optional_attr(module, "__name__");
  if (module_name && !PyUnicode_Check(module_name.get())) module_name = Object();
  const Object shown = module_name ? module_name : string("<unknown module name>", where);
  const Object file(PyModule_GetFilenameObject(module));
  const char* format = "cannot import name %R from %R (unknown location)";
  if (!file) {
    PyErr_Clear();
  } else {
    const Object spec = optional_attr(module, "__spec__");
    format = _PyModuleSpec_IsInitializing(spec.get())
                 ? "cannot import name %R from partially initialized module %R (most likely due to a circular import) "
                   "(%S)"
                 : "cannot import name %R from %R (%S)";
  }
  const Object message =
      steal(PyUnicode_FromFormat(format, static_cast<PyObject*>(name), shown.get(), file.get()), where);
  PyErr_SetImportError(message.get(), module_name.get(), file.get());
  throw Error{where};
}

}  // namespace

Object import_from(Handle module, Handle name, Where where) {
  PyObject* value = nullptr;
  check(_PyObject_LookupAttr(module, name, &value), where);
  if (value) return Object(value);
  // A submodule may be imported while its package does not have it as an attribute yet: a circular import.
  const Object module_name = optional_attr(module, "__name__");
  if (module_name && PyUnicode_Check(module_name.get())) {
    const Object full_name =
        steal(PyUnicode_FromFormat("%U.%U", module_name.get(), static_cast<PyObject*>(name)), where);
    if (PyObject* submodule = PyImport_GetModule(full_name.get())) return Object(submodule);
    if (PyErr_Occurred()) throw Error{where};
  }
  cannot_import(module, name, where);
}

}  // namespace py
