"""Turns: one run at a time on a wiki, whose page files are read and written outside of any database transaction."""

import fcntl
import logging
import os
import re
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

from quillstone.errors import HostError

LONGEST_WAIT = 3600.0  # seconds
POLL_SECONDS = 0.02

_logger = logging.getLogger(__name__)


def whoami() -> str:
    """What others are told when they wait for this process."""
    return f"process {os.getpid()} on {os.uname().nodename} ({' '.join(map(os.path.basename, sys.argv[:2]))})"


def wait_for(take: Callable[[], bool], holder: Callable[[], str], what: str) -> None:
    """Try to take something until that succeeds; tells once who has it, and raises `HostError` in the end."""
    deadline, who = time.monotonic() + LONGEST_WAIT, ""
    while not take():
        if not who:
            _logger.warning("waiting for %s, which works on %s", who := holder() or "another process", what)
        if time.monotonic() >= deadline:
            raise HostError(f"{who} works on {what} for over {LONGEST_WAIT:g} s; wait, or end it, then try again")
        time.sleep(POLL_SECONDS)


class WikiLock:
    """Keeps other processes, and other locks in this one, out of a wiki folder. It ends with its process."""

    def __init__(self, wiki_dir: Path) -> None:
        """Make the lock of the wiki in `wiki_dir`; it is one of the folder itself, so it needs no file."""
        self._folder = wiki_dir

    @contextmanager
    def held(self, kind: int = fcntl.LOCK_EX) -> Iterator[None]:
        """Wait for the wiki, then keep it for the block, with `fcntl.LOCK_SH` only from those who change it."""
        self._folder.mkdir(parents=True, exist_ok=True)
        folder = os.open(self._folder, os.O_RDONLY)

        def take() -> bool:
            with suppress(BlockingIOError):
                fcntl.flock(folder, kind | fcntl.LOCK_NB)
                return True
            return False

        def holder() -> str:
            held = rf"(?m)^\d+: FLOCK .* (\d+) \w+:\w+:{os.fstat(folder).st_ino} "
            found = re.search(held, Path("/proc/locks").read_text())
            return f"process {found[1]}" if found else ""

        try:
            wait_for(take, holder, f"the wiki {str(self._folder)!r}")
            yield
        finally:
            fcntl.flock(folder, fcntl.LOCK_UN)  # a forked child may have a copy of the descriptor
            os.close(folder)
