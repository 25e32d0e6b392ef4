"""The factory of the host beside this folder."""

import sqlalchemy as sa

from quillstone.storage.repository import Repository, wiki_chunks
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan_carry import ReplanRemap


class DemoHost:
    """What the checks need of a host."""

    def __init__(self, folder):
        (folder / "tree").mkdir(exist_ok=True)
        self.store = Repository(f"sqlite:///{folder / 'store.sqlite'}")
        self.generator = WikiGenerator(self.store, folder / "tree", "main", folder / "wiki")

    def index(self, paths):
        self.store.record_indexed_files([{"path": path} for path in paths])

    def remap(self, seeds, merged):
        return ReplanRemap(seeds, merged)

    def give_chunks(self, page_id, texts):
        page = {"branch": self.generator.branch, "page_id": page_id}
        rows = [{**page, "position": position, "text": text} for position, text in enumerate(texts)]
        with self.store.db.transaction() as connection:
            connection.execute(sa.insert(wiki_chunks), rows)

    def chunks(self, page_id):
        query = sa.select(wiki_chunks.c.text).filter_by(branch=self.generator.branch, page_id=page_id)
        with self.store.db.reading() as connection:
            return list(connection.execute(query.order_by(wiki_chunks.c.position)).scalars())


factory = DemoHost
