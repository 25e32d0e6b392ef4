"""Wikis in SQLite with real page files, under the demo host's own collaborators: a prune as a user pays for it."""

from __future__ import annotations

import logging
import shutil
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import sqlalchemy as sa

from generated import BRANCH, Wiki
from quillstone.storage.repository import Repository, branch_files, wiki_pages
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan_carry import ReplanRemap

SHARED_MEMORY = Path("/dev/shm")  # where there is one, the figures are not the disk's

logging.getLogger("quillstone").setLevel(logging.CRITICAL)  # the guard's warnings


def opened(folder: Path) -> WikiGenerator:
    """The demo host over a stored wiki."""
    return WikiGenerator(Repository(f"sqlite:///{folder / 'wiki.sqlite'}", BRANCH), folder / "tree", BRANCH, folder)


@contextmanager
def scratch() -> Iterator[Path]:
    """A folder for one benchmark."""
    root = Path(tempfile.mkdtemp(dir=SHARED_MEMORY if SHARED_MEMORY.is_dir() else None))
    try:
        yield root
    finally:
        shutil.rmtree(root)


def store(wiki: Wiki, folder: Path) -> None:
    """Put the wiki into a database and files below `folder`."""
    for name in ("pages", "notes", "tree"):
        (folder / name).mkdir(parents=True)
    host = opened(folder)
    defaults = {"source_hashes": {}, "citations": [], "model": "m", "summary": "s", "page_type": "module"}
    with host.repository.db.transaction() as connection:
        connection.execute(sa.insert(wiki_pages), [{"branch": BRANCH, **defaults, **row} for row in wiki.rows])
        connection.execute(sa.insert(branch_files), [record | {"branch": BRANCH} for record in wiki.indexed])
    for page_id, text in wiki.pages_with_file():
        (folder / "pages" / f"{page_id}.md").write_text(text)
    for note in wiki.notes_with_file:
        (folder / "notes" / f"{note}.md").write_text("note")
    accounted_for = wiki.plan_ids | wiki.deletes
    for row in wiki.rows:
        if row["page_id"] not in accounted_for:  # an index behind the tree hides it
            for path in (folder / "tree" / path for path in row["source_files"]):
                path.parent.mkdir(parents=True, exist_ok=True)
                path.touch()


@contextmanager
def copied(folder: Path) -> Iterator[WikiGenerator]:
    """A host over a copy of the stored wiki, for a run that changes it."""
    with scratch() as root:
        yield opened(shutil.copytree(folder, root / "copy"))


def replan(host: WikiGenerator, wiki: Wiki) -> None:
    """Apply the wiki's replan, and see that it did all that it had to."""
    assert host._apply_replan_to_store(ReplanRemap(wiki.seeds, wiki.merged), wiki.plan_ids) == len(wiki.deletes)


def prune(host: WikiGenerator, wiki: Wiki) -> None:
    """The same with a snapshot of the caller's own."""
    remap = ReplanRemap(wiki.seeds, wiki.merged)
    assert host._prune_retired_pages(wiki.existing, wiki.plan_ids, remap) == len(wiki.deletes)


WHOLE = {"prune in SQLite": prune, "replan in SQLite": replan}
