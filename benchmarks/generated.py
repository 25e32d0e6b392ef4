"""Generated wikis: families of eight pages of which half retire, as the same data for any store."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Any

BRANCH = "main"
FAMILY = 8
FILES_A_PAGE = 5  # source files, where nothing else is said
PROSE = "What this page says about its source files, in a sentence or two of somebody's own. "


@dataclass
class Wiki:
    """Stored pages, an index, and a replan under which the second half of every family is merged away."""

    rows: list[dict[str, Any]] = field(default_factory=list)
    indexed: list[dict[str, str]] = field(default_factory=list)
    notes_with_file: set[str] = field(default_factory=set)
    plan_ids: set[str] = field(default_factory=set)
    seeds: dict[str, str] = field(default_factory=dict)
    merged: dict[str, list[str]] = field(default_factory=dict)
    deletes: set[str] = field(default_factory=set)  # what a prune has to delete

    @property
    def existing(self) -> dict[str, dict[str, Any]]:
        return {row["page_id"]: row for row in self.rows}

    def pages_with_file(self) -> Iterator[tuple[str, str]]:
        """Every other page's id and text; the rest has cached prose alone."""
        for row in self.rows[::2]:
            if row["level"] != "note":
                yield row["page_id"], row["build_cache"]["prose"]


def generate(pages: int, files_a_page: int = FILES_A_PAGE) -> Wiki:
    """Make a wiki of `pages` pages (a multiple of 8), each with so many source files.

    In a family the first page is the successor; in every fourth one the successor is new, and seeded by the first page
    that is merged into it. Every second family holds a note (a quarter of them without their file), every fifth a
    parent without files of its own, every tenth a page that an index behind the tree hides.
    """
    wiki = Wiki()
    for number in range(pages // FAMILY):
        _add_family(wiki, number, files_a_page)
    return wiki


def _add_family(wiki: Wiki, number: int, files_a_page: int) -> None:
    ids = [f"page-{number * FAMILY + i:07d}" for i in range(FAMILY)]
    kept, merged = ids[: FAMILY // 2], ids[FAMILY // 2 :]
    paths = {page_id: [f"src/{page_id}/file{i}.c" for i in range(files_a_page)] for page_id in ids}
    rows = {page_id: _row(page_id, paths[page_id]) for page_id in ids}
    wiki.rows.extend(rows.values())
    wiki.plan_ids.update(kept)
    if number % 2 == 0:
        note = kept[1]
        rows[note].update(level="note", source_files=[], rel_path=f"notes/{note}.md")
        paths.pop(note)
        if number % 8 == 0:
            wiki.deletes.add(note)
        else:
            wiki.notes_with_file.add(note)
    if number % 5 == 0:
        rows[merged[3]].update(source_files=[], related_pages=merged[:3])
        paths.pop(merged[3])
    if number % 10 == 0:
        wiki.plan_ids.discard(kept[3])
        paths.pop(kept[3])
    wiki.indexed.extend({"path": path} for own in paths.values() for path in own)
    successor = kept[0]
    if number % 4 == 0:
        successor = f"new-{number:07d}"
        wiki.seeds[successor] = merged[0]
        wiki.plan_ids.add(successor)
    wiki.merged[successor] = merged if successor == kept[0] else merged[1:]
    wiki.deletes.update(merged)


def _row(page_id: str, files: list[str]) -> dict[str, Any]:
    return {
        "page_id": page_id,
        "title": f"About {page_id}",
        "level": "module",
        "source_files": files,
        "related_pages": [],
        "rel_path": f"pages/{page_id}.md",
        "description": "d",
        "symbols": ["s"],
        "build_cache": {"prose": f"{PROSE}{page_id}", "plan": {"a": 1}},
    }
