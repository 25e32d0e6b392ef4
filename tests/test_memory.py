"""Out of memory, one allocation at a time: a MemoryError, nothing half done, nothing leaked, no crash."""

import json
import re
import subprocess
import sys
from pathlib import Path

import pytest

SWEEP = Path(__file__).parent / "allocation_failures.py"
WORK = {"missing name": 3, "guard": 4, "replan": 150, "body": 400}  # and how many allocations each makes at least


def sweep(rules, work, environment):
    """How many allocations were made to fail, and what came of it besides a MemoryError."""
    failed, faults = 0, []
    while True:
        command = [sys.executable, SWEEP, rules, work, str(failed)]
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
    assert failed >= WORK[work]
    assert not faults or kinds(faults) <= kinds(sweep("oracle", work, with_benchmarks)[1])
    figures["allocations failed"] += failed


@pytest.mark.long
@pytest.mark.parametrize("work", WORK)
def test_what_the_interpreter_makes_of_it_in_plain_python(work, with_benchmarks, figures):
    figures["faults of the interpreter, in plain Python"] += len(sweep("oracle", work, with_benchmarks)[1])
