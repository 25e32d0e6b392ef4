"""Fails every allocation of a piece of work in turn: `python allocation_failures.py module|oracle WORK FIRST`.

A process of its own, since an interpreter without memory may go down. Says which one fails and what went wrong.
"""

import _imp
import _testcapi
import gc
import itertools
import json
import sys
import types

import oracle
from leaks import growth
from memory_host import PLAN, REMAP, ROWS, adopt, make_host
from quillstone.workers.wiki import page_retirement


def scenarios(rules):
    """Name of a piece of work to what prepares it; what that gives does it, and is called once."""
    adopt(rules)
    snapshot = {row["page_id"]: row for row in ROWS}

    def prepared(work):
        def prepare():
            host = make_host(rules)
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

    def compiler():
        source = "def function(a): 'doc'; return (0 or 'callee')(a)"
        return lambda: compile(source, "", "exec").co_consts[0].replace(co_name="other", co_firstlineno=7).co_name

    if rules is page_retirement:
        yield "body", body
    yield "compile", compiler
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
