// Judged sources, indexed paths, and the guard for pages that only an index behind the tree hides.
#include <algorithm>

#include "names.hpp"

namespace page_retirement {
namespace {

struct JudgedSources {
  static constexpr py::Signature signature{
      .name = "_judged_sources",
      .parameters = {{{"page", "dict[str, Any]"}, {"existing", "dict[str, dict[str, Any]]"}}},
      .result = "list[str]",
      .doc = R"(The source files a page's fate is judged by.

    A decomposed parent owns no files of its own (``PagePlan.stored_source_files`` stores an
    empty list so ``pin_plan`` recognises the family), so it is judged by the union of its
    children's sources: the files the family documents. Judged by its own empty list, the
    index-behind guard would delete the parent while keeping the children it heads.
    )"};

  static Object body(const Scope& m, Handle page, Handle existing) {
    List sources;
    add_normalised(m, sources, list_field(m, page, m->source_files));
    if (!sources.empty()) return sources;
    List children;
    for (const Object& id : each(list_field(m, page, m->related_pages)))
      if (py::contains(existing, id)) children.append(id);
    for (const Object& id : each(children)) {
      Object files = list_field(m, py::item(existing, id), m->source_files);
      add_normalised(m, sources, std::move(files));
    }
    return sources;
  }

  static void add_normalised(const Scope& m, List& sources, Object files) {
    for (const Object& path : each(std::move(files))) sources.append(m.callee(m->_norm)(path));
  }
};

struct IndexedPaths {
  static constexpr py::Signature signature{
      .name = "_indexed_paths",
      .parameters = {{{"self"}}},
      .result = "set[str]",
      .doc = R"(What the index knows, unfiltered: the oracle of the index-behind guard.

        Not ``_source_files()``, which applies steering ``exclude_paths``: the guard asks whether
        the indexer has reached a file, and an excluded module's files are in the index. Filtered,
        they would look never-indexed and an excluded page could never be pruned.
        )"};

  static Object body(const Scope& m, Handle self) {
    auto [files, more, limit, total] =
        unpack<4>(m.method(py::attr(self, m->repository), m->list_indexed_files)
                      .with_keywords(m->list_indexed_files_keywords, Py_True, m->million));
    more = Object();
    limit = Object();
    Set indexed;
    for (const Object& record : each(files)) indexed.add(m.callee(m->_norm)(py::item(record, m->path)));
    return indexed;
  }
};

struct RetiredOnlyBecauseTheIndexIsBehind {
  static constexpr py::Signature signature{
      .name = "_retired_only_because_the_index_is_behind",
      .parameters = {{{"self"},
                      {"page_id", "str"},
                      {"page", "dict[str, Any]"},
                      {"indexed", "set[str]"},
                      {"existing", "dict[str, dict[str, Any]]"}}},
      .result = "bool",
      .doc = R"(True when a page's sources are missing from the INDEX but present on DISK.

        That is not a retired page, it is an index that has not caught up — and the page it would
        delete is committed to git. A page superseded by re-chunking keeps its files in the index
        (another page owns them now) and is pruned.
        )"};

  static Object body(const Scope& m, Handle self, Handle page_id, Handle page, Handle indexed, Handle existing) {
    const Object sources = m.callee(m->_judged_sources)(page, existing);
    if (!py::truth(sources) || any_indexed(sources, indexed)) return py::borrow(Py_False);
    Py_ssize_t on_disk = 0;
    for (const Object& source : each(sources)) {
      const Object file = py::join(py::attr(self, m->repo_root), source);
      if (py::truth(m.method(file, m->exists)())) ++on_disk;
    }
    if (on_disk == 0) return py::borrow(Py_False);
    warn(m,
         "wiki prune skipped for '%s': %d of its source files are missing from the index but still on disk — the index "
         "is incomplete, not the page retired",
         page_id, py::integer(on_disk));
    return py::borrow(Py_True);
  }

  /// `set(sources) & indexed` is not empty
  static bool any_indexed(Handle sources, Handle indexed) {
    if (PyList_CheckExact(sources) && PySet_CheckExact(indexed) && all_strings(sources)) {
      for (const Object& source : each(py::borrow(sources)))
        if (py::contains(indexed, source)) return true;
      return false;
    }
    const Set distinct(sources);
    return py::truth(py::steal(PyNumber_And(distinct.get(), indexed)));
  }

  /// Hashing a plain str runs no Python code. Comparing it can, where a member of the index has an `__eq__` of its own;
  /// such a member may be asked less often than by the intersection.
  static bool all_strings(Handle list) {
    PyObject** members = static_cast<PyListObject*>(list)->ob_item;
    return std::all_of(members, members + Py_SIZE(list), [](PyObject* member) { return PyUnicode_CheckExact(member); });
  }
};

}  // namespace

const py::MakeFunction judged_sources = &py::Function<State, JudgedSources>::make;
const py::MakeFunction indexed_paths = &py::Function<State, IndexedPaths>::make;
const py::MakeFunction retired_only_because_the_index_is_behind =
    &py::Function<State, RetiredOnlyBecauseTheIndexIsBehind>::make;

}  // namespace page_retirement
