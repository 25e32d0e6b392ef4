"""The module beside the same rules in plain Python and in Cython's build of them, on each version of the interpreter.

    versions.py ENVIRONMENT...    counts, and writes the table of BENCHMARKS.md

An environment is a virtual environment with the module and Cython. Counted are the instructions that an operation
executes for each page, those of the interpreter and of the store in memory included (see instructions.py).
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from instructions import PAGES, instructions_a_page

PAGE = Path(__file__).parent.parent / "BENCHMARKS.md"
ORACLE = Path(__file__).parent.parent / "tests" / "oracle.py"
OPERATIONS = ("index", "select", "judge", "carry", "upsert", "prune")
# Cython wants to know every name when it compiles; these are those that the module imports.
IMPORTS = """\
from quillstone.workers.wiki.replan_carry import (
    cached_prose, carried_sections, merged_predecessors, page_prose, with_carried)
from quillstone.workers.wiki.repo_facts import _atomic_write, _norm
from quillstone.workers.wiki_types import NOTE_LEVEL
"""


def compiled(python: Path, folder: Path) -> str:
    """Build the rules with Cython, as a user would who does nothing else about them."""
    source = folder / "oracle.py"
    source.write_text(IMPORTS + ORACLE.read_text())
    command = [python, "-m", "Cython.Build.Cythonize", "-3", "--inplace", source.name]
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True)
    if done.returncode:
        sys.exit(f"bench-versions: Cython's build failed with {python}:\n{done.stderr}")
    return str(next(folder.glob("oracle.*.so")))


def counted(python: Path, folder: Path) -> dict[str, list[int]]:
    """Instructions a page of each operation: of the module, of Cython's build, of plain Python."""
    builds = ["", compiled(python, folder), str(ORACLE)]
    jobs = [(operation, rules) for operation in OPERATIONS for rules in builds]

    def count(job: tuple[str, str]) -> int:
        operation, rules = job
        figure = instructions_a_page(operation, PAGES, str(python), rules).all
        print(f"{python}: {operation} of {Path(rules).name or 'the module'}: {figure:,}", flush=True)
        return figure

    with ThreadPoolExecutor(os.cpu_count()) as pool:
        figures = iter([*pool.map(count, jobs)])
    return {operation: [next(figures) for _ in builds] for operation in OPERATIONS}


def version_of(python: Path) -> str:
    command = [python, "-c", "import sys; print('%d.%d' % sys.version_info[:2])"]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def main() -> None:
    if not shutil.which("valgrind"):
        sys.exit("bench-versions: valgrind is not installed (it comes with the package valgrind)")
    columns = {}
    for environment in sys.argv[1:]:
        python = Path(environment, "bin", "python").absolute()
        with tempfile.TemporaryDirectory() as folder:
            columns[version_of(python)] = counted(python, Path(folder))
    lines = [["instructions a page", *columns], ["---", *["---:"] * len(columns)]]
    for operation in OPERATIONS:
        figures = [column[operation] for column in columns.values()]
        for build, name in enumerate([operation, "in Cython's build", "in plain Python"]):
            lines.append([name, *(f"{each[build]:,}" for each in figures)])
        lines.append(["to the better of these", *(f"{each[0] / min(each[1:]):.2f}" for each in figures)])
    table = "\n".join(f"| {' | '.join(line)} |" for line in lines)
    text, found = re.subn(
        r"(<!-- versions -->\n).*(\n<!-- /versions -->)", rf"\1\n{table}\n\2", PAGE.read_text(), flags=re.S
    )
    assert found == 1, "BENCHMARKS.md has no place for the table"
    PAGE.write_text(text)


if __name__ == "__main__":
    main()
