// Storing a successor from the row that seeds it.
#include "names.hpp"

namespace page_retirement {
namespace {

struct UpsertSuccessor {
  static constexpr py::Signature signature{
      .name = "_upsert_successor",
      .parameters = {{{"self"},
                      {"new_id", "str"},
                      {"row", "dict[str, Any]"},
                      {"files", "list[str]"},
                      {"carried", "Sequence[str]"}}},
      .result = "None",
      .doc = R"(Store a successor from the row seeding it over ``files``, stale until saved, with
        the ``carried`` sections of its merged predecessors in its cached prose.)"};

  static Object body(const Scope& m, Handle self, Handle new_id, Handle row, Handle files, Handle carried) {
    const Object cache = build_cache(m, row, carried);
    const Callee upsert = m.method(py::attr(self, m->repository), m->upsert_wiki_page);
    // Named one by one, since the order in which arguments are evaluated is not the language's.
    const Object branch = py::attr(self, m->branch);
    const Object title = field_or(m, row, m->title, new_id);
    const Object description = field_or(m, row, m->description, m->empty);
    const Object importance = field_or(m, row, m->importance, m->medium);
    const Object level = field_or(m, row, m->level, m->module);
    const Object parent_section = field(m, row, m->parent_section);
    const Object rel_path = py::concat({m->pages_slash, py::formatted(new_id), m->dot_md});
    const Dict source_hashes;
    const Object symbols = list_field(m, row, m->symbols);
    const Object related_pages = list_field(m, row, m->related_pages);
    const Object citations = list_field(m, row, m->citations);
    const Object content_hash = field_or(m, row, m->content_hash, m->empty);
    const Object model = field_or(m, row, m->model, m->agent_session);
    const Object summary = field_or(m, row, m->summary, m->empty);
    const Object cache_text = m.callee(m->json, m->dumps).with_keywords(m->dumps_keywords, cache, Py_False);
    const Object page_type = field_or(m, row, m->page_type, m->empty);
    upsert.with_keywords(m->upsert_keywords, branch, new_id, title, description, importance, level, parent_section,
                         rel_path, files, source_hashes, symbols, related_pages, citations, content_hash, model,
                         m->stale, summary, cache_text, page_type);
    return py::none();
  }

  static Object build_cache(const Scope& m, Handle row, Handle carried) {
    const Object stored = field(m, row, m->build_cache);
    Object cache = copy_if_dict(stored);
    if (py::truth(carried)) {
      const Object prose = m.callee(m->with_carried)(m.callee(m->cached_prose)(row), carried);
      py::check(PyDict_SetItem(cache.get(), m->prose.get(), prose.get()));
    }
    return cache;
  }

  /// `dict(stored) if isinstance(stored, dict) else {}`
  static Object copy_if_dict(Handle stored) {
    const auto dict_type = reinterpret_cast<PyObject*>(&PyDict_Type);
    Dict copy;
    if (PyDict_CheckExact(stored))
      py::check(PyDict_Update(copy.get(), stored));
    else if (py::check(PyObject_IsInstance(stored, dict_type)))
      return py::steal(PyObject_CallOneArg(dict_type, stored));
    return copy;
  }
};

}  // namespace

const py::MakeFunction upsert_successor = &py::Function<State, UpsertSuccessor>::make;

}  // namespace page_retirement
