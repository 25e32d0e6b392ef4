"""What is out of order in a wiki, and what to do about it; nothing is changed."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from pathlib import Path

from quillstone.workers.wiki.generator import Track, WikiGenerator, untracked
from quillstone.workers.wiki.replan import captured_warnings
from quillstone.workers.wiki.replan_carry import split_carried
from quillstone.workers.wiki.workspace import Rows
from quillstone.workers.wiki_types import NOTE_LEVEL


@dataclass
class Finding:
    """One thing that is out of order."""

    kind: str
    page: str
    """a page or note id"""
    remedy: str


def examine(generator: WikiGenerator, track: Track = untracked) -> list[Finding]:
    """Look over a wiki, its store and its index; gives what is out of order, kind by kind.

    Raises `TreeError`, `sqlalchemy.exc.SQLAlchemyError`, and `OSError` for folders that cannot be read.
    """
    rows = generator.stored_pages()
    plan_ids = {plan.page_id for plan in generator.plan()}
    pages = {page_id: row for page_id, row in rows.items() if row["level"] != NOTE_LEVEL}
    return [
        *_files_without_pages(generator),
        *_page_files(generator.pages_dir, track(list(pages), "Reading pages"), plan_ids),
        *_notes_without_files(generator, rows),
        *_stale_pages(pages),
        *_pages_out_of_the_plan(generator, rows, pages, plan_ids),
    ]


def _files_without_pages(generator: WikiGenerator) -> Iterator[Finding]:
    for page_id in generator.files_without_rows():
        yield Finding(
            "file without a page",
            page_id,
            "left by a run that was killed, or your own: move what is still needed elsewhere, then delete it",
        )


def _page_files(pages_dir: Path, page_ids: Iterable[str], plan_ids: set[str]) -> Iterator[Finding]:
    for page_id in page_ids:
        path = pages_dir / f"{page_id}.md"
        if path.is_dir():
            yield Finding(
                "folder in a file's place", page_id, "move it elsewhere: the page cannot be written before that"
            )
            continue
        if not path.is_file():
            planned = "run `quillstone-wiki build`, which writes it again with the prose that the store keeps"
            kept = "its prose is in the store alone; what becomes of the page is said below"
            yield Finding("page without a file", page_id, planned if page_id in plan_ids else kept)
            continue
        try:
            _, sections = split_carried(path.read_text("utf-8"))
        except (OSError, UnicodeDecodeError) as error:
            yield Finding("file that cannot be read", page_id, f"no build or replan goes on before it can be: {error}")
            continue
        for section, times in Counter(sections).items():
            if times > 1:
                title = section.split("\n")[1].removeprefix("## ")
                yield Finding(
                    "section that stands twice",
                    page_id,
                    f"{title!r} stands there {times} times, word for word: delete all but one in the page's file",
                )


def _notes_without_files(generator: WikiGenerator, rows: Rows) -> Iterator[Finding]:
    retired = generator._notes_whose_file_is_gone(rows)
    for note_id, row in rows.items():
        if row["level"] == NOTE_LEVEL and not (generator.pages_dir.parent / row["rel_path"]).is_file():
            fate = (
                "the next build or replan forgets it" if note_id in retired else "it stays until another note is there"
            )
            yield Finding("note without a file", note_id, f"put {row['rel_path']} back to keep it, else {fate}")


def _stale_pages(pages: Rows) -> Iterator[Finding]:
    for page_id, row in pages.items():
        if row["status"] != "fresh":
            yield Finding("stale page", page_id, "a replan changed it since it was built: run `quillstone-wiki build`")


def _pages_out_of_the_plan(generator: WikiGenerator, rows: Rows, pages: Rows, plan_ids: set[str]) -> Iterator[Finding]:
    with captured_warnings([]):
        retired = generator._retired_page_ids(rows, plan_ids)
    for page_id in sorted(pages.keys() - plan_ids):
        if page_id in retired:
            remedy = "the next build deletes it with its prose: merge it into a page that stays to keep that"
            yield Finding("page out of the plan", page_id, remedy)
        else:
            remedy = "the index does not know its sources: run `quillstone-wiki index TREE`, then build"
            yield Finding("page kept as the index is behind", page_id, remedy)
