"""The store, over every database that the fixture gives."""

from __future__ import annotations

import sqlite3
from typing import Any

import pytest

from quillstone.errors import PageIdError, StoreError
from quillstone.storage.repository import Repository

pytest_plugins = "host_fixtures"

FIELDS: dict[str, Any] = {
    **dict.fromkeys(["description", "importance", "content_hash", "model", "summary", "page_type"], "text — ü"),
    **{"level": "module", "parent_section": None, "rel_path": "pages/p.md", "status": "stale"},
    **{"source_files": ["a.py", "ü.py"], "source_hashes": {"a.py": "1"}, "related_pages": ["q"], "citations": []},
    "symbols": [{"name": "f", "line": 3}],
}


def upsert(repository: Repository, page_id: str, title: str = "P", **changes: Any) -> None:
    repository.upsert_wiki_page("main", page_id, title, **{"build_cache": '{"prose": "x"}', **FIELDS, **changes})


def test_a_row_comes_back_as_it_was_stored_and_an_upsert_replaces_all_of_it(repository: Repository) -> None:
    upsert(repository, "p")
    key = {"branch": "main", "page_id": "p"}
    assert repository.get_wiki_pages("main") == [{**key, "title": "P", **FIELDS, "build_cache": {"prose": "x"}}]
    changes = {"source_files": [], "parent_section": "", "symbols": ["g"], "summary": ""}
    upsert(repository, "p", "New", **changes, build_cache='{"prose": "ü", "k": [1]}')
    with pytest.raises(ValueError):
        upsert(repository, "p", "No object", build_cache="[1]")
    new = {**key, "title": "New", **FIELDS, **changes, "build_cache": {"prose": "ü", "k": [1]}}
    assert (repository.get_wiki_pages("main"), repository.get_wiki_pages("other")) == ([new], [])


def test_chunks_follow_their_page(repository: Repository) -> None:
    repository.save_wiki_page("main", "p", "P", chunks=["one", "two", "three"], build_cache={})
    repository.save_wiki_page("main", "p", "P", chunks=["uno", "due"], build_cache={"prose": "uno"})
    repository.save_wiki_page("dev", "p", "P", chunks=["far"], build_cache={})
    assert repository.get_wiki_chunks("main", "p") == ["uno", "due"]
    (row,) = repository.get_wiki_pages("main")
    assert (row["status"], row["rel_path"], row["build_cache"]) == ("fresh", "pages/p.md", {"prose": "uno"})
    upsert(repository, "p")
    assert repository.get_wiki_chunks("main", "p") == ["uno", "due"]
    assert repository.delete_wiki_page("main", "p") is True
    assert repository.delete_wiki_page("main", "p") is False
    upsert(repository, "p")
    assert repository.get_wiki_chunks("main", "p") == []
    assert repository.get_wiki_chunks("dev", "p") == ["far"]


def test_the_index_reports_what_it_holds(repository: Repository) -> None:
    def record(path: str, is_source: bool = True) -> dict[str, Any]:
        return {"path": path, "language": "Python", "is_source": is_source, "size": 2**40, "digest": "d"}

    repository.record_indexed_files([record("b.py"), record("a.py"), record("data.txt", False)])
    repository.record_indexed_files([{**record("a.py"), "digest": "new"}])
    a, b = {**record("a.py"), "digest": "new"}, record("b.py")
    assert repository.list_indexed_files(source_only=True, limit=1_000_000) == ([a, b], False, 1_000_000, 2)
    assert repository.list_indexed_files(limit=1) == ([a], True, 1, 3)
    repository.forget_indexed_files(["a.py", "unknown", "data.txt"])
    assert repository.list_indexed_files()[0] == [b]


@pytest.mark.parametrize("failure", [ValueError, KeyboardInterrupt, StopIteration, GeneratorExit])
def test_a_transaction_keeps_all_or_nothing(repository: Repository, failure: type[BaseException]) -> None:
    upsert(repository, "old")
    error = failure()
    with pytest.raises(failure) as caught, repository.db.transaction():
        upsert(repository, "new")
        repository.delete_wiki_page("main", "old")
        assert [row["page_id"] for row in repository.get_wiki_pages("main")] == ["new"]
        raise error
    assert caught.value is error
    assert [row["page_id"] for row in repository.get_wiki_pages("main")] == ["old"]
    with repository.db.transaction():
        upsert(repository, "kept")
        with pytest.raises(failure), repository.db.transaction():
            upsert(repository, "undone")
            raise error
    with repository.db.rehearsal(), repository.db.transaction():
        repository.delete_wiki_page("main", "old")
        assert [row["page_id"] for row in repository.get_wiki_pages("main")] == ["kept"]
    with pytest.raises(failure), repository.db.rehearsal():
        upsert(repository, "undone")
        raise error
    assert [row["page_id"] for row in repository.get_wiki_pages("main")] == ["kept", "old"]


def test_a_transaction_on_sqlite_takes_the_write_lock_at_once(repository: Repository) -> None:
    if repository.db.engine.dialect.name != "sqlite":
        pytest.skip("other databases lock rows")
    other = sqlite3.connect(repository.db.engine.url.database or "", timeout=0, isolation_level=None)
    with repository.db.transaction(), pytest.raises(sqlite3.OperationalError, match="locked"):
        other.execute("BEGIN IMMEDIATE")
    other.execute("BEGIN IMMEDIATE")
    other.close()


@pytest.mark.parametrize(
    "page_id", ["", ".", "..", "../x", "a/../../x", "/x", "a//b", "a/", "a\\b", "a\0b", "\ud800", "é" * 127]
)
def test_a_page_id_that_leaves_the_pages_folder_stays_out_of_the_store(repository: Repository, page_id: str) -> None:
    with pytest.raises(PageIdError):
        upsert(repository, page_id)
    with pytest.raises(PageIdError):
        repository.save_wiki_page("main", page_id, "P", chunks=[], build_cache={})
    with pytest.raises(PageIdError):
        repository.delete_wiki_page("main", page_id)
    upsert(repository, "inside/..x.md")
    assert [row["page_id"] for row in repository.get_wiki_pages("main")] == ["inside/..x.md"]


@pytest.mark.parametrize("url", ["no url", "sqlite:////no/such/folder/x.db", "foo://", "postgresql://u:secret@:1/x"])
def test_a_database_that_cannot_be_opened_is_one_clear_error(url: str) -> None:
    with pytest.raises(StoreError, match="cannot open the database") as caught:
        Repository(url)
    assert "secret" not in str(caught.value) and "\n" not in str(caught.value)
