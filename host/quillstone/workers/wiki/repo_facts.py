"""Facts about paths of the repository, and the writer of page files."""

import os
import posixpath
import secrets
import stat
from contextlib import suppress
from pathlib import Path

TEMPORARY = ".page-"


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
    if run := getattr(getattr(path, "files", None), "run", None):  # which sets aside what it replaces
        run.replace(path, content)
    else:
        write_durably(path, content, like=path)


def write_durably(path: Path, content: bytes, like: Path) -> None:
    """Make the file whole and on the disk, in one step, with the permission bits of `like` where that exists."""
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.with_name(f"{TEMPORARY}{secrets.token_hex(8)}")
    try:
        with open(temporary, "xb") as stream:  # noqa: PTH123
            with suppress(FileNotFoundError):
                os.fchmod(stream.fileno(), stat.S_IMODE(like.stat().st_mode))
            stream.write(content)
            stream.flush()
            os.fsync(stream.fileno())
        os.replace(temporary, path)  # noqa: PTH105
    finally:
        with suppress(FileNotFoundError):
            os.unlink(temporary)  # noqa: PTH108
    sync_folder(path.parent)


def sync_folder(folder: Path) -> None:
    """Bring the names in a folder to the disk: a new one survives a power cut only from then on."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
