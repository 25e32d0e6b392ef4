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

import memory
from generated import generate
from leaks import growth


def pieces_of_work(rules):
    """Name of a piece of work to what prepares it; what that gives does it, and is called once."""
    wiki = generate(16, 1)
    wiki.seeds |= {"page-0000000": "page-0000004", "néw": "page-0000005"}
    wiki.rows[5] = types.MappingProxyType(wiki.rows[5])
    rules.logger = types.SimpleNamespace(warning=lambda *args: None)
    rules.json = types.SimpleNamespace(dumps=lambda cache, ensure_ascii: "{}")
    guard = rules.PageRetirementMixin._retired_only_because_the_index_is_behind
    sources = {"_judged_sources": lambda page, existing: ("a.py", "b.py")}
    general = types.FunctionType(guard.__code__, {**vars(rules), **sources})
    host = types.SimpleNamespace(repo_root=memory.Folder({}, "tree"))
    replan = memory.operations(wiki, rules)["replan"]
    judged = types.FunctionType(rules._judged_sources.__code__, {"__builtins__": {}})

    def missing_name():
        try:
            return judged({"source_files": ["a"]}, {})
        except NameError:
            return "no such name"

    def body():
        module = _imp.create_dynamic(memory.page_retirement.__spec__)
        return lambda: _imp.exec_dynamic(module) or vars(module).keys() - vars(memory.page_retirement).keys()

    def compiler():
        source = "def function(a): 'doc'; return (0 or 'callee')(a)"
        return compile(source, "", "exec").co_consts[0].replace(co_name="other", co_firstlineno=7).co_name

    return {
        "body": body if rules is memory.page_retirement else lambda: compiler,
        "missing name": lambda: missing_name,
        "guard": lambda: lambda: general(host, "é", {}, frozenset({"c.py"}), {}),
        "replan": lambda: replan.run,
    }


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
    rules = memory.page_retirement if sys.argv[1] == "module" else memory.plain_python()
    prepare = pieces_of_work(rules)[sys.argv[2]]
    gc.freeze()
    sweep(prepare, int(sys.argv[3]))
