"""A replan is killed between any two steps and at any moment: no prose is lost, and the next run finishes the job."""

import itertools
import os
import random
import shutil
import signal
import sqlite3
import sys
import time
from concurrent.futures import ProcessPoolExecutor
from contextlib import closing
from multiprocessing import get_context

import pytest
import sqlalchemy as sa

from quillstone.storage.repository import Repository, wiki_pages
from quillstone.wiki_cli.demo import authored_prose, choose_replan, lost_prose
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan_carry import cached_prose
from trees import write_files

POSTGRESQL = os.environ.get("QUILLSTONE_TEST_DATABASE")


class Template:
    """A wiki about a tree of folders, three deep, and a replan of most of its pages; every trial has a copy."""

    def __init__(self, folder, families, journal):
        self.folder, self.journal = folder, journal
        paths = [f"f{i}/s{j}/d{k}/x.py" for i in range(families) for j in range(2) for k in range(2)]
        paths += [f"lone{i}/x.py" for i in range(families)]
        write_files(folder / "tree", {path: f'"""What {path} is for."""' for path in paths})
        (folder / "wiki").mkdir()
        with closing(self.open(folder, f"sqlite:///{folder}/wiki/db")) as generator:
            generator.index()
            generator.build()
            for path in sorted(generator.pages_dir.glob("*s1*.md")):
                path.write_text(path.read_text() + f"\nBy hand, on {path.name}.\n")
            generator.file_note("note", "Note", "text")
            plans = {plan.page_id: plan for plan in generator.plan()}
            self.replan, lagging = choose_replan(plans)
            generator.repository.forget_indexed_files(plans[lagging].source_files)
            self.plan_ids = self.replan.plan_ids({plan.page_id for plan in generator.plan()})
            self.prose, self.pages = authored_prose(generator), len(plans)
            with generator.repository.db.engine.connect() as connection:
                tables = wiki_pages.metadata.sorted_tables
                self.tables = {table.name: [*connection.execute(sa.select(table)).mappings()] for table in tables}
                self.tables = {name: [dict(row) for row in rows] for name, rows in self.tables.items() if rows}
        if journal != "postgresql":
            with closing(sqlite3.connect(folder / "wiki" / "db")) as connection:
                connection.execute(f"PRAGMA journal_mode={journal}")

    def open(self, folder, url=None):
        url = url or (POSTGRESQL if self.journal == "postgresql" else f"sqlite:///{folder}/wiki/db")
        generator = WikiGenerator(Repository(url), self.folder / "tree", "main", folder / "wiki")
        generator.close = generator.repository.close
        return generator

    def copy(self, folder):
        shutil.copytree(self.folder / "wiki", folder / "wiki")
        if self.journal == "postgresql":
            with closing(self.open(folder)) as generator:
                wiki_pages.metadata.drop_all(generator.repository.db.engine)
            with closing(self.open(folder)) as generator, generator.repository.db.transaction() as connection:
                for name, rows in self.tables.items():
                    connection.execute(sa.insert(wiki_pages.metadata.tables[name]), rows)

    def apply(self, folder, step=None):
        with closing(self.open(folder)) as generator:
            if step:
                for event in ("before_cursor_execute", "commit"):
                    sa.event.listen(generator.repository.db.engine, event, lambda *args: step())
                sys.addaudithook(lambda event, args: step() if changes_files(event, args) else None)
            generator.apply_replan(self.replan.remap, self.plan_ids)


def changes_files(event, args):
    return event in ("os.rename", "os.remove") or (event == "open" and bool(args[2] & os.O_CREAT))


def forked(work, seconds=None, number=signal.SIGKILL):
    """Runs the work in a process of its own, which gets a signal after a time; says whether that ended it."""
    child = os.fork()
    if not child:
        status = 1
        try:
            work()
            status = 0
        except KeyboardInterrupt:
            status = number
        finally:
            os._exit(status)
    if seconds is not None:
        time.sleep(seconds)
        os.kill(child, number)
    ended = os.waitpid(child, 0)[1]
    assert ended in (0, number, number << 8)
    return ended != 0


def trial(template, folder, at, seconds, number=signal.SIGKILL):
    """Kills a replan at a step or after a time, checks, and runs it again; gives whether killed, and the rows."""
    template.copy(folder)
    steps = iter(range(10**9 if at is None else at))
    step = lambda: next(steps, None) is None and os.kill(os.getpid(), signal.SIGKILL)
    killed = forked(lambda: template.apply(folder, step), seconds, number)
    with closing(template.open(folder)) as generator:
        check_that_prose_stands_somewhere(template, generator)
    template.apply(folder)
    with closing(template.open(folder)) as generator:
        assert lost_prose(generator, template.prose, template.replan) == []
        rows, files = generator.stored_pages(), {path.name for path in generator.pages_dir.iterdir()}
        strays = files - {f"{page_id}.md" for page_id in rows}  # a temporary file would be one
        assert strays <= {f"{page_id}.md" for page_id in template.replan.retired}
        assert generator.files_without_rows() == sorted(name.removesuffix(".md") for name in strays)
    shutil.rmtree(folder)
    return killed, rows


def check_that_prose_stands_somewhere(template, generator):
    if template.journal != "postgresql":
        with generator.repository.db.engine.connect() as connection:
            assert connection.exec_driver_sql("PRAGMA integrity_check").scalar() == "ok"
    rows = generator.stored_pages()
    for page_id, (_, prose) in template.prose.items():
        holder = page_id if page_id in rows else template.replan.holder(page_id)
        if page_id not in template.replan.drop:
            assert prose in (generator.pages_dir / f"{holder}.md").read_text()
            assert holder == page_id or prose in cached_prose(rows[holder])


def run_trials(template, moments):
    """Kills as many replans, each by itself, two at a time; gives how many were killed, the others had ended."""
    expected, killed = trial(template, template.folder / "undisturbed", None, None)[1], 0
    with ProcessPoolExecutor(1 if template.journal == "postgresql" else 2, get_context("fork")) as pool:
        folders = (template.folder / f"{i}" for i in range(len(moments)))
        for was_killed, rows in pool.map(trial, itertools.repeat(template), folders, *zip(*moments, strict=True)):
            assert rows == expected
            killed += was_killed
    return killed


def count_steps(template):
    folder, steps = template.folder / "counted", []
    template.copy(folder)
    forked(lambda: template.apply(folder, lambda: steps.append(0)) or (folder / "steps").write_text(f"{len(steps)}"))
    return int((folder / "steps").read_text())


STRIDE = int(os.environ.get("KILL_STRIDE", "20"))  # 1 for every step of a few hundred pages, which takes half an hour
QUICK = [(journal, 2, 7) for journal in ("delete", "wal")]
LONG = [(journal, *size) for journal in ("delete", "wal") for size in ((5, 1), (30, STRIDE))]
SAMPLE = [("postgresql", 30, 60)] if POSTGRESQL else []


def parameters(quick, long):
    return [*quick, *(pytest.param(*values, marks=pytest.mark.long) for values in long)]


@pytest.mark.parametrize(("journal", "families", "stride"), parameters(QUICK + SAMPLE, LONG))
def test_killed_between_two_steps(quick_folder, journal, families, stride, figures):
    template = Template(quick_folder, families, journal)
    steps = count_steps(template)
    killed = run_trials(template, [(at, None, signal.SIGKILL) for at in range(0, steps, stride)])
    assert killed == len(range(0, steps, stride))
    figures[f"kills survived ({journal})"] += killed


@pytest.mark.parametrize(
    ("journal", "kills"), parameters([(name, 6) for name, *_ in SAMPLE], [("delete", 30), ("wal", 30)])
)
def test_killed_at_any_moment(quick_folder, journal, kills, figures):
    template = Template(quick_folder, 30, journal)
    template.copy(quick_folder / "measured")
    draw, started = random.Random(journal), time.monotonic()
    forked(lambda: template.apply(quick_folder / "measured"))
    length, numbers = time.monotonic() - started, (signal.SIGKILL, signal.SIGINT)
    killed = run_trials(template, [(None, draw.uniform(0, length), number) for number in numbers for _ in range(kills)])
    assert killed > kills
    figures[f"kills survived ({journal})"] += killed
