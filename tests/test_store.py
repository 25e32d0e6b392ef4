"""The store, and how runs take turns, over every database that the fixture gives."""

import os

import pytest

from quillstone.errors import HostError
from quillstone.storage import repository as storage
from quillstone.workers.wiki import wiki_lock
from quillstone.workers.wiki.generator import WikiGenerator


@pytest.mark.parametrize("failure", [ValueError, KeyboardInterrupt, GeneratorExit])
def test_a_transaction_keeps_all_or_nothing(database, failure):
    store = storage.Repository(database)
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


@pytest.mark.parametrize(("folder", "told"), [("one", "the wiki"), ("two", "branch 'main'|database is locked")])
def test_runs_take_turns_and_who_waits_is_told_for_whom(database, tmp_path, monkeypatch, folder, told):
    monkeypatch.setattr(wiki_lock, "LONGEST_WAIT", 0)
    monkeypatch.setattr(storage, "SQLITE_BUSY_SECONDS", 0)
    (tmp_path / folder / "pages").mkdir(parents=True)
    (tmp_path / folder / "pages/root.md").write_text("by hand \0")  # which not every database takes
    (tmp_path / "a.py").touch()
    one, two = storage.Repository(database), storage.Repository(database)
    holder = WikiGenerator(one, tmp_path, "main", tmp_path / "one")
    waiter = WikiGenerator(two, tmp_path, "main", tmp_path / folder)
    with pytest.raises(Exception, match=f"process {os.getpid()} .*works on {told}"):
        holder.in_run("build", waiter.build)
    waiter.index()
    assert waiter.build().written == 1 and "by hand" in waiter.stored_pages()["root"]["build_cache"]["prose"]
