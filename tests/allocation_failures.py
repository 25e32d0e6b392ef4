"""Fails every allocation of a piece of work in turn: `python allocation_failures.py module|oracle WORK FIRST`.

A process of its own, since an interpreter without memory may go down. Says which one fails and what went wrong.
"""

import _imp
import _testcapi
import contextlib
import gc
import itertools
import json
import logging
import sys
import types

import oracle
from leaks import growth
from quillstone.workers.wiki import page_retirement

COLLABORATORS = {
    "_norm": lambda path: path, "NOTE_LEVEL": "note", "_atomic_write": lambda path, text: None,
    "merged_predecessors": lambda remap: {"kept": ["merged", "index"], "one": ["merged"]},
    "carried_sections": lambda pairs: [prose for _, prose in pairs], "page_prose": lambda text, row: row["page_id"],
    "cached_prose": lambda row: "cached", "with_carried": lambda text, sections: text.join(sections) + text,
    "json": types.SimpleNamespace(dumps=lambda cache, ensure_ascii: "{}"),
}  # fmt: skip


class Name(str):
    """A path of the host's, as far as the module uses one."""

    __truediv__ = lambda self, name: Name(f"{self}/{name}")
    parent = property(lambda self: Name("wiki"))
    is_dir = exists = lambda self: True
    is_file = lambda self: False
    glob = lambda self, pattern: ["note.md"]
    unlink = lambda self, missing_ok: None


class Store:
    db = property(lambda self: self)

    def __init__(self):
        self.rows, self.before = {row["page_id"]: row for row in ROWS}, None

    def list_indexed_files(self, source_only, limit):
        return [{"path": "a.py"}, {"path": "b.py"}], False, limit, 2

    def get_wiki_pages(self, branch):
        return list(self.rows.values())

    def upsert_wiki_page(self, branch, page_id, title, **fields):
        self.rows[page_id] = fields

    def delete_wiki_page(self, branch, page_id):
        return bool(self.rows.pop(page_id, None))

    @contextlib.contextmanager
    def transaction(self):
        before = dict(self.rows)
        try:
            yield
        except BaseException:
            self.rows = before
            raise


ROWS = [
    {"page_id": page_id, "source_files": files, "related_pages": ["kept"], "build_cache": {"a": 1}, "level": level}
    for page_id, files, level in [
        ("kept", ["a.py"], None), ("merged", ["a.py", "b.py"], ""), ("index", ["behind.py"], None), ("é", [], "module"),
        ("note", [], "note"), ("seed", [], "module"),
    ]
]  # fmt: skip
ROWS[-1] = types.MappingProxyType(ROWS[-1])
REMAP, PLAN = {"néw": "seed", "kept": "merged"}, {"kept", "néw"}


def scenarios(rules):
    """Name of a piece of work to what prepares it; what that gives does it, and is called once."""
    for name, value in COLLABORATORS.items():
        setattr(rules, name, value)
    logging.getLogger("quillstone").disabled = rules.logger.disabled = True
    snapshot = {row["page_id"]: row for row in ROWS}

    def prepared(work):
        def prepare():
            host = type("Host", (rules.PageRetirementMixin,), {})()
            host.repository, host.branch, host.pages_dir, host.repo_root = Store(), "b", Name("wiki/pages"), Name("r")
            return lambda: work(host)

        return prepare

    judged = types.FunctionType(rules._judged_sources.__code__, {"__builtins__": {}})

    def nameless(*arguments):
        try:
            return judged(*arguments)
        except NameError:
            return "no such name"

    guard = rules.PageRetirementMixin._retired_only_because_the_index_is_behind
    sources = {"_judged_sources": lambda page, existing: ("a.py", "b.py")}
    general = types.FunctionType(guard.__code__, {**vars(rules), **sources})

    def body():
        module = _imp.create_dynamic(page_retirement.__spec__)
        return lambda: _imp.exec_dynamic(module) or vars(module).keys() - vars(page_retirement).keys()

    if rules is page_retirement:
        yield "body", body
    yield "judged sources", lambda: lambda: rules._judged_sources({"related_pages": ["kept", "merged"]}, snapshot)
    yield "missing name", lambda: lambda: nameless({"source_files": ["a"]}, {})
    yield "guard", prepared(lambda host: general(host, "é", {}, frozenset({"c.py"}), snapshot))
    yield "selection", prepared(lambda host: host._retired_page_ids(snapshot, PLAN))
    yield "carry", prepared(lambda host: host._carry_into_successors(REMAP, {"merged", "index", "é"}))
    yield "upsert", prepared(lambda host: host._upsert_successor("new", ROWS[0], ["f"], ["section"]))
    yield "prune", prepared(lambda host: host._prune_retired_pages(snapshot, PLAN, REMAP))
    yield "replan", prepared(lambda host: (host._apply_replan_to_store(REMAP, PLAN), sorted(host.repository.rows)))


def attempt(prepare, start, stop):
    """What the work gives when the allocations from `start` to `stop` fail: a result, "no memory", or a fault."""
    work = prepare()
    gc.collect()  # empties the free lists
    _testcapi.set_nomemory(start, stop)
    try:
        result = work()
    except MemoryError:
        result = "no memory"
    except BaseException as error:
        _testcapi.remove_mem_hooks()
        result = f"fault: {error!r}"
    finally:
        _testcapi.remove_mem_hooks()
    return result


def sweep(prepare, first):
    say = lambda **what: print(json.dumps(what), flush=True)
    expected = [attempt(prepare, 10**6, 0) for _ in range(3)][-1]
    for start in itertools.count(first):
        say(failed=start)  # the last words, if it crashes
        result = attempt(prepare, start, start + 1)
        if result not in (expected, "no memory"):
            say(fault=str(result), allocation=start)
        if kept := growth(lambda start=start: attempt(prepare, start, start + 1), turns=8)[0]:
            say(fault=f"{kept} blocks kept", allocation=start)
        if attempt(prepare, start, 0) == expected:
            return


if __name__ == "__main__":
    rules, name, start = {"module": page_retirement, "oracle": oracle}[sys.argv[1]], sys.argv[2], int(sys.argv[3])
    gc.freeze()
    sweep(dict(scenarios(rules))[name], start)
