"""The plan of record: one page for each folder of sources, where replans have put it since."""

import hashlib
import re
from bisect import bisect
from collections import Counter
from collections.abc import Iterable, Iterator, Mapping
from itertools import groupby
from pathlib import Path
from posixpath import dirname
from typing import Any, TypedDict

from quillstone.workers.wiki.authoring import folder_title
from quillstone.workers.wiki_types import PagePlan

ROOT_PAGE = "root"
LONGEST_ID = 190  # bytes; a page id may be ten bytes longer


class Placement(TypedDict, total=False):
    """Where a replan put a folder: on which page (None: dropped), as a part of another's or not, and from which."""

    page: str | None
    merged: bool
    was: str


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


def plan_pages(
    root: Path, source_paths: Iterable[str], placements: Mapping[str, Placement], taken: Iterable[str] = ()
) -> list[PagePlan]:
    """Plan the pages of a tree over its indexed source files, given relative to `root`.

    `placements` says what replans did, by the page id that a folder has by itself. A folder whose id is `taken`, by
    a note, gets another. A page that no folder gives a title has "".
    """
    paths = sorted(source_paths)
    files = {folder: [*within] for folder, within in groupby(sorted(paths, key=dirname), dirname)}
    # The name that a page was given by a replan is not that of a folder that comes later.
    names = {place["page"] for own_id, place in placements.items() if not place["merged"] and place["page"] != own_id}
    names.update(taken)
    pages: dict[str, PagePlan] = {}
    page_of: dict[str, PagePlan] = {}
    for folder in sorted({*files, *(above for within in files for above in _ancestors(within))}):
        own_id = free_id = folder_page_id(folder)
        while free_id in names:
            free_id += "%"
        place = placements.get(own_id) or Placement(page=free_id, merged=False)
        if place["page"] is not None:
            page = page_of[folder] = pages.setdefault(place["page"], PagePlan(place["page"], ""))
            page.source_files += files.get(folder, [])
            page.folders.append(folder)
            if not place["merged"]:
                page.title = page.title or folder_title(root, folder)
                page.own_folders.append(folder)
    for folder, page in page_of.items():
        page.judged_files = page.source_files or [path for below in page.folders for path in _below(paths, below)]
        _relate(folder, page, page_of)
    return list(pages.values())


def moved_folders(gone: Iterable[Mapping[str, Any]], indexed: Iterable[Mapping[str, Any]]) -> dict[str, str]:
    """Find the folder below which most of each folder's files stand now, from the records of files gone and there."""
    places: dict[str, list[str]] = {}
    for record in indexed:
        places.setdefault(record["digest"], []).append(record["path"])
    gone = [record for record in gone if record["size"]]  # empty files are all alike
    targets: dict[str, Counter[str]] = {}
    for record in gone:
        for new in places.get(record["digest"], ()):
            before, after = record["path"], new
            while before != after and before.rpartition("/")[2] == after.rpartition("/")[2]:
                before, after = dirname(before), dirname(after)
                targets.setdefault(before, Counter())[after] += 1
    total = Counter(above for record in gone for above in _ancestors(record["path"]))
    best = {folder: max(sorted(found), key=found.__getitem__) for folder, found in targets.items()}
    return {folder: new for folder, new in best.items() if 2 * targets[folder][new] > total[folder]}


def _below(paths: list[str], folder: str) -> list[str]:
    return paths[bisect(paths, f"{folder}/") : bisect(paths, f"{folder}0")] if folder else paths  # "0" follows "/"


def _relate(folder: str, page: PagePlan, page_of: Mapping[str, PagePlan]) -> None:
    # A page is listed by the one above it, and by all further up that own no files.
    above = [page_of[ancestor] for ancestor in _ancestors(folder) if page_of.get(ancestor, page) is not page]
    if above and folder in page.own_folders:
        page.parent = above[0].page_id
    for head in above:
        if (head is above[0] or not head.source_files) and page.page_id not in head.related_pages:
            head.related_pages.append(page.page_id)


def _ancestors(folder: str) -> Iterator[str]:
    while folder:
        folder = dirname(folder)
        yield folder
