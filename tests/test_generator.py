"""The generator over a real tree, store and wiki folder."""

import os
from functools import partial
from shutil import rmtree
from threading import Thread

import pytest
from hypothesis import given
from hypothesis import strategies as st

from quillstone.errors import HostError, PageIdError, ReplanError, TreeError
from quillstone.storage.repository import check_page_id
from quillstone.wiki_cli.demo import CommitError, failing_commits
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.planning import LONGEST_ID, folder_page_id
from quillstone.workers.wiki.replan import Replan, check_replan, preview_replan, run_replan
from quillstone.workers.wiki.replan_carry import ReplanRemap, page_prose
from trees import files_below, write_files

pytest_plugins = "host_fixtures"

ALL = {"root", "a", "a.b", "a.b.c", "family", "family.deep", "family.deep.right", "family.left", "lone"}
REFUSED = [  # seeds, merges, and what is not in the plan
    ({}, {"a.b": ["a.b.c"]}, {"a.b", "a.b.c"}), ({"new": "a.b"}, {}, {"a.b", "new"}), ({}, {"note": ["a"]}, {"a"}),
    ({}, {"a.b": ["a"], "a": ["a.b"]}, {"a", "a.b"}), ({"taken": "a"}, {}, {"a"}), ({"../new": "a.b"}, {}, {"a.b"}),
    ({"new": "note"}, {}, set()), ({"linked/new": "a.b"}, {}, {"a.b"}), ({"here/a.b": "a.b"}, {}, {"a.b"}),
]  # fmt: skip


def text(generator, page_id):
    return (generator.pages_dir / f"{page_id}.md").read_text()


def state(generator):
    return generator.stored_pages(), generator._placements(), files_below(generator.pages_dir.parent)


@given(st.sets(st.lists(st.text("a.%/\\\n~é", min_size=1, max_size=9), min_size=1).map("/".join), max_size=8))
def test_every_folder_has_a_page_id_of_its_own(folders):
    folders = {folder for folder in folders if not {"", ".", ".."} & set(folder.split("/"))}
    folders |= {"", "root", "root/x", "a/b", "a.b", "a%2Eb", "x" * 300, "x" * 301, "é" * 150 + "/1", "é" * 150 + "/2"}
    ids = {folder_page_id(folder) for folder in folders}
    assert len(ids) == len(folders)
    for page_id in ids:
        check_page_id(page_id)
        assert len(page_id.encode()) <= LONGEST_ID and "/" not in page_id


def test_a_page_for_each_folder(generator):
    rows = generator.stored_pages()
    assert rows["root"]["related_pages"] == ["a", "family", "lone"]
    assert rows["family"]["related_pages"] == ["family.deep", "family.deep.right", "family.left"]
    assert (rows["family"]["source_files"], rows["a.b"]["parent_section"]) == ([], "a")
    assert (rows["lone"]["title"], [*rows["lone"]["source_hashes"]]) == ("The lone folder", ["lone/x.c"])
    assert "What x is for." in generator.repository.get_wiki_chunks("main", "lone")[0]
    before = state(generator)
    assert (rows.keys(), generator.build(), state(generator)) == (ALL, (len(ALL), 0), before)


def test_prose_follows_its_sources_until_a_person_edits_it(generator, tree):
    edited = text(generator, "a.b") + "\nBy hand.\n"
    write_files(generator.pages_dir, {"a.b.md": edited.replace("\n", "\r\n")})
    write_files(tree, {"a/one.py": '"""Renewed."""', "a/b/two.py": '"""Renewed."""'})
    (tree / "family" / "left" / "l.py").unlink()
    assert (generator.index(), generator.build()) == ((6, 7), (len(ALL) - 1, 1))
    assert ["Renewed." in text(generator, "a"), "What a is" in text(generator, "a")] == [True, False]
    assert text(generator, "a.b") == edited
    assert generator.stored_pages()["a.b"]["build_cache"]["prose"].endswith("By hand.")


def test_a_replan_stays_in_force_at_the_next_build(generator):
    left = ALL - {"a.b", "a.b.c"}
    assert generator.apply_replan(ReplanRemap({}, {"a.b": ["a.b.c"], "a": ["a.b"]}), left) == 2
    left = left - {"a", "lone"} | {"a-new"}
    assert generator.apply_replan(ReplanRemap({"a-new": "a"}, {}), left) == 2
    assert generator.build() == (len(left), 0)
    row, page = generator.stored_pages()["a-new"], text(generator, "a-new")
    assert row["source_files"] == ["a/one.py", "a/b/two.py", "a/b/c/three.py"]
    assert [page.count(f"What {name} is for.") for name in "abc"] == [1, 1, 1]
    assert (generator.stored_pages().keys(), page_prose(page, row)) == (left, row["build_cache"]["prose"])


def test_a_replan_and_the_note_of_it_are_committed_together(generator, monkeypatch):
    before = generator.stored_pages()
    monkeypatch.setattr(generator.repository, "put_fact", lambda *_: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        generator.apply_replan({"new": "lone"}, ALL - {"lone"} | {"new"})
    assert generator.stored_pages() == before and "Said in a README." in text(generator, "lone")


def test_what_a_failed_commit_left_is_taken_up_again(generator, tree):
    remap, plan_ids = {"new": "lone"}, ALL - {"lone"} | {"new"}
    with failing_commits(generator), pytest.raises(CommitError):
        generator.apply_replan(remap, plan_ids)
    with failing_commits(generator), pytest.raises(CommitError):
        generator.file_note("note", "A note", "text")
    write_files(tree, {"lone/y.c": "int y;"})
    assert (generator.index(), generator.build(), generator.apply_replan(remap, plan_ids)) == ((8, 9), (len(ALL), 0), 1)
    assert "Said in a README." in text(generator, "new")
    assert generator.file_note("note", "A note", "text").read_text() == "# A note\n\ntext\n"


@pytest.mark.parametrize("blank", ["", " \n\t", "\ufeff\n"])
def test_cached_prose_outlives_a_blank_page(generator, blank):
    write_files(generator.pages_dir, {"a.md": text(generator, "a") + "\nBy hand.\n"})
    generator.build()
    write_files(generator.pages_dir, {"a.md": blank})
    remap, plan_ids = ReplanRemap({}, {"a": ["a.b"]}), ALL - {"a.b"}
    with failing_commits(generator), pytest.raises(CommitError):
        generator.apply_replan(remap, plan_ids)
    write_files(generator.pages_dir, {"a.md": text(generator, "a").replace("What b", "In short, what b")})
    generator.apply_replan(remap, plan_ids)
    generator.build()
    assert "By hand." in text(generator, "a") and "In short, what b is for." in text(generator, "a")


def test_a_page_of_no_folder_takes_no_prose(generator, tree):
    """A build would take it for a page that left the plan."""
    rmtree(tree / "lone")
    generator.index()
    rows, planned = generator.stored_pages(), {plan.page_id for plan in generator.plan()}
    with pytest.raises(ReplanError, match="of no folder"):
        check_replan(Replan(rename={"lone": "new"}), rows, planned)
    for merge in ({"a": ["lone"]}, {"lone": ["a"]}):
        check_replan(Replan(merge), rows, planned)


def test_a_wiki_stays_with_its_tree(generator, tmp_path):
    with pytest.raises(TreeError, match="this wiki is about"):
        WikiGenerator(generator.repository, write_files(tmp_path / "other", {"x.py": ""}), "main", tmp_path).index()
    assert generator.build() == (len(ALL), 0)


def test_a_page_kept_because_the_index_is_behind_is_not_forgotten(generator):
    generator.repository.forget_indexed_files(["a/b/c/three.py", "family/left/l.py", "family/deep/right/r.py"])
    behind = ["a.b.c", "family", "family.deep", "family.deep.right", "family.left"]
    assert {plan.page_id for plan in generator.plan()} == ALL.difference(behind)
    for seed in ("a.b.c", "family"):
        with pytest.raises(ReplanError, match="index the tree"):
            generator.apply_replan({"new": seed}, ALL.difference(behind) | {"new"})
    outcome = run_replan(generator, ReplanRemap({}, {"a": ["a.b.c"]}), ALL.difference(behind))
    assert (outcome.index_behind, outcome.deleted, len(outcome.warnings)) == (behind, 0, len(behind))
    assert (generator.index(), generator.build()) == ((7, 8), (len(ALL), 0))


@pytest.mark.parametrize(("seeds", "merges", "gone"), REFUSED)
def test_what_would_lose_prose_is_refused(generator, tmp_path, seeds, merges, gone):
    generator.file_note("note", "A note", "text")
    write_files(tmp_path, {"wiki/pages/taken.md": "somebody's own", "tree/note/x.py": ""})
    (generator.pages_dir / "linked").symlink_to(tmp_path)
    (generator.pages_dir / "here").symlink_to(".")
    generator.index()
    before, remap, plan_ids = state(generator), ReplanRemap(seeds, merges), {*ALL, *seeds, *merges} - gone
    with pytest.raises((ReplanError, PageIdError)):
        generator.apply_replan(remap, plan_ids)
    with pytest.raises(HostError, match="has the id of a folder's page"):
        generator.build()
    assert state(generator) == before


@pytest.mark.parametrize("make", [os.mkfifo, *(partial(os.symlink, to) for to in ("none", "a.b.c.md"))])
def test_a_page_whose_file_has_no_content(generator, make):
    """A preview tells what the replan then does; only a successor that is a link to itself cannot be written."""
    (generator.pages_dir / "a.b.c.md").unlink()
    make(generator.pages_dir / "a.b.c.md")
    for link in ("here", "there"):
        (generator.pages_dir / link).symlink_to(".")
    before = generator.stored_pages()
    if make != os.mkfifo and make.args == ("a.b.c.md",):
        with pytest.raises(OSError):
            generator.apply_replan(ReplanRemap({}, {"a.b.c": ["a"]}), ALL - {"a"})
        assert generator.stored_pages() == before
    remap, plan_ids = ReplanRemap({}, {"a": ["a.b.c"]}), ALL - {"a.b.c"}
    preview = preview_replan(generator, remap, plan_ids)
    assert generator.stored_pages() == before and (generator.pages_dir / "a.b.c.md").lstat()
    outcome = run_replan(generator, remap, plan_ids)
    assert outcome.files_without_rows == preview.files_without_rows == []
    assert outcome.merged == preview.merged == {"a.b.c": "a"} and text(generator, "a").count("What c is for.") == 1


def test_a_wiki_takes_one_run_at_a_time(generator, tree):
    other = Thread(target=WikiGenerator(generator.repository, tree, "main", generator.pages_dir.parent).build)
    with generator.lock.held(), generator.lock.held():
        other.start()
        other.join(0.2)
        assert other.is_alive()
    other.join(30)
    assert not other.is_alive()
