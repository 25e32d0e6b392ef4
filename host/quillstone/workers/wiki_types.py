"""What a wiki is planned in."""

from dataclasses import dataclass, field
from typing import Any

NOTE_LEVEL = "note"  # the level of a research note: filed by a person, never derived from a plan
Rows = dict[str, dict[str, Any]]  # page rows by page id


@dataclass
class PagePlan:
    """One page that the plan of record contains.

    `folders` are those that the page describes, `own_folders` those of them that were not merged into it, and
    `source_files` the files in them. The page's fate is judged by `judged_files`: its own or, for a page that only
    heads others, all files below its folders.
    """

    page_id: str
    title: str
    parent: str | None = None
    folders: list[str] = field(default_factory=list)
    own_folders: list[str] = field(default_factory=list)
    source_files: list[str] = field(default_factory=list)
    judged_files: list[str] = field(default_factory=list)
    related_pages: list[str] = field(default_factory=list)
