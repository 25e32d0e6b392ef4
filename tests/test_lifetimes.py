"""Modules and interpreters that come and go, and threads beside each other: nothing is left, nothing is shared."""

import gc
import random
import signal
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import oracle
from quillstone.workers.wiki import page_retirement
from worlds import run

ROUNDS = [("imports", 300, 8000), pytest.param("imports", 1000, 2000, marks=pytest.mark.long)]
ROUNDS += [("subinterpreters", 40, 30_000), pytest.param("subinterpreters", 1000, 2000, marks=pytest.mark.long)]


@pytest.mark.parametrize(("what", "rounds", "bound"), ROUNDS)
def test_what_is_dropped_is_freed(what, rounds, bound, with_benchmarks, figures):
    """A module takes some 30 KB; the bounds are for what the interpreter and its allocator take besides."""

    def measure(*plain):
        command = [sys.executable, Path(__file__).parent / "lifetimes.py", what, f"{rounds}", *plain]
        environment = with_benchmarks | {"ASAN_OPTIONS": "detect_leaks=0:quarantine_size_mb=1"}  # keeps what is freed
        return map(int, subprocess.run(command, env=environment, check=True, capture_output=True).stdout.split())

    bytes_a_round, blocks, alive = measure()
    assert alive == 0
    if blocks >= rounds:  # some versions keep whole interpreters when they end, whatever was in them
        _, blocks_of_plain_python, _ = measure("plain")
        assert blocks_of_plain_python > rounds * 100
    else:
        assert bytes_a_round < bound
    figures[f"{what} that came and went"] += rounds


@pytest.fixture
def switching_often():
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-4)
    gc.collect()
    gc.disable()  # whose callbacks swallow what a signal handler raises in them
    yield
    gc.enable()
    sys.setswitchinterval(interval)


@pytest.mark.parametrize("interruptions", [200, pytest.param(4000, marks=pytest.mark.long)])
def test_threads_and_signals_do_not_meet(interruptions, switching_often, figures):
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
        known, seconds = len(raised), time.perf_counter() - started
        try:
            signal.setitimer(signal.ITIMER_REAL, draw.uniform(1e-6, seconds))
            outcome, operations = run(seed, page_retirement, True)
            signal.setitimer(signal.ITIMER_REAL, 0)
        except KeyboardInterrupt as error:  # between two of the lines above, or before the replan
            assert error is raised[-1]
            return
        if raised[known:] and outcome != expected[seed][0]:
            done, of_all = ([op for op in each if op[0] != "exit"] for each in (operations, expected[seed][1]))
            assert outcome[0] == repr(raised[-1]) and done == of_all[: len(done)]
        else:
            assert (outcome, operations) == expected[seed]

    expected = [run(seed, oracle, True) for seed in range(8)]
    over, raised, same, draw = threading.Event(), [], [], random.Random(0)
    previous = signal.signal(signal.SIGALRM, handler)
    with ThreadPoolExecutor(2) as pool:
        working = [pool.submit(work) for _ in range(2)]
        try:
            while len(raised) < interruptions:
                interrupted_replan(draw.randrange(len(expected)))
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)
            signal.signal(signal.SIGALRM, previous)
            over.set()
        assert [thread.result() for thread in working] == [None] * 2
    assert same and all(same)
    figures["replans in threads"] += len(same)
    figures["replans that a signal interrupted"] += len(raised)
