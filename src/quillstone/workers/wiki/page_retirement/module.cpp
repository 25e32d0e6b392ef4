// The module's entry and body.
#include "names.hpp"

namespace page_retirement {
namespace {

constexpr const char* full_name = "quillstone.workers.wiki.page_retirement";

constexpr const char* module_doc =
    R"(Deleting the stored wiki pages a plan of record retires, after their prose is carried.

Every path that reconciles a plan (the API build, the agent plan, a replan) deletes the pages
the plan no longer contains through :meth:`PageRetirementMixin._prune_retired_pages`, so one
set of rules governs every delete:

- A page merged into a successor (``ReplanRemap.merged``, or a stored seed whose successor id
  is already stored) has its authored prose carried into the successor, page file and cached
  prose both, as a section of its own, before its row is deleted. A replan successor that is
  not stored yet is stored from the row that seeds it. The successor is stored stale, so its
  next author sees every carried text as ``prior_markdown``.
- An index that has not caught up deletes nothing: a page whose sources are missing from the
  index but present in the working tree is kept, and an empty index prunes nothing at all.
- Research notes (``level="note"``) are user-filed, never plan-derived: a note is retired
  only when the user deleted its file, judged while the notes directory still holds other
  notes (a checkout without the wiki retires none). A page file with no row behind it is
  never swept.
)";

struct Annotation {
  const char* attribute;
  const char* type;
};
constexpr Annotation host_attributes[] = {
    {"repository", "Repository"}, {"repo_root", "Path"}, {"branch", "str"}, {"pages_dir", "Path"}};

struct Method {
  const char* name;
  const py::MakeFunction& make;
};
constexpr Method methods[] = {{"_apply_replan_to_store", apply_replan_to_store},
                              {"_prune_retired_pages", prune_retired_pages},
                              {"_retired_page_ids", retired_page_ids},
                              {"_notes_whose_file_is_gone", notes_whose_file_is_gone},
                              {"_carry_into_successors", carry_into_successors},
                              {"_page_text", page_text},
                              {"_upsert_successor", upsert_successor},
                              {"_indexed_paths", indexed_paths},
                              {"_retired_only_because_the_index_is_behind", retired_only_because_the_index_is_behind}};

/// The module's namespace while its body runs.
class Body {
 public:
  explicit Body(Handle module) : globals_(PyModule_GetDict(module)) {}

  void run() {
    set_module_attributes();
    import_from("__future__", {"annotations"});
    for (const char* name : {"contextlib", "json", "logging"}) import_from(name, {});
    import_from("collections.abc", {"Mapping", "Sequence"});
    import_from("pathlib", {"Path"});
    import_from("typing", {"Any"});
    import_from("quillstone.storage.repository", {"Repository"});
    import_from("quillstone.workers.wiki.replan_carry",
                {"cached_prose", "carried_sections", "merged_predecessors", "page_prose", "with_carried"});
    import_from("quillstone.workers.wiki.repo_facts", {"_atomic_write", "_norm"});
    import_from("quillstone.workers.wiki_types", {"NOTE_LEVEL"});

    const Callee get_logger = py::method(load("logging"), py::Name("getLogger"));
    bind("logger", get_logger(load("__name__")));
    bind("_Successor", successor_alias());
    const Object state = py::StateObject<State>::make();
    bind("_judged_sources", judged_sources(state, globals_, py::Name("_judged_sources")));
    bind("PageRetirementMixin", mixin_class(state));
  }

 private:
  Object load(At<const char*> name) {
    return py::load_name(globals_, PyEval_GetBuiltins(), {py::Name(name), name.where});
  }

  void bind(At<const char*> name, Handle value) {
    py::check({PyObject_SetItem(globals_, py::Name(name).get(), value), name.where});
  }

  /// What the importer has set by now (`__file__`, `__loader__`, `__spec__`) stays.
  void set_module_attributes() {
    bind("__doc__", py::string(module_doc));
    const Object parts = py::method(load("__name__"), py::Name("rpartition"))(py::Name("."));
    bind("__package__", py::item(parts, py::integer(0)));
    bind("__builtins__", PyEval_GetBuiltins());
    bind("__cached__", Py_None);
  }

  void import_from(const char* module_name, std::initializer_list<const char*> names,
                   py::Where where = py::Where::current()) {
    py::import_into(globals_, module_name, names, where);
  }

  /// `tuple[dict[str, Any], list[str], list[str]]`
  Object successor_alias() {
    const auto type = [](PyTypeObject& builtin) { return reinterpret_cast<PyObject*>(&builtin); };
    const Object any = load("Any");
    const Object row_arguments = py::steal(PyTuple_Pack(2, type(PyUnicode_Type), any.get()));
    const Object row = py::item(type(PyDict_Type), row_arguments);
    const Object files = py::item(type(PyList_Type), type(PyUnicode_Type));
    const Object sections = py::item(type(PyList_Type), type(PyUnicode_Type));
    const Object arguments = py::steal(PyTuple_Pack(3, row.get(), files.get(), sections.get()));
    return py::item(type(PyTuple_Type), arguments);
  }

  Object mixin_class(Handle state) {
    const char* name = "PageRetirementMixin";
    Dict members;
    members.set(py::Name("__module__"), load("__name__"));
    members.set(py::Name("__doc__"),
                py::string("Retired-page deletion and prose carry, mixed into ``WikiGenerator``."));
    members.set(py::Name("__qualname__"), py::Name(name));
    Dict annotations;
    members.set(py::Name("__annotations__"), annotations);
    for (const auto& [attribute, annotation] : host_attributes)
      annotations.set(py::Name(attribute), py::string(annotation));
    for (const auto& [method_name, make] : methods) {
      const Object qualified_name = py::steal(PyUnicode_FromFormat("%s.%s", name, method_name));
      members.set(py::Name(method_name), make(state, globals_, qualified_name));
    }
    const Object bases = py::steal(PyTuple_New(0));
    return py::steal(PyObject_CallFunctionObjArgs(reinterpret_cast<PyObject*>(&PyType_Type), py::Name(name).get(),
                                                  bases.get(), members.get(), nullptr));
  }

  const Handle globals_;
};

int execute(PyObject* module) noexcept {
  try {
    Body(module).run();
    return 0;
  } catch (py::Error& error) {
    py::add_traceback(error, "<module>", PyModule_GetDict(module));
    return -1;
  }
}

PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                          .m_name = full_name,
                          .m_doc = nullptr,  // the body binds it
                          .m_size = 0,
                          .m_methods = nullptr,
                          .m_slots = py::module_slots(&execute),
                          .m_traverse = nullptr,
                          .m_clear = nullptr,
                          .m_free = nullptr};

}  // namespace
}  // namespace page_retirement

PyMODINIT_FUNC PyInit_page_retirement() { return PyModuleDef_Init(&page_retirement::definition); }
