"""What carries prose: sections, page prose, merges, paths, the page writer."""

from __future__ import annotations

import os
import stat
from pathlib import Path
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from quillstone.workers.wiki.authoring import page_text
from quillstone.workers.wiki.replan_carry import (
    ReplanRemap,
    cached_prose,
    carried_sections,
    merged_predecessors,
    page_prose,
    split_carried,
    with_carried,
)
from quillstone.workers.wiki.repo_facts import _atomic_write, _norm

HELD = carried_sections([("Old", "held"), ("Older", "    held too\n\n# T")])
MARKERS = [f"<!-- {slash}{kind} {'0' * 16} -->" for slash in ("", "/") for kind in ("carried", "generated")]
LINES = [*MARKERS, *HELD[0].split("\n"), HELD[0], HELD[1], "# T", "## T", "text", "    code", "", "", "ü \u2028\x0b"]
texts = st.lists(st.sampled_from(LINES) | st.text("ab \r\n", max_size=5), max_size=12).map("\n".join)
# A section pasted into the middle of another, and a generated block that somebody copied.
PASTED = [HELD[1].replace("\n# T", f"\n{HELD[0]}\n\n# T"), page_text("T", ["a.py"], {}, "").partition("\n\n")[2]]
copied = st.lists(texts | st.sampled_from(PASTED), max_size=3).map("\n".join)
pages = st.lists(st.tuples(st.sampled_from(["T", "U", "a\nb"]), copied), max_size=4)


def plain(text: str) -> str:
    return text.replace("\r\n", "\n").replace("\r", "\n")


@given(texts, pages)
def test_sections_are_carried_once_however_often(text: str, merged: list[tuple[str, str]]) -> None:
    text = plain(text)
    sections = carried_sections(iter(merged))
    once = with_carried(text, sections)
    assert with_carried(once, sections) == once
    assert with_carried(once, sections[::-1]) == once
    own, held = split_carried(text)
    assert split_carried(once)[0] == own
    assert split_carried(once)[1] == held + [section for section in sections if section not in held]
    assert not sections or once.startswith(text.rstrip("\n"))
    assert with_carried(text, []) == text


@given(pages)
def test_sections_hold_all_prose_and_never_nest(merged: list[tuple[str, str]]) -> None:
    sections = carried_sections([("Blank", " \n\n "), *merged])
    assert not any("Blank" in section for section in sections)
    assert len(set(sections)) == len(sections)
    for title, prose in merged:
        own, held = split_carried(plain(prose))
        assert set(held) <= set(sections)
        assert not own.strip() or any(f"## {' '.join(title.split())}\n\n{own}\n" in section for section in sections)
    for section in sections:
        assert split_carried(section) == ("", [section])
        assert split_carried(section.partition("\n")[2].rpartition("\n")[0])[1] == []
    assert carried_sections([("T", with_carried("", sections))]) == sections
    edited = "\n".join(sections).replace("\n<!-- /", " edited\n<!-- /")
    assert all(line in "\n".join(carried_sections([("T", edited)])) for line in edited.split("\n"))


@given(texts, st.data())
def test_what_a_person_writes_on_a_page_is_prose_wherever_it_stands(prose: str, data: st.DataObject) -> None:
    row = {"page_id": "t", "title": "T"}
    text = page_text("T", ["a.py"], {"q": "Q"}, plain(prose).strip("\n"))
    got = page_prose(text, row)
    if split_carried(plain(prose))[1]:  # sections are set off by one empty line
        assert [line for line in got.split("\n") if line] == [line for line in plain(prose).split("\n") if line]
    else:
        assert got == plain(prose).strip("\n")
    lines = text.split("\n")
    lines.insert(data.draw(st.integers(0, len(lines))), "by hand")
    edited = page_prose("\n".join(lines), row)
    assert "by hand" in edited
    for line in plain(prose).split("\n"):
        assert line in edited


def test_page_prose_takes_off_only_what_was_generated() -> None:
    row = {"page_id": "t", "title": "T", "build_cache": {"prose": "cached"}}
    text = page_text("T", ["a.py"], {}, "# T\n\n  prose")
    assert page_prose(text, row) == "# T\n\n  prose"
    assert page_prose(text.replace("# T\n", "# Mine\n", 1), row) == "# Mine\n\n# T\n\n  prose"
    assert page_prose("# T\n\nprose without a block", row) == "# T\n\nprose without a block"
    assert (page_prose("", row), page_prose(None, row)) == ("", "cached")
    without: list[dict[str, Any]] = [{}, {"build_cache": '{"prose": "x"}'}, {"build_cache": {}}]
    assert not any(map(cached_prose, without))


@pytest.mark.parametrize(
    ("remap", "expected"),
    [
        ({}, {}),
        ({"b": "a"}, {}),
        ({"b": "a", "c": "b"}, {"c": ["a"]}),
        (ReplanRemap({}, {"b": ["a"], "c": ["x", "b", "y"]}), {"b": ["a"], "c": ["x", "b", "a", "y"]}),
        (ReplanRemap({"c": "b"}, {"b": ["a"], "c": ["x"]}), {"b": ["a"], "c": ["a", "x"]}),
        (ReplanRemap({"c": "b"}, {"c": ["x", "b"]}), {"c": ["b", "x"]}),
        (ReplanRemap({}, {"a": ["b"], "b": ["a", "c"]}), {"a": ["b", "c"], "b": ["a", "c"]}),
        (ReplanRemap({"a": "a"}, {"b": ["b"]}), {}),
    ],
)
def test_who_is_merged_into_whom(remap: Any, expected: dict[str, list[str]]) -> None:
    merged = merged_predecessors(remap)
    assert merged == expected
    for ids in merged.values():
        ids.insert(0, "changed by the caller")
    assert merged_predecessors(remap) == expected


@pytest.mark.parametrize("path", ["a/c.py", "./a//b/../c.py", "a/./c.py", "x/../a/c.py"])
def test_a_path_has_one_spelling(path: str) -> None:
    assert _norm(path) == "a/c.py"
    assert (_norm(f"../{path}"), _norm(f"//{path}"), _norm("e\u0301")) == ("../a/c.py", "/a/c.py", "e\u0301")


def test_a_page_file_is_written_whole_or_not_at_all(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    path = tmp_path / "pages" / "p.md"
    _atomic_write(path, "ü\r\nx\n")
    assert path.read_bytes() == "ü\r\nx\n".encode()
    (tmp_path / "like any other").touch()
    assert path.stat().st_mode == (tmp_path / "like any other").stat().st_mode
    path.chmod(0o640)
    _atomic_write(path, "new")
    assert (path.read_text(), stat.S_IMODE(path.stat().st_mode)) == ("new", 0o640)
    with pytest.raises(UnicodeEncodeError):
        _atomic_write(path, "\ud800")

    def fail(_descriptor: int) -> None:
        raise KeyboardInterrupt

    monkeypatch.setattr(os, "fsync", fail)
    with pytest.raises(KeyboardInterrupt):
        _atomic_write(path, "half")
    assert path.read_text() == "new" and list(path.parent.iterdir()) == [path]
