"""Replans as people write them, and what became of every page when one was applied or rehearsed."""

from __future__ import annotations

import json
import logging
import shutil
import tempfile
from collections import Counter
from collections.abc import Callable, Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from quillstone.errors import ReplanError
from quillstone.storage.repository import check_page_id
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan_carry import ReplanRemap, lineages
from quillstone.workers.wiki.workspace import Rows
from quillstone.workers.wiki_types import NOTE_LEVEL

PRUNE_LOGGER = "quillstone.workers.wiki.page_retirement"


@dataclass
class Replan:
    """What is to become of pages: `merge` maps a successor to the pages that go into it, `rename` old ids to new."""

    merge: dict[str, list[str]] = field(default_factory=dict)
    rename: dict[str, str] = field(default_factory=dict)
    drop: list[str] = field(default_factory=list)

    @property
    def retired(self) -> list[str]:
        """Every page id that the replan takes away, as often as it does."""
        return [*self.rename, *self.drop, *(page_id for pages in self.merge.values() for page_id in pages)]

    @property
    def remap(self) -> ReplanRemap:
        """The seeds and merges for `WikiGenerator.apply_replan`."""
        return ReplanRemap({new: old for old, new in self.rename.items()}, self.merge)

    def holder(self, page_id: str) -> str:
        """Where the page's prose ends up: the page at the end of its merges and its renaming, itself in a circle."""
        targets = {merged: successor for successor, pages in self.merge.items() for merged in pages} | self.rename
        passed: set[str] = set()
        holder = page_id
        while holder in targets and holder not in passed:
            passed.add(holder)
            holder = targets[holder]
        return holder

    def plan_ids(self, planned: set[str]) -> set[str]:
        """The page ids of the plan after the replan, from those before it."""
        return (planned | self.merge.keys() | set(self.rename.values())) - set(self.retired)


@dataclass
class ReplanOutcome:
    """What became of every page of a branch, by page id."""

    kept: list[str] = field(default_factory=list)
    seeded: dict[str, str] = field(default_factory=dict)
    """new page to the page that it continues"""
    merged: dict[str, str] = field(default_factory=dict)
    """deleted page to the page that holds its prose now"""
    index_behind: list[str] = field(default_factory=list)
    dropped: list[str] = field(default_factory=list)
    notes_retired: list[str] = field(default_factory=list)
    notes_kept: list[str] = field(default_factory=list)
    files_without_rows: list[str] = field(default_factory=list)
    """page files that belong to no stored page"""
    warnings: list[str] = field(default_factory=list)
    deleted: int = 0
    seconds: float = 0.0


def read_replan(path: Path) -> Replan:
    """Read a replan file: a JSON object with any of "merge", "rename" and "drop". Raises `ReplanError`."""
    try:
        document = json.loads(path.read_text("utf-8"))
    except OSError as error:
        raise ReplanError(f"cannot read the replan {str(path)!r} ({error.strerror}); give a JSON file") from error
    except (ValueError, RecursionError) as error:
        raise ReplanError(f"replan {str(path)!r} is no JSON ({error}); correct the file") from error
    if not isinstance(document, dict) or document.keys() - {"merge", "rename", "drop"}:
        raise ReplanError(f'replan {str(path)!r} must be an object with "merge", "rename" and "drop" only')
    merge, rename, drop = document.get("merge", {}), document.get("rename", {}), document.get("drop", [])
    if not isinstance(merge, dict) or not all(_is_ids(pages) for pages in merge.values()):
        raise ReplanError('"merge" must map each successor to a list of page ids')
    if not isinstance(rename, dict) or not _is_ids(list(rename.values())):
        raise ReplanError('"rename" must map old page ids to new ones')
    if not _is_ids(drop):
        raise ReplanError('"drop" must be a list of page ids')
    return Replan(merge, rename, drop)


def _is_ids(value: Any) -> bool:
    return isinstance(value, list) and all(isinstance(page_id, str) for page_id in value)


def check_replan(replan: Replan, rows: Rows, planned: set[str]) -> None:
    """Raise `ReplanError` or `PageIdError` when the replan does not fit the stored pages and the plan before it."""
    retired = replan.retired
    new_ids = Counter(replan.rename.values())
    for page_id in [*replan.merge, *new_ids]:
        check_page_id(page_id)
    for page_id, times in Counter(retired).items():
        if page_id not in rows:
            raise ReplanError(f"no page {page_id!r} is stored; `quillstone-wiki show` lists the pages")
        if times > 1:
            raise ReplanError(f"page {page_id!r} is retired twice; name it once in merge, rename or drop")
    for page_id in [*retired, *replan.merge]:
        if rows.get(page_id, {}).get("level") == NOTE_LEVEL:
            raise ReplanError(f"{page_id!r} is a note and in no plan; delete its file to retire it")
    for new_id, times in new_ids.items():
        if new_id in rows or times > 1:
            raise ReplanError(f"cannot rename to {new_id!r}, which is taken; merge into it instead")
    for successor in replan.merge:
        if successor in replan.rename or successor in replan.drop:
            raise ReplanError(f"page {successor!r} takes merged pages but goes away itself; merge into one that stays")
        if successor not in rows and successor not in new_ids:
            raise ReplanError(f"no page {successor!r} to merge into is stored; rename one of the pages to it first")
    for page_id in set(retired).difference(replan.drop):
        if page_id == replan.holder(page_id):
            raise ReplanError(f"page {page_id!r} would be merged into itself; break the circle")
    for successor, pages in lineages(replan.remap).items():
        if planned.isdisjoint((successor, *pages)):
            raise ReplanError(
                f"page {successor!r} would be of no folder that is indexed, so the next build would delete it; "
                "rename or merge into the page of a folder that is"
            )


def checked_plan(generator: WikiGenerator, replan: Replan) -> set[str]:
    """The page ids of the plan after a replan that fits the wiki; raises what `check_replan` raises."""
    planned = {plan.page_id for plan in generator.plan()}
    check_replan(replan, generator.stored_pages(), planned)
    return replan.plan_ids(planned)


def run_replan(generator: WikiGenerator, remap: Mapping[str, str], plan_ids: set[str]) -> ReplanOutcome:
    """Apply a remap and say what became of every page; raises what `WikiGenerator.apply_replan` raises."""
    outcome = ReplanOutcome()
    with generator.lock.held():
        before = generator.stored_pages()
        with captured_warnings(outcome.warnings):
            outcome.deleted = generator.apply_replan(remap, plan_ids)
        outcome.seconds = generator.prune_seconds
        after = generator.stored_pages()
        outcome.files_without_rows = generator.files_without_rows()
    _sort_pages(outcome, before, after, remap, plan_ids)
    return outcome


def preview_replan(generator: WikiGenerator, remap: Mapping[str, str], plan_ids: set[str]) -> ReplanOutcome:
    """Run the same over a copy of the wiki's files and undo every row change; gives what would become of the pages."""
    wiki_dir = generator.pages_dir.parent
    with generator.lock.held(), tempfile.TemporaryDirectory() as copy, generator.repository.db.rehearsal():
        for name in ("pages", "notes"):
            if (wiki_dir / name).is_dir():
                shutil.copytree(wiki_dir / name, Path(copy) / name, ignore=_no_content(wiki_dir.resolve()))
        rehearsed = WikiGenerator(generator.repository, generator.repo_root, generator.branch, Path(copy))
        return run_replan(rehearsed, remap, plan_ids)


def _no_content(wiki_dir: Path) -> Callable[[str, list[str]], list[str]]:
    # Links that lead nowhere, pipes and the like: pages without a file, as a replan sees them. Nor is a folder copied
    # that leads back into the wiki: links of that kind multiply.
    def is_page_or_folder(path: Path) -> bool:
        if path.is_symlink() and path.is_dir():
            target = path.resolve()
            return wiki_dir != target and wiki_dir not in target.parents and target not in wiki_dir.parents
        return path.is_file() or path.is_dir()

    return lambda folder, names: [name for name in names if not is_page_or_folder(Path(folder, name))]


def _sort_pages(
    outcome: ReplanOutcome, before: Rows, after: Rows, remap: Mapping[str, str], plan_ids: set[str]
) -> None:
    holders = {
        page_id: successor for successor, pages in lineages(remap).items() if successor in plan_ids for page_id in pages
    }
    outcome.seeded = {page_id: remap[page_id] for page_id in sorted(after.keys() - before.keys()) if page_id in remap}
    for page_id in sorted(before):
        is_note = before[page_id].get("level") == NOTE_LEVEL
        if page_id in after:
            stays = outcome.notes_kept if is_note else outcome.kept if page_id in plan_ids else outcome.index_behind
            stays.append(page_id)
        elif is_note:
            outcome.notes_retired.append(page_id)
        elif page_id in holders:
            if page_id not in outcome.seeded.values():
                outcome.merged[page_id] = holders[page_id]
        else:
            outcome.dropped.append(page_id)


@contextmanager
def captured_warnings(messages: list[str]) -> Iterator[None]:
    """Add what a prune warns of inside the block to `messages`, and log nothing."""
    handler = logging.Handler()
    handler.emit = lambda record: messages.append(record.getMessage())  # type: ignore[method-assign]
    logger = logging.getLogger(PRUNE_LOGGER)
    propagated, logger.propagate = logger.propagate, False
    logger.addHandler(handler)
    try:
        yield
    finally:
        logger.removeHandler(handler)
        logger.propagate = propagated
