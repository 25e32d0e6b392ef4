"""What one wiki consists of: its store, its tree, its folders and its lock."""

from __future__ import annotations

from pathlib import Path
from typing import Any

from quillstone.storage.repository import Repository
from quillstone.workers.wiki.wiki_lock import WikiLock
from quillstone.workers.wiki_types import NOTE_LEVEL

Rows = dict[str, dict[str, Any]]
"""Page rows by page id."""


class WikiWorkspace:
    """The store, tree and folders that one wiki lives in. An object belongs to one thread."""

    def __init__(self, repository: Repository, repo_root: Path, branch: str, wiki_dir: Path) -> None:
        """Work on the wiki in `wiki_dir` (its pages/ and notes/) about the tree `repo_root`."""
        self.repository = repository
        self.repo_root = repo_root
        self.branch = branch
        self.pages_dir = wiki_dir / "pages"
        self.lock = WikiLock(wiki_dir)

    def stored_pages(self) -> Rows:
        """The branch's page rows by page id."""
        return {row["page_id"]: row for row in self.repository.get_wiki_pages(self.branch)}

    def files_without_rows(self) -> list[str]:
        """Page files that belong to no stored page, by page id: left by a run that was killed, or somebody's own."""
        stored = {page_id for page_id, row in self.stored_pages().items() if row["level"] != NOTE_LEVEL}
        files = [path.relative_to(self.pages_dir) for path in self.pages_dir.rglob("*.md") if not path.is_dir()]
        return sorted({path.as_posix().removesuffix(".md") for path in files} - stored)
