"""Instructions a page of the main operations, counted by callgrind and held against stored bounds.

    instructions.py               check; exit status 1 where a bound is passed, 0 without valgrind
    instructions.py --update      store what is counted now, with a little room, as the new bounds
    instructions.py --pages 8000  count for a wiki of another size, too, to see that the cost a page stays what it is

A count is the same at every run, which a time is not. It depends on the interpreter's build and on the compiler, so
the bounds leave 5 %. The difference between a process that runs an operation twice and one that runs it once is what
the operation takes; all else is in both.
"""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

BOUNDS = Path(__file__).with_name("instruction_bounds.json")
ROOM = 1.05
PAGES = 800  # of the wiki that the bounds are for
FILES_A_PAGE = 5


def work(name: str, pages: int, times: int) -> None:
    from generated import generate
    from memory import operations

    run = operations(generate(pages, FILES_A_PAGE))[name].run
    for _ in range(1 + times):  # the first one fills the interpreter's caches
        run()


def count(name: str, pages: int, times: int) -> int:
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", sys.executable, __file__]
    environment = {**os.environ, "PYTHONHASHSEED": "0"}
    done = subprocess.run(
        [*command, "--work", name, str(pages), str(times)], env=environment, capture_output=True, text=True
    )
    collected = re.search(r"Collected *: *(\d+)", done.stderr)
    if done.returncode or not collected:
        sys.exit(f"bench-check: counting {name!r} failed:\n{done.stderr}")
    return int(collected[1])


def instructions_a_page(name: str, pages: int = PAGES) -> int:
    return round((count(name, pages, 2) - count(name, pages, 1)) / pages)


def main() -> int:
    if sys.argv[1:2] == ["--work"]:
        work(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
        return 0
    if not shutil.which("valgrind"):
        print("bench-check: skipped, valgrind is not installed (it comes with the package valgrind)")
        return 0
    bounds = json.loads(BOUNDS.read_text())
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        counted = dict(zip(bounds, pool.map(instructions_a_page, bounds), strict=True))
    if sys.argv[1:] == ["--update"]:
        BOUNDS.write_text(json.dumps({name: round(figure * ROOM) for name, figure in counted.items()}, indent=1) + "\n")
        return 0
    if sys.argv[1:2] == ["--pages"]:
        pages = int(sys.argv[2])
        print(f"{'instructions a page':24}{PAGES:10,}{pages:10,} pages")
        for name, figure in counted.items():
            print(f"{name:24}{figure:10,}{instructions_a_page(name, pages):10,}")
        return 0
    print(f"{'instructions a page':24}{'counted':>10}{'bound':>10}")
    for name, figure in counted.items():
        print(f"{name:24}{figure:10,}{bounds[name]:10,}{'' if figure <= bounds[name] else '  more than the bound'}")
    return int(any(counted[name] > bound for name, bound in bounds.items()))


if __name__ == "__main__":
    sys.exit(main())
