"""What carries prose: sections, page prose, merges, paths, the page writer."""

from unittest.mock import Mock

import pytest
from hypothesis import given
from hypothesis import strategies as st

from quillstone.workers.wiki import replan_carry
from quillstone.workers.wiki.authoring import page_text
from quillstone.workers.wiki.replan_carry import ReplanRemap, carried_sections, page_prose, split_carried, with_carried
from quillstone.workers.wiki.repo_facts import _atomic_write, _norm

HELD = carried_sections([("Old", "held"), ("Older", "    held too\n\n# T")])
MARKERS = [f"<!-- {slash}{kind} {'0' * 16} -->" for slash in ("", "/") for kind in ("carried", "generated")]
LINES = [*MARKERS, *HELD[0].split("\n"), *HELD, "# T", "## T", "text", "    code", "", "", "ü \u2028\x0b"]
texts = st.lists(st.sampled_from(LINES) | st.text("ab \n", max_size=5), max_size=12).map("\n".join)
# A section pasted into the middle of another, and a generated block that somebody copied.
PASTED = [HELD[1].replace("\n# T", f"\n{HELD[0]}\n\n# T"), page_text("T", ["a.py"], {}, "").partition("\n\n")[2]]
copied = st.lists(texts | st.sampled_from(PASTED), max_size=3).map("\n".join)
pages = st.lists(st.tuples(st.sampled_from(["T", "U", "a\nb"]), copied), max_size=4)


@given(texts, pages)
def test_sections_are_carried_once_however_often(text, merged):
    own, held = split_carried(text)
    sections = carried_sections(iter(merged))
    once = with_carried(text, sections)
    assert split_carried(once) == (own, held + [section for section in sections if section not in held])
    assert with_carried(once, sections) == with_carried(once, sections[::-1]) == once
    assert once.startswith(text.rstrip("\n")) and with_carried(text, []) == text


@given(pages)
def test_sections_hold_all_prose_and_never_nest(merged):
    sections = carried_sections([("Blank", " \n\n "), *merged])
    assert len(set(sections)) == len(sections) and not any("Blank" in section for section in sections)
    for title, prose in merged:
        own, held = split_carried(prose)
        assert set(held) <= set(sections)
        assert not own.strip() or any(f"## {' '.join(title.split())}\n\n{own}\n" in section for section in sections)
    for section in sections:
        assert split_carried(section) == ("", [section])
        assert split_carried(section.partition("\n")[2].rpartition("\n")[0])[1] == []
    assert carried_sections([("T", with_carried("", sections))]) == sections
    for end in ("\r", "\r\n"):
        assert carried_sections([(title, prose.replace("\n", end)) for title, prose in merged]) == sections
    edited = "\n".join(sections).replace("\n<!-- /", " edited\n<!-- /")
    assert all(line in "\n".join(carried_sections([("T", edited)])) for line in edited.split("\n"))


@given(texts, st.integers(0, 60))
def test_what_a_person_writes_on_a_page_is_prose_wherever_it_stands(prose, where):
    row = {"page_id": "t", "title": "T"}
    text = page_text("T", ["a.py"], {"q": "Q"}, prose.strip("\n"))
    got, written = page_prose(text, row), [line for line in prose.split("\n") if line]
    assert [line for line in got.split("\n") if line] == written
    assert got == prose.strip("\n") or split_carried(prose)[1]  # sections are set off by one empty line
    lines = [*text.split("\n")[:where], "by hand", *text.split("\n")[where:]]
    assert all(line in page_prose("\n".join(lines), row) for line in [*written, "by hand"])


def test_page_prose_takes_off_only_what_was_generated():
    row = {"page_id": "t", "title": "T", "build_cache": {"prose": "cached"}}
    text = page_text("T", ["a.py"], {}, "# T\n\n  prose")
    assert page_prose(text.replace("# T\n", "# Mine\n", 1), row) == "# Mine\n\n# T\n\n  prose"
    assert page_prose("# T\n\nprose without a block", row) == "# T\n\nprose without a block"
    assert page_prose(" \n", row) == page_prose("\ufeff", row) == page_prose(None, row) == "cached"
    (section,) = carried_sections([("M", "merged")])
    assert page_prose(with_carried("", [section]), row) == f"cached\n\n{section}"
    assert page_prose(with_carried("\t", [section]), row) == f"cached\n\n{section}"
    assert page_prose(text + text, row).endswith(text.strip("\n"))  # a second generated block was pasted
    assert not any(map(replan_carry.cached_prose, [{}, {"build_cache": '{"prose": "x"}'}, {"build_cache": {}}]))


def test_who_is_merged_into_whom():
    merged = replan_carry.merged_predecessors
    assert merged({"b": "a", "c": "b"}) == {"c": ["a"]}
    assert merged(ReplanRemap({}, {"b": ["a"], "c": ["x", "b", "y"]})) == {"b": ["a"], "c": ["x", "b", "a", "y"]}
    seeded = ReplanRemap({"c": "b", "e": "d"}, {"b": ["a"], "c": ["x"], "e": ["x", "d"]})
    assert merged(seeded) == {"b": ["a"], "c": ["a", "x"], "e": ["d", "x"]}
    circle = ReplanRemap({"d": "d"}, {"a": ["b"], "b": ["a", "c"]})
    merged(circle)["a"].insert(0, "changed by the caller")
    assert merged(circle) == {"a": ["b", "c"], "b": ["a", "c"]}


def test_a_path_has_one_spelling():
    paths = ["a/c.py", "./a//b/../c.py", "x/../a/./c.py", "../x/../a//c.py", "//x/../a/c.py", "e\u0301"]
    assert [_norm(path) for path in paths] == [*["a/c.py"] * 3, "../a/c.py", "/a/c.py", "e\u0301"]


def test_a_page_file_is_written_whole_or_not_at_all(tmp_path, monkeypatch):
    path, usual = tmp_path / "pages" / "p.md", tmp_path / "usual"
    usual.touch()
    _atomic_write(path, "ü\r\nx\n")
    assert (path.read_bytes(), path.stat().st_mode) == ("ü\r\nx\n".encode(), usual.stat().st_mode)
    path.chmod(0o640)
    _atomic_write(path, "new")
    assert (path.read_text(), path.stat().st_mode & 0o777) == ("new", 0o640)
    monkeypatch.setattr("os.fsync", Mock(side_effect=KeyboardInterrupt))
    for text, error in (("\ud800", UnicodeEncodeError), ("half", KeyboardInterrupt)):
        with pytest.raises(error):
            _atomic_write(path, text)
    assert path.read_text() == "new" and list(path.parent.iterdir()) == [path]
