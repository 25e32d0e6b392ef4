"""Wikis in memory, with collaborators that cost next to nothing: what is left is the module and the calls it makes.

The siblings that the module imports are stand-ins here, so this has to be imported before the module.
"""

from __future__ import annotations

import importlib.util
import logging
import sys
import types
from collections.abc import Callable
from os import fspath
from pathlib import Path
from typing import Any, NamedTuple

from generated import BRANCH, Wiki

ORACLE = Path(__file__).parent.parent / "tests" / "oracle.py"


class Remap(dict):
    """A remap with the pages merged into successors beside it."""

    def __init__(self, wiki: Wiki) -> None:
        super().__init__(wiki.seeds)
        self.merged = wiki.merged


def install_siblings() -> None:
    """Make the stand-ins what `quillstone...` imports find."""
    for name, members in SIBLINGS.items():
        module = sys.modules[name] = types.ModuleType(name)
        vars(module).update(members)
    for package in ("quillstone", "quillstone.storage", "quillstone.workers", "quillstone.workers.wiki"):
        sys.modules.setdefault(package, types.ModuleType(package)).__path__ = [
            f"{path}/{package.replace('.', '/')}" for path in sys.path
        ]


SIBLINGS: dict[str, dict[str, Any]] = {
    "quillstone.storage.repository": {"Repository": object},
    "quillstone.workers.wiki_types": {"NOTE_LEVEL": "note"},
    "quillstone.workers.wiki.repo_facts": {"_norm": fspath, "_atomic_write": lambda file, text: file.write(text)},
    "quillstone.workers.wiki.replan_carry": {
        "merged_predecessors": lambda remap: {successor: list(ids) for successor, ids in remap.merged.items()},
        "carried_sections": lambda pairs: [f"## {title}\n\n{prose}" for title, prose in pairs],
        "page_prose": lambda text, row: text or row["build_cache"]["prose"],
        "cached_prose": lambda row: row["build_cache"]["prose"],
        "with_carried": lambda text, sections: "\n\n".join([text, *sections]),
    },
}
install_siblings()

from quillstone.workers.wiki import page_retirement  # noqa: E402

logging.getLogger("quillstone").setLevel(logging.CRITICAL)  # the guard's warnings


def plain_python() -> types.ModuleType:
    """The same rules in plain Python, as the tests spell them."""
    return rules_of(ORACLE)


def rules_of(file: Path) -> types.ModuleType:
    """The rules that a Python source or an extension module has, over the stand-ins."""
    spec = importlib.util.spec_from_file_location("oracle", file)
    module = importlib.util.module_from_spec(spec)
    for members in SIBLINGS.values():
        vars(module).update(members)
    spec.loader.exec_module(module)
    return module


class Folder:
    """What the module asks of a path, over a dict from path to text."""

    __slots__ = ("files", "path")

    def __init__(self, files: dict[str, str], path: str) -> None:
        self.files, self.path = files, path

    def __truediv__(self, name: str) -> Folder:
        return Folder(self.files, f"{self.path}/{name}")

    @property
    def parent(self) -> Folder:
        return Folder(self.files, self.path.rpartition("/")[0])

    def is_dir(self) -> bool:
        return True

    def glob(self, pattern: str) -> list[Folder]:
        return [self]

    def exists(self) -> bool:
        return True

    def is_file(self) -> bool:
        return self.path in self.files

    def read_text(self, encoding: str) -> str:
        return self.files[self.path]

    def write(self, text: str) -> None:
        pass  # a run leaves the wiki as it was, to be run again

    def unlink(self, missing_ok: bool) -> None:
        pass


class Store:
    """A store that takes every change and forgets it."""

    def __init__(self, wiki: Wiki) -> None:
        self.rows, self.indexed, self.db = wiki.rows, wiki.indexed, self

    def transaction(self) -> Store:
        return self

    def __enter__(self) -> None:
        pass

    def __exit__(self, *error: object) -> None:
        pass

    def get_wiki_pages(self, branch: str) -> list[dict[str, Any]]:
        return self.rows

    def list_indexed_files(self, source_only: bool, limit: int) -> tuple[list[dict[str, str]], bool, int, int]:
        return self.indexed, False, limit, len(self.indexed)

    def upsert_wiki_page(self, *args: Any, **fields: Any) -> None:
        pass

    def delete_wiki_page(self, branch: str, page_id: str) -> bool:
        return True


class Operation(NamedTuple):
    """A call over the whole wiki; it returns as many items as `expected` where that can be said."""

    run: Callable[[], Any]
    expected: int | None = None


def operations(wiki: Wiki, rules: types.ModuleType = page_retirement) -> dict[str, Operation]:
    """Each operation over a wiki in memory, by name: of the module, or of the same rules in plain Python."""
    host = type("Host", (rules.PageRetirementMixin,), {})()
    host.repository, host.branch = Store(wiki), BRANCH
    host.repo_root = Folder({}, "tree")
    files = {f"wiki/pages/{page_id}.md": text for page_id, text in wiki.pages_with_file()}
    files |= dict.fromkeys((f"wiki/notes/{note}.md" for note in wiki.notes_with_file), "")
    host.pages_dir = Folder(files, "wiki/pages")
    existing, remap = wiki.existing, Remap(wiki)
    indexed = {record["path"] for record in wiki.indexed}
    chosen = type("Chosen", (type(host),), {"_indexed_paths": lambda self: indexed})()
    vars(chosen).update(vars(host))
    parents = [row for row in wiki.rows if row["related_pages"]]
    successors = [(new_id, existing.get(wiki.seeds.get(new_id, new_id)), ["file"], ["text"]) for new_id in wiki.merged]
    expected = len(wiki.deletes)
    return {
        "index": Operation(lambda: len(host._indexed_paths()), len(wiki.indexed)),
        "select": Operation(lambda: len(chosen._retired_page_ids(existing, wiki.plan_ids)), expected),
        "judge": Operation(lambda: [rules._judged_sources(parent, existing) for parent in parents]),
        "carry": Operation(lambda: len(host._carry_into_successors(remap, wiki.deletes)), len(wiki.merged)),
        "upsert": Operation(lambda: [host._upsert_successor(*successor) for successor in successors]),
        "prune": Operation(lambda: host._prune_retired_pages(existing, wiki.plan_ids, remap), expected),
        "replan": Operation(lambda: host._apply_replan_to_store(remap, wiki.plan_ids), expected),
    }
