"""Which files a source tree holds, and what the index records of each."""

from __future__ import annotations

import hashlib
import os
import stat
import subprocess
from collections.abc import Iterator, Sequence
from pathlib import Path, PurePosixPath
from typing import Any

from pathspec import GitIgnoreSpec

from quillstone.errors import TreeError

SKIPPED_FOLDERS = frozenset({".git", "__pycache__", "site-packages"})
IGNORE_FILES = (".gitignore", ".ignore")
SNIFFED_BYTES = 8192

LANGUAGES = {
    "bash": "Shell", "bat": "Batch", "c": "C", "cc": "C++", "cpp": "C++", "cs": "C#", "css": "CSS", "cxx": "C++",
    "el": "Emacs Lisp", "ex": "Elixir", "exs": "Elixir", "go": "Go", "h": "C", "hh": "C++", "hpp": "C++",
    "hs": "Haskell", "java": "Java", "jl": "Julia", "js": "JavaScript", "jsx": "JavaScript", "kt": "Kotlin",
    "lua": "Lua", "m": "Objective-C", "mjs": "JavaScript", "ml": "OCaml", "php": "PHP", "pl": "Perl", "pm": "Perl",
    "ps1": "PowerShell", "py": "Python", "pyi": "Python", "pyw": "Python", "pyx": "Cython", "r": "R", "rb": "Ruby",
    "rs": "Rust", "scala": "Scala", "sh": "Shell", "sql": "SQL", "swift": "Swift", "tcl": "Tcl", "ts": "TypeScript",
    "tsx": "TypeScript", "vim": "Vim script", "zig": "Zig",
}  # fmt: skip


def check_tree(root: Path) -> None:
    """Raise `TreeError` unless the source tree is a folder that is there."""
    if not root.is_dir():
        raise TreeError(f"source tree {str(root)!r} is no folder; give the folder that holds the sources")


def list_files(root: Path, *, without: Path | None = None) -> list[str]:
    """The text files of a tree, as sorted posix paths relative to it.

    In a git checkout these are the tracked files, elsewhere all that the ignore files leave. Links, special files,
    binary files and names that are no UTF-8 are left out, as is all below the folder `without`. Raises `TreeError`
    when `root` is no folder that can be read.
    """
    check_tree(root)
    try:
        paths = _tracked_files(root) or list(_walk(root))
    except OSError as error:
        raise TreeError(f"cannot read {error.filename!r} ({error.strerror}); check its permissions") from error
    avoided = _prefix_below(root, without)
    return sorted(
        path
        for path in paths
        if _is_utf8(path) and not (avoided and path.startswith(avoided)) and _is_text_file(root / path)
    )


def file_record(root: Path, path: str) -> dict[str, Any]:
    """What the index records of one file: path, language, is_source, size in bytes and the digest of the content."""
    content = (root / path).read_bytes()
    language = LANGUAGES.get(PurePosixPath(path).suffix.removeprefix(".").lower(), "")
    return {
        "path": path,
        "language": language,
        "is_source": bool(language),
        "size": len(content),
        "digest": hashlib.sha256(content).hexdigest(),
    }


def _tracked_files(root: Path) -> list[str]:
    # Empty for a folder that git does not know, also one that an outer checkout ignores. A repository's own
    # settings may name a program to run: not here.
    command = ["git", "-C", str(root), "-c", "core.fsmonitor=false", "ls-files", "-z", "--cached"]
    # Nor does it matter which repository a hook that called us works in.
    environment = {name: value for name, value in os.environ.items() if not name.startswith("GIT_")}
    try:
        listed = subprocess.run(command, capture_output=True, check=True, env=environment).stdout
    except (OSError, subprocess.CalledProcessError):
        return []
    paths = {os.fsdecode(path) for path in listed.split(b"\0") if path}
    return [path for path in paths if not SKIPPED_FOLDERS.intersection(path.split("/")[:-1])]


def _walk(root: Path) -> Iterator[str]:
    waiting: list[tuple[str, list[tuple[str, GitIgnoreSpec]]]] = [("", [])]
    while waiting:
        folder, outer = waiting.pop()
        specs = [*outer, *_ignore_specs(root, folder)]
        with os.scandir(root / folder) as entries:
            for entry in entries:
                path = f"{folder}/{entry.name}" if folder else entry.name
                if not entry.is_dir(follow_symlinks=False):
                    if not _is_ignored(path, specs):
                        yield path
                elif entry.name not in SKIPPED_FOLDERS and not _is_ignored(f"{path}/", specs):
                    waiting.append((path, specs))


def _ignore_specs(root: Path, folder: str) -> Iterator[tuple[str, GitIgnoreSpec]]:
    for name in IGNORE_FILES:
        file = root / folder / name
        if file.is_file():
            lines = file.read_text("utf-8", errors="replace").splitlines()
            yield f"{folder}/" if folder else "", GitIgnoreSpec.from_lines(filter(_is_pattern, lines))


def _is_pattern(line: str) -> bool:
    # git passes over what is none
    try:
        GitIgnoreSpec.from_lines([line])
    except ValueError:
        return False
    return True


def _is_ignored(path: str, specs: Sequence[tuple[str, GitIgnoreSpec]]) -> bool:
    # The nearest file that says something about the path decides, as in git.
    for prefix, spec in reversed(specs):
        verdict = spec.check_file(path.removeprefix(prefix)).include
        if verdict is not None:
            return verdict
    return False


def _is_utf8(path: str) -> bool:
    try:
        path.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def _is_text_file(path: Path) -> bool:
    try:
        if not stat.S_ISREG(path.lstat().st_mode):
            return False
        with path.open("rb") as stream:
            return b"\0" not in stream.read(SNIFFED_BYTES)
    except OSError:
        return False


def _prefix_below(root: Path, folder: Path | None) -> str:
    # How paths below the folder begin, or "" when it does not lie in the tree.
    if folder is None or root.resolve() not in folder.resolve().parents:
        return ""
    return f"{folder.resolve().relative_to(root.resolve()).as_posix()}/"
