"""A wiki to prune: a real store, real files, and the module's methods over them."""

from quillstone.storage.repository import Repository
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from quillstone.workers.wiki.replan_carry import carried_sections


class Wiki(PageRetirementMixin):
    def __init__(self, folder):
        self.repository, self.branch = Repository(f"sqlite:///{folder / 'wiki.db'}"), "main"
        self.repo_root, self.pages_dir = folder / "tree", folder / "wiki" / "pages"
        for made in (self.repo_root, self.pages_dir, self.pages_dir.parent / "notes"):
            made.mkdir(parents=True)
        self.repository.record_indexed_files([{"path": "indexed.py"}])

    def page(self, page_id):
        prose = f"Prose of {page_id}."
        row = {"title": page_id.title(), "source_files": ["indexed.py"], "build_cache": {"prose": prose}, "chunks": []}
        self.repository.save_wiki_page("main", page_id, **row)
        self.file(page_id).write_text(prose, "utf-8")

    def note(self, note_id):
        (self.pages_dir.parent / "notes" / f"{note_id}.md").touch()

    def file(self, page_id):
        return self.pages_dir / f"{page_id}.md"

    def rows(self):
        return {row["page_id"]: row for row in self.repository.get_wiki_pages("main")}

    def times_carried(self, page_id, successor):
        """How often the page's section stands in the successor's file and in its cached prose."""
        (section,) = carried_sections([(page_id.title(), f"Prose of {page_id}.")])
        texts = self.file(successor).read_text("utf-8"), self.rows()[successor]["build_cache"]["prose"]
        return tuple(text.count(section) for text in texts)
