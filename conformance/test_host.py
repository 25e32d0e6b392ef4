"""What a host promises, one promise a check; a failure says what would be lost and why.

    pytest conformance --host=package.module:factory

`factory(folder)` makes a host in a folder, with an empty store; called there again it opens the same host, as another
process would. A host has

- `generator`: the object that mixes `PageRetirementMixin` in, its page files below `generator.pages_dir`;
- `index(paths)`: makes the index know these source files, which lie below `generator.repo_root`;
- `remap(seeds, merged)`: a remap, from new pages to the stored ones that they continue, and beside that from pages to
  lists of those merged into them;
- `give_chunks(page_id, texts)`, `chunks(page_id)`: store and list the chunks that the store keeps for a page.

The collaborators are those that the module imported. Nothing outside of the folder is written.
"""

import contextlib
import json
import multiprocessing
import os
import signal
import sys
from collections.abc import Mapping
from functools import partial
from pathlib import Path, PurePath

import pytest

from quillstone.workers.wiki import page_retirement as module

SOURCE = "src/Main.py"
FIELDS = {
    "description": "What it is — in words.",
    "importance": "medium",
    "level": "module",
    "parent_section": None,
    "rel_path": "pages/a.md",
    "source_files": [SOURCE],
    "source_hashes": {},
    "symbols": ["main"],
    "related_pages": ["b"],
    "citations": ["src/Main.py:1"],
    "content_hash": "0123",
    "model": "agent-session",
    "status": "stale",
    "summary": "Sum.",
    "build_cache": {"prose": "Prosa, ä 文.", "other": {"deep": [1]}},
    "page_type": "",
}


class Disturbance(BaseException):
    """No `Exception`: a host must not swallow this either."""


@contextlib.contextmanager
def required(why):
    """A call that has to succeed; `why` says what comes of one that does not."""
    try:
        yield
    except AssertionError:
        raise
    except Exception as error:
        raise AssertionError(f"{why}: it raised {error!r}") from error


def put_in_place(patch, owner, name, change):
    """Puts `change(real, ...)` in the place of a method; on the class, as the object may be made anew at each use."""
    if not hasattr(type(owner), name):
        patch.setattr(owner, name, partial(change, getattr(owner, name)))
        return
    real = getattr(type(owner), name)
    patch.setattr(type(owner), name, lambda self, *args, **named: change(partial(real, self), *args, **named))


# The calls as the module makes them.


def upsert(host, page_id, **fields):
    row = {**FIELDS, "rel_path": f"pages/{page_id}.md", **fields}
    row["build_cache"] = json.dumps(row["build_cache"], ensure_ascii=False)
    with required("upsert_wiki_page takes branch, id, title, and 16 fields by keyword, or no carried prose is stored"):
        host.generator.repository.upsert_wiki_page(host.generator.branch, page_id, page_id.title(), **row)


def delete(host, page_id):
    with required("delete_wiki_page takes branch and id by position, or no page ever retires"):
        return host.generator.repository.delete_wiki_page(host.generator.branch, page_id)


def transaction(host):
    with required("db.transaction() gives a context manager, or no carried prose is stored"):
        scope = host.generator.repository.db.transaction()
    assert hasattr(scope, "__enter__") and hasattr(scope, "__exit__"), "no context manager: nothing is ever committed"
    return scope


def rows(host):
    """What the store holds, by page id."""
    with required("get_wiki_pages takes the branch and gives rows with a page_id, or a prune knows of no page"):
        return {row["page_id"]: row for row in host.generator.repository.get_wiki_pages(host.generator.branch)}


def indexed(host):
    """The paths that the index knows, as it spells them."""
    with required("list_indexed_files(source_only=True, limit=1000000) gives four members, or no prune gets anywhere"):
        files, _more, _limit, _total = host.generator.repository.list_indexed_files(source_only=True, limit=1000000)
        return [record["path"] for record in files]


# A wiki to prune.


def prose_of(page_id):
    return f"What somebody wrote about {page_id}:\n\n    indented\n\n- é, 文"


def file_of(host, page_id):
    file = host.generator.pages_dir / f"{page_id}.md"
    file.parent.mkdir(parents=True, exist_ok=True)
    return file


def text_of(host, page_id):
    file = file_of(host, page_id)
    return file.read_text("utf-8") if file.is_file() else ""


def store_page(host, page_id, **fields):
    """A page with its row, its cached prose and its file."""
    with transaction(host):
        upsert(host, page_id, **{"build_cache": {"prose": prose_of(page_id)}, "related_pages": [], **fields})
    file_of(host, page_id).write_text(f"# {page_id.title()}\n\n{prose_of(page_id)}\n", "utf-8")


def write_source(host, path=SOURCE):
    file = host.generator.repo_root / path
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("", "utf-8")


@pytest.fixture
def wiki(host):
    """Pages a, b, c and hub over one source file that the index knows."""
    write_source(host)
    host.index([SOURCE])
    for page_id in ("a", "b", "c", "hub"):
        store_page(host, page_id)
    return host


def prune(host, way, remap, plan_ids):
    """Prune by one of the two methods that a host calls."""
    if way == "_apply_replan_to_store":
        return host.generator._apply_replan_to_store(remap, plan_ids)
    return host.generator._prune_retired_pages(rows(host), plan_ids, remap)


BOTH_WAYS = pytest.mark.parametrize("way", ["_apply_replan_to_store", "_prune_retired_pages"])


def times(host, page_id, holder):
    """How often a page's prose stands in another's file and in its cached prose."""
    cached = module.cached_prose(rows(host).get(holder, {}))
    return text_of(host, holder).count(prose_of(page_id)), cached.count(prose_of(page_id))


def stands(host, page_id):
    """Whether a page's prose is in the file or the cached prose of a page that is stored."""
    return any(any(times(host, page_id, holder)) for holder in rows(host))


# The generator and its store.


def test_the_generator_has_what_the_module_reads(host):
    generator = host.generator
    assert isinstance(generator, module.PageRetirementMixin), "without the mixin nobody carries prose"
    for name in ("repository", "repo_root", "branch", "pages_dir"):
        assert getattr(generator, name, None) is not None, f"there is no {name}: every prune would fail"
    assert isinstance(generator.pages_dir, Path) and isinstance(generator.repo_root, Path), (
        "pages_dir and repo_root are joined with `/` and asked for files: a prune fails half-way on anything but paths"
    )


def test_a_new_row_comes_back_as_it_was_stored(host):
    with transaction(host):
        upsert(host, "a")
    row = rows(host).get("a")
    assert row is not None, "nothing was stored: a page that continues another would have a file and no row"
    assert row.get("title") == "A", "the title was lost: it heads the section that the page becomes"
    for name in FIELDS.keys() - {"build_cache"}:
        assert row.get(name) == FIELDS[name], f"{name} is lost: stored as {FIELDS[name]!r}, it is {row.get(name)!r}"


def test_a_stored_row_is_changed(host):
    for prose in ("old prose", "new prose"):
        with transaction(host):
            upsert(host, "a", status="stale" if prose == "new prose" else "fresh", build_cache={"prose": prose})
    stored = [*host.generator.repository.get_wiki_pages(host.generator.branch)]
    assert len(stored) == 1, "the row stands twice: the one that counts may be the one without the carried prose"
    assert module.cached_prose(stored[0]) == "new prose", "the cached prose of a page lacks what was carried to it"
    assert stored[0]["status"] == "stale", "the page's next author would not look at what was carried to it"


def test_a_build_cache_comes_back_as_a_dict(host):
    with transaction(host):
        upsert(host, "a")
    cache = rows(host)["a"].get("build_cache")
    assert isinstance(cache, dict), (
        f"it came back as {type(cache).__name__}: what is stored from this row has no cached prose, and prose that "
        "stands in no file is lost"
    )
    assert cache == FIELDS["build_cache"], "the cached prose, or what stands beside it, has changed on its way"


def test_rows_are_those_of_the_branch(host):
    store_page(host, "a")
    repository, other = host.generator.repository, "no branch of this wiki"
    assert not [*repository.get_wiki_pages(other)], "pages of other branches would be retired"
    with transaction(host):
        repository.delete_wiki_page(other, "a")
    assert "a" in rows(host), "a page that retires in one branch is deleted in another"


def test_notes_are_among_the_rows(host):
    with transaction(host):
        upsert(host, "n", level=module.NOTE_LEVEL, rel_path="notes/n.md")
    row = rows(host).get("n")
    assert row, "notes are left out: one whose file the user deletes would be found in searches for ever"
    assert row.get("level") == module.NOTE_LEVEL, "it is taken for a page: the next prune deletes it, text and all"


def test_of_two_rows_with_one_id_the_later_counts(host, monkeypatch):
    early, late = {"page_id": "a", "title": "early"}, {"page_id": "a", "title": "late"}
    seen = []
    put_in_place(monkeypatch, host.generator.repository, "get_wiki_pages", lambda real, branch: iter([early, late]))
    put_in_place(monkeypatch, host.generator, "_prune_retired_pages", lambda _, rows, *rest: seen.append(rows) or 0)
    host.generator._apply_replan_to_store(host.remap({}, {}), {"a"})
    assert seen == [{"a": late}], "pages are judged by rows that are out of date: one may be deleted that should stay"


def test_the_index_is_reported_whole(host):
    paths = [SOURCE, "tests/test_main.py", "vendor/lib/x.py", "build/generated.py", "docs/conf.py"]
    paths += [f"many/{number}.py" for number in range(1500)]
    for path in paths:
        write_source(host, path)
    host.index(paths)
    missing = {*map(module._norm, paths)}.difference(map(module._norm, indexed(host)))
    assert not missing, f"{min(missing)} is left out: its page counts as not indexed yet and never retires"


def test_a_delete_takes_the_chunks_along(host):
    for page_id in ("a", "b"):
        store_page(host, page_id)
        host.give_chunks(page_id, [f"one of {page_id}", f"two of {page_id}"])
    assert [*host.chunks("a")] == ["one of a", "two of a"], "give_chunks and chunks of the factory do not fit together"
    with transaction(host):
        delete(host, "a")
    assert "a" not in rows(host), "the row stays: a page that is retired is shown for ever"
    assert not [*host.chunks("a")], "the chunks stay: searches find the text of a page that is gone"
    assert [*host.chunks("b")] == ["one of b", "two of b"], "another page's chunks went along"


def test_a_delete_says_whether_there_was_a_row(host):
    store_page(host, "a")
    with transaction(host):
        first, second = delete(host, "a"), delete(host, "a")
    assert first, "not true though the row was deleted: its file stays, and the page is not counted"
    assert not second, "true though there was no row: a prune would remove a file that is somebody else's"


def test_a_transaction_that_ends_well_is_kept(factory, host, tmp_path):
    store_page(host, "a")
    with transaction(host):
        upsert(host, "b")
        delete(host, "a")
    assert rows(factory(tmp_path)).keys() == {"b"}, (
        "opened again, the store lacks what was committed: files are removed by then whose rows, and pages, come back"
    )


@pytest.mark.parametrize("error", [ValueError("x"), KeyboardInterrupt(), Disturbance()], ids=lambda e: type(e).__name__)
def test_a_transaction_that_fails_changes_nothing_and_lets_the_error_out(factory, host, tmp_path, error):
    store_page(host, "a")
    host.give_chunks("a", ["one"])
    before = rows(host)
    try:
        with transaction(host):
            upsert(host, "b")
            upsert(host, "a", build_cache={})
            delete(host, "a")
            raise error
    except BaseException as raised:
        assert raised is error, f"{raised!r} came out in place of {error!r}: whoever handles the one misses the other"
    else:
        pytest.fail("the exit swallowed the error: a prune would go on and remove the files of rows that still stand")
    for opened in (host, factory(tmp_path)):
        assert rows(opened) == before, "rows changed: a page may be gone whose successor was never stored"
        assert [*opened.chunks("a")] == ["one"], "chunks are gone though their page stays: no search finds it"


# The collaborators.


def test_a_file_has_one_spelling_that_leads_to_it(host):
    paths = [SOURCE, "Docs/Über.py", "a/b/c.py"]
    for path in paths:
        write_source(host, path)
    host.index(paths)
    spelled = [module._norm(path) for path in paths]
    assert {*spelled} <= {*map(module._norm, indexed(host))}, (
        "_norm spells a file differently as a page and as the index name it: its page counts as not indexed and stays"
    )
    for path, spelling in zip(paths, spelled, strict=True):
        assert isinstance(spelling, str | PurePath) and not PurePath(spelling).is_absolute(), (
            f"{path!r} is spelled {spelling!r}, no path inside the tree: its page is deleted while the index lags"
        )
        assert (host.generator.repo_root / spelling).exists(), (
            f"{path!r} is spelled {spelling!r}, where no file is: its page is deleted while the index lags"
        )


TEXTS = {"Unicode": "Prosa, ä 文 \U0001f600.\n", "no line end": "x", "spaces": "\n\n two \n\n", "long": "x" * 300_000}


@pytest.mark.parametrize("text", TEXTS.values(), ids=TEXTS)
def test_a_page_file_is_written_whole_and_exactly(host, text):
    file = file_of(host, "a")
    for before in (None, "long before " * 100):
        if before is not None:
            file.write_text(before, "utf-8")
        with required("_atomic_write takes a path and a text, or no prose is carried"):
            module._atomic_write(file, text)
        assert file.read_text("utf-8") == text, "what was written reads back as another: prose changed on its way"
    assert [path.name for path in file.parent.iterdir()] == [file.name], "the writer leaves another file behind"


def test_a_page_file_is_never_half_seen(host):
    file = file_of(host, "a")
    file.write_text("before", "utf-8")
    with file.open(encoding="utf-8") as reader:
        module._atomic_write(file, "after, and longer")
        assert reader.read() == "before", (
            "the file was written in place: a process killed in the middle leaves half a page, and the rest is nowhere"
        )
    unwritable = "x" * 100_000 + "\ud800"
    with contextlib.suppress(UnicodeError):
        module._atomic_write(file, unwritable)
    assert file.read_text("utf-8", "surrogatepass") in ("after, and longer", unwritable), "half a page was written"


def section_of(page_id):
    sections = module.carried_sections(iter([(page_id.title(), prose_of(page_id))]))
    assert len(sections) == 1, f"one page makes {len(sections)} sections: its prose is lost, or stands twice"
    return sections[0]


def test_sections_hold_the_prose_and_are_drawn_at_once(host):
    drawn = []

    def pairs():
        for page_id in ("a", "b"):
            drawn.append(page_id)
            yield page_id.title(), prose_of(page_id)

    sections = module.carried_sections(pairs())
    assert drawn == ["a", "b"], "pairs are drawn after the call: the store and the files have changed by then"
    assert isinstance(sections, list), f"{type(sections).__name__} is no list: used three times, it may run empty"
    for page_id in ("a", "b"):
        held = sum(section.count(prose_of(page_id)) for section in sections)
        assert held == 1, f"the prose of {page_id} is in the sections {held} times: it is deleted with its page"
    assert len(sections) == 2, "pages share a section: one of them carried again would not be known"


def test_no_pages_make_no_sections(host):
    assert not module.carried_sections(iter([])), "a page that nothing is merged into is written and stored as stale"


def test_sections_are_added_once(host):
    sections = [section_of("a"), section_of("b")]
    text = module.with_carried(f"# Hub\n\n{prose_of('hub')}\n", sections)
    assert text.startswith(f"# Hub\n\n{prose_of('hub')}"), "the successor's own prose is gone, or changed"
    assert [text.count(prose_of(page_id)) for page_id in "ab"] == [1, 1], "a section was not added, or twice"
    assert text.index(prose_of("a")) < text.index(prose_of("b")), "sections change their order with each prune"
    again = module.with_carried(text, sections)
    assert [again.count(prose_of(page_id)) for page_id in "ab"] == [1, 1], "a rerun adds each section once more"
    module._atomic_write(file_of(host, "hub"), text)
    again = module.with_carried(text_of(host, "hub"), [section_of("a"), section_of("c")])
    assert [again.count(prose_of(page_id)) for page_id in "abc"] == [1, 1, 1], (
        "a section is not known again after its way through a file: a rerun adds it once more"
    )
    sections = module.carried_sections(iter([("A", "One line,\r\nand another.")]))
    module._atomic_write(file_of(host, "hub"), module.with_carried("", sections))
    assert module.with_carried(text_of(host, "hub"), sections).count("another") == 1, (
        "page files are read with universal newlines: a section with other line ends is added once more by a rerun"
    )
    prose = module.with_carried("Its own.", sections).replace("\n", "\r\n")
    again = "\n".join(module.carried_sections(iter([("Hub", prose)])))
    assert again.count("another") == again.count("Its own.") == 1, "with other line ends a page's sections get lost"


def test_without_sections_the_text_stays(host):
    text = "# Hub\n\nIts own.\n"
    assert module.with_carried(text, []).strip() == text.strip(), "a page under a new id would lose its text"


def test_a_section_is_not_taken_for_carried_by_its_words(host):
    sections = [module.carried_sections(iter([pair])) for pair in (("B", "Before.\n\nSame.\n\nAfter."), ("A", "Same."))]
    text = module.with_carried(module.with_carried("", sections[0]), sections[1])
    assert text.count("Same.") == 2, "prose that stands in another's, too, was left out: edited there, it is gone"


def test_prose_is_found_with_and_without_a_file(host):
    row = {"page_id": "a", "title": "A", "build_cache": {"prose": "cached words"}}
    text = f"# A\n\n{prose_of('a')}\n\n## More\n\nBy hand.\n"
    for written in (prose_of("a"), "## More", "By hand."):
        assert written in module.page_prose(text, row), f"{written!r} stands in the page's file and is not carried"
    with required("page_prose takes None for a page without a file, or no such page can be merged"):
        assert "cached words" in module.page_prose(None, row), "the prose of a page without a file goes with its row"
        assert not module.page_prose(None, {"page_id": "a"}), "a page without file and cache has prose of another's"


def test_cached_prose_is_that_of_the_build_cache(host):
    store_page(host, "a")
    assert module.cached_prose(rows(host)["a"]) == prose_of("a"), "the prose that the module stores is not found again"
    with required("cached_prose takes an empty row, or nothing can be merged into a page without one"):
        assert module.cached_prose({}) == "", "there is prose of no page"


@pytest.mark.parametrize("blank", [" \n", "\ufeff\n"], ids=["white space", "a byte order mark"])
def test_a_blank_file_does_not_hide_cached_prose(wiki, blank):
    file_of(wiki, "a").write_text(blank, "utf-8")
    for into, plan_ids in (("a", {"a", "c", "hub"}), ("hub", {"c", "hub"})):
        wiki.generator._apply_replan_to_store(wiki.remap({}, {into: ["b" if into == "a" else "a"]}), plan_ids)
    assert times(wiki, "b", "hub") == (1, 1), "what was merged into a page with a blank file is not carried on"
    assert times(wiki, "a", "hub") == (1, 1), "of a page with a blank file only the cache had the prose; it is gone"


def test_an_empty_remap_has_no_predecessors(host):
    for remap in ({}, host.remap({}, {})):
        assert isinstance(remap, Mapping), "the remap of the factory is no mapping"
        with required("merged_predecessors takes an empty dict and gives a mapping to change, or no build can prune"):
            predecessors = module.merged_predecessors(remap)
            assert not predecessors, "pages are carried that nobody merged"
            predecessors.setdefault("x", []).insert(0, "a")
        assert not module.merged_predecessors(remap), "the next prune carries what this one put into the mapping"


def test_predecessors_are_in_order_and_the_callers_to_change(host):
    remap = host.remap({}, {"hub": ["b", "a"]})
    with required("merged_predecessors gives a mapping of lists to be changed, or no merge can be applied"):
        first = module.merged_predecessors(remap)
        assert [*first["hub"]] == ["b", "a"], "pages that are merged are not listed, or not in the order of their prose"
        first["hub"].insert(0, "c")
        first.setdefault("d", []).insert(0, "e")
    second = {page: [*pages] for page, pages in module.merged_predecessors(remap).items()}
    assert second == {"hub": ["b", "a"]}, "a prune changes the remap that it is given: a rerun carries something else"


CHAINS = {
    "merges": ({}, {"b": ["a"], "c": ["b"]}),
    "a merge and a renaming": ({"c": "b"}, {"b": ["a"]}),
    "renamings": ({"b": "a", "c": "b"}, {}),
}


@pytest.mark.parametrize(("seeds", "merged"), CHAINS.values(), ids=CHAINS)
def test_predecessors_are_listed_over_chains(host, seeds, merged):
    assert "a" in module.merged_predecessors(host.remap(seeds, merged)).get("c", []), (
        "a goes into b and b into c: c's text is made of b's before a's prose is there, and then b is deleted"
    )


def test_the_level_of_notes_is_none_of_pages(host):
    assert module.NOTE_LEVEL != "module", "each page counts as a note: none would ever retire"


# Whole prunes.


@BOTH_WAYS
def test_prose_is_carried_into_file_and_cache(wiki, way):
    deleted = prune(wiki, way, wiki.remap({"new": "c"}, {"hub": ["a"]}), {"b", "hub", "new"})
    assert (deleted, rows(wiki).keys()) == (2, {"b", "hub", "new"}), "other pages are stored than the plan has"
    for page_id, holder in {"a": "hub", "c": "new", "hub": "hub"}.items():
        assert times(wiki, page_id, holder) == (1, 1), f"prose of {page_id} is not once in {holder}, file and cache"
    assert rows(wiki)["hub"].get("status") == "stale", "its next author would not look at what was carried"
    assert not file_of(wiki, "a").exists(), "the file of a deleted page stays, and is taken for a page's"


def test_prose_passes_along_chains(wiki):
    wiki.generator._apply_replan_to_store(wiki.remap({}, {"b": ["a"], "hub": ["b"]}), {"c", "hub"})
    for page_id in ("a", "b"):
        assert times(wiki, page_id, "hub") == (1, 1), f"{page_id} goes into hub by way of b; its prose did not arrive"


def test_a_page_stays_while_the_index_is_behind(wiki):
    write_source(wiki, "src/New.py")
    store_page(wiki, "fresh", source_files=["src/New.py"])
    wiki.generator._apply_replan_to_store(wiki.remap({}, {}), {"hub"})
    assert "fresh" in rows(wiki), "a page over files that the index has not reached yet was deleted, text and all"
    assert rows(wiki).keys() == {"fresh", "hub"}, "pages stay that are out of the plan and whose files are indexed"


def test_a_note_stays_while_its_file_does(wiki):
    notes = wiki.generator.pages_dir.parent / "notes"
    notes.mkdir(parents=True, exist_ok=True)
    with transaction(wiki):
        for note in ("kept", "gone"):
            upsert(wiki, note, level=module.NOTE_LEVEL, rel_path=f"notes/{note}.md", source_files=[])
    (notes / "kept.md").write_text("A note.", "utf-8")
    wiki.generator._apply_replan_to_store(wiki.remap({}, {}), {"a", "b", "c", "hub"})
    assert "kept" in rows(wiki), "a note that somebody filed was deleted though its file is there"
    assert "gone" not in rows(wiki), "a note whose file somebody deleted is found in searches for ever"
    assert (notes / "kept.md").read_text("utf-8") == "A note.", "the note's text is another"


@BOTH_WAYS
def test_a_successor_out_of_the_plan_is_refused(wiki, way):
    before = rows(wiki)
    with contextlib.suppress(Exception):
        prune(wiki, way, wiki.remap({}, {"hub": ["a"]}), {"b", "c"})
    assert stands(wiki, "a"), "a's prose went into hub, which is not in the plan either and was deleted with it"
    assert rows(wiki) == before and prose_of("a") in text_of(wiki, "a"), "it was refused after something had changed"


def test_two_pages_in_one_file_do_not_go_one_by_one(wiki):
    (wiki.generator.pages_dir / "same").symlink_to(".", target_is_directory=True)
    with contextlib.suppress(Exception):  # an id with a slash may be refused as such
        with transaction(wiki):
            upsert(wiki, "same/a")
        wiki.generator._apply_replan_to_store(wiki.remap({}, {"a": ["same/a"]}), {"a", "b", "c", "hub"})
    assert prose_of("a") in text_of(wiki, "a"), (
        "by a link to a folder (or where letter case is ignored) two page ids are one file, which was removed with one"
    )


@contextlib.contextmanager
def failing_commits(host, monkeypatch):
    """Each outermost transaction fails where it would commit."""
    depth = []

    @contextlib.contextmanager
    def failing(real, *how):
        with real(*how) as value:
            depth.append(value)
            yield value
            depth.pop()
            if not depth:
                raise Disturbance

    with monkeypatch.context() as patch:
        put_in_place(patch, host.generator.repository.db, "transaction", failing)
        yield


MERGES = {"merges": {"hub": ["a", "b"]}, "a chain": {"hub": ["b"], "b": ["a"]}}


@pytest.mark.parametrize("merged", MERGES.values(), ids=MERGES)
def test_a_rerun_after_a_failed_commit_carries_each_section_once(wiki, monkeypatch, merged):
    remap, plan_ids, before = wiki.remap({"new": "c"}, merged), {"hub", "new"}, rows(wiki)
    ends = "each rerun has to go as far as the first run: merged prose stands twice, and pages of no plan stay"
    for _ in range(2):
        with failing_commits(wiki, monkeypatch), pytest.raises(Disturbance), required(ends):
            wiki.generator._apply_replan_to_store(remap, plan_ids)
        assert rows(wiki) == before, "rows changed though the commit failed"
        for page_id in before:
            assert prose_of(page_id) in text_of(wiki, page_id), f"the commit failed, and the prose of {page_id} is gone"
    for _ in range(2):
        with required(ends):
            wiki.generator._apply_replan_to_store(remap, plan_ids)
        for page_id, holder in {"a": "hub", "b": "hub", "c": "new", "hub": "hub"}.items():
            assert times(wiki, page_id, holder) == (1, 1), f"prose of {page_id} is not once in {holder}, file and cache"


SECONDS_AHEAD = 2.0
SECONDS_TO_END = 60.0


def prune_elsewhere(factory, folder, way, opened=None):
    host = factory(folder)
    if opened:
        opened.set()
    prune(host, way, host.remap({}, {"hub": ["b"]}), {"a", "c", "hub"})


def prune_until_killed(factory, folder, way, survived):
    """Prune in a process that ends where one more file than `survived` would go, or get another's name or place."""
    steps = iter(range(survived))

    def die(event, arguments):
        if (event in ("os.rename", "os.link", "os.remove") or "renameat2" in arguments) and next(steps, None) is None:
            os.kill(os.getpid(), signal.SIGKILL)

    sys.addaudithook(die)
    prune_elsewhere(factory, folder, way)


def wait_for_a_prune_elsewhere(elsewhere, folder, way, after):
    other = elsewhere(prune_elsewhere, folder, way)
    other.join(SECONDS_TO_END)
    assert other.exitcode is not None, f"after {after} the next waits for ever: merged prose stands twice, pages stay"
    assert other.exitcode == 0, f"after {after} the next fails, too: merged prose stands twice, pages of no plan stay"


@BOTH_WAYS
@pytest.mark.parametrize("survived", [0, 1])
def test_a_prune_that_was_killed_is_finished_by_the_next(wiki, tmp_path, elsewhere, way, survived):
    usual = {path.name for path in wiki.generator.pages_dir.iterdir()}
    killed = elsewhere(prune_until_killed, tmp_path, way, survived)
    killed.join(SECONDS_TO_END)
    assert killed.exitcode in (0, -signal.SIGKILL), f"the host did not open elsewhere: status {killed.exitcode}"
    for page_id in ("b", "hub"):
        assert stands(wiki, page_id), f"a prune was killed, and the prose of {page_id} is nowhere"
    wait_for_a_prune_elsewhere(elsewhere, tmp_path, way, "a prune that was killed")
    assert times(wiki, "b", "hub") == times(wiki, "hub", "hub") == (1, 1), "what was merged does not stand there once"
    left = {path.name for path in wiki.generator.pages_dir.iterdir()} - usual
    assert not left, f"{sorted(left)} stays for ever: nobody can tell it from text that is still needed"


@BOTH_WAYS
def test_a_prune_that_failed_keeps_nobody_out(wiki, tmp_path, elsewhere, monkeypatch, way):
    with failing_commits(wiki, monkeypatch), pytest.raises(Disturbance):
        prune(wiki, way, wiki.remap({}, {"hub": ["a"]}), {"b", "c", "hub"})
    wait_for_a_prune_elsewhere(elsewhere, tmp_path, way, "a prune that failed")


@BOTH_WAYS
def test_two_prunes_of_one_wiki_take_turns(wiki, tmp_path, elsewhere, monkeypatch, way):
    opened, write, others = multiprocessing.get_context("spawn").Event(), module._atomic_write, []

    def write_late(path, text):
        if not others:
            others.append(elsewhere(prune_elsewhere, tmp_path, way, opened))
            assert opened.wait(SECONDS_TO_END), "the host did not open in another process"
            others[0].join(SECONDS_AHEAD)
        write(path, text)

    monkeypatch.setattr(module, "_atomic_write", write_late)
    prune(wiki, way, wiki.remap({}, {"hub": ["a"]}), {"b", "c", "hub"})
    others[0].join(SECONDS_TO_END)
    assert others[0].exitcode is not None, "the second prune waits though the first has ended"
    for page_id in ("a", "b"):
        assert stands(wiki, page_id), (
            f"two prunes wrote one page at once, the later over the earlier, and the prose of {page_id} is nowhere: "
            f"hold a lock over the whole of {way}"
        )
