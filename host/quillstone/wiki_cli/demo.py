"""The demo: the whole road on a real tree, and a check that no prose was lost on it."""

from __future__ import annotations

import sysconfig
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

import sqlalchemy as sa

from quillstone.workers.wiki.generator import Track, WikiGenerator
from quillstone.workers.wiki.planning import ROOT_PAGE
from quillstone.workers.wiki.replan import Replan, ReplanOutcome, checked_plan, run_replan
from quillstone.workers.wiki.replan_carry import cached_prose, carried_sections, split_carried
from quillstone.workers.wiki.workspace import Rows
from quillstone.workers.wiki_types import PagePlan

NOTES = {
    "reading-order": ("Where to begin", "Start with the page of the tree itself, then follow its links."),
    "open-questions": ("Open questions", "Which folders belong together is decided by the next replan."),
    "first-impressions": ("First impressions", "This note's file is deleted before the replan."),
}
DELETED_NOTE = "first-impressions"

Snapshot = tuple[Rows, dict[str, list[str]], dict[str, bytes]]


class CommitError(Exception):
    """What the demo raises in place of a commit."""


@dataclass
class DemoResult:
    """What the demo did and found."""

    tree: str
    source_files: int = 0
    pages: int = 0
    notes: int = len(NOTES)
    replan: Replan = field(default_factory=Replan)
    outcome: ReplanOutcome = field(default_factory=ReplanOutcome)
    merged_prose: int = 0
    longest_chain: int = 0
    successor: str = ""
    successor_text: str = ""
    checks: dict[str, list[str]] = field(default_factory=dict)
    """what was checked, to the problems found"""

    @property
    def problems(self) -> list[str]:
        """Every problem that a check found."""
        return [problem for problems in self.checks.values() for problem in problems]


def default_tree() -> Path:
    """The standard library of the running interpreter."""
    return Path(sysconfig.get_path("stdlib"))


def run_demo(generator: WikiGenerator, track: Track) -> DemoResult:
    """Index, build, file notes and replan in an empty wiki, with a failed commit before and a second run after."""
    result = DemoResult(str(generator.repo_root))
    result.source_files, _ = generator.index(track)
    result.pages, _ = generator.build(track)
    plans = {plan.page_id: plan for plan in generator.plan()}
    notes = {name: generator.file_note(free_id(name, plans), title, text) for name, (title, text) in NOTES.items()}
    notes.pop(DELETED_NOTE).unlink()

    replan, lagging = choose_replan(plans)
    if lagging:
        generator.repository.forget_indexed_files(plans[lagging].source_files)
    result.replan = replan
    remap, plan_ids = replan.remap, checked_plan(generator, replan)
    prose = authored_prose(generator)
    result.merged_prose = sum(bool(prose[page_id][1].strip()) for pages in replan.merge.values() for page_id in pages)
    result.longest_chain = max((chain_length(replan, successor) for successor in replan.merge), default=0)

    before = snapshot(generator)
    problems = result.checks["a run whose commit failed"] = []
    try:
        with failing_commits(generator):
            run_replan(generator, remap, plan_ids)
        problems.append("the commit did not fail")
    except CommitError:
        pass
    problems += lost_prose(generator, prose, Replan())
    if snapshot(generator)[:2] != before[:2]:
        problems.append("the store was changed")

    result.outcome = run_replan(generator, remap, plan_ids)
    result.checks["the replan"] = lost_prose(generator, prose, replan)
    result.checks["the replan"] += [f"the note {note} is gone" for note in notes.values() if not note.is_file()]
    done = snapshot(generator)
    run_replan(generator, remap, plan_ids)
    problems = result.checks["the same replan again"] = lost_prose(generator, prose, replan)
    if snapshot(generator) != done:
        problems.append("the second run changed rows or page files")

    texts = {page_id: done[2][f"{page_id}.md"].decode() for page_id in set(result.outcome.merged.values())}
    if texts:
        # The shortest page that shows more than one carried section, if any does.
        result.successor, result.successor_text = min(
            texts.items(), key=lambda page: (-min(len(split_carried(page[1])[1]), 2), len(page[1]), page[0])
        )
    return result


def choose_replan(plans: dict[str, PagePlan]) -> tuple[Replan, str]:
    """Derive a replan from a plan, and the page whose folder the index is to lag behind for ("" when none is spare).

    Nested folders are merged into their parents, level by level; every second one of these families is renamed too.
    Of the folders without any below them, one lags, and the others are renamed, dropped and kept in turn.
    """
    replan = Replan()
    lagging = ""
    families = [page_id for page_id, plan in plans.items() if plan.parent in (ROOT_PAGE, None) and page_id != ROOT_PAGE]
    parents = {plan.parent for plan in plans.values()}
    nested = [page_id for page_id in families if page_id in parents]
    for page_id, plan in plans.items():
        if plan.parent and plan.parent != ROOT_PAGE:
            replan.merge.setdefault(plan.parent, []).append(page_id)
    for page_id in nested[1::2]:
        new_id = replan.rename[page_id] = free_id(f"{page_id}-family", plans)
        replan.merge[new_id] = replan.merge.pop(page_id)
    for turn, page_id in enumerate(page_id for page_id in families if page_id not in parents):
        if turn == 0:
            lagging = page_id
        elif turn % 3 == 1:
            replan.rename[page_id] = free_id(f"{page_id}-guide", plans)
        elif turn % 3 == 2:
            replan.drop.append(page_id)
    return replan, lagging


def free_id(wanted: str, plans: dict[str, PagePlan]) -> str:
    """The wanted page id, longer where a page has it already."""
    while wanted in plans:
        wanted += "-"
    return wanted


def chain_length(replan: Replan, successor: str) -> int:
    """How many pages long the longest chain of merges is that ends in the successor, itself counted."""
    return 1 + max((chain_length(replan, page_id) for page_id in replan.merge.get(successor, [])), default=0)


def authored_prose(generator: WikiGenerator) -> dict[str, tuple[str, str]]:
    """Title and prose of every plan page, from its file."""
    rows = generator.stored_pages()
    authored = {}
    for path in generator.pages_dir.glob("*.md"):
        # What follows the generated block, without a look at how the host takes prose out of a page.
        prose = path.read_text("utf-8").partition("\n<!-- /generated ")[2].partition("\n")[2]
        authored[path.stem] = rows[path.stem]["title"], prose.strip("\n")
    return authored


def lost_prose(generator: WikiGenerator, authored: dict[str, tuple[str, str]], replan: Replan) -> list[str]:
    """Find prose that does not stand, word for word, where the replan puts it: in the page's file and in the cache.

    A merged page's prose has to stand there as a section, exactly once.
    """
    rows = generator.stored_pages()
    problems = []
    for page_id, (title, prose) in authored.items():
        if page_id in replan.drop:
            continue
        holder = replan.holder(page_id)
        path = generator.pages_dir / f"{holder}.md"
        places = {
            f"the file of {holder}": path.read_text("utf-8") if path.is_file() else "",
            f"the cached prose of {holder}": cached_prose(rows.get(holder, {})),
        }
        sections = carried_sections([(title, prose)]) if page_id not in replan.rename and holder != page_id else []
        for place, held in places.items():
            if prose not in held:
                problems.append(f"the prose of {page_id} is missing from {place}")
            problems += [f"{place} holds {page_id} {held.count(own)} times" for own in sections if held.count(own) != 1]
    return problems


def snapshot(generator: WikiGenerator) -> Snapshot:
    """All rows, their chunks and all page files as they are now."""
    rows = generator.stored_pages()
    chunks = {page_id: generator.repository.get_wiki_chunks(generator.branch, page_id) for page_id in rows}
    return rows, chunks, {path.name: path.read_bytes() for path in generator.pages_dir.glob("*.md")}


@contextmanager
def failing_commits(generator: WikiGenerator) -> Iterator[None]:
    """Make every commit of the store fail inside the block."""

    def refuse(_connection: sa.Connection) -> None:
        raise CommitError

    engine = generator.repository.db.engine
    sa.event.listen(engine, "commit", refuse)
    try:
        yield
    finally:
        sa.event.remove(engine, "commit", refuse)
