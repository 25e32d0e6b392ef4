"""One run at a time on a wiki: page files are read and written outside of any database transaction."""

import fcntl
import logging
import os
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager, nullcontext, suppress
from pathlib import Path

from quillstone.errors import WikiBusyError

LONGEST_WAIT = 3600.0  # seconds
POLL_SECONDS = 0.02
NAME_BYTES = 160

_logger = logging.getLogger(__name__)


def whoami() -> str:
    """What others are told when they wait for this process."""
    return f"process {os.getpid()} on {os.uname().nodename} ({' '.join(map(os.path.basename, sys.argv[:2]))})"


def wait_for(take: Callable[[], bool], holder: Callable[[], str], what: str) -> None:
    """Try to take something until that succeeds; tells once who has it, and raises `WikiBusyError` in the end."""
    deadline, told = time.monotonic() + LONGEST_WAIT, False
    while not take():
        who = holder() or "another process"
        if time.monotonic() >= deadline:
            raise WikiBusyError(f"{who} works on {what} for over {LONGEST_WAIT:g} s; wait, or end it, then try again")
        if not told:
            _logger.warning("waiting for %s, which works on %s", who, what)
        told = True
        time.sleep(POLL_SECONDS)


class WikiLock:
    """Keeps other processes, and other locks in this one, out of a wiki folder. It ends with its process.

    May be held more than once, by one thread.
    """

    def __init__(self, wiki_dir: Path) -> None:
        """Make the lock of the wiki in `wiki_dir`."""
        self._path, self._held = wiki_dir / ".lock", False

    @contextmanager
    def held(self) -> Iterator[None]:
        """Wait for the wiki, then keep it until the end of the block; raises `WikiBusyError` and `OSError`."""
        if self._held:
            yield
            return
        self._path.parent.mkdir(parents=True, exist_ok=True)
        with self._taken(os.O_RDWR | os.O_CREAT, fcntl.LOCK_EX) as file:
            with suppress(OSError):  # for people to read; what has another name, too, is not ours to write into
                if os.fstat(file).st_nlink == 1:
                    os.pwrite(file, whoami().encode("ascii", "replace").ljust(NAME_BYTES)[:NAME_BYTES], 0)
            try:
                self._held = True
                yield
            finally:
                self._held = False

    @contextmanager
    def shared(self) -> Iterator[None]:
        """Keep those out who change the wiki, and write nothing: where nobody ever held the lock, it is not taken."""
        with self._taken(os.O_RDONLY, fcntl.LOCK_SH) if self._path.exists() else nullcontext():
            yield

    @contextmanager
    def _taken(self, flags: int, kind: int) -> Iterator[int]:
        opened: list[int] = []
        holder = [""]

        def take() -> bool:
            opened.append(os.open(self._path, flags | os.O_NOFOLLOW | os.O_CLOEXEC, 0o666))
            with suppress(BlockingIOError, FileNotFoundError):
                fcntl.flock(opened[-1], kind | fcntl.LOCK_NB)
                # The file that others wait for may be deleted meanwhile, and another made.
                if os.path.samestat(os.fstat(opened[-1]), self._path.stat()):
                    return True
            holder[0] = os.pread(opened[-1], NAME_BYTES, 0).decode("ascii", "replace").strip()
            os.close(opened.pop())
            return False

        try:
            wait_for(take, lambda: holder[0], f"the wiki {str(self._path.parent)!r}")
            yield opened[-1]
        finally:
            for file in opened:
                fcntl.flock(file, fcntl.LOCK_UN)  # a forked child may have a copy of the descriptor
                os.close(file)
