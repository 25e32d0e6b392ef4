"""What a prune refuses before anything changes, since prose would be lost."""

from __future__ import annotations

import os
from collections.abc import Iterable, Mapping
from pathlib import Path
from typing import Any

from quillstone.errors import HostError, PageIdError, ReplanError
from quillstone.storage.repository import check_page_id
from quillstone.workers.wiki.page_retirement import PageRetirementMixin, _judged_sources
from quillstone.workers.wiki.replan_carry import is_blank, lineages, page_prose, split_carried
from quillstone.workers.wiki.workspace import Rows, WikiWorkspace
from quillstone.workers.wiki_types import NOTE_LEVEL


class PruneGuard(PageRetirementMixin, WikiWorkspace):
    """The module's methods, and the checks that belong before them."""

    def _page_text(self, page_id: str) -> str | None:
        try:
            text = super()._page_text(page_id)
        except UnicodeDecodeError as error:
            raise HostError(f"{self.pages_dir / page_id}.md is not UTF-8; save it as UTF-8") from error
        # What is carried to a blank page follows its cached prose.
        return None if text is None or is_blank(text) else text

    def _refuse_what_loses_prose(self, existing: Rows, plan_ids: set[str], remap: Mapping[str, str]) -> None:
        origins = lineages(remap)
        self._refuse_shared_files(existing, plan_ids, origins)
        rows = self.stored_pages() if origins else {}
        for page_id in rows.keys() & {page_id for pages in origins.values() for page_id in pages}:
            self._page_text(page_id)  # one that cannot be read would stop the prune half-way
        safe = set(plan_ids).union(*(pages for successor, pages in origins.items() if successor in plan_ids))
        for successor, pages in origins.items():
            self._refuse_file(successor)
            if successor not in safe:
                raise ReplanError(
                    f"page {successor!r} takes prose but is not in the plan, so the prose would go with it; "
                    "keep the page or merge it on into one that stays"
                )
            for page_id in (successor, *pages):
                if rows.get(page_id, {}).get("level") == NOTE_LEVEL:
                    raise ReplanError(f"{page_id!r} is a note; only pages are merged and renamed")
            seed = rows.get(remap.get(successor, ""))
            if seed and successor not in rows:
                self._refuse_seed(successor, seed, rows, plan_ids)

    def _refuse_shared_files(self, existing: Rows, plan_ids: set[str], successors: Iterable[str]) -> None:
        # By a link to a folder, or where letter case is ignored, two ids may be one file: it would go with the one.
        pages = {page_id for page_id, row in existing.items() if row.get("level") != NOTE_LEVEL}
        going = (pages - plan_ids) | self._notes_whose_file_is_gone(existing)
        files = {self._file_identity(page_id): page_id for page_id in going}
        for page_id in sorted({*existing, *successors} - going) if files.keys() - {None} else ():
            identity = self._file_identity(page_id)
            if identity and identity in files:
                raise ReplanError(
                    f"pages {page_id!r} and {files[identity]!r} are one file, which would be removed with the latter; "
                    "give each page a file of its own"
                )

    def _file_identity(self, page_id: str) -> tuple[int, int] | None:
        try:
            status = (self.pages_dir / f"{page_id}.md").lstat()
        except (OSError, ValueError):
            return None
        return status.st_dev, status.st_ino

    def _refuse_file(self, successor: str) -> None:
        check_page_id(successor)
        if _real_path(self.pages_dir) not in _real_path(self.pages_dir / f"{successor}.md").parents:
            raise PageIdError(f"page id {successor!r} leads out of the pages folder by a link; choose another")
        self._page_text(successor)

    def _refuse_seed(self, successor: str, seed: dict[str, Any], rows: Rows, plan_ids: set[str]) -> None:
        if seed["page_id"] not in plan_ids and self._is_behind(seed, rows):
            raise ReplanError(f"the index lacks the sources of {seed['page_id']!r}; index the tree, then rename it")
        if not self._may_be_written(successor, seed):
            raise ReplanError(
                f"{self.pages_dir / successor}.md exists but no stored page owns it; move it out of the way"
            )

    def _is_behind(self, page: dict[str, Any], rows: Rows) -> bool:
        # The prune would keep the old page; the new one, of no folder then, would go with the next build.
        sources = set(_judged_sources(page, rows))
        return not sources & self._indexed_paths() and any((self.repo_root / path).exists() for path in sources)

    def _may_be_written(self, page_id: str, seed: dict[str, Any]) -> bool:
        # A file without a row is somebody's own, unless a run that failed left it: then it is the seed's text.
        text = self._page_text(page_id)
        if text is None:
            return True
        base = self._page_text(seed["page_id"])
        return split_carried(page_prose(text, seed))[0] == split_carried(page_prose(base, seed))[0]


def _real_path(path: Path) -> Path:
    # A link to itself stays as it is, for the writer to fail with OSError; `resolve` would raise RuntimeError.
    return Path(os.path.realpath(path))
