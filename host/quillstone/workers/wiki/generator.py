"""The wiki generator: indexes a source tree, plans and writes its pages, files notes, prunes, brings texts back."""

import os
import shutil
from collections.abc import Callable, Iterable, Mapping, Sequence
from contextlib import suppress
from dataclasses import dataclass, field
from datetime import datetime, timezone
from pathlib import Path
from typing import Any, TypeVar, cast

from rich.console import Console
from rich.progress import track

from quillstone.errors import HostError, PageChangedError, PageIdError, ReplanError
from quillstone.storage.repository import EXCLUDED, GONE, INDEXED, Repository, check_page_id
from quillstone.workers.wiki import authoring
from quillstone.workers.wiki import replan_carry as carry
from quillstone.workers.wiki.page_files import PageFiles, Run, decoded
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from quillstone.workers.wiki.planning import Placement, folder_page_id, moved_folders, plan_pages
from quillstone.workers.wiki.repo_facts import TEMPORARY, _atomic_write, digest, write_durably
from quillstone.workers.wiki.source_tree import file_record, list_files
from quillstone.workers.wiki.wiki_lock import WikiLock, whoami
from quillstone.workers.wiki_types import NOTE_LEVEL, PagePlan, Rows

Result = TypeVar("Result")
TRIES = 5  # of a run, while somebody saves pages that it has read


def progress(steps: list[Any], label: str) -> Iterable[Any]:
    """Show a bar on standard error while the steps are gone through, where that is a terminal."""
    return track(steps, label, console=Console(stderr=True), disable=not os.isatty(2))


@dataclass
class RunOutcome:
    """What a run did beside its result."""

    written: int = 0
    deleted: int = 0
    moved: dict[str, str] = field(default_factory=dict)  # page whose folder moved to the page that continues it
    kept_texts: dict[str, str] = field(default_factory=dict)  # page that lost a person's text to the file that keeps it
    recovered: list[str] = field(default_factory=list)  # what became of runs that had been stopped


def note_text(path: Path) -> str:
    """The text of a note's file; raises `HostError` and `OSError` for one that cannot be stored."""
    check_page_id(path.stem)
    if not path.is_file():
        raise HostError(f"{path} is no file")
    return decoded(path, path.read_bytes())


class WikiGenerator(PageRetirementMixin):
    """Writes the wiki of one tree and applies plans to it, for one thread; `HostError` is what a person can mend."""

    def __init__(self, repository: Repository, repo_root: Path, branch: str, wiki_dir: Path) -> None:
        """Work on the wiki in `wiki_dir` (its pages/ and notes/) about the tree `repo_root`."""
        self.repository, self.repo_root, self.branch = repository, repo_root, branch
        self.wiki_dir, self.files, self.lock = wiki_dir, PageFiles(wiki_dir), WikiLock(wiki_dir)
        self.pages_dir = self.files.pages_dir
        self.outcome = RunOutcome()
        self._sources_taken: dict[str, list[str]] = {}

    def stored_pages(self) -> Rows:
        """The branch's page rows by page id."""
        return {row["page_id"]: row for row in self.repository.get_wiki_pages(self.branch)}

    # Runs.

    def in_run(self, command: str, work: Callable[[], Result], dry: bool = False) -> Result:
        """Do the work as one run, or as a part of the one under way: all of its changes are made or, when dry, none.

        It begins anew when somebody saves a page that it has read; after `TRIES` times it raises `PageChangedError`.
        """
        if self.files.run:
            return work()
        with self.lock.held():
            self.files.stopping, (recovered, kept) = False, self._recover()
            for tries_left in reversed(range(TRIES)):
                self.outcome = RunOutcome(recovered=recovered)
                run = Run(self.files, f"{datetime.now(timezone.utc):%Y-%m-%dT%H-%M-%S.%f}-{command}", dry)
                try:
                    result = self._attempt(run, work)
                    break
                except PageChangedError:
                    if not tries_left:
                        raise
                finally:
                    self.files.run = None
            self.outcome.kept_texts = kept | self.outcome.kept_texts
        return result

    def _attempt(self, run: Run, work: Callable[[], Result]) -> Result:
        try:
            with self.repository.db.transaction(run.dry):
                self.repository.db.take_turn(self.branch, whoami())
                self.files.run = run
                result = work()
                run.check()
                if run.folder.exists():
                    changes = {"staged": run.staged, "removed": run.removed, "heirs": run.heirs}
                    self.repository.put_fact("", f"run {run.id}", changes)
        except BaseException:
            with suppress(Exception):  # what cannot be settled now is left to the next run
                if not self._settle(run):
                    shutil.rmtree(run.folder, ignore_errors=True)
            raise
        if run.dry:
            self.outcome.kept_texts = run.would_keep()
            shutil.rmtree(run.folder)
        else:
            self._settle(run)
        return result

    def _settle(self, run: Run) -> bool:
        # Finish a run that was committed; only the store knows whether it was.
        if changes := None if run.dry else self.repository.get_fact("", f"run {run.id}"):
            run.staged, run.removed, run.heirs = changes["staged"], changes["removed"], changes["heirs"]
            self.outcome.kept_texts |= run.finish()
            self.repository.put_fact("", f"run {run.id}", None)
        return bool(changes)

    def _recover(self) -> tuple[list[str], dict[str, str]]:
        # End the runs that were stopped; gives what became of them, and which texts are kept of them.
        self.outcome = RunOutcome()
        for left in self.wiki_dir.glob(f"[np]*/{TEMPORARY}{'[0-9a-f]' * 16}"):
            left.rmdir() if left.is_dir() else left.unlink()
        for run_id in self.files.unfinished():
            with self.repository.db.transaction():
                self.repository.db.take_turn(self.branch, whoami())
                run, fate = Run(self.files, run_id), "was stopped after its commit; it is finished now"
                if not self._settle(run):
                    fate = "had changed nothing when it was stopped"
                    stored = map(carry.cached_prose, self.stored_pages().values())
                    self.outcome.kept_texts |= run.end(run.folder, carry.joined([*stored, *self.files.texts()]))
            self.outcome.recovered.append(f"{run_id}, {fate}")
        return self.outcome.recovered, self.outcome.kept_texts

    # The index and the plan.

    def index(self) -> tuple[int, int, dict[str, str]]:
        """Index the tree as it is now; gives how many source files and files there are, which were missed, and why."""
        tree = os.path.relpath(self.repo_root.resolve(), self.wiki_dir.resolve())
        known_tree = self.repository.get_fact(self.branch, "tree")
        if known_tree and known_tree != tree and (self.wiki_dir / known_tree).is_dir():
            raise HostError(f"this wiki is about {known_tree!r}; give another tree a wiki of its own with --wiki")
        paths, missed = list_files(self.repo_root, without=self.wiki_dir)
        found = {path: {**file_record(self.repo_root, path), "state": INDEXED} for path in progress(paths, "Indexing")}

        def record() -> None:
            before = {record["path"]: record for record in self.repository.list_indexed_files()[0]}
            unread = {path: before[path] for path, record in found.items() if not record["digest"] and path in before}
            # What pages are judged by, and is there without being indexed, was left out on purpose.
            judged = {path for row in self.stored_pages().values() for path in row["source_files"]} - found.keys()
            there = {path for path in judged | before.keys() - found.keys() if os.path.lexists(self.repo_root / path)}
            rest = [{**file_record(self.repo_root, path), "state": EXCLUDED} for path in sorted(there)]
            gone = [{**before[path], "state": GONE} for path in before.keys() - found.keys() - there]
            self.repository.record_indexed_files([*(found | unread).values(), *rest, *gone])
            self.repository.put_fact(self.branch, "tree", tree)

        self.in_run("index", record)
        return sum(record["is_source"] for record in found.values()), len(found), missed

    def plan(self, rows: Rows) -> list[PagePlan]:
        """The plan of record: a page for each folder that the index knows sources of, after all replans so far."""
        notes = [page_id for page_id, row in rows.items() if row["level"] == NOTE_LEVEL]
        plans = plan_pages(self.repo_root, self._planned_files(), self.placements(), notes)
        for plan in plans:
            plan.title = plan.title or carry.cached_prose(rows.get(plan.page_id, {}), "heading") or plan.page_id
        return plans

    def _planned_files(self) -> Rows:
        records = self.repository.list_indexed_files(source_only=True)[0]
        return {record["path"]: record for record in records if record["state"] == INDEXED}

    def placements(self) -> dict[str, Placement]:
        """Where replans put folders, by the page id that a folder has by itself."""
        return cast("dict[str, Placement]", self.repository.get_fact(self.branch, "placements") or {})

    def _place(self, changes: Mapping[str, Placement]) -> None:
        self.repository.put_fact(self.branch, "placements", {**self.placements(), **changes})

    # Pages.

    def build(self) -> RunOutcome:
        """Write and store every planned page, fresh, and prune; what a person wrote on a page stays."""
        self.in_run("build", self._build)
        return self.outcome

    def _build(self) -> None:
        self._store_notes()
        self.continue_moved_pages()
        rows = self.stored_pages()
        plans, planned = self.plan(rows), self._planned_files()
        self._prune_retired_pages(rows, {plan.page_id for plan in plans})
        titles = {plan.page_id: self._read(plan, rows).title or plan.title for plan in plans}
        for plan in progress(plans, "Writing pages"):
            self._save_page(plan, rows, titles, planned)
            for own_id in map(folder_page_id, plan.own_folders if plan.page_id.endswith("%") else ()):
                self._place({own_id: Placement(page=plan.page_id, merged=False)})  # its own id was taken
        self.repository.forget_indexed_files(record["path"] for record in self.repository.files_gone())
        self.outcome.written = len(plans)

    def _read(self, plan: PagePlan, rows: Rows, generated: str = "") -> carry.PageText:
        row, text = rows.get(plan.page_id, {}), self._page_text(plan.page_id)
        return carry.read_page(carry.cached_prose(row) if text is None else text, row, generated)

    def _save_page(
        self, plan: PagePlan, rows: Rows, titles: Mapping[str, str], planned: Rows, page: carry.PageText | None = None
    ) -> None:
        row = rows.get(plan.page_id, {})
        facts, said = authoring.generated_text(self.repo_root, plan, titles)
        generated = carry.join_prose([facts, said])
        page = page or self._read(plan, rows, generated)
        if page.title and carry.page_title_line(plan.title) == carry.page_title_line(page.title):
            page = page._replace(title=None)  # nobody's own
        text = authoring.page_text(plan.title, page, generated)
        _atomic_write(self.files.page_file(plan.page_id), text)
        if row.get("status") == "stale":  # what a replan put here stands in the row, whatever was saved over it since
            self.files.run.keep_cached(plan.page_id, carry.cached_prose(row))
        # Files that the index has lost and that are there have a say in the page's fate, too.
        unindexed = [path for path in row.get("source_files") or () if path not in planned]
        cache = {"prose": page.whole, "heading": plan.title, carry.GENERATED: generated}
        self.repository.save_wiki_page(
            self.branch,
            plan.page_id,
            authoring.clean_text(page.title or plan.title),
            chunks=authoring.split_chunks(carry.join_prose([said, page.prose])),
            build_cache={**(row.get("build_cache") or {}), **cache},
            parent_section=plan.parent,
            source_files=[*plan.judged_files, *filter(lambda path: os.path.lexists(self.repo_root / path), unindexed)],
            source_hashes={path: planned[path]["digest"] for path in plan.judged_files},
            related_pages=plan.related_pages,
            content_hash=digest(text),
        )

    def continue_moved_pages(self) -> None:
        """Where most of a folder stands below another now, let its page go on there, as a renaming would."""
        if not (moves := moved_folders(self.repository.files_gone(), self._planned_files().values())):
            return
        placements, rows = self.placements(), self.stored_pages()
        ids = {folder_page_id(old): new for old, new in moves.items()}
        along = {folder_page_id(new): placements[own] for own, new in ids.items() if own in placements}
        self._place(along | placements)
        plans = self.plan(rows)
        page_of = {folder: plan.page_id for plan in plans for folder in plan.folders}
        seeds: dict[str, str] = {}
        merged: dict[str, list[str]] = {}
        may_go = ids.keys() & self._retired_page_ids(rows, {*rows}.difference(ids))
        may_go -= {plan.page_id for plan in plans if plan.own_folders}
        for page_id in sorted(may_go):
            if (target := page_of.get(ids[page_id])) and target not in may_go:
                here = [own_id for own_id, place in self.placements().items() if place["page"] == page_id]
                self._place({own_id: Placement(page=target, merged=True, was=page_id) for own_id in here})
                self.outcome.moved[page_id] = target
                if target in rows or seeds.setdefault(target, page_id) != page_id:
                    merged.setdefault(target, []).append(page_id)
        if self.outcome.moved:
            stay = {*rows, *seeds}.difference(self.outcome.moved)
            self._prune_retired_pages(rows, stay, carry.ReplanRemap(seeds, merged))

    # Notes.

    def file_note(self, note_id: str, title: str, text: str) -> Path:
        """Write and store a research note; gives its file, which stays even if the note cannot be stored."""
        check_page_id(note_id)
        if "/" in note_id:
            raise PageIdError(f"note id {note_id!r} holds a slash; notes lie side by side in one folder")
        path = self.wiki_dir / "notes" / f"{note_id}.md"
        content = (carry.PageText(*map(authoring.clean_text, (title, text))).whole + "\n").encode()

        def file() -> None:
            if os.path.lexists(path) or note_id in self.stored_pages():
                raise HostError(f"the id {note_id!r} is taken by a page or a note; choose another, or edit {path}")
            write_durably(path, content)
            self._store_notes()

        self.in_run("note", file)
        return path

    def _store_notes(self) -> None:
        # A note is its file: one without a row is filed, one that was edited is stored again.
        rows = self.stored_pages()
        for path in sorted((self.wiki_dir / "notes").glob("*.md")):
            row = rows.get(path.stem) or {"level": NOTE_LEVEL, "content_hash": None}
            with suppress(OSError, HostError):  # the doctor names it
                text = note_text(path)
                fields = {"level": NOTE_LEVEL, "rel_path": f"notes/{path.name}", "content_hash": digest(text)}
                if row["level"] == NOTE_LEVEL and row["content_hash"] != fields["content_hash"]:
                    title, prose = carry.read_page(authoring.clean_text(text), {})
                    chunks = authoring.split_chunks(prose)
                    self.repository.save_wiki_page(self.branch, path.stem, title or path.stem, chunks=chunks, **fields)

    # Replans.

    def place_folders(self, retired: Iterable[str], heir: Callable[[str], str | None], merged: set[str]) -> None:
        """Note where the folders of retired pages belong from now on; whether they are indexed does not matter."""
        placements = self.placements()
        for page_id in retired:
            here = {own_id: place["merged"] for own_id, place in placements.items() if place["page"] == page_id}
            if all(here.values()):
                here[page_id] = False  # a page of its folder's own name
            for own_id, was_merged in here.items():
                placements[own_id] = Placement(page=heir(page_id), merged=was_merged or page_id in merged, was=page_id)
        self._place(placements)

    def _apply_replan_to_store(self, remap: Mapping[str, str], plan_ids: set[str]) -> int:
        return self.in_run("replan", lambda: super(WikiGenerator, self)._apply_replan_to_store(remap, plan_ids))

    def _prune_retired_pages(self, existing: Rows, plan_ids: set[str], remap: Mapping[str, str] | None = None) -> int:
        return self.in_run("prune", lambda: self._prune(existing, plan_ids, remap))

    def _prune(self, existing: Rows, plan_ids: set[str], remap: Mapping[str, str] | None) -> int:
        run, origins = self.files.run, carry.lineages({} if remap is None else remap)
        safe = plan_ids.union(*(pages for successor, pages in origins.items() if successor in plan_ids))
        for successor, pages in origins.items():
            check_page_id(successor)
            if successor not in safe:
                raise ReplanError(
                    f"page {successor!r} takes prose but is not in the plan; merge it on into one that is"
                )
            for page_id in pages:
                run.heirs.setdefault(page_id, []).append(successor)
            sources = (existing.get(page_id, {}).get("source_files") or () for page_id in pages)
            self._sources_taken[successor] = [path for paths in sources for path in paths]
        run.spared |= {page_id for page_id, row in existing.items() if row.get("level") == NOTE_LEVEL}
        deleted = super()._prune_retired_pages(existing, plan_ids, remap)
        for page_id in run.removed.keys() & existing.keys():
            run.keep_cached(page_id, carry.cached_prose(existing[page_id]))
        self.outcome.deleted += deleted
        return deleted

    def _upsert_successor(self, new_id: str, row: dict[str, Any], files: list[str], carried: Sequence[str]) -> None:
        # Judged by all sources that it took over: too few would not protect it while the index is behind.
        taken = [path for path in self._sources_taken.get(new_id, ()) if path not in files]
        if (text := self._page_text(new_id)) is not None:  # what a person may replace before the next build
            row = {**row, "build_cache": {**(row.get("build_cache") or {}), "prose": carry.read_page(text, row).whole}}
        super()._upsert_successor(new_id, row, [*files, *dict.fromkeys(taken)], carried)

    def _page_text(self, page_id: str) -> str | None:
        text = super()._page_text(page_id)
        return None if text is None or carry.is_blank(text) else text  # what it gets follows its cached prose

    # What is kept.

    def restore(self, page_id: str, into: str = "", run: str = "") -> str:
        """Bring a kept text back, of the last run or the one given, to its page or the page `into`; gives that page."""
        return self.in_run("restore", lambda: self._restore(page_id, into, run))

    def _restore(self, page_id: str, into: str, run: str) -> str:
        found = [(kept, file) for kept, kept_id, file in self.files.kept() if kept_id == page_id and run in ("", kept)]
        placements = self.placements()
        dropped = [place for place in placements.values() if place["page"] is None and place.get("was") == page_id]
        if not found and (into or run or not dropped):
            raise HostError(f"no text of page {page_id!r} is kept; `quillstone-wiki retired` lists what is")
        for place in () if into else dropped:
            place["page"] = page_id
        self._place(placements)
        rows, target = self.stored_pages(), into or page_id
        plans = {plan.page_id: plan for plan in self.plan(rows)}
        if target not in plans:
            raise HostError(f"the plan has no page {target!r}; name one that it has with --into")
        titles = {plan_id: rows.get(plan_id, {}).get("title") or plan.title for plan_id, plan in plans.items()}
        title, prose = self._read(plans[target], rows)
        for file in [file for kept, file in found if kept == found[-1][0]]:
            text = decoded(file, file.read_bytes())
            kept = carry.read_page(text, {})
            if carry.is_blank(prose) and not into:
                title, prose = title or kept.title, kept.prose
            elif carry.leaves(text, [carry.PageText(title, prose).whole]):
                sections = carry.carried_sections([(kept.title or page_id, kept.prose)])
                prose = carry.with_carried(prose, sections).strip("\n")
        self._save_page(plans[target], rows, titles, self._planned_files(), carry.PageText(title, prose))
        return target

    def forget(self, run: str) -> int:
        """Delete what is kept of a run, for good; gives how many texts that were. Raises `HostError`."""
        with self.lock.held():
            texts = [file for kept, _, file in self.files.kept() if kept == run]
            if not texts:
                raise HostError(f"nothing is kept of a run {run!r}; `quillstone-wiki retired` lists the runs")
            shutil.rmtree(self.files.retired_dir / run)
        return len(texts)
