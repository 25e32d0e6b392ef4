"""Modules and interpreters that come and go, and threads beside each other: nothing is left, nothing is shared."""

import gc
import os
import random
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.replan_carry import ReplanRemap, cached_prose
from wikis import Wiki

REMAP, PLAN = ReplanRemap({"new": "old"}, {"b": ["a"]}), {"b", "new"}
ROUNDS = [("imports", 300, 8000), pytest.param("imports", 1000, 2000, marks=pytest.mark.long)]
ROUNDS += [("subinterpreters", 40, 30_000), pytest.param("subinterpreters", 1000, 2000, marks=pytest.mark.long)]


@pytest.mark.parametrize(("what", "rounds", "bound"), ROUNDS)
def test_what_is_dropped_is_freed(what, rounds, bound, figures):
    """A module takes some 30 KB; the bounds are for what the interpreter and its allocator take besides."""

    def measure(*plain):
        command = [sys.executable, Path(__file__).parent / "lifetimes.py", what, f"{rounds}", *plain]
        environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0:quarantine_size_mb=1"}  # it keeps what is freed
        return map(int, subprocess.run(command, env=environment, check=True, capture_output=True).stdout.split())

    bytes_a_round, blocks, alive = measure()
    assert alive == 0
    if blocks >= rounds:  # some versions keep whole interpreters when they end, whatever was in them
        _, blocks_of_plain_python, _ = measure("plain")
        assert blocks_of_plain_python > rounds * 100
    else:
        assert bytes_a_round < bound
    figures[f"{what} that came and went"] += rounds


class Interrupt(KeyboardInterrupt):
    pass


def replan(wiki, interrupted_by=None):
    """Merges a into b, renames old, retires c; gives the signal's exception, if one came."""
    with wiki.repository.db.transaction():
        for page_id in wiki.rows():
            wiki.repository.delete_wiki_page("main", page_id)
        for page_id in ("a", "b", "c", "old"):
            wiki.page(page_id)
    before, interruption, started = wiki.rows(), None, time.perf_counter()
    try:
        if interrupted_by:
            signal.setitimer(signal.ITIMER_REAL, interrupted_by)
        wiki._apply_replan_to_store(REMAP, PLAN)
        wiki.seconds = time.perf_counter() - started
        signal.setitimer(signal.ITIMER_REAL, 0) if interrupted_by else None
    except Interrupt as raised:
        interruption = raised
        rows, holders = wiki.rows(), {"a": "b", "b": "b", "old": "new"}
        assert rows == before or rows.keys() == PLAN
        for page_id, holder in holders.items():
            assert f"Prose of {page_id}." in wiki.file(page_id if page_id in rows else holder).read_text("utf-8")
        wiki._apply_replan_to_store(REMAP, PLAN)
    assert wiki.rows().keys() == PLAN and cached_prose(wiki.rows()["new"]) == "Prose of old."
    for page_id, holder in {"a": "b", "old": "new"}.items():
        texts = wiki.file(holder).read_text("utf-8"), cached_prose(wiki.rows()[holder])
        assert [text.count(f"Prose of {page_id}.") for text in texts] == [1, 1]
    return interruption


@pytest.fixture
def switching_often():
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-4)
    gc.collect()
    gc.disable()  # whose callbacks swallow what a signal handler raises in them
    yield
    gc.enable()
    sys.setswitchinterval(interval)


@pytest.mark.parametrize("interruptions", [200, pytest.param(20_000, marks=pytest.mark.long)])
def test_threads_and_signals_do_not_meet(monkeypatch, interruptions, switching_often, figures):
    """Threads prune wikis of their own while a signal handler raises in the middle of the main thread's prunes.

    In memory: a database library is not made for that. What happens to a real store is shown by killing processes.
    """
    monkeypatch.setattr(page_retirement, "_atomic_write", lambda path, text: path.write_text(text))

    def work(wiki):
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGALRM])  # it would reach the main thread late
        try:
            while not over.is_set():
                replan(wiki)
                done.append(wiki)
        except BaseException as error:
            failures.append(error)

    def handler(number, frame):
        raised.append(Interrupt())
        raise raised[-1]

    def interrupt(wiki):
        known = len(raised)
        interruption = replan(wiki, draw.uniform(1e-6, wiki.seconds))
        assert [interruption] == (raised[known:] or [None])

    over, done, failures, raised, draw = threading.Event(), [], [], [], random.Random(0)
    wikis = [Wiki() for _ in range(3)]
    threads = [threading.Thread(target=work, args=(wiki,)) for wiki in wikis[1:]]
    previous = signal.signal(signal.SIGALRM, handler)
    try:
        for thread in threads:
            thread.start()
        replan(wikis[0])
        while len(raised) < interruptions:
            interrupt(wikis[0])
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, previous)
        over.set()
        for thread in threads:
            thread.join()
    assert failures == [] and {*done} == {*wikis[1:]}
    figures["prunes in threads"] += len(done)
    figures["prunes that a signal interrupted"] += len(raised)
