"""The plan of record: one page for each folder of sources, where replans have put it since."""

from __future__ import annotations

import hashlib
import re
from collections.abc import Iterable, Iterator, Mapping
from pathlib import Path
from typing import TypedDict

from quillstone.workers.wiki.authoring import folder_title
from quillstone.workers.wiki_types import PagePlan

ROOT_PAGE = "root"
LONGEST_ID = 200 - len(".md")  # bytes; tools put marks of their own beside a file's name


class Placement(TypedDict):
    """Where a replan put a folder: its page (None: dropped), and whether as a part of another folder's page."""

    page: str | None
    merged: bool


def folder_page_id(folder: str) -> str:
    """The page id of a folder, by its posix path relative to the tree ("" for the tree itself); unique and stable."""
    if not folder:
        return ROOT_PAGE
    escaped = re.sub(r"[%.\\\x00-\x1f\x7f]", lambda match: f"%{ord(match[0]):02X}", folder)
    page_id = escaped.replace("/", ".")
    if page_id == ROOT_PAGE:
        return f"%{ord(ROOT_PAGE[0]):02X}{ROOT_PAGE[1:]}"
    if len(page_id.encode()) <= LONGEST_ID:
        return page_id
    tail = f"%-{hashlib.sha256(folder.encode()).hexdigest()[:16]}"
    return page_id.encode()[: LONGEST_ID - len(tail)].decode("utf-8", "ignore") + tail


def plan_pages(root: Path, source_paths: Iterable[str], placements: Mapping[str, Placement]) -> list[PagePlan]:
    """Plan the pages of a tree over its indexed source files.

    Args:
        source_paths: the files, relative to `root`.
        placements: what replans did, by the page id that a folder has by itself.
    """
    files: dict[str, list[str]] = {}
    for path in sorted(source_paths):
        files.setdefault(folder_of(path), []).append(path)
    pages: dict[str, PagePlan] = {}
    page_of: dict[str, PagePlan] = {}
    for folder in planned_folders(files):
        own_id = folder_page_id(folder)
        placement = placements.get(own_id) or Placement(page=own_id, merged=False)
        if placement["page"] is None:
            continue
        page = page_of[folder] = pages.setdefault(placement["page"], PagePlan(placement["page"], placement["page"]))
        page.source_files += files.get(folder, [])
        if not placement["merged"]:
            page.folders.append(folder)
            page.title = folder_title(root, folder)
    for folder, page in page_of.items():
        _relate(folder, page, page_of)
    return list(pages.values())


def folder_of(path: str) -> str:
    """The folder that a relative path lies in, "" for the tree itself."""
    return path.rpartition("/")[0]


def planned_folders(folders: Iterable[str]) -> list[str]:
    """The folders and all that they lie in, outermost first."""
    return sorted({ancestor for folder in folders for ancestor in (folder, *_ancestors(folder))})


def _relate(folder: str, page: PagePlan, page_of: Mapping[str, PagePlan]) -> None:
    # A page is listed by the one above it and by all further up that own no files, which are judged by those below.
    above = [page_of[ancestor] for ancestor in _ancestors(folder) if page_of.get(ancestor, page) is not page]
    if above and folder in page.folders:
        page.parent = above[0].page_id
    for head in above:
        if (head is above[0] or not head.source_files) and page.page_id not in head.related_pages:
            head.related_pages.append(page.page_id)


def _ancestors(folder: str) -> Iterator[str]:
    while folder:
        folder = folder_of(folder)
        yield folder
