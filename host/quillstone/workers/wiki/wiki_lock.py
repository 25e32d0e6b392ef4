"""One run at a time on a wiki: page files are read and written outside of any database transaction."""

from __future__ import annotations

import fcntl
import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path


class WikiLock:
    """Keeps other processes, and other locks in this one, out of a wiki folder; may be held more than once."""

    def __init__(self, wiki_dir: Path) -> None:
        self._path = wiki_dir / ".lock"
        self._holds = 0

    @contextmanager
    def held(self) -> Iterator[None]:
        """Wait for the wiki, then keep it until the end of the block; raises `OSError`."""
        if not self._holds:
            self._path.parent.mkdir(parents=True, exist_ok=True)
            self._descriptor = os.open(self._path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o666)
        try:
            fcntl.flock(self._descriptor, fcntl.LOCK_EX)
            self._holds += 1
            try:
                yield
            finally:
                self._holds -= 1
        finally:
            if not self._holds:
                os.close(self._descriptor)  # lets go of the lock
