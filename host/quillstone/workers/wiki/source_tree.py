"""Which files a source tree holds, and what the index records of each."""

import hashlib
import os
import re
import stat
import subprocess
from collections.abc import Iterator
from contextlib import suppress
from pathlib import Path
from typing import Any

from quillstone.errors import HostError

SKIPPED_FOLDERS = frozenset({".git", "__pycache__", "node_modules", "site-packages"})
_SOURCE = re.compile(
    r"(?is).*\.(bash|bat|c|cc|cpp|cs|css|cxx|el|exs?|go|h|hh|hpp|hs|java|jl|jsx?|kt|lua|m|mjs|ml|php|p[lm]|ps1|pyi?|pyw"
    r"|pyx|r|rb|rs|scala|sh|sql|swift|tcl|tsx?|vim|zig)"
)


def check_tree(root: Path) -> None:
    """Raise `HostError` unless the source tree is a folder that is there."""
    if not root.is_dir():
        raise HostError(f"source tree {str(root)!r} is no folder; give the folder that holds the sources")


def list_files(root: Path, *, without: Path | None = None) -> tuple[list[str], dict[str, str]]:
    """The text files of a tree, sorted relative posix paths, and why others that a person may miss are not listed.

    In a git checkout these are all files that it does not ignore, elsewhere all that are in no hidden folder. Links,
    special and binary files and the folder `without` are passed over. Raises `HostError` and `OSError`.
    """
    listed = _git_files(root) or [*_walk(root)]
    avoided = f"{os.path.relpath(os.path.realpath(without), os.path.realpath(root))}/" if without else "../"
    paths, missed = [], {}
    for path in (path for path in listed if not path.startswith(avoided)):
        try:
            path.encode("utf-8")
            mode = (root / path).lstat().st_mode
            if stat.S_ISDIR(mode):
                missed[path] = "it is a repository of its own"
            if stat.S_ISREG(mode):
                with (root / path).open("rb") as stream:
                    if b"\0" not in stream.read(8192):
                        paths.append(path)
        except UnicodeEncodeError:
            missed[ascii(path)] = "its name is not UTF-8"
        except FileNotFoundError:
            pass  # git knows it, and it was deleted
        except OSError as error:  # it is there all the same
            paths.append(path)
            missed[path] = f"it cannot be read ({error.strerror})"
    return sorted(paths), missed


def file_record(root: Path, path: str) -> dict[str, Any]:
    """What the index records of a file: path, is_source, size in bytes, digest of the content ("" if unreadable)."""
    content = None
    with suppress(OSError):
        content = (root / path).read_bytes() if (root / path).is_file() else None
    digest = "" if content is None else hashlib.sha256(content).hexdigest()
    return {"path": path, "is_source": bool(_SOURCE.fullmatch(path)), "size": len(content or b""), "digest": digest}


def _git_files(root: Path) -> list[str]:
    # Empty for a folder that git does not know, also one that an outer checkout ignores. A repository's own
    # settings may name a program to run: not here. Nor does it matter which repository a hook that called us works in.
    command = ["git", "-C", str(root), "-c", "core.fsmonitor=false", "ls-files", "-z"]
    command += ["--cached", "--others", "--exclude-standard"]
    environment = {name: value for name, value in os.environ.items() if not name.startswith("GIT_")}
    try:
        listed = subprocess.run(command, capture_output=True, check=True, env=environment).stdout
    except (OSError, subprocess.CalledProcessError):
        return []
    paths = {os.fsdecode(path) for path in listed.split(b"\0") if path}
    return [path for path in paths if not SKIPPED_FOLDERS.intersection(path.split("/")[:-1])]


def _walk(root: Path) -> Iterator[str]:
    def fail(error: OSError) -> None:
        raise error

    for folder, folders, names in os.walk(root, onerror=fail):
        folders[:] = [name for name in folders if not (name.startswith(".") or name in SKIPPED_FOLDERS)]
        yield from (Path(folder, name).relative_to(root).as_posix() for name in names)
