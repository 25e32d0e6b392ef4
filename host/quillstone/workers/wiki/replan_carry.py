"""How prose is kept in page texts: generated blocks, carried sections, and who is merged into whom.

A block is a run of whole lines between two marker lines that repeat a digest of what stands between them:

    <!-- carried 0123456789abcdef -->
    ## Title of the merged page

    its prose, as it was
    <!-- /carried 0123456789abcdef -->

A block whose content no longer has that digest was edited by a person: it is prose like any other. So a block
recognises itself whatever text surrounds it, and nothing that somebody wrote is ever taken for generated text.

Page files are read with universal newlines; so prose gets "\\n" line ends when it becomes a section, or the section
would not be recognised after its way through a file.
"""

from __future__ import annotations

import hashlib
import re
from collections.abc import Iterable, Iterator, Mapping, Sequence
from typing import Any

CARRIED = "carried"
GENERATED = "generated"
TEXT = "text"

_MARKER = re.compile(rf"<!-- (/?)({CARRIED}|{GENERATED}) ([0-9a-f]{{16}}) -->")


class ReplanRemap(Mapping[str, str]):
    """A remap from each successor to its seed, with the pages merged into successors beside it.

    Args:
        seeds: the page id of each new page to that of the stored page that it continues.
        merged: each successor's page id to the ids of the pages merged into it, in the order of their prose.
    """

    def __init__(self, seeds: Mapping[str, str], merged: Mapping[str, Sequence[str]]) -> None:
        self._seeds = dict(seeds)
        self.merged: dict[str, list[str]] = {successor: list(ids) for successor, ids in merged.items()}

    def __getitem__(self, successor: str) -> str:
        return self._seeds[successor]

    def __iter__(self) -> Iterator[str]:
        return iter(self._seeds)

    def __len__(self) -> int:
        return len(self._seeds)

    def __repr__(self) -> str:
        return f"ReplanRemap({self._seeds!r}, {self.merged!r})"


def lineages(remap: Mapping[str, str]) -> dict[str, list[str]]:
    """Map each successor to every page that ends in it, over merges and seeds, nearest first, itself never."""
    sources: dict[str, list[str]] = {successor: [seed] for successor, seed in remap.items()}
    for successor, merged in getattr(remap, "merged", {}).items():
        sources.setdefault(successor, []).extend(merged)
    return {successor: _ancestors(successor, sources) for successor in sources}


def _ancestors(successor: str, sources: Mapping[str, Sequence[str]]) -> list[str]:
    found: dict[str, None] = {}
    waiting = list(reversed(sources[successor]))
    while waiting:
        page_id = waiting.pop()
        if page_id != successor and page_id not in found:
            found[page_id] = None
            waiting.extend(reversed(sources.get(page_id, ())))
    return list(found)


def merged_predecessors(remap: Mapping[str, str]) -> dict[str, list[str]]:
    """Map each successor to the pages whose prose goes into it, in that order; the result is the caller's to change.

    With A merged into B and B into C, C lists A too: B's file is read before A's prose reaches it, and then deleted.
    A successor's own seed is listed only where `merged` names it, since its text is what the successor starts from.
    A plain mapping serves as a remap that merges nothing.
    """
    named = getattr(remap, "merged", {})
    predecessors = lineages(remap)
    for successor, seed in remap.items():
        if seed in predecessors[successor] and seed not in named.get(successor, ()):
            predecessors[successor].remove(seed)
    return {successor: page_ids for successor, page_ids in predecessors.items() if page_ids}


def cached_prose(row: Mapping[str, Any]) -> str:
    """The prose that a page row's build cache holds; "" where there is none."""
    cache = row.get("build_cache")
    prose = cache.get("prose") if isinstance(cache, dict) else None
    return prose if isinstance(prose, str) else ""


def carried_sections(pages: Iterable[tuple[str, str]]) -> list[str]:
    """Build the sections of merged pages from pairs of title and prose.

    Each page's own prose makes one section, and each section that its prose already held follows unchanged: sections
    never nest. Blank prose makes none. The same section twice is one.
    """
    sections: dict[str, None] = {}
    for title, prose in pages:
        own, held = split_carried(prose.replace("\r\n", "\n").replace("\r", "\n"))
        if own.strip():
            sections[make_block(CARRIED, f"## {' '.join(title.split())}\n\n{own}")] = None
        sections.update(dict.fromkeys(held))
    return list(sections)


def with_carried(text: str, sections: Sequence[str]) -> str:
    """Append, in order, the sections that the text does not hold yet; with none to append, return it unchanged."""
    _, held = split_carried(text)
    missing = dict.fromkeys(sections)
    for section in held:
        missing.pop(section, None)
    if not missing:
        return text
    base = text.rstrip("\n")
    return "\n\n".join([base, *missing] if base else missing) + "\n"


def page_prose(text: str | None, row: Mapping[str, Any]) -> str:
    """A page's authored prose: its file's text without the generated block and the title line right above that.

    Args:
        text: the page file's text; where that is None or blank, the cached prose stands for it. Where it holds carried
            sections alone, which a replan that failed may have left in a blank file, they follow the cached prose.
        row: the page row; a title line is the page's own only as the row spells it.
    """
    if text is None or is_blank(text):
        return cached_prose(row)
    title_line = page_title_line(row.get("title") or row.get("page_id") or "")
    pieces: list[str] = []
    generated = False
    for kind, piece in _pieces(text):
        if kind != GENERATED or generated:  # a second one was pasted
            pieces.append(piece)
            continue
        generated = True
        if pieces and pieces[-1].rstrip("\n").rpartition("\n")[2] == title_line:
            pieces.append(pieces.pop().rstrip("\n").removesuffix(title_line))
    prose, cached = join_prose(pieces), cached_prose(row)
    own, sections = split_carried(prose)
    return with_carried(cached, sections).strip("\n") if sections and cached and is_blank(own) else prose


def is_blank(text: str) -> bool:
    """Whether the text is nothing but white space, perhaps after a byte order mark."""
    return not text.lstrip("\ufeff").strip()


def page_title_line(title: str) -> str:
    """The first line of a page: its title as a heading."""
    return f"# {' '.join(title.split())}"


def split_carried(text: str) -> tuple[str, list[str]]:
    """Part a text into the prose of its own and the carried sections that it holds, in their order."""
    own: list[str] = []
    held: list[str] = []
    for kind, piece in _pieces(text):
        (held if kind == CARRIED else own).append(piece)
    if not held:
        return join_prose(own), []
    # A section that somebody pasted another into is whole again without it.
    rest, more = split_carried(join_prose(own))
    return rest, held + more


def join_prose(pieces: Iterable[str]) -> str:
    """Join pieces of prose by one empty line, without empty pieces and without empty lines at either end."""
    return "\n\n".join(piece for piece in (piece.strip("\n") for piece in pieces) if piece)


def make_block(kind: str, content: str) -> str:
    """Put the content between marker lines that carry its digest."""
    digest = text_digest(content)
    return f"<!-- {kind} {digest} -->\n{content}\n<!-- /{kind} {digest} -->"


def without_blocks(text: str) -> str:
    """The text with its marker lines made plain ones, for text that is not this wiki's own."""
    return "\n".join(
        line.replace("<!--", "<!-- -", 1) if _MARKER.fullmatch(line) else line for line in text.split("\n")
    )


def text_digest(text: str) -> str:
    """Sixteen hexadecimal digits that stand for the text."""
    return hashlib.sha256(text.encode("utf-8", "surrogatepass")).hexdigest()[:16]


def _pieces(text: str) -> Iterator[tuple[str, str]]:
    # The text in its order, as (kind, piece): intact blocks, and TEXT for all that stands between them.
    lines = text.split("\n")
    start = 0
    for first, last, kind in _intact_blocks(lines):
        yield TEXT, "\n".join(lines[start:first])
        yield kind, "\n".join(lines[first : last + 1])
        start = last + 1
    yield TEXT, "\n".join(lines[start:])


def _intact_blocks(lines: Sequence[str]) -> list[tuple[int, int, str]]:
    # A block cannot hold its own digest, so the nearest begin marker with the digest is the only candidate.
    begun: dict[tuple[str, str], int] = {}
    found: list[tuple[int, int, str]] = []
    for number, line in enumerate(lines):
        marker = _MARKER.fullmatch(line)
        if not marker:
            continue
        slash, kind, digest = marker.groups()
        if not slash:
            begun[kind, digest] = number
            continue
        first = begun.pop((kind, digest), None)
        if first is not None and text_digest("\n".join(lines[first + 1 : number])) == digest:
            found.append((first, number, kind))
    outermost: list[tuple[int, int, str]] = []
    for block in sorted(found):
        if not outermost or block[0] > outermost[-1][1]:
            outermost.append(block)
    return outermost
