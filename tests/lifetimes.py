"""Imports, uses and drops the module many times: `python lifetimes.py imports|subinterpreters ROUNDS`.

With `plain` at the end, the same rules in plain Python take its place. Prints how many bytes more the process takes
with every round, and how many blocks, classes and functions are left.
"""

import gc
import importlib
import os
import sys
import types
import weakref
from pathlib import Path

import oracle

try:
    import _interpreters as interpreters
except ImportError:  # before 3.13
    import _xxsubinterpreters as interpreters

PLAIN = sys.argv[3:] == ["plain"]
NAME = "quillstone.workers.wiki.page_retirement"
SIBLINGS = ("storage.repository", "workers.wiki.replan_carry", "workers.wiki.repo_facts", "workers.wiki_types")


class Anything(types.ModuleType):
    """A module, host, store, path and row: each operation on it gives itself."""

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        return self

    __call__ = __getitem__ = __truediv__ = __enter__ = __ror__ = lambda self, *args, **kwargs: self
    __iter__ = lambda self: iter([self, self])
    __exit__ = lambda self, *error: None


def use(module):
    """A replan, and one that fails in the middle, with a module that nobody has used before."""
    assert not hasattr(module.PageRetirementMixin, "used")
    module.PageRetirementMixin.used = True
    names = "_atomic_write _norm cached_prose carried_sections merged_predecessors page_prose json NOTE_LEVEL".split()
    vars(module).update(dict.fromkeys(names, Anything("any")), with_carried=lambda text, sections: "text")
    host = type("Host", (module.PageRetirementMixin,), {"_indexed_paths": lambda self: {"a.c"}})()
    host.repository = host.branch = host.pages_dir = host.repo_root = Anything("any")
    assert host._apply_replan_to_store(Anything("any"), set()) == 0
    module.with_carried = lambda text, sections: 1 / 0
    try:
        host._apply_replan_to_store(Anything("any"), set())
    except ZeroDivisionError:
        return
    raise AssertionError("the error did not come out")


def fresh(plain=PLAIN):
    if plain:
        return importlib.reload(oracle)
    sys.modules.pop(NAME, None)
    sys.modules.update({f"quillstone.{sibling}": Anything(sibling) for sibling in SIBLINGS})
    return importlib.import_module(NAME)


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
    resident = lambda: int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
    for _ in range(rounds // 4):
        run(watched)
    gc.collect()
    memory, blocks = resident(), sys.getallocatedblocks()
    for _ in range(rounds):
        run(watched)
    sys.modules.pop(NAME, None)
    vars(sys.modules.get("quillstone.workers.wiki", types)).pop("page_retirement", None)
    gc.collect()
    left = sum(reference() is not None for reference in watched)
    print((resident() - memory) // rounds, sys.getallocatedblocks() - blocks, left)


if __name__ == "__main__":
    main({"subinterpreters": in_subinterpreter, "imports": again}[sys.argv[1]], int(sys.argv[2]))
