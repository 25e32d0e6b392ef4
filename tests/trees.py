"""Folders of files to index, and what they hold afterwards."""

from __future__ import annotations

from pathlib import Path

PYTHON_FILES = {"top": "top.py", "a": "a/one.py", "b": "a/b/two.py", "c": "a/b/c/three.py"}
PYTHON_FILES |= {"left": "family/left/l.py", "right": "family/deep/right/r.py"}
SOURCES = {
    **{path: f'"""What {name} is for.\n\nMore of it."""\n' for name, path in PYTHON_FILES.items()},
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
