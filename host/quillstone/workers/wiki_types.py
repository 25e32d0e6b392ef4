"""What the modules of the wiki share."""

from dataclasses import dataclass, field
from typing import Any

NOTE_LEVEL = "note"  # the level of a research note: filed by a person, never derived from a plan
Rows = dict[str, dict[str, Any]]  # page rows by page id


@dataclass
class PagePlan:
    """One page that the plan of record contains."""

    page_id: str
    title: str
    parent: str | None = None
    folders: list[str] = field(default_factory=list)  # that the page describes
    own_folders: list[str] = field(default_factory=list)  # those of them that were not merged into it
    source_files: list[str] = field(default_factory=list)  # in its folders
    judged_files: list[str] = field(default_factory=list)  # these or, on a page that only heads others, all below
    related_pages: list[str] = field(default_factory=list)
