"""The store, over every database that the fixture gives."""

import json
import sqlite3
from contextlib import closing, nullcontext

import pytest
import sqlalchemy as sa

from quillstone.errors import PageIdError, StoreError
from quillstone.storage.repository import Repository

pytest_plugins = "host_fixtures"

TEXTS = ["description", "importance", "level", "rel_path", "content_hash", "model", "status", "summary", "page_type"]
FIELDS = {name: f"{name} — ü" for name in TEXTS} | {"symbols": [{"name": "f", "line": 3}], "citations": []}
FIELDS |= {"parent_section": None, "source_files": ["ü.py"], "source_hashes": {"a.py": "1"}, "related_pages": ["q"]}


def upsert(repository, page_id, title="P", build_cache="{}", **changes):
    repository.upsert_wiki_page("main", page_id, title, build_cache=build_cache, **{**FIELDS, **changes})


def save(repository, page_id, branch="main", chunks=()):
    repository.save_wiki_page(branch, page_id, "P", chunks=chunks, build_cache={"prose": "x"})


def page_ids(repository):
    return [row["page_id"] for row in repository.get_wiki_pages("main")]


def test_a_row_comes_back_as_it_was_stored_and_an_upsert_replaces_all_of_it(repository):
    new = {"source_files": [], "parent_section": "", "symbols": ["g"], "summary": ""}
    for title, changes, cache in (("P", {}, {"prose": "x"}), ("New", new, {"prose": "ü", "k": [1]})):
        upsert(repository, "p", title, json.dumps(cache, ensure_ascii=False), **changes)
        row = {"branch": "main", "page_id": "p", "title": title, **FIELDS, **changes, "build_cache": cache}
        assert repository.get_wiki_pages("main") == [row]
    with pytest.raises(ValueError):
        upsert(repository, "q", build_cache="[1]")
    assert (page_ids(repository), repository.get_wiki_pages("other")) == (["p"], [])


def test_chunks_follow_their_page(repository):
    for branch, chunks in (("main", ["one", "two", "three"]), ("main", ["uno", "due"]), ("dev", ["far"])):
        save(repository, "p", branch, chunks)
    (row,) = repository.get_wiki_pages("main")
    assert (row["status"], row["rel_path"], row["build_cache"]) == ("fresh", "pages/p.md", {"prose": "x"})
    upsert(repository, "p")
    assert repository.get_wiki_chunks("main", "p") == ["uno", "due"]
    assert [repository.delete_wiki_page("main", "p") for _ in range(2)] == [True, False]
    upsert(repository, "p")
    assert [repository.get_wiki_chunks(branch, "p") for branch in ("main", "dev")] == [[], ["far"]]


def test_a_store_that_is_only_read_refuses_all_else(database):
    with pytest.raises(StoreError, match="holds no wiki"):
        Repository(database, read_only=True)
    with closing(Repository(database)) as store, closing(Repository(database, read_only=True)) as reader:
        save(store, "p")
        for change in (lambda: save(reader, "q"), lambda: reader.delete_wiki_page("main", "p")):
            with pytest.raises(sa.exc.SQLAlchemyError, match=r"read.?only"):
                change()
        assert page_ids(reader) == ["p"]


def test_the_index_reports_what_it_holds(repository):
    record = {"language": "Python", "is_source": True, "size": 2**40, "digest": "d"}
    a, b = ({**record, "path": path} for path in ("a.py", "b.py"))
    repository.record_indexed_files([b, {**a, "digest": "old"}, {**a, "path": "data.txt", "is_source": False}])
    repository.record_indexed_files([a])
    assert repository.list_indexed_files(source_only=True, limit=1_000_000) == ([a, b], False, 1_000_000, 2)
    assert repository.list_indexed_files(limit=1) == ([a], True, 1, 3)
    repository.forget_indexed_files(["a.py", "unknown", "data.txt"])
    assert repository.list_indexed_files()[0] == [b]


@pytest.mark.parametrize("failure", [ValueError, KeyboardInterrupt, StopIteration, GeneratorExit])
def test_a_transaction_keeps_all_or_nothing(repository, failure):
    transaction, rehearsal, error = repository.db.transaction, repository.db.rehearsal, failure()
    for outer, inner in ((nullcontext, transaction), (nullcontext, rehearsal), (transaction, transaction)):
        with outer():
            upsert(repository, "kept")
            with pytest.raises(failure) as caught, inner():
                upsert(repository, "undone")
                repository.delete_wiki_page("main", "kept")
                assert page_ids(repository) == ["undone"]
                raise error
        assert caught.value is error and page_ids(repository) == ["kept"]
    with rehearsal(), transaction():
        repository.delete_wiki_page("main", "kept")
        assert page_ids(repository) == []
    assert page_ids(repository) == ["kept"]


def test_what_the_database_has_undone_is_not_committed_by_halves(repository):
    with pytest.raises(sa.exc.SQLAlchemyError), repository.db.transaction():
        upsert(repository, "before")
        with pytest.raises(KeyError), repository.db.transaction() as connection:
            connection.exec_driver_sql("ROLLBACK")  # as SQLite does when the disk is full
            raise KeyError
        upsert(repository, "after")
    assert page_ids(repository) == []


def test_a_transaction_on_sqlite_takes_the_write_lock_at_once(tmp_path):
    other = sqlite3.connect(tmp_path / "db", timeout=0, isolation_level=None)
    with Repository(f"sqlite:///{tmp_path}/db").db.transaction(), pytest.raises(sqlite3.OperationalError):
        other.execute("BEGIN IMMEDIATE")
    other.execute("BEGIN IMMEDIATE")


@pytest.mark.parametrize("bad", ["", ".", "..", "a/../../x", "/x", "a//b", "a/", "a\\b", "a\0b", "\ud800", "é" * 127])
def test_a_page_id_that_leaves_the_pages_folder_stays_out_of_the_store(repository, bad):
    upsert(repository, "inside/..x.md")
    for write in (upsert, save, lambda repository, page_id: repository.delete_wiki_page("main", page_id)):
        with pytest.raises(PageIdError):
            write(repository, bad)
    assert page_ids(repository) == ["inside/..x.md"]
