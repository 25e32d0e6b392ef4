"""What the commands print for people."""

from __future__ import annotations

from collections.abc import Iterable, Mapping

from rich.console import Group, RenderableType
from rich.markdown import Markdown
from rich.panel import Panel
from rich.table import Table
from rich.text import Text

from quillstone.wiki_cli.demo import DemoResult
from quillstone.workers.wiki.doctor import Finding
from quillstone.workers.wiki.replan import ReplanOutcome

EXAMPLES = 3


def page_list(facts: Iterable[Mapping[str, str]], files_without_rows: list[str]) -> RenderableType:
    """A table of pages: id, title, level, status; and the files of none."""
    table = Table("Page", "Title", "Level", "Status")
    for row in facts:
        table.add_row(*(Text(value) for value in row.values()))
    return Group(table, *stray_files(files_without_rows))


def stray_files(page_ids: list[str]) -> list[RenderableType]:
    """What to do about page files that belong to no stored page; nothing where there are none."""
    if not page_ids:
        return []
    names = ", ".join(f"{page_id}.md" for page_id in page_ids)
    return [
        Text(f"Files in pages/ without a stored page, of a run that was killed or your own; keep or delete: {names}")
    ]


def findings_report(findings: list[Finding]) -> RenderableType:
    """What is out of order, each with what to do about it."""
    if not findings:
        return "All is well."
    table = Table("Finding", "Page", "What to do")
    for finding in findings:
        table.add_row(finding.kind, Text(finding.page), Text(finding.remedy))
    return table


def outcome_kinds(outcome: ReplanOutcome) -> dict[str, list[str]]:
    """The pages of an outcome by what became of them, each as it is shown."""
    return {
        "kept": outcome.kept,
        "stored from a seed": [f"{new} (from {old})" for new, old in outcome.seeded.items()],
        "merged and carried": [f"{page} (into {holder})" for page, holder in outcome.merged.items()],
        "kept, index is behind": outcome.index_behind,
        "note retired": outcome.notes_retired,
        "note kept": outcome.notes_kept,
        "dropped": outcome.dropped,
    }


def outcome_report(outcome: ReplanOutcome, title: str) -> RenderableType:
    """What became of every kind of page, the warnings, and how long the prune took."""
    table = Table("Outcome", "Pages", "Examples", title=title)
    for kind, pages in outcome_kinds(outcome).items():
        examples = ", ".join(pages[:EXAMPLES]) + (", ..." if len(pages) > EXAMPLES else "")
        table.add_row(kind, str(len(pages)), Text(examples))
    warnings = Table("Warnings of the prune")
    for message in outcome.warnings or ["none"]:
        warnings.add_row(Text(message))
    summary = f"{outcome.deleted} stored pages deleted; the prune took {outcome.seconds:.3f} s."
    return Group(table, warnings, *stray_files(outcome.files_without_rows), summary)


def demo_report(result: DemoResult) -> RenderableType:
    """The whole demo: the outcome, one successor's page, and what the checks found."""
    parts: list[RenderableType] = [
        f"{result.tree}: {result.source_files} source files, {result.pages} pages, {result.notes} notes.",
        outcome_report(result.outcome, "What became of the pages"),
    ]
    missing = [kind for kind, pages in outcome_kinds(result.outcome).items() if not pages]
    if missing:
        parts.append(f"This tree gave no example of: {', '.join(missing)}.")
    if result.successor:
        parts.append(Panel(Markdown(result.successor_text), title=f"A successor's page: {result.successor}"))
    checks = Table("Check", "Result")
    for check, problems in result.checks.items():
        checks.add_row(check, Text("; ".join(problems[:EXAMPLES]) if problems else "nothing lost"))
    looked_at = f"{result.merged_prose} merged pages with prose, chains of up to {result.longest_chain} pages"
    if result.problems:
        verdict = f"Check FAILED ({looked_at}): see above."
    else:
        verdict = f"Check passed: each of {looked_at}, stands exactly once in its successor's file and cached prose."
    return Group(*parts, checks, verdict)
