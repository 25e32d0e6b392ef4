"""Facts about paths of the repository, and the writer of page files."""

import hashlib
import os
import posixpath
import secrets
import stat
from contextlib import suppress
from pathlib import Path

TEMPORARY = ".page-"


def _norm(path: str) -> str:
    """Give a path's one spelling: "./", "//" and ".." folded, Unicode left as it is; an absolute one stays absolute."""
    folded = posixpath.normpath(path)
    return folded[1:] if folded.startswith("//") else folded


def _atomic_write(path: Path, text: str) -> None:
    """Make `text` the whole content of the file, in UTF-8 and with its line ends as they are, for good.

    A reader sees the old content or the new one. An existing file keeps its permission bits; a missing folder is
    created. Raises `UnicodeEncodeError` for a lone surrogate and `OSError`; the file is then as it was.
    """
    content = text.encode("utf-8")
    if run := getattr(getattr(path, "files", None), "run", None):  # which puts it in place after the commit
        run.replace(path, content)
    else:
        write_durably(path, content, like=path)


def write_durably(path: Path, content: bytes, like: Path | None = None, sync: bool = True) -> None:
    """Write the file in one step, onto the disk, with the permission bits of `like`; without that it has to be new."""
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.with_name(f"{TEMPORARY}{secrets.token_hex(8)}")
    try:
        with open(temporary, "xb") as stream:  # noqa: PTH123
            with suppress(FileNotFoundError):
                os.fchmod(stream.fileno(), stat.S_IMODE((like or path).stat().st_mode))
            stream.write(content)
            stream.flush()
            if sync:
                os.fsync(stream.fileno())
        (os.replace if like else os.link)(temporary, path)
    finally:
        with suppress(FileNotFoundError):
            os.unlink(temporary)  # noqa: PTH108
    if sync:
        sync_folder(path.parent)


def sync_folder(folder: Path) -> None:
    """Bring the names in a folder to the disk: a new one survives a power cut only from then on."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def sync_below(folder: Path, *others: Path) -> None:
    """Bring the names in a folder and in all below it to the disk, and those in the others."""
    for each in [*(Path(below) for below, _, _ in os.walk(folder, topdown=False)), *others]:
        sync_folder(each)


def digest(content: bytes | str) -> str:
    """Sixteen hexadecimal digits that stand for the content."""
    content = content if isinstance(content, bytes) else content.encode("utf-8", "surrogatepass")
    return hashlib.sha256(content).hexdigest()[:16]
