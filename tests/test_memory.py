"""Out of memory, one allocation at a time: a MemoryError, nothing half done, nothing leaked, no crash.

As a program, `test_memory.py module|oracle WORK FIRST`, it fails every allocation of a piece of work in turn and says
which one fails and what went wrong: a process of its own, since an interpreter without memory may go down.
"""

import _imp
import _testcapi
import gc
import itertools
import json
import re
import subprocess
import sys
import types

import pytest

from leaks import growth

WORK = {"missing name": 3, "guard": 4, "replan": 150, "body": 400}  # and how many allocations each makes at least


def pieces_of_work(memory, wiki, rules):
    """Name of a piece of work to what prepares it; what that gives does it, and is called once."""
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


def fail_each(prepare, first):
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


def sweep(rules, work, environment):
    """How many allocations were made to fail, and what came of it besides a MemoryError."""
    failed, faults = 0, []
    while True:
        command = [sys.executable, __file__, rules, work, str(failed)]
        run = subprocess.run(command, env=environment, capture_output=True, text=True)
        lines = [json.loads(line) for line in run.stdout.splitlines()]
        faults += [line for line in lines if "fault" in line]
        failed = max(line.get("failed", 0) for line in lines)
        if not run.returncode:
            return failed, faults
        faults.append({"fault": f"exit status {run.returncode}", "allocation": failed, "said": run.stderr[-1000:]})
        failed += 1


@pytest.mark.parametrize("work", WORK)
def test_any_allocation_may_fail(work, with_benchmarks, figures):
    """Faults are those that the interpreter itself has then, as its compiler, which the body makes use of."""
    kinds = lambda faults: {re.sub(r"\d+ blocks|SystemError.*", "", fault["fault"]) for fault in faults}
    failed, faults = sweep("module", work, with_benchmarks)
    assembled = sys.version_info < (3, 11)  # no compiler is at work there
    assert failed >= WORK[work]
    assert not faults or (not assembled and kinds(faults) <= kinds(sweep("oracle", work, with_benchmarks)[1]))
    figures["allocations failed"] += failed


@pytest.mark.long
@pytest.mark.parametrize("work", WORK)
def test_what_the_interpreter_makes_of_it_in_plain_python(work, with_benchmarks, figures):
    figures["faults of the interpreter, in plain Python"] += len(sweep("oracle", work, with_benchmarks)[1])


if __name__ == "__main__":
    import memory
    from generated import generate

    rules = memory.page_retirement if sys.argv[1] == "module" else memory.plain_python()
    work = pieces_of_work(memory, generate(16, 1), rules)[sys.argv[2]]
    gc.freeze()
    fail_each(work, int(sys.argv[3]))
