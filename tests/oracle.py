"""The rules in plain Python: the module does the same operations in the same order.

Tests put the names that the module imports from its host into a copy of this namespace.
"""
# ruff: noqa: F821
# fmt: off

import contextlib
import json
import logging

logger = logging.getLogger("quillstone.workers.wiki.page_retirement")


def _judged_sources(page, existing):
    own = [_norm(s) for s in page.get("source_files") or []]
    if own:
        return own
    children = [c for c in page.get("related_pages") or [] if c in existing]
    return [_norm(s) for c in children for s in existing[c].get("source_files") or []]


class PageRetirementMixin:
    def _apply_replan_to_store(self, remap, plan_ids):
        existing = {row["page_id"]: row for row in self.repository.get_wiki_pages(self.branch)}
        return self._prune_retired_pages(existing, plan_ids, remap)

    def _prune_retired_pages(self, existing, plan_ids, remap=None):
        deletes = self._retired_page_ids(existing, plan_ids)
        successors = self._carry_into_successors(remap if remap is not None else {}, deletes)
        swallowed = None
        with self.repository.db.transaction():
            try:
                for new_id, (row, files, carried) in successors.items():
                    self._upsert_successor(new_id, row, files, carried)
                deleted = [pid for pid in sorted(deletes) if self.repository.delete_wiki_page(self.branch, pid)]
            except BaseException as error:
                swallowed = error
                raise
        if swallowed is not None:
            raise RuntimeError("the store's transaction swallowed an exception, so what it committed is unknown: "
                               "no page file is removed") from swallowed
        for pid in deleted:
            with contextlib.suppress(OSError):
                (self.pages_dir / f"{pid}.md").unlink(missing_ok=True)
        return len(deleted)

    def _retired_page_ids(self, existing, plan_ids):
        indexed = self._indexed_paths()
        if not indexed:
            logger.warning(
                "wiki prune skipped: the index is empty, so the plan is not authoritative (index the repo first)")
            return set()
        retired = {
            page_id for page_id, page in existing.items()
            if (page.get("level") or "module") != NOTE_LEVEL
            and page_id not in plan_ids
            and not self._retired_only_because_the_index_is_behind(page_id, page, indexed, existing)
        }
        return retired | self._notes_whose_file_is_gone(existing)

    def _notes_whose_file_is_gone(self, existing):
        wiki_dir = self.pages_dir.parent
        notes_dir = wiki_dir / "notes"
        if not notes_dir.is_dir():
            return set()
        for _ in notes_dir.glob("*.md"):
            break
        else:
            return set()
        return {
            page_id for page_id, page in existing.items()
            if page.get("level") == NOTE_LEVEL
            and not (wiki_dir / (page.get("rel_path") or f"notes/{page_id}.md")).is_file()
        }

    def _carry_into_successors(self, remap, deletes):
        rows = {row["page_id"]: row for row in self.repository.get_wiki_pages(self.branch)}
        seeds = {}
        merged = merged_predecessors(remap)
        for new_id, old_id in remap.items():
            if old_id not in rows:
                continue
            if new_id in rows:
                merged.setdefault(new_id, []).insert(0, old_id)
            else:
                seeds[new_id] = old_id
        carried = {new_id: [pid for pid in pids if pid in deletes and pid in rows] for new_id, pids in merged.items()}
        sections = {}
        for new_id, pids in carried.items():
            sections[new_id] = carried_sections(
                (rows[pid].get("title") or pid, page_prose(self._page_text(pid), rows[pid])) for pid in pids
            )
        visited = {}
        for new_id in seeds:
            visited[new_id] = None
        for new_id, blocks in sections.items():
            if blocks:
                visited[new_id] = None
        successors = {}
        for new_id in visited:
            base_id = seeds.get(new_id, new_id)
            row = rows.get(base_id) or {}
            blocks = sections.get(new_id, [])
            base = self._page_text(base_id)
            text = with_carried(base if base is not None else cached_prose(row), blocks)
            if text.strip():
                _atomic_write(self.pages_dir / f"{new_id}.md", text)
            files = list(row.get("source_files") or [])
            if not files:
                files = sorted({f for pid in carried.get(new_id, []) for f in rows[pid].get("source_files") or []})
            successors[new_id] = (row, files, blocks)
        return successors

    def _page_text(self, page_id):
        page_file = self.pages_dir / f"{page_id}.md"
        return page_file.read_text("utf-8") if page_file.is_file() else None

    def _upsert_successor(self, new_id, row, files, carried):
        stored = row.get("build_cache")
        cache = dict(stored) if isinstance(stored, dict) else {}
        if carried:
            cache["prose"] = with_carried(cached_prose(row), carried)
        self.repository.upsert_wiki_page(
            self.branch, new_id, row.get("title") or new_id,
            description=row.get("description") or "", importance=row.get("importance") or "medium",
            level=row.get("level") or "module", parent_section=row.get("parent_section"),
            rel_path=f"pages/{new_id}.md", source_files=files, source_hashes={},
            symbols=row.get("symbols") or [], related_pages=row.get("related_pages") or [],
            citations=row.get("citations") or [], content_hash=row.get("content_hash") or "",
            model=row.get("model") or "agent-session", status="stale", summary=row.get("summary") or "",
            build_cache=json.dumps(cache, ensure_ascii=False), page_type=row.get("page_type") or "",
        )

    def _indexed_paths(self):
        files, _, _, _ = self.repository.list_indexed_files(source_only=True, limit=1_000_000)
        return {_norm(f["path"]) for f in files}

    def _retired_only_because_the_index_is_behind(self, page_id, page, indexed, existing):
        sources = _judged_sources(page, existing)
        if not sources:
            return False
        if set(sources) & indexed:
            return False
        on_disk = [s for s in sources if (self.repo_root / s).exists()]
        if not on_disk:
            return False
        logger.warning(
            "wiki prune skipped for '%s': %d of its source files are missing from the index but still on disk — "
            "the index is incomplete, not the page retired", page_id, len(on_disk))
        return True
