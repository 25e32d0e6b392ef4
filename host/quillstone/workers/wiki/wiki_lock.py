"""One run at a time on a wiki: page files are read and written outside of any database transaction."""

from __future__ import annotations

import fcntl
import io
import logging
import os
import time
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager, suppress
from pathlib import Path
from weakref import WeakSet

from quillstone.errors import WikiBusyError

LONGEST_WAIT = 3600.0
POLL_SECONDS = 0.02

_logger = logging.getLogger(__name__)
_lock_files: WeakSet[io.FileIO] = WeakSet()


def _close_inherited() -> None:
    # A lock lasts until the last copy of its descriptor is closed: a child's must not outlive a killed parent.
    for file in _lock_files:
        file.close()


os.register_at_fork(after_in_child=_close_inherited)


def _note(file: io.FileIO, holder: bytes) -> None:
    # For people to read: a full disk is no reason not to work, and what is no holder's number is not ours to empty.
    with suppress(OSError):
        if not os.pread(file.fileno(), 32, 0).strip(b"0123456789\n"):
            file.truncate(0)
            file.write(holder)


def _open_no_link(path: str, flags: int) -> int:
    return os.open(path, flags | os.O_NOFOLLOW, 0o666)


class WikiLock:
    """Keeps other processes, forked children and other locks in this process out of a wiki folder.

    May be held more than once, by one thread. The lock ends with its process, however that ends.
    """

    def __init__(self, wiki_dir: Path, longest_wait: float = LONGEST_WAIT) -> None:
        """Make the lock of the wiki in `wiki_dir`, whose holder is waited for up to `longest_wait` seconds."""
        self._path = wiki_dir / ".lock"
        self._longest_wait = longest_wait
        self._held: io.FileIO | None = None

    @contextmanager
    def held(self) -> Iterator[None]:
        """Wait for the wiki, then keep it until the end of the block; raises `WikiBusyError` and `OSError`."""
        if self._held and not self._held.closed:
            yield
            return
        self._path.parent.mkdir(parents=True, exist_ok=True)
        with ExitStack() as opened:
            file = None
            while not file or not self._is_at_path(file):  # the file that is waited for may be deleted meanwhile
                file = opened.enter_context(io.FileIO(str(self._path), "a+", opener=_open_no_link))
                _lock_files.add(file)
                self._wait_for(file)
            try:
                self._held = file
                _note(file, b"%d\n" % os.getpid())
                yield
            finally:
                if not file.closed:  # as it is in a child that was forked in the block
                    _note(file, b"")
                self._held = None
        # Closing the file lets go of the lock.

    @contextmanager
    def shared(self) -> Iterator[None]:
        """Keep those out who change the wiki, and write nothing: where nobody ever held the lock, it is not taken."""
        with ExitStack() as opened:
            if self._path.exists():
                self._wait_for(
                    opened.enter_context(io.FileIO(str(self._path), "r", opener=_open_no_link)), fcntl.LOCK_SH
                )
            yield

    def _is_at_path(self, file: io.FileIO) -> bool:
        try:
            return os.path.samestat(os.fstat(file.fileno()), self._path.stat())
        except FileNotFoundError:
            return False

    def _wait_for(self, file: io.FileIO, kind: int = fcntl.LOCK_EX) -> None:
        deadline = time.monotonic() + max(self._longest_wait, 2 * POLL_SECONDS)
        told, seen = False, b""
        while True:
            try:
                return fcntl.flock(file, kind | fcntl.LOCK_NB)
            except BlockingIOError:
                written = os.pread(file.fileno(), 32, 0)
            # What a killed process left stands there until the next holder has written: believe what stays.
            holder = f"process {int(written)}" if written.strip().isdigit() and written == seen else ""
            seen = written
            if time.monotonic() >= deadline:
                raise WikiBusyError(
                    f"{holder or 'another process'} still works on the wiki {str(self._path.parent)!r} after "
                    f"{self._longest_wait:g} s; wait for its end, or end it, and run the command again"
                )
            if holder and not told:
                _logger.warning("waiting for %s, which works on the wiki %r", holder, str(self._path.parent))
                told = True
            time.sleep(POLL_SECONDS)
