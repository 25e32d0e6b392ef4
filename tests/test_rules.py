"""The rules of a prune, told as stories about a wiki in a real store."""

from pathlib import Path

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quillstone.workers.wiki.replan_carry import ReplanRemap
from wikis import Wiki


def test_a_page_out_of_the_plan_goes_with_its_chunks_and_file(wiki):
    for page_id in "abc":
        wiki.page(page_id)
    wiki.file("unknown").write_text("somebody's own")
    assert wiki._prune_retired_pages(wiki.rows(), {"b"}) == 2
    rows, files = wiki.state()
    assert list(rows) == ["b"]
    assert files.keys() == {"b.md", "unknown.md"}  # a file without a row is never swept
    assert wiki.repository.get_wiki_chunks("main", "a") == []


def test_a_merge_keeps_the_prose_of_every_page(wiki):
    for page_id in ("a", "b", "c"):
        wiki.page(page_id, files=(f"{page_id}.py", "indexed.py"))
    wiki.file("b").unlink()  # its cached prose stands in
    assert wiki._apply_replan_to_store(ReplanRemap({"c": "a"}, {"c": ["b"]}), {"c"}) == 2
    rows, files = wiki.state()
    assert list(rows) == ["c"] and files.keys() == {"c.md"}
    assert wiki.times_carried("a", "c") == wiki.times_carried("b", "c") == (1, 1)
    assert files["c.md"].startswith("Prose of c.")
    assert files["c.md"].index("Prose of a.") < files["c.md"].index("Prose of b.")  # the seed first
    assert (rows["c"]["status"], rows["c"]["source_hashes"]) == ("stale", {})
    assert rows["c"]["source_files"] == ["c.py", "indexed.py"]


def test_a_renamed_page_is_stored_from_its_seed(wiki):
    wiki.page("old", "Übersicht", title="", importance="high", build_cache={"prose": "Übersicht", "plan": [1]})
    assert wiki._apply_replan_to_store({"new": "old"}, {"new"}) == 1
    rows, files = wiki.state()
    assert files == {"new.md": "Übersicht"}
    assert (rows["new"]["title"], rows["new"]["importance"], rows["new"]["rel_path"]) == ("new", "high", "pages/new.md")
    assert rows["new"]["build_cache"] == {"prose": "Übersicht", "plan": [1]}


def test_a_row_stored_since_the_snapshot_is_the_base(wiki):
    wiki.page("old")
    snapshot = wiki.rows()
    wiki.page("new", "Skeleton.", title="Mine")
    assert wiki._prune_retired_pages(snapshot, {"new"}, {"new": "old"}) == 1
    assert wiki.rows()["new"]["title"] == "Mine"
    assert wiki.file("new").read_text().startswith("Skeleton.")
    assert wiki.times_carried("old", "new")[0] == 1


@pytest.mark.parametrize("made", ["file", "folder"])
def test_an_index_behind_the_tree_keeps_the_page_and_says_so(wiki, caplog, made):
    wiki.page("late", files=("new.py", "gone.py", "new.py"))
    wiki.page("parent", files=(), related_pages=["unstored", "late"])  # judged by its children
    (wiki.repo_root / "new.py").mkdir() if made == "folder" else (wiki.repo_root / "new.py").touch()
    assert wiki._prune_retired_pages(wiki.rows(), set()) == 0
    assert [(record.levelname, record.args) for record in caplog.records] == [
        ("WARNING", ("late", 2)),
        ("WARNING", ("parent", 2)),
    ]
    assert caplog.messages[0] == (
        "wiki prune skipped for 'late': 2 of its source files are missing from the index but still on disk — "
        "the index is incomplete, not the page retired"
    )
    wiki.index("gone.py")  # one file that the index knows is enough to tell that it has been there
    assert wiki._prune_retired_pages(wiki.rows(), set()) == 2


def test_an_empty_index_deletes_nothing_yet_stores_successors(wiki, caplog):
    wiki.page("old")
    wiki.note("one").unlink()
    wiki.note("two")
    wiki.repository.forget_indexed_files(["indexed.py"])
    assert wiki._apply_replan_to_store({"new": "old"}, {"new"}) == 0
    assert set(wiki.rows()) == {"old", "new", "one", "two"}
    assert wiki.file("new").read_text() == "Prose of old."
    assert caplog.messages == [
        "wiki prune skipped: the index is empty, so the plan is not authoritative (index the repo first)"
    ]
    (record,) = caplog.records
    assert (record.funcName, Path(record.pathname).name) == ("_retired_page_ids", "selection.cpp")


def test_a_note_is_its_file(wiki):
    kept, gone = wiki.note("kept"), wiki.note("gone")
    gone.unlink()
    wiki.file("gone").write_text("not the note's file")
    assert wiki._prune_retired_pages(wiki.rows(), {"gone"}) == 1  # in the plan or not
    assert set(wiki.rows()) == {"kept"}
    kept.unlink()
    assert wiki._prune_retired_pages(wiki.rows(), set()) == 0  # no other note: a checkout without the wiki
    wiki.notes_dir.rmdir()
    assert wiki._prune_retired_pages(wiki.rows(), set()) == 0
    assert set(wiki.rows()) == {"kept"}


IDS = st.sampled_from(["a", "b", "c", "d", "e"])
TEXTS = st.text(st.characters(blacklist_categories=["Cs", "Cc"]), max_size=20)


@settings(deadline=None, max_examples=80)
@given(
    prose=st.dictionaries(IDS, TEXTS, min_size=1),
    remap=st.dictionaries(st.sampled_from(["a", "b", "n", "m"]), IDS, max_size=3),
    merged=st.dictionaries(st.sampled_from(["c", "d", "n"]), st.lists(IDS, max_size=3), max_size=2),
    fileless=st.sets(IDS),
    spare=st.sets(IDS),
    fails=st.booleans(),
)
def test_no_prose_is_lost(tmp_path_factory, prose, remap, merged, fileless, spare, fails):
    """Whatever is merged into pages of the plan stands in them, in file and row, however often the replan runs."""
    wiki = Wiki(tmp_path_factory.mktemp("world"))
    for page_id, text in prose.items():
        wiki.page(page_id, text)
        if page_id in fileless:
            wiki.file(page_id).unlink()
    routes, plan, before = ReplanRemap(remap, merged), spare | remap.keys() | merged.keys(), wiki.rows()
    if fails and before.keys() - plan:
        with pytest.MonkeyPatch.context() as patch, pytest.raises(ZeroDivisionError):
            patch.setattr(wiki.repository, "delete_wiki_page", lambda *_: 1 / 0)
            wiki._apply_replan_to_store(routes, plan)
        assert wiki.rows() == before
    for _ in range(2):
        wiki._apply_replan_to_store(routes, plan)
    rows = wiki.rows()
    assert rows.keys() <= plan
    for successor, pages in [*merged.items(), *((new, [old]) for new, old in remap.items())]:
        for page_id in pages:
            if page_id in prose and page_id not in rows and prose[page_id].strip():
                text, cached = wiki.file(successor).read_text("utf-8"), rows[successor]["build_cache"]["prose"]
                assert prose[page_id] in text and prose[page_id] in cached
                assert max(kept.count(f"## {page_id.title()}\n\n{prose[page_id]}\n") for kept in (text, cached)) <= 1
    wiki.repository.close()
