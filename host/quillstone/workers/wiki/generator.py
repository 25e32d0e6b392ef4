"""The wiki generator: indexes a source tree, plans and writes its pages, files notes, applies replans."""

from __future__ import annotations

import time
from collections.abc import Callable, Iterable, Mapping
from pathlib import Path
from typing import Any, cast

from quillstone.errors import HostError, PageIdError, TreeError
from quillstone.storage.repository import check_page_id
from quillstone.workers.wiki import authoring
from quillstone.workers.wiki.planning import Placement, folder_of, folder_page_id, plan_pages, planned_folders
from quillstone.workers.wiki.prune_guard import PruneGuard
from quillstone.workers.wiki.replan_carry import (
    is_blank,
    join_prose,
    lineages,
    page_prose,
    split_carried,
    text_digest,
)
from quillstone.workers.wiki.repo_facts import _atomic_write, sweep_temporary_files
from quillstone.workers.wiki.source_tree import file_record, list_files
from quillstone.workers.wiki.workspace import Rows, WikiWorkspace
from quillstone.workers.wiki_types import NOTE_LEVEL, PagePlan

Track = Callable[[list[Any], str], Iterable[Any]]
"""Goes through a list and shows, under a label, how far it is."""


def untracked(steps: list[Any], _label: str) -> Iterable[Any]:
    """Go through the steps and show nothing."""
    return steps


class TreeIndexer(WikiWorkspace):
    """Brings the index in line with the tree and plans pages over it."""

    def index(self, track: Track = untracked) -> tuple[int, int]:
        """Index the tree as it is now; gives the number of source files and of all files.

        Raises `TreeError` for a tree that cannot be read and `OSError`, with the index as it was.
        """
        known_tree = self.repository.get_fact(self.branch, "tree")
        if known_tree and Path(known_tree).is_dir() and Path(known_tree) != self.repo_root.resolve():
            raise TreeError(f"this wiki is about {known_tree!r}; give another tree a wiki of its own with --wiki")
        paths = list_files(self.repo_root, without=self.pages_dir.parent)
        records = [file_record(self.repo_root, path) for path in track(paths, "Indexing")]
        with self.lock.held(), self.repository.db.transaction():
            self.repository.record_indexed_files(records)
            known = {record["path"] for record in self.repository.list_indexed_files()[0]}
            self.repository.forget_indexed_files(known.difference(paths))
            self.repository.put_fact(self.branch, "tree", str(self.repo_root.resolve()))
        return sum(record["is_source"] for record in records), len(records)

    def plan(self) -> list[PagePlan]:
        """The plan of record: a page for each folder that the index knows sources of, after all replans so far."""
        return plan_pages(self.repo_root, self._indexed_sources(), self._placements())

    def _indexed_sources(self) -> list[str]:
        return [record["path"] for record in self.repository.list_indexed_files(source_only=True)[0]]

    def _placements(self) -> dict[str, Placement]:
        return cast("dict[str, Placement]", self.repository.get_fact(self.branch, "placements") or {})

    def _place_folders(self, remap: Mapping[str, str], plan_ids: set[str], before: Rows) -> None:
        # Only what is really gone moves: a page that the prune kept stays where its folder is.
        retired = before.keys() - self.stored_pages().keys()
        origins = {successor: pages for successor, pages in lineages(remap).items() if successor in plan_ids}
        placements = self._placements()
        for folder in planned_folders(map(folder_of, self._indexed_sources())):
            own_id = folder_page_id(folder)
            now = placements.get(own_id) or Placement(page=own_id, merged=False)
            if now["page"] in retired:
                heir = next((successor for successor, pages in origins.items() if now["page"] in pages), None)
                renamed = heir is not None and heir not in before and remap.get(heir) == now["page"]
                placements[own_id] = Placement(page=heir, merged=now["merged"] or not renamed)
        self.repository.put_fact(self.branch, "placements", placements)


class NoteKeeper(WikiWorkspace):
    """Files the notes of people."""

    def file_note(self, note_id: str, title: str, text: str) -> Path:
        """Write and store a research note; gives its file. Raises `HostError` for an id that is taken."""
        check_page_id(note_id)
        if "/" in note_id:
            raise PageIdError(f"note id {note_id!r} holds a slash; notes lie side by side in one folder")
        path = self.pages_dir.parent / "notes" / f"{note_id}.md"
        prose, title = authoring.clean_text(text).strip("\n"), authoring.clean_text(title)
        content = f"# {title}\n\n{prose}\n"
        with self.lock.held():
            # The same text without a row is what a run left whose commit failed.
            is_taken = path.exists() and not (path.is_file() and path.read_bytes() == content.encode())
            if is_taken or note_id in self.stored_pages():
                raise HostError(f"the id {note_id!r} is taken by a page or a note; choose another, or edit {path}")
            with self.repository.db.transaction():  # the file last: without it the row goes, too
                self.repository.file_note(self.branch, note_id, title, authoring.split_chunks(prose))
                _atomic_write(path, content)
        return path


class WikiGenerator(PruneGuard, TreeIndexer, NoteKeeper):
    """Writes the wiki of one tree and applies plans to it."""

    prune_seconds = 0.0
    """How long the last prune took."""

    def build(self, track: Track = untracked) -> tuple[int, int]:
        """Write and store every planned page, fresh, then prune; gives how many were written and how many deleted.

        What a person wrote on a page stays, as do carried sections; prose that nobody touched follows the sources.
        """
        with self.lock.held():
            rows = self.stored_pages()
            plans = self.plan()
            for plan in plans:
                if rows.get(plan.page_id, {}).get("level") == NOTE_LEVEL:
                    raise HostError(f"the note {plan.page_id!r} has the id of a folder's page; rename note and file")
                if not plan.folders and plan.page_id in rows:
                    plan.title = rows[plan.page_id]["title"]
            titles = {plan.page_id: plan.title for plan in plans}
            texts = {plan.page_id: self._page_text(plan.page_id) for plan in plans}
            digests = {record["path"]: record["digest"] for record in self.repository.list_indexed_files()[0]}
            with self.repository.db.transaction():
                for plan in track(plans, "Writing pages"):
                    self._save_page(plan, rows.get(plan.page_id), texts[plan.page_id], titles, digests)
            deleted = self._prune_retired_pages(self.stored_pages(), set(titles))
        return len(plans), deleted

    def _save_page(
        self,
        plan: PagePlan,
        stored: dict[str, Any] | None,
        before: str | None,
        titles: Mapping[str, str],
        digests: Mapping[str, str],
    ) -> None:
        row = stored or {"page_id": plan.page_id, "title": plan.title}
        draft = join_prose(self._drafts(plan))
        own, sections = split_carried(page_prose(before, row))
        cache = row.get("build_cache") or {}
        if is_blank(own) or cache.get("draft") == text_digest(own):
            own = draft
        prose = join_prose([own, *sections])
        links = {page_id: titles[page_id] for page_id in plan.related_pages}
        text = authoring.page_text(plan.title, plan.source_files, links, prose)
        if text != before:
            _atomic_write(self.pages_dir / f"{plan.page_id}.md", text)
        self.repository.save_wiki_page(
            self.branch,
            plan.page_id,
            plan.title,
            chunks=authoring.split_chunks(prose),
            build_cache={**cache, "prose": prose, "draft": text_digest(draft)},
            description=" ".join(authoring.first_paragraph(own).split())[:200],
            parent_section=plan.parent,
            source_files=plan.source_files,
            source_hashes={path: digests[path] for path in plan.source_files},
            related_pages=plan.related_pages,
            content_hash=text_digest(text),
            model="docstrings",
        )

    def _drafts(self, plan: PagePlan) -> Iterable[str]:
        for folder in plan.folders:
            files = [path for path in plan.source_files if folder_of(path) == folder]
            yield authoring.draft_prose(self.repo_root, folder, files)

    def apply_replan(self, remap: Mapping[str, str], plan_ids: set[str]) -> int:
        """Bring store and page files to the plan `plan_ids`; gives the number of pages deleted.

        Args:
            remap: each new page to the stored page that it continues; a `ReplanRemap` also says which pages are
                merged into which.

        Raises `ReplanError` or `PageIdError` before anything changes; after any other exception the rows are as they
        were and no prose is lost, and the same call may be made again.
        """
        with self.lock.held():
            before = self.stored_pages()
            # A build between a replan and the note of it would take the replan's pages for strangers.
            with self.repository.db.ending_with(lambda: self._place_folders(remap, plan_ids, before)):
                return self._apply_replan_to_store(remap, plan_ids)

    def _apply_replan_to_store(self, remap: Mapping[str, str], plan_ids: set[str]) -> int:
        with self.lock.held():
            return super()._apply_replan_to_store(remap, plan_ids)

    def _prune_retired_pages(self, existing: Rows, plan_ids: set[str], remap: Mapping[str, str] | None = None) -> int:
        with self.lock.held():
            for folder in (self.pages_dir, self.pages_dir.parent / "notes"):
                sweep_temporary_files(folder)
            self._refuse_what_loses_prose(existing, plan_ids, {} if remap is None else remap)
            started = time.perf_counter()
            deleted = super()._prune_retired_pages(existing, plan_ids, remap)
            self.prune_seconds = time.perf_counter() - started
        return deleted
