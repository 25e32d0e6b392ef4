"""Whole prunes and replans with a failure at every touch: the very exception comes out, no prose is lost, a rerun
completes, nothing leaks."""

import contextlib
import gc
import itertools
import json
import logging
import os
import random
import shutil
from pathlib import PosixPath
from types import SimpleNamespace

import pytest

from leaks import growth
from memory_host import RowStore
from quillstone.storage.repository import Repository
from quillstone.workers.wiki import page_retirement, replan_carry, repo_facts
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from quillstone.workers.wiki.replan_carry import ReplanRemap, cached_prose, carried_sections

ERRORS = (OSError, KeyboardInterrupt, MemoryError)
SPIED_ON_PATHS = "__truediv__ exists is_dir is_file read_text unlink replace mkdir stat".split()


class Touch:
    """Called before and after whatever the prune does to its host; raises the error at one of these moments."""

    def __init__(self, fail_at, error):
        self.seen, self.fail_at, self.error = [], fail_at, error

    def __call__(self, what):
        self.seen.append(what)
        if len(self.seen) - 1 == self.fail_at:
            raise self.error


class Spy:
    """Any object, with a touch at each attribute and around each call."""

    def __init__(self, touch, name, value):
        self._spy = touch, name, value

    def __getattr__(self, attribute):
        touch, name, value = self._spy
        touch(f"{name}.{attribute}")
        return Spy(touch, f"{name}.{attribute}", getattr(value, attribute))

    def __call__(self, *args, **kwargs):
        touch, name, value = self._spy
        touch(name)
        result = value(*args, **kwargs)
        touch(f"after {name}")
        return result


def spied_paths(touch):
    def spied(name):
        return lambda self, *args, **kwargs: Spy(touch, name, getattr(PosixPath, name))(self, *args, **kwargs)

    glob = lambda self, pattern: stepping(touch, PosixPath.glob(self, pattern))
    return type("SpiedPath", (PosixPath,), {name: spied(name) for name in SPIED_ON_PATHS} | {"glob": glob})


def stepping(touch, members):
    for member in members:
        touch("step")
        yield member
    touch("end")


class Transaction:
    def __init__(self, touch, transaction):
        self.touch, self.real = touch, transaction

    def __enter__(self):
        self.touch("begin")
        self.real.__enter__()

    def __exit__(self, *error):
        try:
            self.touch("commit")
        except BaseException as failure:
            assert not self.real.__exit__(type(failure), failure, failure.__traceback__)
            raise
        assert not self.real.__exit__(*error)
        self.touch("rolled back" if any(error) else "committed")


def real_store(folder):
    return Repository(f"sqlite:///{folder}/wiki.sqlite")


def memory_store(folder):
    return RowStore([])


class Wiki:
    """A wiki, its files and its replan, drawn from a seed."""

    def __init__(self, seed, folder, make_store):
        draw = random.Random(seed)
        for name in ("tree", "wiki/pages", "wiki/notes"):
            (folder / name).mkdir(parents=True)
        self.folder, self.store = folder, make_store(folder)
        (folder / "tree" / "behind.py").touch()
        ids = [f"p{i}" for i in range(draw.randrange(5, 9))]
        self.into = {page: draw.choice(ids[:i]) for i, page in enumerate(ids) if i and draw.random() < 0.6}
        roots = [page for page in ids if page not in self.into]
        seeds = {f"new-{page}": page for page in roots if draw.random() < 0.4}
        renamed = {old: new for new, old in seeds.items()}
        merged = {}
        for page, successor in self.into.items():
            merged.setdefault(renamed.get(successor, successor), []).append(page)
        gone = [page for page in roots if page not in {*merged, *renamed} and draw.random() < 0.5]
        self.remap, self.plan = ReplanRemap(seeds, merged), {*roots, *seeds}.difference(seeds.values(), gone)
        self.successors = {page: renamed.get(root, root) for page in self.into for root in [self.root(page)]}
        self.titles = {page: draw.choice(["", f"Title of {page}"]) for page in ids}
        for page in ids:
            behind = page in gone and draw.random() < 0.3
            self.page(page, draw.choice(["file", "cache", "both", "blank file"]), ["behind.py" if behind else "a.py"])
        for note in ("kept", "deleted"):
            self.store.save_wiki_page("b", note, note, level="note", build_cache={}, chunks=[])
        (folder / "wiki/notes/kept.md").touch()
        self.store.record_indexed_files([{"path": "a.py", "is_source": True}, {"path": "b.py", "is_source": True}])

    def root(self, page):
        return self.root(self.into[page]) if page in self.into else page

    def page(self, page, where, files):
        cache = {} if where == "file" else {"prose": f"Prose of {page}."}
        fields = {"source_files": files, "build_cache": cache, "level": "module", "related_pages": []}
        self.store.save_wiki_page("b", page, self.titles[page], chunks=[], **fields)
        if where != "cache":
            self.file(page).write_text("" if where == "blank file" else f"Prose of {page}.")

    def file(self, page):
        return self.folder / "wiki/pages" / f"{page}.md"

    def rows(self):
        return {row["page_id"]: row for row in self.store.get_wiki_pages("b")}

    def texts(self):
        """What the files of stored pages hold."""
        return {page: self.file(page).read_text() for page in self.rows() if self.file(page).is_file()}

    def prune(self, whole, fail_at=None, error=None):
        """Applies the replan; gives all touches and whether the error came out."""
        touch = Touch(fail_at, error)
        path, spy = spied_paths(touch), lambda name, value: Spy(touch, name, value)

        class Row(dict):
            get = lambda self, name: touch(f"row {name}") or dict.get(self, name)
            __getitem__ = lambda self, name: touch(f"row {name}") or dict.__getitem__(self, name)

        class Plan(set):
            __contains__ = lambda self, page: touch("in plan") or set.__contains__(self, page)

        class Remap(ReplanRemap):
            items = lambda self: stepping(touch, ReplanRemap.items(self))

        class Host(PageRetirementMixin):
            def __getattribute__(self, name):
                touch(f"self.{name}")
                return object.__getattribute__(self, name)

        store = SimpleNamespace(
            db=SimpleNamespace(transaction=lambda: Transaction(touch, self.store.db.transaction())),
            get_wiki_pages=lambda branch: stepping(touch, map(Row, self.store.get_wiki_pages(branch))),
            list_indexed_files=self.store.list_indexed_files,
            upsert_wiki_page=self.store.upsert_wiki_page,
            delete_wiki_page=self.store.delete_wiki_page,
        )
        names = {name: vars(replan_carry)[name] for name in "cached_prose page_prose with_carried".split()}
        names |= {"merged_predecessors": replan_carry.merged_predecessors, "contextlib": contextlib, "json": json}
        names |= {"_norm": repo_facts._norm, "_atomic_write": repo_facts._atomic_write}
        names |= {"carried_sections": lambda pairs: carried_sections(stepping(touch, pairs))}
        names |= {"_judged_sources": page_retirement._judged_sources, "logger": logging.getLogger("quiet")}
        host = Host()
        host.repository, host.branch = spy("store", store), "b"
        host.repo_root, host.pages_dir = path(self.folder / "tree"), path(self.folder / "wiki" / "pages")
        existing = {page: Row(row) for page, row in self.rows().items()}
        arguments = Remap(dict(self.remap), self.remap.merged), Plan(self.plan)
        with pytest.MonkeyPatch.context() as patch:
            for name, value in names.items():
                patch.setattr(page_retirement, name, spy(name, value))
            try:
                if whole:
                    host._apply_replan_to_store(*arguments)
                else:
                    host._prune_retired_pages(existing, arguments[1], arguments[0])
            except BaseException as raised:
                assert raised is error, touch.seen[-1]
                return touch.seen, True
        return touch.seen, False

    def places(self, page):
        """Where the page's prose stands: files of stored pages and of successors, prose that rows hold."""
        rows, successor = self.rows(), self.file(self.successors[page])
        texts = [*self.texts().values(), successor.read_text() if successor.is_file() else ""]
        texts += [cached_prose(row) for row in rows.values()]
        return sum(f"Prose of {page}." in text for text in texts)

    def check_sections(self):
        """Each merged page's section stands once, in its successor's file and in the prose of its row."""
        rows, texts = self.rows(), self.texts()
        for page, successor in self.successors.items():
            (section,) = carried_sections([(self.titles[page] or page, f"Prose of {page}.")])
            assert (texts[successor].count(section), cached_prose(rows[successor]).count(section)) == (1, 1)


@pytest.fixture
def make(quick_folder, monkeypatch):
    """Makes a world in a folder of its own, in place of the one before."""
    monkeypatch.setattr(os, "fsync", lambda descriptor: None)
    monkeypatch.setattr(logging.getLogger("quiet"), "disabled", True)  # what it recorded would be kept

    @contextlib.contextmanager
    def make(seed, make_store):
        shutil.rmtree(quick_folder / "world", ignore_errors=True)
        world = Wiki(seed, quick_folder / "world", make_store)
        yield world
        world.store.close()

    return make


# Which world, and every how many touches a failure; odd ones have the whole replan, even ones the prune alone.
QUICK = [(seed, make_store, step) for seed in range(2) for make_store, step in ((memory_store, 9), (real_store, 90))]
LONG = [(seed, memory_store, 1) for seed in range(2, 14)] + [(seed, real_store, 10) for seed in range(2, 4)]


@pytest.mark.parametrize(
    ("seed", "make_store", "step"), [*QUICK, *(pytest.param(*world, marks=pytest.mark.long) for world in LONG)]
)
def test_a_failure_at_every_touch(make, seed, make_store, step, figures):
    whole = seed % 2 == 1
    with make(seed, make_store) as world:
        before = world.rows()
        touches, _ = world.prune(whole)
        after = world.rows(), world.texts()
        world.check_sections()
    for fail_at, kind in itertools.product(range(seed % step, len(touches), step), ERRORS):
        with make(seed, make_store) as world:
            seen, raised = world.prune(whole, fail_at, kind())
            removing = "committed" in seen[:fail_at] and "contextlib.suppress" in seen[:fail_at]
            assert raised or (removing and kind is OSError), touches[fail_at]
            assert seen[: fail_at + 1] == touches[: fail_at + 1]
            assert world.rows() == (after[0] if "committed" in seen else before), touches[fail_at]
            assert all(map(world.places, world.into)), touches[fail_at]
            assert not [*world.folder.rglob("*.tmp")]
            world.prune(whole)
            world.check_sections()
            assert (world.rows(), world.texts()) == after
        figures["faults injected"] += 1
    figures["worlds tried"] += 1


@pytest.mark.parametrize(
    ("seed", "step"), [(1, 27), *(pytest.param(seed, 1, marks=pytest.mark.long) for seed in (2, 5, 7, 8))]
)
def test_a_failure_leaves_every_reference_and_block_where_it_was(make, seed, step):
    watched = [None, True, False, "", 0, *vars(page_retirement).values(), *vars(PageRetirementMixin).values()]
    watched += [page_retirement._judged_sources.__code__.co_consts[1].__self__]  # the module's state

    def fail(at):
        with make(seed, memory_store) as world:
            return world.prune(seed % 2 == 1, at, ERRORS[at % 3]())[0]

    with make(seed, memory_store) as world:
        touches = world.prune(seed % 2 == 1)[0]
    gc.collect()
    gc.freeze()  # a collection then takes no longer than what it looks for
    try:
        for at in range(0, len(touches), step):
            assert not any(growth(lambda at=at: fail(at), watched)), touches[at]
    finally:
        gc.unfreeze()
