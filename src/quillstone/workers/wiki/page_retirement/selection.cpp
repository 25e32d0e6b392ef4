// Which stored pages a prune deletes: retired pages, and notes whose file is gone.
#include "names.hpp"

namespace page_retirement {
namespace {

struct RetiredPageIds {
  static constexpr py::Signature signature{
      .name = "_retired_page_ids",
      .parameters = {{{"self"}, {"existing", "dict[str, dict[str, Any]]"}, {"plan_ids", "set[str]"}}},
      .result = "set[str]",
      .doc = R"(The stored pages a prune deletes: out of the plan, not notes, and not kept by the
        index-behind guard; and the research notes the user deleted (a note is its file: deleting
        the file deletes the note, and its row would otherwise stay listed and retrievable; see
        ``_notes_whose_file_is_gone``).)"};

  static Object body(const Scope& m, Handle self, Handle existing, Handle plan_ids) {
    const Object indexed = m.method(self, m->_indexed_paths)();
    if (!py::truth(indexed)) {
      warn(m, "wiki prune skipped: the index is empty, so the plan is not authoritative (index the repo first)");
      return Set();
    }
    Set retired;
    for (const auto& [page_id, page] : items(existing, m->items)) {
      const Object level = field_or(m, page, m->level, m->module);
      if (!py::unequal(level, m.load(m->NOTE_LEVEL)) || py::contains(plan_ids, page_id)) continue;
      const Object index_is_behind =
          m.method(self, m->_retired_only_because_the_index_is_behind)(page_id, page, indexed, existing);
      if (!py::truth(index_is_behind)) retired.add(page_id);
    }
    const Object notes = m.method(self, m->_notes_whose_file_is_gone)(existing);
    return py::steal(PyNumber_Or(retired.get(), notes.get()));
  }
};

struct NotesWhoseFileIsGone {
  static constexpr py::Signature signature{
      .name = "_notes_whose_file_is_gone",
      .parameters = {{{"self"}, {"existing", "dict[str, dict[str, Any]]"}}},
      .result = "set[str]",
      .doc = R"(The research notes a user deleted: their file is gone from a notes directory that
        still holds other notes.

        A notes directory that is missing or holds no note at all is a checkout without the wiki
        (an older commit, another branch, a deleted wiki dir), not a deletion: retiring then would
        drop every note row and its chunks, and nothing re-imports them when the files come back.
        )"};

  static Object body(const Scope& m, Handle self, Handle existing) {
    const Object wiki_dir = py::attr(py::attr(self, m->pages_dir), m->parent);
    Set gone;
    if (!holds_notes(m, py::join(wiki_dir, m->notes))) return gone;
    for (const auto& [page_id, page] : items(existing, m->items)) {
      const Object level = field(m, page, m->level);
      if (!py::equal(level, m.load(m->NOTE_LEVEL))) continue;
      const Object note_file = py::join(wiki_dir, relative_path(m, page_id, page));
      if (!py::truth(m.method(note_file, m->is_file)())) gone.add(page_id);
    }
    return gone;
  }

  static bool holds_notes(const Scope& m, Handle notes_dir) {
    if (!py::truth(m.method(notes_dir, m->is_dir)())) return false;
    for ([[maybe_unused]] const Object& entry : each(m.method(notes_dir, m->glob)(m->any_md))) return true;
    return false;
  }

  static Object relative_path(const Scope& m, Handle page_id, Handle page) {
    Object path = field(m, page, m->rel_path);
    if (py::truth(path)) return path;
    return py::concat({m->notes_slash, py::formatted(page_id), m->dot_md});
  }
};

}  // namespace

const py::MakeFunction retired_page_ids = &py::Function<State, RetiredPageIds>::make;
const py::MakeFunction notes_whose_file_is_gone = &py::Function<State, NotesWhoseFileIsGone>::make;

}  // namespace page_retirement
