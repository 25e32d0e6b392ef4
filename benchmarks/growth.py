"""Single runs of wikis from a thousand to a million pages, one source file a page: time, and peak memory.

    growth.py FILE          every run, each in a process of its own; the figures go to FILE as JSON
    growth.py run WHAT PAGES time|memory

Memory is counted by tracemalloc, which slows a run down, so it takes a run of its own; what the wiki itself takes, and
what was there before the call, does not count, nor does what SQLite's library takes for itself.
"""

from __future__ import annotations

import gc
import json
import subprocess
import sys
import time
import tracemalloc
from collections.abc import Callable
from pathlib import Path
from typing import Any

from generated import Wiki, generate

SIZES = (1_000, 10_000, 100_000, 1_000_000)
LARGEST_IN_SQLITE = 100_000
SEVERAL_RUNS_BELOW = 30_000  # pages: a run in memory is over in a moment there
PLAIN = "replan in plain Python"
IN_SQLITE = ("prune in SQLite", "replan in SQLite")
WARM_UP = 80  # pages of a first run that counts nothing: what is done once in a process is no matter of size
TABLES = "tables of the carry"
IN_MEMORY = ("index", "select", "carry", "prune", "replan", PLAIN)


def measure(run: Callable[[], Any], kind: str, times: int = 1) -> float:
    """Seconds of the best of so many runs, or bytes at the peak."""
    gc.collect()
    gc.disable()  # whose passes are the process's, and come when it pleases
    if kind == "memory":
        tracemalloc.start()
        run()
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        return peak
    took = []
    for _ in range(times):
        start = time.perf_counter()
        run()
        took.append(time.perf_counter() - start)
    return min(took)


def measure_in_memory(what: str, wiki: Wiki, kind: str) -> float:
    import memory

    if what == TABLES:
        return sum(map(sys.getsizeof, carry_tables(wiki, memory.SIBLINGS["quillstone.workers.wiki.replan_carry"])))
    rules = memory.plain_python() if what == PLAIN else memory.page_retirement
    name = what.split()[0]
    memory.operations(generate(WARM_UP, 1), rules)[name].run()
    operation = memory.operations(wiki, rules)[name]

    def run() -> None:
        result = operation.run()
        assert operation.expected in (None, result), (what, result)

    return measure(run, kind, max(1, SEVERAL_RUNS_BELOW // len(wiki.rows)))


def measure_in_sqlite(what: str, wiki: Wiki, kind: str) -> float:
    import sqlite

    def run_on_a_copy(wiki: Wiki) -> float:
        with sqlite.scratch() as root:
            sqlite.store(wiki, root / "wiki")
            with sqlite.copied(root / "wiki") as host:
                return measure(lambda: sqlite.WHOLE[what](host, wiki), kind)

    run_on_a_copy(generate(WARM_UP, 1))
    return run_on_a_copy(wiki)


def carry_tables(wiki: Wiki, collaborators: dict[str, Callable[..., Any]]) -> list[Any]:
    """What a carry has to hold at its end: rows by id, predecessors, seeds, carried pages, sections, visits, result."""
    rows = wiki.existing
    merged = {successor: list(ids) for successor, ids in wiki.merged.items()}
    carried = {successor: [page_id for page_id in ids if page_id in rows] for successor, ids in merged.items()}
    sections = {
        successor: collaborators["carried_sections"]((rows[i]["title"], rows[i]["build_cache"]["prose"]) for i in ids)
        for successor, ids in carried.items()
    }
    result = {
        successor: (rows[wiki.seeds.get(successor, successor)], ["file"], blocks)
        for successor, blocks in sections.items()
    }
    files = [files for _, files, _ in result.values()]
    texts = [text for blocks in sections.values() for text in blocks]
    tables = [rows, merged, dict(wiki.seeds), carried, sections, dict.fromkeys(sections), result]
    return [*tables, *merged.values(), *carried.values(), *sections.values(), *texts, *result.values(), *files]


def every_run() -> list[tuple[str, int, str]]:
    in_memory = [(what, pages, kind) for pages in SIZES for what in IN_MEMORY for kind in ("time", "memory")]
    tables = [(TABLES, pages, "memory") for pages in SIZES]
    in_sqlite = [(what, pages, kind) for pages in SIZES for what in IN_SQLITE for kind in ("time", "memory")]
    return in_memory + tables + [run for run in in_sqlite if run[1] <= LARGEST_IN_SQLITE]


def main() -> None:
    if sys.argv[1] == "run":
        what, pages, kind = sys.argv[2], int(sys.argv[3]), sys.argv[4]
        wiki = generate(pages, files_a_page=1)
        print((measure_in_sqlite if what in IN_SQLITE else measure_in_memory)(what, wiki, kind))
        return
    figures = []
    for what, pages, kind in every_run():
        command = [sys.executable, __file__, "run", what, str(pages), kind]
        figure = float(subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout)
        shown = f"{figure / pages * 1e6:.2f} us" if kind == "time" else f"{figure / pages:.0f} bytes at the peak"
        print(f"{what}, {pages:,} pages: {shown} a page", flush=True)
        figures.append({"what": what, "pages": pages, "kind": kind, "figure": figure})
    Path(sys.argv[1]).write_text(json.dumps(figures, indent=1))


if __name__ == "__main__":
    main()
