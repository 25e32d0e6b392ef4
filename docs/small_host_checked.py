"""The small host as the checks take it; in this folder: `pytest ../conformance --host=small_host_checked:factory`."""

import small_host


class Checked:
    def __init__(self, folder):
        self.generator = small_host.WikiGenerator(folder / "tree", folder / "wiki")
        self.execute = self.generator.repository.execute

    def index(self, paths):
        for path in paths:
            self.execute("INSERT OR IGNORE INTO files VALUES (?)", [path])

    def remap(self, seeds, merged):
        remap = small_host.Remap(seeds)
        remap.merged = merged
        return remap

    def give_chunks(self, page_id, texts):
        for text in texts:
            self.execute("INSERT INTO chunks VALUES (?, ?, ?)", [self.generator.branch, page_id, text])

    def chunks(self, page_id):
        return [text for (text,) in self.execute("SELECT text FROM chunks WHERE page_id = ? ORDER BY rowid", [page_id])]


factory = Checked
