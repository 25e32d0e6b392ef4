"""Imports, uses and drops the module many times: `python lifetimes.py imports|subinterpreters ROUNDS`.

With `plain` at the end, the same rules in plain Python take its place. Prints how many bytes more the process takes
with every round, and how many blocks, classes and functions are left.
"""

import gc
import importlib
import os
import sys
import weakref
from pathlib import Path

import memory
from generated import generate

try:
    import _interpreters as interpreters
except ImportError:  # before 3.13
    import _xxsubinterpreters as interpreters

PLAIN = sys.argv[3:] == ["plain"]
NAME = "quillstone.workers.wiki.page_retirement"


def resident():
    return int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")


def use(module):
    """A replan that carries prose, and one that fails in the middle, with a module that nobody has used before."""
    assert not hasattr(module.PageRetirementMixin, "used")
    module.PageRetirementMixin.used = True
    replan = memory.operations(generate(16), module)["replan"]
    assert replan.run() == replan.expected
    upsert, memory.Store.upsert_wiki_page = memory.Store.upsert_wiki_page, lambda *args, **fields: 1 / 0
    try:
        replan.run()
    except ZeroDivisionError:
        memory.Store.upsert_wiki_page = upsert
    assert memory.Store.upsert_wiki_page is upsert


def fresh(plain=PLAIN):
    sys.modules.pop(NAME, None)
    return memory.plain_python() if plain else importlib.import_module(NAME)


def in_subinterpreter(watched):
    code = f"import sys; sys.path[:] = {sys.path!r}; import lifetimes; lifetimes.use(lifetimes.fresh({PLAIN}))"
    other = interpreters.create()
    assert not interpreters.run_string(other, code)
    interpreters.destroy(other)


def again(watched):
    module = fresh()
    use(module)
    watched += [weakref.ref(module.PageRetirementMixin), weakref.ref(module._judged_sources)]
    watched[:] = [reference for reference in watched if reference() is not None]


def main(run, rounds):
    watched = []
    for _ in range(rounds // 4):
        run(watched)
    gc.collect()
    used, blocks = resident(), sys.getallocatedblocks()
    for _ in range(rounds):
        run(watched)
    sys.modules.pop(NAME, None)
    vars(sys.modules["quillstone.workers.wiki"]).pop("page_retirement", None)
    gc.collect()
    left = sum(reference() is not None for reference in watched)
    print((resident() - used) // rounds, sys.getallocatedblocks() - blocks, left)


if __name__ == "__main__":
    main({"subinterpreters": in_subinterpreter, "imports": again}[sys.argv[1]], int(sys.argv[2]))
