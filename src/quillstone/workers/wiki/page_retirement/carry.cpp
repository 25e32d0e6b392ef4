// Carrying the prose of merged pages into their successors' files.
#include "names.hpp"

namespace page_retirement {
namespace {

/// The callable that turns a predecessor's id into its title/prose pair, for the generator of one carry.
class PairMaker {
 public:
  static Object make(const Scope& m, Handle self, Handle rows) {
    const Object captured = py::steal(
        PyTuple_Pack(5, static_cast<PyObject*>(m.owner), static_cast<PyObject*>(self), static_cast<PyObject*>(rows),
                     static_cast<PyObject*>(m.names.globals), static_cast<PyObject*>(m.names.builtins)));
    return py::steal(PyCFunction_New(&definition, captured.get()));
  }

 private:
  static PyObject* call(PyObject* captured, PyObject* page_id) noexcept {
    const Object held[] = {py::borrow(captured), py::borrow(page_id)};
    const auto part = [captured](Py_ssize_t i) { return Handle(PyTuple_GET_ITEM(captured, i)); };
    const Scope m(PyThreadState_Get(), part(0), part(3), part(4), "<genexpr>");
    return py::guarded(m.function, m.names.globals, [&] { return pair(m, part(1), part(2), page_id); });
  }

  static Object pair(const Scope& m, Handle self, Handle rows, Handle page_id) {
    const Object title = field_or(m, py::item(rows, page_id), m->title, page_id);
    const Callee page_prose = m.callee(m->page_prose);
    const Object text = m.method(self, m->_page_text)(page_id);
    const Object prose = page_prose(text, py::item(rows, page_id));
    return py::steal(PyTuple_Pack(2, title.get(), prose.get()));
  }

  static inline PyMethodDef definition = {"pair", &call, METH_O, nullptr};
};

struct CarryIntoSuccessors {
  static constexpr py::Signature signature{
      .name = "_carry_into_successors",
      .parameters = {{{"self"}, {"remap", "Mapping[str, str]"}, {"deletes", "set[str]"}}},
      .result = "dict[str, _Successor]",
      .doc = R"(Write each successor's page file with the prose carried into it and return what
        its row needs: the row seeding it, its source files and the carried sections.

        Rows are read from the store as it is now, so a skeleton row stored since the
        caller's snapshot is the base, not overwritten. A successor whose seed has no page
        file starts from the seed's cached prose. A successor stored without source files of
        its own (a collapsed family's parent) takes those of the pages carried into it.
        )"};

  static Object body(const Scope& m, Handle self, Handle remap, Handle deletes) {
    const Dict rows = stored_rows(m, self);
    Dict seeds;
    const Object merged = m.callee(m->merged_predecessors)(remap);
    route_seeds(m, remap, rows, merged, seeds);
    const Dict carried = carried_pages(m, merged, deletes, rows);
    const Dict sections = carried_sections(m, self, rows, carried);

    Dict successors;
    for (const Object& new_id : each(visited(m, seeds, sections))) {
      const Object base_id = found_or(seeds, new_id, new_id);
      Object row = found_or(rows, base_id, Py_None);
      if (!py::truth(row)) row = Dict();
      Object blocks = py::find(sections, new_id);
      if (!blocks) blocks = List();
      write_page(m, self, new_id, base_id, row, blocks);
      const List files = source_files(m, row, new_id, carried, rows);
      successors.set(new_id, py::steal(PyTuple_Pack(3, row.get(), files.get(), blocks.get())));
    }
    return successors;
  }

  static Object found_or(const Dict& dict, Handle key, Handle otherwise) {
    Object value = py::find(dict, key);
    return value ? value : py::borrow(otherwise);
  }

  /// The seed of a stored successor is its first predecessor; one of a successor still to be stored is its base.
  static void route_seeds(const Scope& m, Handle remap, const Dict& rows, Handle merged, Dict& seeds) {
    for (const auto& [new_id, old_id] : items(remap, m->items)) {
      if (!rows.has(old_id)) continue;
      if (rows.has(new_id)) {
        const Object predecessors = m.method(merged, m->setdefault)(new_id, List());
        m.method(predecessors, m->insert)(m->zero, old_id);
      } else {
        seeds.set(new_id, old_id);
      }
    }
  }

  static Dict carried_pages(const Scope& m, Handle merged, Handle deletes, const Dict& rows) {
    Dict carried;
    for (const auto& [new_id, predecessors] : items(merged, m->items)) {
      List pages;
      for (const Object& page_id : each(predecessors))
        if (py::contains(deletes, page_id) && rows.has(page_id)) pages.append(page_id);
      carried.set(new_id, pages);
    }
    return carried;
  }

  /// Draws every predecessor's prose, so all of it is read before the first successor is written.
  static Dict carried_sections(const Scope& m, Handle self, const Dict& rows, const Dict& carried) {
    const Object pair = PairMaker::make(m, self, rows);
    const Callee generator(
        py::steal(PyFunction_NewWithQualName(m->pairs_code.get(), m.names.globals, m->pairs_name.get())));
    Dict sections;
    for (const auto& [new_id, pages] : items(carried, m->items)) {
      sections.set(new_id, m.callee(m->carried_sections)(generator(py::steal(PyObject_GetIter(pages.get())), pair)));
    }
    return sections;
  }

  /// The keys are the successors to visit: those with a seed, in the remap's order, then those with sections.
  static Dict visited(const Scope& m, const Dict& seeds, const Dict& sections) {
    Dict visited;
    for (const Object& new_id : each(seeds)) visited.set(new_id, Py_None);
    for (const auto& [new_id, blocks] : items(sections, m->items))
      if (py::truth(blocks)) visited.set(new_id, Py_None);
    return visited;
  }

  static void write_page(const Scope& m, Handle self, Handle new_id, Handle base_id, Handle row, Handle blocks) {
    const Object base = m.method(self, m->_page_text)(base_id);
    const Object text =
        m.callee(m->with_carried)(base.get() == Py_None ? m.callee(m->cached_prose)(row) : base, blocks);
    if (py::truth(m.method(text, m->strip)())) m.callee(m->_atomic_write)(page_file(m, self, new_id), text);
  }

  static List source_files(const Scope& m, Handle row, Handle new_id, const Dict& carried, const Dict& rows) {
    List files(list_field(m, row, m->source_files));
    if (!files.empty()) return files;
    Set distinct;
    if (const Object pages = py::find(carried, new_id))
      for (const Object& page_id : each(pages))
        for (const Object& file : each(list_field(m, py::item(rows, page_id), m->source_files))) distinct.add(file);
    files = List(distinct);
    files.sort();
    return files;
  }
};

struct PageText {
  static constexpr py::Signature signature{.name = "_page_text",
                                           .parameters = {{{"self"}, {"page_id", "str"}}},
                                           .result = "str | None",
                                           .doc = "A stored page's file text, or None when it has no file."};

  static Object body(const Scope& m, Handle self, Handle page_id) {
    const Object file = page_file(m, self, page_id);
    if (!py::truth(m.method(file, m->is_file)())) return py::none();
    return m.method(file, m->read_text)(m->utf_8);
  }
};

}  // namespace

Object State::make_pairs_code(Handle qualified_name) {
  return py::generator_code(qualified_name, py::Where::current());
}

const py::MakeFunction carry_into_successors = &py::Function<State, CarryIntoSuccessors>::make;
const py::MakeFunction page_text = &py::Function<State, PageText>::make;

}  // namespace page_retirement
