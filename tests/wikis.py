"""A wiki to prune: a real store, real files, and the module's methods over them."""

from quillstone.storage.repository import Repository
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from quillstone.workers.wiki.replan_carry import carried_sections

BRANCH = "main"


class Wiki(PageRetirementMixin):
    def __init__(self, folder):
        self.repository = Repository(f"sqlite:///{folder / 'wiki.db'}")
        self.repo_root, self.branch, self.pages_dir = folder / "tree", BRANCH, folder / "wiki" / "pages"
        self.notes_dir = folder / "wiki" / "notes"
        for made in (self.repo_root, self.pages_dir, self.notes_dir):
            made.mkdir(parents=True)
        self.index("indexed.py")

    def index(self, *paths):
        records = [{"path": path, "language": "python", "is_source": True, "size": 1, "digest": ""} for path in paths]
        self.repository.record_indexed_files(records)

    def page(self, page_id, prose=None, files=("indexed.py",), **row):
        prose = f"Prose of {page_id}." if prose is None else prose
        row = {"title": page_id.title(), "source_files": list(files), "build_cache": {"prose": prose}, **row}
        self.repository.save_wiki_page(self.branch, page_id, row.pop("title"), chunks=[prose], **row)
        self.file(page_id).write_text(prose, "utf-8")

    def note(self, note_id):
        self.repository.file_note(BRANCH, note_id, note_id.title(), ["text"])
        file = self.notes_dir / f"{note_id}.md"
        file.write_text("text", "utf-8")
        return file

    def file(self, page_id):
        return self.pages_dir / f"{page_id}.md"

    def rows(self):
        return {row["page_id"]: row for row in self.repository.get_wiki_pages(self.branch)}

    def state(self):
        return self.rows(), {file.name: file.read_text("utf-8") for file in self.pages_dir.iterdir()}

    def times_carried(self, page_id, successor, title=None):
        """How often the page's section stands in the successor's file and in its cached prose."""
        (section,) = carried_sections([(title or page_id.title(), f"Prose of {page_id}.")])
        cached = self.rows()[successor]["build_cache"]["prose"]
        return self.file(successor).read_text("utf-8").count(section), cached.count(section)


class GeneratedWiki(WikiGenerator):
    """The same over the generator of the host."""

    page, file, rows, times_carried = Wiki.page, Wiki.file, Wiki.rows, Wiki.times_carried
