import contextlib as contextlib
import json as json
import logging as logging
from collections.abc import Mapping as Mapping
from collections.abc import Sequence as Sequence
from pathlib import Path as Path
from typing import Any as Any

from quillstone.storage.repository import Repository as Repository
from quillstone.workers.wiki.replan_carry import cached_prose as cached_prose
from quillstone.workers.wiki.replan_carry import carried_sections as carried_sections
from quillstone.workers.wiki.replan_carry import merged_predecessors as merged_predecessors
from quillstone.workers.wiki.replan_carry import page_prose as page_prose
from quillstone.workers.wiki.replan_carry import with_carried as with_carried
from quillstone.workers.wiki.repo_facts import _atomic_write as _atomic_write
from quillstone.workers.wiki.repo_facts import _norm as _norm
from quillstone.workers.wiki_types import NOTE_LEVEL as NOTE_LEVEL

logger: logging.Logger
_Successor = tuple[dict[str, Any], list[str], list[str]]

def _judged_sources(page: dict[str, Any], existing: dict[str, dict[str, Any]]) -> list[str]: ...

class PageRetirementMixin:
    repository: Repository
    repo_root: Path
    branch: str
    pages_dir: Path
    def _apply_replan_to_store(self, remap: Mapping[str, str], plan_ids: set[str]) -> int: ...
    def _prune_retired_pages(
        self, existing: dict[str, dict[str, Any]], plan_ids: set[str], remap: Mapping[str, str] | None = None
    ) -> int: ...
    def _retired_page_ids(self, existing: dict[str, dict[str, Any]], plan_ids: set[str]) -> set[str]: ...
    def _notes_whose_file_is_gone(self, existing: dict[str, dict[str, Any]]) -> set[str]: ...
    def _carry_into_successors(self, remap: Mapping[str, str], deletes: set[str]) -> dict[str, _Successor]: ...
    def _page_text(self, page_id: str) -> str | None: ...
    def _upsert_successor(self, new_id: str, row: dict[str, Any], files: list[str], carried: Sequence[str]) -> None: ...
    def _indexed_paths(self) -> set[str]: ...
    def _retired_only_because_the_index_is_behind(
        self, page_id: str, page: dict[str, Any], indexed: set[str], existing: dict[str, dict[str, Any]]
    ) -> bool: ...
