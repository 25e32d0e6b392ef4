"""Out of memory, one allocation at a time: a MemoryError, nothing half done, nothing leaked, no crash."""

import json
import re
import subprocess
import sys
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
        failed = max(line.get("failed", 0) for line in lines)
        if not run.returncode:
            return failed, faults
        faults.append({"fault": f"exit status {run.returncode}", "allocation": failed, "said": run.stderr[-1000:]})
        failed += 1


def kinds(faults):
    return {re.sub(r"\d+ blocks|SystemError.*", "", fault["fault"]) for fault in faults}


@pytest.mark.parametrize("work", [*WORK, "body"])
def test_any_allocation_may_fail(work, figures):
    """Faults are those that the interpreter itself has then, as its compiler, which the body makes use of."""
    failed, faults = sweep("module", work)
    known = kinds(sweep("oracle", "compile" if work == "body" else work)[1]) if faults else set()
    assert failed >= WORK.get(work, 400) and kinds(faults) <= known
    figures["allocations failed"] += failed


@pytest.mark.long
@pytest.mark.parametrize("work", WORK)
def test_what_the_interpreter_makes_of_it_in_plain_python(work, figures):
    figures["faults of the interpreter, in plain Python"] += len(sweep("oracle", work)[1])
