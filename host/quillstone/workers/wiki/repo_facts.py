"""Facts about paths of the repository, and the writer of page files."""

from __future__ import annotations

import contextlib
import os
import posixpath
import secrets
import stat
from pathlib import Path


def _norm(path: str) -> str:
    """Give the one spelling of a repository-relative path: "./", "//" and ".." folded, Unicode left as it is.

    An absolute path stays absolute. Idempotent.
    """
    folded = posixpath.normpath(path)
    return folded[1:] if folded.startswith("//") else folded


def _atomic_write(path: Path, text: str) -> None:
    """Make `text` the whole content of the file, in UTF-8 and with its line ends as they are, for good.

    A reader sees the old content or the new one. An existing file keeps its permission bits; a missing folder is
    created. Raises `UnicodeEncodeError` for a lone surrogate and `OSError`; the file is then as it was.
    """
    content = text.encode("utf-8")
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.parent / f".page-{secrets.token_hex(8)}.tmp"
    descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o666)
    try:
        with os.fdopen(descriptor, "wb") as stream:
            with contextlib.suppress(FileNotFoundError):
                os.fchmod(descriptor, stat.S_IMODE(path.stat().st_mode))
            stream.write(content)
            stream.flush()
            os.fsync(descriptor)
        temporary.replace(path)
    except BaseException:
        temporary.unlink(missing_ok=True)
        raise
    _fsync_folder(path.parent)


def sweep_temporary_files(folder: Path) -> None:
    """Remove what page writers that were killed left in the folder and below it, as far as that is possible.

    For whoever keeps all other writers out.
    """
    with contextlib.suppress(OSError):
        for leftover in folder.rglob(f".page-{'[0-9a-f]' * 16}.tmp"):
            with contextlib.suppress(OSError):
                leftover.unlink()


def _fsync_folder(folder: Path) -> None:
    # The new name survives a power cut only once its folder is on the disk too.
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
