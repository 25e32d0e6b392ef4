"""What a wiki is planned in."""

from __future__ import annotations

from dataclasses import dataclass, field

NOTE_LEVEL = "note"
"""The level of a research note: filed by a person, never derived from a plan."""


@dataclass
class PagePlan:
    """One page that the plan of record contains.

    `folders` are the folders whose own text the page is drafted from, `source_files` the files that it documents
    (also those of folders merged into it), both relative to the tree. A page without files of its own heads a
    family: `related_pages` then lists every page below it, so that it is judged by their files.
    """

    page_id: str
    title: str
    parent: str | None = None
    folders: list[str] = field(default_factory=list)
    source_files: list[str] = field(default_factory=list)
    related_pages: list[str] = field(default_factory=list)
