"""A wiki to prune: a real store, real files, and the module's methods over them."""

from quillstone.storage.repository import Repository
from quillstone.workers.wiki.page_retirement import PageRetirementMixin


def write_files(folder, files):
    for name, text in files.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text(text, "utf-8")
    return folder


class Wiki(PageRetirementMixin):
    def __init__(self, folder):
        self.repository, self.branch = Repository(f"sqlite:///{folder / 'wiki.db'}"), "main"
        self.repo_root, self.pages_dir = folder / "tree", folder / "wiki" / "pages"
        self.pages_dir.mkdir(parents=True)
        self.repository.record_indexed_files([{"path": "indexed.py"}])

    def page(self, page_id):
        prose = f"Prose of {page_id}."
        row = {"title": page_id.title(), "source_files": ["indexed.py"], "build_cache": {"prose": prose}, "chunks": []}
        self.repository.save_wiki_page("main", page_id, **row)
        self.file(page_id).write_text(prose, "utf-8")

    def file(self, page_id):
        return self.pages_dir / f"{page_id}.md"

    def rows(self):
        return {row["page_id"]: row for row in self.repository.get_wiki_pages("main")}
