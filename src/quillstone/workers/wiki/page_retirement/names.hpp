// What the functions of a module share: its state (interned names, keyword tuples, the code of its generator), what
// more than one of them says about rows and files, and the list of them.
#pragma once

#include "py/collection.hpp"
#include "py/function.hpp"
#include "py/iteration.hpp"
#include "py/value.hpp"

namespace page_retirement {

using py::At;
using py::Callee;
using py::Dict;
using py::each;
using py::Handle;
using py::items;
using py::List;
using py::Object;
using py::Operand;
using py::Set;
using py::unpack;

/// A tuple of keywords, in the order of the call.
template <class... Text>
Object keywords(const Text*... text) {
  return py::steal(PyTuple_Pack(sizeof...(text), py::Name(text).get()...));
}

struct State : py::ModuleState {
  // Module-level names
  py::Global _atomic_write{"_atomic_write"};
  py::Global _judged_sources{"_judged_sources"};
  py::Global _norm{"_norm"};
  py::Global cached_prose{"cached_prose"};
  py::Global carried_sections{"carried_sections"};
  py::Global contextlib{"contextlib"};
  py::Global json{"json"};
  py::Global logger{"logger"};
  py::Global merged_predecessors{"merged_predecessors"};
  py::Global NOTE_LEVEL{"NOTE_LEVEL"};
  py::Global page_prose{"page_prose"};
  py::Global with_carried{"with_carried"};

  // The host: its attributes and methods, the store's operations
  py::Name branch{"branch"};
  py::Name pages_dir{"pages_dir"};
  py::Name repo_root{"repo_root"};
  py::Name repository{"repository"};
  py::Name _carry_into_successors{"_carry_into_successors"};
  py::Name _indexed_paths{"_indexed_paths"};
  py::Name _notes_whose_file_is_gone{"_notes_whose_file_is_gone"};
  py::Name _page_text{"_page_text"};
  py::Name _prune_retired_pages{"_prune_retired_pages"};
  py::Name _retired_only_because_the_index_is_behind{"_retired_only_because_the_index_is_behind"};
  py::Name _retired_page_ids{"_retired_page_ids"};
  py::Name _upsert_successor{"_upsert_successor"};
  py::Name db{"db"};
  py::Name delete_wiki_page{"delete_wiki_page"};
  py::Name get_wiki_pages{"get_wiki_pages"};
  py::Name list_indexed_files{"list_indexed_files"};
  py::Name transaction{"transaction"};
  py::Name upsert_wiki_page{"upsert_wiki_page"};

  // Fields of a page row and of an index record
  py::Name build_cache{"build_cache"};
  py::Name citations{"citations"};
  py::Name content_hash{"content_hash"};
  py::Name description{"description"};
  py::Name importance{"importance"};
  py::Name level{"level"};
  py::Name model{"model"};
  py::Name page_id{"page_id"};
  py::Name page_type{"page_type"};
  py::Name parent_section{"parent_section"};
  py::Name path{"path"};
  py::Name prose{"prose"};
  py::Name rel_path{"rel_path"};
  py::Name related_pages{"related_pages"};
  py::Name source_files{"source_files"};
  py::Name summary{"summary"};
  py::Name symbols{"symbols"};
  py::Name title{"title"};

  // Methods and attributes of the standard library's objects
  py::Member dumps{"dumps"};
  py::Name exists{"exists"};
  py::Name get{"get"};
  py::Name glob{"glob"};
  py::Name insert{"insert"};
  py::Name is_dir{"is_dir"};
  py::Name is_file{"is_file"};
  py::Name items{"items"};
  py::Name parent{"parent"};
  py::Name read_text{"read_text"};
  py::Name setdefault{"setdefault"};
  py::Name strip{"strip"};
  py::Member suppress{"suppress"};
  py::Name unlink{"unlink"};
  py::Name warning{"warning"};

  // Values
  py::Name agent_session{"agent-session"};
  py::Name any_md{"*.md"};
  py::Name dot_md{".md"};
  py::Name empty{""};
  py::Name medium{"medium"};
  py::Name module{"module"};
  py::Name notes{"notes"};
  py::Name notes_slash{"notes/"};
  py::Name pages_slash{"pages/"};
  py::Name stale{"stale"};
  py::Name utf_8{"utf-8"};
  Object zero = py::integer(0);
  Object million = py::integer(1'000'000);

  Object dumps_keywords = keywords("ensure_ascii");
  Object list_indexed_files_keywords = keywords("source_only", "limit");
  Object unlink_keywords = keywords("missing_ok");
  Object upsert_keywords = keywords("description", "importance", "level", "parent_section", "rel_path", "source_files",
                                    "source_hashes", "symbols", "related_pages", "citations", "content_hash", "model",
                                    "status", "summary", "build_cache", "page_type");

  py::Name pairs_name{"PageRetirementMixin._carry_into_successors.<locals>.<genexpr>"};
  Object pairs_code = make_pairs_code(pairs_name);

  /// The code of the generator that draws title/prose pairs (carry.cpp).
  static Object make_pairs_code(Handle qualified_name);
};

/// The surroundings of a running function, `m` throughout: `m->name` is a name, `m.load(m->name)` what it names.
using Scope = py::Scope<State>;

/// `row.get(field)`
inline Object field(const Scope& m, Handle row, Operand name) {
  if (!PyDict_CheckExact(row)) return m.method(row, {m->get, name.where})(name);
  PyObject* value = py::peek(row, name);
  return py::borrow(value != nullptr ? value : Py_None);
}

/// `row.get(field) or default`
inline Object field_or(const Scope& m, Handle row, Operand name, Handle otherwise) {
  Object value = field(m, row, name);
  return py::truth({value, name.where}) ? std::move(value) : py::borrow(otherwise);
}

/// `row.get(field) or []`
inline Object list_field(const Scope& m, Handle row, Operand name) {
  Object value = field(m, row, name);
  return py::truth({value, name.where}) ? std::move(value) : List(name.where);
}

/// `logger.warning(message, *arguments)`
template <class... Arguments>
void warn(const Scope& m, At<const char*> message, const Arguments&... arguments) {
  const py::Where where = message.where;
  const Object warning = py::attr({m.load({m->logger, where}), where}, m->warning);
  const Object text = py::string(message);
  const Object all = py::steal(
      {PyTuple_Pack(1 + sizeof...(arguments), text.get(), static_cast<PyObject*>(Handle(arguments))...), where});
  m->calling_frames.call(m.function, m.names.globals, where, warning, all);
}

/// `self.pages_dir / f"{id}.md"`
inline Object page_file(const Scope& m, Handle self, Handle id) {
  const Object pages_dir = py::attr(self, m->pages_dir);
  return py::join(pages_dir, py::concat({py::formatted(id), m->dot_md}));
}

/// `{row["page_id"]: row for row in self.repository.get_wiki_pages(self.branch)}`
inline Dict stored_rows(const Scope& m, Handle self) {
  Dict rows;
  for (const Object& row : each(m.method(py::attr(self, m->repository), m->get_wiki_pages)(py::attr(self, m->branch))))
    rows.set(py::item(row, m->page_id), row);
  return rows;
}

// The module-level function, then the methods of the class in the order of their definition

extern const py::MakeFunction judged_sources;
extern const py::MakeFunction apply_replan_to_store;
extern const py::MakeFunction prune_retired_pages;
extern const py::MakeFunction retired_page_ids;
extern const py::MakeFunction notes_whose_file_is_gone;
extern const py::MakeFunction carry_into_successors;
extern const py::MakeFunction page_text;
extern const py::MakeFunction upsert_successor;
extern const py::MakeFunction indexed_paths;
extern const py::MakeFunction retired_only_because_the_index_is_behind;

}  // namespace page_retirement
