"""The store, and how runs take turns, over every database that the fixture gives."""

import os
from contextlib import closing

import pytest
import sqlalchemy as sa

from quillstone.errors import HostError
from quillstone.storage import repository as storage
from quillstone.workers.wiki import wiki_lock
from quillstone.workers.wiki.generator import WikiGenerator

pytest_plugins = "host_fixtures"


def test_each_branch_has_rows_chunks_and_an_index_of_its_own(database):
    with closing(storage.Repository(database)) as main, closing(storage.Repository(database, "dev")) as dev:
        for store, chunks in ((main, ["1", "2", "3"]), (dev, ["far"]), (main, ["one", "two"])):
            store.save_wiki_page(store.branch, "ü", "ü", chunks=chunks, symbols=[{"ü\0": 1}], parent_section="x")
            store.record_indexed_files([{"path": path, "size": 2**40} for path in chunks])
        (row,) = main.get_wiki_pages("main")
        main.upsert_wiki_page(**{**row, "build_cache": '{"ü": "\\u0000"}', "parent_section": None})
        assert main.get_wiki_pages("main") == [{**row, "build_cache": {"ü": "\0"}, "parent_section": None}]
        assert main.get_wiki_chunks("main", "ü") == ["one", "two"] and main.delete_wiki_page("main", "ü")
        assert (main.get_wiki_chunks("main", "ü"), dev.get_wiki_chunks("dev", "ü")) == ([], ["far"])
        assert [record["path"] for record in dev.list_indexed_files()[0]] == ["far"]
        assert main.list_indexed_files(limit=4)[1:] == (True, 4, 4)


@pytest.mark.parametrize("failure", [ValueError, KeyboardInterrupt, GeneratorExit])
def test_a_transaction_keeps_all_or_nothing(database, failure):
    with closing(storage.Repository(database)) as store:
        transaction, save = store.db.transaction, lambda page_id: store.save_wiki_page("main", page_id, "", chunks=[])
        with pytest.raises(failure), transaction(), transaction():
            save("p")
            raise failure
        with pytest.raises(HostError), transaction():
            save("p")
            with pytest.raises(failure), transaction():  # a part of the outer one, which cannot be committed then
                raise failure
        with transaction(True), transaction():
            save("p")
            assert store.get_wiki_pages("main")
        assert store.get_wiki_pages("main") == []
        for bad in ["", ".", "a/../../x", "/x", "a//b", "a/", "a\\b", "a\0b", "\ud800", "é" * 127, "json.md/a"]:
            with pytest.raises(HostError, match="page id"):
                save(bad)


@pytest.mark.parametrize("folder", ["one", "two"])
def test_runs_take_turns_and_who_waits_is_told_for_whom(database, tmp_path, monkeypatch, folder):
    """On a wiki, and on a branch that two checkouts have."""
    monkeypatch.setattr(wiki_lock, "LONGEST_WAIT", 0)
    monkeypatch.setattr(storage, "SQLITE_BUSY_SECONDS", 0)
    (tmp_path / "a.py").touch()
    with closing(storage.Repository(database)) as one, closing(storage.Repository(database)) as two:
        holder = WikiGenerator(one, tmp_path, "main", tmp_path / "one")
        waiter = WikiGenerator(two, tmp_path, "main", tmp_path / folder)
        told = f"database is locked|process {os.getpid()} on .* works on (the wiki|branch 'main')"
        with pytest.raises((HostError, sa.exc.OperationalError), match=told):
            holder.in_run("build", waiter.build)
        waiter.index()
        waiter.build()
        with (waiter.pages_dir / "root.md").open("a") as page:
            page.write("\0 by hand")  # which not every database takes
        assert waiter.build().written == 1


def test_a_lock_file_that_is_deleted_lets_nobody_in_twice(tmp_path, monkeypatch):
    first, second, third = (wiki_lock.WikiLock(tmp_path).held() for _ in range(3))
    tidy = lambda: ((tmp_path / ".lock").unlink(), second.__enter__(), first.__exit__(None, None, None))
    naps = iter([tidy, lambda: 1 / 0])
    monkeypatch.setattr("time.sleep", lambda _: next(naps)())
    first.__enter__()
    with pytest.raises(ZeroDivisionError):
        third.__enter__()
    second.__exit__(None, None, None)
