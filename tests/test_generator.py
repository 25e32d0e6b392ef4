"""The generator over a real tree, store and wiki folder."""

from __future__ import annotations

import threading
import time
from pathlib import Path
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from quillstone.errors import HostError, PageIdError, ReplanError
from quillstone.storage.repository import check_page_id
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.planning import LONGEST_ID, folder_page_id
from quillstone.workers.wiki.replan import run_replan
from quillstone.workers.wiki.replan_carry import ReplanRemap, page_prose
from trees import files_below, write_files

pytest_plugins = "host_fixtures"

ALL = {"root", "a", "a.b", "a.b.c", "family", "family.deep", "family.deep.right", "family.left", "lone"}
CHAIN = ReplanRemap({}, {"a.b": ["a.b.c"], "a": ["a.b"]})
AFTER_CHAIN = ALL - {"a.b", "a.b.c"}


def page(generator: WikiGenerator, page_id: str) -> Path:
    return generator.pages_dir / f"{page_id}.md"


def state(generator: WikiGenerator) -> tuple[Any, ...]:
    return generator.stored_pages(), generator._placements(), files_below(generator.pages_dir.parent)


@given(st.sets(st.lists(st.text("a.%/\\\n~é", min_size=1, max_size=9), min_size=1).map("/".join), max_size=8))
def test_every_folder_has_a_page_id_of_its_own(folders: set[str]) -> None:
    folders = {folder for folder in folders if not {"", ".", ".."} & set(folder.split("/"))}
    folders |= {"", "root", "root/x", "a/b", "a.b", "a%2Eb", "x" * 300, "x" * 301, "é" * 150 + "/1", "é" * 150 + "/2"}
    ids = {folder_page_id(folder) for folder in folders}
    assert len(ids) == len(folders)
    for page_id in ids:
        check_page_id(page_id)
        assert len(page_id.encode()) <= LONGEST_ID and "/" not in page_id


def test_a_page_for_each_folder(generator: WikiGenerator) -> None:
    rows = generator.stored_pages()
    assert rows.keys() == ALL
    below = ["family.deep", "family.deep.right", "family.left"]
    assert (rows["family"]["source_files"], rows["family"]["related_pages"]) == ([], below)
    assert (rows["a.b"]["parent_section"], rows["a.b"]["related_pages"]) == ("a", ["a.b.c"])
    assert rows["root"]["related_pages"] == ["a", "family", "lone"]
    assert (rows["lone"]["title"], rows["lone"]["status"]) == ("The lone folder", "fresh")
    assert rows["lone"]["source_hashes"].keys() == {"lone/x.c"}
    assert "What x is for." in generator.repository.get_wiki_chunks("main", "lone")[0]
    before = state(generator)
    assert generator.build() == (len(ALL), 0)
    assert state(generator) == before


def test_prose_follows_its_sources_until_a_person_edits_it(generator: WikiGenerator, tree: Path) -> None:
    edited = page(generator, "a.b").read_text() + "\nBy hand.\n"
    page(generator, "a.b").write_bytes(edited.replace("\n", "\r\n").encode())
    write_files(tree, {"a/one.py": '"""Renewed."""', "a/b/two.py": '"""Renewed."""'})
    (tree / "family" / "left" / "l.py").unlink()
    generator.index()
    assert generator.build() == (len(ALL) - 1, 1)
    assert "Renewed." in page(generator, "a").read_text() and "What a is" not in page(generator, "a").read_text()
    assert page(generator, "a.b").read_text() == edited
    assert generator.stored_pages()["a.b"]["build_cache"]["prose"].endswith("By hand.")


def test_a_replan_stays_in_force_at_the_next_build(generator: WikiGenerator) -> None:
    assert generator.apply_replan(CHAIN, AFTER_CHAIN) == 2
    for prose in ("What a is for.", "What b is for.", "What c is for."):
        assert page(generator, "a").read_text().count(prose) == 1
    assert generator.apply_replan(ReplanRemap({"a-new": "a"}, {}), AFTER_CHAIN - {"a", "lone"} | {"a-new"}) == 2
    generator.build()
    rows = generator.stored_pages()
    assert rows.keys() == ALL - {"a", "a.b", "a.b.c", "lone"} | {"a-new"}
    assert rows["a-new"]["source_files"] == ["a/one.py", "a/b/two.py", "a/b/c/three.py"]
    text = page(generator, "a-new").read_text()
    assert [text.count(f"What {name} is for.") for name in "abc"] == [1, 1, 1]
    assert page_prose(text, rows["a-new"]) == rows["a-new"]["build_cache"]["prose"]


def test_a_page_kept_because_the_index_is_behind_is_not_forgotten(generator: WikiGenerator) -> None:
    generator.repository.forget_indexed_files(["a/b/c/three.py", "family/left/l.py", "family/deep/right/r.py"])
    behind = ["a.b.c", "family", "family.deep", "family.deep.right", "family.left"]
    planned = {plan.page_id for plan in generator.plan()}
    assert planned == ALL.difference(behind)
    remap = ReplanRemap({}, {"a": ["a.b.c"]})
    outcome = run_replan(generator, remap, planned)
    assert (outcome.index_behind, outcome.deleted, len(outcome.warnings)) == (behind, 0, len(behind))
    generator.index()
    generator.build()
    assert generator.stored_pages().keys() == ALL
    assert generator.apply_replan(remap, ALL - {"a.b.c"}) == 1
    assert "What c is for." in page(generator, "a").read_text()


@pytest.mark.parametrize(
    ("remap", "plan_ids", "error"),
    [
        (ReplanRemap({}, {"a.b": ["a.b.c"]}), ALL - {"a.b", "a.b.c"}, ReplanError),
        (ReplanRemap({"new": "a.b"}, {}), ALL - {"a.b"}, ReplanError),
        (ReplanRemap({"../new": "a.b"}, {}), ALL - {"a.b"} | {"../new"}, PageIdError),
        (ReplanRemap({}, {"a.b": ["a"], "a": ["a.b"]}), ALL - {"a", "a.b"}, ReplanError),
        (ReplanRemap({}, {"note": ["a"]}), ALL - {"a"} | {"note"}, ReplanError),
        (ReplanRemap({"unclaimed": "a"}, {}), ALL - {"a"} | {"unclaimed"}, ReplanError),
    ],
)
def test_a_replan_that_would_lose_prose_is_refused(
    generator: WikiGenerator, remap: ReplanRemap, plan_ids: set[str], error: type[Exception]
) -> None:
    generator.file_note("note", "A note", "text")
    page(generator, "unclaimed").write_text("somebody's own")
    before = state(generator)
    with pytest.raises(error):
        generator.apply_replan(remap, plan_ids)
    with pytest.raises(error):
        generator._prune_retired_pages(generator.stored_pages(), plan_ids, remap)
    assert state(generator) == before


def test_a_note_never_takes_a_page_over(generator: WikiGenerator, tree: Path) -> None:
    generator.file_note("later", "Later", "text")
    for refused in ("later", "a", "../x", "a/b"):
        with pytest.raises(HostError):
            generator.file_note(refused, "T", "other")
    write_files(tree, {"later/x.py": ""})
    generator.index()
    before = state(generator)
    with pytest.raises(HostError, match="has the id of a folder's page"):
        generator.build()
    assert state(generator) == before


def test_a_wiki_takes_one_run_at_a_time(generator: WikiGenerator, tree: Path) -> None:
    second = WikiGenerator(generator.repository, tree, "main", generator.pages_dir.parent)
    finished = threading.Event()

    def build() -> None:
        second.build()
        finished.set()

    other = threading.Thread(target=build)
    with generator.lock.held(), generator.lock.held():
        other.start()
        time.sleep(0.2)
        assert not finished.is_set()
    other.join(30)
    assert finished.is_set()
