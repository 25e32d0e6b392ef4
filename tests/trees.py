"""Folders of files to index, and what they hold afterwards."""

from __future__ import annotations

from pathlib import Path

SOURCES = {
    "top.py": '"""The top module."""\n',
    "a/one.py": '"""What a is for."""\n',
    "a/b/two.py": '"""What b is for.\n\nMore of it."""\n',
    "a/b/c/three.py": '"""What c is for."""\n',
    "family/left/l.py": '"""What left is for."""\n',
    "family/right/r.py": '"""What right is for."""\n',
    "lone/README.md": "# The lone folder\n\nSaid in a README.\n",
    "lone/x.c": "/* What x is for. */\nint x;\n",
}


def write_files(folder: Path, files: dict[str, str]) -> Path:
    for name, text in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, "utf-8")
    return folder


def files_below(folder: Path) -> dict[str, bytes]:
    """Every file's content; the lock of a wiki says nothing."""
    found = (path for path in folder.rglob("*") if path.is_file() and path.name != ".lock")
    return {str(path.relative_to(folder)): path.read_bytes() for path in found}
