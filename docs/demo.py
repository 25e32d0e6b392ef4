"""The demo: everything on a real tree, and a check that no prose was lost."""

from __future__ import annotations

import sysconfig
import tempfile
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Annotated, Any

import sqlalchemy as sa
import typer
from rich.console import Console, Group, RenderableType
from rich.markdown import Markdown
from rich.panel import Panel

from quillstone.errors import HostError
from quillstone.storage.repository import wiki_chunks
from quillstone.wiki_cli.app import EXAMPLES, Given, outcome_kinds, outcome_report, table, user_errors
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.planning import ROOT_PAGE
from quillstone.workers.wiki.replan import Replan, ReplanOutcome, run_replan
from quillstone.workers.wiki.replan_carry import cached_prose
from quillstone.workers.wiki_types import PagePlan, Rows

NOTES = {
    "reading-order": ("Where to begin", "Start with the page of the tree itself, then follow its links."),
    "open-questions": ("Open questions", "Which folders belong together is decided by the next replan."),
    "first-impressions": ("First impressions", "This note's file is deleted before the replan."),
}


class CommitError(Exception):
    """What the demo raises in place of a commit."""


@dataclass
class DemoResult:
    """What the demo did and found."""

    tree: str
    source_files: int = 0
    pages: int = 0
    notes: int = len(NOTES)
    merged_prose: int = 0
    outcome: ReplanOutcome = field(default_factory=ReplanOutcome)
    successor: str = ""
    successor_text: str = ""
    checks: dict[str, list[str]] = field(default_factory=dict)
    """what was checked, to the problems found"""


def default_tree() -> Path:
    """The standard library of the running interpreter."""
    return Path(sysconfig.get_path("stdlib"))


def run_demo(generator: WikiGenerator) -> DemoResult:
    """Index, build, write on each page, file notes and replan, with a failed commit before and a second run after."""
    result = DemoResult(str(generator.repo_root))
    result.source_files, *_ = generator.index()
    result.pages = generator.build().written
    plans = {plan.page_id: plan for plan in generator.plan(generator.stored_pages())}
    for page_id in plans:
        with generator.files.page_file(page_id).open("a", encoding="utf-8") as page:
            page.write(f"\n{written_on(page_id)}\n")
    generator.build()
    notes = [generator.file_note(free_id(name, plans), *note) for name, note in NOTES.items()]
    notes.pop().unlink()
    replan, lagging = choose_replan(plans)
    generator.repository.forget_indexed_files(plans[lagging].source_files if lagging else [])
    result.merged_prose = sum(map(len, replan.merge.values()))

    before = snapshot(generator)
    problems = result.checks["a run whose commit failed"] = []
    try:
        with failing_commits(generator):
            run_replan(generator, replan)
        problems.append("the commit did not fail")
    except CommitError:
        problems += ["rows or page files were changed"] * (snapshot(generator) != before)

    result.outcome = run_replan(generator, replan)
    problems = result.checks["the replan"] = lost_prose(generator, plans, replan)
    problems += [f"the note {note} is gone" for note in notes if not note.is_file()]
    done = snapshot(generator)
    run_replan(generator, replan)
    problems = result.checks["the same replan again"] = lost_prose(generator, plans, replan)
    problems += ["rows or page files were changed"] * (snapshot(generator) != done)

    texts = {page_id: done[1][f"{page_id}.md"].decode() for page_id in set(result.outcome.merged.values())}
    if texts:  # the shortest page that shows more than one carried section, if any does
        sections = {page_id: min(text.count("\n<!-- carried "), 2) for page_id, text in texts.items()}
        result.successor = min(texts, key=lambda page_id: (-sections[page_id], len(texts[page_id]), page_id))
        result.successor_text = texts[result.successor]
    return result


def written_on(page_id: str) -> str:
    """What somebody writes on a page."""
    return f"What only somebody who works with `{page_id}` knows."


def choose_replan(plans: dict[str, PagePlan]) -> tuple[Replan, str]:
    """Derive a replan from a plan, and the page whose folder the index is to lag behind for ("" when none is spare).

    Nested folders are merged into their parents, level by level; every second one of these families is renamed too.
    Of the folders without any below them, one lags, and the others are renamed, dropped and kept in turn.
    """
    replan = Replan()
    families = [page_id for page_id, plan in plans.items() if plan.parent in (ROOT_PAGE, None) and page_id != ROOT_PAGE]
    parents = {plan.parent for plan in plans.values()}
    for page_id, plan in plans.items():
        if plan.parent and plan.parent != ROOT_PAGE:
            replan.merge.setdefault(plan.parent, []).append(page_id)
    for page_id in [page_id for page_id in families if page_id in parents][1::2]:
        new_id = replan.rename[page_id] = free_id(f"{page_id}-family", plans)
        replan.merge[new_id] = replan.merge.pop(page_id)
    lone = [page_id for page_id in families if page_id not in parents]
    replan.rename.update({page_id: free_id(f"{page_id}-guide", plans) for page_id in lone[1::3]})
    replan.drop.extend(lone[2::3])
    return replan, lone[0] if lone else ""


def free_id(wanted: str, plans: dict[str, PagePlan]) -> str:
    """The wanted page id, longer where a page has it already."""
    while wanted in plans:
        wanted += "-"
    return wanted


def lost_prose(generator: WikiGenerator, page_ids: Iterable[str], replan: Replan) -> list[str]:
    """Find prose that does not stand once where the replan puts it: in the page's file and in the cache, or kept."""
    rows, problems = generator.stored_pages(), []
    kept = {page_id: path.read_text("utf-8") for _, page_id, path in generator.files.kept()}
    for page_id in page_ids:
        holder, prose = replan.holder(page_id), written_on(page_id)
        places = {f"what is kept of {page_id}": kept.get(page_id, "")}
        if holder:
            path = generator.files.page_file(holder)
            places = {f"the file of {holder}": path.read_text("utf-8") if path.is_file() else ""}
            places[f"the cached prose of {holder}"] = cached_prose(rows.get(holder, {}))
        found = {place: text.count(prose) for place, text in places.items()}
        problems += [
            f"the prose of {page_id} is {times} times in {place}" for place, times in found.items() if times != 1
        ]
    return problems


def snapshot(generator: WikiGenerator) -> tuple[Rows, dict[str, bytes], list[Any]]:
    """All rows, all page files and all chunks as they are now."""
    rows = generator.stored_pages()
    files = {path.name: path.read_bytes() for path in generator.pages_dir.glob("*.md")}
    with generator.repository.db.reading() as connection:
        chunks = [tuple(row) for row in connection.execute(sa.select(wiki_chunks).order_by(*wiki_chunks.primary_key))]
    return rows, files, chunks


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


def demo_report(result: DemoResult) -> RenderableType:
    """The whole demo: the outcome, one successor's page, and what the checks found."""
    checks = [
        {"check": check, "result": "; ".join(found[:EXAMPLES]) or "nothing lost"}
        for check, found in result.checks.items()
    ]
    parts: list[RenderableType] = [
        f"{result.tree}: {result.source_files} source files, {result.pages} pages, {result.notes} notes.",
        *outcome_report(result.outcome, "What became of the pages"),
    ]
    if missing := [kind for kind, pages in outcome_kinds(result.outcome).items() if not pages]:
        parts.append(f"This tree gave no example of: {', '.join(missing)}.")
    if result.successor:
        parts.append(Panel(Markdown(result.successor_text), title=f"A successor's page: {result.successor}"))
    verdict = "FAILED: see above" if any(result.checks.values()) else "passed: all prose stands once where it belongs"
    return Group(*parts, table(checks), f"Check {verdict} ({result.merged_prose} pages merged).")


def main(
    tree: Annotated[Path | None, typer.Argument(help="The source tree. Default: Python's standard library.")] = None,
    work: Annotated[Path | None, typer.Option(help="An empty folder to leave the wiki in.")] = None,
    database: Annotated[str, typer.Option(help="URL of an empty database. Default: SQLite in the wiki.")] = "",
) -> None:
    """Run everything on a real tree, in an empty wiki, a failed commit included, and check that no prose was lost."""
    with tempfile.TemporaryDirectory() as scratch, user_errors():
        given = Given(work or Path(scratch), database, "demo")
        if given.wiki.is_dir() and any(given.wiki.iterdir()):
            raise HostError(f"the work folder {str(given.wiki)!r} is not empty; give another")
        with given.opened(tree or default_tree()) as generator:
            if generator.stored_pages() or generator.repository.list_indexed_files()[0]:
                raise HostError("the database holds a wiki already; the demo needs an empty one")
            result = run_demo(generator)
    Console().print(demo_report(result))
    if any(result.checks.values()):
        raise typer.Exit(1)


if __name__ == "__main__":
    typer.run(main)
