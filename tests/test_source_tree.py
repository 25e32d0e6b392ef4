"""Which files a tree holds, and what they say about themselves."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

from quillstone.workers.wiki.authoring import draft_prose, folder_title, opening_text
from quillstone.workers.wiki.source_tree import list_files
from trees import write_files


def test_a_plain_folder_is_walked_by_its_ignore_files(tmp_path: Path) -> None:
    tree = write_files(
        tmp_path / "tree",
        {
            **dict.fromkeys(
                ["a.py", "keep.log", "x.log", "out/y.py", "deep/out/y.py", "deep/x.log", "deep/secret.py"], ""
            ),
            **dict.fromkeys(["__pycache__/a.py", "lib/site-packages/b.py", ".git/c.py", "wiki/pages/root.md"], ""),
            ".gitignore": ".*ignore\n*.log\n/out/\n!keep.log\n",
            "deep/.gitignore": "!x.log\n",
            "deep/.ignore": "secret.py\n",
        },
    )
    (tree / "image.py").write_bytes(b"\x89PNG\0")
    (tree / "cut.py").write_bytes(b'"""caf\xe9"""')
    (tree / os.fsdecode(b"no-utf8-\xff.py")).touch()
    os.mkfifo(tree / "pipe.py")
    write_files(tmp_path / "outside", {"o.py": ""})
    for link in ("", "o.py"):
        (tree / f"link{link}").symlink_to(tmp_path / "outside" / link)
    assert list_files(tree, without=tree / "wiki") == ["a.py", "cut.py", "deep/out/y.py", "deep/x.log", "keep.log"]


def test_a_git_checkout_is_its_tracked_files(tmp_path: Path) -> None:
    names = ["a.py", "gone.py", "ü b.py", "sub/c.py", "ignored.py", "sub/site-packages/s.py"]
    tree = write_files(tmp_path / "tree", {**dict.fromkeys(names, ""), ".gitignore": "ignored.py\n", "new.py": ""})
    git = ["git", "-C", str(tree)]
    subprocess.run([*git, "init", "--quiet"], check=True)
    subprocess.run([*git, "add", "--force", *names], check=True)
    (tree / "gone.py").unlink()
    assert list_files(tree) == ["a.py", "ignored.py", "sub/c.py", "ü b.py"]
    assert list_files(tree / "sub") == ["c.py"]
    # A folder that the checkout around it does not track is walked.
    outside = write_files(tree / "untracked", {"d.py": ""})
    assert list_files(outside) == ["d.py"]


@pytest.mark.parametrize(
    ("name", "content", "opening"),
    [
        ("a.py", b'#!/bin/sh\n# -*- coding: latin-1 -*-\n"""caf\xe9"""\n', "café"),
        ("a.py", b'"""caf\xe9"""\n', "caf\ufffd"),
        ("a.py", b'"""bell \\ud800\\0"""', "bell \ufffd\ufffd"),
        ("a.py", b"# -*- coding: no-such -*-\n# Comment.\nx = 1\n", "Comment."),
        ("a.py", b"# Not Python.\nprint 'x'\n", "Not Python."),
        ("a.py", b"x = " + b"(" * 5000, ""),
        ("a.c", b"/*\n * First.\n *\n * Second.\n */\nint x;", "First.\n\nSecond."),
        ("a.c", b"#include <x.h>\n// late\n", ""),
        ("a.rs", b"\n//! Crate.\r\n//! More.\r\nfn main() {}", "Crate.\nMore."),
        ("a.sh", b"#!/bin/sh\n#\n# Script.\nexit", "Script."),
    ],
)
def test_what_a_file_opens_with(tmp_path: Path, name: str, content: bytes, opening: str) -> None:
    (tmp_path / name).write_bytes(content)
    assert opening_text(tmp_path / name) == opening


def test_a_folder_is_drafted_from_its_readme_and_files(tmp_path: Path) -> None:
    sources = {"p/README.md": "# The p #\n\nText.\n", "p/__init__.py": '"""P.\n\nAll."""', "p/a.py": '"""A.\n\nNo."""'}
    write_files(tmp_path, {**sources, "p/b.py": "", "q/b.py": ""})
    prose = draft_prose(tmp_path, "p", ["p/__init__.py", "p/a.py", "p/b.py", "p/gone.py"])
    assert prose == "# The p #\n\nText.\n\nP.\n\nAll.\n\n## a.py\n\nA."
    assert [folder_title(tmp_path, folder) for folder in ("p", "q", "")] == ["The p", "q", tmp_path.name]
