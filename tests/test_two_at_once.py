"""Runs at once, in processes of their own: on one wiki, and on branches that share a database."""

import multiprocessing
import os
import signal
import subprocess
import sys
from contextlib import ExitStack, closing

import pytest

from quillstone.errors import WikiBusyError
from quillstone.storage.repository import Repository
from quillstone.workers.wiki.replan_carry import ReplanRemap
from quillstone.workers.wiki.wiki_lock import WikiLock
from test_cli import run
from trees import write_files
from wikis import GeneratedWiki

pytest_plugins = "host_fixtures"
PAGES = [f"page{number}" for number in range(24)]
fork = multiprocessing.get_context("fork")


def started(task, *arguments):
    (process := fork.Process(target=task, args=arguments, daemon=True)).start()
    return process


def at_once(task, *calls):
    """Run the task in a process for each tuple of arguments; all have to end well."""
    processes = [started(task, *arguments) for arguments in calls]
    for process in processes:
        process.join(60)
        process.kill()
    assert [process.exitcode for process in processes] == [0] * len(processes)


@pytest.mark.parametrize("names", [["one"] * 3, ["one", "two", "three"]], ids=["one wiki", "one database"])
def test_no_prose_is_lost_by_merges_at_once(repository, database, tmp_path, figures, names):
    def merge(wiki, pages):
        with closing(Repository(database)) as wiki.repository:
            for turn, page_id in enumerate(pages, 1):
                start.wait(60)
                remap, plan_ids = ReplanRemap({}, {"hub": [page_id]}), {"hub", *PAGES} - {*pages[:turn]}
                ways = [wiki.apply_replan, wiki._apply_replan_to_store]
                ways += [lambda remap, plan_ids: wiki._prune_retired_pages(wiki.rows(), plan_ids, remap)]
                ways[turn % 3](remap, plan_ids)

    repository.record_indexed_files([{"path": "indexed.py"}])
    wikis = {name: GeneratedWiki(repository, tmp_path, name, tmp_path / name) for name in names}
    for wiki in wikis.values():
        wiki.pages_dir.mkdir(parents=True)
        for page_id in ("hub", *PAGES):
            wiki.page(page_id)
    start, runs = fork.Barrier(3), [(wikis[name], PAGES[run::3]) for run, name in enumerate(names)]
    at_once(merge, *runs)
    for wiki, pages in runs:
        assert [wiki.times_carried(page_id, "hub") for page_id in pages] == [(1, 1)] * len(pages)
        figures[f"merges at once ({repository.db.engine.dialect.name})"] += len(pages)


@pytest.mark.parametrize("way", ["apply", "prune"])
def test_the_wiki_is_held_at_every_use_of_the_store(generator, monkeypatch, way):
    def watched(method):
        def call(*arguments, **fields):
            with pytest.raises(WikiBusyError), WikiLock(generator.pages_dir.parent, 0).held():
                pass
            used.add(method.__name__)
            return method(*arguments, **fields)

        return call

    rows, remap, used = generator.stored_pages(), ReplanRemap({"moved": "lone"}, {}), set()
    plan_ids = {"moved", *rows} - {"lone"}
    for name in ("get_wiki_pages", "list_indexed_files", "upsert_wiki_page", "delete_wiki_page"):
        monkeypatch.setattr(generator.repository, name, watched(getattr(generator.repository, name)))
    if way == "apply":
        generator._apply_replan_to_store(remap, plan_ids)
    else:
        generator._prune_retired_pages(rows, plan_ids, remap)
    assert len(used) == 4


def test_branches_open_and_index_one_database_at_once(database, tmp_path):
    def index(tree):
        start.wait(60)
        with closing(Repository(database)) as repository:
            for _ in range(8):
                start.wait(60)
                GeneratedWiki(repository, tree, tree.name, tree.parent / f"wiki of {tree.name}").index()

    trees = [write_files(tmp_path / name, {f"{name}{n:03}.py": "" for n in range(200)}) for name in "abc"]
    start = fork.Barrier(3)
    at_once(index, *([tree] for tree in trees))
    with closing(Repository(database)) as repository:
        paths = [record["path"] for record in repository.list_indexed_files()[0]]
    assert paths in [sorted(path.name for path in tree.iterdir()) for tree in trees]


def test_who_waits_says_for_whom_and_a_killed_holder_blocks_nobody(generator, database, monkeypatch, caplog):
    def hold():
        with closing(Repository(database)) as store, generator.lock.held(), store.db.transaction():
            store.delete_wiki_page("main", "a")
            ready.set()
            signal.alarm(30)  # the end, should nobody kill it sooner
            signal.pause()

    wiki_dir, before, ready = generator.pages_dir.parent, generator.stored_pages(), fork.Event()
    build = ["build", "--wiki", str(wiki_dir), "--database", database]
    holder = started(hold)
    assert ready.wait(60) and (wiki_dir / ".lock").read_text() == f"{holder.pid}\n"
    monkeypatch.setattr("quillstone.workers.wiki.workspace.WikiLock", lambda folder: WikiLock(folder, 0.2))
    gave_up = run(build, status=2)
    assert (gave_up.split(" still works")[0], len(caplog.messages)) == (f"error: process {holder.pid}", 1)
    command = [sys.executable, "-c", "from quillstone.wiki_cli.app import main; main()", *build]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as waiting:
        assert waiting.stderr.readline().startswith(f"waiting for process {holder.pid}, ")
        holder.kill()
        assert (waiting.communicate(timeout=10)[1], waiting.returncode) == ("", 0)
    assert generator.stored_pages() == before and (wiki_dir / ".lock").read_text() == ""


def test_a_lock_has_one_holder_and_lets_signals_in(tmp_path, caplog, monkeypatch):
    def leave():
        with pytest.raises(WikiBusyError):
            held.enter_context(lock.held())
        held.close()

    lock, file = WikiLock(tmp_path, 0.5), tmp_path / ".lock"
    with ExitStack() as held:
        held.enter_context(lock.held())
        at_once(leave, [])
        with pytest.raises(WikiBusyError, match=f"process {os.getpid()} "), WikiLock(tmp_path, 0).held():
            pass
        file.write_text("1\n")  # as a killed process leaves it, until the next holder has written
        naps = iter([lambda: file.write_text("42\n"), int, lambda: os.kill(os.getpid(), signal.SIGINT)])
        with monkeypatch.context() as patch, pytest.raises(KeyboardInterrupt):
            patch.setattr("time.sleep", lambda _: next(naps)())
            held.enter_context(WikiLock(tmp_path).held())
        assert caplog.messages[-1] == f"waiting for process 42, which works on the wiki {str(tmp_path)!r}"
        child = started(signal.pause)
    with lock.held():  # the child, forked from the holder, does not keep it
        child.kill()


def test_who_only_reads_shares_the_lock_and_makes_none(tmp_path):
    with WikiLock(tmp_path).shared():
        assert not [*tmp_path.iterdir()]
    with WikiLock(tmp_path).held(), pytest.raises(WikiBusyError), WikiLock(tmp_path, 0).shared():
        pass
    with WikiLock(tmp_path).shared(), WikiLock(tmp_path, 0).shared(), pytest.raises(WikiBusyError):
        WikiLock(tmp_path, 0).held().__enter__()


def test_a_lock_file_is_nobody_elses(tmp_path):
    (mine := tmp_path / "mine.txt").write_text("Mine.")
    (tmp_path / ".lock").symlink_to(mine)
    with pytest.raises(OSError), WikiLock(tmp_path).held():
        pass
    (tmp_path / ".lock").unlink()
    os.link(mine, tmp_path / ".lock")
    with WikiLock(tmp_path).held():
        pass
    assert mine.read_text() == "Mine."


def test_a_lock_file_that_is_deleted_meanwhile_lets_nobody_in_twice(tmp_path, monkeypatch):
    def tidy():
        (tmp_path / ".lock").unlink()
        second.enter_context(WikiLock(tmp_path).held())
        first.close()

    with ExitStack() as first, ExitStack() as second, monkeypatch.context() as patch:
        first.enter_context(WikiLock(tmp_path).held())
        naps = iter([tidy])
        patch.setattr("time.sleep", lambda _: next(naps, int)())
        with pytest.raises(WikiBusyError), WikiLock(tmp_path, 0.1).held():
            pass
