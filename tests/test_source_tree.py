"""Which files a tree holds, and what they say about themselves."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

from trees import write_files
from quillstone.errors import TreeError
from quillstone.workers.wiki.authoring import draft_prose, folder_title, opening_text, read_text, split_chunks
from quillstone.workers.wiki.source_tree import file_record, list_files


def test_a_plain_folder_is_walked_by_its_ignore_files(tmp_path: Path) -> None:
    tree = write_files(
        tmp_path / "tree",
        {
            ".gitignore": "*.log\n/out/\n!keep.log\n",
            "a.py": "",
            "keep.log": "",
            "x.log": "",
            "out/y.py": "",
            "deep/out/y.py": "",
            "deep/.gitignore": "!x.log\n",
            "deep/x.log": "",
            "deep/.ignore": "secret.py\n",
            "deep/secret.py": "",
            "__pycache__/a.py": "",
            "lib/site-packages/b.py": "",
            ".git/c.py": "",
            "wiki/pages/root.md": "",
        },
    )
    (tree / "image.py").write_bytes(b"\x89PNG\0")
    (tree / "cut.py").write_bytes(b'"""caf\xe9"""')
    (tree / os.fsdecode(b"no-utf8-\xff.py")).touch()
    os.mkfifo(tree / "pipe.py")
    write_files(tmp_path / "outside", {"o.py": ""})
    (tree / "link").symlink_to(tmp_path / "outside")
    (tree / "link.py").symlink_to(tmp_path / "outside" / "o.py")
    expected = ["a.py", "cut.py", "deep/out/y.py", "deep/x.log", "keep.log"]
    found = list_files(tree, without=tree / "wiki")
    assert [path for path in found if ".gitignore" not in path and ".ignore" not in path] == expected


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


def test_a_tree_that_is_not_there_is_refused(tmp_path: Path) -> None:
    (tmp_path / "file").touch()
    for path in (tmp_path / "none", tmp_path / "file"):
        with pytest.raises(TreeError, match="is no folder"):
            list_files(path)


def test_a_file_is_source_by_its_language(tmp_path: Path) -> None:
    write_files(tmp_path, {"A.PY": "x = 1\n", "README": "text"})
    record = file_record(tmp_path, "A.PY")
    assert (record["path"], record["language"], record["is_source"], record["size"]) == ("A.PY", "Python", True, 6)
    assert file_record(tmp_path, "README")["is_source"] is False


@pytest.mark.parametrize(
    ("name", "content", "opening"),
    [
        ("a.py", b'#!/bin/sh\n# -*- coding: latin-1 -*-\n"""caf\xe9"""\n', "café"),
        ("a.py", b'"""caf\xe9"""\n', "caf\ufffd"),
        ("a.py", b'"""bell \\ud800\\0"""', "bell \ufffd\ufffd"),
        ("a.py", b"# -*- coding: no-such -*-\n# Comment.\nx = 1\n", "Comment."),
        ("a.py", b"# Not Python.\nprint 'x'\n", "Not Python."),
        ("a.py", b"x = " + b"(" * 5000, ""),
        ("a.py", b"", ""),
        ("a.c", b"/*\n * First.\n *\n * Second.\n */\nint x;", "First.\n\nSecond."),
        ("a.c", b"#include <x.h>\n// late\n", ""),
        ("a.rs", b"\n//! Crate.\r\n//! More.\r\nfn main() {}", "Crate.\nMore."),
        ("a.sql", b"-- Query.\nselect 1", "Query."),
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
    assert read_text(tmp_path / "p/README.md").startswith("# The p")


def test_chunks_hold_all_paragraphs() -> None:
    paragraphs = [f"{number} " + "x" * 400 for number in range(20)]
    chunks = split_chunks("\n\n".join(paragraphs))
    assert "\n\n".join(chunks) == "\n\n".join(paragraphs)
    assert 1 < len(chunks) < len(paragraphs)
    assert split_chunks("") == []
