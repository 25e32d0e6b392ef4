"""Out of memory, one allocation at a time: a MemoryError, nothing half done, nothing leaked, no crash.

As a program, `test_memory.py WORK`, it fails every allocation of a piece of work in turn and says which one: a process
of its own, since an interpreter without memory may go down.
"""

import _imp
import _testcapi
import gc
import itertools
import subprocess
import sys
import types

import pytest

from leaks import growth

WORK = {"missing name": 3, "guard": 4, "replan": 150}  # and how many allocations each makes at least
if sys.version_info < (3, 11):  # later ones compile there, and their compilers leak and crash without memory
    WORK["body"] = 400
# What evaluating Python code gives then, with and without the module.
NOT_OF_THE_MODULE = ("error return without exception set", "_PyEval_EvalFrameDefault returned NULL without")


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
        module = _imp.create_dynamic(rules.__spec__)
        return lambda: _imp.exec_dynamic(module) or vars(module).keys() - vars(rules).keys()

    return {
        "body": body,
        "missing name": lambda: missing_name,
        "guard": lambda: lambda: general(host, "é", {}, frozenset({"c.py"}), {}),
        "replan": lambda: replan.run,
    }


def attempt(prepare, start, stop):
    """What the work gives when the allocations from `start` to `stop` fail: a result, or "no memory"."""
    work = prepare()
    gc.collect()  # empties the free lists
    _testcapi.set_nomemory(start, stop)
    try:
        return work()
    except MemoryError:
        return "no memory"
    except SystemError as error:
        if str(error).startswith(NOT_OF_THE_MODULE):
            return "no memory"
        raise
    finally:
        _testcapi.remove_mem_hooks()


def fail_each(prepare):
    expected = [attempt(prepare, 10**6, 0) for _ in range(3)][-1]
    for start in itertools.count():
        print(start, flush=True)  # the last words, if it crashes
        assert attempt(prepare, start, start + 1) in (expected, "no memory")
        assert growth(lambda start=start: attempt(prepare, start, start + 1), turns=8) == [0]
        if attempt(prepare, start, 0) == expected:
            return


@pytest.mark.parametrize("work", WORK)
def test_any_allocation_may_fail(work, with_benchmarks, figures):
    command = [sys.executable, __file__, work]
    run = subprocess.run(command, env=with_benchmarks, capture_output=True, text=True, timeout=600)
    failed = int(run.stdout.split()[-1])
    assert (run.returncode, run.stderr) == (0, ""), f"when allocation {failed} fails"
    assert failed >= WORK[work]
    figures["allocations failed"] += failed


if __name__ == "__main__":
    import memory
    from generated import generate

    prepare = pieces_of_work(memory, generate(16, 1), memory.page_retirement)[sys.argv[1]]
    gc.freeze()
    fail_each(prepare)
