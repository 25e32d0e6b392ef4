"""Which files a tree holds, and what they say about themselves."""

import os
import subprocess

import pytest

from quillstone.workers.wiki.authoring import draft_prose, folder_title, opening_text
from quillstone.workers.wiki.source_tree import list_files
from trees import write_files

OPENINGS = [
    ("a.py", b'#!/bin/sh\n# -*- coding: latin-1 -*-\n"""caf\xe9"""\n', "café"), ("a.py", b"x = " + b"(" * 5000, ""),
    ("a.py", b'"""caf\xe9 \\ud800\\0"""', "caf\ufffd \ufffd\ufffd"), ("a.c", b"#include <x.h>\n// late\n", ""),
    ("a.py", b"# -*- coding: no-such -*-\n# Comment.\nprint 'x'\n", "Comment."),
    ("a.c", b"/*\n * First.\n *\n * Second.\n */\nint x;", "First.\n\nSecond."),
    ("a.rs", b"\n//! Crate.\r\n//! More.\r\nfn x", "Crate.\nMore."), ("a.sh", b"#!/bin/sh\n#\n# It.\nexit", "It."),
]  # fmt: skip


def test_a_plain_folder_is_walked_by_its_ignore_files(tmp_path):
    rules = {".gitignore": "*.log\n/out/\n!keep.log\n", "deep/.gitignore": "!x.log\n", "deep/.ignore": "secret.py\n"}
    listed = ["a.py", "cut.py", "deep/out/y.py", "deep/x.log", "keep.log", *rules]
    left_out = ["x.log", "out/y.py", "deep/secret.py", "wiki/pages/root.md", os.fsdecode(b"no-utf8-\xff.py")]
    left_out += ["image.py", "__pycache__/a.py", "lib/site-packages/b.py", ".git/c.py"]
    bytes_of = {"image.py": b"\x89PNG\0", "cut.py": b'"""caf\xe9"""'}
    write_files(tmp_path, dict.fromkeys([*listed, *left_out], "") | rules | bytes_of)
    os.mkfifo(tmp_path / "pipe.py")
    (tmp_path / "link").symlink_to("deep")
    (tmp_path / "link.py").symlink_to("a.py")
    assert list_files(tmp_path, without=tmp_path / "wiki") == sorted(listed)


def test_a_git_checkout_is_its_tracked_files(tmp_path):
    tracked = ["a.py", "ignored.py", "sub/c.py", "ü b.py", "gone.py", "sub/site-packages/s.py"]
    write_files(tmp_path, dict.fromkeys([*tracked, "untracked/d.py"], "") | {".gitignore": "ignored.py\n"})
    for command in (["init", "--quiet"], ["add", "--force", *tracked]):
        subprocess.run(["git", "-C", str(tmp_path), *command], check=True)
    (tmp_path / "gone.py").unlink()
    assert [list_files(tmp_path / folder) for folder in ("", "sub", "untracked")] == [tracked[:4], ["c.py"], ["d.py"]]


@pytest.mark.parametrize(("name", "content", "opening"), OPENINGS)
def test_what_a_file_opens_with(tmp_path, name, content, opening):
    assert opening_text(write_files(tmp_path, {name: content}) / name) == opening


def test_a_folder_is_drafted_from_its_readme_and_files(tmp_path):
    sources = {"p/README.md": "# The p #\n\nText.\n", "p/__init__.py": '"""P.\n\nAll."""', "p/a.py": '"""A.\n\nNo."""'}
    write_files(tmp_path, {**sources, "p/b.py": "", "q/b.py": ""})
    prose = draft_prose(tmp_path, "p", ["p/__init__.py", "p/a.py", "p/b.py", "p/gone.py"])
    assert prose == "# The p #\n\nText.\n\nP.\n\nAll.\n\n## a.py\n\nA."
    assert [folder_title(tmp_path, folder) for folder in ("p", "q", "")] == ["The p", "q", tmp_path.name]
