"""Modules and interpreters that come and go, and threads beside each other: nothing is left, nothing is shared."""

import gc
import importlib
import random
import signal
import subprocess
import sys
import threading
import time
import weakref
from concurrent.futures import ThreadPoolExecutor

import pytest

import oracle
from leaks import growth
from quillstone.workers.wiki import page_retirement
from worlds import fail, run

NAME = "quillstone.workers.wiki.page_retirement"
SUBINTERPRETERS = """
import gc, os, sys
from pathlib import Path
try:
    import _interpreters as interpreters
except ImportError:  # before 3.13
    import _xxsubinterpreters as interpreters
rounds, rules = int(sys.argv[1]), sys.argv[2]
code = f"import sys; sys.path[:] = {sys.path!r}; import generated, memory;"
code += f"replan = memory.operations(generated.generate(16), {rules})['replan']; assert replan.run() == replan.expected"
resident = lambda: int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
for round in range(-(rounds // 4), rounds):
    if round == 0:
        before = resident()
    other = interpreters.create()
    assert not interpreters.run_string(other, code)
    interpreters.destroy(other)
    gc.collect()
print((resident() - before) // rounds)
"""


@pytest.mark.parametrize(("rounds", "bound"), [(40, 30_000), pytest.param(1000, 2000, marks=pytest.mark.long)])
def test_subinterpreters_that_end_take_the_module_along(rounds, bound, with_benchmarks, figures):
    """The bound is for what allocators keep; some versions keep megabytes of each interpreter, whatever was in it."""

    def bytes_a_round(rules):
        command = [sys.executable, "-c", SUBINTERPRETERS, f"{rounds}", rules]
        environment = with_benchmarks | {"ASAN_OPTIONS": "detect_leaks=0:quarantine_size_mb=1"}  # keeps what is freed
        return int(subprocess.run(command, env=environment, check=True, capture_output=True).stdout)

    assert bytes_a_round("memory.page_retirement") < max(bound, bytes_a_round("memory.plain_python()") * 1.05)
    figures["subinterpreters that came and went"] += rounds


@pytest.mark.parametrize("turns", [20, pytest.param(1000, marks=pytest.mark.long)])
def test_a_module_that_is_dropped_is_freed(turns, monkeypatch, figures):
    def again():
        sys.modules.pop(NAME)
        module = importlib.import_module(NAME)
        runs = run(1, module, True), run(1, module, True, False, 50, fail)
        watched[:] = [kept for kept in watched if kept() is not None]
        watched.extend([weakref.ref(module.PageRetirementMixin), weakref.ref(module._judged_sources)])
        assert runs[0] != runs[1] and len(watched) < 10

    watched = []
    monkeypatch.setitem(sys.modules, NAME, page_retirement)  # which the other tests hold
    monkeypatch.setattr(sys.modules["quillstone.workers.wiki"], "page_retirement", page_retirement)
    assert growth(again, turns=turns) == [0]
    figures["imports that came and went"] += turns


@pytest.mark.parametrize("interruptions", [200, pytest.param(4000, marks=pytest.mark.long)])
def test_threads_and_signals_do_not_meet(interruptions, figures):
    """Threads replan worlds of their own while a signal handler raises in the middle of the main thread's replans.

    What was done until then is what plain Python begins with; after it only the transaction is left, with the error.
    """

    def work():
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGALRM])  # it would reach the main thread late
        while not over.is_set():
            seed = len(same) % len(expected)
            same.append(run(seed, page_retirement, True) == expected[seed])

    def handler(number, frame):
        raised.append(KeyboardInterrupt(f"number {len(raised)}"))
        raise raised[-1]

    def interrupted_replan(seed):
        started = time.perf_counter()
        run(seed, page_retirement, True)
        seconds = time.perf_counter() - started
        try:
            signal.setitimer(signal.ITIMER_REAL, draw.uniform(1e-6, seconds))
            outcome, operations = run(seed, page_retirement, True)
            signal.setitimer(signal.ITIMER_REAL, 0)
        except KeyboardInterrupt as error:  # between two of the lines above, or before the replan
            assert error is raised[-1]
        else:
            done, of_all = ([op for op in each if op[0] != "exit"] for each in (operations, expected[seed][1]))
            interrupted = repr(raised[-1]) in repr(outcome) and done == of_all[: len(done)]
            assert interrupted or (outcome, operations) == expected[seed]

    expected = [run(seed, oracle, True) for seed in range(8)]
    over, raised, same, draw = threading.Event(), [KeyboardInterrupt()], [], random.Random(0)
    before = signal.signal(signal.SIGALRM, handler), sys.getswitchinterval()
    gc.disable()  # its callbacks swallow what a signal handler raises in them
    sys.setswitchinterval(1e-4)
    with ThreadPoolExecutor(2) as pool:
        working = [pool.submit(work) for _ in range(2)]
        try:
            while len(raised) <= interruptions:
                interrupted_replan(draw.randrange(len(expected)))
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)
            signal.signal(signal.SIGALRM, before[0])
            sys.setswitchinterval(before[1])
            gc.enable()
            over.set()
        assert [thread.result() for thread in working] == [None] * 2
    assert same and all(same)
    figures["replans in threads"] += len(same)
    figures["replans that a signal interrupted"] += len(raised) - 1
