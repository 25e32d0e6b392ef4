"""A wiki without input or output, for the module's methods to work on."""

from memory_host import RowStore
from quillstone.workers.wiki.page_retirement import PageRetirementMixin


class MemoryFile(str):
    """A path below a dict of texts."""

    files: dict
    is_dir = lambda self: False
    is_file = lambda self: self in self.files
    read_text = lambda self, encoding=None: self.files[self]
    write_text = lambda self, text, encoding=None: self.files.update({self: text})
    unlink = lambda self, missing_ok: self.files.pop(self, None)

    def __truediv__(self, name):
        file = MemoryFile(name)
        file.files, file.parent = self.files, self
        return file


class Wiki(PageRetirementMixin):
    def __init__(self):
        root = MemoryFile()
        root.files = {}
        self.repository, self.branch, self.repo_root, self.pages_dir = RowStore([]), "main", root, root / "" / ""

    def page(self, page_id):
        prose = f"Prose of {page_id}."
        row = {"title": page_id.title(), "source_files": ["indexed.py"], "build_cache": {"prose": prose}}
        self.repository.save_wiki_page("main", page_id, **row)
        self.file(page_id).write_text(prose)

    def file(self, page_id):
        return self.pages_dir / f"{page_id}.md"

    def rows(self):
        return {row["page_id"]: row for row in self.repository.get_wiki_pages("main")}
