"""The checks of a host: the small one keeps all promises, each broken one is told what would be lost."""

import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

ROOT = Path(__file__).parent.parent
CHECKS = ROOT / "conformance"
sys.path.append(str(CHECKS))
from broken_hosts import BROKEN  # noqa: E402


def check(host, *options, folder):
    command = [sys.executable, "-m", "pytest", CHECKS, f"--host={host}", *options]
    return subprocess.run(command, capture_output=True, text=True, cwd=folder)


def test_the_small_host_runs_as_it_stands_and_keeps_its_promises():
    host = ROOT / "docs" / "small_host.py"
    printed = subprocess.run([sys.executable, host], capture_output=True, text=True, check=True).stdout
    assert all(f"What somebody wrote about {page}." in printed for page in ("parser", "parsing"))
    assert len(host.read_text("utf-8").splitlines()) < 100
    checked = check("small_host_checked:factory", folder=host.parent)
    assert checked.returncode == 0 and f"replan_carry: {host}" in checked.stdout, checked.stdout
    assert not re.search("failed|error|skipped", checked.stdout.splitlines()[-1])


@pytest.mark.parametrize("host", ["small_host_checked:none", "no_such_host", ":"])
def test_a_host_that_cannot_be_loaded_is_no_host_that_passes(host):
    checked = check(host, folder=ROOT / "docs")
    assert checked.returncode == pytest.ExitCode.USAGE_ERROR and "give package.module:factory" in checked.stderr


@pytest.fixture(scope="module")
def runs(request):
    """The checks of each broken host that is asked for, under way on all processors."""
    asked = [item.callspec.params["name"] for item in request.session.items if "runs" in item.fixturenames]
    with pytest.MonkeyPatch.context() as patch, ThreadPoolExecutor(os.cpu_count()) as pool:
        patch.setenv("PYTHONPATH", str(Path(__file__).parent), prepend=os.pathsep)
        run = lambda name: check(f"broken_hosts:{name}", "-x", "-k", BROKEN[name][0], folder=CHECKS)
        yield {name: pool.submit(run, name) for name in asked}
        pool.shutdown(cancel_futures=True)


@pytest.mark.long
@pytest.mark.parametrize("name", BROKEN)
def test_a_broken_host_is_told_what_would_be_lost(name, figures, runs):
    ended = runs[name].result()
    assert ended.returncode == 1 and f"FAILED test_host.py::{BROKEN[name][0]}" in ended.stdout, ended.stdout
    # In words, and not those of an assertion without any.
    assert re.search(r"^E +(AssertionError|Failed): (?!assert )\S", ended.stdout, re.MULTILINE), ended.stdout
    figures["broken hosts told"] += 1
