"""Modules and interpreters that come and go, and threads beside each other: nothing is left, nothing is shared."""

import random
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

from quillstone.workers.wiki.replan_carry import ReplanRemap, cached_prose
from wikis import Wiki

REMAP, PLAN = ReplanRemap({"new": "old"}, {"b": ["a"]}), {"b", "new"}
ROUNDS = [("imports", 300, 8000), pytest.param("imports", 1000, 4000, marks=pytest.mark.long)]
ROUNDS += [("subinterpreters", 20, 40_000), pytest.param("subinterpreters", 1000, 4000, marks=pytest.mark.long)]


@pytest.mark.parametrize(("what", "rounds", "bound"), ROUNDS)
def test_what_is_dropped_is_freed(what, rounds, bound, figures):
    """A module takes some 30 KB; the bounds are what the interpreter and its allocator take without one."""
    program = Path(__file__).parent / "lifetimes.py"
    command = [sys.executable, program, what, "module", f"{rounds}"]
    printed = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    bytes_a_round, blocks, alive = map(int, printed.split())
    assert (alive, bytes_a_round < bound, blocks < 50) == (0, True, True), printed
    figures[f"{what} that came and went"] += rounds


class Interrupt(KeyboardInterrupt):
    pass


def replan(wiki, interrupted_by=None):
    """Merges a into b, renames old, retires c; gives the signal's exception, if one came."""
    for page_id in wiki.rows():
        wiki.repository.delete_wiki_page("main", page_id)
    for page_id in ("a", "b", "c", "old"):
        wiki.page(page_id)
    before = wiki.rows()
    try:
        if interrupted_by:
            signal.setitimer(signal.ITIMER_REAL, interrupted_by)
        wiki._apply_replan_to_store(REMAP, PLAN)
        signal.setitimer(signal.ITIMER_REAL, 0) if interrupted_by else None
        interruption = None
    except Interrupt as raised:
        interruption = raised
        rows = wiki.rows()
        assert rows == before or rows.keys() == PLAN
        stands = [wiki.file("b").read_text(), *(wiki.file("a").read_text() for _ in "a" if "a" in rows)]
        assert all("Prose of a." in text for text in stands[-1:])
        wiki._apply_replan_to_store(REMAP, PLAN)
    assert wiki.rows().keys() == PLAN and wiki.times_carried("a", "b") == (1, 1)
    assert "Prose of old." in wiki.file("new").read_text() and cached_prose(wiki.rows()["new"]) == "Prose of old."
    return interruption


@pytest.fixture
def switching_often():
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-4)
    yield
    sys.setswitchinterval(interval)


@pytest.mark.parametrize("interruptions", [20, pytest.param(200, marks=pytest.mark.long)])
def test_threads_and_signals_do_not_meet(tmp_path, interruptions, switching_often, figures):
    """Threads prune wikis of their own while a signal handler raises in the middle of the main thread's prunes."""

    def work(wiki):
        try:
            while not over.is_set():
                replan(wiki)
                done.append(wiki)
        except BaseException as error:
            failures.append(error)

    def handler(number, frame):
        raised.append(Interrupt())
        raise raised[-1]

    over, done, failures, raised, draw = threading.Event(), [], [], [], random.Random(0)
    wikis = [Wiki(tmp_path / f"{i}") for i in range(3) if not (tmp_path / f"{i}").mkdir()]
    threads = [threading.Thread(target=work, args=(wiki,)) for wiki in wikis[1:]]
    previous = signal.signal(signal.SIGALRM, handler)
    try:
        for thread in threads:
            thread.start()
        started = time.monotonic()
        replan(wikis[0])
        length = time.monotonic() - started
        while len(raised) < interruptions:
            interruption = replan(wikis[0], draw.uniform(0, length))
            assert interruption in (None, raised[-1:] and raised[-1])
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, previous)
        over.set()
        for thread in threads:
            thread.join()
        for wiki in wikis:
            wiki.repository.close()
    assert failures == [] and {*done} == {*wikis[1:]}
    figures["prunes in threads"] += len(done)
    figures["prunes that a signal interrupted"] += len(raised)
