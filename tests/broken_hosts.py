"""The host, broken in one way each: `pytest conformance --host="broken_hosts:an index with exclusions"`."""

import json
import sys
from contextlib import contextmanager, suppress
from functools import partial
from pathlib import Path
from time import time_ns
from types import MappingProxyType

from demo_host import DemoHost
from quillstone.storage import repository
from quillstone.storage.repository import Database, Repository
from quillstone.workers import wiki_types
from quillstone.workers.wiki import replan_carry, repo_facts
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from quillstone.workers.wiki.replan_carry import cached_prose
from quillstone.workers.wiki.wiki_lock import WikiLock


def rows(change):
    return lambda real, self, branch: [changed for row in real(self, branch) for changed in change(row)]


def index(change):
    return lambda real, self, **how: (change(real(self, **how)[0]), *real(self, **how)[1:])


def is_stored(store, branch, page_id):
    return page_id in {row["page_id"] for row in store.get_wiki_pages(branch)}


def earlier_rows(real, self, remap, plan_ids):
    existing = {row["page_id"]: row for row in reversed([*self.repository.get_wiki_pages(self.branch)])}
    return self._prune_retired_pages(existing, plan_ids, remap)


@contextmanager
def commit_never(real, *how):
    with suppress(EOFError), real(*how) as connection:
        yield connection
        raise EOFError


@contextmanager
def commit_whatever_happens(real, *how):
    scope = real(*how)
    try:
        yield scope.__enter__()
    finally:
        scope.__exit__(None, None, None)


@contextmanager
def swallow(real, *how):
    with suppress(ValueError), real(*how) as connection:
        yield connection


@contextmanager
def wrap(real, *how):
    try:
        with real(*how) as connection:
            yield connection
    except KeyboardInterrupt as error:
        raise RuntimeError("interrupted") from error


def by_the_module_alone(real, self, command, work, *how):
    WikiGenerator._prune = PageRetirementMixin._prune_retired_pages
    return work()


def with_no_strangers(real, self, *run):
    if {path.stem for path in self.pages_dir.glob("*.md")} - self.stored_pages().keys():
        raise RuntimeError("a file is in the way")
    return by_the_module_alone(real, self, *run)


@contextmanager
def lock_by_file(tidies, real, self):
    path = self._folder / "busy"
    path.parent.mkdir(parents=True, exist_ok=True)
    path.touch(exist_ok=False)
    try:
        yield
        tidies = True
    finally:
        if tidies:
            path.unlink()


def append(real, path, text):
    real(path, (path.read_text("utf-8") if path.is_file() else "") + text)


def known_all_at_once(real, text, sections):
    added = "\n".join(["", *sections, ""])
    return text if text.endswith(added) else text + added


def without_known_words(real, text, sections):
    return real(text, [section for section in sections if section.split("\n")[-2] not in text])


def one_step(real, remap):
    return {new: [*old] for new, old in getattr(remap, "merged", {}).items()}


CHANGES = [
    (Repository, "upsert_wiki_page", {
        "a_new_row_comes_back_as_it_was_stored": {
            "an upsert that forgets a field": lambda real, *row, summary, **more: real(*row, summary="", **more),
            "an upsert of stored rows alone": lambda real, *row, **more: is_stored(*row[:3]) and real(*row, **more),
            "an upsert by keyword": lambda real, self, branch, *, page_id, **more: None,
            "an upsert of fewer fields": lambda real, self, branch, page_id, title, *, description, level: None,
        },
        "a_stored_row_is_changed": {
            "an upsert of new rows alone": lambda real, *row, **more: is_stored(*row[:3]) or real(*row, **more),
            "an upsert as fresh": lambda real, *row, status, **more: real(*row, status="fresh", **more),
        },
    }),
    (Repository, "get_wiki_pages", {
        "a_new_row_comes_back_as_it_was_stored": {"rows without ids": rows(lambda row: [{"id": row["page_id"]}])},
        "a_stored_row_is_changed": {"rows that stand twice": rows(lambda row: [row, row])},
        "a_build_cache_comes_back_as_a_dict": {
            "a build cache as text": rows(lambda row: [{**row, "build_cache": json.dumps(row["build_cache"])}]),
            "a build cache of prose alone": rows(lambda row: [{**row, "build_cache": {"prose": cached_prose(row)}}]),
        },
        "notes_are_among_the_rows": {"rows without notes": rows(lambda row: [row] * (row["level"] != "note"))},
        "rows_are_those_of_the_branch": {"rows of any branch": lambda real, self, branch: real(self, "main")},
    }),
    (Repository, "list_indexed_files", {
        "the_index_is_reported_whole": {
            "an index with exclusions": index(lambda files: [file for file in files if "vendor/" not in file["path"]]),
            "an index that gives a thousand": index(lambda files: files[:1000]),
            "an index of three members": lambda real, self, **how: real(self, **how)[:3],
            "an index without options": lambda real, self: real(self),
            "an index of names": index(lambda files: [file["path"] for file in files]),
        },
        "a_file_has_one_spelling_that_leads_to_it": {
            "an index in capitals": index(lambda files: [{"path": file["path"].upper()} for file in files]),
        },
    }),
    (Repository, "delete_wiki_page", {
        "rows_are_those_of_the_branch": {"deletes in any branch": lambda real, self, _, page: real(self, "main", page)},
        "a_delete_takes_the_chunks_along": {"a delete by keyword": lambda real, self, *, branch, page_id: None},
        "a_delete_says_whether_there_was_a_row": {
            "a delete that says nothing": lambda real, *page: real(*page) and None,
            "a delete that always says yes": lambda real, *page: real(*page) or True,
        },
    }),
    (repository, "_prepare_sqlite", {
        "a_delete_takes_the_chunks_along": {
            "a delete without chunks": lambda real, connection, record: setattr(connection, "isolation_level", None),
        },
    }),
    (Database, "transaction", {
        "a_new_row_comes_back_as_it_was_stored": {"a transaction with a name": lambda real, self, name: real(self)},
        "a_transaction_that_ends_well_is_kept": {"a transaction that never commits": commit_never},
        "a_transaction_that_fails_changes_nothing_and_lets_the_error_out": {
            "a transaction that always commits": commit_whatever_happens,
            "an exit that swallows": swallow,
            "an exit that raises another error": wrap,
        },
    }),
    (repo_facts, "_norm", {
        "a_file_has_one_spelling_that_leads_to_it": {
            "paths in small letters": lambda real, path: real(path).lower(),
            "paths from the root": lambda real, path: "/" + real(path),
            "paths that cannot be joined": lambda real, path: (real(path),),
        },
    }),
    (repo_facts, "_atomic_write", {
        "a_page_file_is_written_whole_and_exactly": {
            "a file in ASCII": lambda real, path, text: real(path, text.encode("ascii", "replace").decode()),
            "a file that is tidied": lambda real, path, text: real(path, text.strip()),
            "a file that is appended to": append,
            "a file with a backup": lambda real, path, text: real(path, text) or path.with_suffix(".bak").touch(),
            "a writer that takes the text first": lambda real, text, path: real(Path(path), text),
        },
        "a_page_file_is_never_half_seen": {
            "a file written in place": lambda real, path, text: path.write_text(text, "utf-8"),
            "half a file": lambda real, path, text: real(path, text.encode("utf-8", "ignore").decode()),
        },
    }),
    (replan_carry, "carried_sections", {
        "sections_hold_the_prose_and_are_drawn_at_once": {
            "sections drawn later": lambda real, pages: (section for page in pages for section in real([page])),
            "sections without prose": lambda real, pages: real([(title, title) for title, _ in pages]),
            "sections of one line": lambda real, pages: real([(page[0], " ".join(page[1].split())) for page in pages]),
            "one section for all pages": lambda real, pages: ["\n".join(real(pages))],
            "a section of the first page alone": lambda real, pages: real([next(iter(pages))]),
        },
        "no_pages_make_no_sections": {"a section of no page": lambda real, pages: real(pages) or [""]},
        "sections_are_added_once": {
            "sections that change": lambda real, pages: real([(f"{page[0]} {time_ns()}", page[1]) for page in pages]),
            "sections that other line ends hide": lambda real, pages: [
                section for page in pages for section in real([page])[: 1 if "\r" in page[1] else None]
            ],
        },
    }),
    (replan_carry, "make_block", {
        "sections_are_added_once": {
            "sections with line ends of their own": lambda real, kind, text: real(kind, text).replace("\n", "\r\n"),
        },
    }),
    (replan_carry, "with_carried", {
        "sections_are_added_once": {
            "sections added each time": lambda real, text, sections: "\n\n".join([text, *sections]),
            "sections never added": lambda real, text, sections: text,
            "sections in place of the text": lambda real, text, sections: "\n\n".join(sections) or text,
            "sections below a text that is tidied": lambda real, text, sections: real(text.replace("  ", ""), sections),
            "sections from the last on": lambda real, text, sections: real(text, sections[::-1]),
            "sections known only all at once": known_all_at_once,
        },
        "without_sections_the_text_stays": {
            "no text without sections": lambda real, text, sections: real(text, sections) if sections else "",
        },
        "a_section_is_not_taken_for_carried_by_its_words": {"sections known by their words": without_known_words},
    }),
    (replan_carry, "page_prose", {
        "prose_is_found_with_and_without_a_file": {
            "no prose for None": lambda real, text, row: real(text.strip(), row),
            "no prose without a file": lambda real, text, row: real(text or "", {}),
            "prose up to a heading": lambda real, text, row: real(text, row).partition("\n## ")[0],
            "prose of the cache alone": lambda real, text, row: real(None, row),
        },
    }),
    (replan_carry, "is_blank", {
        "a_blank_file_does_not_hide_cached_prose": {
            "blank files": lambda real, text: False,
            "blank files with a byte order mark": lambda real, text: not text.strip(),
        },
    }),
    (replan_carry, "cached_prose", {
        "cached_prose_is_that_of_the_build_cache": {
            "cached prose of stored rows alone": lambda real, row: row["build_cache"]["prose"],
            "cached prose elsewhere": lambda real, row: row.get("summary", ""),
            "no cached prose is None": lambda real, row: real(row) or None,
        },
    }),
    (replan_carry, "merged_predecessors", {
        "an_empty_remap_has_no_predecessors": {
            "predecessors of remaps that merge": lambda real, remap: real(remap) if remap.merged else {},
            "predecessors that are fixed": lambda real, remap: MappingProxyType(real(remap)),
            "predecessors that are kept": lambda real, remap, none={}: real(remap) or none,
        },
        "predecessors_are_in_order_and_the_callers_to_change": {
            "predecessors that are the remap's own": lambda real, remap: getattr(remap, "merged", {}),
            "predecessors by name": lambda real, remap: {new: sorted(old) for new, old in real(remap).items()},
            "predecessors in tuples": lambda real, remap: {new: (*old,) for new, old in real(remap).items()},
        },
        "predecessors_are_listed_over_chains": {"predecessors of one step": one_step},
        "prose_passes_along_chains": {"merges of one step": one_step},
    }),
    (wiki_types, "NOTE_LEVEL", {"the_level_of_notes_is_none_of_pages": {"notes that are pages": "module"}}),
    (WikiGenerator, "__init__", {
        "the_generator_has_what_the_module_reads": {
            "folders that are no paths": lambda real, self, *wiki: real(self, *wiki) or vars(self).update(pages_dir=""),
            "no branch": lambda real, self, *wiki: real(self, *wiki) or vars(self).update(branch=None),
        },
    }),
    (WikiGenerator, "_apply_replan_to_store", {
        "of_two_rows_with_one_id_the_later_counts": {"a snapshot of earlier rows": earlier_rows},
    }),
    (WikiGenerator, "_carry_into_successors", {
        "prose_is_carried_into_file_and_cache": {"a prune without successors": lambda real, self, remap, deletes: {}},
    }),
    (WikiGenerator, "_retired_only_because_the_index_is_behind", {
        "a_page_stays_while_the_index_is_behind": {
            "pages that go while the index is behind": lambda real, *page: False,
            "pages that never go": lambda real, *page: True,
        },
    }),
    (WikiGenerator, "_notes_whose_file_is_gone", {
        "a_note_stays_while_its_file_does": {
            "notes that go": lambda real, self, rows: {page for page in rows if rows[page]["level"] == "note"},
            "notes that never go": lambda real, self, rows: set(),
        },
    }),
    (WikiGenerator, "in_run", {
        "a_successor_out_of_the_plan_is_refused": {"any successor": by_the_module_alone},
        "two_pages_in_one_file_do_not_go_one_by_one": {"pages in one file": by_the_module_alone},
        "two_prunes_of_one_wiki_take_turns": {"prunes at once": by_the_module_alone},
        "a_prune_that_was_killed_is_finished_by_the_next": {"leftovers that stay": by_the_module_alone},
        "a_rerun_after_a_failed_commit_carries_each_section_once": {"a file in the way of a rerun": with_no_strangers},
    }),
    (WikiLock, "held", {
        "a_prune_that_was_killed_is_finished_by_the_next": {"a lock that outlives all": partial(lock_by_file, True)},
        "a_prune_that_failed_keeps_nobody_out": {"a lock that is kept after an error": partial(lock_by_file, False)},
    }),
]  # fmt: skip

BROKEN = {
    name: (f"test_{check}", owner, attribute, change)
    for owner, attribute, checks in CHANGES
    for check, changes in checks.items()
    for name, change in changes.items()
}


def break_host(broken, folder):
    DemoHost(folder)  # a store that is whole, for what is broken to be used on
    _, owner, attribute, change = BROKEN[broken]
    real = getattr(owner, attribute)
    changed = (lambda *arguments, **fields: change(real, *arguments, **fields)) if callable(change) else change
    for place in [module for name, module in sys.modules.items() if name.startswith("quillstone.")]:
        if vars(place).get(attribute) is real:
            setattr(place, attribute, changed)
    setattr(owner, attribute, changed)
    return DemoHost(folder)


def __getattr__(broken):
    if broken in BROKEN:
        return partial(break_host, broken)
    raise AttributeError(broken)
