"""A host in memory, small and without imports of the application: what the module needs, and no more."""

import contextlib
import types

COLLABORATORS = {
    "_norm": lambda path: path, "NOTE_LEVEL": "note", "_atomic_write": lambda path, text: None,
    "merged_predecessors": lambda remap: {"kept": ["merged", "index"], "one": ["merged"]},
    "carried_sections": lambda pairs: [prose for _, prose in pairs], "page_prose": lambda text, row: row["page_id"],
    "cached_prose": lambda row: "cached", "with_carried": lambda text, sections: text.join(sections) + text,
    "json": types.SimpleNamespace(dumps=lambda cache, ensure_ascii: "{}"),
}  # fmt: skip


class Name(str):
    """A path of the host's, as far as the module uses one."""

    __truediv__ = lambda self, name: Name(f"{self}/{name}")
    parent = property(lambda self: Name("wiki"))
    is_dir = exists = lambda self: True
    is_file = lambda self: False
    glob = lambda self, pattern: ["note.md"]
    unlink = lambda self, missing_ok: None


class Store:
    db = property(lambda self: self)

    def __init__(self, rows=()):
        self.rows = {row["page_id"]: row for row in rows}

    def list_indexed_files(self, source_only, limit):
        return [{"path": "a.py"}, {"path": "b.py"}], False, limit, 2

    def get_wiki_pages(self, branch):
        return list(self.rows.values())

    def upsert_wiki_page(self, branch, page_id, title, **fields):
        self.rows[page_id] = fields

    def delete_wiki_page(self, branch, page_id):
        return bool(self.rows.pop(page_id, None))

    @contextlib.contextmanager
    def transaction(self):
        before = dict(self.rows)
        try:
            yield
        except BaseException:
            self.rows = before
            raise


ROWS = [
    {"page_id": page_id, "source_files": files, "related_pages": ["kept"], "build_cache": {"a": 1}, "level": level}
    for page_id, files, level in [
        ("kept", ["a.py"], None), ("merged", ["a.py", "b.py"], ""), ("index", ["behind.py"], None), ("é", [], "module"),
        ("note", [], "note"), ("seed", [], "module"),
    ]
]  # fmt: skip
ROWS[-1] = types.MappingProxyType(ROWS[-1])
REMAP, PLAN = {"néw": "seed", "kept": "merged"}, {"kept", "néw"}


def adopt(rules):
    """Puts the collaborators into the module."""
    for name, value in COLLABORATORS.items():
        setattr(rules, name, value)
    rules.logger = types.SimpleNamespace(warning=lambda *args: None)


def make_host(rules):
    host = type("Host", (rules.PageRetirementMixin,), {})()
    host.repository, host.branch, host.pages_dir, host.repo_root = Store(ROWS), "b", Name("wiki/pages"), Name("r")
    return host
