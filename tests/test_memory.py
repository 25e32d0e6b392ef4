"""Out of memory, one allocation at a time and in C++: a MemoryError, nothing half done, nothing leaked, no crash."""

import json
import os
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

SWEEP = Path(__file__).parent / "allocation_failures.py"
# Pieces of work, and how many allocations each makes at least.
WORK = {
    "judged sources": 3,
    "missing name": 3,
    "guard": 4,
    "selection": 30,
    "carry": 80,
    "upsert": 9,
    "prune": 140,
    "replan": 150,
}


def sweep(rules, work):
    """How many allocations were made to fail, and what came of it besides a MemoryError."""
    failed, faults = 0, []
    while True:
        run = subprocess.run([sys.executable, SWEEP, rules, work, str(failed)], capture_output=True, text=True)
        lines = [json.loads(line) for line in run.stdout.splitlines()]
        faults += [line for line in lines if "fault" in line]
        failed = lines[-1]["failed"]
        if not run.returncode:
            return failed, faults
        faults.append({"fault": f"exit status {run.returncode}", "allocation": failed, "said": run.stderr[-1000:]})
        failed += 1


@pytest.mark.parametrize("work", [*WORK, "body"])
def test_any_allocation_may_fail(work, figures):
    failed, faults = sweep("module", work)
    assert failed >= WORK.get(work, 400) and faults == []
    figures["allocations failed"] += failed


@pytest.mark.long
@pytest.mark.parametrize("work", WORK)
def test_what_the_interpreter_makes_of_it_in_plain_python(work, figures):
    figures["faults of the interpreter, in plain Python"] += len(sweep("oracle", work)[1])


@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="a sanitizer takes more than any limit")
def test_memory_that_cplusplus_cannot_get():
    program = """
        import resource
        from quillstone.workers.wiki.page_retirement import _judged_sources
        stored = dict.fromkeys(range(3_000_000))
        page = {"related_pages": list(stored)}  # a table of 48 MB for what is stored of them
        used = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
        resource.setrlimit(resource.RLIMIT_AS, (used + 20_000_000, resource.RLIM_INFINITY))
        try:
            _judged_sources(page, stored)
        except MemoryError:
            resource.setrlimit(resource.RLIMIT_AS, (resource.RLIM_INFINITY,) * 2)
            assert _judged_sources({"related_pages": [1]}, {1: {}}) == []
            print("no memory")
    """
    run = subprocess.run([sys.executable, "-c", textwrap.dedent(program)], capture_output=True, text=True, check=True)
    assert run.stdout == "no memory\n"
