// The operations through which a host applies a plan to its store.
#include "names.hpp"
#include "py/with.hpp"

namespace page_retirement {
namespace {

struct ApplyReplanToStore {
  static constexpr py::Signature signature{
      .name = "_apply_replan_to_store",
      .parameters = {{{"self"}, {"remap", "Mapping[str, str]"}, {"plan_ids", "set[str]"}}},
      .result = "int",
      .doc = R"(Persist a reconciled structure before any page is built, so later plan, page_context
        and save_page calls (which pin against the store) see it.

        Each successor in ``remap`` is stored stale with its seed's prose and every merged
        predecessor's prose; then the pages out of ``plan_ids`` are deleted, under the same rules
        as every prune. Returns the number of stored pages deleted.
        )"};

  static Object body(const Scope& m, Handle self, Handle remap, Handle plan_ids) {
    const Dict existing = stored_rows(m, self);
    return m.method(self, m->_prune_retired_pages)(existing, plan_ids, remap);
  }
};

struct PruneRetiredPages {
  static constexpr py::Signature signature{
      .name = "_prune_retired_pages",
      .parameters = {{{"self"},
                      {"existing", "dict[str, dict[str, Any]]"},
                      {"plan_ids", "set[str]"},
                      {"remap", "Mapping[str, str] | None"}}},
      .result = "int",
      .doc = R"(Delete every stored page of ``existing`` the plan no longer contains: the row, its
        chunks (cascade) and its .md file, after carrying the prose ``remap`` routes into a
        successor. Returns the number of stored pages deleted.

        Successor files are written before any row is deleted, so a failure in between leaves the
        carried prose in two places, never in none; the row changes commit in one transaction, so
        a page and its successor are never both left half-applied. A rerun after a failed commit
        carries each section once.
        )",
      .last_is_optional = true};

  static Object body(const Scope& m, Handle self, Handle existing, Handle plan_ids, Handle remap) {
    const Object deletes = m.method(self, m->_retired_page_ids)(existing, plan_ids);
    const Object successors =
        m.method(self, m->_carry_into_successors)(remap == Py_None ? Dict() : py::borrow(remap), deletes);
    List deleted;
    Object transaction = m.method(py::attr(py::attr(self, m->repository), m->db), m->transaction)();
    const Object swallowed = py::with(m, std::move(transaction), [&] {
      upsert(m, self, successors);
      delete_rows(m, self, deletes, deleted);
    });
    if (swallowed)
      py::raise_from(swallowed, PyExc_RuntimeError,
                     "the store's transaction swallowed an exception, so what it committed is unknown: no page file "
                     "is removed");
    remove_files(m, self, deleted);
    return py::integer(deleted.size());
  }

  static void upsert(const Scope& m, Handle self, Handle successors) {
    for (const auto& [new_id, successor] : items(successors, m->items)) {
      const auto [row, files, carried] = unpack<3>(successor);
      m.method(self, m->_upsert_successor)(new_id, row, files, carried);
    }
  }

  static void delete_rows(const Scope& m, Handle self, Handle deletes, List& deleted) {
    List ids(deletes);
    ids.sort();
    for (const Object& page_id : each(ids)) {
      const Object existed =
          m.method(py::attr(self, m->repository), m->delete_wiki_page)(py::attr(self, m->branch), page_id);
      if (py::truth(existed)) deleted.append(page_id);
    }
  }

  /// Only after the commit; a file that resists is no reason to keep the others.
  static void remove_files(const Scope& m, Handle self, const List& deleted) {
    for (const Object& page_id : each(deleted)) {
      Object suppress = m.callee(m->contextlib, m->suppress)(PyExc_OSError);
      py::with(m, std::move(suppress),
               [&] { m.method(page_file(m, self, page_id), m->unlink).with_keywords(m->unlink_keywords, Py_True); });
    }
  }
};

}  // namespace

const py::MakeFunction apply_replan_to_store = &py::Function<State, ApplyReplanToStore>::make;
const py::MakeFunction prune_retired_pages = &py::Function<State, PruneRetiredPages>::make;

}  // namespace page_retirement
