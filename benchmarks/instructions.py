"""Instructions a page of the main operations, counted by callgrind and held against stored bounds.

    instructions.py               check; exit status 1 where a bound is passed, 0 without valgrind
    instructions.py --update      store what is counted now, with a little room, as the new bounds
    instructions.py --pages 8000  count for a wiki of another size, too, to see that the cost a page stays what it is
    instructions.py --work NAME PAGES TIMES [RULES]    the process that is counted; RULES is a file with the same rules

A count is the same at every run, which a time is not. It depends on the interpreter's build and on the compiler, so
the bounds leave some room. Each operation has two: for the module's own instructions, and for all, which are mostly
those of the interpreter and the store in memory and tell of calls that are one too many. The difference between a
process that runs an operation some times more and one that runs it once is what it takes; all else is in both.
"""

from __future__ import annotations

import gc
import json
import os
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple

BOUNDS = Path(__file__).with_name("instruction_bounds.json")
PAGES = 800  # of the wiki that the bounds are for
MORE_RUNS = 5
VALGRIND = ["valgrind", "--tool=callgrind", "--compress-strings=no", "--compress-pos=no"]


class Count(NamedTuple):
    own: int
    all: int


ROOM = {"own": 1.03, "all": 1.08}  # where objects happen to lie in memory moves the interpreter's figures, not ours


def work(name: str, pages: int, times: int, rules: str = "") -> None:
    import memory
    from generated import generate

    gc.disable()  # a pass that moves into or out of what is counted would look like a change
    module = memory.rules_of(Path(rules)) if rules else memory.page_retirement
    run = memory.operations(generate(pages), module)[name].run
    for _ in range(1 + times):  # the first one fills the interpreter's caches
        run()


def count(name: str, pages: int, times: int, python: str = sys.executable, rules: str = "") -> Count:
    # Without bytecode: the process that writes it would count what the next one does not.
    environment = {**os.environ, "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1"}
    with tempfile.TemporaryDirectory() as folder:
        profile = Path(folder, "profile")
        program = [python, __file__, "--work", name, str(pages), str(times), rules]
        command = [*VALGRIND, f"--callgrind-out-file={profile}", *program]
        done = subprocess.run(command, env=environment, capture_output=True, text=True)
        if done.returncode or not profile.exists():
            sys.exit(f"bench-check: counting {name!r} failed:\n{done.stderr}")
        return parse(profile)


def parse(profile: Path) -> Count:
    """Add up a profile's self costs: lines of 'line cost'. The one after 'calls=' is the callee's, told there again."""
    own = everything = 0
    in_module = in_call = False
    with profile.open() as lines:
        for line in lines:
            if line.startswith("ob="):
                in_module = "page_retirement." in line
            elif line.startswith("calls="):
                in_call = True
            elif line[0].isdigit():
                cost = 0 if in_call else int(line.split()[1])
                everything += cost
                own += cost if in_module else 0
                in_call = False
    return Count(own, everything)


def instructions_a_page(name: str, pages: int = PAGES, python: str = sys.executable, rules: str = "") -> Count:
    once, again = (count(name, pages, times, python, rules) for times in (1, 1 + MORE_RUNS))
    return Count(*(round((more - less) / MORE_RUNS / pages) for less, more in zip(once, again, strict=True)))


def main() -> int:
    if sys.argv[1:2] == ["--work"]:
        work(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), *sys.argv[5:])
        return 0
    if not shutil.which("valgrind"):
        print("bench-check: skipped, valgrind is not installed (it comes with the package valgrind)")
        return 0
    bounds = {name: Count(*pair) for name, pair in json.loads(BOUNDS.read_text()).items()}
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        counted = dict(zip(bounds, pool.map(instructions_a_page, bounds), strict=True))
    if sys.argv[1:] == ["--update"]:
        roomy = {name: [round(own * ROOM["own"]), round(total * ROOM["all"])] for name, (own, total) in counted.items()}
        lines = (f" {json.dumps(name)}: {json.dumps(pair)}" for name, pair in roomy.items())
        BOUNDS.write_text("{{\n{}\n}}\n".format(",\n".join(lines)))
        return 0
    if sys.argv[1:2] == ["--pages"]:
        pages = int(sys.argv[2])
        print(f"{'instructions a page':22}{PAGES:>14,} pages{pages:>14,} pages")
        for name, figures in counted.items():
            print(f"{name:22}{figures.all:20,}{instructions_a_page(name, pages).all:20,}")
        return 0
    print(f"{'instructions a page':22}{'own':>8}{'bound':>8}{'all':>10}{'bound':>10}")
    passed = False
    for name, (own, everything) in counted.items():
        too_many = own > bounds[name].own or everything > bounds[name].all
        passed |= too_many
        print(
            f"{name:22}{own:8,}{bounds[name].own:8,}{everything:10,}{bounds[name].all:10,}{'  <-' if too_many else ''}"
        )
    if passed:
        print(
            "bench-check: more than a bound. If it is worth its cost, or the compiler or interpreter is another one: "
            f"{Path(__file__).name} --update"
        )
    return int(passed)


if __name__ == "__main__":
    sys.exit(main())
