"""What the commands print for people."""

from collections.abc import Iterable
from pathlib import Path

from rich.console import Group, RenderableType
from rich.table import Table
from rich.text import Text

from quillstone.workers.wiki.generator import RunOutcome
from quillstone.workers.wiki.replan import ReplanOutcome

EXAMPLES = 3


def table(rows: Iterable[Iterable[str]], *headings: str, title: str | None = None) -> Table:
    """A table of plain texts."""
    made = Table(*headings, title=title)
    for row in rows:
        made.add_row(*map(Text, row))
    return made


def kept_row(kept: tuple[str, str, Path]) -> dict[str, str]:
    """A text that is kept: its run, its page, where it is, and its first line that says something."""
    run, page_id, path = kept
    lines = path.read_text("utf-8", errors="replace").splitlines() if path.is_file() else []
    said = (line.strip()[:80] for line in lines if line.strip() and not line.startswith("<!--"))
    return {"run": run, "page_id": page_id, "kept_as": path.name, "first_line": next(said, "")}


def run_lines(outcome: RunOutcome) -> list[str]:
    """What a run did that a person has to know of, line by line."""
    lines = [f"An earlier run, {run}." for run in outcome.recovered]
    lines += [f"The folder of page {old} moved: the page goes on as {new}." for old, new in outcome.moved.items()]
    for page_id, path in outcome.kept_texts.items():
        lines.append(f"Hand-written text of page {page_id} leaves the wiki; kept in: {path}")
    return lines + ["`quillstone-wiki restore PAGE` brings a kept text back."] * bool(outcome.kept_texts)


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
    shown = [
        (kind, str(len(pages)), ", ".join(pages[:EXAMPLES]) + ", ..." * (len(pages) > EXAMPLES))
        for kind, pages in outcome_kinds(outcome).items()
    ]
    told = ["This replan was applied before; nothing was left to do."] * outcome.was_applied + run_lines(outcome.run)
    told.append(f"{outcome.run.deleted} stored pages deleted; the prune took {outcome.run.seconds:.3f} s.")
    return Group(table(shown, "Outcome", "Pages", "Examples", title=title), *map(Text, told))
