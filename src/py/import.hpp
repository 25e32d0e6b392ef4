// The import statements, as a module's body makes them.
#pragma once

#include <initializer_list>

#include "operations.hpp"

namespace py {

/// `import name`, or the module that `from name import names` takes its names from; absolute.
Object import_module(Handle globals, const char* name, std::initializer_list<const char*> names = {},
                     Where where = Where::current());

/// The member that `from module import name` binds: the attribute, or else the submodule, or else ImportError.
Object import_from(Handle module, Handle name, Where where = Where::current());

}  // namespace py
